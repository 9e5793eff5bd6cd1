// packaging/tarn-collect-setup against a server of its own: what it makes, and what it leaves alone.
#include "support/PostgresServer.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

constexpr int kScriptMs = 60'000;

const auto kAllRights =
    u"SELECT string_agg(line, E'\\n' ORDER BY line) FROM ("
    "SELECT concat_ws(' ', relname, attname, coalesce(attacl, relacl)) AS line FROM pg_class c "
    "LEFT JOIN pg_attribute ON attrelid = c.oid AND attacl IS NOT NULL "
    "WHERE relnamespace = 'tarn'::regnamespace "
    "UNION ALL SELECT proname || proacl::text FROM pg_proc WHERE pronamespace = 'tarn'::regnamespace "
    "UNION ALL SELECT datacl::text FROM pg_database WHERE datname = current_database() "
    "UNION ALL SELECT concat_ws(' ', rolname, rolcanlogin, rolsuper) FROM pg_roles) lines"_s;

} // namespace

class tst_SetUp : public QObject
{
    Q_OBJECT

private:
    /// What the script printed, its errors among it; "status N" comes first when that is not 0.
    QString setUp(const QStringList& options = {})
    {
        QProcess script;
        script.setProcessChannelMode(QProcess::MergedChannels);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"PGHOST"_s, m_server.socketFolder());
        environment.insert(u"PGPORT"_s, u"5432"_s);
        environment.insert(u"PGUSER"_s, u"postgres"_s);
        environment.remove(u"PGDATABASE"_s);
        script.setProcessEnvironment(environment);
        QStringList arguments{u"--no-service"_s, u"--reader"_s, u"tarn_reader"_s};
        if (!options.contains(u"--settings"_s))
            arguments += {u"--settings"_s, m_folder.filePath(u"none.ini"_s)};
        script.start(QStringLiteral(TARN_PACKAGING_DIR "/tarn-collect-setup"), arguments + options);
        if (!script.waitForFinished(kScriptMs))
            return u"the script did not end"_s;
        const QString printed = QString::fromUtf8(script.readAll());
        return (script.exitCode() == 0 ? QString() : u"status %1\n"_s.arg(script.exitCode())) + printed;
    }

    /// The outcome that the script printed beside @p what; empty when it said nothing about it.
    static QString outcome(const QString& printed, const QString& what)
    {
        const QRegularExpression line(u"^%1 {2,}(.*)$"_s.arg(QRegularExpression::escape(what)),
                                      QRegularExpression::MultilineOption);
        return line.match(printed).captured(1);
    }

    QSqlDatabase session(const QString& database = u"tarnhold"_s, const QString& user = u"postgres"_s)
    {
        return m_server.connect(database, u"session"_s, user);
    }

    QString scalar(const QString& statement) { return test::value(session(), statement); }

    QString settings(const QByteArray& content)
    {
        QFile file(m_folder.filePath(u"settings.ini"_s));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            QTest::qFail("the settings cannot be written", __FILE__, __LINE__);
        return file.fileName();
    }

    /// A database named tarnhold as the first release made it, with a hit of yesterday.
    void makeOldDatabase()
    {
        test::run(session(u"postgres"_s), u"CREATE DATABASE tarnhold TEMPLATE template0"_s);
        QCOMPARE(
            m_server.runFile(u"tarnhold"_s, QStringLiteral(TARN_TEST_DATA "/schema/version-11-first.sql")),
            QString());
        test::run(session(), u"INSERT INTO tarn.hits (site_id, at, method, path, status, is_page) "
                             "VALUES (1, now() - interval '1 day', 'GET', '/', 200, true)"_s);
    }

    test::PostgresServer m_server;
    QTemporaryDir m_folder;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        QFile none(m_folder.filePath(u"none.ini"_s));
        QVERIFY(none.open(QIODevice::WriteOnly));
    }

    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    /// Roles and databases are the server's, so they would meet the next test.
    void cleanup()
    {
        QSqlDatabase::removeDatabase(u"other"_s);
        for (const QString& made :
             {u"SELECT string_agg(format('DROP DATABASE %I WITH (FORCE)', datname), E'\n') FROM pg_database "
              "WHERE datname NOT IN ('postgres', 'template0', 'template1')"_s,
              u"SELECT string_agg(format('DROP ROLE %I', rolname), E'\n') FROM pg_roles "
              "WHERE rolname <> 'postgres' AND rolname !~ '^pg_'"_s}) {
            const QString statements = test::value(session(u"postgres"_s), made);
            for (const QString& statement : statements.split(u'\n')) {
                if (statement != u"NULL")
                    test::run(session(u"postgres"_s), statement);
            }
        }
        QSqlDatabase::removeDatabase(u"session"_s);
    }

    void fromNothing()
    {
        const QString printed = setUp();
        QVERIFY2(!printed.startsWith(u"status"_s), qPrintable(printed));
        QCOMPARE(outcome(printed, u"role tarn-collect"_s), u"made"_s);
        QCOMPARE(outcome(printed, u"role tarn_reader"_s), u"made"_s);
        QCOMPARE(outcome(printed, u"database tarnhold"_s), u"made"_s);
        QCOMPARE(outcome(printed, u"schema tarn"_s), u"loaded, version 11"_s);
        QCOMPARE(outcome(printed, u"rights"_s), u"given: collector=tarn-collect reader=tarn_reader"_s);
        QCOMPARE(scalar(u"SELECT concat_ws(' ', pg_encoding_to_char(encoding), datcollate, datctype) "
                        "FROM pg_database WHERE datname = 'tarnhold'"_s),
                 u"UTF8 C.UTF-8 C.UTF-8"_s);
        QCOMPARE(scalar(u"SELECT lower('MÜNCHEN')"_s), u"münchen"_s);
        QVERIFY2(!printed.contains(scalar(u"SELECT value FROM tarn.settings WHERE key = 'visitor_secret'"_s)),
                 qPrintable(printed));

        QCOMPARE(test::value(session(u"tarnhold"_s, u"tarn-collect"_s), u"SELECT count(*) FROM tarn.sites"_s),
                 u"0"_s);
        QCOMPARE(
            test::value(session(u"tarnhold"_s, u"tarn_reader"_s), u"SELECT count(*) FROM tarn.site_days"_s),
            u"0"_s);
        test::run(session(), u"CREATE ROLE stranger LOGIN"_s);
        QVERIFY(!session(u"tarnhold"_s, u"stranger"_s).isOpen());
    }

    void againChangesNothing()
    {
        QVERIFY(!setUp().startsWith(u"status"_s));
        const QString rights = scalar(kAllRights);
        const auto rows = u"SELECT string_agg(concat(s, s.xmin), ' ') FROM tarn.settings s"_s;
        const QString before = scalar(rows);
        const QString printed = setUp();
        for (const QString& what : {u"role tarn-collect"_s, u"role tarn_reader"_s, u"database tarnhold"_s,
                                    u"its functions"_s, u"rights"_s})
            QVERIFY2(outcome(printed, what).startsWith(u"stand"_s), qPrintable(what + u"\\n"_s + printed));
        QCOMPARE(outcome(printed, u"schema tarn"_s), u"stands, version 11"_s);
        QCOMPARE(scalar(kAllRights), rights);
        QCOMPARE(scalar(rows), before);
    }

    /// As when it was interrupted, or somebody began by hand.
    void whatIsThereIsTaken()
    {
        test::run(session(u"postgres"_s), u"CREATE ROLE \"tarn-collect\" LOGIN CONNECTION LIMIT 3"_s);
        test::run(session(u"postgres"_s), u"CREATE DATABASE tarnhold TEMPLATE template0"_s);
        const QString printed = setUp();
        QCOMPARE(outcome(printed, u"role tarn-collect"_s), u"stands"_s);
        QCOMPARE(outcome(printed, u"database tarnhold"_s), u"stands"_s);
        QCOMPARE(outcome(printed, u"schema tarn"_s), u"loaded, version 11"_s);
        QCOMPARE(scalar(u"SELECT rolconnlimit FROM pg_roles WHERE rolname = 'tarn-collect'"_s), u"3"_s);
    }

    void namesAreNames()
    {
        const auto database = uR"(dbname=postgres "odd" 'name')"_s;
        const auto role = uR"(a "role"; it's)"_s;
        const QString printed = setUp({u"--database"_s, database, u"--collector"_s, role});
        QCOMPARE(outcome(printed, u"database "_s + database), u"made"_s);
        test::run(session(u"postgres"_s),
                  u"ALTER DATABASE \"dbname=postgres \"\"odd\"\" 'name'\" RENAME TO x"_s);
        QCOMPARE(test::value(session(u"x"_s, role), u"SELECT count(*) FROM tarn.sites"_s), u"0"_s);
    }

    // Upgrades

    void functionsAreBroughtUpToDate()
    {
        QVERIFY(!setUp().startsWith(u"status"_s));
        test::run(session(), u"DROP FUNCTION tarn.add_site(text, text)"_s);
        const QString printed = setUp();
        QCOMPARE(outcome(printed, u"its functions"_s), u"brought up to date"_s);
        QCOMPARE(outcome(setUp(), u"its functions"_s), u"stand"_s);
        QCOMPARE(scalar(u"SELECT tarn.add_site('example.org', '/a.log') > 0"_s), u"true"_s);
    }

    /// What is made anew belongs to the schema's owner, not to whoever ran the script.
    void theOwnerOwnsWhatIsNew()
    {
        test::run(session(u"postgres"_s), u"CREATE ROLE owner LOGIN"_s);
        test::run(session(u"postgres"_s), u"CREATE DATABASE tarnhold OWNER owner TEMPLATE template0"_s);
        QCOMPARE(m_server.runFile(u"tarnhold"_s, test::schemaFile(u"tarn.sql"_s), {u"-U"_s, u"owner"_s}),
                 QString());
        test::run(session(), u"DROP FUNCTION tarn.add_site(text, text)"_s);
        QCOMPARE(outcome(setUp(), u"its functions"_s), u"brought up to date"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM pg_proc WHERE pronamespace = 'tarn'::regnamespace "
                        "AND proowner <> 'owner'::regrole"_s),
                 u"0"_s);
    }

    void tablesAreUpgradedInTheCollectorsZone()
    {
        makeOldDatabase();
        const QString file = settings("[database]\n timezone = \"Asia/Tokyo\" \n[web]\ntimezone=UTC\n");
        const QString printed = setUp({u"--settings"_s, file});
        QVERIFY2(printed.contains(u"upgraded by 0001-figures.sql"_s), qPrintable(printed));
        QCOMPARE(scalar(u"SELECT string_agg(zone, ' ') FROM tarn.rollup_due"_s), u"Asia/Tokyo"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits"_s), u"1"_s);
        QVERIFY(!setUp().contains(u"upgraded"_s));
    }

    void noUpgradeUnderARunningCollector()
    {
        makeOldDatabase();
        test::run(session(), u"CREATE ROLE \"tarn-collect\" LOGIN"_s);
        const auto columns = u"SELECT count(*) FROM pg_attribute JOIN pg_class c ON c.oid = attrelid "
                             "WHERE relnamespace = 'tarn'::regnamespace"_s;
        const QString before = scalar(columns);
        QVERIFY(m_server.connect(u"tarnhold"_s, u"other"_s, u"tarn-collect"_s).isOpen());
        const QString printed = setUp();
        QVERIFY2(printed.startsWith(u"status 1\n"_s) && printed.contains(u"systemctl stop"_s),
                 qPrintable(printed));
        QCOMPARE(scalar(columns), before);
    }

    // What is somebody else's

    void otherSchemas_data()
    {
        QTest::addColumn<QString>("statement");
        QTest::addColumn<QString>("reason");
        QTest::newRow("version") << u"CREATE TABLE tarn.schema_migrations AS SELECT 12 AS version"_s
                                 << u"has version 12, and this program is for 11"_s;
        QTest::newRow("no-version") << u"CREATE TABLE tarn.schema_migrations (version integer)"_s
                                    << u"has version 0, and this program is for 11"_s;
        QTest::newRow("foreign") << u"CREATE TABLE tarn.letters ()"_s
                                 << u"has a schema tarn that is not the collector's"_s;
    }
    void otherSchemas()
    {
        QFETCH(const QString, statement);
        QFETCH(const QString, reason);
        test::run(session(u"postgres"_s), u"CREATE DATABASE tarnhold TEMPLATE template0"_s);
        test::run(session(), u"CREATE SCHEMA tarn"_s);
        test::run(session(), statement);
        const QString printed = setUp();
        QVERIFY2(printed.startsWith(u"status 1\n"_s) && printed.contains(reason), qPrintable(printed));
        QCOMPARE(scalar(u"SELECT count(*) FROM pg_class WHERE relnamespace = 'tarn'::regnamespace"_s),
                 u"1"_s);
        QCOMPARE(scalar(u"SELECT datacl IS NULL FROM pg_database WHERE datname = 'tarnhold'"_s), u"true"_s);
    }

    void aDatabaseOfOthersKeepsItsDoors()
    {
        test::run(session(u"postgres"_s), u"CREATE DATABASE tarnhold TEMPLATE template0"_s);
        test::run(session(), u"CREATE TABLE public.letters ()"_s);
        test::run(session(), u"CREATE ROLE stranger LOGIN"_s);
        const QString printed = setUp();
        QVERIFY2(printed.startsWith(u"status 1\n"_s) && printed.contains(u"holds tables of others"_s),
                 qPrintable(printed));
        QVERIFY(session(u"tarnhold"_s, u"stranger"_s).isOpen());
        // Once connecting is nobody's by accident, there is nothing to take away.
        test::run(session(), u"REVOKE CONNECT ON DATABASE tarnhold FROM PUBLIC"_s);
        QCOMPARE(outcome(setUp(), u"rights"_s).first(5), u"given"_s);
    }

    void rolesWithRightsKeepConnecting()
    {
        test::run(session(u"postgres"_s), u"CREATE DATABASE tarnhold TEMPLATE template0"_s);
        QCOMPARE(m_server.runFile(u"tarnhold"_s, test::schemaFile(u"tarn.sql"_s)), QString());
        test::run(session(), u"CREATE ROLE \"my panel\" LOGIN; GRANT USAGE ON SCHEMA tarn TO \"my panel\""_s);
        QCOMPARE(outcome(setUp(), u"rights"_s).first(5), u"given"_s);
        QVERIFY(session(u"tarnhold"_s, u"my panel"_s).isOpen());
    }

    void theOwnersRightsAreLeftAlone()
    {
        test::run(session(u"postgres"_s), u"CREATE ROLE \"tarn-collect\" LOGIN"_s);
        test::run(session(u"postgres"_s),
                  u"CREATE DATABASE tarnhold OWNER \"tarn-collect\" TEMPLATE template0"_s);
        QCOMPARE(
            m_server.runFile(u"tarnhold"_s, test::schemaFile(u"tarn.sql"_s), {u"-U"_s, u"tarn-collect"_s}),
            QString());
        QCOMPARE(outcome(setUp(), u"rights"_s), u"left alone: role tarn-collect owns the schema"_s);
    }

    // Settings and options

    void databaseOfTheSettings()
    {
        const QString file =
            settings("[google]\nname=wrong\n[database]\r\nname=web figures ; no comment\r\n");
        QCOMPARE(outcome(setUp({u"--settings"_s, file}), u"database web figures"_s), u"made"_s);
        QCOMPARE(outcome(setUp({u"--settings"_s, file, u"--database"_s, u"d"_s}), u"database d"_s),
                 u"made"_s);
    }

    void badOptions_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QString>("reason");
        QTest::newRow("unknown") << QStringList{u"--fast"_s} << u"status 2\nUsage:"_s;
        QTest::newRow("no-value") << QStringList{u"--database"_s} << u"status 2\nUsage:"_s;
        QTest::newRow("empty-value") << QStringList{u"--collector"_s, u""_s} << u"status 2\nUsage:"_s;
        QTest::newRow("word") << QStringList{u"tarnhold"_s} << u"status 2\nUsage:"_s;
        QTest::newRow("no-panel") << QStringList{
            u"--panel"_s,
            u"tarn_panel"_s} << u"status 1\ntarn-collect-setup: there is no role tarn_panel for the panel"_s;
        QTest::newRow("no-settings")
            << QStringList{u"--settings"_s, u"/nowhere/settings.ini"_s}
            << u"status 1\ntarn-collect-setup: there is no file /nowhere/settings.ini"_s;
    }
    void badOptions()
    {
        QFETCH(const QStringList, options);
        QFETCH(const QString, reason);
        const QString printed = setUp(options);
        QVERIFY2(printed.startsWith(reason), qPrintable(printed));
        QCOMPARE(test::value(session(u"postgres"_s), u"SELECT count(*) FROM pg_database"_s), u"3"_s);
    }

    void help() { QVERIFY(setUp({u"--help"_s}).startsWith(u"Usage: tarn-collect-setup "_s)); }

    void noServer()
    {
        m_server.stop();
        const QString printed = setUp();
        QVERIFY2(printed.startsWith(u"status 1\n"_s) && printed.contains(u"PostgreSQL cannot be reached"_s),
                 qPrintable(printed));
        QVERIFY(m_server.restart());
    }
};

QTEST_GUILESS_MAIN(tst_SetUp)
#include "tst_SetUp.moc"
