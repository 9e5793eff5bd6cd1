// The collector: start-up, timers, and the jobs that are private to it.

#include "analytics/GeoIp.h"
#include "analytics/Google.h"
#include "analytics/Ingest.h"
#include "collect/Health.h"
#include "common/Config.h"
#include "common/Db.h"
#include "common/Log.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QTimer>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <optional>

using namespace Qt::Literals::StringLiterals;
using tarn::Health;
using tarn::analytics::Ingest;

namespace {

constexpr int kSchemaVersion = 11;
constexpr auto kLogInterval = std::chrono::seconds(2);
constexpr auto kMaintenanceInterval = std::chrono::seconds(30);

/// How much of one log is read in one pass; it bounds how long a backlog can hold up the other jobs.
constexpr qint64 kSliceBytes = 8'388'608;

/// Read once at start; other settings of the connection to Google need a restart.
tarn::analytics::google::Client g_google;

/// The rows that @p statement yields, which has no values to bind. None, and a line in the log, when it
/// fails.
QSqlQuery rowsOf(const QString& statement)
{
    QSqlQuery query;
    if (!query.exec(statement))
        qWarning("sql: %s", qPrintable(query.lastError().text()));
    return query;
}

/// One row of tarn.log_sources, with the host of its site.
struct LogSource
{
    int id = 0;
    QString path;
    std::optional<quint64> inode; ///< of the file last read
    qint64 readOffset = 0;
    int siteId = 0;
    QString host;
};

QList<LogSource> logSources()
{
    QList<LogSource> sources;
    QSqlQuery query =
        rowsOf(u"SELECT l.id, l.path, l.inode, l.read_offset, l.site_id, s.host FROM tarn.log_sources l "
               "JOIN tarn.sites s ON s.id = l.site_id"_s);
    while (query.next()) {
        LogSource source;
        source.id = query.value(0).toInt();
        source.path = query.value(1).toString();
        if (!query.isNull(2))
            source.inode = static_cast<quint64>(query.value(2).toLongLong());
        source.readOffset = query.value(3).toLongLong();
        source.siteId = query.value(4).toInt();
        source.host = query.value(5).toString();
        sources.append(source);
    }
    return sources;
}

/// Where to go on reading: at the start for a log that is new, has been rotated or has been cut in place.
qint64 startOffset(const LogSource& source, const struct stat& file)
{
    const bool same = source.inode == file.st_ino && file.st_size >= source.readOffset;
    return same ? source.readOffset : 0;
}

/// What stands in the log from @p offset on, up to the last line feed of the slice; empty when there is no
/// whole line, nothing when the file cannot be read.
std::optional<QByteArray> readLines(const LogSource& source, const struct stat& file, qint64 offset)
{
    QFile log(source.path);
    if (!log.open(QIODevice::ReadOnly | QIODevice::Unbuffered) || !log.seek(offset))
        return std::nullopt;
    struct stat opened = {};
    // Rotated or cut since it was looked at: the next pass starts over.
    const bool same = fstat(log.handle(), &opened) == 0 && opened.st_ino == file.st_ino
                      && opened.st_dev == file.st_dev && opened.st_size >= offset;
    if (!same)
        return QByteArray();
    QByteArray data = log.read(kSliceBytes);
    data.truncate(data.lastIndexOf('\n') + 1);
    return data;
}

/// The lines in @p data that are not empty. They share its bytes, and must not outlive it: a copy of each
/// would make a file of nothing but line feeds cost a hundred times its size.
QList<QByteArray> linesOf(const QByteArray& data)
{
    QList<QByteArray> lines;
    for (qsizetype start = 0; start < data.size();) {
        const qsizetype end = data.indexOf('\n', start);
        if (end > start)
            lines.append(QByteArray::fromRawData(data.constData() + start, end - start));
        start = end + 1;
    }
    return lines;
}

void followLog(Ingest& ingest, const LogSource& source)
{
    struct stat file = {};
    if (stat(source.path.toLocal8Bit().constData(), &file) != 0)
        return;
    const qint64 offset = startOffset(source, file);
    if (file.st_size == offset)
        return;
    const std::optional<QByteArray> data = readLines(source, file, offset);
    if (!data) {
        qWarning("collect: cannot read %s", qPrintable(source.path));
        return;
    }
    if (data->isEmpty())
        return;

    const Ingest::Result result = ingest.ingest(source.siteId, source.host, linesOf(*data));
    if (result.skipped != 0)
        qWarning("collect: %s: %d lines were not log entries", qPrintable(source.path), result.skipped);

    QSqlQuery query;
    query.prepare(
        u"UPDATE tarn.log_sources SET inode = ?, read_offset = ?, updated_at = now() WHERE id = ?"_s);
    query.addBindValue(static_cast<qint64>(file.st_ino));
    query.addBindValue(offset + data->size());
    query.addBindValue(source.id);
    tarn::db::exec(query);
}

/// Feeds what has been appended to the sites' access logs to @p ingest. All that is remembered from one pass
/// to the next is in the database: the place in each log is stored after its lines are, so that a crash in
/// between reads them again rather than losing them.
void followLogs(Ingest& ingest)
{
    const QList<LogSource> sources = logSources();
    for (const LogSource& source : sources) {
        // A server lost half-way keeps nothing of what the remaining logs hold: the next pass reads them.
        if (!tarn::db::session().isOpen())
            return;
        followLog(ingest, source);
    }
}

/// Deletes hits past the retention that the suite has set; without one they are kept for ever.
void removeOldHits()
{
    QSqlQuery setting = rowsOf(u"SELECT value::int FROM tarn.settings WHERE key = 'raw_hit_days'"_s);
    if (!setting.next() || setting.value(0).toInt() <= 0)
        return;
    const int days = setting.value(0).toInt();
    QSqlQuery removal;
    removal.prepare(u"DELETE FROM tarn.hits WHERE at < now() - make_interval(days => ?)"_s);
    removal.addBindValue(days);
    tarn::db::exec(removal);
    qInfo("collect: removed %d raw hits older than %d days", removal.numRowsAffected(), days);
}

/// Brings the search figures up to date, if the settings file has what Google wants to know.
void syncSearch()
{
    if (!g_google.configured())
        return;
    const QString result = tarn::analytics::google::sync(g_google);
    qInfo("collect: google: %s", qPrintable(result));
}

void updateCountries()
{
    if (!tarn::analytics::geoIpIsStale())
        return;
    bool ok = false;
    const QString result = tarn::analytics::updateGeoIp({}, &ok);
    qInfo("collect: geoip: %s", qPrintable(result));
}

void rollUpSites(const QSet<QDate>& days)
{
    QSqlQuery sites = rowsOf(u"SELECT id FROM tarn.sites"_s);
    while (sites.next())
        Ingest::rollup(sites.value(0).toInt(), days);
}

/// The maintenance pass of the day @p today: rolls every site's hits up, and does the daily work unless @p
/// lastDailyPass says that this day has seen it.
void maintainOn(QDate today, QDate& lastDailyPass)
{
    const bool daily = lastDailyPass != today;
    QSet<QDate> days = {today};
    if (daily)
        days.insert(today.addDays(-1)); // for the hits of its last minutes

    rollUpSites(days);

    if (!daily)
        return;
    // Noted first: what fails is tried again tomorrow, not every 30 seconds. And both of the waits below let
    // the timer of this function run.
    lastDailyPass = today;
    removeOldHits();
    syncSearch();
    updateCountries();
}

void maintain()
{
    static QDate lastDailyPass;
    maintainOn(QDate::currentDate(), lastDailyPass);
}

/// Subscribes to the channels by which the suite's other programs ask for something, unless that is done: a
/// session that is lost just before it cannot subscribe, and what was never subscribed no reconnect brings
/// back.
void listen()
{
    QSqlDriver* driver = tarn::db::session().driver();
    const QStringList known = driver->subscribedToNotifications();
    for (const QString& channel : {u"tarn_sync"_s, u"tarn_usage"_s}) {
        if (!known.contains(channel))
            driver->subscribeToNotification(channel);
    }
}

/// What another program of the suite asks for, instead of waiting for the timer.
void handleNotification(const QString& channel, Health& health)
{
    if (channel == "tarn_sync"_L1) {
        syncSearch();
    } else if (channel == "tarn_usage"_L1) {
        health.measureAccounts();
    }
}

/// An interval setting as the timer takes it, which counts milliseconds in an int.
std::chrono::milliseconds interval(std::chrono::seconds wanted)
{
    constexpr std::chrono::milliseconds longest(std::numeric_limits<int>::max());
    return std::min(std::chrono::milliseconds(wanted), longest);
}

/// Has @p timer run @p job for as long as the process lives, except while the database cannot be reached.
template <typename Job>
void start(QTimer& timer, std::chrono::milliseconds period, Job job)
{
    QObject::connect(&timer, &QTimer::timeout, &timer, [job] {
        if (tarn::db::ensure(false))
            job();
    });
    timer.start(period);
}

} // namespace

int main(int argc, char** argv)
{
    tarn::installLog();
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"tarn-collect"_s);
    QCoreApplication::setApplicationVersion(u"0.1"_s);

    QCommandLineParser parser;
    parser.addHelpOption();
    tarn::addConfigOption(parser);
    parser.process(application);
    const QString configPath = tarn::configPath(parser);
    if (configPath.isEmpty())
        return 1;
    const QSettings settings(configPath, QSettings::IniFormat);

    if (!tarn::db::open(settings, QCoreApplication::applicationName()))
        return 1;
    if (tarn::db::schemaVersion() != kSchemaVersion) {
        qCritical("database schema is not at version %d; run tarn-admin migrate", kSchemaVersion);
        return 1;
    }

    using std::chrono::minutes;
    using std::chrono::seconds;
    Health health(settings);
    QTimer healthTimer;
    start(healthTimer, interval(seconds(settings.value(u"collect/interval_seconds"_s, 30).toInt())),
          [&health] { health.sample(); });
    health.sample();

    // That sample's wait for Apache is long enough for a restart of the server.
    tarn::db::ensure(false);

    Ingest ingest;
    if (!ingest.init()) {
        qCritical("analytics tables are missing; run tarn-admin migrate");
        return 1;
    }
    QTimer logTimer;
    start(logTimer, kLogInterval, [&ingest] { followLogs(ingest); });
    followLogs(ingest);

    g_google = tarn::analytics::google::clientFrom(settings);

    listen();
    QSqlDriver* driver = tarn::db::session().driver();
    QObject::connect(driver, &QSqlDriver::notification, driver,
                     [&health](const QString& channel) { handleNotification(channel, health); });

    QTimer usageTimer;
    start(usageTimer, interval(minutes(settings.value(u"hosting/usage_minutes"_s, 15).toInt())),
          [&health] { health.measureAccounts(); });
    health.measureAccounts();

    QTimer maintenanceTimer;
    start(maintenanceTimer, kMaintenanceInterval, [] {
        listen();
        maintain();
    });
    maintain();

    return QCoreApplication::exec();
}
