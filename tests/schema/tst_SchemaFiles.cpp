// The files of schema/ as such: how they are made, and what running one of them again does.
#include "CollectorStatements.h"
#include "Probe.h"
#include "support/PostgresServer.h"

#include <QProcess>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

class tst_SchemaFiles : public QObject
{
    Q_OBJECT

private:
    static QSqlDatabase session() { return QSqlDatabase::database(u"session"_s); }
    static QString scalar(const QString& statement) { return test::value(session(), statement); }
    static void run(const QString& statement) { test::run(session(), statement); }

    QString load(const QString& file) const
    {
        return m_server.runFile(session().databaseName(), test::schemaFile(file));
    }

    QString upgrade(const QString& database) const
    {
        return m_server.runFile(database, test::schemaFile(u"upgrades/0001-figures.sql"_s));
    }

    /// A database as it was before the upgrade, with three days of 40 hits: one of them rolled up and then
    /// bitten by retention, one marked only, one rolled up.
    QString oldDatabase()
    {
        const QString name = m_server.createEmptyDatabase();
        const QString errors =
            m_server.runFile(name, QStringLiteral(TARN_TEST_DATA "/schema/version-11-first.sql"));
        if (!errors.isEmpty())
            QTest::qFail(qPrintable(errors), __FILE__, __LINE__);
        {
            const QSqlDatabase old = m_server.connect(name, u"other"_s);
            test::run(old, u"SET TimeZone = 'UTC'"_s);
            test::run(
                old,
                analytics::kHitInsertion
                    + u"SELECT 1, date '2024-05-01' + d + interval '12:00' + interval '1 s' * n, 'GET', '/' "
                      u"|| n, "
                      "200, 1, true, '192.0.2.1', int8send(n), d * 100 + n, 'DE', 'direct', NULL, 'r', NULL, "
                      "'desktop', 'Firefox', 'Linux', NULL, NULL, 1 "
                      "FROM generate_series(0, 2) d, generate_series(1, 40) n"_s);
            test::run(old, u"SELECT tarn.rollup_day(1, '2024-05-01'), tarn.rollup_day(1, '2024-05-03')"_s);
            test::run(old, u"DELETE FROM tarn.hits WHERE at < '2024-05-01 12:00:20+00'"_s);
        }
        QSqlDatabase::removeDatabase(u"other"_s);
        return name;
    }

    /// The schema as statements; the two lines that differ from one call to the next are left out.
    QString dump(const QString& database) const
    {
        QProcess program;
        program.start(u"pg_dump"_s, {u"-h"_s, m_server.socketFolder(), u"-U"_s, u"postgres"_s,
                                     u"--schema-only"_s, database});
        if (!program.waitForFinished() || program.exitCode() != 0)
            QTest::qFail(program.readAllStandardError().constData(), __FILE__, __LINE__);
        static const QRegularExpression token(u"^\\\\(un)?restrict .*$"_s,
                                              QRegularExpression::MultilineOption);
        return QString::fromUtf8(program.readAllStandardOutput()).remove(token);
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

    void wholeFileIsWhatItsPartsMake()
    {
        QProcess script;
        script.setProcessChannelMode(QProcess::MergedChannels);
        script.start(test::schemaFile(u"../scripts/schema"_s), {u"--check"_s});
        QVERIFY2(script.waitForFinished(), qPrintable(script.errorString()));
        QVERIFY2(script.exitCode() == 0, script.readAll().constData());
    }

    void functionsAreReplacedOnALiveDatabase()
    {
        const auto function = u"SELECT prosrc || obj_description(p.oid) FROM pg_proc p "
                              "WHERE p.oid = 'tarn.rollup_day'::regproc"_s;
        const QString shipped = scalar(function);
        run(u"CREATE OR REPLACE FUNCTION tarn.rollup_day(site_id integer, day date) RETURNS void "
            "LANGUAGE sql AS 'SELECT'; COMMENT ON FUNCTION tarn.rollup_day IS 'out of date'"_s);
        QCOMPARE(scalar(function), u"SELECTout of date"_s);
        QCOMPARE(load(u"functions.sql"_s), QString());
        QCOMPARE(scalar(function), shipped);
    }

    void functionsKeepTheRightsThatWereGranted()
    {
        const auto rights = u"SELECT string_agg(oid::regprocedure || ' ' || proacl::text, ', ' ORDER BY oid) "
                            "FROM pg_proc WHERE pronamespace = 'tarn'::regnamespace"_s;
        run(u"GRANT EXECUTE ON FUNCTION tarn.day_start(date) TO pg_monitor"_s);
        const QString before = scalar(rights);
        QVERIFY2(before.contains(u"pg_monitor=X"_s), qPrintable(before));
        QCOMPARE(load(u"functions.sql"_s), QString());
        QCOMPARE(scalar(rights), before);
    }

    void functionsGiveUpWholeWhenATableIsHeld()
    {
        const auto comment =
            u"SELECT coalesce(obj_description('tarn.day_start(date)'::regprocedure), 'none')"_s;
        run(u"COMMENT ON FUNCTION tarn.day_start(date) IS NULL"_s);
        QSqlDatabase other = m_server.connect(session().databaseName(), u"other"_s);
        QVERIFY(other.transaction());
        test::run(other, u"INSERT INTO tarn.hits (site_id, at) VALUES (1, '2024-05-05 12:00+00')"_s);
        const QString errors = load(u"functions.sql"_s);
        QVERIFY2(errors.contains(u"lock timeout"_s), qPrintable(errors));
        QCOMPARE(scalar(comment), u"none"_s);
        QVERIFY(other.commit());
        QCOMPARE(load(u"functions.sql"_s), QString());
        QVERIFY(scalar(comment) != u"none"_s);
    }

    // Upgrades

    void upgradedSchemaEqualsAFreshOne()
    {
        const QString fresh = dump(session().databaseName());
        const QString database = oldDatabase();
        QCOMPARE(upgrade(database), QString());
        QCOMPARE(dump(database).split(u'\n'), fresh.split(u'\n'));
        QVERIFY(upgrade(database).contains(u"this upgrade has been done"_s));
        QCOMPARE(dump(database), fresh);
    }

    void upgradeKeepsEveryRowAndFigure()
    {
        const QString database = oldDatabase();
        const QSqlDatabase old = m_server.connect(database, u"other"_s);
        const auto everyHit =
            u"SELECT md5(string_agg(concat_ws('|', site_id, at, method, path, status, bytes, is_page, ip, "
            "visitor, session_id, country, source_kind, source, referrer, search_terms, device, browser, "
            "os, bot, engaged_secs, response_us), ' ' ORDER BY site_id, at, path)) FROM tarn.hits"_s;
        const QString hits = test::value(old, everyHit);
        const auto goneDay =
            u"SELECT concat_ws(' ', hits, visitors, raw_hits) FROM tarn.site_days WHERE day = '2024-05-01'"_s;
        const QString gone = test::value(old, goneDay);

        QCOMPARE(upgrade(database), QString());
        const QSqlDatabase now = m_server.connect(database, u"other"_s);
        test::run(now, u"SET TimeZone = 'UTC'"_s);
        QCOMPARE(test::value(now, everyHit), hits);
        // The first day had lost hits to retention, the second was never rolled up, the third stood.
        QCOMPARE(test::value(now, u"SELECT string_agg(day::text, ' ' ORDER BY day) FROM tarn.rollup_due"_s),
                 u"2024-05-02 2024-05-03"_s);
        test::run(now, u"SELECT tarn.rollup_day(1, '2024-05-03'), tarn.rollup_day(1, '2024-05-02')"_s);
        QCOMPARE(test::value(now, goneDay), gone);
        QCOMPARE(test::value(
                     now,
                     u"SELECT string_agg(concat_ws(' ', hits, page_views, bounces, zone), ', ' ORDER BY day) "
                     "FROM tarn.site_days"_s),
                 u"40 40, 40 40 40 UTC, 40 40 40 UTC"_s);
        QCOMPARE(test::value(now,
                             u"SELECT string_agg(hits::text, ' ' ORDER BY day) FROM tarn.site_day_values "
                             "WHERE dimension = 'hour'"_s),
                 u"40 40"_s);
    }

    void upgradeWantsASchema()
    {
        const QString errors = upgrade(m_server.createEmptyDatabase());
        QVERIFY2(errors.contains(u"has no schema tarn"_s), qPrintable(errors));
    }
};

QTEST_GUILESS_MAIN(tst_SchemaFiles)
#include "tst_SchemaFiles.moc"
