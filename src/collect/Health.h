// Watches the host: samples its load, memory, disks, network, Apache and PostgreSQL into tarn.host_samples.
// Its parts keep the alerts of tarn.alerts (HealthAlerts), and measure the hosting accounts (HealthAccounts).
// Uses the product's database session. Owned by main. The counters of the sample before and the streaks of
// the alerts are in memory only. Main thread only. The waits for Apache, a webhook, a mail server and the
// agent serve timers, so that other jobs can run inside sample(), check() and applyUsage(); they must not end
// this object.
#pragma once

#include "collect/HealthAccounts.h"
#include "collect/HealthAlerts.h"
#include "collect/HostCounters.h"
#include "common/Notify.h"

#include <QHash>
#include <QString>
#include <QStringList>

class QJsonObject;
class QSettings;

namespace tarn {

class Health
{
public:
    /// Everything on the host that only counts up, as it stood at one moment.
    using Counters = HostCounters;

    /// Reads the settings: `health/...`, `agent/socket`, `hosting/db_limit_read_only` and those of
    /// notify::load(). A threshold that is no number counts as 0.
    explicit Health(const QSettings& settings);
    Health(const Health&) = delete;
    Health& operator=(const Health&) = delete;

    /// The counters as they are now; what cannot be read is 0, and nothing is logged. Waits for Apache as
    /// fetchStatusPage() does: 3 seconds of silence, 10 seconds in all.
    Counters read() const;

    /// Stores one sample, removes those older than 30 days, and then passes each condition of the host to
    /// check() with an @p n of 3: memory, Apache, load, temperature, disks, services. A statement that fails
    /// is logged and stops nothing. Does nothing when it is called from within a sample's own waits.
    void sample();

    /// Notes whether the condition @p kind ("disk") of @p subject ("/var") is @p bad in this pass. After @p n
    /// bad passes in a row the alert is opened with @p text. Each further bad pass stores the text anew.
    /// After
    /// @p n good passes in a row the alert is closed. Opening and closing are logged and notified, once each;
    /// an alert that is open since an earlier run is not opened again. A statement that fails is logged and
    /// not repeated: an opening or closing that fails waits for the next streak. NUL characters are left out
    /// of what is stored. @p n is at least 1.
    void check(const QString& kind, const QString& subject, bool bad, const QString& text, int n);

    /// Asks the agent for the accounts' disk use, on a thread of the global pool and for ten minutes a wait
    /// at most. Its answer is applied on the main thread, as by applyUsage(); a failure is one warning.
    /// Returns at once. Does nothing while a measurement is under way. Needs the application object.
    void measureAccounts();

    /// Stores what the accounts use, with the sizes of their databases. Passes their conditions to check()
    /// with an @p n of 1, and has the agent make databases read-only or writable again. @p usage holds bytes
    /// by user name: {"alice": 1048576, ...}. An account without a size in it keeps the figure that it has.
    /// Waits for the agent for 15 seconds a database at most; a switch that fails is one warning, and the
    /// next measurement tries again. Ends early when the session is lost or the process is told to end. Does
    /// nothing when it is called from within its own waits.
    void applyUsage(const QJsonObject& usage);

private:
    void checkHost(const Counters& current, const HostFigures& host);

    QStringList m_services;
    QString m_agentSocket;
    bool m_measuring = false;
    notify::Config m_notify;
    bool m_enforceDbLimit = true;
    QString m_apacheStatusUrl; ///< empty: Apache is not looked at
    double m_diskPct = 0;
    double m_memPct = 0;
    double m_loadPerCpu = 0;
    double m_tempC = 0;
    double m_apacheBusyPct = 0;
    Counters m_prev;
    QHash<QString, int> m_streak; ///< by kind/subject; see nextStreak()

    // The parts work on the members above.
    HealthAlerts m_alerts{m_streak, m_notify};
    HealthAccounts m_accounts{m_agentSocket, m_enforceDbLimit, m_measuring, m_alerts};
    bool m_sampling = false;
};

/// Transactions of all databases of the server so far.
inline const QString kTransactionsQuery =
    QStringLiteral("SELECT sum(xact_commit + xact_rollback) FROM pg_stat_database");
/// Client sessions of the database server.
inline const QString kClientsQuery =
    QStringLiteral("SELECT count(*) FROM pg_stat_activity WHERE backend_type = 'client backend'");
/// Deletes the samples that are older than 30 days.
inline const QString kSamplePruning =
    QStringLiteral("DELETE FROM tarn.host_samples WHERE at < now() - interval '30 days'");

} // namespace tarn
