// The collector's timetable: what runs, in which order at start, and how often after that.

#include "analytics/Google.h"
#include "analytics/Ingest.h"
#include "collect/Health.h"
#include "collect/LogSource.h"
#include "collect/LongJobs.h"
#include "collect/Maintenance.h"
#include "collect/Timetable.h"
#include "common/Config.h"
#include "common/Db.h"
#include "common/Log.h"
#include "common/Settings.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlDriver>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using analytics::Ingest;

namespace {

constexpr int kSchemaVersion = 11;

/// Feeds what has been appended to the sites' access logs to @p ingest.
void followLogs(Ingest& ingest, LongLines& longLines)
{
    const QList<LogSource> sources = logSources();
    if (!sources.isEmpty())
        longLines.keepOnly(sources);
    for (const LogSource& source : sources) {
        // A lost server can store nothing of the remaining logs. The next pass reads them.
        if (!db::session().isOpen())
            return;
        followLog(ingest, longLines, source);
    }
}

/// Rolls every site's hits up, and asks for the daily work unless this day has seen it.
void maintain(DailyMark& mark, LongJobs& longJobs)
{
    const QDate today = QDate::currentDate();
    const bool isDailyDue = mark.isDue(today);
    if (!rollUpSites(daysToRollUp(today, isDailyDue)) || !isDailyDue)
        return;
    // Noted first: what fails is tried again tomorrow, not every 30 seconds.
    mark.note(today);
    longJobs.request(LongJob::RemoveOldHits);
    longJobs.request(LongJob::SyncSearch);
    longJobs.request(LongJob::UpdateCountries);
}

/// Brings the search figures up to date, if the settings file configures Google.
void syncSearch(const analytics::google::Client& google)
{
    if (!google.configured())
        return;
    const QString result = analytics::google::sync(google);
    qInfo("collect: google: %s", qPrintable(result));
}

/// Subscribes to the channels on which the suite's other programs send requests, unless that is done. A
/// session that is lost just before cannot subscribe, and a reconnect restores only what was subscribed.
void listen()
{
    QSqlDriver* driver = db::session().driver();
    const QStringList known = driver->subscribedToNotifications();
    for (const QString& channel : {u"tarn_sync"_s, u"tarn_usage"_s}) {
        if (!known.contains(channel))
            driver->subscribeToNotification(channel);
    }
}

/// Does what another program of the suite asks for on @p channel, without waiting for the timer.
void handleNotification(const QString& channel, LongJobs& longJobs, Health& health)
{
    if (channel == "tarn_sync"_L1) {
        longJobs.request(LongJob::SyncSearch);
    } else if (channel == "tarn_usage"_L1) {
        health.measureAccounts();
    }
}

/// What the tables of the statistics must hold before the first line of a log. False, said in the log, when
/// they are missing.
bool initialise(Ingest& ingest)
{
    // The database server can have restarted during the first sample's wait for Apache.
    db::ensure(false);
    if (ingest.init())
        return true;
    qCritical("analytics tables are missing; run tarn-admin migrate");
    return false;
}

/// Has the requests of the suite's other programs served from now on.
void takeRequests(LongJobs& longJobs, Health& health)
{
    listen();
    QObject::connect(
        db::session().driver(), &QSqlDriver::notification, &longJobs,
        [&longJobs, &health](const QString& channel) { handleNotification(channel, longJobs, health); });
}

/// The jobs from the first sample on. Returns the exit status of the process.
int run(const QSettings& settings)
{
    const auto isReady = [] { return db::ensure(false); };
    const analytics::google::Client google = analytics::google::clientFrom(settings);
    const Periods periods = periodsFrom(settings);
    Health health(settings);
    Ingest ingest;
    LongLines longLines;
    DailyMark mark;
    LongJobs longJobs(
        {
            {LongJob::RemoveOldHits,   [] { removeOldHits(); }               },
            {LongJob::SyncSearch,      [&google] { syncSearch(google); }     },
            {LongJob::UpdateCountries, [&ingest] { updateCountries(ingest); }},
    },
        isReady);

    // clang-format off
    Timetable timetable({
        {.name = "samples", .period = periods.samples, .prepare = {},
         .job = [&] { health.sample(); }},
        {.name = "logs", .period = periods.logs, .prepare = [&] { return initialise(ingest); },
         .job = [&] { followLogs(ingest, longLines); }},
        {.name = "accounts", .period = periods.accounts, .prepare = [&] { takeRequests(longJobs, health); return true; },
         .job = [&] { health.measureAccounts(); }},
        {.name = "maintenance", .period = periods.maintenance, .prepare = {},
         .job = [&] { listen(); maintain(mark, longJobs); }},
    }, isReady);
    // clang-format on
    return timetable.start() ? QCoreApplication::exec() : 1;
}

} // namespace

int main(int argc, char** argv)
{
    installLog();
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"tarn-collect"_s);
    QCoreApplication::setApplicationVersion(u"0.1"_s);

    QCommandLineParser parser;
    parser.addHelpOption();
    addConfigOption(parser);
    parser.process(application);
    const QString path = configPath(parser);
    if (path.isEmpty())
        return 1;
    const QSettings settings(path, QSettings::IniFormat);
    checkSettings(settings);

    if (!db::open(settings, QCoreApplication::applicationName()))
        return 1;
    if (db::schemaVersion() != kSchemaVersion) {
        qCritical("database schema is not at version %d; run tarn-admin migrate", kSchemaVersion);
        return 1;
    }
    return run(settings);
}
