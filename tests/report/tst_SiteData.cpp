#include "report/SiteData.h"

#include "ReportFixture.h"
#include "report/SitePage.h"

#include <QSqlError>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::report;
using tarn::test::run;
using tarn::test::scalar;

class tst_SiteData : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_report.start()); }
    void init() { QVERIFY(m_report.openEmpty()); }
    void cleanup() { m_report.session.close(); }

    void daysOfBothPeriods();
    void daysWithoutARowAreZero();
    void meansAreWeighted();
    void rankings();
    void rankingsAreCut();
    void rankingsOfManyRows();
    void rankingsOfManyDays();
    void week();
    void searchTermsBesideTheEngines();
    void searchTermsAreCut();
    void live();
    void sitesByHost();
    void unknownHost();
    void nothingIsWritten();
    void failedStatement();
    void demo();

private:
    static SiteFigures read(int id = 1, QDate first = QDate(2026, 3, 2), QDate last = QDate(2026, 3, 4))
    {
        const Reading reading;
        return readSite({id, u"example.org"_s}, {first, last}).value_or(SiteFigures());
    }
    /// A row of site_days whose figures follow from @p views.
    static void addDay(int site, const QString& day, int views, const QString& more = u"NULL, NULL, NULL"_s)
    {
        run(u"INSERT INTO tarn.site_days (site_id, day, hits, page_views, visitors, sessions, bot_hits, "
            u"bytes, "
            "errors_4xx, errors_5xx, engaged_seconds, raw_hits, bounces, response_us_median, "
            "response_us_p95) "
            "VALUES (%1, '%2', %3 * 10, %3, %3 * 2, %3 * 3, %3 * 4, %3 * 5, %3 * 6, %3 * 7, %3 * 8.5, 1, %4)"_s
                .arg(site)
                .arg(day)
                .arg(views)
                .arg(more));
    }
    static void addValue(const QString& dimension, const QString& value, int hits, const QString& partOf = {},
                         const QString& more = u"NULL, NULL"_s, const QString& day = u"2026-03-03"_s)
    {
        run(u"INSERT INTO tarn.site_day_values (site_id, day, dimension, value, part_of, hits, visitors, "
            "engaged_seconds, response_us_p95) VALUES (1, '%1', '%2', '%3', '%4', %5, %5 / 2, %6)"_s.arg(
                day, dimension, value, partOf, QString::number(hits), more));
    }

    tarn::test::ReportFixture m_report;
};

void tst_SiteData::daysOfBothPeriods()
{
    // The period is 03-02 to 03-04, the one before 02-27 to 03-01.
    for (const QString& day : {u"2026-02-26"_s, u"2026-03-05"_s})
        addDay(1, day, 1000);
    addDay(2, u"2026-03-02"_s, 1000);
    addDay(1, u"2026-02-27"_s, 1);
    addDay(1, u"2026-03-01"_s, 2, u"20, NULL, NULL"_s);
    addDay(1, u"2026-03-02"_s, 3, u"30, NULL, NULL"_s);
    addDay(1, u"2026-03-04"_s, 4, u"40, 1000, 2000"_s);

    const SiteFigures figures = read();
    QCOMPARE(figures.days.size(), 3);
    QCOMPARE(figures.before.size(), 3);
    QCOMPARE(figures.before[0].views, 1);
    QCOMPARE(figures.before[2].views, 2);
    QCOMPARE(figures.days[0].views, 3);
    const Day& day = figures.days[2];
    QCOMPARE(day.requests, 40);
    QCOMPARE(day.views, 4);
    QCOMPARE(day.visitors, 8);
    QCOMPARE(day.sessions, 12);
    QCOMPARE(day.botRequests, 16);
    QCOMPARE(day.bytes, 20);
    QCOMPARE(day.clientErrors, 24);
    QCOMPARE(day.serverErrors, 28);
    QCOMPARE(day.engagedSeconds, 34.0);
    QCOMPARE(day.bounces, 40);
    QCOMPARE(day.medianUs, 1000.0);
    QCOMPARE(day.p95Us, 2000.0);
    QVERIFY(day.known);

    QCOMPARE(figures.total.views, 7);
    QCOMPARE(figures.total.visitors, 14);
    QCOMPARE(figures.total.bounces, 70);
    QCOMPARE(figures.totalBefore.views, 3);
    QCOMPARE(figures.totalBefore.bounces, 20);
}

void tst_SiteData::daysWithoutARowAreZero()
{
    const SiteFigures figures = read();
    QCOMPARE(figures.days.size(), 3);
    QVERIFY(!figures.days[1].known);
    QVERIFY(!figures.total.known);
    QVERIFY(!figures.total.p95Us);
    QVERIFY(figures.rankings.isEmpty());
}

void tst_SiteData::meansAreWeighted()
{
    Day light;
    light.requests = 10;
    light.medianUs = 100.0;
    light.p95Us = 1000.0;
    Day heavy;
    heavy.requests = 30;
    heavy.medianUs = 200.0;
    Day unknown;
    unknown.requests = 1000;
    const Day sum = sumOf({light, heavy, unknown});
    QCOMPARE(sum.requests, 1040);
    QCOMPARE(sum.medianUs, 175.0);
    QCOMPARE(sum.p95Us, 1000.0);
}

void tst_SiteData::rankings()
{
    addValue(u"path"_s, u"/a"_s, 5, {}, u"60, 1000"_s);
    addValue(u"path"_s, u"/a"_s, 15, {}, u"30, 2000"_s, u"2026-03-04"_s);
    addValue(u"path"_s, u"/b"_s, 20, {}, u"NULL, NULL"_s);
    addValue(u"path"_s, {}, 100);
    addValue(u"path"_s, u"/before"_s, 100, {}, u"NULL, NULL"_s, u"2026-03-01"_s);
    addValue(u"source"_s, u"Google"_s, 3, u"search"_s);
    addValue(u"source"_s, u"Google"_s, 4, u"referral"_s);

    const SiteFigures figures = read();
    const Ranking paths = figures.rankings[u"path"_s];
    QCOMPARE(paths.hits, 140);
    QCOMPARE(paths.others(), 100);
    QCOMPARE(paths.values.size(), 2);
    // As many hits; more visitors decide, then the smaller text.
    QCOMPARE(paths.values[0].value, u"/b"_s);
    QCOMPARE(paths.values[1].value, u"/a"_s);
    QCOMPARE(paths.values[1].hits, 20);
    QCOMPARE(paths.values[1].visitors, 9);
    QCOMPARE(paths.values[1].engagedSeconds, 90.0);
    QCOMPARE(paths.values[1].p95Us, 1750.0);
    QVERIFY(!paths.values[0].p95Us);
    const Ranking sources = figures.rankings[u"source"_s];
    QCOMPARE(sources.values.size(), 2);
    QCOMPARE(sources.values[0].partOf, u"referral"_s);
    QCOMPARE(sources.values[0].hits, 4);
}

void tst_SiteData::rankingsAreCut()
{
    run(u"INSERT INTO tarn.site_day_values (site_id, day, dimension, value, hits, visitors) "
        "SELECT 1, '2026-03-03', 'path', '/' || n, n, 1 FROM generate_series(1, %1) n"_s.arg(kRankedValues));
    QCOMPARE(read().rankings[u"path"_s].values.size(), kRankedValues);
    QCOMPARE(read().rankings[u"path"_s].others(), 0);
    addValue(u"path"_s, u"/one-more"_s, 0);
    addValue(u"path"_s, u"/the-most"_s, 1000);
    const Ranking paths = read().rankings[u"path"_s];
    QCOMPARE(paths.values.size(), kRankedValues);
    QCOMPARE(paths.values.first().value, u"/the-most"_s);
    QCOMPARE(paths.others(), 1);
}

void tst_SiteData::rankingsOfManyRows()
{
    // The first day has one row, the second all but one that rankings can be made of, the third another.
    addDay(1, u"2026-03-02"_s, 9);
    addValue(u"path"_s, u"/first"_s, 9, {}, u"NULL, NULL"_s, u"2026-03-02"_s);
    run(u"INSERT INTO tarn.site_day_values (site_id, day, dimension, value, hits, visitors) "
        "SELECT 1, '2026-03-03', 'path', '/' || n, 1, 1 FROM generate_series(1, %1) n"_s.arg(kRankedRows
                                                                                             - 2));
    addValue(u"path"_s, u"/last"_s, 5, {}, u"NULL, NULL"_s, u"2026-03-04"_s);
    SiteFigures figures = read();
    QCOMPARE(figures.ranked.first, QDate(2026, 3, 2));
    QCOMPARE(figures.rankings[u"path"_s].values[0].value, u"/first"_s);
    QCOMPARE(figures.rankings[u"path"_s].hits, kRankedRows - 2 + 14);

    addValue(u"path"_s, u"/one-more"_s, 4, {}, u"NULL, NULL"_s, u"2026-03-02"_s);
    figures = read();
    QCOMPARE(figures.ranked.first, QDate(2026, 3, 3));
    QCOMPARE(figures.ranked.last, QDate(2026, 3, 4));
    QCOMPARE(figures.rankings[u"path"_s].values[0].value, u"/last"_s);
    QCOMPARE(figures.rankings[u"path"_s].hits, kRankedRows - 2 + 5);
    // The page says so.
    Now now;
    now.minute = u"2026-03-04 12:00"_s;
    QVERIFY(sitePage(figures, now).contains("of the last 2 days, from 2026-03-03 on"));
    figures.ranked = figures.period;
    QVERIFY(!sitePage(figures, now).contains("from 2026-03-03 on"));

    // More on the last day alone: there is nothing less to show.
    run(u"UPDATE tarn.site_day_values SET day = '2026-03-04'"_s);
    QCOMPARE(read().ranked.first, QDate(2026, 3, 4));
}

void tst_SiteData::rankingsOfManyDays()
{
    // The busiest day has as many values as a list has places, each with more hits than the others have on
    // any day; what comes again and again is before them in the end.
    addDay(1, u"2026-03-02"_s, 1000);
    addDay(1, u"2026-03-03"_s, 10);
    addDay(1, u"2026-03-04"_s, 10);
    run(u"INSERT INTO tarn.site_day_values (site_id, day, dimension, value, hits, visitors) "
        "SELECT 1, '2026-03-02', 'path', '/busy/' || n, 100 + n, 1 FROM generate_series(1, %1) n"_s.arg(
            kRankedValues));
    for (const QString& day : {u"2026-03-02"_s, u"2026-03-03"_s, u"2026-03-04"_s}) {
        addValue(u"path"_s, u"/steady"_s, 90, {}, u"NULL, NULL"_s, day);
        addValue(u"path"_s, u"/rare"_s, 20, {}, u"NULL, NULL"_s, day);
        addValue(u"path"_s, {}, 1000, {}, u"NULL, NULL"_s, day);
    }
    const Ranking paths = read().rankings[u"path"_s];
    QCOMPARE(paths.values.size(), kRankedValues);
    QCOMPARE(paths.values.first().value, u"/steady"_s);
    QCOMPARE(paths.values.first().hits, 270);
    QCOMPARE(paths.values.last().value, u"/busy/2"_s);
    QCOMPARE(paths.others(), 101 + 3 * 20 + 3 * 1000);
}

void tst_SiteData::week()
{
    // 2026-03-02 is a Monday.
    addValue(u"hour"_s, u"00"_s, 1, {}, u"NULL, NULL"_s, u"2026-03-02"_s);
    addValue(u"hour"_s, u"23"_s, 2, {}, u"NULL, NULL"_s, u"2026-03-08"_s);
    addValue(u"hour"_s, u"23"_s, 4, {}, u"NULL, NULL"_s, u"2026-03-15"_s);
    addValue(u"hour"_s, u"24"_s, 8, {}, u"NULL, NULL"_s, u"2026-03-15"_s);
    const SiteFigures figures = read(1, QDate(2026, 3, 2), QDate(2026, 3, 15));
    QCOMPARE(figures.week[0][0], 1);
    QCOMPARE(figures.week[6][23], 6);
    qint64 sum = 0;
    for (const auto& day : figures.week)
        sum = std::accumulate(day.begin(), day.end(), sum);
    QCOMPARE(sum, 7);
}

void tst_SiteData::searchTermsBesideTheEngines()
{
    run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'a.example')"_s);
    run(u"INSERT INTO tarn.search_properties VALUES (1, 'google', 'sc-domain:example.org')"_s);
    run(u"INSERT INTO tarn.search_rows (site_id, engine, day, query, clicks, impressions, position) VALUES "
        "(1, 'google', '2026-03-02', 'boots', 2, 10, 4), (1, 'google', '2026-03-03', 'boots', 1, 30, 8), "
        "(1, 'google', '2026-03-03', 'unseen', 1, 0, 3), (1, 'google', '2026-03-05', 'later', 9, 9, 9), "
        "(2, 'google', '2026-03-03', 'of another site', 9, 9, 9), (1, 'google', '2026-03-03', NULL, 9, 9, 9)"_s);
    addValue(u"search_terms"_s, u"Boots"_s, 7);
    addValue(u"search_terms"_s, u"visits only"_s, 5);

    const SiteFigures figures = read();
    QVERIFY(figures.searchConnected);
    QCOMPARE(figures.searchTerms.size(), 3);
    QCOMPARE(figures.searchTerms[0].term, u"boots"_s);
    QCOMPARE(figures.searchTerms[0].clicks, 3);
    QCOMPARE(figures.searchTerms[0].impressions, 40);
    QCOMPARE(figures.searchTerms[0].position, 7.0);
    QCOMPARE(figures.searchTerms[0].views, 7);
    QCOMPARE(figures.searchTerms[1].term, u"unseen"_s);
    QVERIFY(!figures.searchTerms[1].position);
    QCOMPARE(figures.searchTerms[2].term, u"visits only"_s);
    QCOMPARE(figures.searchTerms[2].views, 5);
    QVERIFY(!read(2).searchConnected);
}

void tst_SiteData::searchTermsAreCut()
{
    run(u"INSERT INTO tarn.search_rows (site_id, engine, day, query, clicks, impressions, position) "
        "SELECT 1, 'google', '2026-03-03', 'q' || n, n, n, 1 FROM generate_series(1, %1) n"_s.arg(kSearchTerms
                                                                                                  + 1));
    const QList<SearchTerm> terms = read().searchTerms;
    QCOMPARE(terms.size(), kSearchTerms);
    QCOMPARE(terms.last().term, u"q2"_s);
}

void tst_SiteData::live()
{
    run(u"INSERT INTO tarn.hits (site_id, at, method, path, status, is_page, visitor, bot) "
        "SELECT 1, now() - m * interval '1 minute', 'GET', '/', 200, true, convert_to('visitor' || m, "
        "'UTF8'), b "
        "FROM (VALUES (1, NULL), (2, NULL), (6, NULL), (3, 'Googlebot')) v (m, b)"_s);
    QCOMPARE(read().liveVisitors, 2);
    QCOMPARE(read(2).liveVisitors, 0);
}

void tst_SiteData::sitesByHost()
{
    run(u"INSERT INTO tarn.sites (id, host) VALUES (7, 'b.example'), (8, 'a.example'), (9, 'c.example')"_s);
    const auto hosts = [](const QStringList& wanted) {
        QStringList found;
        const QList<Site> sites = readSites(wanted).value_or(QList<Site>());
        for (const Site& site : sites)
            found.append(QString::number(site.id) + u' ' + site.host);
        return found.join(u", "_s);
    };
    QCOMPARE(hosts({}), u"8 a.example, 7 b.example, 9 c.example"_s);
    QCOMPARE(hosts({u"C.Example"_s, u"b.example"_s}), u"9 c.example, 7 b.example"_s);
}

void tst_SiteData::unknownHost()
{
    run(u"INSERT INTO tarn.sites (id, host) VALUES (7, 'b.example')"_s);
    QTest::ignoreMessage(QtCriticalMsg, "there is no site nobody.example");
    QVERIFY(!readSites({u"b.example"_s, u"nobody.example"_s}));
}

void tst_SiteData::nothingIsWritten()
{
    const Reading reading;
    QVERIFY(reading.begun());
    QSqlQuery query;
    QVERIFY(!query.exec(u"INSERT INTO tarn.sites (host) VALUES ('x.example')"_s));
    QVERIFY(query.lastError().text().contains(u"read-only transaction"_s));
}

void tst_SiteData::failedStatement()
{
    run(u"DROP TABLE tarn.search_rows"_s);
    const Reading reading;
    QVERIFY(reading.begun());
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: .*search_rows"_s));
    QVERIFY(!readSite({1, u"example.org"_s}, {QDate(2026, 3, 2), QDate(2026, 3, 4)}));
}

void tst_SiteData::demo()
{
    m_report.session.close();
    QVERIFY(m_report.openFilled());
    const Reading reading;
    QVERIFY(reading.begun());
    const QDate today = readNow()->today;
    const std::optional<SiteFigures> figures =
        readSite({1, u"www.example.org"_s}, {today.addDays(-29), today});
    QVERIFY(figures);
    // Those of year.sql that are not older than five minutes by now.
    QCOMPARE(
        QString::number(figures->liveVisitors),
        scalar(
            u"SELECT count(DISTINCT visitor) FROM tarn.hits WHERE bot IS NULL AND at > now() - interval '5 minutes'"_s));
    QCOMPARE(figures->searchTerms.first().term, u"walking boots"_s);
    QCOMPARE(
        QString::number(figures->total.views),
        scalar(
            u"SELECT sum(page_views) FROM tarn.site_days WHERE site_id = 1 AND day > current_date - 30"_s));
}

QTEST_GUILESS_MAIN(tst_SiteData)
#include "tst_SiteData.moc"
