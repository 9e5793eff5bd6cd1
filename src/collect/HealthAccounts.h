// The account watch: has the agent measure what the hosting accounts use, stores the figures in
// tarn.accounts, and has the agent make databases over their limit read-only. Measures no home directory and
// switches no database itself. Health owns it and what it works on. Main thread only. The waits for the
// agent, a webhook and a mail server serve timers, so that other jobs can run inside apply().
#pragma once

#include <QString>

#include <memory>
#include <optional>

class QJsonObject;

namespace tarn {

struct Account;
class HealthAlerts;

class HealthAccounts
{
public:
    /// @p agentSocket is the path of the agent's socket. Databases are switched if @p enforceDbLimit says so,
    /// and else only their state is stored. @p isMeasuring is true from measure() until its answer has been
    /// applied. @p alerts takes the quota alerts. All four must outlive this object.
    HealthAccounts(const QString& agentSocket, const bool& enforceDbLimit, bool& isMeasuring,
                   HealthAlerts& alerts);
    HealthAccounts(const HealthAccounts&) = delete;
    HealthAccounts& operator=(const HealthAccounts&) = delete;
    ~HealthAccounts() = default;

    /// See Health::measureAccounts().
    void measure();

    /// See Health::applyUsage().
    void apply(const QJsonObject& usage);

private:
    void finishMeasurement(const QJsonObject& answer);
    /// False when the remaining accounts are left to the next measurement: the session is lost, or the
    /// process is told to end.
    bool applyTo(const Account& account, std::optional<qint64> diskBytes);

    const QString& m_agentSocket;
    const bool& m_enforceDbLimit;
    bool& m_isMeasuring;
    HealthAlerts& m_alerts;
    bool m_isApplying = false;
    std::shared_ptr<HealthAccounts*> m_self; ///< ends with this object, which an answer may outlive
};

/// The accounts with the limits, the state and the size of their databases.
inline const QString kAccountsQuery = QStringLiteral(
    "SELECT a.username, a.domain, a.disk_limit_mb, a.db_limit_mb, EXISTS (SELECT 1 FROM "
    "pg_db_role_setting s JOIN pg_database d ON d.oid = s.setdatabase         WHERE d.datname = "
    "a.username AND s.setrole = 0           AND 'default_transaction_read_only=on' = ANY "
    "(s.setconfig)), (SELECT pg_database_size(d.datname) FROM pg_database d WHERE d.datname = "
    "a.username) FROM tarn.accounts a");
/// Bytes of the home or NULL, whether they were measured, bytes of the database, and the account.
inline const QString kUsageStorage = QStringLiteral(
    "UPDATE tarn.accounts SET disk_used_bytes = coalesce(?, disk_used_bytes), disk_checked_at = CASE "
    "WHEN ? THEN now() ELSE disk_checked_at END, db_used_bytes = ? WHERE username = ?");
/// Notes the state of a database where it differs: state, account, state.
inline const QString kReadOnlyMirror =
    QStringLiteral("UPDATE tarn.accounts SET db_readonly = ? WHERE username = ? AND db_readonly <> ?");
/// Notes the state of a database: state, account.
inline const QString kReadOnlyStorage =
    QStringLiteral("UPDATE tarn.accounts SET db_readonly = ? WHERE username = ?");

} // namespace tarn
