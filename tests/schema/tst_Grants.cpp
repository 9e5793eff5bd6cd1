#include "CollectorStatements.h"
#include "Probe.h"
#include "support/PostgresServer.h"

#include <QProcess>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

const auto kDenied = u"42501"_s;

/// The statements that take away one right each, of all that the role %1 has.
const auto kRevocations =
    u"SELECT format('REVOKE %s%s ON %s FROM %1', privilege_type, columns, name) "
    "FROM (SELECT a.*, '' AS columns, CASE relkind WHEN 'S' THEN 'SEQUENCE ' ELSE '' END || c.oid::regclass "
    "AS "
    "name "
    "      FROM pg_class c, aclexplode(relacl) a WHERE relnamespace = 'tarn'::regnamespace "
    "      UNION ALL SELECT a.*, format('(%I)', attname), attrelid::regclass::text "
    "      FROM pg_attribute, aclexplode(attacl) a "
    "      UNION ALL SELECT a.*, '', 'FUNCTION ' || p.oid::regprocedure "
    "      FROM pg_proc p, aclexplode(proacl) a WHERE pronamespace = 'tarn'::regnamespace "
    "      UNION ALL SELECT a.*, '', 'SCHEMA ' || nspname FROM pg_namespace, aclexplode(nspacl) a) g "
    "WHERE grantee = '%1'::regrole ORDER BY 1"_s;

/// The same in one text, with the database and memberships: what two runs of grants.sql have to leave alike.
const auto kAllRights =
    u"SELECT string_agg(line, E'\\n' ORDER BY line) FROM ("
    "SELECT concat_ws(' ', relname, attname, coalesce(attacl, relacl)) AS line FROM pg_class c "
    "LEFT JOIN pg_attribute ON attrelid = c.oid AND attacl IS NOT NULL "
    "WHERE relnamespace = 'tarn'::regnamespace "
    "UNION ALL SELECT proname || proacl::text FROM pg_proc WHERE pronamespace = 'tarn'::regnamespace "
    "UNION ALL SELECT nspname || nspacl::text FROM pg_namespace WHERE nspname = 'tarn' "
    "UNION ALL SELECT datacl::text FROM pg_database WHERE datname = current_database() "
    "UNION ALL SELECT concat_ws(' ', roleid::regrole, member::regrole) FROM pg_auth_members) lines"_s;

/// A right to a whole table becomes one to each of its columns: then each can be taken away by itself. %1 is
/// the role. The roll-up writes whole rows of its own tables.
const auto kByColumn =
    u"DO $$ DECLARE g record; BEGIN "
    "FOR g IN SELECT c.oid::regclass AS relation, a.privilege_type AS privilege, "
    "  (SELECT string_agg(quote_ident(attname), ', ') FROM pg_attribute "
    "   WHERE attrelid = c.oid AND attnum > 0 AND NOT attisdropped) AS columns "
    "  FROM pg_class c, aclexplode(relacl) a WHERE relnamespace = 'tarn'::regnamespace AND relkind = 'r' "
    "  AND relname NOT IN ('site_days', 'site_day_values', 'rollup_due') "
    "  AND a.grantee = '%1'::regrole AND a.privilege_type IN ('SELECT', 'INSERT', 'UPDATE') "
    "LOOP EXECUTE format('REVOKE %s ON %s FROM %1', g.privilege, g.relation); "
    "     EXECUTE format('GRANT %s (%s) ON %s TO %1', g.privilege, g.columns, g.relation); "
    "END LOOP; END $$"_s;

} // namespace

class tst_Grants : public QObject
{
    Q_OBJECT

private:
    static QSqlDatabase session() { return QSqlDatabase::database(u"session"_s); }

    static QString scalar(const QString& statement) { return test::value(session(), statement); }
    static void run(const QString& statement) { test::run(session(), statement); }

    /// As the collector does: what binds nothing is sent as it stands.
    static bool execute(QSqlQuery& query, const test::Statement& statement)
    {
        if (statement.values.isEmpty())
            return query.exec(statement.text);
        query.prepare(statement.text);
        for (const QVariant& bound : statement.values)
            query.addBindValue(bound);
        return query.exec();
    }

    /// What the statements find: a site, its log and an account, all of id 1 or named alice.
    static void fill()
    {
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        run(u"INSERT INTO tarn.log_sources (id, site_id, path) VALUES (1, 1, '/var/log/apache2/access.log')"_s);
        run(u"INSERT INTO tarn.accounts (username, domain) VALUES ('alice', 'alice.example')"_s);
        run(u"SELECT setval('tarn.sites_id_seq', 1), setval('tarn.log_sources_id_seq', 1)"_s);
    }

    QString grant(const QStringList& roles = {u"collector=tarn_collect"_s, u"panel=tarn_panel"_s,
                                              u"reader=tarn_reader"_s}) const
    {
        QStringList options;
        for (const QString& role : roles)
            options << u"-v"_s << role;
        return m_server.runFile(session().databaseName(), test::schemaFile(u"grants.sql"_s), options);
    }

    QSqlDatabase sessionOf(const QString& role) const
    {
        return m_server.connect(session().databaseName(), u"other"_s, role);
    }

    /// Those of @p statements that the role may run.
    QStringList allowed(const QString& role, const QStringList& statements) const
    {
        const QSqlDatabase limited = sessionOf(role);
        QStringList found;
        for (const QString& statement : statements) {
            if (test::errorOf(limited, statement) != kDenied)
                found.append(statement);
        }
        return found;
    }

    /// Names of the statements that the role cannot run, with the server's reasons.
    template <typename Statements>
    QString refused(const QString& role, const Statements& statements) const
    {
        const QSqlDatabase limited = sessionOf(role);
        QStringList found;
        for (const test::Statement& statement : statements) {
            QSqlQuery query(limited);
            if (!execute(query, statement))
                found.append(QLatin1StringView(statement.name) + u": "_s + query.lastError().text());
        }
        return found.join(u'\n');
    }

    /// Whether a statement of the collector is denied after @p revocation, which is undone.
    static bool isMissed(const QString& revocation)
    {
        QSqlDatabase database = session();
        database.transaction();
        run(revocation);
        run(u"SET LOCAL ROLE tarn_collect"_s);
        for (const test::Statement& statement : test::kStatements) {
            QSqlQuery query(database);
            if (execute(query, statement))
                continue;
            const QString code = query.lastError().nativeErrorCode();
            database.rollback(); // before the query goes: a prepared one sends a statement then
            return code == kDenied;
        }
        database.rollback();
        return false;
    }

    QString dump(const QString& role) const
    {
        QProcess program;
        program.setProcessChannelMode(QProcess::MergedChannels);
        program.start(u"pg_dump"_s, {u"-h"_s, m_server.socketFolder(), u"-U"_s, role, u"-n"_s, u"tarn"_s,
                                     session().databaseName()});
        program.waitForFinished();
        return QString::fromUtf8(program.readAll());
    }

    test::PostgresServer m_server;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        const QSqlDatabase admin = m_server.connect(u"postgres"_s, u"admin"_s);
        for (const QString& role :
             {u"tarn_collect"_s, u"tarn_panel"_s, u"tarn_reader"_s, u"stranger"_s, u"owner"_s})
            test::run(admin, u"CREATE ROLE %1 LOGIN"_s.arg(role));
        // A database of an account, which nobody else may connect to.
        test::run(admin, u"CREATE DATABASE alice"_s);
        test::run(admin, u"REVOKE CONNECT ON DATABASE alice FROM PUBLIC"_s);
    }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_server.connect(m_server.createDatabase(), u"session"_s).isOpen());
    }

    void cleanup()
    {
        run(u"DROP OWNED BY tarn_collect, tarn_panel, tarn_reader, stranger"_s);
        QSqlDatabase::removeDatabase(u"other"_s);
        QSqlDatabase::removeDatabase(u"session"_s);
    }

    void cleanupTestCase() { QSqlDatabase::removeDatabase(u"admin"_s); }

    // The collector

    void collectorCanRunEachOfItsStatements()
    {
        fill();
        QCOMPARE(grant(), QString());
        QCOMPARE(refused(u"tarn_collect"_s, test::kStatements), QString());
        QCOMPARE(scalar(u"SELECT message FROM tarn.alerts WHERE closed_at IS NOT NULL"_s),
                 u"Memory 95% used"_s);
        QCOMPARE(scalar(u"SELECT hits FROM tarn.site_days"_s), u"1"_s);
        QCOMPARE(scalar(u"SELECT string_agg(concat_ws(' ', query, page, country, device, clicks), ', ' "
                        "ORDER BY clicks) FROM tarn.search_rows"_s),
                 u"mountain lake / DE mobile 3, 4"_s);
        QCOMPARE(scalar(u"SELECT read_offset FROM tarn.log_sources"_s), u"8192"_s);
        QCOMPARE(scalar(u"SELECT disk_used_bytes FROM tarn.accounts"_s), u"1000000"_s);
        QCOMPARE(scalar(u"SELECT samples FROM tarn.host_days"_s), u"1"_s);
        QCOMPARE(scalar(u"SELECT disk_used_bytes FROM tarn.account_days"_s), u"1000000"_s);
    }

    void eachRightOfTheCollectorIsNeeded()
    {
        fill();
        QCOMPARE(grant(), QString());
        run(kByColumn.arg(u"tarn_collect"_s));
        QVERIFY(!isMissed(u"SELECT"_s));

        QStringList spare;
        int rights = 0;
        QSqlQuery right(kRevocations.arg(u"tarn_collect"_s), session());
        while (right.next()) {
            ++rights;
            if (!isMissed(right.value(0).toString()))
                spare.append(right.value(0).toString());
        }
        QVERIFY2(rights > 100, qPrintable(QString::number(rights)));
        QVERIFY2(spare.isEmpty(), qPrintable(spare.join(u'\n')));
        QVERIFY(isMissed(u"REVOKE pg_read_all_stats FROM tarn_collect"_s));
    }

    void grantedRoleSeesClientsAndSizesOfOthers()
    {
        QCOMPARE(grant(), QString());
        QSqlDatabase limited = sessionOf(u"tarn_collect"_s);
        // The tests' own session is another role's.
        QVERIFY(test::value(limited, u"SELECT count(*) FROM pg_stat_activity "
                                     "WHERE backend_type = 'client backend' AND usename = 'postgres'"_s)
                    .toInt()
                >= 1);
        QVERIFY(test::value(limited, u"SELECT pg_database_size('alice')"_s).toLongLong() > 0);
    }

    void collectorCanDoNothingBeyond()
    {
        QCOMPARE(grant(), QString());
        QCOMPARE(allowed(u"tarn_collect"_s,
                         {
                             u"CREATE TABLE tarn.t ()"_s,
                             u"CREATE TEMPORARY TABLE t ()"_s,
                             u"DROP TABLE tarn.hits"_s,
                             u"INSERT INTO tarn.sites (host) VALUES ('example.net')"_s,
                             u"SELECT tarn.add_site('example.net', '/a.log')"_s,
                             u"UPDATE tarn.hits SET path = '/'"_s,
                             u"SELECT ip FROM tarn.hits"_s,
                             u"SELECT referrer FROM tarn.hits"_s,
                             u"TRUNCATE tarn.hits"_s,
                             u"UPDATE tarn.log_sources SET path = '/etc/shadow'"_s,
                             u"UPDATE tarn.schema_migrations SET version = 12"_s,
                             u"DELETE FROM tarn.settings"_s,
                             u"UPDATE tarn.accounts SET disk_limit_mb = 0"_s,
                             u"UPDATE tarn.engine_accounts SET refresh_token = ''"_s,
                             u"DELETE FROM tarn.engine_accounts"_s,
                             u"DELETE FROM tarn.site_days"_s,
                             u"DELETE FROM tarn.host_days"_s,
                             u"DELETE FROM tarn.account_days"_s,
                             u"DELETE FROM tarn.alerts"_s,
                             u"SELECT message FROM tarn.search_rows, pg_read_file('/etc/passwd') message"_s,
                         }),
                 QStringList());
    }

    // The panel

    void panelCanRunEachOfItsStatements()
    {
        fill();
        QCOMPARE(grant(), QString());
        QCOMPARE(refused(u"tarn_panel"_s, test::kConnectionStatements), QString());
        const QSqlDatabase panel = sessionOf(u"tarn_panel"_s);
        for (const QString& statement : {
                 u"INSERT INTO tarn.sites (host) VALUES ('example.net')"_s,
                 u"UPDATE tarn.sites SET host = 'www.example.net' WHERE host = 'example.net'"_s,
                 u"INSERT INTO tarn.log_sources (site_id, path) SELECT id, '/a.log' FROM tarn.sites"_s,
                 u"UPDATE tarn.log_sources SET path = '/b.log', inode = NULL WHERE site_id <> 1"_s,
                 u"DELETE FROM tarn.sites WHERE host = 'www.example.net'"_s,
                 u"DELETE FROM tarn.log_sources WHERE path = '/a.log'"_s,
                 u"SELECT tarn.add_site('Example.com', '/c.log')"_s,
                 u"SELECT tarn.add_site('example.com', '/d.log')"_s,
                 u"INSERT INTO tarn.settings VALUES ('raw_hit_days', '90') "
                 "ON CONFLICT (key) DO UPDATE SET value = excluded.value"_s,
                 u"UPDATE tarn.settings SET value = '30' WHERE key = 'raw_hit_days'"_s,
                 u"DELETE FROM tarn.settings WHERE key = 'raw_hit_days'"_s,
                 u"UPDATE tarn.accounts SET disk_limit_mb = 5, db_limit_mb = 6 WHERE username = 'alice'"_s,
                 u"NOTIFY tarn_usage"_s,
             })
            QCOMPARE(statement + test::errorOf(panel, statement), statement);
        QCOMPARE(scalar(u"SELECT string_agg(path, ' ' ORDER BY id) FROM tarn.log_sources"_s),
                 u"/var/log/apache2/access.log /c.log /d.log"_s);
        QCOMPARE(scalar(u"SELECT disk_limit_mb FROM tarn.accounts"_s), u"5"_s);
    }

    void panelReadsEveryTable()
    {
        QCOMPARE(grant(), QString());
        const QSqlDatabase panel = sessionOf(u"tarn_panel"_s);
        QSqlQuery table(u"SELECT oid::regclass FROM pg_class WHERE relnamespace = 'tarn'::regnamespace "
                        "AND relkind IN ('r', 'v')"_s,
                        session());
        QVERIFY(table.size() > 15);
        while (table.next()) {
            const QString statement = u"SELECT * FROM "_s + table.value(0).toString();
            QCOMPARE(statement + test::errorOf(panel, statement), statement);
        }
    }

    void panelCanDoNothingBeyond()
    {
        QCOMPARE(grant(), QString());
        QCOMPARE(allowed(u"tarn_panel"_s,
                         {
                             u"CREATE TABLE tarn.t ()"_s,
                             u"CREATE TEMPORARY TABLE t ()"_s,
                             u"INSERT INTO tarn.hits (site_id, at) VALUES (1, now())"_s,
                             u"DELETE FROM tarn.hits"_s,
                             u"SELECT tarn.rollup_day(1, '2024-05-05')"_s,
                             u"UPDATE tarn.log_sources SET read_offset = 0"_s,
                             u"UPDATE tarn.site_days SET hits = 0"_s,
                             u"UPDATE tarn.host_days SET samples = 0"_s,
                             u"UPDATE tarn.accounts SET db_readonly = false"_s,
                             u"UPDATE tarn.accounts SET username = 'bob'"_s,
                             u"INSERT INTO tarn.accounts (username, domain) VALUES ('bob', 'b.example')"_s,
                             u"UPDATE tarn.schema_migrations SET version = 12"_s,
                             u"TRUNCATE tarn.settings"_s,
                             u"SELECT pg_database_size('alice')"_s,
                         }),
                 QStringList());
    }

    // The reader

    void readerSeesFigures()
    {
        fill();
        run(u"INSERT INTO tarn.engine_accounts (engine, refresh_token) VALUES ('google', 'token')"_s);
        QCOMPARE(grant(), QString());
        const QSqlDatabase reader = sessionOf(u"tarn_reader"_s);
        for (const QString& table :
             {u"schema_migrations"_s, u"sites"_s, u"log_sources"_s, u"rollup_due"_s, u"site_days"_s,
              u"site_day_values"_s, u"live_visitors"_s, u"collector_state"_s, u"country_codes"_s,
              u"search_properties"_s, u"search_days"_s, u"search_rows"_s, u"host_samples"_s, u"host_days"_s,
              u"alerts"_s, u"accounts"_s, u"account_days"_s, u"settings"_s})
            QCOMPARE(table + test::errorOf(reader, u"SELECT * FROM tarn."_s + table), table);
        QCOMPARE(test::value(reader,
                             u"SELECT concat_ws(' ', engine, account_email, last_sync_at, last_result) "
                             "FROM tarn.engine_accounts WHERE connected_at <= now()"_s),
                 u"google"_s);
    }

    void readerSeesNoVisitorAndSetsNothing()
    {
        QCOMPARE(grant(), QString());
        QCOMPARE(allowed(u"tarn_reader"_s,
                         {
                             u"SELECT count(*) FROM tarn.hits"_s,
                             u"SELECT ip FROM tarn.hits"_s,
                             u"SELECT * FROM tarn.hits_of_day(1, '2024-05-05')"_s,
                             u"SELECT tarn.add_site('example.net', '/a.log')"_s,
                             u"SELECT refresh_token FROM tarn.engine_accounts"_s,
                             u"SELECT * FROM tarn.engine_accounts"_s,
                             u"SELECT * FROM tarn.geo_country"_s,
                             u"INSERT INTO tarn.settings VALUES ('raw_hit_days', '1')"_s,
                             u"UPDATE tarn.settings SET value = '1'"_s,
                             u"DELETE FROM tarn.site_days"_s,
                             u"UPDATE tarn.alerts SET closed_at = now()"_s,
                             u"SELECT nextval('tarn.session_seq')"_s,
                             u"CREATE TEMPORARY TABLE t ()"_s,
                         }),
                 QStringList());
    }

    void liveVisitorsAreOnlyCounted()
    {
        QCOMPARE(grant(), QString());
        // 20 seconds for a busy machine to get from here to the answer.
        run(u"INSERT INTO tarn.hits (site_id, at, method, status, is_page, visitor, bot, engaged_secs) "
            "SELECT site, now() - since::interval, method, status, page, visitor::bytea, bot, secs FROM "
            "(VALUES "
            "(1, '0 s', 'GET', 200, true, 'a', NULL, NULL), (1, '280 s', 'GET', 304, true, 'b', NULL, NULL), "
            "(1, '1 s', 'GET', 299, true, 'a', NULL, NULL), (1, '5 s', 'BEACON', 204, false, 'c', NULL, "
            "3.5), "
            "(1, '301 s', 'GET', 200, true, 'd', NULL, NULL), (1, '-60 s', 'GET', 200, true, 'e', NULL, "
            "NULL), "
            "(1, '1 s', 'HEAD', 200, true, 'f', NULL, NULL), (1, '1 s', 'GET', 200, false, 'g', NULL, NULL), "
            "(1, '1 s', 'GET', 404, true, 'h', NULL, NULL), (1, '1 s', 'GET', 200, true, 'i', 'Bot', NULL), "
            "(1, '1 s', 'BEACON', 200, false, 'j', NULL, NULL), (2, '1 s', 'GET', 200, true, 'a', NULL, "
            "NULL)) "
            "h (site, since, method, status, page, visitor, bot, secs)"_s);
        QCOMPARE(test::value(sessionOf(u"tarn_reader"_s),
                             u"SELECT string_agg(concat_ws(' ', site_id, visitors), ', ' ORDER BY site_id) "
                             "FROM tarn.live_visitors"_s),
                 u"1 3, 2 1"_s);
    }

    // The database

    void strangersDoNotConnect()
    {
        QVERIFY(sessionOf(u"stranger"_s).isOpen());
        QCOMPARE(grant({u"collector=tarn_collect"_s}), QString());
        QVERIFY(!sessionOf(u"stranger"_s).isOpen());
        QVERIFY(!sessionOf(u"tarn_panel"_s).isOpen());
        QVERIFY(sessionOf(u"tarn_collect"_s).isOpen());
    }

    void ownerOfTheSchemaStillConnects()
    {
        const QString database = m_server.createEmptyDatabase();
        QVERIFY(m_server.connect(database, u"session"_s).isOpen());
        run(u"CREATE SCHEMA tarn AUTHORIZATION owner"_s);
        QCOMPARE(m_server.runFile(database, test::schemaFile(u"tarn.sql"_s), {u"-U"_s, u"owner"_s}),
                 QString());
        const QString secret = scalar(u"SELECT value FROM tarn.settings WHERE key = 'visitor_secret'"_s);
        QCOMPARE(grant(), QString());

        const QSqlDatabase owner = sessionOf(u"owner"_s);
        QVERIFY(owner.isOpen());
        QCOMPARE(test::value(owner, u"SELECT value FROM tarn.settings WHERE key = 'visitor_secret'"_s),
                 secret);
        QVERIFY(dump(u"owner"_s).contains(secret));
        QCOMPARE(m_server.runFile(database, test::schemaFile(u"functions.sql"_s), {u"-U"_s, u"owner"_s}),
                 QString());
        test::run(owner, u"UPDATE tarn.settings SET value = 'new' WHERE key = 'visitor_secret'"_s);
        QCOMPARE(scalar(u"SELECT value FROM tarn.settings WHERE key = 'visitor_secret'"_s), u"new"_s);
        // The view reads with the rights of a role that owns the table, not with a superuser's.
        QCOMPARE(test::errorOf(sessionOf(u"tarn_reader"_s), u"SELECT * FROM tarn.live_visitors"_s),
                 QString());
    }

    // Running it

    void runningItAgainChangesNothing()
    {
        QCOMPARE(grant(), QString());
        const QString first = scalar(kAllRights);
        QCOMPARE(grant(), QString());
        QCOMPARE(scalar(kAllRights), first);
    }

    void earlierRightsAreTakenAway()
    {
        QCOMPARE(grant(), QString());
        const QString right = scalar(kAllRights);
        run(u"GRANT UPDATE, TRUNCATE ON tarn.hits TO tarn_panel"_s);
        run(u"GRANT SELECT (ip) ON tarn.hits TO tarn_reader"_s);
        run(u"GRANT INSERT (refresh_token) ON tarn.engine_accounts TO tarn_collect"_s);
        run(u"GRANT ALL ON SEQUENCE tarn.session_seq TO tarn_reader"_s);
        run(u"GRANT EXECUTE ON FUNCTION tarn.rollup_day(integer, date) TO tarn_reader"_s);
        run(u"GRANT CREATE ON SCHEMA tarn TO tarn_collect"_s);
        run(u"GRANT TEMPORARY ON DATABASE %1 TO tarn_panel"_s.arg(session().databaseName()));
        run(u"GRANT pg_read_all_stats TO tarn_reader"_s);
        QVERIFY(scalar(kAllRights) != right);
        QCOMPARE(grant(), QString());
        QCOMPARE(scalar(kAllRights), right);
    }

    void rolesThatAreNotNamedAreLeftAlone()
    {
        QCOMPARE(grant(), QString());
        const QString all = scalar(kAllRights);
        for (const QString& role :
             {u"collector=tarn_collect"_s, u"panel=tarn_panel"_s, u"reader=tarn_reader"_s})
            QCOMPARE(grant({role}), QString());
        QCOMPARE(scalar(kAllRights), all);
    }

    void rolesThatCannotBe_data()
    {
        QTest::addColumn<QStringList>("roles");
        QTest::addColumn<QString>("reason");
        QTest::newRow("none") << QStringList() << u"no role was named"_s;
        QTest::newRow("empty") << QStringList{u"collector="_s, u"reader="_s} << u"no role was named"_s;
        QTest::newRow("unknown") << QStringList{u"reader=nobody"_s} << u"role \"nobody\" does not exist"_s;
        QTest::newRow("owner") << QStringList{u"collector=tarn_collect"_s, u"panel=postgres"_s}
                               << u"role \"postgres\" owns schema tarn"_s;
    }
    void rolesThatCannotBe()
    {
        QFETCH(const QStringList, roles);
        QFETCH(const QString, reason);
        const QString before = scalar(kAllRights);
        const QString errors = grant(roles);
        QVERIFY2(errors.contains(reason), qPrintable(errors));
        QCOMPARE(scalar(kAllRights), before);
    }
};

QTEST_GUILESS_MAIN(tst_Grants)
#include "tst_Grants.moc"
