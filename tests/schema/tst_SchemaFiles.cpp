// The files of schema/ as such: how they are made, and what running one of them again does.
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
        const auto rights = u"SELECT string_agg(proname || ' ' || proacl::text, ', ' ORDER BY proname) "
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
};

QTEST_GUILESS_MAIN(tst_SchemaFiles)
#include "tst_SchemaFiles.moc"
