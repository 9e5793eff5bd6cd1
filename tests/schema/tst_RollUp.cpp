// What a day's roll-up counts, and where a day begins.
#include "RollUpTest.h"

#include <QDate>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::at;
using test::beacon;
using test::Hit;

namespace {

/// A day of site 1 with something of everything, and its neighbours. Its columns are those of kHitInsertion.
const auto kMixedDay = uR"sql(
-- Somebody looks at two pages and an asset, and leaves the second page after 12.5 seconds.
(1, '2024-05-05 00:00:00+00', 'GET',    '/',          200, 1000, true,  NULL, '\xaa', 1, 'DE', 'direct',   NULL,
    NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, NULL, 1000),
(1, '2024-05-05 00:10:00+00', 'GET',    '/about',     200, 2000, true,  NULL, '\xaa', 1, 'DE', 'internal', NULL,
    NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, NULL, 3000),
(1, '2024-05-05 00:10:01+00', 'GET',    '/style.css', 200, 500,  false, NULL, '\xaa', 1, 'DE', 'internal', NULL,
    NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, NULL, 100),
(1, '2024-05-05 00:20:00+00', 'BEACON', '/about',     204, 35,   false, NULL, '\xaa', 1, 'DE', 'internal', NULL,
    NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, 12.5, 777),
-- Somebody comes from a search engine: a page that is in the browser's cache, one that is missing, one that has moved.
(1, '2024-05-05 02:00:00+00', 'GET',    '/',          304, 0,    true,  NULL, '\xbb', 2, 'FR', 'search',   'Google',
    NULL, 'mountain lake', 'mobile', 'Chrome', 'Android', NULL, NULL, 200),
(1, '2024-05-05 02:01:00+00', 'GET',    '/missing',   404, 300,  true,  NULL, '\xbb', 2, 'FR', 'internal', NULL,
    NULL, NULL, 'mobile', 'Chrome', 'Android', NULL, NULL, 50),
(1, '2024-05-05 02:02:00+00', 'GET',    '/old',       301, 100,  true,  NULL, '\xbb', 2, 'FR', 'internal', NULL,
    NULL, NULL, 'mobile', 'Chrome', 'Android', NULL, NULL, 60),
-- Bots: a page whose time the log does not say, a failure, and a beacon, which counts nowhere.
(1, '2024-05-05 03:00:00+00', 'GET',    '/',          200, 100,  true,  NULL, '\xcc', 3, 'US', 'direct',   NULL,
    NULL, NULL, 'desktop', 'Chrome', 'Linux', 'Googlebot', NULL, 0),
(1, '2024-05-05 03:00:01+00', 'GET',    '/x',         500, 100,  true,  NULL, '\xdd', 4, 'US', 'direct',   NULL,
    NULL, NULL, 'desktop', 'Chrome', 'Linux', 'Bingbot', NULL, 9000),
(1, '2024-05-05 03:01:00+00', 'BEACON', '/',          204, 35,   false, NULL, '\xcc', 3, 'US', 'direct',   NULL,
    NULL, NULL, 'desktop', 'Chrome', 'Linux', 'Googlebot', 30, 500),
-- Somebody who is known by a beacon alone; its time is not a number.
(1, '2024-05-05 04:00:00+00', 'BEACON', '/about',     204, 35,   false, NULL, '\xee', 5, 'DE', 'direct',   NULL,
    NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, 'NaN', 500),
-- A stranger's request with the method of a beacon is a request.
(1, '2024-05-05 06:00:00+00', 'BEACON', '/',          405, 100,  false, NULL, '\xff', 6, 'DE', 'direct',   NULL,
    NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, NULL, 10),
-- Next to nothing is known of this one: no session was assigned, no country found, no time taken.
(1, '2024-05-05 07:00:00+00', 'GET',    '/',          200, 100,  true,  NULL, '\x99', 0, NULL, 'direct',   NULL,
    NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, NULL, NULL),
-- The first one again, in a new session at the last second of the day, with a size that cannot be.
(1, '2024-05-05 23:59:59+00', 'GET',    '/about',     200, -5,   true,  NULL, '\xaa', 7, 'DE', 'internal', NULL,
    NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, NULL, 400),
-- Not this day's, not this site's.
(1, '2024-05-04 23:59:59+00', 'GET',    '/',          200, 100,  true,  NULL, '\xaa', 1, 'DE', 'direct',   NULL,
    NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, NULL, 1000),
(1, '2024-05-06 00:00:00+00', 'GET',    '/',          200, 100,  true,  NULL, '\xaa', 1, 'DE', 'direct',   NULL,
    NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, NULL, 1000),
(2, '2024-05-05 12:00:00+00', 'GET',    '/',          200, 100,  true,  NULL, '\x77', 8, 'DE', 'direct',   NULL,
    NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, NULL, 1000)
)sql"_s;

/// dimension value: hits by visitors
const auto kMixedDayValues = uR"(bot Bingbot: 1 by 1
bot Googlebot: 1 by 1
browser Chrome: 1 by 1
browser Firefox: 4 by 2
country DE: 3 by 1
country FR: 1 by 1
device desktop: 4 by 2
device mobile: 1 by 1
entry_path /: 2 by 2
entry_path /about: 1 by 1
hour 00: 2 by 1
hour 02: 1 by 1
hour 07: 1 by 1
hour 23: 1 by 1
missing_path /missing: 1 by 1
os Android: 1 by 1
os Linux: 4 by 2
path /: 3 by 3
path /about: 2 by 1
search_terms mountain lake: 1 by 1
source Google: 1 by 1
source_kind direct: 2 by 2
source_kind internal: 2 by 1
source_kind search: 1 by 1
status 200: 6 by 3
status 301: 1 by 1
status 304: 1 by 1
status 404: 1 by 1
status 405: 1 by 1
status 500: 1 by 1)"_s;

} // namespace

class tst_RollUp : public test::RollUpTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { startServer(); }
    void init() { begin(); }
    void cleanup() { end(); }

    // Nothing that a log line can hold makes an insert or a roll-up fail.

    void oddHitsAreStoredAndRolledUp_data()
    {
        QTest::addColumn<Hit>("hit");
        QTest::addColumn<QString>("day");
        QTest::addColumn<QString>("figure");
        QTest::addColumn<QString>("expected");
        const QString today = u"2024-05-05"_s;
        // Random characters of four bytes, which do not compress: 8000 bytes, where an index can hold 2704.
        const auto longText = u"(SELECT string_agg(chr(65536 + (random() * 60000)::int), '') "
                              "FROM generate_series(1, 2000))"_s;
        QTest::newRow("ordinary") << Hit{} << today << u"page_views"_s << u"1"_s;
        QTest::newRow("longest-path") << Hit{.path = longText} << today << u"page_views"_s << u"1"_s;
        QTest::newRow("longest-search-terms") << Hit{.terms = longText} << today << u"page_views"_s << u"1"_s;
        QTest::newRow("longest-referring-host")
            << Hit{.source = longText} << today << u"page_views"_s << u"1"_s;
        QTest::newRow("no-path") << Hit{.path = u"NULL"_s} << today << u"page_views"_s << u"1"_s;
        QTest::newRow("no-client") << Hit{.client = u"NULL, NULL, NULL"_s} << today << u"page_views"_s
                                   << u"1"_s;
        QTest::newRow("negative-status") << Hit{.status = u"-2147483648"_s} << today << u"hits"_s << u"1"_s;
        QTest::newRow("greatest-status") << Hit{.status = u"2147483647"_s} << today << u"hits"_s << u"1"_s;
        QTest::newRow("negative-size")
            << Hit{.bytes = u"-9223372036854775808"_s} << today << u"bytes"_s << u"0"_s;
        QTest::newRow("engaged-nan") << beacon(u"'NaN'"_s) << today << u"engaged_seconds"_s << u"0"_s;
        QTest::newRow("engaged-infinite")
            << beacon(u"'Infinity'"_s) << today << u"engaged_seconds"_s << u"21600"_s;
        QTest::newRow("engaged-less-than-nothing")
            << beacon(u"'-Infinity'"_s) << today << u"engaged_seconds"_s << u"0"_s;
        QTest::newRow("engaged-six-hours")
            << beacon(u"21600"_s) << today << u"engaged_seconds"_s << u"21600"_s;
        QTest::newRow("first-day") << at(u"0001-01-01 00:00+00"_s) << u"0001-01-01"_s << u"hits"_s << u"1"_s;
        QTest::newRow("last-day") << at(u"9999-12-31 23:59:59+00"_s) << u"9999-12-31"_s << u"hits"_s
                                  << u"1"_s;
    }

    void oddHitsAreStoredAndRolledUp()
    {
        QFETCH(const Hit, hit);
        QFETCH(const QString, day);
        QFETCH(const QString, expected);
        QFETCH(const QString, figure);
        store({hit});
        rollUp(day);
        QCOMPARE(this->figure(figure), expected);
        QCOMPARE(this->figure(u"raw_hits"_s), u"1"_s);
        QCOMPARE(scalar(test::kMarked), QString());
    }

    void sumsOfHugeNumbersDoNotOverflow()
    {
        const Hit huge{.bytes = u"9223372036854775807"_s};
        const Hit attentive = beacon(u"1.7e308"_s);
        store({huge, huge, huge, attentive, attentive});
        rollUp();
        QCOMPARE(figure(u"bytes"_s), u"9223372036854775807"_s);
        QCOMPARE(figure(u"engaged_seconds"_s), u"43200"_s);
    }

    void nanSpoilsNoSum()
    {
        store({beacon(u"12.5"_s), beacon(u"'NaN'"_s), beacon(u"30"_s)});
        rollUp();
        QCOMPARE(figure(u"engaged_seconds"_s), u"42.5"_s);
    }

    // What a roll-up counts

    void mixedDayIsCountedInEveryFigure()
    {
        run(analytics::kHitInsertion + u"VALUES "_s + kMixedDay);

        rollUp();

        QCOMPARE(figures(), u"hits 11, views 5, visitors 4, sessions 4, bots 2, bytes 4300, 4xx 2, 5xx 1, "
                            "engaged 12.5, median 200, p95 9000"_s);
        QCOMPARE(values().split(u'\n'), kMixedDayValues.split(u'\n'));
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.site_days WHERE site_id <> 1"_s), u"0"_s);
    }

    void dayWithoutKnownTimesHasNoPercentiles()
    {
        store({Hit{.responseUs = u"0"_s}, Hit{}});
        rollUp();
        QVERIFY2(figures().endsWith(u"median none, p95 none"_s), qPrintable(figures()));
    }

    void percentilesAreTimesThatWereMeasured()
    {
        QList<Hit> hits;
        for (int i = 1; i <= 100; ++i)
            hits.append(Hit{.responseUs = QString::number(i * 1000)});
        store(hits);
        rollUp();
        QVERIFY2(figures().endsWith(u"median 50000, p95 95000"_s), qPrintable(figures()));
    }

    void requestsThatShowNoPageAreNoViews_data()
    {
        QTest::addColumn<Hit>("hit");
        QTest::newRow("head") << Hit{.method = u"HEAD"_s};
        QTest::newRow("post") << Hit{.method = u"POST"_s};
        QTest::newRow("method-of-a-beacon") << Hit{.method = u"BEACON"_s};
        QTest::newRow("seconds-without-the-method") << Hit{.engaged = u"5"_s, .method = u"POST"_s};
        QTest::newRow("no-method-but-seconds") << Hit{.engaged = u"5"_s, .method = QString()};
    }

    void requestsThatShowNoPageAreNoViews()
    {
        QFETCH(Hit, hit);
        store({hit});
        if (hit.method.isNull()) // its text is an empty one
            run(u"UPDATE tarn.hits SET method = NULL"_s);
        rollUp();
        QCOMPARE(figures(), u"hits 1, views 0, visitors 0, sessions 0, bots 0, bytes 100, 4xx 0, 5xx 0, "
                            "engaged 0, median none, p95 none"_s);
        QCOMPARE(values(), u"status 200: 1 by 1"_s);
    }

    void campaignsAreApartFromSearchesAndOtherSources()
    {
        store({
            Hit{.kind = u"'campaign'"_s, .source = u"'Google'"_s, .terms = u"'spring'"_s},
            Hit{.kind = u"'campaign'"_s,                       .source = u"'Letter'"_s                       },
            Hit{.kind = u"'search'"_s,                       .source = u"'Google'"_s,   .terms = u"'spring'"_s},
            Hit{.kind = u"'referral'"_s, .source = u"'Google'"_s                     }
        });
        rollUp();
        QCOMPARE(scalar(u"SELECT string_agg(concat_ws(' ', dimension, value, part_of, hits), ', ' ORDER BY "
                        u"dimension, "
                        "value, part_of) FROM tarn.site_day_values "
                        "WHERE dimension ~ '^(source|campaign|campaign_source|search_terms)$'"_s),
                 u"campaign spring Google 1, campaign_source Google  1, campaign_source Letter  1, "
                 "search_terms spring  1, source Google referral 1, source Google search 1"_s);
    }

    void bouncesAreSessionsWithOneViewAndNoLongBeacon()
    {
        const Hit one{.session = u"1"_s};
        const Hit two{.session = u"2"_s};
        const Hit three{.session = u"3"_s};
        store({one, beacon(u"10"_s, one), two, beacon(u"10.5"_s, two), three, three,
               beacon(u"'NaN'"_s, Hit{.session = u"4"_s})});
        rollUp();
        QCOMPARE(figure(u"sessions || ' ' || bounces"_s), u"4 1"_s);
    }

    void thousandValuesAreKept_data()
    {
        QTest::addColumn<int>("paths");
        QTest::addColumn<QString>("expected");
        QTest::newRow("all") << 1000 << u"1000, rest none"_s;
        QTest::newRow("one-more") << 1001 << u"1001, rest 1 by 1, 7 s, p95 1001"_s;
        QTest::newRow("many-more") << 1500 << u"1001, rest 500 by 2, 7 s, p95 1475"_s;
    }

    void thousandValuesAreKept()
    {
        QFETCH(const int, paths);
        QFETCH(const QString, expected);
        run(analytics::kHitInsertion
            + u"SELECT 1, '2024-05-05 12:00+00', 'GET', '/' || to_char(n, 'FM0000'), 200, 1, true, NULL, "
              "CASE WHEN n % 2 = 0 THEN '\\xaa' ELSE '\\xbb' END::bytea, 1, NULL, NULL, NULL, NULL, NULL, "
              "NULL, NULL, "
              "NULL, NULL, NULL, n FROM generate_series(1, %1) n"_s.arg(paths));
        store({beacon(u"7"_s, Hit{.path = u"'/1001'"_s})});
        rollUp();
        QCOMPARE(scalar(u"SELECT count(*) || ', rest ' || coalesce(max(format('%s by %s, %s s, p95 %s', "
                        u"hits, visitors, "
                        "engaged_seconds, response_us_p95)) FILTER (WHERE value = ''), 'none') "
                        "FROM tarn.site_day_values WHERE dimension = 'path'"_s),
                 expected);
    }

    void newHitsReplaceWhatStood()
    {
        store({Hit{}, Hit{.country = u"'FR'"_s}});
        rollUp();
        const auto rowOfFrance = u"SELECT ctid || ' ' || xmin FROM tarn.site_day_values WHERE value = 'FR'"_s;
        const QString before = scalar(rowOfFrance);

        store({Hit{}, Hit{.visitor = u"bb"_s}});
        rollUp();

        QCOMPARE(figure(u"page_views"_s), u"4"_s);
        QCOMPARE(figure(u"visitors"_s), u"2"_s);
        QCOMPARE(values(), u"browser Firefox: 4 by 2\ncountry DE: 3 by 2\ncountry FR: 1 by 1\n"
                           "device desktop: 4 by 2\nentry_path /: 1 by 1\nhour 12: 4 by 2\nos Linux: 4 by "
                           "2\npath /: 4 by 2\n"
                           "source_kind direct: 4 by 2\nstatus 200: 4 by 2"_s);
        // What has not changed is not written again.
        QCOMPARE(scalar(rowOfFrance), before);
    }

    void rollUpGoesWithItsTransaction()
    {
        store({Hit{}});
        run(u"BEGIN"_s);
        rollUp();
        run(u"ROLLBACK"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.site_days"_s), u"0"_s);
        QCOMPARE(scalar(test::kMarked), u"1 2024-05-05"_s);
    }

    // Where days begin

    void everyHitIsOfTheSessionsDay_data()
    {
        QTest::addColumn<QString>("zone");
        QTest::addColumn<QString>("day");
        QTest::addColumn<QString>("first"); // moment of the day, in UTC
        QTest::addColumn<QString>("next");  // moment of the day after
        QTest::newRow("utc") << u"UTC"_s << u"2024-05-05"_s << u"2024-05-05 00:00"_s << u"2024-05-06 00:00"_s;
        QTest::newRow("east") << u"Asia/Kathmandu"_s << u"2024-05-05"_s << u"2024-05-04 18:15"_s
                              << u"2024-05-05 18:15"_s;
        QTest::newRow("far-east") << u"Pacific/Kiritimati"_s << u"2024-05-05"_s << u"2024-05-04 10:00"_s
                                  << u"2024-05-05 10:00"_s;
        QTest::newRow("far-west") << u"Pacific/Pago_Pago"_s << u"2024-05-05"_s << u"2024-05-05 11:00"_s
                                  << u"2024-05-06 11:00"_s;
        QTest::newRow("23-hours") << u"Europe/Berlin"_s << u"2024-03-31"_s << u"2024-03-30 23:00"_s
                                  << u"2024-03-31 22:00"_s;
        QTest::newRow("25-hours") << u"Europe/Berlin"_s << u"2024-10-27"_s << u"2024-10-26 22:00"_s
                                  << u"2024-10-27 23:00"_s;
        QTest::newRow("two-midnights")
            << u"Atlantic/Azores"_s << u"2024-10-27"_s << u"2024-10-27 00:00"_s << u"2024-10-28 01:00"_s;
        QTest::newRow("before-two-midnights")
            << u"Atlantic/Azores"_s << u"2024-10-26"_s << u"2024-10-26 00:00"_s << u"2024-10-27 00:00"_s;
        QTest::newRow("no-midnight") << u"America/Sao_Paulo"_s << u"2018-11-04"_s << u"2018-11-04 03:00"_s
                                     << u"2018-11-05 02:00"_s;
        QTest::newRow("last-hour-twice")
            << u"America/Sao_Paulo"_s << u"2018-02-17"_s << u"2018-02-17 02:00"_s << u"2018-02-18 03:00"_s;
    }

    void everyHitIsOfTheSessionsDay()
    {
        QFETCH(const QString, zone);
        QFETCH(const QString, day);
        QFETCH(const QString, first);
        QFETCH(const QString, next);
        run(u"SET TimeZone = '%1'"_s.arg(zone));
        const auto second = [this](const QString& moment, int offset) {
            return at(
                scalar(u"SELECT (timestamptz '%1+00' + interval '%2 s')::text"_s.arg(moment).arg(offset)));
        };
        const QDate date = QDate::fromString(day, Qt::ISODate);
        const QString before = date.addDays(-1).toString(Qt::ISODate);
        const QString after = date.addDays(1).toString(Qt::ISODate);
        store({second(first, -1), second(first, 0), second(first, 1), second(next, -1), second(next, 0)});
        QCOMPARE(scalar(test::kMarked), u"1 %1, 1 %2, 1 %3"_s.arg(before, day, after));

        for (const QString& each : {before, day, after})
            rollUp(each);

        QCOMPARE(scalar(u"SELECT string_agg(day || ' ' || hits, ', ' ORDER BY day) FROM tarn.site_days"_s),
                 u"%1 1, %2 3, %3 1"_s.arg(before, day, after));
    }
};

QTEST_GUILESS_MAIN(tst_RollUp)
#include "tst_RollUp.moc"
