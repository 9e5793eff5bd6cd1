// Which days are rolled up and when: marks, backlogs, retention.
#include "RollUpTest.h"

#include <QProcess>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::at;
using test::Hit;

class tst_RollUpMarks : public test::RollUpTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { startServer(); }
    void init() { begin(); }
    void cleanup() { end(); }

    // Every day comes right by itself.

    void furtherMarkedDaysAreRolledUpNewestFirst()
    {
        store({at(u"2024-05-01 10:00+00"_s), at(u"2024-05-03 10:00+00"_s), at(u"2024-05-06 10:00+00"_s)});
        const auto newestFirst = u"SELECT coalesce((SELECT max(day) FROM tarn.rollup_due) "
                                 "< (SELECT min(day) FROM tarn.site_days), true)"_s;
        for (int left = 3; left > 0; --left) {
            rollUp(u"2024-05-05"_s);
            QVERIFY(scalar(u"SELECT count(*) FROM tarn.rollup_due"_s).toInt() < left);
            QCOMPARE(scalar(newestFirst), u"true"_s);
        }
        QCOMPARE(scalar(u"SELECT string_agg(day::text, ' ' ORDER BY day) FROM tarn.site_days"_s),
                 u"2024-05-01 2024-05-03 2024-05-06"_s);
    }

    void furtherDaysStopAfterAWhile()
    {
        run(analytics::kHitInsertion
            + u"SELECT 1, timestamptz '2022-01-01 12:00+00' + interval '1 day' * n, 'GET', '/', 200, 1, "
              u"true, "
              "NULL, '\\xaa', 1, 'DE', 'direct', NULL, NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, "
              "NULL, 1 "
              "FROM generate_series(1, 800) n"_s);
        rollUp();
        const int done = scalar(u"SELECT count(*) FROM tarn.site_days"_s).toInt();
        QVERIFY2(done >= 1 && done < 800, qPrintable(QString::number(done)));
    }

    void otherSitesMarksAreLeftToTheirOwnCalls()
    {
        store({Hit{.site = 2}});
        rollUp();
        QCOMPARE(scalar(test::kMarked), u"2 2024-05-05"_s);
    }

    void furtherDaysPassOverThoseWithHitsOnTheirWay()
    {
        store({at(u"2024-05-01 10:00+00"_s), at(u"2024-05-03 10:00+00"_s)});
        QSqlDatabase writer = other();
        QVERIFY(writer.transaction());
        store(writer, {at(u"2024-05-03 11:00+00"_s)});
        run(u"SET lock_timeout = '100ms'"_s);
        rollUp();
        QVERIFY(writer.commit());
        QCOMPARE(scalar(test::kMarked), u"1 2024-05-03"_s);
        QCOMPARE(scalar(u"SELECT day FROM tarn.site_days"_s), u"2024-05-01"_s);
    }

    void dayOfAnotherCalendarIsRolledUpAsAFurtherOne()
    {
        // The caller's day is the host's, the marks are of the session's zone.
        run(u"SET TimeZone = 'Pacific/Kiritimati'"_s);
        store({at(u"2024-05-05 12:00+00"_s)});
        rollUp(u"2024-05-05"_s);
        QCOMPARE(scalar(u"SELECT day || ' ' || hits || ' ' || zone FROM tarn.site_days"_s),
                 u"2024-05-06 1 Pacific/Kiritimati"_s);
    }

    void dayWithoutHitsGetsNoRow()
    {
        mark(u"2024-01-01"_s);
        rollUp(u"2024-01-01"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.site_days"_s), u"0"_s);
        QCOMPARE(scalar(test::kMarked), QString());
    }

    // Days that are expensive

    void slowDayPauses_data()
    {
        QTest::addColumn<int>("rollupMs");
        QTest::addColumn<int>("secondsAgo");
        QTest::addColumn<QString>("expected");
        QTest::newRow("quick") << 0 << 0 << u"2"_s;
        QTest::newRow("slow-and-recent") << 600 << 11 << u"1"_s;
        QTest::newRow("slow-and-twenty-times-ago") << 600 << 12 << u"2"_s;
        QTest::newRow("very-slow") << 28'000 << 559 << u"1"_s;
    }

    void slowDayPauses()
    {
        QFETCH(const int, rollupMs);
        QFETCH(const int, secondsAgo);
        QFETCH(const QString, expected);
        store({Hit{}});
        rollUp();
        store({Hit{}});
        run(u"UPDATE tarn.site_days SET rollup_ms = %1, updated_at = clock_timestamp() - interval '%2 s'"_s
                .arg(rollupMs)
                .arg(secondsAgo));
        askFor(u"2024-05-05"_s);
        QCOMPARE(figure(u"hits"_s), expected);
        QCOMPARE(scalar(test::kMarked).isEmpty(), expected == u"2"_s);
    }

    void slowDayIsRolledUpOnceAfterItsLastHit()
    {
        store({Hit{}});
        rollUp();
        store({Hit{}});
        run(u"UPDATE tarn.site_days SET rollup_ms = 600, updated_at = clock_timestamp()"_s);
        askFor(u"2024-05-06"_s);
        QCOMPARE(figure(u"hits"_s), u"1"_s);
        run(u"UPDATE tarn.site_days SET updated_at = clock_timestamp() - interval '1 min'"_s);
        askFor(u"2024-05-06"_s);
        QCOMPARE(figure(u"hits"_s), u"2"_s);
        QCOMPARE(scalar(test::kMarked), QString());
    }

    // Retention

    void retentionLeavesRollUps()
    {
        const QString day = scalar(u"SELECT current_date - 40"_s);
        store({at(day + u" 10:00+00"_s), at(day + u" 11:00+00"_s), at(day + u" 23:00+00"_s)});
        rollUp(day);
        const QString standing = figures(day) + values(day);

        run(u"DELETE FROM tarn.hits WHERE at < now() - make_interval(days => 30)"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits"_s), u"0"_s);
        rollUp(day);
        QCOMPARE(figures(day) + values(day), standing);

        // A late line of that day does not make the rest of it forgotten.
        store({at(day + u" 23:30+00"_s)});
        rollUp(day);
        QCOMPARE(figures(day) + values(day), standing);
        QCOMPARE(scalar(test::kMarked), QString());
    }

    void retentionRollsUpFirst()
    {
        const QString day = scalar(u"SELECT current_date - 40"_s);
        store({at(day + u" 10:00+00"_s), at(day + u" 11:00+00"_s)});
        run(u"DELETE FROM tarn.hits WHERE at < now() - make_interval(days => 30)"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits"_s), u"0"_s);
        QCOMPARE(figure(u"hits"_s), u"2"_s);
        QCOMPARE(scalar(test::kMarked), QString());
    }

    void retentionRollsUpPausingDays()
    {
        store({Hit{}});
        rollUp();
        store({Hit{}});
        run(u"UPDATE tarn.site_days SET rollup_ms = 60000, updated_at = clock_timestamp()"_s);
        run(u"DELETE FROM tarn.hits"_s);
        QCOMPARE(figure(u"hits"_s), u"2"_s);
    }

    void retentionCountsADayInTheZoneThatItWasMarkedIn()
    {
        run(u"SET TimeZone = 'Europe/Berlin'"_s);
        store({at(u"2024-05-04 22:30+00"_s)});
        run(u"SET TimeZone = 'UTC'; DELETE FROM tarn.hits"_s);
        QCOMPARE(scalar(u"SELECT day || ' ' || zone FROM tarn.site_days"_s), u"2024-05-05 Europe/Berlin"_s);
        QCOMPARE(scalar(u"SHOW TimeZone"_s), u"UTC"_s);
    }

    void retentionWaitsForHitsOnTheirWay()
    {
        store({Hit{}});
        QSqlDatabase writer = other();
        QVERIFY(writer.transaction());
        store(writer, {Hit{}});
        run(u"SET lock_timeout = '100ms'"_s);
        QCOMPARE(test::errorOf(session(), u"DELETE FROM tarn.hits"_s), u"55P03"_s);
        QVERIFY(writer.commit());
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits"_s), u"2"_s);
        run(u"DELETE FROM tarn.hits"_s);
        QCOMPARE(figure(u"hits"_s), u"2"_s);
    }

    void lateHitsDoNotHideWhatRetentionHasDeleted()
    {
        const auto insert = [](int count, int offset) {
            run(analytics::kHitInsertion
                + u"SELECT 1, timestamptz '2024-05-05 00:00+00' + interval '1 min' * n, 'GET', '/', 200, 1, "
                  u"true, "
                  "NULL, '\\xaa', 1, 'DE', 'direct', NULL, NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, "
                  "NULL, 1 "
                  "FROM generate_series(%1, %2) n"_s.arg(offset)
                      .arg(offset + count - 1));
        };
        insert(1000, 0);
        rollUp();
        const QString standing = figures() + values();
        run(u"DELETE FROM tarn.hits WHERE at < '2024-05-05 11:15+00'"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits"_s), u"325"_s);
        insert(700, 700);
        rollUp();
        QCOMPARE(figures() + values(), standing);
        QCOMPARE(scalar(test::kMarked), QString());
    }

    void dayThatIsHalfGoneIsNotCountedInAnotherZoneEither()
    {
        store({at(u"2024-05-05 01:00+00"_s), at(u"2024-05-05 20:00+00"_s)});
        rollUp();
        run(u"DELETE FROM tarn.hits WHERE at < '2024-05-05 12:00+00'"_s);
        run(u"SET TimeZone = 'Europe/Berlin'"_s);
        store({at(u"2024-05-05 21:00+00"_s)});
        rollUp();
        QCOMPARE(scalar(u"SELECT hits || ' ' || zone FROM tarn.site_days"_s), u"2 UTC"_s);
    }

    void wholeDayIsCountedAnewAfterAChangeOfTheZone()
    {
        store({at(u"2024-05-05 01:00+00"_s), at(u"2024-05-05 22:30+00"_s)});
        rollUp();
        run(u"SET TimeZone = 'Europe/Berlin'"_s);
        store({at(u"2024-05-05 20:00+00"_s)});
        rollUp();
        QCOMPARE(scalar(u"SELECT hits || ' ' || zone FROM tarn.site_days WHERE day = '2024-05-05'"_s),
                 u"2 Europe/Berlin"_s);
    }

    void rowAndValuesAreOfOneMoment()
    {
        store({Hit{}});
        // The values' table is held until the hits are gone, so that whoever reads the day twice sees two
        // days.
        QSqlDatabase holder = other();
        QVERIFY(holder.transaction());
        test::run(holder, u"LOCK TABLE tarn.site_day_values IN ACCESS EXCLUSIVE MODE"_s);
        QProcess roller;
        roller.start(u"psql"_s,
                     {u"-Xq"_s, u"-h"_s, m_server.socketFolder(), u"-U"_s, u"postgres"_s, u"-d"_s,
                      session().databaseName(), u"-c"_s, u"SELECT tarn.rollup_day(1, '2024-05-05')"_s});
        QVERIFY(roller.waitForStarted());
        QTRY_COMPARE(scalar(u"SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock' "
                            "AND query LIKE 'SELECT tarn.rollup_day%'"_s),
                     u"1"_s);
        // As a DELETE that was on its way: its trigger would wait for the roll-up.
        run(u"SET session_replication_role = replica; DELETE FROM tarn.hits"_s);
        QVERIFY(holder.commit());
        QVERIFY(roller.waitForFinished());
        QCOMPARE(scalar(u"SELECT ((SELECT count(*) FROM tarn.site_days) > 0) = "
                        "((SELECT count(*) FROM tarn.site_day_values) > 0)"_s),
                 u"true"_s);
    }

    void dayCanBeCountedAnewOnDemand()
    {
        store({Hit{}, Hit{.country = u"'XX'"_s}});
        rollUp();
        run(u"DELETE FROM tarn.hits WHERE country = 'XX'"_s);

        mark();
        rollUp();
        QCOMPARE(figure(u"hits"_s), u"2"_s);

        run(u"DELETE FROM tarn.site_days WHERE site_id = 1 AND day = '2024-05-05'"_s);
        mark();
        rollUp();
        QCOMPARE(figure(u"hits"_s), u"1"_s);
        QVERIFY(!values().contains(u"XX"_s));
    }

    void everyMarkedDayCanBeRolledUpInOneStatement()
    {
        store({
            at(u"2024-05-01 10:00+00"_s), at(u"2024-05-03 10:00+00"_s),
            Hit{.at = u"2024-05-03 10:00+00"_s, .site = 2}
        });
        run(u"SELECT tarn.rollup_day(site_id, day) FROM tarn.rollup_due"_s);
        QCOMPARE(scalar(u"SELECT string_agg(site_id || ' ' || day, ', ' ORDER BY site_id, day) "
                        "FROM tarn.site_days"_s),
                 u"1 2024-05-01, 1 2024-05-03, 2 2024-05-03"_s);
        QCOMPARE(scalar(test::kMarked), QString());
    }

    // A mark is never taken away by a roll-up that cannot see its hits.

    void rollUpLeavesADayWithHitsOnTheirWayToTheNextCall()
    {
        store({Hit{}});
        QSqlDatabase writer = other();
        QVERIFY(writer.transaction());
        store(writer, {Hit{}});

        run(u"SET lock_timeout = '100ms'"_s);
        rollUp();
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.site_days"_s), u"0"_s);
        QCOMPARE(scalar(test::kMarked), u"1 2024-05-05"_s);
        QVERIFY(writer.commit());
        rollUp();
        QCOMPARE(figure(u"hits"_s), u"2"_s);
        QCOMPARE(scalar(test::kMarked), QString());
    }

    void rollUpsInAnyOrderNeverCostAHit()
    {
        // The session that stores locks the days in the order of its log, the other one in that of its
        // statement.
        store({at(u"2024-05-03 10:00+00"_s), at(u"2024-05-01 10:00+00"_s)});
        QSqlDatabase writer = other();
        QVERIFY(writer.transaction());
        store(writer, {at(u"2024-05-01 11:00+00"_s)});
        QVERIFY(session().transaction());
        run(u"SELECT tarn.rollup_day(1, '2024-05-03')"_s);
        run(u"SET LOCAL lock_timeout = '100ms'"_s);
        run(u"SELECT tarn.rollup_day(1, '2024-05-01')"_s);
        QVERIFY(session().commit());
        store(writer, {at(u"2024-05-03 11:00+00"_s)});
        QVERIFY(writer.commit());
        run(u"SELECT tarn.rollup_day(site_id, day) FROM tarn.rollup_due"_s);
        QCOMPARE(scalar(u"SELECT string_agg(hits::text, ' ') FROM tarn.site_days"_s), u"2 2"_s);
    }

    void hitsWaitForARollUpThatIsOnItsWay()
    {
        store({Hit{}});
        QSqlDatabase roller = other();
        QVERIFY(roller.transaction());
        test::run(roller, u"SELECT tarn.rollup_day(1, '2024-05-05')"_s);

        run(u"SET lock_timeout = '100ms'"_s);
        QCOMPARE(test::errorOf(session(), analytics::kHitInsertion + u"VALUES "_s + Hit{}.text()),
                 u"55P03"_s);
        QVERIFY(roller.commit());
        store({Hit{}});
        QCOMPARE(scalar(test::kMarked), u"1 2024-05-05"_s);
        rollUp();
        QCOMPARE(figure(u"hits"_s), u"2"_s);
    }
};

QTEST_GUILESS_MAIN(tst_RollUpMarks)
#include "tst_RollUpMarks.moc"
