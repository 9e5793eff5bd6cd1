#include "Probe.h"
#include "analytics/HitTransaction.h"
#include "support/PostgresServer.h"

#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

/// What the schema holds, as a checksum: relations, functions, constraints and every row that loading makes.
const auto kEverything =
    u"SELECT md5(string_agg(part, ' ' ORDER BY part)) FROM ("
    "SELECT oid::text || relname AS part FROM pg_class WHERE relnamespace = 'tarn'::regnamespace "
    "UNION ALL SELECT oid::text || proname || prosrc FROM pg_proc "
    "WHERE pronamespace = 'tarn'::regnamespace "
    "UNION ALL SELECT oid::text || conname FROM pg_constraint "
    "WHERE connamespace = 'tarn'::regnamespace "
    "UNION ALL SELECT key || value FROM tarn.settings "
    "UNION ALL SELECT alpha3 || alpha2 FROM tarn.country_codes "
    "UNION ALL SELECT version || ' ' || applied_at FROM tarn.schema_migrations "
    "UNION ALL SELECT id || host FROM tarn.sites) parts"_s;

} // namespace

class tst_Schema : public QObject
{
    Q_OBJECT

private:
    static QSqlDatabase session() { return QSqlDatabase::database(u"session"_s); }

    static QString scalar(const QString& statement) { return test::value(session(), statement); }
    static void run(const QString& statement) { test::run(session(), statement); }

    static void makeRole(const QString& role)
    {
        run(u"DO $$ BEGIN CREATE ROLE %1 LOGIN; EXCEPTION WHEN duplicate_object THEN NULL; END $$"_s.arg(
            role));
    }

    test::PostgresServer m_server;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_server.connect(m_server.createDatabase(), u"session"_s).isOpen());
    }

    void cleanup()
    {
        QSqlDatabase::removeDatabase(u"other"_s);
        QSqlDatabase::removeDatabase(u"session"_s);
    }

    // Loading

    void secondLoadIsRefusedAndChangesNothing_data()
    {
        QTest::addColumn<bool>("stopsAtError");
        QTest::newRow("stop-at-first-error") << true;
        QTest::newRow("carry-on-after-errors") << false;
    }

    void secondLoadIsRefusedAndChangesNothing()
    {
        QFETCH(const bool, stopsAtError);
        const QString database = m_server.createEmptyDatabase();
        QCOMPARE(m_server.runFile(database, test::schemaFile(u"tarn.sql"_s)), QString());
        QVERIFY(m_server.connect(database, u"session"_s).isOpen());
        run(u"INSERT INTO tarn.sites (host) VALUES ('example.org')"_s);
        const QString before = scalar(kEverything);

        const QString stop = u"ON_ERROR_STOP=%1"_s.arg(stopsAtError ? 1 : 0);
        const QString errors = m_server.runFile(database, test::schemaFile(u"tarn.sql"_s), {u"-v"_s, stop});

        // psql that carries on exits as if all were well; the transaction is rolled back all the same.
        const QString reason =
            u"schema tarn already exists in database \"%1\"; nothing was changed"_s.arg(database);
        QCOMPARE(errors.contains(reason), stopsAtError);
        QCOMPARE(scalar(kEverything), before);
    }

    void emptySchemaIsFilledByItsOwner()
    {
        const QString database = m_server.createEmptyDatabase();
        QVERIFY(m_server.connect(database, u"session"_s).isOpen());
        makeRole(u"owner"_s);
        run(u"CREATE SCHEMA tarn AUTHORIZATION owner"_s);
        QCOMPARE(m_server.runFile(database, test::schemaFile(u"tarn.sql"_s), {u"-U"_s, u"owner"_s}),
                 QString());
        QCOMPARE(scalar(u"SELECT max(version) FROM tarn.schema_migrations"_s), u"11"_s);
    }

    void otherEncodingIsRefused()
    {
        const QString database = m_server.createEmptyDatabase();
        run(u"DROP DATABASE %1"_s.arg(database));
        run(u"CREATE DATABASE %1 TEMPLATE template0 ENCODING 'LATIN1' LC_COLLATE 'C' LC_CTYPE 'C'"_s.arg(
            database));

        const QString errors = m_server.runFile(database, test::schemaFile(u"tarn.sql"_s));

        QVERIFY2(errors.contains(u"has the encoding LATIN1; tarn-collect needs UTF8"_s), qPrintable(errors));
        QVERIFY(m_server.connect(database, u"session"_s).isOpen());
        QCOMPARE(scalar(u"SELECT to_regnamespace('tarn') IS NULL"_s), u"true"_s);
    }

    void versionIsTheOneTheCollectorWants()
    {
        QCOMPARE(scalar(u"SELECT string_agg(version::text, ' ') FROM tarn.schema_migrations"_s), u"11"_s);
    }

    void everyTableSaysWhatItIsFor()
    {
        const auto tables = [](const QString& condition) {
            return scalar(
                u"SELECT coalesce(string_agg(relname, ' ' ORDER BY relname), '') FROM pg_class "
                "WHERE relnamespace = 'tarn'::regnamespace AND relkind = 'r' AND %1"_s.arg(condition));
        };
        QCOMPARE(
            tables(u"true"_s),
            u"account_days accounts alerts country_codes engine_accounts geo_country hits host_days "
            u"host_samples log_sources "
            "rollup_due schema_migrations search_days search_properties search_rows settings site_day_values "
            "site_days sites"_s);
        QCOMPARE(tables(u"obj_description(oid, 'pg_class') IS NULL"_s), QString());
    }

    void secretIsNewInEveryDatabase()
    {
        const auto secret = u"SELECT value FROM tarn.settings WHERE key = 'visitor_secret'"_s;
        const QString database = m_server.createEmptyDatabase();
        QCOMPARE(m_server.runFile(database, test::schemaFile(u"tarn.sql"_s)), QString());
        const QString first = scalar(secret);
        const QString second = test::value(m_server.connect(database, u"other"_s), secret);

        static const QRegularExpression digits(u"^[0-9a-f]{64}$"_s);
        QVERIFY2(digits.match(first).hasMatch(), qPrintable(first));
        QVERIFY2(digits.match(second).hasMatch(), qPrintable(second));
        QVERIFY(first != second);
    }

    void countryCodesAreComplete()
    {
        QCOMPARE(scalar(u"SELECT count(*) || ' ' || count(DISTINCT alpha2) FROM tarn.country_codes"_s),
                 u"249 249"_s);
        // Neither order nor first letters lead from one to the other.
        QCOMPARE(
            scalar(u"SELECT string_agg(alpha2, ' ' ORDER BY alpha3) FROM tarn.country_codes WHERE alpha3 IN "
                   "('abw', 'and', 'che', 'deu', 'esp', 'gbr', 'mac', 'prk', 'ssd', 'ukr', 'zwe')"_s),
            u"AW AD CH DE ES GB MO KP SS UA ZW"_s);
    }

    // What the statements of the collector rely on

    void columnOrderFitsInsertsWithoutAColumnList_data()
    {
        QTest::addColumn<QString>("insert");
        QTest::addColumn<QString>("select");
        QTest::addColumn<QString>("expected");
        QTest::newRow("settings") << u"INSERT INTO tarn.settings VALUES ('geoip_month', '2024-05')"_s
                                  << u"SELECT value FROM tarn.settings WHERE key = 'geoip_month'"_s
                                  << u"2024-05"_s;
        QTest::newRow("search-properties")
            << u"INSERT INTO tarn.search_properties VALUES (1, 'google', 'sc-domain:example.org')"_s
            << u"SELECT concat_ws(' ', site_id, engine, property) FROM tarn.search_properties"_s
            << u"1 google sc-domain:example.org"_s;
        QTest::newRow("search-days")
            << u"INSERT INTO tarn.search_days VALUES (1, 'google', '2024-05-05', 7, 70, 3.5)"_s
            << u"SELECT concat_ws(' ', site_id, engine, day, clicks, impressions, position) FROM tarn.search_days"_s
            << u"1 google 2024-05-05 7 70 3.5"_s;
        QTest::newRow("search-rows")
            << u"INSERT INTO tarn.search_rows VALUES "
               "(1, 'google', '2024-05-05', 'lake', '/', 'DE', 'mobile', 7, 70, 3.5)"_s
            << u"SELECT concat_ws(' ', site_id, engine, day, query, page, country, device, clicks, "
               u"impressions, "
               "position) FROM tarn.search_rows"_s
            << u"1 google 2024-05-05 lake / DE mobile 7 70 3.5"_s;
    }

    void columnOrderFitsInsertsWithoutAColumnList()
    {
        QFETCH(const QString, insert);
        QFETCH(const QString, select);
        QFETCH(const QString, expected);
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        run(insert);
        QCOMPARE(scalar(select), expected);
    }

    void oneAlertOfAKindAndSubjectIsOpen()
    {
        const auto open = [](const QString& kind, const QString& subject) {
            QSqlQuery query(session());
            query.exec(u"INSERT INTO tarn.alerts (kind, subject, message) VALUES ('%1', '%2', 'text') "
                       "ON CONFLICT DO NOTHING"_s.arg(kind, subject));
            return query.numRowsAffected();
        };
        QCOMPARE(open(u"disk"_s, u"/"_s), 1);
        QCOMPARE(open(u"disk"_s, u"/"_s), 0);
        QCOMPARE(open(u"disk"_s, u"/var"_s), 1);
        QCOMPARE(open(u"service"_s, u"/"_s), 1);
        run(u"UPDATE tarn.alerts SET closed_at = now() WHERE subject = '/'"_s);
        QCOMPARE(open(u"disk"_s, u"/"_s), 1);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.alerts WHERE kind = 'disk' AND subject = '/' "
                        "AND opened_at IS NOT NULL"_s),
                 u"2"_s);
    }

    void searchFiguresOfOnePathMayComeTwice()
    {
        const auto row =
            u"INSERT INTO tarn.search_rows VALUES (1, 'google', '2024-05-05', 'lake', '/', NULL, "
            "'mobile', 7, 70, 3.5)"_s;
        run(row);
        run(row);
        const auto day = u"INSERT INTO tarn.search_days VALUES (1, 'google', '2024-05-05', 7, 70, 3.5)"_s;
        run(day);
        QCOMPARE(test::errorOf(session(), day), u"23505"_s);
    }

    void countryIsFoundInOneDescent()
    {
        run(u"INSERT INTO tarn.geo_country "
            "SELECT '0.0.0.0'::inet + n * 1024, '0.0.0.0'::inet + n * 1024 + 1023, 'DE' "
            "FROM generate_series(0, 199999) n"_s);
        run(u"ANALYZE tarn.geo_country"_s);
        QString query = analytics::kCountryQuery;
        const int pages = test::pagesRead(session(), query.replace(u"?"_s, u"'7.7.7.7'"_s));
        // Three levels of the index and the row; hundreds of pages if ranges below were walked.
        QVERIFY2(pages >= 2 && pages <= 5, qPrintable(QString::number(pages)));
        QVERIFY(test::pagesOf(session(), u"tarn.geo_country"_s) > 1000);
    }

    // Roles

    void rolesWithoutGrantsHaveNothing()
    {
        makeRole(u"stranger"_s);
        const QSqlDatabase stranger = m_server.connect(session().databaseName(), u"other"_s, u"stranger"_s);
        QVERIFY(stranger.isOpen());
        QCOMPARE(test::errorOf(stranger, u"SELECT value FROM tarn.settings"_s), u"42501"_s);
        run(u"GRANT USAGE ON SCHEMA tarn TO stranger"_s);
        QCOMPARE(test::errorOf(stranger, u"SELECT value FROM tarn.settings"_s), u"42501"_s);
        QCOMPARE(test::errorOf(stranger, u"SELECT tarn.day_start('2024-05-05')"_s), u"42501"_s);
    }
};

QTEST_GUILESS_MAIN(tst_Schema)
#include "tst_Schema.moc"
