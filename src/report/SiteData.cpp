#include "report/SiteData.h"

#include <QHash>

#include <algorithm>
#include <numeric>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

const auto kSites = u"SELECT id, host FROM tarn.sites ORDER BY host"_s;
const auto kSiteOfHost = u"SELECT id, host FROM tarn.sites WHERE host = lower(?)"_s;

const auto kDays =
    u"SELECT day, hits, page_views, visitors, sessions, coalesce(bounces, 0), bot_hits, bytes, errors_4xx, "
    "errors_5xx, engaged_seconds, response_us_median, response_us_p95 "
    "FROM tarn.site_days WHERE site_id = ? AND day BETWEEN ? AND ?"_s;

/// Day of the row with which rankings would be made of too many, counted from the period's end.
const auto kDayOfRow = u"SELECT day FROM tarn.site_day_values WHERE site_id = ? AND day BETWEEN ? AND ? "
                       "ORDER BY day DESC OFFSET ? LIMIT 1"_s;

/// Each dimension's greatest values, each with the sum over its dimension. The percentile of several days
/// cannot be computed from theirs; their mean by views says enough about what is slow.
/// Sorting costs more than adding up. Hence a single day (the first one bound) is ranked first, and its last
/// listed value sets a floor: a value with fewer hits in the whole period has no place in the list.
/// MATERIALIZED keeps each part from being computed twice while a freshly filled table has no statistics.
const auto kRankings =
    u"WITH one_day AS MATERIALIZED (SELECT dimension, hits AS least FROM (SELECT dimension, hits, "
    "row_number() OVER (PARTITION BY dimension ORDER BY hits DESC) AS place "
    "FROM tarn.site_day_values WHERE site_id = ? AND day = ? AND value <> '') s WHERE place = ?), "
    "v AS MATERIALIZED (SELECT dimension, value, part_of, sum(hits) AS hits, sum(visitors) AS visitors, "
    "sum(engaged_seconds) AS engaged, sum(response_us_p95::float8 * hits) "
    "/ nullif(sum(hits) FILTER (WHERE response_us_p95 IS NOT NULL), 0) AS p95 "
    "FROM tarn.site_day_values WHERE site_id = ? AND day BETWEEN ? AND ? AND dimension <> 'hour' "
    "GROUP BY dimension, value, part_of), "
    "d AS MATERIALIZED (SELECT dimension, total, coalesce(least, 0) AS least "
    "FROM (SELECT dimension, sum(hits) AS total FROM v GROUP BY dimension) t LEFT JOIN one_day USING "
    "(dimension)), "
    "r AS (SELECT v.*, d.total, row_number() OVER (PARTITION BY dimension "
    "ORDER BY value = '', hits DESC, visitors DESC, value COLLATE \"C\", part_of COLLATE \"C\") AS place "
    "FROM v JOIN d USING (dimension) WHERE value = '' OR hits >= least) "
    "SELECT dimension, value, part_of, hits::bigint, visitors::bigint, engaged, p95, total::bigint "
    "FROM r WHERE place <= ? ORDER BY dimension, place"_s;

const auto kWeek =
    u"SELECT extract(isodow FROM day)::int - 1, value, sum(hits)::bigint FROM tarn.site_day_values "
    "WHERE site_id = ? AND day BETWEEN ? AND ? AND dimension = 'hour' GROUP BY 1, 2"_s;

const auto kSearchTermsRead =
    u"SELECT query, sum(clicks)::bigint, sum(impressions)::bigint, "
    "sum(position * impressions) / nullif(sum(impressions), 0) "
    "FROM tarn.search_rows WHERE site_id = ? AND day BETWEEN ? AND ? AND query <> '' "
    "GROUP BY query ORDER BY 2 DESC, 3 DESC, query COLLATE \"C\" LIMIT ?"_s;

const auto kSearchConnected = u"SELECT FROM tarn.search_properties WHERE site_id = ? LIMIT 1"_s;

const auto kLive = u"SELECT visitors FROM tarn.live_visitors WHERE site_id = ?"_s;

std::optional<double> number(const QSqlQuery& query, int column)
{
    return query.isNull(column) ? std::nullopt : std::optional(query.value(column).toDouble());
}

Day dayOf(const QSqlQuery& query)
{
    const auto whole = [&query](int column) { return query.value(column).toLongLong(); };
    Day day;
    day.requests = whole(1);
    day.views = whole(2);
    day.visitors = whole(3);
    day.sessions = whole(4);
    day.bounces = whole(5);
    day.botRequests = whole(6);
    day.bytes = whole(7);
    day.clientErrors = whole(8);
    day.serverErrors = whole(9);
    day.engagedSeconds = query.value(10).toDouble();
    day.medianUs = number(query, 11);
    day.p95Us = number(query, 12);
    day.known = true;
    return day;
}

bool readDays(SiteFigures& figures)
{
    const Period& period = figures.period;
    figures.days.resize(period.days());
    figures.before.resize(period.days());
    std::optional<QSqlQuery> query = select(kDays, {figures.site.id, period.before().first, period.last});
    while (query && query->next()) {
        const qsizetype place = period.before().first.daysTo(query->value(0).toDate());
        if (place < period.days()) {
            figures.before[place] = dayOf(*query);
        } else {
            figures.days[place - period.days()] = dayOf(*query);
        }
    }
    figures.total = sumOf(figures.days);
    figures.totalBefore = sumOf(figures.before);
    return query.has_value();
}

/// The days that rankings are made of: the period, or the last days of it when it has too many rows.
bool readRankedPeriod(SiteFigures& figures)
{
    Period& ranked = figures.ranked;
    ranked = figures.period;
    std::optional<QSqlQuery> query =
        select(kDayOfRow, {figures.site.id, ranked.first, ranked.last, kRankedRows});
    if (query && query->next())
        ranked.first = std::min(query->value(0).toDate().addDays(1), ranked.last);
    return query.has_value();
}

/// The day with the most views of those that rankings are made of.
QDate busiestDay(const SiteFigures& figures)
{
    const auto first = figures.days.cend() - figures.ranked.days();
    const auto busiest = std::max_element(first, figures.days.cend(), [](const Day& left, const Day& right) {
        return left.views < right.views;
    });
    return figures.ranked.first.addDays(busiest - first);
}

bool readRankings(SiteFigures& figures)
{
    std::optional<QSqlQuery> query =
        select(kRankings, {figures.site.id, busiestDay(figures), kRankedValues, figures.site.id,
                           figures.ranked.first, figures.ranked.last, kRankedValues});
    while (query && query->next()) {
        Ranking& ranking = figures.rankings[query->value(0).toString()];
        ranking.hits = query->value(7).toLongLong();
        Ranked ranked;
        ranked.value = query->value(1).toString();
        // What had no row of its own on its day: counted in the whole alone.
        if (ranked.value.isEmpty())
            continue;
        ranked.partOf = query->value(2).toString();
        ranked.hits = query->value(3).toLongLong();
        ranked.visitors = query->value(4).toLongLong();
        ranked.engagedSeconds = query->value(5).toDouble();
        ranked.p95Us = number(*query, 6);
        ranking.values.append(ranked);
    }
    return query.has_value();
}

bool readWeek(SiteFigures& figures)
{
    std::optional<QSqlQuery> query =
        select(kWeek, {figures.site.id, figures.period.first, figures.period.last});
    while (query && query->next()) {
        const auto day = query->value(0).toUInt();
        const auto hour = query->value(1).toString().toUInt();
        if (day < figures.week.size() && hour < figures.week.at(day).size())
            figures.week.at(day).at(hour) = query->value(2).toLongLong();
    }
    return query.has_value();
}

/// The engine's queries, then the visits' terms that it does not name. They meet regardless of case.
bool readSearchTerms(SiteFigures& figures)
{
    std::optional<QSqlQuery> query =
        select(kSearchTermsRead, {figures.site.id, figures.period.first, figures.period.last, kSearchTerms});
    if (!query)
        return false;
    QHash<QString, qsizetype> known;
    while (query->next()) {
        known.insert(query->value(0).toString().toLower(), figures.searchTerms.size());
        figures.searchTerms.append({query->value(0).toString(), 0, query->value(1).toLongLong(),
                                    query->value(2).toLongLong(), number(*query, 3)});
    }
    const QList<Ranked> visits = figures.rankings.value(u"search_terms"_s).values;
    for (const Ranked& visit : visits) {
        const auto found = known.constFind(visit.value.toLower());
        if (found != known.cend()) {
            figures.searchTerms[*found].views += visit.hits;
        } else if (figures.searchTerms.size() < qsizetype{2} * kSearchTerms) {
            figures.searchTerms.append({visit.value, visit.hits, 0, 0, std::nullopt});
        }
    }
    return true;
}

bool readLive(SiteFigures& figures)
{
    std::optional<QSqlQuery> connected = select(kSearchConnected, {figures.site.id});
    std::optional<QSqlQuery> live = select(kLive, {figures.site.id});
    if (!connected || !live)
        return false;
    figures.searchConnected = connected->next();
    figures.liveVisitors = live->next() ? live->value(0).toLongLong() : 0;
    return true;
}

/// Adds @p more requests' worth of a mean.
void addMean(std::optional<double>& sum, qint64& weight, const std::optional<double>& mean, qint64 more)
{
    if (!mean || more <= 0)
        return;
    sum = sum.value_or(0) + *mean * static_cast<double>(more);
    weight += more;
}

} // namespace

qint64 Ranking::others() const
{
    return std::accumulate(values.cbegin(), values.cend(), hits,
                           [](qint64 left, const Ranked& ranked) { return left - ranked.hits; });
}

Day sumOf(const QList<Day>& days)
{
    Day sum;
    qint64 medianWeight = 0;
    qint64 p95Weight = 0;
    for (const Day& day : days) {
        sum.requests += day.requests;
        sum.views += day.views;
        sum.visitors += day.visitors;
        sum.sessions += day.sessions;
        sum.bounces += day.bounces;
        sum.botRequests += day.botRequests;
        sum.bytes += day.bytes;
        sum.clientErrors += day.clientErrors;
        sum.serverErrors += day.serverErrors;
        sum.engagedSeconds += day.engagedSeconds;
        sum.known = sum.known || day.known;
        addMean(sum.medianUs, medianWeight, day.medianUs, day.requests);
        addMean(sum.p95Us, p95Weight, day.p95Us, day.requests);
    }
    if (sum.medianUs)
        sum.medianUs = *sum.medianUs / static_cast<double>(medianWeight);
    if (sum.p95Us)
        sum.p95Us = *sum.p95Us / static_cast<double>(p95Weight);
    return sum;
}

std::optional<QList<Site>> readSites(const QStringList& hosts)
{
    QList<Site> sites;
    const auto siteOf = [](const QSqlQuery& query) {
        return Site{query.value(0).toInt(), query.value(1).toString()};
    };
    if (hosts.isEmpty()) {
        std::optional<QSqlQuery> query = select(kSites);
        while (query && query->next())
            sites.append(siteOf(*query));
        return query ? std::optional(sites) : std::nullopt;
    }
    for (const QString& host : hosts) {
        std::optional<QSqlQuery> query = select(kSiteOfHost, {host});
        if (!query)
            return std::nullopt;
        if (!query->next()) {
            qCritical("there is no site %s", qPrintable(host));
            return std::nullopt;
        }
        sites.append(siteOf(*query));
    }
    return sites;
}

std::optional<SiteFigures> readSite(const Site& site, const Period& period)
{
    SiteFigures figures;
    figures.site = site;
    figures.period = period;
    const bool complete = readDays(figures) && readRankedPeriod(figures) && readRankings(figures)
                          && readWeek(figures) && readSearchTerms(figures) && readLive(figures);
    return complete ? std::optional(figures) : std::nullopt;
}

} // namespace tarn::report
