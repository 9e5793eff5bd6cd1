#include "collect/AccountsTest.h"

#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QTimer>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

/// The alerts of accounts over their limits, and the switching of their databases.
class tst_HealthAccountLimits : public AccountsTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_fixture.server.start()); }
    void init() { QVERIFY(open()); }
    void cleanup() { QVERIFY(close()); }

    void diskUseIsOverAboveItsLimitOnly()
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

    void databasesAreOverAboveTheirLimitOnly_data()
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
    void databasesAreOverAboveTheirLimitOnly()
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

    void aRefusedSwitchIsTriedAgain_data()
    {
        QTest::addColumn<bool>("readOnly"); // what the database is, and stays
        QTest::addColumn<bool>("table");    // what the table says before
        QTest::newRow("to-read-only") << false << false;
        QTest::newRow("to-read-only-table-behind") << false << true;
        QTest::newRow("to-writable") << true << true;
        QTest::newRow("to-writable-table-behind") << true << false;
    }
    void aRefusedSwitchIsTriedAgain()
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

    void aSilentAgentHoldsUpNoTimer()
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

        // The agent has made the switch although its answer never came.
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
            QTRY_VERIFY_WITH_TIMEOUT(!db::session().isOpen(), 10'000);
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

    void withoutEnforcementOnlyTheTableFollows_data()
    {
        QTest::addColumn<bool>("readOnly");
        QTest::addColumn<bool>("table");
        QTest::newRow("writable") << false << false;
        QTest::newRow("writable-table-behind") << false << true;
        QTest::newRow("read-only") << true << true;
        QTest::newRow("read-only-table-behind") << true << false;
    }
    void withoutEnforcementOnlyTheTableFollows()
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
    void aTableThatWasLeftBehindFollows()
    {
        const QString user = addAccountOverItsLimit();
        alterDatabase(user, u"SET default_transaction_read_only = on"_s);
        const auto health = m_fixture.makeHealth();
        expectOverLimit();
        health->applyUsage({});
        QCOMPARE(column(u"db_readonly"_s, user), u"true"_s);
        QCOMPARE(m_agent->connections(), 0);
    }

    void aSwitchThatCannotBeStoredIsStillLogged()
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
};

QTEST_GUILESS_MAIN(tst_HealthAccountLimits)
#include "tst_HealthAccountLimits.moc"
