#include "collect/HealthAccounts.h"

#include "collect/Alerts.h"
#include "collect/HealthAlerts.h"
#include "common/AgentClient.h"
#include "common/Db.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QJsonObject>
#include <QList>
#include <QScopedValueRollback>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QThreadPool>
#include <QVariant>

#include <limits>
#include <memory>
#include <optional>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

struct Account
{
    QString user; ///< and the name of the account's database
    QString domain;
    qint64 diskLimitMb = 0;
    qint64 databaseLimitMb = 0;
    bool isReadOnly = false;             ///< what the database's own setting says
    std::optional<qint64> databaseBytes; ///< nothing: there is no such database
};

namespace {

/// Limit of each wait for a measurement: the agent walks every home directory before it answers.
constexpr int kUsageMs = 600'000;
/// Limit of each wait for a switch.
constexpr int kSwitchMs = 15'000;

/// Measurements in a row that open an alert, and close it. They are 15 minutes apart by default.
constexpr int kMeasurements = 1;

/// A size in bytes; nothing for another type or a number below 0.
std::optional<qint64> bytesIn(const QJsonValue& value)
{
    constexpr qint64 most = std::numeric_limits<qint64>::max();
    const double approximate = value.toDouble(-1);
    if (!(approximate >= 0))
        return std::nullopt;
    if (approximate >= static_cast<double>(most))
        return most;
    return value.toInteger(static_cast<qint64>(approximate)); // exact, unless it is a fraction
}

/// All accounts, read out before the first is handled: handling one waits on the network.
QList<Account> readAccounts()
{
    QList<Account> accounts;
    QSqlQuery query;
    query.prepare(kAccountsQuery);
    if (!db::exec(query))
        return accounts;
    while (query.next()) {
        Account account;
        account.user = query.value(0).toString();
        account.domain = query.value(1).toString();
        account.diskLimitMb = query.value(2).toLongLong();
        account.databaseLimitMb = query.value(3).toLongLong();
        account.isReadOnly = query.value(4).toBool();
        if (!query.isNull(5))
            account.databaseBytes = query.value(5).toLongLong();
        accounts.append(account);
    }
    return accounts;
}

QVariant orNull(std::optional<qint64> value)
{
    return value ? QVariant(*value) : QVariant();
}

void storeUsage(const Account& account, std::optional<qint64> diskBytes)
{
    QSqlQuery query;
    query.prepare(kUsageStorage);
    query.addBindValue(orNull(diskBytes));
    query.addBindValue(diskBytes.has_value());
    query.addBindValue(orNull(account.databaseBytes));
    query.addBindValue(account.user);
    db::exec(query);
}

void mirrorReadOnly(const QString& user, bool isReadOnly)
{
    QSqlQuery query;
    query.prepare(kReadOnlyMirror);
    query.addBindValue(isReadOnly);
    query.addBindValue(user);
    query.addBindValue(isReadOnly);
    db::exec(query);
}

void storeReadOnly(const QString& user, bool readOnly)
{
    QSqlQuery query;
    query.prepare(kReadOnlyStorage);
    query.addBindValue(readOnly);
    query.addBindValue(user);
    db::exec(query);
}

/// callAgent() on a thread of the global pool, while a local event loop serves this thread. Nothing when the
/// process is told to end meanwhile.
std::optional<QJsonObject> awaitAgent(const QString& socketPath, const QString& method,
                                      const QJsonObject& args, int timeoutMs)
{
    struct Wait
    {
        QEventLoop loop;
        std::optional<QJsonObject> answer;
    };
    // This function is its only owner, so that an answer that comes later is dropped.
    const auto wait = std::make_shared<Wait>();
    const auto task = [application = QCoreApplication::instance(), socketPath, method, args, timeoutMs,
                       asker = std::weak_ptr(wait)] {
        const QJsonObject answer = callAgent(socketPath, method, args, timeoutMs);
        const auto finish = [asker, answer] {
            if (const std::shared_ptr<Wait> waiting = asker.lock()) {
                waiting->answer = answer;
                waiting->loop.quit();
            }
        };
        QMetaObject::invokeMethod(application, finish, Qt::QueuedConnection);
    };
    QThreadPool::globalInstance()->start(task);
    wait->loop.exec();
    return wait->answer;
}

/// Has the agent make the database of @p user read-only or writable. False when the process is told to end
/// meanwhile.
bool switchDatabase(const QString& agentSocket, const QString& user, bool readOnly)
{
    const std::optional<QJsonObject> answer =
        awaitAgent(agentSocket, u"hosting.dbReadOnly"_s,
                   {
                       {u"username"_s, user    },
                       {u"readOnly"_s, readOnly}
    },
                   kSwitchMs);
    if (!answer)
        return false;
    if (!answer->value(u"ok"_s).toBool()) {
        qWarning("collect: database %s: %s", qPrintable(user),
                 qPrintable(answer->value(u"error"_s).toString()));
        return true;
    }
    // The session can have been lost during the wait.
    if (db::ensure(false))
        storeReadOnly(user, readOnly);
    qInfo("collect: database %s is now %s", qPrintable(user),
          readOnly ? "read-only (over its limit)" : "writable again");
    return true;
}

} // namespace

HealthAccounts::HealthAccounts(const QString& agentSocket, const bool& enforceDbLimit, bool& isMeasuring,
                               HealthAlerts& alerts)
    : m_agentSocket(agentSocket)
    , m_enforceDbLimit(enforceDbLimit)
    , m_isMeasuring(isMeasuring)
    , m_alerts(alerts)
    , m_self(std::make_shared<HealthAccounts*>(this))
{
}

void HealthAccounts::measure()
{
    if (m_isMeasuring)
        return;
    m_isMeasuring = true;
    // The pointer is taken here: the application object waits for this task while it ends, and instance() is
    // null by then.
    QCoreApplication* application = QCoreApplication::instance();
    const auto task = [application, socket = m_agentSocket, self = std::weak_ptr(m_self)] {
        const QJsonObject answer = callAgent(socket, u"hosting.usage"_s, {}, kUsageMs);
        const auto finish = [self, answer] {
            if (const std::shared_ptr<HealthAccounts*> accounts = self.lock())
                (*accounts)->finishMeasurement(answer);
        };
        QMetaObject::invokeMethod(application, finish, Qt::QueuedConnection);
    };
    QThreadPool::globalInstance()->start(task);
}

void HealthAccounts::finishMeasurement(const QJsonObject& answer)
{
    if (!answer.value(u"ok"_s).toBool()) {
        qWarning("collect: account disk use: %s", qPrintable(answer.value(u"error"_s).toString()));
    } else if (db::ensure(false)) { // the answer can come just after the session was lost
        apply(answer.value(u"usage"_s).toObject());
    }
    // Cleared last: a webhook's wait serves timers, and the next measurement must not be applied inside this
    // one.
    m_isMeasuring = false;
}

void HealthAccounts::apply(const QJsonObject& usage)
{
    if (m_isApplying)
        return;
    const QScopedValueRollback<bool> applying(m_isApplying, true);

    const QList<Account> accounts = readAccounts();
    for (const Account& account : accounts) {
        if (!applyTo(account, bytesIn(usage.value(account.user))))
            return;
    }
}

bool HealthAccounts::applyTo(const Account& account, std::optional<qint64> diskBytes)
{
    // A lost session would fail once for each account. The next measurement handles the remaining ones.
    const auto isLost = [] { return !db::session().isOpen(); };
    storeUsage(account, diskBytes);
    if (isLost())
        return false;
    if (diskBytes) {
        m_alerts.note(quotaCondition(account.user, account.domain, *diskBytes, account.diskLimitMb),
                      kMeasurements);
    }
    const Condition database = databaseQuotaCondition(
        account.user, account.domain, account.databaseBytes.value_or(0), account.databaseLimitMb);
    m_alerts.note(database, kMeasurements);
    // The session can have been lost while a webhook or a mail server was waited for.
    if (isLost() && !db::ensure(false))
        return false;
    // Also where nothing is to be switched: the table is behind after a switch whose answer was lost, and
    // after a collector that ended before it stored the switch.
    mirrorReadOnly(account.user, account.isReadOnly);
    if (isLost())
        return false;
    if (!m_enforceDbLimit || database.bad == account.isReadOnly)
        return true;
    return switchDatabase(m_agentSocket, account.user, database.bad) && db::ensure(false);
}

} // namespace tarn
