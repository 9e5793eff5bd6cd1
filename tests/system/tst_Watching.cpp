// The running binary as it watches the host: samples, alerts and accounts. Apache, systemd, the agent, the
// webhook and the mail server are the test's own; the rest of the host is this machine.

#include "support/Collector.h"
#include "support/FakeHttp.h"
#include "support/FakeSmtp.h"
#include "support/PostgresServer.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>
#include <utility>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::AgentAnswer;
using test::FakeHttp;

namespace {

constexpr int kWaitMs = 20'000;

/// Services that are down at once, each of which is mailed about.
constexpr int kFailing = 2;
/// Between two passes over the logs, which come every two seconds: far less than one mail's wait.
constexpr qint64 kMostStallMs = 7'000;

const QByteArray kLine = "192.0.2.1 - - [10/Oct/2024:13:55:36 +0000] \"GET / HTTP/1.1\" 200 5 \"-\" \"-\"\n";

/// What Apache says of itself, with @p busy of ten workers busy.
FakeHttp::Reply statusPage(int busy)
{
    return FakeHttp::reply("200 OK",
                           "Total Accesses: 100\nTotal kBytes: 20\nBusyWorkers: " + QByteArray::number(busy)
                               + "\nScoreboard: " + QByteArray(busy, 'W').leftJustified(10, '_') + '\n');
}

void writeFile(const QString& path, const QByteArray& contents)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(contents);
}

} // namespace

class tst_Watching : public QObject
{
    Q_OBJECT

private:
    QString value(const QString& statement) { return test::value(m_database, statement); }
    void run(const QString& statement) { test::run(m_database, statement); }

    /// The alerts, a text for each: kind, subject, message, and whether it is open.
    QString alerts()
    {
        return value(u"SELECT coalesce(string_agg(concat_ws('|', kind, subject, message, CASE WHEN closed_at "
                     "IS NULL THEN 'open' ELSE 'closed' END), ' ' ORDER BY opened_at, subject), '') "
                     "FROM tarn.alerts"_s);
    }

    /// True once that many more samples have been taken.
    bool waitForSamples(int more)
    {
        const int wanted = value(u"SELECT count(*) FROM tarn.host_samples"_s).toInt() + more;
        return QTest::qWaitFor(
            [&] { return value(u"SELECT count(*) FROM tarn.host_samples"_s).toInt() >= wanted; }, kWaitMs);
    }

    /// A program "systemctl" that prints the file `state`, before all others on the path.
    void fakeSystemctl()
    {
        const QString program = m_folder->filePath(u"systemctl"_s);
        writeFile(program, "#!/bin/sh\ncat \"${0%/*}/state\"\n");
        QFile::setPermissions(program, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        m_collector->environment[u"PATH"_s] = m_folder->path() + u':' + qEnvironmentVariable("PATH");
    }
    void useMail(const test::FakeSmtp& server)
    {
        auto& settings = m_collector->settings;
        settings[u"notify/smtp_host"_s] = u"127.0.0.1"_s;
        settings[u"notify/smtp_port"_s] = QString::number(server.port());
        settings[u"notify/smtp_security"_s] = u"none"_s;
        settings[u"notify/mail_from"_s] = u"a@example.org"_s;
        settings[u"notify/mail_to"_s] = u"b@example.org"_s;
    }

    /// The path of a log, which does not exist yet.
    QString followedLog()
    {
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        const QString path = m_folder->filePath(u"access.log"_s);
        run(u"INSERT INTO tarn.log_sources (path, site_id) VALUES ('%1', 1)"_s.arg(path));
        return path;
    }

    void setServices(const QByteArray& state) { writeFile(m_folder->filePath(u"state"_s), state); }

    test::PostgresServer m_server;
    FakeHttp m_apache;
    FakeHttp m_webhook;
    std::unique_ptr<QTemporaryDir> m_folder;
    QSqlDatabase m_database;
    std::unique_ptr<test::Collector> m_collector;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        QVERIFY(m_apache.start());
        QVERIFY(m_webhook.start());
    }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_folder = std::make_unique<QTemporaryDir>();
        m_collector = std::make_unique<test::Collector>();
        m_database = m_server.connect(m_collector->useNewDatabase(m_server), u"test"_s);
        m_apache.setReply(statusPage(1));
        auto& settings = m_collector->settings;
        settings[u"collect/interval_seconds"_s] = u"1"_s;
        settings[u"health/apache_status_url"_s] = m_apache.url(u"/server-status?auto"_s);
        settings[u"notify/webhook_url"_s] = m_webhook.url(u"/secret"_s);
        settings[u"notify/host_name"_s] = u"web1"_s;
    }

    void cleanup()
    {
        m_collector.reset();
        m_apache.reset();
        m_webhook.reset();
    }

    void samplesThisMachine()
    {
        m_collector->start();
        QVERIFY(waitForSamples(3));
        QCOMPARE(value(u"SELECT count(*) FROM tarn.host_samples WHERE mem_total_kb > mem_avail_kb AND "
                       "disk_total_bytes > disk_avail_bytes AND disk_avail_bytes > 0 AND load1 >= 0 AND "
                       "pg_connections >= 2 AND apache_busy = 1 AND apache_slots = 10"_s),
                 value(u"SELECT count(*) FROM tarn.host_samples"_s));
        // Rates need two samples, a counter that stands still has a rate of 0.
        QCOMPARE(value(u"SELECT count(*) FROM tarn.host_samples WHERE cpu_pct IS NULL AND pg_tps IS NULL AND "
                       "apache_rps IS NULL"_s),
                 u"1"_s);
        QCOMPARE(value(u"SELECT min(at) FROM tarn.host_samples"_s),
                 value(u"SELECT at FROM tarn.host_samples WHERE cpu_pct IS NULL"_s));
        QCOMPARE(value(u"SELECT bool_and(pg_tps >= 0 AND apache_rps = 0 AND cpu_pct BETWEEN 0 AND 100) "
                       "FROM tarn.host_samples WHERE cpu_pct IS NOT NULL"_s),
                 u"true"_s);
        QCOMPARE(m_collector->log(), QStringList());
    }

    void anAlertAcrossARestart()
    {
        test::FakeSmtp mailServer;
        QVERIFY(mailServer.takeMail());
        auto& settings = m_collector->settings;
        settings[u"notify/smtp_host"_s] = u"127.0.0.1"_s;
        settings[u"notify/smtp_port"_s] = QString::number(mailServer.port());
        settings[u"notify/smtp_security"_s] = u"none"_s;
        settings[u"notify/mail_from"_s] = u"tarnhold@example.org"_s;
        settings[u"notify/mail_to"_s] = u"a@example.org, b@example.org"_s;
        const QString text = u"Apache is using 9 of 10 workers; new visitors wait in line"_s;
        const QString later = u"Apache is using 10 of 10 workers; new visitors wait in line"_s;

        m_apache.setReply(statusPage(9));
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"alert: "_s + text));
        QTRY_COMPARE(mailServer.mails().size(), 1);
        QCOMPARE(m_webhook.requests().size(), 1);
        QCOMPARE(m_webhook.requests().first().header("Title"), "[web1] " + text.toUtf8());
        QVERIFY(mailServer.commands().contains("RCPT TO:<a@example.org>"));
        QVERIFY(mailServer.commands().contains("RCPT TO:<b@example.org>"));
        QCOMPARE(value(u"SELECT count(*) FROM tarn.host_samples"_s), u"3"_s);
        QCOMPARE(alerts(), u"apache|workers|"_s + text + u"|open"_s);

        // The row follows; nobody is told.
        m_apache.setReply(statusPage(10));
        QTRY_COMPARE_WITH_TIMEOUT(alerts(), u"apache|workers|"_s + later + u"|open"_s, kWaitMs);

        // What is open stays open, and is not told of again.
        m_collector->terminate();
        QCOMPARE(m_collector->log(), QStringList{u"alert: "_s + text});
        m_collector->start();
        QVERIFY(waitForSamples(5));
        QCOMPARE(alerts(), u"apache|workers|"_s + later + u"|open"_s);
        QCOMPARE(m_collector->log(), QStringList());

        m_apache.setReply(statusPage(8));
        QVERIFY(m_collector->waitForLog(u"alert cleared: "_s + later));
        QTRY_COMPARE(mailServer.mails().size(), 2);
        QCOMPARE(m_webhook.requests().size(), 2);
        QCOMPARE(m_webhook.requests().last().header("Title"), "[web1] Cleared: " + later.toUtf8());
        QCOMPARE(m_webhook.requests().last().header("Priority"), "default");
        QVERIFY2(m_webhook.requests().last().body.startsWith(
                     "Back to normal after 1 min. The alert was: " + later.toUtf8() + '.'),
                 m_webhook.requests().last().body.constData());
        QCOMPARE(alerts(), u"apache|workers|"_s + later + u"|closed"_s);
        QCOMPARE(mailServer.complaints(), QStringList());
    }

    void aSessionLostWhileApacheIsAskedCostsNoAlert_data()
    {
        QTest::addColumn<int>("sample");
        QTest::newRow("first-before-the-loop-runs") << 1;
        QTest::newRow("third-which-opens-the-alert") << 3;
    }
    void aSessionLostWhileApacheIsAskedCostsNoAlert()
    {
        QFETCH(const int, sample);
        int samples = 0;
        m_apache.answer([&](const FakeHttp::Request&) {
            if (++samples == sample) {
                run(u"SELECT pg_terminate_backend(pid, 5000) FROM pg_stat_activity "
                    "WHERE application_name = 'tarn-collect' AND datname = current_database()"_s);
            }
            return statusPage(10);
        });
        m_collector->start();
        const QString text = u"Apache is using 10 of 10 workers; new visitors wait in line"_s;
        QVERIFY(m_collector->waitForLog(u"alert: "_s + text));
        QTRY_COMPARE_WITH_TIMEOUT(m_webhook.requests().size(), 1, kWaitMs);
        QCOMPARE(m_collector->log().filter(u"database: reconnected"_s).size(), 1);
        QCOMPARE(alerts(), u"apache|workers|"_s + text + u"|open"_s);
        QTRY_COMPARE_WITH_TIMEOUT(m_collector->agent.calls(u"hosting.usage"_s).size(), 1, kWaitMs);
    }

    void services()
    {
        fakeSystemctl();
        m_collector->settings[u"health/services"_s] = u"apache2,ghost,postgresql"_s;
        const QByteArray running = "LoadState=loaded\nActiveState=active\nSubState=running\n\n";
        const QByteArray unknown = "LoadState=not-found\nActiveState=inactive\nSubState=dead\n\n";
        setServices(running + unknown + "LoadState=loaded\nActiveState=failed\nSubState=failed\n");
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"alert: "_s, 2));
        QCOMPARE(m_collector->log(), QStringList({u"alert: Service ghost is not installed"_s,
                                                  u"alert: Service postgresql is not running (failed)"_s}));
        setServices(running + running + running);
        QVERIFY(m_collector->waitForLog(u"alert cleared: "_s, 2));
        QCOMPARE(alerts(), u"service|ghost|Service ghost is not installed|closed "
                           "service|postgresql|Service postgresql is not running (failed)|closed"_s);
        QTRY_COMPARE(m_webhook.requests().size(), 4);
    }

    void deadChannelsHoldUpASampleForTheirTimeOutsOnly()
    {
        test::FakeSmtp mailServer;
        QVERIFY(mailServer.play({"SILENCE"}));
        useMail(mailServer);
        m_webhook.setReply({});
        const QString path = followedLog();

        m_apache.setReply(statusPage(10));
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"alert: Apache is using 10 of 10 workers"_s));
        QElapsedTimer timer;
        timer.start();
        const QString samples = value(u"SELECT count(*) FROM tarn.host_samples"_s);
        // Logs are followed while the webhook says nothing.
        writeFile(path, kLine);
        QTRY_COMPARE_WITH_TIMEOUT(value(u"SELECT count(*) FROM tarn.hits"_s), u"1"_s, kWaitMs);
        QCOMPARE(m_collector->log().filter(u"notify: "_s), QStringList());
        // No sample is taken inside a sample.
        QCOMPARE(value(u"SELECT count(*) FROM tarn.host_samples"_s), samples);

        QVERIFY(m_collector->waitForLog(u"notify: email failed: mail server stopped answering"_s));
        QVERIFY2(timer.elapsed() < 30'000, qPrintable(QString::number(timer.elapsed())));
        const QStringList told = m_collector->log().filter(u"notify: "_s);
        QCOMPARE(told.size(), 2);
        QVERIFY2(told.first().startsWith(u"notify: webhook failed: "_s)
                     && !told.first().contains(u"secret"_s),
                 qPrintable(told.first()));
        QVERIFY(waitForSamples(2));
    }

    void hitsAreStoredWhileMailsWait()
    {
        test::FakeSmtp mailServer;
        QVERIFY(mailServer.play({"SILENCE"}));
        auto& settings = m_collector->settings;
        useMail(mailServer);
        settings.remove(u"notify/webhook_url"_s);
        QStringList names;
        QByteArray state;
        for (int i = 0; i < kFailing; ++i) {
            names.append(u"unit%1"_s.arg(i));
            state += "LoadState=loaded\nActiveState=failed\nSubState=failed\n\n";
        }
        fakeSystemctl();
        setServices(state);
        settings[u"health/services"_s] = names.join(u',');
        const QString path = followedLog();

        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"alert: Service unit0 is not running (failed)"_s));
        QElapsedTimer whole;
        QElapsedTimer sinceHit;
        whole.start();
        sinceHit.start();
        qint64 longestMs = 0;
        QString hits = value(u"SELECT count(*) FROM tarn.hits"_s);
        const auto told = [&] {
            QFile log(path);
            if (log.open(QIODevice::Append))
                log.write(kLine);
            const QString now = value(u"SELECT count(*) FROM tarn.hits"_s);
            longestMs = std::max(longestMs, sinceHit.elapsed());
            if (std::exchange(hits, now) != now)
                sinceHit.restart();
            return m_collector->log().filter(u"notify: email failed: mail server stopped"_s).size()
                   >= kFailing;
        };
        QVERIFY(QTest::qWaitFor(told, kFailing * 15'000));
        QVERIFY2(whole.elapsed() > kFailing * 9'000, qPrintable(QString::number(whole.elapsed())));
        QVERIFY2(longestMs < kMostStallMs, qPrintable(QString::number(longestMs)));
    }

    void hitsAreStoredWhileTheAgentSwitches()
    {
        const QString user = m_server.createEmptyDatabase();
        run(u"INSERT INTO tarn.accounts (username, domain, disk_limit_mb, db_limit_mb) VALUES "
            "('%1', 'a.example', 0, 1)"_s.arg(user));
        m_collector->settings.remove(u"notify/webhook_url"_s);
        m_collector->agent.setAnswer(u"hosting.dbReadOnly"_s, AgentAnswer::silent());
        const QString path = followedLog();
        m_collector->start();
        QTRY_COMPARE_WITH_TIMEOUT(m_collector->agent.calls(u"hosting.dbReadOnly"_s).size(), 1, kWaitMs);
        QElapsedTimer timer;
        timer.start();
        const QString samples = value(u"SELECT count(*) FROM tarn.host_samples"_s);
        writeFile(path, kLine);
        QTRY_COMPARE_WITH_TIMEOUT(value(u"SELECT count(*) FROM tarn.hits"_s), u"1"_s, kWaitMs);
        QTRY_VERIFY_WITH_TIMEOUT(value(u"SELECT count(*) FROM tarn.host_samples"_s) != samples, kWaitMs);
        QVERIFY2(timer.elapsed() < kMostStallMs, qPrintable(QString::number(timer.elapsed())));
        QVERIFY(m_collector->waitForLog(u"collect: database %1: agent did not answer"_s.arg(user)));
    }

    void accounts()
    {
        m_collector->settings[u"collect/interval_seconds"_s] = u"3600"_s;
        run(u"INSERT INTO tarn.accounts (username, domain, disk_limit_mb, db_limit_mb) VALUES "
            "('alice', 'alice.example', 10, 0), ('bob', 'bob.example', 10, 0)"_s);
        // The last statement for each account, which changes no row here, tells that it has been seen to.
        run(u"CREATE SEQUENCE public.seen"_s);
        run(u"CREATE FUNCTION public.see() RETURNS trigger LANGUAGE plpgsql AS "
            "'BEGIN PERFORM nextval(''public.seen''); RETURN NULL; END'"_s);
        run(u"CREATE TRIGGER see AFTER UPDATE OF db_readonly ON tarn.accounts FOR EACH STATEMENT "
            "EXECUTE FUNCTION public.see()"_s);
        const auto isApplied = [this](int measurements) {
            // A request that comes before that is dropped, and not heard later.
            return QTest::qWaitFor(
                [&] {
                    return value(u"SELECT CASE WHEN is_called THEN last_value ELSE 0 END FROM public.seen"_s)
                               .toInt()
                           == 2 * measurements;
                },
                kWaitMs);
        };
        const auto usage = [](int aliceMb) {
            return AgentAnswer::good({
                {u"ok"_s,    true                                                    },
                {u"usage"_s, QJsonObject{{u"alice"_s, qint64(aliceMb) * 1024 * 1024}}}
            });
        };
        const QString text = u"alice.example uses 11 MB of its 10 MB disk limit"_s;
        m_collector->agent.setAnswer(u"hosting.usage"_s, usage(11));
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"alert: "_s + text));
        QTRY_COMPARE(m_webhook.requests().size(), 1);
        QCOMPARE(value(u"SELECT string_agg(concat_ws('|', username, coalesce(disk_used_bytes, -1), "
                       "disk_checked_at IS NOT NULL), ' ' ORDER BY username) FROM tarn.accounts"_s),
                 u"alice|11534336|t bob|-1|f"_s);
        QVERIFY(isApplied(1));

        m_collector->agent.setAnswer(u"hosting.usage"_s, usage(9));
        run(u"NOTIFY tarn_usage"_s);
        QVERIFY(m_collector->waitForLog(u"alert cleared: "_s + text));
        QTRY_COMPARE(m_webhook.requests().size(), 2);
        QCOMPARE(m_collector->agent.calls(u"hosting.usage"_s).size(), 2);

        QVERIFY(isApplied(2));

        // An agent that is away is said once an attempt, and asked again.
        m_collector->agent.stop();
        for (int attempt = 1; attempt <= 2; ++attempt) {
            run(u"NOTIFY tarn_usage"_s);
            QVERIFY(m_collector->waitForLog(u"collect: account disk use: agent not reachable"_s, attempt));
        }
        QCOMPARE(m_collector->log().filter(u"collect: account disk use: "_s).size(), 2);
        QCOMPARE(value(u"SELECT disk_used_bytes FROM tarn.accounts WHERE username = 'alice'"_s),
                 u"9437184"_s);
    }

    void oneMeasurementAtATime()
    {
        m_collector->agent.setAnswer(u"hosting.usage"_s, AgentAnswer::held({
                                                             {u"ok"_s, true}
        }));
        m_collector->start();
        QTRY_COMPARE_WITH_TIMEOUT(m_collector->agent.calls(u"hosting.usage"_s).size(), 1, kWaitMs);
        // Until that has been answered the rest of the host is watched, and no other is begun.
        run(u"NOTIFY tarn_usage"_s);
        QVERIFY(waitForSamples(3));
        QCOMPARE(m_collector->agent.calls(u"hosting.usage"_s).size(), 1);
        m_collector->agent.go();
        QTRY_COMPARE_WITH_TIMEOUT(m_collector->agent.openConnections(), 0, kWaitMs);
        QTRY_VERIFY_WITH_TIMEOUT(
            (run(u"NOTIFY tarn_usage"_s), m_collector->agent.calls(u"hosting.usage"_s).size() >= 2), kWaitMs);
    }

    void endsAtOnceWhileTheAgentSaysNothing()
    {
        m_collector->agent.setAnswer(u"hosting.usage"_s, AgentAnswer::silent());
        m_collector->start();
        QTRY_COMPARE_WITH_TIMEOUT(m_collector->agent.calls(u"hosting.usage"_s).size(), 1, kWaitMs);
        QElapsedTimer timer;
        timer.start();
        m_collector->terminate();
        QVERIFY(!m_collector->isRunning());
        QVERIFY2(timer.elapsed() < 10'000, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(m_collector->log(), QStringList());
    }

    void aNotificationIsTakenAfterARestartOfTheServer()
    {
        const QString name = m_database.databaseName();
        m_collector->start();
        QTRY_COMPARE_WITH_TIMEOUT(m_collector->agent.calls(u"hosting.usage"_s).size(), 1, kWaitMs);
        m_server.stop();
        QVERIFY(m_server.restart());
        QVERIFY(m_collector->waitForLog(u"database: reconnected"_s));
        m_database = m_server.connect(name, u"test"_s);
        run(u"NOTIFY tarn_usage"_s);
        QTRY_COMPARE_WITH_TIMEOUT(m_collector->agent.calls(u"hosting.usage"_s).size(), 2, kWaitMs);
    }

    void settingsThatMakeNoSense()
    {
        auto& settings = m_collector->settings;
        for (const QString& key : {u"disk_alert_pct"_s, u"memory_alert_pct"_s, u"load_alert_per_cpu"_s,
                                   u"temperature_alert_c"_s, u"apache_busy_alert_pct"_s})
            settings[u"health/"_s + key] = u"a lot"_s;
        settings[u"health/apache_status_url"_s] = u"server-status"_s;
        settings[u"notify/webhook_url"_s] = u"example.org/secret"_s;
        settings[u"notify/webhook_format"_s] = u"carrier pigeon"_s;
        settings[u"notify/smtp_host"_s] = u"127.0.0.1"_s;
        settings[u"notify/smtp_port"_s] = u"0"_s;
        settings[u"notify/smtp_security"_s] = u"SSL!"_s;
        settings[u"notify/mail_from"_s] = u"nobody in particular"_s;
        settings[u"notify/mail_to"_s] = u"\"somebody\""_s;
        settings[u"agent/socket"_s] = u"/nowhere/agent.sock"_s;
        settings[u"hosting/db_limit_read_only"_s] = u"perhaps"_s;
        m_collector->start();
        // A threshold that is no number is 0, and everything is above that.
        QVERIFY(m_collector->waitForLog(u"alert: Memory "_s));
        QVERIFY(m_collector->waitForLog(u"notify: webhook failed: "_s));
        QVERIFY(m_collector->waitForLog(u"notify: email failed: "_s));
        QVERIFY(waitForSamples(2));
        QVERIFY(!m_collector->log().join(u'\n').contains(u"secret"_s));
    }
};

QTEST_GUILESS_MAIN(tst_Watching)
#include "tst_Watching.moc"
