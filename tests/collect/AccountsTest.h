// What the tests of the hosting accounts share: accounts in the database, an agent that answers as the test
// says, and the log lines of quota alerts and switches. A test class inherits this one.
#pragma once

#include "collect/HealthFixture.h"
#include "support/FakeAgent.h"

#include <QCoreApplication>
#include <QJsonObject>
#include <QObject>
#include <QRegularExpression>
#include <QTest>
#include <QThreadPool>

#include <memory>

namespace tarn::test {

using namespace Qt::Literals::StringLiterals;

inline constexpr qint64 kMb = 1'048'576;

inline const QString kUsage = u"hosting.usage"_s;
inline const QString kSwitch = u"hosting.dbReadOnly"_s;
/// The agent's answer to "hosting.usage".
inline AgentAnswer usageAnswer(const QJsonObject& usage)
{
    return AgentAnswer::good({
        {u"ok"_s,    true },
        {u"usage"_s, usage},
    });
}

/// The agent's answer to a switch that it has made.
inline const AgentAnswer kDone = AgentAnswer::good({
    {u"ok"_s, true}
});

/// @p text as a literal of SQL.
inline QString quoted(const QString& text)
{
    return u"'"_s + QString(text).replace(u'\'', u"''"_s) + u"'"_s;
}

class AccountsTest : public QObject
{
protected:
    /// Before each test: the session, the settings and the agent.
    bool open()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        if (!m_fixture.init())
            return false;
        m_agent = std::make_unique<FakeAgent>();
        if (!m_agent->start())
            return false;
        m_fixture.settings[u"agent/socket"_s] = m_agent->socketPath();
        return true;
    }

    /// After each test; false when a thread of the global pool does not end.
    bool close()
    {
        m_agent.reset();
        const bool isDone = QThreadPool::globalInstance()->waitForDone(10'000);
        QCoreApplication::sendPostedEvents();
        m_fixture.cleanup();
        return isDone;
    }

    static void addAccount(const QString& user, qint64 diskLimitMb = 0, qint64 dbLimitMb = 0,
                           const QString& domain = u"a.example"_s)
    {
        HealthFixture::run(
            u"INSERT INTO tarn.accounts (username, domain, disk_limit_mb, db_limit_mb) VALUES (%1, "
            "%2, %3, %4)"_s.arg(quoted(user), quoted(domain), QString::number(diskLimitMb),
                                QString::number(dbLimitMb)));
    }

    static QString column(const QString& name, const QString& user)
    {
        return HealthFixture::scalar(
            u"SELECT %1 FROM tarn.accounts WHERE username = %2"_s.arg(name, quoted(user)));
    }

    /// An account with a database of its own, which the limit of one MB is too small for.
    QString addAccountOverItsLimit()
    {
        QString user = m_fixture.server.createEmptyDatabase();
        addAccount(user, 0, 1);
        return user;
    }

    static void alterDatabase(const QString& name, const QString& setting)
    {
        HealthFixture::run(u"ALTER DATABASE %1 %2"_s.arg(db::ident(name), setting));
    }

    /// Has pg_database_size() give what the test says.
    static void fakeDatabaseSize(qint64 bytes)
    {
        HealthFixture::run(u"CREATE SCHEMA IF NOT EXISTS fake"_s);
        HealthFixture::run(
            u"CREATE OR REPLACE FUNCTION fake.pg_database_size(name) RETURNS bigint LANGUAGE sql "
            "AS 'SELECT %1::bigint'"_s.arg(bytes));
        HealthFixture::run(u"SET search_path = fake, pg_catalog"_s);
    }

    /// One measurement, from the request to the agent to its application.
    static void measure(Health& health)
    {
        health.measureAccounts();
        finishMeasurement();
    }
    static void finishMeasurement()
    {
        QVERIFY(QThreadPool::globalInstance()->waitForDone(30'000));
        QCoreApplication::sendPostedEvents();
    }

    /// Waits until the agent has been asked @p count times for the accounts' disk use.
    bool isAsked(qsizetype count)
    {
        return QTest::qWaitFor([&] { return m_agent->calls(kUsage).size() == count; }, 10'000);
    }

    static void expectWarning(const QString& text) { QTest::ignoreMessage(QtWarningMsg, qPrintable(text)); }

    /// The alert and the switch of an account of addAccountOverItsLimit().
    static void expectOverLimit()
    {
        QTest::ignoreMessage(
            QtWarningMsg,
            QRegularExpression(u"^alert: a\\.example's database is \\d+ MB, over its 1 MB limit; it "
                               "is read-only until it shrinks or the limit is raised$"_s));
    }
    static void expectSwitch(const QString& user, const QString& state)
    {
        QTest::ignoreMessage(QtInfoMsg, qPrintable(u"collect: database %1 is now %2"_s.arg(user, state)));
    }

    HealthFixture m_fixture;
    std::unique_ptr<FakeAgent> m_agent;
};

} // namespace tarn::test
