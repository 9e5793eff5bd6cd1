#include "CollectorStatements.h"
#include "Probe.h"
#include "support/PostgresServer.h"

#include <QDate>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

/// One hit as a row of VALUES; what a test does not name is an ordinary page view of a person.
struct Hit
{
    QString at = u"2024-05-05 12:00:00+00"_s;
    QString path = u"'/'"_s;
    QString status = u"200"_s;
    QString bytes = u"100"_s;
    QString isPage = u"true"_s;
    QString visitor = u"aa"_s; ///< hexadecimal digits
    QString session = u"1"_s;
    QString country = u"'DE'"_s;
    QString kind = u"'direct'"_s;
    QString source = u"NULL"_s;
    QString terms = u"NULL"_s;
    QString client = u"'desktop', 'Firefox', 'Linux'"_s; ///< device, browser, operating system
    QString bot = u"NULL"_s;
    QString engaged = u"NULL"_s;
    QString responseUs = u"NULL"_s;
    QString method = u"GET"_s;
    int site = 1;

    QString text() const
    {
        const QString null = u"NULL"_s;
        const QStringList values{QString::number(site),
                                 u"'%1'"_s.arg(at),
                                 u"'%1'"_s.arg(method),
                                 path,
                                 status,
                                 bytes,
                                 isPage,
                                 null,
                                 u"'\\x%1'"_s.arg(visitor),
                                 session,
                                 country,
                                 kind,
                                 source,
                                 null,
                                 terms,
                                 client,
                                 bot,
                                 engaged,
                                 responseUs};
        return u'(' + values.join(u", "_s) + u')';
    }
};

Hit beacon(const QString& engaged, Hit hit = {})
{
    hit.method = u"BEACON"_s;
    hit.status = u"204"_s;
    hit.bytes = u"0"_s;
    hit.isPage = u"false"_s;
    hit.engaged = engaged;
    return hit;
}

Hit at(const QString& moment)
{
    return Hit{.at = moment};
}

const auto kMarked = u"SELECT coalesce(string_agg(site_id || ' ' || day, ', ' ORDER BY site_id, day), '') "
                     "FROM tarn.rollup_due"_s;

/// The day's figures of site 1, named, so that a difference shows what it is in.
const auto kFigures =
    u"SELECT format('hits %s, views %s, visitors %s, sessions %s, bots %s, bytes %s, 4xx %s, 5xx %s, "
    "engaged %s, median %s, p95 %s', hits, page_views, visitors, sessions, bot_hits, bytes, errors_4xx, "
    "errors_5xx, engaged_seconds, coalesce(response_us_median::text, 'none'), "
    "coalesce(response_us_p95::text, 'none')) FROM tarn.site_days WHERE site_id = 1 AND day = '%1'"_s;

const auto kValues = u"SELECT string_agg(format('%s %s: %s by %s', dimension, value, hits, visitors), E'\\n' "
                     "ORDER BY dimension COLLATE \"C\", value COLLATE \"C\") FROM tarn.site_day_values "
                     "WHERE site_id = 1 AND day = '%1'"_s;

/// A day of site 1 with something of everything, and its neighbours. Its columns are those of kInsertHits.
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

class tst_RollUp : public QObject
{
    Q_OBJECT

private:
    static QSqlDatabase session() { return QSqlDatabase::database(u"session"_s); }
    /// A second session on the same database.
    QSqlDatabase other() const { return m_server.connect(session().databaseName(), u"other"_s); }

    static QString scalar(const QString& statement) { return test::value(session(), statement); }
    static void run(const QString& statement) { test::run(session(), statement); }

    static void store(const QList<Hit>& hits) { store(session(), hits); }
    static void store(const QSqlDatabase& database, const QList<Hit>& hits)
    {
        QStringList rows;
        for (const Hit& hit : hits)
            rows.append(hit.text());
        test::run(database, test::kInsertHits + u"VALUES "_s + rows.join(u", "_s));
    }

    static void rollUp(const QString& day = u"2024-05-05"_s, int site = 1)
    {
        run(u"SELECT tarn.rollup_day(%1, '%2')"_s.arg(site).arg(day));
    }
    static void mark(const QString& day = u"2024-05-05"_s, int site = 1)
    {
        run(u"INSERT INTO tarn.rollup_due VALUES (%1, '%2') ON CONFLICT DO NOTHING"_s.arg(site).arg(day));
    }

    static QString figures(const QString& day = u"2024-05-05"_s) { return scalar(kFigures.arg(day)); }
    static QString values(const QString& day = u"2024-05-05"_s) { return scalar(kValues.arg(day)); }
    static QString figure(const QString& column)
    {
        return scalar(u"SELECT %1 FROM tarn.site_days WHERE site_id = 1"_s.arg(column));
    }

    /// Sites 1 to 20 with 50 hits each on each of 60 days, stored in the order of time as they would come in.
    static void storeMonths()
    {
        run(test::kInsertHits
            + u"SELECT s, timestamptz '2024-03-07 00:00+00' + interval '28 min' * n, 'GET', '/page/' || n % "
              u"97, "
              "200, 100, true, NULL, int8send(n % 40), n % 60, 'DE', 'direct', NULL, NULL, NULL, "
              "'desktop', 'Firefox', 'Linux', NULL, NULL, 1000 "
              "FROM generate_series(0, 3085) n, generate_series(1, 20) s ORDER BY n"_s);
    }

    /// Ends what a session's first roll-up costs (catalogs read, queries planned), and sets the session's
    /// counts of what it has read to nothing.
    static void warmUp()
    {
        mark(u"2024-04-01"_s, 1);
        rollUp(u"2024-04-01"_s, 1);
        run(u"SELECT pg_stat_force_next_flush()"_s);
    }

    /// The plans, with what was counted while they ran, of @p statement and of all that the functions in it
    /// ran. The server writes them to its log only.
    QString plansOf(const QString& statement) const
    {
        run(u"LOAD 'auto_explain'; SET auto_explain.log_nested_statements = on; SET auto_explain.log_analyze "
            u"= on; "
            "SET auto_explain.log_min_duration = 0"_s);
        const qsizetype before = m_server.log().size();
        run(statement);
        run(u"SET auto_explain.log_min_duration = -1; DO $$ BEGIN RAISE LOG 'end of plans'; END $$"_s);
        QString text;
        const auto complete = [&] {
            text = m_server.log().sliced(before);
            return text.contains(u"end of plans"_s);
        };
        return QTest::qWaitFor(complete) ? text : u"no plans"_s;
    }

    test::PostgresServer m_server;
    QString m_database;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        m_database = m_server.createDatabase();
    }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_server.connect(m_database, u"session"_s).isOpen());
        run(u"SET TimeZone = 'UTC'"_s);
        run(u"TRUNCATE tarn.hits, tarn.rollup_due, tarn.site_days, tarn.site_day_values"_s);
    }

    void cleanup()
    {
        QSqlDatabase::removeDatabase(u"other"_s);
        QSqlDatabase::removeDatabase(u"session"_s);
    }

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
        QTest::newRow("no-method-no-client") << Hit{.client = u"NULL, NULL, NULL"_s, .method = QString()}
                                             << today << u"page_views"_s << u"1"_s;
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
        QCOMPARE(scalar(kMarked), QString());
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
        run(test::kInsertHits + u"VALUES "_s + kMixedDay);

        rollUp();

        QCOMPARE(figures(), u"hits 11, views 5, visitors 4, sessions 4, bots 2, bytes 4300, 4xx 2, 5xx 1, "
                            "engaged 12.5, median 200, p95 9000"_s);
        QCOMPARE(values().split(u'\n'), kMixedDayValues.split(u'\n'));
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.site_days"_s), u"1"_s);
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
                           "device desktop: 4 by 2\nos Linux: 4 by 2\npath /: 4 by 2\n"
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
        QCOMPARE(scalar(kMarked), u"1 2024-05-05"_s);
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
        QCOMPARE(scalar(kMarked), u"1 %1, 1 %2, 1 %3"_s.arg(before, day, after));

        for (const QString& each : {before, day, after})
            rollUp(each);

        QCOMPARE(scalar(u"SELECT string_agg(day || ' ' || hits, ', ' ORDER BY day) FROM tarn.site_days"_s),
                 u"%1 1, %2 3, %3 1"_s.arg(before, day, after));
    }

    // What a roll-up costs

    void rollUpWithoutNewHitsReadsNextToNothing()
    {
        storeMonths();
        rollUp(u"2024-05-05"_s, 7);
        warmUp();
        run(u"BEGIN"_s);
        const int pages = test::pagesRead(session(), u"SELECT tarn.rollup_day(7, '2024-05-05')"_s);
        QVERIFY2(pages >= 0 && pages <= 5, qPrintable(QString::number(pages)));
        QCOMPARE(scalar(u"SELECT seq_scan + idx_scan FROM pg_stat_xact_user_tables WHERE relname = 'hits'"_s),
                 u"0"_s);
        run(u"COMMIT"_s);

        const QString plans = plansOf(u"SELECT tarn.rollup_day(7, '2024-05-05')"_s);
        QVERIFY2(plans.contains(u"rollup_due_pkey"_s) && !plans.contains(u"tarn.hits"_s), qPrintable(plans));
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
        run(test::kInsertHits
            + u"SELECT 1 + n % 2, '2024-05-05 12:00+00', 'GET', '/page/' || n, 200, 100, true, NULL, "
              u"int8send(n), "
              "n, 'DE', 'direct', NULL, NULL, NULL, 'desktop', 'Firefox', 'Linux', NULL, NULL, 1000 "
              "FROM generate_series(1, 5000) n"_s);
        rollUp();
        run(setting);
        mark();
        const QString plans = plansOf(u"SELECT tarn.rollup_day(1, '2024-05-05')"_s);
        QVERIFY2(plans.count(u"Hash Anti Join"_s) == 2 && !plans.contains(u"Join Filter"_s),
                 qPrintable(plans));
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
        run(setting);
        const int ofTheDay =
            scalar(u"SELECT count(*) FROM tarn.hits WHERE site_id = 7 AND at::date = '2024-05-04'"_s).toInt();
        QVERIFY(ofTheDay > 40);
        warmUp();

        run(u"BEGIN"_s);
        const int pages = test::pagesRead(session(), u"SELECT tarn.rollup_day(7, '2024-05-04')"_s);

        // Read three times: for the day's figures, the page views and the requests. Not a row of any other
        // day.
        QCOMPARE(scalar(u"SELECT seq_scan || ' ' || idx_tup_fetch FROM pg_stat_xact_user_tables "
                        "WHERE relname = 'hits'"_s),
                 u"0 %1"_s.arg(3 * ofTheDay));
        run(u"COMMIT"_s);
        QCOMPARE(scalar(u"SELECT hits FROM tarn.site_days WHERE site_id = 7"_s), QString::number(ofTheDay));
        const int ofTheTable = test::pagesOf(session(), u"tarn.hits"_s);
        QVERIFY2(pages > 0 && pages < ofTheTable / 3, qPrintable(u"%1 of %2"_s.arg(pages).arg(ofTheTable)));

        mark(u"2024-05-04"_s, 7);
        const QString plans = plansOf(u"SELECT tarn.rollup_day(7, '2024-05-04')"_s);
        static const QRegularExpression byIndex(u" hits_site_at "_s);
        QVERIFY2(plans.count(byIndex) == 3 && !plans.contains(u"Seq Scan"_s), qPrintable(plans));
    }

    void oldHitsAreFoundThroughAnIndex()
    {
        storeMonths();
        run(u"ANALYZE tarn.hits"_s);
        const QString text =
            test::planOf(session(), u"DELETE FROM tarn.hits WHERE at < '2024-03-08 00:00+00'"_s);
        QVERIFY2(text.contains(u"hits_at"_s) && !text.contains(u"Seq Scan"_s), qPrintable(text));
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
        QCOMPARE(scalar(kMarked), QString());
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
        QCOMPARE(scalar(kMarked), QString());
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
        QCOMPARE(scalar(kMarked), u"1 2024-05-05"_s);
        QVERIFY(writer.commit());
        rollUp();
        QCOMPARE(figure(u"hits"_s), u"2"_s);
        QCOMPARE(scalar(kMarked), QString());
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
        QCOMPARE(test::errorOf(session(), test::kInsertHits + u"VALUES "_s + Hit{}.text()), u"55P03"_s);
        QVERIFY(roller.commit());
        store({Hit{}});
        QCOMPARE(scalar(kMarked), u"1 2024-05-05"_s);
        rollUp();
        QCOMPARE(figure(u"hits"_s), u"2"_s);
    }
};

QTEST_GUILESS_MAIN(tst_RollUp)
#include "tst_RollUp.moc"
