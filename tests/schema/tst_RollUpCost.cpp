// What a roll-up reads and how.
#include "RollUpTest.h"

#include <QDate>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::at;
using test::Hit;

class tst_RollUpCost : public test::RollUpTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { startServer(); }
    void init() { begin(); }
    void cleanup() { end(); }

    // What a roll-up costs

    void rollUpWithoutNewHitsReadsNextToNothing()
    {
        storeMonths();
        run(u"DELETE FROM tarn.rollup_due WHERE site_id = 7"_s);
        run(u"VACUUM tarn.rollup_due"_s);
        warmUp();
        rollUp(u"2024-05-05"_s, 7);
        run(u"BEGIN"_s);
        const int pages = test::pagesRead(session(), u"SELECT tarn.rollup_day(7, '2024-05-05')"_s);
        QVERIFY2(pages >= 0 && pages <= 8, qPrintable(QString::number(pages)));
        QCOMPARE(scalar(u"SELECT seq_scan + idx_scan FROM pg_stat_xact_user_tables WHERE relname = 'hits'"_s),
                 u"0"_s);
        run(u"COMMIT"_s);

        const QString plans = plansOf(u"SELECT tarn.rollup_day(7, '2024-05-05')"_s);
        QVERIFY2(plans.contains(u"rollup_due_pkey"_s) && !plans.contains(u"tarn.hits"_s), qPrintable(plans));
    }

    void idleCallIsCheapAmongManySitesAndMarks()
    {
        run(u"INSERT INTO tarn.rollup_due SELECT n, '2024-05-05' FROM generate_series(1, 10000) n WHERE n <> 7"_s);
        run(u"INSERT INTO tarn.site_days (site_id, day, hits, page_views, visitors, sessions, bot_hits, "
            u"bytes, errors_4xx, "
            "errors_5xx, engaged_seconds, raw_hits) SELECT n, '2024-05-05', 1, 1, 1, 1, 0, 1, 0, 0, 0, 1 "
            "FROM generate_series(1, 10000) n"_s);
        rollUp(u"2024-05-05"_s, 7);
        const int pages = test::pagesRead(session(), u"SELECT tarn.rollup_day(7, '2024-05-05')"_s);
        QVERIFY2(pages >= 0 && pages <= 12, qPrintable(QString::number(pages)));
    }

    void allSitesOnOneDayAreFoundThroughAnIndex()
    {
        run(u"INSERT INTO tarn.site_days (site_id, day, hits, page_views, visitors, sessions, bot_hits, "
            u"bytes, errors_4xx, "
            "errors_5xx, engaged_seconds, raw_hits) SELECT n, date '2024-01-01' + d, 1, 1, 1, 1, 0, 1, 0, 0, "
            "0, 1 "
            "FROM generate_series(1, 100) n, generate_series(1, 300) d; ANALYZE tarn.site_days"_s);
        const QString plan =
            test::planOf(session(), u"SELECT * FROM tarn.site_days WHERE day = '2024-05-05'"_s);
        QVERIFY2(plan.contains(u"site_days_day"_s) && !plan.contains(u"Seq Scan"_s), qPrintable(plan));
    }

    void valuesAreComparedByHash_data()
    {
        QTest::addColumn<QString>("setting");
        QTest::newRow("no-statistics") << u"SELECT"_s;
        QTest::newRow("statistics-of-the-hits") << u"ANALYZE tarn.hits"_s;
        QTest::newRow("statistics") << u"ANALYZE"_s;
    }

    void valuesAreComparedByHash()
    {
        QFETCH(const QString, setting);
        run(analytics::kHitInsertion
            + u"SELECT 1 + n % 2, '2024-05-05 12:00+00', 'GET', '/page/' || n, 200, 100, true, NULL, "
              u"int8send(n), "
              "n, 'DE', 'direct', NULL, NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, NULL, 1000 "
              "FROM generate_series(1, 5000) n"_s);
        rollUp();
        run(setting);
        mark();
        const QString plans = plansOf(u"SELECT tarn.count_day(1, '2024-05-05')"_s);
        // Old values with new, new with old, and those that are kept with all. The one loop goes over
        // dimensions.
        QCOMPARE(plans.count(u"Hash Anti Join"_s), 3);
        QCOMPARE(plans.count(u"Nested Loop"_s), 1);
        QCOMPARE(plans.count(u"Join Filter"_s), 0);
    }

    void rollUpReadsItsDayThroughTheIndex_data()
    {
        QTest::addColumn<QString>("setting");
        QTest::newRow("no-statistics") << u"SELECT"_s;
        QTest::newRow("statistics") << u"ANALYZE tarn.hits"_s;
        QTest::newRow("statistics-and-dear-random-reads")
            << u"ANALYZE tarn.hits; SET random_page_cost = 400"_s;
    }

    void rollUpReadsItsDayThroughTheIndex()
    {
        QFETCH(const QString, setting);
        storeMonths();
        run(u"DELETE FROM tarn.rollup_due"_s);
        mark(u"2024-05-04"_s, 7);
        run(setting);
        const int ofTheDay =
            scalar(u"SELECT count(*) FROM tarn.hits WHERE site_id = 7 AND at::date = '2024-05-04'"_s).toInt();
        QVERIFY(ofTheDay > 40);
        warmUp();

        run(u"BEGIN"_s);
        const int pages = test::pagesRead(session(), u"SELECT tarn.rollup_day(7, '2024-05-04')"_s);

        // Read three times: the requests, the visits and the pages. Not a row of any other day.
        QCOMPARE(scalar(u"SELECT seq_scan || ' ' || idx_tup_fetch FROM pg_stat_xact_user_tables "
                        "WHERE relname = 'hits'"_s),
                 u"0 %1"_s.arg(3 * ofTheDay));
        run(u"COMMIT"_s);
        QCOMPARE(scalar(u"SELECT hits FROM tarn.site_days WHERE site_id = 7"_s), QString::number(ofTheDay));
        const int ofTheTable = test::pagesOf(session(), u"tarn.hits"_s);
        QVERIFY2(pages > 0 && pages < ofTheTable / 2, qPrintable(u"%1 of %2"_s.arg(pages).arg(ofTheTable)));

        mark(u"2024-05-04"_s, 7);
        const QString plans = plansOf(u"SELECT tarn.count_day(7, '2024-05-04')"_s);
        static const QRegularExpression byIndex(u" hits_site_at (on hits)?[^(]*\\([^)]*\\) \\(actual"_s);
        QVERIFY2(plans.count(byIndex) == 3 && !plans.contains(u"Seq Scan"_s), qPrintable(plans));
    }

    void largeDayIsReadByWorkers_data()
    {
        QTest::addColumn<int>("standing"); // hits behind the figures that stand, 0: none do
        QTest::addColumn<int>("noted");
        QTest::addColumn<bool>("byWorkers");
        QTest::newRow("new-largest-without") << 0 << 49'999 << false;
        QTest::newRow("new-smallest-with") << 0 << 50'000 << true;
        QTest::newRow("grown-largest-without") << 49'000 << 999 << false;
        QTest::newRow("grown-smallest-with") << 49'000 << 1'000 << true;
    }

    void largeDayIsReadByWorkers()
    {
        QFETCH(const int, standing);
        QFETCH(const int, noted);
        QFETCH(const bool, byWorkers);
        storeMonths();
        rollUp(u"2024-05-04"_s, 1);
        if (standing > 0)
            run(u"UPDATE tarn.site_days SET raw_hits = %1"_s.arg(standing));
        else
            run(u"DELETE FROM tarn.site_days"_s);
        run(u"INSERT INTO tarn.rollup_due VALUES (1, '2024-05-04', %1)"_s.arg(noted));

        const QString plans = plansOf(u"SELECT tarn.count_day(1, '2024-05-04')"_s);

        QVERIFY2(plans.contains(u"tarn.read_day("_s), qPrintable(plans));
        QCOMPARE(plans.contains(u"Parallel Append"_s), byWorkers);
        QCOMPARE(plans.contains(u"Workers Launched: 2"_s), byWorkers);
    }

    void allReadingsAreOfTheMomentOfTheStatement_data()
    {
        QTest::addColumn<bool>("byWorkers");
        QTest::newRow("alone") << false;
        QTest::newRow("by-workers") << true;
    }

    void allReadingsAreOfTheMomentOfTheStatement()
    {
        QFETCH(const bool, byWorkers);
        store({Hit{}});
        run(u"CREATE FUNCTION pg_temp.store() RETURNS text LANGUAGE sql AS $$ "_s + analytics::kHitInsertion
            + u"VALUES "_s + Hit{}.text() + u" RETURNING 'stored' $$"_s);

        // The hit is stored when the figures are asked for, but later than the statement's snapshot.
        const QString counted = scalar(
            u"SELECT pg_temp.store() || ': ' || (SELECT string_agg(value || ' ' || hits, ', ' ORDER BY "
            "value) FROM tarn.figures_of_day(1, '2024-05-05', %1) "
            "WHERE dimension = '' AND value IN ('hits', 'page_views', 'sessions') AND hits > 0)"_s.arg(
                byWorkers ? u"true"_s : u"false"_s));

        QCOMPARE(counted, u"stored: hits 1, page_views 1, sessions 1"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits"_s), u"2"_s);
    }

    void workersCountForRetentionToo()
    {
        storeMonths();
        run(u"DELETE FROM tarn.rollup_due; INSERT INTO tarn.rollup_due VALUES (1, '2024-05-04', 50000)"_s);

        const QString plans = plansOf(u"DELETE FROM tarn.hits WHERE at < '2024-05-05 00:00+00'"_s);

        QVERIFY2(plans.contains(u"Workers Launched: 2"_s), qPrintable(plans));
        QCOMPARE(scalar(u"SELECT hits FROM tarn.site_days WHERE site_id = 1 AND day = '2024-05-04'"_s),
                 u"52"_s);
    }

    void serverWithoutWorkersCountsAlone()
    {
        storeMonths();
        rollUp(u"2024-05-04"_s, 1);
        const QString expected = scalar(u"SELECT hits || ' ' || visitors FROM tarn.site_days"_s);
        run(u"SET max_parallel_workers = 0; DELETE FROM tarn.site_days; DELETE FROM tarn.rollup_due;"
            "INSERT INTO tarn.rollup_due VALUES (1, '2024-05-04', 50000)"_s);

        const QString plans = plansOf(u"SELECT tarn.count_day(1, '2024-05-04')"_s);

        QVERIFY2(plans.contains(u"Workers Launched: 0"_s), qPrintable(plans));
        QCOMPARE(scalar(u"SELECT hits || ' ' || visitors FROM tarn.site_days"_s), expected);
    }

    void oldHitsAreFoundThroughAnIndex()
    {
        storeMonths();
        run(u"ANALYZE tarn.hits"_s);
        const QString text =
            test::planOf(session(), u"DELETE FROM tarn.hits WHERE at < '2024-03-08 00:00+00'"_s);
        QVERIFY2(text.contains(u"hits_at"_s) && !text.contains(u"Seq Scan"_s), qPrintable(text));
    }
};

QTEST_GUILESS_MAIN(tst_RollUpCost)
#include "tst_RollUpCost.moc"
