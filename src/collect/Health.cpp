#include "collect/Health.h"

#include "collect/HostSample.h"
#include "collect/StatusPage.h"
#include "common/Db.h"
#include "common/System.h"

#include <QScopedValueRollback>
#include <QSettings>
#include <QSqlQuery>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

const auto kTransactions = u"SELECT sum(xact_commit + xact_rollback) FROM pg_stat_database"_s;
const auto kConnections = u"SELECT count(*) FROM pg_stat_activity WHERE backend_type = 'client backend'"_s;
const auto kPrune = u"DELETE FROM tarn.host_samples WHERE at < now() - interval '30 days'"_s;

/// The first value that @p statement yields; 0 when it yields none or fails, which is not worth a line in
/// every sample.
qint64 count(const QString& statement)
{
    QSqlQuery query;
    return query.exec(statement) && query.next() ? query.value(0).toLongLong() : 0;
}

void store(const QVariantList& values)
{
    QSqlQuery query;
    query.prepare(sampleInsertStatement());
    for (const QVariant& value : values)
        query.addBindValue(value);
    db::exec(query);
}

void prune()
{
    QSqlQuery query;
    query.exec(kPrune);
}

} // namespace

Health::Health(const QSettings& settings)
    : m_services(system::monitoredServices(settings))
    , m_agentSocket(settings.value(u"agent/socket"_s, u"/run/tarnhold/agent.sock"_s).toString())
    , m_notify(notify::load(settings))
    , m_enforceDbLimit(settings.value(u"hosting/db_limit_read_only"_s, true).toBool())
    , m_apacheStatusUrl(
          settings.value(u"health/apache_status_url"_s, u"http://127.0.0.1/server-status?auto"_s).toString())
    , m_diskPct(settings.value(u"health/disk_alert_pct"_s, 90).toDouble())
    , m_memPct(settings.value(u"health/memory_alert_pct"_s, 90).toDouble())
    , m_loadPerCpu(settings.value(u"health/load_alert_per_cpu"_s, 2).toDouble())
    , m_tempC(settings.value(u"health/temperature_alert_c"_s, 85).toDouble())
    , m_apacheBusyPct(settings.value(u"health/apache_busy_alert_pct"_s, 90).toDouble())
    , m_self(std::make_shared<Health*>(this))
{
}

Health::Counters Health::read() const
{
    Counters now = readHostCounters();
    now.pgXacts = count(kTransactions);
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
    // The waits for Apache, a webhook and a mail server serve timers, that of this job among them.
    if (m_sampling)
        return;
    const QScopedValueRollback<bool> sampling(m_sampling, true);

    const Counters current = read();
    // The wait for Apache is also where the loss of the session is noticed, and the session closed.
    db::ensure(false);
    HostFigures host = readHostFigures();
    host.pgConnections = static_cast<int>(count(kConnections));
    store(sampleValues(m_prev, current, host));
    m_prev = current;
    prune();
    checkHost(current, host);
}

} // namespace tarn
