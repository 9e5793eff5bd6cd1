#include "collect/AccountsTest.h"
#include "support/FakeHttp.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QProcess>
#include <QSettings>

#include <limits>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

namespace {

const auto kEndWhileMeasuring = "--end-while-measuring";

} // namespace

/// From the agent's answer to the figures in tarn.accounts, and what can happen in between.
class tst_HealthAccounts : public AccountsTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_fixture.server.start()); }
    void init() { QVERIFY(open()); }
    void cleanup() { QVERIFY(close()); }

    void storesWhatTheAgentMeasures()
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

    void aFailedMeasurementChangesNothing_data()
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
    void aFailedMeasurementChangesNothing()
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

    void aMissingAgentIsAskedAgain()
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

    void anAnswerWithoutUsageUpdatesDatabaseSizesOnly_data()
    {
        QTest::addColumn<AgentAnswer>("answer");
        QTest::newRow("missing") << kDone;
        QTest::newRow("no-object") << AgentAnswer::good({
            {u"ok"_s,    true            },
            {u"usage"_s, QJsonArray{1, 2}}
        });
        QTest::newRow("empty") << usageAnswer({});
    }
    void anAnswerWithoutUsageUpdatesDatabaseSizesOnly()
    {
        QFETCH(const AgentAnswer, answer);
        const QString user = m_fixture.server.createEmptyDatabase();
        addAccount(user);
        m_agent->setAnswer(kUsage, answer);
        const auto health = m_fixture.makeHealth();
        measure(*health);
        QCOMPARE(column(u"disk_checked_at IS NULL AND db_used_bytes > 0"_s, user), u"true"_s);
    }

    void anAccountThatWasNotMeasuredKeepsItsFigures()
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

    void figuresThatAreNoSizesChangeNothing_data()
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
    void figuresThatAreNoSizesChangeNothing()
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

    void healthMayEndWhileTheAgentIsWaitedFor()
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

    void healthMayEndBeforeTheAnswerIsApplied()
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
    void theProcessMayEndWhileTheAgentIsWaitedFor()
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
    tst_HealthAccounts test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_HealthAccounts.moc"
