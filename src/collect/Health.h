// Watches the host: samples its load, memory, disks, network, Apache and PostgreSQL into tarn.host_samples,
// keeps the open alerts in tarn.alerts, and measures what the hosting accounts use. Owned by main; what it
// remembers (the counters of the sample before, the streaks of the alerts) is in memory only. Main thread
// only. The waits for Apache, a webhook, a mail server and the agent serve timers, so that other jobs can run
// inside sample() and applyUsage(); what they run inside of must not end meanwhile.
#pragma once

#include "collect/HostCounters.h"
#include "common/Notify.h"

#include <QHash>
#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

class QJsonObject;
class QSettings;

namespace tarn {

struct Account;

class Health
{
public:
    using Counters = HostCounters;

    /// Reads the settings: `health/...`, `agent/socket`, `hosting/db_limit_read_only` and those of
    /// notify::load().
    explicit Health(const QSettings& settings);
    Health(const Health&) = delete;
    Health& operator=(const Health&) = delete;

    /// The counters as they are now. Waits for Apache for some three seconds at most when it says nothing.
    Counters read() const;

    /// Stores one sample, removes those older than 30 days, and looks after the alerts of the host. Does
    /// nothing when it is called from within a sample's own waits.
    void sample();

    /// Notes whether the condition @p kind of @p subject is @p bad in this pass. After @p n bad passes in a
    /// row the alert is opened with @p text, kept up to date with it while it lasts, and closed after @p n
    /// good ones in a row. Opening and closing are logged and notified, once each.
    void check(const QString& kind, const QString& subject, bool bad, const QString& text, int n);

    /// Has the agent measure the accounts' disk use on a thread of the global pool, and applies its answer
    /// when it is there. Returns at once; does nothing while a measurement is under way. Needs the
    /// application object.
    void measureAccounts();

    /// Stores what the accounts use, with the sizes of their databases, looks after their alerts, and has the
    /// agent make databases read-only or writable again. @p usage holds bytes by user name: {"alice":
    /// 1048576, ...}; accounts that it does not tell a size of keep the figure that they have. Ends early
    /// when the session is lost or the process is told to end; does nothing when it is called from within its
    /// own waits.
    void applyUsage(const QJsonObject& usage);

private:
    void checkHost(const Counters& current, const HostFigures& host);
    void finishMeasurement(const QJsonObject& answer);
    /// False when there is no sense in going on with further accounts.
    bool applyTo(const Account& account, std::optional<qint64> diskBytes);

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

    bool m_sampling = false;
    bool m_applying = false;
    std::shared_ptr<Health*> m_self; ///< ends with this object, which an answer of the agent may outlive
};

} // namespace tarn
