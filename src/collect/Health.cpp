#include "collect/Health.h"

#include "collect/Alerts.h"
#include "collect/HostSample.h"
#include "collect/StatusPage.h"
#include "common/Db.h"
#include "common/Settings.h"
#include "common/System.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QScopedValueRollback>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlQuery>

#include <unistd.h>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

/// Samples in a row that open an alert of the host, and close it.
constexpr int kSamples = 3;

/// False once a statement has found that the session is gone. Qt has a warning of its own for each further
/// one.
bool haveSession()
{
    return db::session().isOpen();
}

/// The first value that @p statement yields; 0 when it yields none or fails. A failure is not logged, as it
/// would be in every sample.
qint64 count(const QString& statement)
{
    if (!haveSession())
        return 0;
    QSqlQuery query;
    return query.exec(statement) && query.next() ? query.value(0).toLongLong() : 0;
}

void store(const QVariantList& values)
{
    if (!haveSession())
        return;
    QSqlQuery query;
    query.prepare(sampleInsertStatement());
    for (const QVariant& value : values)
        query.addBindValue(value);
    db::exec(query);
}

void prune()
{
    if (!haveSession())
        return;
    QSqlQuery query;
    query.exec(kSamplePruning);
}

QString textOf(const QSettings& settings, const Setting& setting)
{
    return settingValue(settings, setting).toString();
}

double numberOf(const QSettings& settings, const Setting& setting)
{
    return settingValue(settings, setting).toDouble();
}

/// The processors that the load average is over: all that are running, including those that this process may
/// not use.
int processors()
{
    return static_cast<int>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
}

} // namespace

Health::Health(const QSettings& settings)
    : m_services(system::monitoredServices(settings))
    , m_agentSocket(textOf(settings, settingOf(kHealthSettings, "agent/socket")))
    , m_notify(notify::load(settings))
    , m_enforceDbLimit(
          settingValue(settings, settingOf(kHealthSettings, "hosting/db_limit_read_only")).toBool())
    , m_apacheStatusUrl(textOf(settings, settingOf(kHealthSettings, "health/apache_status_url")))
    , m_diskPct(numberOf(settings, settingOf(kHealthSettings, "health/disk_alert_pct")))
    , m_memPct(numberOf(settings, settingOf(kHealthSettings, "health/memory_alert_pct")))
    , m_loadPerCpu(numberOf(settings, settingOf(kHealthSettings, "health/load_alert_per_cpu")))
    , m_tempC(numberOf(settings, settingOf(kHealthSettings, "health/temperature_alert_c")))
    , m_apacheBusyPct(numberOf(settings, settingOf(kHealthSettings, "health/apache_busy_alert_pct")))
{
}

Health::Counters Health::read() const
{
    Counters now = readHostCounters();
    now.pgXacts = count(kTransactionsQuery);
    if (!m_apacheStatusUrl.isEmpty()) {
        const ApacheStatus status = parseApacheStatus(fetchStatusPage(m_apacheStatusUrl));
        now.apache = status.found;
        now.apacheRequests = status.requests;
        now.apacheBytes = status.bytes;
        now.apacheBusy = status.busy;
        now.apacheSlots = status.slotCount;
    }
    now.valid = true;
    return now;
}

void Health::sample()
{
    // The waits for Apache, a webhook and a mail server serve timers, this job's own included.
    if (m_sampling)
        return;
    const QScopedValueRollback<bool> sampling(m_sampling, true);

    const Counters current = read();
    // A lost session is noticed, and closed, during the wait for Apache.
    const bool isConnected = db::ensure(false);
    HostFigures host = readHostFigures();
    host.pgConnections = static_cast<int>(count(kClientsQuery));
    store(sampleValues(m_prev, current, host));
    m_prev = current;
    prune();
    if (isConnected)
        checkHost(current, host);
}

void Health::checkHost(const Counters& current, const HostFigures& host)
{
    // A server that is away is tried once, not again for each disk and each service.
    bool isAway = false;
    const auto checked = [this, &isAway](const Condition& condition) {
        isAway = isAway || !(haveSession() || db::ensure(false));
        if (!isAway)
            m_alerts.note(condition, kSamples);
    };
    checked(memoryCondition(host.memTotalKb, host.memAvailableKb, m_memPct));
    if (current.apache && current.apacheSlots > 0)
        checked(apacheCondition(current.apacheBusy, current.apacheSlots, m_apacheBusyPct));
    checked(loadCondition(host.load.one, processors(), m_loadPerCpu));
    if (host.cpuTemperatureC)
        checked(temperatureCondition(*host.cpuTemperatureC, m_tempC));
    const QJsonArray disks = system::disks();
    for (const QJsonValueConstRef& disk : disks)
        checked(diskCondition(disk.toObject(), m_diskPct));
    const QJsonArray services = system::serviceStatus(m_services);
    for (const QJsonValueConstRef& service : services)
        checked(serviceCondition(service.toObject()));
}

void Health::check(const QString& kind, const QString& subject, bool bad, const QString& text, int n)
{
    m_alerts.note({kind, subject, bad, text}, n);
}

void Health::measureAccounts()
{
    m_accounts.measure();
}

void Health::applyUsage(const QJsonObject& usage)
{
    m_accounts.apply(usage);
}

} // namespace tarn
