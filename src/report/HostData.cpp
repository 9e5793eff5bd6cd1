#include "report/HostData.h"

#include <QFile>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

constexpr qint64 kDaySeconds = 86'400;
constexpr double kMiB = 1'048'576;

const auto kLatest =
    u"SELECT extract(epoch FROM at)::bigint, to_char(at, 'YYYY-MM-DD HH24:MI'), "
    "load1, load15, cpu_pct, iowait_pct, 100 - 100.0 * mem_avail_kb / nullif(mem_total_kb, 0), "
    "100 - 100.0 * swap_free_kb / nullif(swap_total_kb, 0), "
    "100 - 100.0 * disk_avail_bytes / nullif(disk_total_bytes, 0), disk_read_bps, disk_write_bps, "
    "net_rx_bps, "
    "net_tx_bps, apache_busy, apache_slots, apache_rps, mem_total_kb * 1024.0, disk_total_bytes, cpu_temp_c, "
    "pg_connections, pg_tps FROM tarn.host_samples ORDER BY at DESC LIMIT 1"_s;

/// The columns behind the first are those of Metric.
const auto kSamples =
    u"SELECT floor((extract(epoch FROM at) - CAST(? AS bigint)) / CAST(? AS bigint))::int AS bucket, "
    "avg(load1), max(load1), avg(cpu_pct), avg(iowait_pct), "
    "avg(100 - 100.0 * mem_avail_kb / nullif(mem_total_kb, 0)), "
    "avg(100 - 100.0 * swap_free_kb / nullif(swap_total_kb, 0)), "
    "avg(100 - 100.0 * disk_avail_bytes / nullif(disk_total_bytes, 0)), avg(disk_read_bps), "
    "avg(disk_write_bps), "
    "avg(net_rx_bps), avg(net_tx_bps), avg(apache_busy), avg(apache_slots), avg(apache_rps) "
    "FROM tarn.host_samples WHERE at >= to_timestamp(?) AND at <= to_timestamp(?) GROUP BY bucket"_s;

const auto kHostDays =
    u"SELECT day, load1_avg, load1_max, cpu_pct_avg, mem_used_pct_max, disk_used_pct_last, net_rx_bytes, "
    u"net_tx_bytes "
    "FROM tarn.host_days WHERE day > CAST(? AS date) - CAST(? AS integer) AND day <= CAST(? AS date) ORDER BY day"_s;

const auto kAlerts =
    u"SELECT kind, subject, message, extract(epoch FROM opened_at)::bigint, extract(epoch FROM "
    u"closed_at)::bigint, "
    "to_char(opened_at, 'YYYY-MM-DD HH24:MI') FROM tarn.alerts "
    "WHERE closed_at IS NULL OR closed_at >= to_timestamp(?) ORDER BY closed_at IS NULL DESC, opened_at DESC LIMIT ?"_s;

const auto kAccounts =
    u"SELECT a.username, a.domain, greatest(a.disk_limit_mb, 0)::float8, greatest(a.db_limit_mb, 0)::float8, "
    "a.disk_used_bytes, a.db_used_bytes, a.db_readonly, e.disk_used_bytes, e.db_used_bytes, e.day, "
    "count(*) OVER (), sum(a.disk_used_bytes) OVER (), sum(a.db_used_bytes) OVER () "
    "FROM tarn.accounts a LEFT JOIN LATERAL (SELECT d.disk_used_bytes, d.db_used_bytes, d.day "
    "FROM tarn.account_days d WHERE d.username = a.username AND d.day >= greatest(CAST(? AS date), "
    "a.created_at::date) ORDER BY d.day "
    "LIMIT 1) e "
    "ON true "
    "ORDER BY greatest(a.disk_used_bytes / 1048576.0 / nullif(greatest(a.disk_limit_mb, 0), 0), "
    "a.db_used_bytes / 1048576.0 / nullif(greatest(a.db_limit_mb, 0), 0), 0) DESC, "
    "coalesce(a.disk_used_bytes, 0)::float8 + coalesce(a.db_used_bytes, 0) DESC, a.username LIMIT ?"_s;

const auto kSources = u"SELECT s.host, l.path, l.inode, l.read_offset, "
                      "extract(epoch FROM coalesce(l.updated_at, l.created_at))::bigint, "
                      "to_char(l.updated_at, 'YYYY-MM-DD HH24:MI') "
                      "FROM tarn.log_sources l JOIN tarn.sites s ON s.id = l.site_id"_s;

/// The sums over all sites stand in each row.
const auto kSitesRead =
    u"WITH d AS (SELECT site_id, sum(visitors) FILTER (WHERE day >= p.first) AS visitors, "
    "sum(page_views) FILTER (WHERE day >= p.first) AS views, "
    "sum(visitors) FILTER (WHERE day < p.first) AS visitors_before, "
    "sum(bot_hits) FILTER (WHERE day >= p.first)::float8 "
    "/ nullif(sum(hits) FILTER (WHERE day >= p.first), 0) AS bot_share "
    "FROM tarn.site_days, (SELECT CAST(? AS date) AS first) p "
    "WHERE day BETWEEN CAST(? AS date) AND CAST(? AS date) GROUP BY site_id) "
    "SELECT s.id, s.host, coalesce(d.visitors, 0)::bigint, coalesce(d.views, 0)::bigint, "
    "coalesce(d.visitors_before, 0)::bigint, coalesce(d.bot_share, 0), count(*) OVER (), "
    "(sum(d.visitors) OVER ())::bigint, (sum(d.views) OVER ())::bigint, (sum(d.visitors_before) OVER "
    "())::bigint "
    "FROM tarn.sites s LEFT JOIN d ON d.site_id = s.id ORDER BY 3 DESC, 4 DESC, s.host LIMIT ?"_s;

const auto kTrends = u"SELECT site_id, (day - CAST(? AS date)) / CAST(? AS integer), sum(visitors)::float8 "
                     "FROM tarn.site_days WHERE site_id = ANY (CAST(? AS integer[])) "
                     "AND day BETWEEN CAST(? AS date) AND CAST(? AS date) GROUP BY 1, 2"_s;

const auto kSearch =
    u"SELECT coalesce(last_result, ''), coalesce(to_char(last_sync_at, 'YYYY-MM-DD HH24:MI'), ''), "
    "coalesce(last_sync_at, connected_at) < now() - interval '2 days' "
    "FROM tarn.engine_accounts ORDER BY engine LIMIT 1"_s;

std::optional<double> number(const QSqlQuery& query, int column)
{
    return query.isNull(column) ? std::nullopt : std::optional(query.value(column).toDouble());
}

bool readLatest(HostFigures& figures)
{
    std::optional<QSqlQuery> query = select(kLatest);
    if (!query || !query->next())
        return query.has_value();
    Sample sample;
    sample.seconds = query->value(0).toLongLong();
    sample.minute = query->value(1).toString();
    int column = 2;
    for (std::optional<double>& metric : sample.metrics)
        metric = number(*query, column++);
    sample.memoryBytes = number(*query, column++);
    sample.diskBytes = number(*query, column++);
    sample.temperature = number(*query, column++);
    sample.connections = number(*query, column++);
    sample.transactions = number(*query, column);
    figures.latest = sample;
    return true;
}

bool readSamples(HostFigures& figures)
{
    Samples& samples = figures.samples;
    const qint64 days = std::min<qint64>(figures.period.days(), kSampleDays);
    const qint64 bucketSeconds = days * kDaySeconds / kBuckets;
    samples.to = figures.now.seconds;
    samples.from = samples.to - days * kDaySeconds;
    for (Values& values : samples.metrics)
        values.resize(kBuckets);
    std::optional<QSqlQuery> query =
        select(kSamples, {samples.from, bucketSeconds, samples.from, samples.to});
    while (query && query->next()) {
        // The last moment begins a part of its own.
        const int bucket = std::clamp(query->value(0).toInt(), 0, kBuckets - 1);
        for (int metric = 0; metric < MetricCount; ++metric)
            samples.metrics.at(static_cast<std::size_t>(metric))[bucket] = number(*query, metric + 1);
    }
    return query.has_value();
}

bool readHostDays(HostFigures& figures)
{
    std::optional<QSqlQuery> query = select(kHostDays, {figures.now.today, kLongDays, figures.now.today});
    while (query && query->next()) {
        const QDate day = query->value(0).toDate();
        // Days without a sample have no row.
        while (!figures.days.isEmpty() && figures.days.last().day.addDays(1) < day) {
            HostDay unknown;
            unknown.day = figures.days.last().day.addDays(1);
            figures.days.append(unknown);
        }
        figures.days.append({day, number(*query, 1), number(*query, 2), number(*query, 3), number(*query, 4),
                             number(*query, 5), query->value(6).toDouble(), query->value(7).toDouble()});
    }
    return query.has_value();
}

bool readAlerts(HostFigures& figures)
{
    std::optional<QSqlQuery> query = select(kAlerts, {figures.samples.from, kDrawnAlerts});
    while (query && query->next()) {
        Alert alert{query->value(0).toString(),
                    query->value(1).toString(),
                    query->value(2).toString(),
                    query->value(3).toLongLong(),
                    std::nullopt,
                    query->value(5).toString()};
        if (query->isNull(4)) {
            figures.open.append(alert);
        } else {
            alert.closedSeconds = query->value(4).toLongLong();
        }
        figures.alerts.append(alert);
    }
    std::stable_sort(figures.alerts.begin(), figures.alerts.end(), [](const Alert& left, const Alert& right) {
        return left.openedSeconds > right.openedSeconds;
    });
    return query.has_value();
}

bool readAccounts(HostFigures& figures)
{
    std::optional<QSqlQuery> query = select(kAccounts, {figures.period.first, kListedAccounts});
    while (query && query->next()) {
        Account account;
        account.username = query->value(0).toString();
        account.domain = query->value(1).toString();
        account.diskLimit = query->value(2).toDouble() * kMiB;
        account.databaseLimit = query->value(3).toDouble() * kMiB;
        account.disk = number(*query, 4);
        account.database = number(*query, 5);
        account.readOnly = query->value(6).toBool();
        account.diskBefore = number(*query, 7);
        account.databaseBefore = number(*query, 8);
        account.since = query->value(9).toDate();
        figures.accounts.count = query->value(10).toLongLong();
        figures.accounts.disk = query->value(11).toDouble();
        figures.accounts.database = query->value(12).toDouble();
        figures.accounts.listed.append(account);
    }
    return query.has_value();
}

/// Looks at the file of @p path. False when that is not allowed to this program, or fails for another reason
/// than that there is none.
bool lookAt(const QString& path, SourceState& state)
{
    struct stat file = {};
    if (stat(QFile::encodeName(path).constData(), &file) != 0)
        return errno == ENOENT;
    state.exists = true;
    state.fileInode = file.st_ino;
    state.fileSize = file.st_size;
    state.fileSeconds = file.st_mtim.tv_sec;
    return true;
}

void addBehind(Sources& sources, const Behind& behind)
{
    ++sources.behind;
    const auto place =
        std::find_if(sources.listed.begin(), sources.listed.end(),
                     [&behind](const Behind& other) { return other.unreadBytes < behind.unreadBytes; });
    sources.listed.insert(place, behind);
    if (sources.listed.size() > kListedSources)
        sources.listed.removeLast();
}

bool readSources(HostFigures& figures)
{
    std::optional<QSqlQuery> query = select(kSources);
    while (query && query->next()) {
        ++figures.sources.count;
        SourceState state;
        if (!query->isNull(2))
            state.inode = static_cast<quint64>(query->value(2).toLongLong());
        state.readOffset = query->value(3).toLongLong();
        state.movedSeconds = query->value(4).toLongLong();
        const QString path = query->value(1).toString();
        if (!lookAt(path, state)) {
            ++figures.sources.unseen;
            continue;
        }
        if (const std::optional<qint64> unread = unreadBytes(state, figures.now.seconds)) {
            addBehind(figures.sources,
                      {query->value(0).toString(), path, *unread, !state.exists, query->value(5).toString()});
        }
    }
    return query.has_value();
}

bool readTrends(Sites& sites, const Period& period)
{
    QHash<int, qsizetype> places;
    QStringList ids;
    const qsizetype step = (period.days() + kSparkPoints - 1) / kSparkPoints;
    for (SiteRow& row : sites.listed) {
        places.insert(row.site.id, places.size());
        ids.append(QString::number(row.site.id));
        row.trend.fill(0, (period.days() + step - 1) / step);
    }
    std::optional<QSqlQuery> query =
        select(kTrends, {period.first, step, u"{%1}"_s.arg(ids.join(u',')), period.first, period.last});
    while (query && query->next()) {
        QList<double>& trend = sites.listed[places.value(query->value(0).toInt())].trend;
        const int point = query->value(1).toInt();
        // A last part of fewer days than the others would look like a fall.
        const qsizetype days = std::min(step, period.days() - point * step);
        trend[point] = query->value(2).toDouble() / static_cast<double>(days);
    }
    return query.has_value();
}

bool readSiteRows(HostFigures& figures)
{
    const Period& period = figures.period;
    Sites& sites = figures.sites;
    std::optional<QSqlQuery> query =
        select(kSitesRead, {period.first, period.before().first, period.last, kListedSites});
    while (query && query->next()) {
        const auto whole = [&query](int column) { return query->value(column).toLongLong(); };
        sites.listed.append({
            {query->value(0).toInt(), query->value(1).toString()},
            whole(2),
            whole(3),
            whole(4),
            query->value(5).toDouble(),
            {                       }
        });
        sites.count = whole(6);
        sites.visitors = whole(7);
        sites.views = whole(8);
        sites.visitorsBefore = whole(9);
    }
    return query && readTrends(sites, period);
}

bool readSearch(HostFigures& figures)
{
    std::optional<QSqlQuery> query = select(kSearch);
    if (query && query->next()) {
        figures.searchResult = query->value(0).toString();
        figures.searchAt = query->value(1).toString();
        figures.searchLate = query->value(2).toBool();
    }
    return query.has_value();
}

} // namespace

double Account::share() const
{
    const double ofDisk = diskLimit > 0 ? disk.value_or(0) / diskLimit : 0;
    const double ofDatabase = databaseLimit > 0 ? database.value_or(0) / databaseLimit : 0;
    return std::max(ofDisk, ofDatabase);
}

std::optional<qint64> unreadBytes(const SourceState& state, qint64 nowSeconds)
{
    if (nowSeconds - state.movedSeconds < kBehindSeconds)
        return std::nullopt;
    // A log that was never read and is not there yet may belong to a site without visitors.
    if (!state.exists)
        return state.inode ? std::optional<qint64>(0) : std::nullopt;
    const bool same = state.inode == state.fileInode && state.fileSize >= state.readOffset;
    const qint64 unread = same ? state.fileSize - state.readOffset : state.fileSize;
    // A line that a quiet log got just now is waiting for the collector's next pass.
    const bool fresh = nowSeconds - state.fileSeconds < kFreshSeconds && unread < kFreshBytes;
    return unread > 0 && !fresh ? std::optional(unread) : std::nullopt;
}

std::optional<HostFigures> readHost(const QString& name, const Now& now, const Period& period)
{
    HostFigures figures;
    figures.name = name;
    figures.now = now;
    figures.period = period;
    const bool complete = readLatest(figures) && readSamples(figures) && readHostDays(figures)
                          && readAlerts(figures) && readAccounts(figures) && readSources(figures)
                          && readSiteRows(figures) && readSearch(figures);
    return complete ? std::optional(figures) : std::nullopt;
}

} // namespace tarn::report
