#include "analytics/SearchImportTest.h"
#include "common/Db.h"
#include "support/Messages.h"

#include <QSqlDatabase>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

/// Documents and databases with which nothing is stored.
class tst_SearchImportFailures : public SearchImportTest
{
    Q_OBJECT

private:
    static void expectSqlWarning(const QString& text)
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: .*"_s + text));
    }
    static void expectSpoilt() { expectSqlWarning(u"current transaction is aborted"_s); }

    void failsToStore(const QJsonObject& document)
    {
        QCOMPARE(import(document), u"database error while storing"_s);
        QVERIFY(!m_ok);
    }

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void badDay_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("inTheTotals");
        const QByteArray good = "{\"totals\":[{\"keys\":[\"2024-10-10\"]}],\"rows\":[{\"keys\":[";
        QTest::newRow("totals-no-keys") << QByteArray("{\"totals\":[{\"clicks\":1}]}") << true;
        QTest::newRow("totals-no-object") << QByteArray("{\"totals\":[1]}") << true;
        QTest::newRow("totals-number") << QByteArray("{\"totals\":[{\"keys\":[20241010.5]}]}") << true;
        QTest::newRow("totals-empty") << QByteArray("{\"totals\":[{\"keys\":[\"\"]}]}") << true;
        QTest::newRow("totals-no-such-day")
            << QByteArray("{\"totals\":[{\"keys\":[\"2023-02-29\"]}]}") << true;
        QTest::newRow("totals-far-future")
            << QByteArray("{\"totals\":[{\"keys\":[\"9999999-01-01\"]}]}") << true;
        QTest::newRow("row-no-such-day") << good + "\"2023-02-29\"]}]}" << false;
        QTest::newRow("row-empty") << good + "\"\"]}]}" << false;
        QTest::newRow("row-no-object")
            << QByteArray("{\"totals\":[{\"keys\":[\"2024-10-10\"]}],\"rows\":[7]}") << false;
    }
    void badDay()
    {
        QFETCH(const QByteArray, json);
        QFETCH(const bool, inTheTotals);
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        expectSqlWarning(u"(invalid input syntax for type date|out of range)"_s);
        // The deletion was the first to fail; what comes behind it is told as well.
        if (inTheTotals) {
            expectSpoilt();
            expectSpoilt();
        }
        failsToStore(parsed(json));
        QCOMPARE(days(), u"1 google 2024-10-10 1 10 2.5"_s);
        QCOMPARE(rows(), u"1 google 2024-10-10 red shoes /shoes DE mobile 1 10 2.5"_s);
    }

    void aDayTwiceRollsBack()
    {
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        expectSqlWarning(u"duplicate key"_s);
        failsToStore(document({row({u"2024-10-10"_s}, 5), row({u"2024-10-10"_s}, 6)}, {}));
        QCOMPARE(days(), u"1 google 2024-10-10 1 10 2.5"_s);
        QCOMPARE(rows(), u"1 google 2024-10-10 red shoes /shoes DE mobile 1 10 2.5"_s);
    }

    void refusedBatchRollsBack_data()
    {
        QTest::addColumn<int>("bad"); // which of 1201 rows
        QTest::newRow("first-batch") << 0;
        QTest::newRow("second-batch") << 999;
        QTest::newRow("last-batch") << 1200;
    }
    void refusedBatchRollsBack()
    {
        QFETCH(const int, bad);
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        QJsonArray rows;
        for (int i = 0; i < 1201; ++i)
            rows.append(detail(i == bad ? u"soon"_s : u"2024-10-10"_s));
        expectSqlWarning(u"invalid input syntax for type date: \"soon\""_s);
        failsToStore(document({row({u"2024-10-10"_s}, 5)}, rows));
        QCOMPARE(days(), u"1 google 2024-10-10 1 10 2.5"_s);
        QCOMPARE(column(u"count(*)"_s), u"1"_s);
    }

    void missingTable_data()
    {
        QTest::addColumn<QString>("table");
        QTest::addColumn<int>("spoilt"); // statements behind the first that fails
        QTest::newRow("days") << u"search_days"_s << 2;
        QTest::newRow("rows") << u"search_rows"_s << 1;
        QTest::newRow("countries") << u"country_codes"_s << 0;
    }
    void missingTable()
    {
        QFETCH(const QString, table);
        QFETCH(const int, spoilt);
        run(u"ALTER TABLE tarn.%1 RENAME TO away"_s.arg(table));
        expectSqlWarning(u"relation \"tarn.%1\" does not exist"_s.arg(table));
        for (int i = 0; i < spoilt; ++i)
            expectSpoilt();
        failsToStore(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        run(u"ALTER TABLE tarn.away RENAME TO %1"_s.arg(table));
        QCOMPARE(days(), u"NULL"_s);
        QCOMPARE(rows(), u"NULL"_s);
    }

    void refusedCommitIsNoSuccess()
    {
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        run(u"CREATE FUNCTION public.refuse() RETURNS trigger LANGUAGE plpgsql AS "
            "'BEGIN RAISE ''not today''; END'"_s);
        run(u"CREATE CONSTRAINT TRIGGER refuse AFTER INSERT ON tarn.search_rows DEFERRABLE INITIALLY "
            u"DEFERRED "
            "FOR EACH ROW EXECUTE FUNCTION public.refuse()"_s);
        expectSqlWarning(u"not today"_s);
        failsToStore(document({row({u"2024-10-10"_s}, 5)}, {detail(u"2024-10-10"_s)}));
        QCOMPARE(days(), u"1 google 2024-10-10 1 10 2.5"_s);
        QCOMPARE(rows(), u"1 google 2024-10-10 red shoes /shoes DE mobile 1 10 2.5"_s);
        // The next import stands on its own again.
        QCOMPARE(import(document({row({u"2024-10-11"_s})}, {})),
                 u"1 days (2024-10-11 to 2024-10-11), 0 detail rows"_s);
        QVERIFY(m_ok);
    }

    void withoutATransactionNothingIsDeleted()
    {
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        db::session().close();
        QTest::ignoreMessage(QtWarningMsg, "QPSQLDriver::beginTransaction: Database not open");
        expectSqlWarning(u""_s);
        failsToStore(document({row({u"2024-10-10"_s}, 5)}, {}));
        QCOMPARE(test::value(m_session.other(), u"SELECT clicks FROM tarn.search_days"_s), u"1"_s);
    }

    void lostSessionIsNoSuccess()
    {
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        const QSqlDatabase other = m_session.other();
        test::ProductSession::endBackend(other);
        QString message;
        const QStringList messages =
            test::messagesOf([&] { message = import(document({row({u"2024-10-10"_s}, 5)}, {})); });
        QCOMPARE(message, u"database error while storing"_s);
        QVERIFY(!m_ok);
        // The driver's own remarks come as well, but none for each statement.
        QCOMPARE(messages.filter(u"sql: "_s).size(), 1);
        QVERIFY2(messages.size() <= 4, qPrintable(messages.join(u" | "_s)));
        QCOMPARE(test::value(other, u"SELECT clicks FROM tarn.search_days"_s), u"1"_s);
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
    }

    void sessionLostAtTheDeletionsCostsOneLine()
    {
        import(document({row({u"2024-10-10"_s})}, {detail(u"2024-10-10"_s)}));
        run(u"CREATE FUNCTION die() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
            "PERFORM pg_terminate_backend(pg_backend_pid()); RETURN OLD; END $$"_s);
        run(u"CREATE TRIGGER die BEFORE DELETE ON tarn.search_days FOR EACH ROW EXECUTE FUNCTION die()"_s);
        QString message;
        const QStringList messages =
            test::messagesOf([&] { message = import(document({row({u"2024-10-10"_s}, 5)}, {})); });
        QCOMPARE(message, u"database error while storing"_s);
        QCOMPARE(messages.filter(u"sql: "_s).size(), 1);
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
    }
};

QTEST_GUILESS_MAIN(tst_SearchImportFailures)
#include "tst_SearchImportFailures.moc"
