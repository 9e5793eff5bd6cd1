// The lines of the running binary's log: one for each message, whatever the message is made of, and no more
// of them than anybody can read.

#include "support/Collector.h"
#include "support/FakeHosts.h"
#include "support/PostgresServer.h"

#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::AgentAnswer;
using test::FakeHosts;

namespace {

/// What must never become a line of its own.
const auto kForged = u"alert: disk full on /"_s;

/// Two forged lines, with the separators that Unicode has beside the line feed.
QString hostile(const QString& text)
{
    return text + u"\r\n"_s + kForged + QChar(0x2028) + kForged + QChar(0x85) + kForged;
}

} // namespace

class tst_LogLines : public QObject
{
    Q_OBJECT

private:
    void run(const QString& statement) { test::run(m_database, statement); }

    /// Waits for the line that begins with @p text, and fails if a forged line stands beside it.
    void verifyOneLine(const QString& text)
    {
        QVERIFY2(m_collector->waitForLog(text), qPrintable(text));
        for (const QString& entry : m_collector->log()) {
            QVERIFY2(!entry.startsWith(kForged), qPrintable(entry));
            QVERIFY2(!entry.contains(QChar(0x2028)) && !entry.contains(QChar(0x85)) && !entry.contains(u'\r'),
                     qPrintable(entry));
        }
        const QStringList found = m_collector->log().filter(text);
        QVERIFY2(found.first().count(kForged) == 3, qPrintable(found.first()));
    }

    test::PostgresServer m_server;
    FakeHosts m_hosts;
    QSqlDatabase m_database;
    std::unique_ptr<QTemporaryDir> m_folder;
    std::unique_ptr<test::Collector> m_collector;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        QVERIFY(m_hosts.start({u"oauth2.googleapis.com"_s, u"www.googleapis.com"_s}));
    }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_folder = std::make_unique<QTemporaryDir>();
        m_collector = std::make_unique<test::Collector>();
        m_database = m_server.connect(m_collector->useNewDatabase(m_server), u"test"_s);
    }

    void cleanup()
    {
        m_collector.reset();
        QCOMPARE(m_hosts.complaints(), QStringList());
        m_hosts.reset();
    }

    void aDomain()
    {
        run(u"INSERT INTO tarn.accounts (username, domain, disk_limit_mb) VALUES ('alice', '%1', 1)"_s.arg(
            hostile(u"example.org"_s)));
        m_collector->agent.setAnswer(
            u"hosting.usage"_s, AgentAnswer::good({
                                    {u"ok"_s,    true                                 },
                                    {u"usage"_s, QJsonObject{{u"alice"_s, 10'485'760}}}
        }));
        m_collector->start();
        verifyOneLine(u"alert: example.org"_s);
    }

    void aPath()
    {
        const QString name = hostile(u"logs"_s).replace(u'/', u'-');
        QVERIFY(QDir(m_folder->path()).mkdir(name));
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        run(u"INSERT INTO tarn.log_sources (path, site_id) VALUES ('%1', 1)"_s.arg(m_folder->filePath(name)));
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"collect: cannot read "_s));
        QCOMPARE(m_collector->log().filter(QRegularExpression(u"^(?!collect: cannot read )"_s)),
                 QStringList());
    }

    void anErrorOfTheAgent()
    {
        m_collector->agent.setAnswer(u"hosting.usage"_s,
                                     AgentAnswer::good({
                                         {u"ok"_s,    false                 },
                                         {u"error"_s, hostile(u"no quota"_s)}
        }));
        m_collector->start();
        verifyOneLine(u"collect: account disk use: no quota"_s);
    }

    void aTextOfGoogle()
    {
        run(u"INSERT INTO tarn.engine_accounts (engine, refresh_token) VALUES ('google', 'kept')"_s);
        m_collector->settings[u"google/client_id"_s] = u"id"_s;
        m_collector->settings[u"google/client_secret"_s] = u"hidden"_s;
        m_collector->trust(m_hosts);
        m_hosts.answer([](const FakeHosts::Request&) {
            const QByteArray text = "revoked\\r\\n" + kForged.toUtf8() + "\\u2028" + kForged.toUtf8()
                                    + "\\u0085" + kForged.toUtf8();
            return FakeHosts::Reply{.status = 400,
                                    .body = "{\"error\": \"invalid_grant\", \"error_description\": \"" + text
                                            + "\"}"};
        });
        m_collector->start();
        verifyOneLine(u"collect: google: "_s);
    }

    void aReasonOfTheServer()
    {
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        run(u"CREATE OR REPLACE FUNCTION tarn.rollup_day(site_id integer, day date) RETURNS void LANGUAGE "
            "plpgsql AS $$ BEGIN RAISE 'not today' USING DETAIL = 'more'; END $$"_s);
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"sql: ERROR:  not today DETAIL:  more"_s, 2));
        QCOMPARE(m_collector->log().filter(QRegularExpression(u"^(?!sql: ERROR:  not today)"_s)),
                 QStringList());
    }

    void aLostSessionIsAHandfulOfLines()
    {
        run(u"INSERT INTO tarn.sites (id, host) SELECT n, 'site' || n FROM generate_series(1, 10000) n"_s);
        run(u"CREATE SEQUENCE public.times"_s);
        run(u"CREATE OR REPLACE FUNCTION tarn.rollup_day(site_id integer, day date) RETURNS void LANGUAGE "
            "plpgsql AS 'BEGIN IF nextval(''public.times'') = 200 THEN "
            "PERFORM pg_terminate_backend(pg_backend_pid()); END IF; END'"_s);
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"database: reconnected"_s));
        const QStringList log = m_collector->log();
        qInfo("%lld lines", qint64(log.size()));
        QVERIFY2(log.size() <= 8, qPrintable(log.mid(0, 20).join(u'\n')));
        QCOMPARE(log.filter(QRegularExpression(u"^sql: *$"_s)), QStringList());
        // The next pass begins again, with yesterday.
        const auto all = [this] {
            return test::value(m_database, u"SELECT last_value FROM public.times"_s).toInt() >= 20'200;
        };
        QVERIFY(QTest::qWaitFor(all, 90'000));
    }

    void aSessionLostAmongTheLogsIsAHandfulOfLines()
    {
        const QTemporaryDir folder;
        for (int n = 1; n <= 200; ++n) {
            QFile log(folder.filePath(QString::number(n)));
            QVERIFY(log.open(QIODevice::WriteOnly));
            log.write(
                "192.0.2.1 - - [10/Oct/2024:13:55:36 +0000] \"GET / HTTP/1.1\" 200 1 \"-\" \"curl/8.0\"\n");
        }
        run(u"INSERT INTO tarn.sites (id, host) SELECT n, 'site' || n FROM generate_series(1, 200) n"_s);
        run(u"INSERT INTO tarn.log_sources (path, site_id) SELECT '%1/' || n, n FROM generate_series(1, 200) n"_s
                .arg(folder.path()));
        run(u"CREATE SEQUENCE public.times"_s);
        run(u"CREATE FUNCTION public.die() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
            "IF nextval('public.times') = 20 THEN PERFORM pg_terminate_backend(pg_backend_pid()); END IF; "
            "RETURN NEW; END $$"_s);
        run(u"CREATE TRIGGER die BEFORE INSERT ON tarn.hits FOR EACH ROW EXECUTE FUNCTION public.die()"_s);
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"database: reconnected"_s));
        const QStringList log = m_collector->log();
        // Without a stop each of the 180 remaining logs would add some.
        QVERIFY2(log.size() <= 20, qPrintable(log.mid(0, 20).join(u'\n')));
        // The next pass takes the logs that are left.
        QTRY_COMPARE_WITH_TIMEOUT(test::value(m_database, u"SELECT count(*) FROM tarn.hits"_s), u"200"_s,
                                  60'000);
    }
};

QTEST_GUILESS_MAIN(tst_LogLines)
#include "tst_LogLines.moc"
