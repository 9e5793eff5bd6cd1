// The collector: start-up, timers, and the jobs that are private to it.

#include "analytics/GeoIp.h"
#include "analytics/Google.h"
#include "analytics/Ingest.h"
#include "collect/Health.h"
#include "collect/LogSource.h"
#include "common/Config.h"
#include "common/Db.h"
#include "common/Log.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <limits>

using namespace Qt::Literals::StringLiterals;
using tarn::Health;
using tarn::analytics::Ingest;

namespace {

constexpr int kSchemaVersion = 11;
constexpr auto kLogInterval = std::chrono::seconds(2);
constexpr auto kMaintenanceInterval = std::chrono::seconds(30);

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

/// Feeds what has been appended to the sites' access logs to @p ingest.
void followLogs(Ingest& ingest, tarn::LongLines& longLines)
{
    const QList<tarn::LogSource> sources = tarn::logSources();
    if (!sources.isEmpty())
        longLines.keepOnly(sources);
    for (const tarn::LogSource& source : sources) {
        // A server lost half-way keeps nothing of what the remaining logs hold: the next pass reads them.
        if (!tarn::db::session().isOpen())
            return;
        tarn::followLog(ingest, longLines, source);
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
    tarn::LongLines longLines;
    QTimer logTimer;
    start(logTimer, kLogInterval, [&] { followLogs(ingest, longLines); });
    followLogs(ingest, longLines);

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
