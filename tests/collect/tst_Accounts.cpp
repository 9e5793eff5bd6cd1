#include "collect/HealthFixture.h"
#include "support/FakeAgent.h"
#include "support/FakeHttp.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSqlDriver>
#include <QTest>
#include <QThreadPool>
#include <QTimer>

#include <limits>
#include <optional>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::AgentAnswer;
using test::FakeAgent;
using test::FakeHttp;
using test::HealthFixture;

namespace {

constexpr qint64 kMb = 1'048'576;

const auto kUsage = u"hosting.usage"_s;
const auto kSwitch = u"hosting.dbReadOnly"_s;
const auto kEndWhileMeasuring = "--end-while-measuring";

AgentAnswer usageAnswer(const QJsonObject& usage)
{
    return AgentAnswer::good({
        {u"ok"_s,    true },
        {u"usage"_s, usage},
    });
}

const AgentAnswer kDone = AgentAnswer::good({
    {u"ok"_s, true}
});

QString quoted(const QString& text)
{
    return u"'"_s + QString(text).replace(u'\'', u"''"_s) + u"'"_s;
}

} // namespace

class tst_Accounts : public QObject
{
    Q_OBJECT

private:
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

    static void expectAlert(const QString& text)
    {
        QTest::ignoreMessage(QtWarningMsg, qPrintable(u"alert: "_s + text));
    }
    static void expectCleared(const QString& text)
    {
        QTest::ignoreMessage(QtInfoMsg, qPrintable(u"alert cleared: "_s + text));
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

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_fixture.server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_fixture.init());
        m_agent = std::make_unique<FakeAgent>();
        QVERIFY(m_agent->start());
        m_fixture.settings[u"agent/socket"_s] = m_agent->socketPath();
    }

    void cleanup()
    {
        m_agent.reset();
        QVERIFY(QThreadPool::globalInstance()->waitForDone(10'000));
        QCoreApplication::sendPostedEvents();
        m_fixture.cleanup();
    }

    void measures()
    {
        const QString user = m_fixture.server.createEmptyDatabase();
        addAccount(user);
        addAccount(u"bob"_s);
        m_agent->setAnswer(kUsage, usageAnswer({
                                       {user,          123'456'789},
                                       {u"bob"_s,      0          },
                                       {u"stranger"_s, 5          }
        }));
        const auto health = m_fixture.makeHealth();
        measure(*health);
        QCOMPARE(m_agent->requests(), QList<QByteArray>{"{\"args\":{},\"cmd\":\"hosting.usage\"}\n"});
        QCOMPARE(column(u"disk_used_bytes"_s, user), u"123456789"_s);
        QCOMPARE(column(u"disk_used_bytes"_s, u"bob"_s), u"0"_s);
        QCOMPARE(column(u"now() - disk_checked_at < interval '1 minute'"_s, user), u"true"_s);
        QCOMPARE(column(u"db_used_bytes = pg_database_size(%1)"_s.arg(quoted(user)), user), u"true"_s);
        QCOMPARE(HealthFixture::alerts(), u""_s);
    }

    /// The timer's request and the panel's, or one while the last answer is still to come.
    void oneMeasurementAtATime()
    {
        addAccount(u"bob"_s);
        m_agent->setAnswer(kUsage, AgentAnswer::held({
                                       {u"ok"_s,    true                      },
                                       {u"usage"_s, QJsonObject{{u"bob"_s, 7}}}
        }));
        const auto health = m_fixture.makeHealth();
        health->measureAccounts();
        health->measureAccounts();
        QVERIFY(isAsked(1));
        health->measureAccounts();
        m_agent->go();
        QVERIFY(QThreadPool::globalInstance()->waitForDone(10'000));
        health->measureAccounts(); // the answer is there, but not applied
        finishMeasurement();
        QCOMPARE(column(u"disk_used_bytes"_s, u"bob"_s), u"7"_s);
        QCOMPARE(m_agent->connections(), 1);
        measure(*health);
        QCOMPARE(m_agent->connections(), 2);
    }

    void theMainThreadDoesNotWait()
    {
        addAccount(u"bob"_s);
        m_agent->setAnswer(kUsage, AgentAnswer::held({
                                       {u"ok"_s,    true                      },
                                       {u"usage"_s, QJsonObject{{u"bob"_s, 7}}}
        }));
        const auto health = m_fixture.makeHealth();
        QElapsedTimer timer;
        timer.start();
        health->measureAccounts();
        QVERIFY(timer.elapsed() < 1000);
        QVERIFY(isAsked(1));
        health->sample();
        QCOMPARE(HealthFixture::scalar(u"SELECT count(*) FROM tarn.host_samples"_s), u"1"_s);
        QCOMPARE(column(u"disk_used_bytes"_s, u"bob"_s), u"NULL"_s);
        m_agent->go();
        QTRY_COMPARE(column(u"disk_used_bytes"_s, u"bob"_s), u"7"_s);
    }

    void failedMeasurement_data()
    {
        QTest::addColumn<AgentAnswer>("answer");
        QTest::addColumn<QString>("error");
        QTest::newRow("refused") << AgentAnswer::failed(u"no rights for %1"_s) << u"no rights for %1"_s;
        QTest::newRow("garbage") << AgentAnswer::garbage() << u""_s;
        QTest::newRow("closed") << AgentAnswer::closedAtOnce() << u"agent did not answer"_s;
        QTest::newRow("no-ok") << AgentAnswer::good({
            {u"usage"_s, QJsonObject{{u"bob"_s, 7}}}
        })
                               << u""_s;
        QTest::newRow("ok-is-a-text") << AgentAnswer::good({
            {u"ok"_s,    u"true"_s                 },
            {u"usage"_s, QJsonObject{{u"bob"_s, 7}}}
        })
                                      << u""_s;
        QTest::newRow("error-is-no-text") << AgentAnswer::good({
            {u"ok"_s,    false        },
            {u"error"_s, QJsonArray{1}}
        })
                                          << u""_s;
    }
    void failedMeasurement()
    {
        QFETCH(const AgentAnswer, answer);
        QFETCH(const QString, error);
        addAccount(m_fixture.server.createEmptyDatabase(), 0, 1);
        addAccount(u"bob"_s);
        m_agent->setAnswer(kUsage, answer);
        const auto health = m_fixture.makeHealth();
        expectWarning(u"collect: account disk use: "_s + error);
        measure(*health);
        // Databases are not looked at either.
        QCOMPARE(
            HealthFixture::scalar(u"SELECT count(*) FROM tarn.accounts WHERE db_used_bytes IS NOT NULL OR "
                                  "disk_used_bytes IS NOT NULL OR disk_checked_at IS NOT NULL"_s),
            u"0"_s);
        QCOMPARE(HealthFixture::alerts(), u""_s);
    }

    void noAgent()
    {
        addAccount(u"bob"_s);
        m_agent->stop();
        const auto health = m_fixture.makeHealth();
        expectWarning(u"collect: account disk use: agent not reachable"_s);
        measure(*health);
        QVERIFY(m_agent->start());
        m_agent->setAnswer(kUsage, usageAnswer({
                                       {u"bob"_s, 7}
        }));
        measure(*health);
        QCOMPARE(column(u"disk_used_bytes"_s, u"bob"_s), u"7"_s);
    }

    void answerWithoutUsage_data()
    {
        QTest::addColumn<AgentAnswer>("answer");
        QTest::newRow("missing") << kDone;
        QTest::newRow("no-object") << AgentAnswer::good({
            {u"ok"_s,    true            },
            {u"usage"_s, QJsonArray{1, 2}}
        });
        QTest::newRow("empty") << usageAnswer({});
    }
    void answerWithoutUsage()
    {
        QFETCH(const AgentAnswer, answer);
        const QString user = m_fixture.server.createEmptyDatabase();
        addAccount(user);
        m_agent->setAnswer(kUsage, answer);
        const auto health = m_fixture.makeHealth();
        measure(*health);
        QCOMPARE(column(u"disk_checked_at IS NULL AND db_used_bytes > 0"_s, user), u"true"_s);
    }

    void accountThatWasNotMeasured()
    {
        const QString user = m_fixture.server.createEmptyDatabase();
        addAccount(user, 1);
        HealthFixture::run(u"UPDATE tarn.accounts SET disk_used_bytes = 5, disk_checked_at = '2024-05-31', "
                           "db_used_bytes = 6"_s);
        HealthFixture::run(
            u"INSERT INTO tarn.alerts (kind, subject, message) VALUES ('quota', '%1', 'old')"_s.arg(user));
        m_fixture.makeHealth()->applyUsage({});
        QCOMPARE(column(u"disk_used_bytes"_s, user), u"5"_s);
        QCOMPARE(column(u"disk_checked_at::date"_s, user), u"2024-05-31"_s);
        QCOMPARE(column(u"db_used_bytes > 6"_s, user), u"true"_s);
        QCOMPARE(HealthFixture::alerts(), u"quota|%1|old|open"_s.arg(user));
    }

    void oddFigures_data()
    {
        QTest::addColumn<QJsonValue>("figure");
        QTest::addColumn<QString>("stored"); // "5" is what was there before
        QTest::newRow("zero") << QJsonValue(0) << u"0"_s;
        QTest::newRow("beyond-32-bits") << QJsonValue(qint64(5'000'000'000)) << u"5000000000"_s;
        QTest::newRow("beyond-53-bits") << QJsonValue(qint64(9'007'199'254'740'993)) << u"9007199254740993"_s;
        QTest::newRow("largest") << QJsonValue(std::numeric_limits<qint64>::max())
                                 << u"9223372036854775807"_s;
        QTest::newRow("whole-double") << QJsonValue(7.0) << u"7"_s;
        QTest::newRow("fraction") << QJsonValue(7.9) << u"7"_s;
        QTest::newRow("beyond-64-bits") << QJsonValue(1e300) << u"9223372036854775807"_s;
        QTest::newRow("negative") << QJsonValue(-1) << u"5"_s;
        QTest::newRow("beyond-64-bits-negative") << QJsonValue(-1e300) << u"5"_s;
        QTest::newRow("text") << QJsonValue(u"7"_s) << u"5"_s;
        QTest::newRow("null") << QJsonValue() << u"5"_s;
        QTest::newRow("bool") << QJsonValue(true) << u"5"_s;
        QTest::newRow("array") << QJsonValue(QJsonArray{7}) << u"5"_s;
        QTest::newRow("object") << QJsonValue(QJsonObject{
            {u"bytes"_s, 7}
        }) << u"5"_s;
    }
    void oddFigures()
    {
        QFETCH(const QJsonValue, figure);
        QFETCH(const QString, stored);
        addAccount(u"bob"_s);
        HealthFixture::run(u"UPDATE tarn.accounts SET disk_used_bytes = 5"_s);
        // As it comes off the wire.
        m_agent->setAnswer(kUsage, usageAnswer({
                                       {u"bob"_s, figure}
        }));
        const auto health = m_fixture.makeHealth();
        measure(*health);
        QCOMPARE(column(u"disk_used_bytes"_s, u"bob"_s), stored);
        QCOMPARE(column(u"disk_checked_at IS NOT NULL"_s, u"bob"_s),
                 stored == u"5"_s ? u"false"_s : u"true"_s);
    }

    void oddNames_data()
    {
        QTest::addColumn<QString>("user");
        QTest::newRow("quotes") << u"o'brien\"s"_s;
        QTest::newRow("backslash") << u"a\\b\\'c"_s;
        QTest::newRow("placeholders") << u"%1?:x$1%s"_s;
        QTest::newRow("not-ascii") << u"jürgen-日本"_s;
        QTest::newRow("blanks") << u" a  b "_s;
        QTest::newRow("longest") << QString(63, u'x');
        QTest::newRow("empty") << u""_s;
    }
    void oddNames()
    {
        QFETCH(const QString, user);
        if (!user.isEmpty())
            HealthFixture::run(u"CREATE DATABASE "_s + db::ident(user));
        else // as it can stand in a database that other programs have made
            HealthFixture::run(
                u"ALTER TABLE tarn.accounts DROP CONSTRAINT accounts_username_fits_a_database"_s);
        addAccount(user, 1, 0, u"%1 %2 %3"_s);
        addAccount(u"other"_s, 1);
        const auto text = u"%1 %2 %3 uses 3 MB of its 1 MB disk limit"_s;
        expectAlert(text);
        const auto health = m_fixture.makeHealth();
        health->applyUsage({
            {user, 3 * kMb}
        });
        QCOMPARE(column(u"disk_used_bytes"_s, user), QString::number(3 * kMb));
        QCOMPARE(column(u"db_used_bytes IS NULL"_s, user), user.isEmpty() ? u"true"_s : u"false"_s);
        QCOMPARE(HealthFixture::alerts(), u"quota|%1|open"_s.arg(QStringList{user, text}.join(u'|')));
        QCOMPARE(column(u"disk_used_bytes"_s, u"other"_s), u"NULL"_s);
        if (!user.isEmpty())
            HealthFixture::run(u"DROP DATABASE "_s + db::ident(user));
    }

    /// JSON can write U+0000, PostgreSQL cannot: such a name is nobody's.
    void nameWithNul()
    {
        addAccount(u"bob"_s);
        m_agent->setAnswer(kUsage, usageAnswer({
                                       {u"b\0ob"_s, 7},
                                       {u"bob\0"_s, 8}
        }));
        const auto health = m_fixture.makeHealth();
        measure(*health);
        QCOMPARE(column(u"disk_used_bytes"_s, u"bob"_s), u"NULL"_s);
    }

    void diskLimit()
    {
        addAccount(u"bob"_s, 10);
        const auto health = m_fixture.makeHealth();
        health->applyUsage({
            {u"bob"_s, 10 * kMb}
        });
        QCOMPARE(HealthFixture::alerts(), u""_s);
        expectAlert(u"a.example uses 10 MB of its 10 MB disk limit"_s);
        health->applyUsage({
            {u"bob"_s, 10 * kMb + 1}
        });
        health->applyUsage({
            {u"bob"_s, 12 * kMb}
        });
        QCOMPARE(HealthFixture::alerts(), u"quota|bob|a.example uses 12 MB of its 10 MB disk limit|open"_s);
        expectCleared(u"a.example uses 12 MB of its 10 MB disk limit"_s);
        health->applyUsage({
            {u"bob"_s, 9 * kMb}
        });
        expectAlert(u"a.example uses 11 MB of its 10 MB disk limit"_s);
        health->applyUsage({
            {u"bob"_s, 11 * kMb}
        });
        // A limit that is lifted ends the alert as well.
        HealthFixture::run(u"UPDATE tarn.accounts SET disk_limit_mb = 0"_s);
        expectCleared(u"a.example uses 11 MB of its 10 MB disk limit"_s);
        health->applyUsage({
            {u"bob"_s, 11 * kMb}
        });
    }

    void noDiskLimitClosesTheAlertOfAnEarlierRun()
    {
        addAccount(u"bob"_s, 0);
        HealthFixture::run(
            u"INSERT INTO tarn.alerts (kind, subject, message) VALUES ('quota', 'bob', 'old')"_s);
        expectCleared(u"old"_s);
        m_fixture.makeHealth()->applyUsage({
            {u"bob"_s, 999 * kMb}
        });
    }

    void databaseLimit_data()
    {
        QTest::addColumn<qint64>("bytes");
        QTest::addColumn<qint64>("limitMb");
        QTest::addColumn<QString>("alertMb"); // none when it is not over
        QTest::newRow("less-than-half-a-megabyte-over") << qint64(1'611'032'166) << qint64(1536) << u"1536"_s;
        QTest::newRow("at") << 1536 * kMb << qint64(1536) << QString();
        QTest::newRow("one-byte-over") << 1536 * kMb + 1 << qint64(1536) << u"1536"_s;
        QTest::newRow("no-limit") << 1536 * kMb << qint64(0) << QString();
        QTest::newRow("negative-limit") << 1536 * kMb << qint64(-1) << QString();
    }
    void databaseLimit()
    {
        QFETCH(const qint64, bytes);
        QFETCH(const qint64, limitMb);
        QFETCH(const QString, alertMb);
        m_fixture.settings[u"hosting/db_limit_read_only"_s] = false;
        const QString user = m_fixture.server.createEmptyDatabase();
        addAccount(user, 0, limitMb);
        fakeDatabaseSize(bytes);
        const auto text =
            u"a.example's database is %1 MB, over its %2 MB limit; it is read-only until it shrinks or "
            "the limit is raised"_s.arg(alertMb, QString::number(limitMb));
        const auto health = m_fixture.makeHealth();
        if (!alertMb.isEmpty())
            expectAlert(text);
        health->applyUsage({});
        QCOMPARE(column(u"db_used_bytes"_s, user), QString::number(bytes));
        QCOMPARE(HealthFixture::alerts(),
                 alertMb.isEmpty() ? u""_s : u"dbquota|%1|%2|open"_s.arg(user, text));
        if (!alertMb.isEmpty())
            expectCleared(text);
        fakeDatabaseSize(1);
        health->applyUsage({});
    }

    void noDatabase()
    {
        addAccount(u"nobody"_s, 0, 1);
        HealthFixture::run(u"UPDATE tarn.accounts SET db_used_bytes = 5"_s);
        m_fixture.makeHealth()->applyUsage({});
        QCOMPARE(column(u"db_used_bytes"_s, u"nobody"_s), u"NULL"_s);
        QCOMPARE(HealthFixture::alerts(), u""_s);
        QCOMPARE(m_agent->requests(), QList<QByteArray>());
    }

    void switchesToReadOnlyAndBack()
    {
        const QString user = addAccountOverItsLimit();
        m_agent->setAnswer(kSwitch, kDone);
        const auto health = m_fixture.makeHealth();
        expectOverLimit();
        expectSwitch(user, u"read-only (over its limit)"_s);
        health->applyUsage({});
        QCOMPARE(m_agent->requests(),
                 QList<QByteArray>{"{\"args\":{\"readOnly\":true,\"username\":\"" + user.toUtf8()
                                   + "\"},\"cmd\":\"hosting.dbReadOnly\"}\n"});
        QCOMPARE(column(u"db_readonly"_s, user), u"true"_s);

        alterDatabase(user, u"SET default_transaction_read_only = on"_s); // the agent's part
        health->applyUsage({});
        QCOMPARE(m_agent->connections(), 1);
        QCOMPARE(column(u"db_readonly"_s, user), u"true"_s);

        HealthFixture::run(u"UPDATE tarn.accounts SET db_limit_mb = 1000"_s);
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression(u"^alert cleared: a.example's database is"_s));
        expectSwitch(user, u"writable again"_s);
        health->applyUsage({});
        QCOMPARE(m_agent->calls(kSwitch).last(), (QJsonObject{
                                                     {u"username"_s, user },
                                                     {u"readOnly"_s, false}
        }));
        QCOMPARE(column(u"db_readonly"_s, user), u"false"_s);

        alterDatabase(user, u"RESET default_transaction_read_only"_s);
        health->applyUsage({});
        QCOMPARE(m_agent->connections(), 2);
    }

    void refusedSwitch_data()
    {
        QTest::addColumn<bool>("readOnly"); // what the database is, and stays
        QTest::addColumn<bool>("table");    // what the table says before
        QTest::newRow("to-read-only") << false << false;
        QTest::newRow("to-read-only-table-behind") << false << true;
        QTest::newRow("to-writable") << true << true;
        QTest::newRow("to-writable-table-behind") << true << false;
    }
    void refusedSwitch()
    {
        QFETCH(const bool, readOnly);
        QFETCH(const bool, table);
        const QString user = addAccountOverItsLimit();
        if (readOnly) {
            alterDatabase(user, u"SET default_transaction_read_only = on"_s);
            HealthFixture::run(u"UPDATE tarn.accounts SET db_limit_mb = 0"_s);
        } else {
            expectOverLimit();
        }
        HealthFixture::run(
            u"UPDATE tarn.accounts SET db_readonly = %1"_s.arg(table ? u"true"_s : u"false"_s));
        m_agent->setAnswer(kSwitch, AgentAnswer::failed(u"not %1 now"_s));
        const auto health = m_fixture.makeHealth();
        expectWarning(u"collect: database %1: not %1 now"_s.replace(u"database %1"_s, u"database "_s + user));
        health->applyUsage({});
        QCOMPARE(column(u"db_readonly"_s, user), readOnly ? u"true"_s : u"false"_s);

        // The next measurement tries again.
        m_agent->setAnswer(kSwitch, kDone);
        expectSwitch(user, readOnly ? u"writable again"_s : u"read-only (over its limit)"_s);
        health->applyUsage({});
        QCOMPARE(m_agent->connections(), 2);
        QCOMPARE(column(u"db_readonly"_s, user), readOnly ? u"false"_s : u"true"_s);
    }

    void switchWithoutAgent()
    {
        const QString user = addAccountOverItsLimit();
        m_agent->stop();
        const auto health = m_fixture.makeHealth();
        expectOverLimit();
        expectWarning(u"collect: database %1: agent not reachable"_s.arg(user));
        health->applyUsage({});
        QCOMPARE(column(u"db_readonly"_s, user), u"false"_s);
    }

    void switchWithSilentAgent()
    {
        const QString user = addAccountOverItsLimit();
        addAccount(u"zoe"_s);
        m_agent->setAnswer(kSwitch, AgentAnswer::silent());
        const auto health = m_fixture.makeHealth();
        expectOverLimit();
        expectWarning(u"collect: database %1: agent did not answer"_s.arg(user));
        QElapsedTimer sinceTurn;
        qint64 longestGapMs = 0;
        QTimer others;
        connect(&others, &QTimer::timeout, this,
                [&] { longestGapMs = std::max(longestGapMs, sinceTurn.restart()); });
        others.start(20);
        QElapsedTimer timer;
        timer.start();
        sinceTurn.start();
        health->applyUsage({
            {u"zoe"_s, 7}
        });
        longestGapMs = std::max(longestGapMs, sinceTurn.elapsed());
        QVERIFY2(timer.elapsed() > 14'000 && timer.elapsed() < 20'000,
                 qPrintable(QString::number(timer.elapsed())));
        QVERIFY2(longestGapMs < 5'000, qPrintable(QString::number(longestGapMs)));
        QCOMPARE(column(u"disk_used_bytes"_s, u"zoe"_s), u"7"_s);

        // It has done it all the same.
        alterDatabase(user, u"SET default_transaction_read_only = on"_s);
        health->applyUsage({});
        QCOMPARE(m_agent->connections(), 1);
        QCOMPARE(column(u"db_readonly"_s, user), u"true"_s);
    }

    void aSessionLostWhileTheAgentSwitches()
    {
        const QString user = addAccountOverItsLimit();
        addAccount(u"zoe"_s);
        m_agent->setAnswer(kSwitch, AgentAnswer::held({
                                        {u"ok"_s, true}
        }));
        const auto health = m_fixture.makeHealth();
        // As in the program, whose channels have the session's end noticed.
        QVERIFY(db::session().driver()->subscribeToNotification(u"tarn_usage"_s));
        const QString backend = HealthFixture::scalar(u"SELECT pg_backend_pid()"_s);
        QTimer::singleShot(0, this, [&] {
            QTRY_COMPARE_WITH_TIMEOUT(m_agent->calls(kSwitch).size(), 1, 10'000);
            test::run(m_fixture.session.other(), u"SELECT pg_terminate_backend(%1, 5000)"_s.arg(backend));
            m_agent->go();
        });
        expectOverLimit();
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        expectSwitch(user, u"read-only (over its limit)"_s);
        health->applyUsage({
            {u"zoe"_s, 7}
        });
        QCOMPARE(column(u"db_readonly"_s, user), u"true"_s);
        QCOMPARE(column(u"disk_used_bytes"_s, u"zoe"_s), u"7"_s);
    }

    void theProcessIsToldToEndWhileTheAgentSwitches()
    {
        const QString user = addAccountOverItsLimit();
        m_agent->setAnswer(kSwitch, AgentAnswer::held({
                                        {u"ok"_s, true}
        }));
        auto health = m_fixture.makeHealth();
        expectOverLimit();
        bool hasReturned = false;
        QTimer::singleShot(0, this, [&] {
            health->applyUsage({});
            hasReturned = true;
        });
        QTimer watch;
        connect(&watch, &QTimer::timeout, this, [this] {
            if (!m_agent->calls(kSwitch).isEmpty())
                QCoreApplication::exit();
        });
        watch.start(20);
        QElapsedTimer timer;
        timer.start();
        QCoreApplication::exec();
        QVERIFY(hasReturned);
        QVERIFY2(timer.elapsed() < 10'000, qPrintable(QString::number(timer.elapsed())));
        // The answer comes when nobody is there to take it.
        health.reset();
        m_agent->go();
        finishMeasurement();
        QCOMPARE(column(u"db_readonly"_s, user), u"false"_s);
    }

    void aLostSessionEndsTheRound_data()
    {
        QTest::addColumn<QString>("change");
        QTest::newRow("usage") << u"disk_used_bytes"_s;
        QTest::newRow("read-only-state") << u"db_readonly"_s;
    }
    void aLostSessionEndsTheRound()
    {
        QFETCH(const QString, change);
        QJsonObject usage;
        for (int i = 100; i < 300; ++i) {
            addAccount(u"user%1"_s.arg(i));
            usage[u"user%1"_s.arg(i)] = i;
        }
        HealthFixture::run(u"UPDATE tarn.accounts SET db_readonly = true"_s);
        HealthFixture::run(u"CREATE FUNCTION kill() RETURNS trigger LANGUAGE plpgsql AS "
                           "$$ BEGIN PERFORM pg_terminate_backend(pg_backend_pid()); RETURN NEW; END $$"_s);
        HealthFixture::run(u"CREATE TRIGGER kill BEFORE UPDATE ON tarn.accounts FOR EACH ROW WHEN "
                           "(OLD.username = 'user107' AND NEW.%1 IS DISTINCT FROM OLD.%1) "
                           "EXECUTE FUNCTION kill()"_s.arg(change));
        // One line, and the driver's own about its statement; any other fails the test.
        HealthFixture::expectSqlError(u"terminating connection"_s);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^Unable to free statement: "_s));
        m_fixture.makeHealth()->applyUsage(usage);
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(true));
        QCOMPARE(HealthFixture::scalar(u"SELECT count(*) FROM tarn.accounts WHERE disk_used_bytes > 0"_s),
                 change == u"db_readonly" ? u"8"_s : u"7"_s);
    }

    void notEnforced_data()
    {
        QTest::addColumn<bool>("readOnly");
        QTest::addColumn<bool>("table");
        QTest::newRow("writable") << false << false;
        QTest::newRow("writable-table-behind") << false << true;
        QTest::newRow("read-only") << true << true;
        QTest::newRow("read-only-table-behind") << true << false;
    }
    void notEnforced()
    {
        QFETCH(const bool, readOnly);
        QFETCH(const bool, table);
        m_fixture.settings[u"hosting/db_limit_read_only"_s] = false;
        const QString over = addAccountOverItsLimit();
        const QString under = m_fixture.server.createEmptyDatabase();
        addAccount(under, 0, 0);
        if (readOnly) {
            alterDatabase(over, u"SET default_transaction_read_only = on"_s);
            alterDatabase(under, u"SET default_transaction_read_only = on"_s);
        }
        HealthFixture::run(
            u"UPDATE tarn.accounts SET db_readonly = %1"_s.arg(table ? u"true"_s : u"false"_s));
        const auto health = m_fixture.makeHealth();
        expectOverLimit();
        health->applyUsage({});
        QCOMPARE(column(u"db_readonly"_s, over), readOnly ? u"true"_s : u"false"_s);
        QCOMPARE(column(u"db_readonly"_s, under), readOnly ? u"true"_s : u"false"_s);
        QCOMPARE(m_agent->connections(), 0);
    }

    void whatCountsAsReadOnly_data()
    {
        QTest::addColumn<QString>("setting"); // of database %1
        QTest::addColumn<QString>("readOnly");
        QTest::newRow("on") << u"ALTER DATABASE %1 SET default_transaction_read_only = on"_s << u"true"_s;
        QTest::newRow("among-others") << u"ALTER DATABASE %1 SET work_mem = '8MB'; "
                                         "ALTER DATABASE %1 SET default_transaction_read_only = on; "
                                         "ALTER DATABASE %1 SET jit = off"_s
                                      << u"true"_s;
        QTest::newRow("off") << u"ALTER DATABASE %1 SET default_transaction_read_only = off"_s << u"false"_s;
        QTest::newRow("of-one-role")
            << u"ALTER ROLE postgres IN DATABASE %1 SET default_transaction_read_only = on"_s << u"false"_s;
        QTest::newRow("another-setting")
            << u"ALTER DATABASE %1 SET default_transaction_deferrable = on"_s << u"false"_s;
    }
    void whatCountsAsReadOnly()
    {
        QFETCH(const QString, setting);
        QFETCH(const QString, readOnly);
        m_fixture.settings[u"hosting/db_limit_read_only"_s] = false;
        const QString user = m_fixture.server.createEmptyDatabase();
        addAccount(user);
        for (const QString& statement : setting.split(u"; "_s))
            HealthFixture::run(statement.arg(user));
        m_fixture.makeHealth()->applyUsage({});
        QCOMPARE(column(u"db_readonly"_s, user), readOnly);
        HealthFixture::run(u"ALTER ROLE postgres IN DATABASE %1 RESET ALL"_s.arg(user));
    }

    /// A collector that ended between the agent's switch and its note of it.
    void tableThatWasLeftBehind()
    {
        const QString user = addAccountOverItsLimit();
        alterDatabase(user, u"SET default_transaction_read_only = on"_s);
        const auto health = m_fixture.makeHealth();
        expectOverLimit();
        health->applyUsage({});
        QCOMPARE(column(u"db_readonly"_s, user), u"true"_s);
        QCOMPARE(m_agent->connections(), 0);
    }

    void failedStatementsCostTheirAccountOnly()
    {
        addAccount(u"anna"_s, 1);
        addAccount(u"bob"_s, 1);
        HealthFixture::refuse(u"UPDATE"_s, u"accounts"_s);
        const auto text = u"a.example uses 2 MB of its 1 MB disk limit"_s;
        for (int i = 0; i < 2; ++i) {
            HealthFixture::expectRefusal();
            expectAlert(text);
        }
        m_fixture.makeHealth()->applyUsage({
            {u"anna"_s, 2 * kMb},
            {u"bob"_s,  2 * kMb}
        });
        QCOMPARE(HealthFixture::alerts(), u"quota|anna|%1|open\nquota|bob|%1|open"_s.arg(text));
    }

    void failedSwitchNote()
    {
        const QString user = addAccountOverItsLimit();
        m_agent->setAnswer(kSwitch, kDone);
        HealthFixture::refuse(u"UPDATE"_s, u"accounts"_s);
        HealthFixture::expectRefusal(); // the figures
        expectOverLimit();
        HealthFixture::expectRefusal(); // the switch
        expectSwitch(user, u"read-only (over its limit)"_s);
        m_fixture.makeHealth()->applyUsage({});
    }

    void noAccountsTable()
    {
        HealthFixture::run(u"DROP TABLE tarn.accounts"_s);
        HealthFixture::expectSqlError(u"\"tarn.accounts\" does not exist"_s);
        m_fixture.makeHealth()->applyUsage({
            {u"bob"_s, 7}
        });
    }

    void noAccounts()
    {
        m_fixture.makeHealth()->applyUsage({
            {u"bob"_s, 7}
        });
        QCOMPARE(HealthFixture::alerts(), u""_s);
    }

    /// Timers run while a webhook is waited for: the next measurement, and a sample.
    void otherJobsWithinTheWaitForAWebhook()
    {
        addAccount(u"anna"_s, 1);
        addAccount(u"bob"_s, 1);
        FakeHttp webhook;
        QVERIFY(webhook.start());
        m_fixture.settings[u"notify/webhook_url"_s] = webhook.url(u"/"_s);
        m_agent->setAnswer(kUsage, usageAnswer({
                                       {u"anna"_s, 2 * kMb},
                                       {u"bob"_s,  3 * kMb}
        }));
        const auto health = m_fixture.makeHealth();
        webhook.answer([&](const auto&) {
            health->measureAccounts();
            health->applyUsage({
                {u"anna"_s, 0},
                {u"bob"_s,  0}
            });
            health->sample();
            return FakeHttp::reply("200 OK");
        });
        expectAlert(u"a.example uses 2 MB of its 1 MB disk limit"_s);
        expectAlert(u"a.example uses 3 MB of its 1 MB disk limit"_s);
        measure(*health);
        QCOMPARE(webhook.requests().size(), 2);
        QCOMPARE(m_agent->connections(), 1);
        QCOMPARE(column(u"disk_used_bytes"_s, u"bob"_s), QString::number(3 * kMb));
        QCOMPARE(HealthFixture::scalar(u"SELECT count(*) FROM tarn.host_samples"_s), u"2"_s);
        measure(*health);
        QCOMPARE(m_agent->connections(), 2);
    }

    void endsWhileTheAgentIsWaitedFor()
    {
        addAccount(u"bob"_s);
        m_agent->setAnswer(kUsage, AgentAnswer::held({
                                       {u"ok"_s,    true                      },
                                       {u"usage"_s, QJsonObject{{u"bob"_s, 7}}}
        }));
        auto health = m_fixture.makeHealth();
        health->measureAccounts();
        QVERIFY(isAsked(1));
        health.reset();
        m_agent->go();
        finishMeasurement();
        QCOMPARE(column(u"disk_used_bytes"_s, u"bob"_s), u"NULL"_s);
    }

    void endsBeforeTheAnswerIsApplied()
    {
        addAccount(u"bob"_s);
        m_agent->setAnswer(kUsage, usageAnswer({
                                       {u"bob"_s, 7}
        }));
        auto health = m_fixture.makeHealth();
        health->measureAccounts();
        QVERIFY(QThreadPool::globalInstance()->waitForDone(10'000));
        health.reset();
        finishMeasurement();
        QCOMPARE(column(u"disk_used_bytes"_s, u"bob"_s), u"NULL"_s);
    }

    /// The application object's end waits for the thread, which then has an answer for nobody.
    void theProcessEndsWhileTheAgentIsWaitedFor()
    {
        m_agent->setAnswer(kUsage, AgentAnswer::held({
                                       {u"ok"_s, true}
        }));
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(QCoreApplication::applicationFilePath(),
                      {QString::fromLatin1(kEndWhileMeasuring), m_fixture.settingsFile()->fileName()});
        QVERIFY(isAsked(1));
        QVERIFY(QTest::qWaitFor([&] { return process.readAll().contains("ending"); }, 10'000));
        m_agent->go();
        QVERIFY(process.waitForFinished(10'000));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);
        QCOMPARE(process.readAll(), QByteArray());
    }
};

namespace {

/// In a process of its own: measures, and ends at once.
int endWhileMeasuring(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QSettings settings(QString::fromLocal8Bit(argv[2]), QSettings::IniFormat);
    Health health(settings);
    health.measureAccounts();
    // What the agent is asked is seen by the parent; the answer comes when this object and the next are gone.
    qInfo("ending");
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && qstrcmp(argv[1], kEndWhileMeasuring) == 0)
        return endWhileMeasuring(argc, argv);
    QCoreApplication application(argc, argv);
    tst_Accounts test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_Accounts.moc"
