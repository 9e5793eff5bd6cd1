// The running binary from its command line to the event loop: what it refuses, what it says, how it ends.

#include "support/Collector.h"
#include "support/PostgresServer.h"

#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

#include <csignal>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

class tst_StartUp : public QObject
{
    Q_OBJECT

private:
    /// A database with the schema, and the collector's settings for it; `m_database` is the test's own
    /// session.
    void prepare()
    {
        m_collector = std::make_unique<test::Collector>();
        m_database = m_server.connect(m_collector->useNewDatabase(m_server), u"test"_s);
    }

    /// True once the collector is through its start: the last that it asks for then is the month of the
    /// countries, and the log timer comes after two seconds.
    bool waitUntilRunning()
    {
        const auto settled = [this] {
            return test::value(
                       m_database,
                       u"SELECT count(*) FROM pg_stat_activity WHERE application_name = 'tarn-collect' "
                       "AND datname = current_database() AND state = 'idle' AND (query LIKE '%geoip_month%' "
                       "OR query LIKE '%log_sources%' AND query_start > backend_start + interval '1.5 s')"_s)
                   == u"1"_s;
        };
        return QTest::qWaitFor(settled, 20'000);
    }

    void run(const QString& statement) { test::run(m_database, statement); }

    test::PostgresServer m_server;
    QSqlDatabase m_database;
    std::unique_ptr<test::Collector> m_collector;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        prepare();
    }

    void cleanup() { m_collector.reset(); }

    void help()
    {
        m_collector->startWith({u"--help"_s});
        QCOMPARE(m_collector->waitForExit(), 0);
        QVERIFY2(m_collector->output().contains(QRegularExpression(
                     u"-h, --help.*--config <file>"_s, QRegularExpression::DotMatchesEverythingOption)),
                 qPrintable(m_collector->output()));
    }

    void unknownOption_data()
    {
        QTest::addColumn<QString>("option");
        QTest::newRow("made-up") << u"--verbose"_s;
        QTest::newRow("there-is-no-version-option") << u"--version"_s;
    }
    void unknownOption()
    {
        QFETCH(const QString, option);
        m_collector->startWith({option});
        QCOMPARE(m_collector->waitForExit(), 1);
        QVERIFY2(m_collector->log().join(u'\n').contains(u"Unknown option"_s),
                 qPrintable(m_collector->log().join(u'\n')));
    }

    void missingSettingsFile()
    {
        m_collector->environment = {
            {u"TARN_CONFIG"_s, m_collector->settingsPath()}
        };
        m_collector->start(); // so that the file of the environment is a good one
        m_collector->kill();
        m_collector->startWith({u"--config"_s, u"/nowhere/tarnhold.ini"_s});
        QCOMPARE(m_collector->waitForExit(), 1);
        QCOMPARE(m_collector->log(), QStringList{u"config file not found: /nowhere/tarnhold.ini"_s});
    }

    void settingsFileOfTheEnvironment()
    {
        m_collector->start();
        m_collector->kill();
        m_collector->environment = {
            {u"TARN_CONFIG"_s, m_collector->settingsPath()}
        };
        m_collector->startWith({});
        QVERIFY(waitUntilRunning());
    }

    void databaseOutOfReach()
    {
        m_collector->settings[u"database/host"_s] = u"/nowhere"_s;
        m_collector->start();
        QCOMPARE(m_collector->waitForExit(), 1);
        QVERIFY2(m_collector->log().value(0).startsWith(u"database: "_s),
                 qPrintable(m_collector->log().join(u'\n')));
    }

    void otherSchemaVersion_data()
    {
        QTest::addColumn<QString>("statement");
        QTest::newRow("later") << u"INSERT INTO tarn.schema_migrations (version) VALUES (12)"_s;
        QTest::newRow("earlier") << u"UPDATE tarn.schema_migrations SET version = 10"_s;
        QTest::newRow("none-recorded") << u"DELETE FROM tarn.schema_migrations"_s;
        QTest::newRow("no-such-table") << u"DROP TABLE tarn.schema_migrations"_s;
        QTest::newRow("no-schema") << u"DROP SCHEMA tarn CASCADE"_s;
    }
    void otherSchemaVersion()
    {
        QFETCH(const QString, statement);
        run(u"SET client_min_messages = warning"_s);
        run(statement);
        m_collector->start();
        QCOMPARE(m_collector->waitForExit(), 1);
        QCOMPARE(m_collector->log(),
                 QStringList{u"database schema is not at version 11; run tarn-admin migrate"_s});
    }

    void analyticsTablesMissing_data()
    {
        QTest::addColumn<QString>("statement");
        QTest::newRow("no-secret") << u"DELETE FROM tarn.settings WHERE key = 'visitor_secret'"_s;
        QTest::newRow("no-settings-table") << u"DROP TABLE tarn.settings CASCADE"_s;
    }
    void analyticsTablesMissing()
    {
        QFETCH(const QString, statement);
        run(statement);
        m_collector->start();
        QCOMPARE(m_collector->waitForExit(), 1);
        QCOMPARE(m_collector->log(), QStringList{u"analytics tables are missing; run tarn-admin migrate"_s});
    }

    void analyticsTablesOutOfReach_data()
    {
        QTest::addColumn<QStringList>("statements");
        QTest::addColumn<QString>("reason");
        QTest::newRow("right-missing")
            << QStringList{u"GRANT USAGE ON SCHEMA tarn TO powerless"_s,
                           u"GRANT SELECT ON tarn.schema_migrations TO powerless"_s}
            << u"sql: ERROR:  permission denied for table settings"_s;
        QTest::newRow("session-lost")
            << QStringList{u"ALTER TABLE tarn.settings RENAME TO kept"_s,
                           u"CREATE VIEW tarn.settings AS SELECT key, value FROM tarn.kept "
                           "WHERE pg_terminate_backend(pg_backend_pid())"_s}
            << u"sql: FATAL:  terminating connection due to administrator command"_s;
    }
    void analyticsTablesOutOfReach()
    {
        QFETCH(const QStringList, statements);
        QFETCH(const QString, reason);
        run(u"CREATE ROLE powerless LOGIN"_s);
        const bool isPowerless = statements.first().contains(u"powerless"_s);
        for (const QString& statement : statements)
            run(statement);
        if (isPowerless)
            m_collector->settings[u"database/user"_s] = u"powerless"_s;
        m_collector->start();
        QCOMPARE(m_collector->waitForExit(), 1);
        const QStringList log = m_collector->log();
        run(u"DROP OWNED BY powerless"_s);
        run(u"DROP ROLE powerless"_s);
        QVERIFY2(log.size() >= 2 && log.at(log.size() - 2).startsWith(reason), qPrintable(log.join(u'\n')));
        QCOMPARE(log.last(), u"analytics tables are missing; run tarn-admin migrate"_s);
    }

    void runsUntilItIsEndedFromOutside()
    {
        m_collector->start();
        QVERIFY(waitUntilRunning());
        m_collector->terminate();
        QVERIFY(!m_collector->isRunning());
        QCOMPARE(m_collector->waitForExit(), -1); // ended by the signal's default action
        QCOMPARE(m_collector->log(), QStringList());
    }

    void subscribesInOrder()
    {
        run(u"ALTER DATABASE %1 SET log_statement = 'all'"_s.arg(m_database.databaseName()));
        m_collector->start();
        QVERIFY(waitUntilRunning());
        static const QRegularExpression inOrder(u"LISTEN \"?tarn_sync.*LISTEN \"?tarn_usage"_s,
                                                QRegularExpression::DotMatchesEverythingOption);
        QTRY_VERIFY(m_server.log().contains(inOrder));
    }

    void notificationsAreTaken()
    {
        m_collector->settings[u"google/client_id"_s] = u"id-without-secret"_s;
        m_collector->start();
        QVERIFY(waitUntilRunning());
        for (const QString& channel : {u"tarn_sync"_s, u"tarn_usage"_s, u"tarn_hits"_s, u"something"_s})
            run(u"NOTIFY "_s + channel);
        // The next pass over the logs comes after them.
        const QString sent = test::value(m_database, u"SELECT clock_timestamp()"_s);
        const auto passed =
            u"SELECT count(*) FROM pg_stat_activity WHERE application_name = 'tarn-collect' AND "
            "datname = current_database() AND query LIKE '%log_sources%' AND query_start > '%1'"_s;
        QTRY_COMPARE_WITH_TIMEOUT(test::value(m_database, passed.arg(sent)), u"1"_s, 20'000);
        QVERIFY(m_collector->isRunning());
        QCOMPARE(m_collector->log(), QStringList());
    }

    void intervalsAsTyped_data()
    {
        QTest::addColumn<QString>("interval");
        QTest::newRow("zero") << u"0"_s;
        QTest::newRow("no-number") << u"soon"_s;
        QTest::newRow("negative") << u"-5"_s; // Qt says that it will not start such a timer
        QTest::newRow("longer-than-a-timer-counts") << u"2147483647"_s;
    }
    void intervalsAsTyped()
    {
        QFETCH(const QString, interval);
        m_collector->settings[u"collect/interval_seconds"_s] = interval;
        m_collector->settings[u"hosting/usage_minutes"_s] = interval;
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        run(u"INSERT INTO tarn.log_sources (path, site_id) VALUES ('/usr', 1)"_s);
        m_collector->start();
        // The other timers get their turn: each pass over the logs says that it cannot read this one.
        QVERIFY(m_collector->waitForLog(u"collect: cannot read /usr"_s, 3));
        QVERIFY(m_collector->isRunning());
    }

    void settingsThatMakeNoSenseAreNamedOnce()
    {
        m_collector->settings[u"health/disk_alert_pct"_s] = u"90%"_s;
        m_collector->settings[u"hosting/db_limit_read_only"_s] = u"no"_s;
        m_collector->settings[u"notify/smtp_password"_s] = u"12 secret"_s;
        m_collector->start();
        QVERIFY(m_collector->waitForLog(
            u"settings: hosting/db_limit_read_only=no is neither true nor false; true is used"_s));
        QCOMPARE(m_collector->log().filter(u"db_limit_read_only"_s).size(), 1);
        QCOMPARE(m_collector->log().filter(u"disk_alert_pct"_s).size(), 1);
        QCOMPARE(m_collector->log().filter(u"secret"_s), QStringList());
        QVERIFY(
            m_collector->log().contains(u"settings: health/disk_alert_pct=90% is no number; 0 is used"_s));
    }

    void rollsUpAndTidiesAtStart()
    {
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        run(u"INSERT INTO tarn.settings VALUES ('raw_hit_days', '400')"_s);
        run(u"INSERT INTO tarn.hits (site_id, at, method, path, status, is_page, visitor) "
            "SELECT 1, now() - make_interval(days => d), 'GET', '/', 200, true, '\\x01' "
            "FROM unnest(ARRAY[0, 1, 399, 401, 402]) d"_s);
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"collect: removed 2 raw hits older than 400 days"_s));
        QCOMPARE(test::value(m_database, u"SELECT count(*) FROM tarn.hits"_s), u"3"_s);
        QCOMPARE(test::value(m_database,
                             u"SELECT string_agg((current_date - day)::text, ' ' ORDER BY day DESC) "
                             "FROM tarn.site_days WHERE page_views = 1"_s),
                 u"0 1 399 401 402"_s);
    }

    void keepsHitsForEverByDefault_data()
    {
        QTest::addColumn<QString>("days"); // empty: no such row
        QTest::newRow("not-set") << QString();
        QTest::newRow("zero") << u"0"_s;
        QTest::newRow("negative") << u"-1"_s;
        QTest::newRow("no-number") << u"a year"_s;
    }
    void keepsHitsForEverByDefault()
    {
        QFETCH(const QString, days);
        // What the table refuses can still stand in a database that is older than its check.
        run(u"ALTER TABLE tarn.settings DROP CONSTRAINT settings_raw_hit_days_is_a_number"_s);
        if (!days.isEmpty())
            run(u"INSERT INTO tarn.settings VALUES ('raw_hit_days', '%1')"_s.arg(days));
        run(u"INSERT INTO tarn.hits (site_id, at) VALUES (1, '1999-12-31')"_s);
        m_collector->start();
        QVERIFY(waitUntilRunning());
        QCOMPARE(test::value(m_database, u"SELECT count(*) FROM tarn.hits"_s), u"1"_s);
        if (days.contains(u' ')) {
            QVERIFY(
                m_collector->waitForLog(u"sql: ERROR:  invalid input syntax for type integer: \"a year\""_s));
        } else {
            QCOMPARE(m_collector->log(), QStringList());
        }
    }

    void missingPrivilegeIsSaid()
    {
        run(u"CREATE ROLE powerless LOGIN"_s);
        run(u"GRANT USAGE ON SCHEMA tarn TO powerless"_s);
        run(u"GRANT SELECT ON tarn.schema_migrations, tarn.settings, tarn.geo_country TO powerless"_s);
        run(u"GRANT INSERT ON tarn.hits TO powerless"_s); // with it, the visitor secret is to be seen
        m_collector->settings[u"database/user"_s] = u"powerless"_s;
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"sql: ERROR:  permission denied for table log_sources"_s));
        QVERIFY(m_collector->waitForLog(u"sql: ERROR:  permission denied for table sites"_s));
        QVERIFY(m_collector->isRunning());
        m_collector.reset();
        run(u"DROP OWNED BY powerless"_s);
        run(u"DROP ROLE powerless"_s);
    }
};

QTEST_GUILESS_MAIN(tst_StartUp)
#include "tst_StartUp.moc"
