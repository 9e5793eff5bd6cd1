#include "analytics/GoogleFixture.h"

#include <QJsonDocument>
#include <QJsonObject>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;
using Delivery = FakeHosts::Delivery;

/// What a synchronisation asks for, page by page, and what becomes of the answers.
class tst_GoogleSync : public GoogleFixture
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void cleanupTestCase() { endProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void window_data()
    {
        QTest::addColumn<QDate>("lastStored");
        QTest::addColumn<QDate>("today");
        QTest::addColumn<QDate>("from");
        QTest::newRow("first") << QDate() << QDate(2024, 11, 15) << QDate(2023, 7, 15);
        QTest::newRow("first-over-two-new-years") << QDate() << QDate(2025, 1, 31) << QDate(2023, 9, 30);
        QTest::newRow("first-end-of-a-longer-month") << QDate() << QDate(2024, 10, 31) << QDate(2023, 6, 30);
        QTest::newRow("first-back-to-february") << QDate() << QDate(2024, 6, 30) << QDate(2023, 2, 28);
        QTest::newRow("first-back-to-a-leap-day") << QDate() << QDate(2025, 6, 30) << QDate(2024, 2, 29);
        QTest::newRow("first-on-a-leap-day") << QDate() << QDate(2024, 2, 29) << QDate(2022, 10, 29);
        QTest::newRow("first-from-january") << QDate() << QDate(2024, 5, 1) << QDate(2023, 1, 1);
        QTest::newRow("later") << QDate(2024, 11, 13) << QDate(2024, 11, 15) << QDate(2024, 11, 3);
        QTest::newRow("today-is-stored") << QDate(2024, 11, 15) << QDate(2024, 11, 15) << QDate(2024, 11, 5);
        QTest::newRow("over-a-month-end") << QDate(2024, 11, 3) << QDate(2024, 11, 5) << QDate(2024, 10, 24);
        QTest::newRow("over-new-year") << QDate(2025, 1, 10) << QDate(2025, 1, 12) << QDate(2024, 12, 31);
        QTest::newRow("over-a-leap-day") << QDate(2024, 3, 5) << QDate(2024, 3, 7) << QDate(2024, 2, 24);
        QTest::newRow("over-a-february") << QDate(2023, 3, 5) << QDate(2023, 3, 7) << QDate(2023, 2, 23);
        QTest::newRow("long-ago") << QDate(2022, 1, 1) << QDate(2024, 11, 15) << QDate(2021, 12, 22);
        QTest::newRow("clock-set-back") << QDate(2024, 11, 30) << QDate(2024, 11, 15) << QDate(2024, 11, 20);
    }
    void window()
    {
        QFETCH(const QDate, lastStored);
        QFETCH(const QDate, today);
        QFETCH(const QDate, from);
        const analytics::google::Window window = analytics::google::windowFor(lastStored, today);
        QCOMPARE(window.from, from);
        QCOMPARE(window.to, today);
    }

    void notConnected_data()
    {
        QTest::addColumn<Client>("client");
        QTest::addColumn<QString>("refresh"); // null: there is no row at all
        QTest::newRow("no-secret") << Client{u"17"_s, {}, {}} << kRefresh;
        QTest::newRow("no-id") << Client{{}, kSecret, {}} << kRefresh;
        QTest::newRow("no-connection") << kClient << QString();
        QTest::newRow("empty-token") << kClient << u""_s;
    }
    void notConnected()
    {
        QFETCH(const Client, client);
        QFETCH(const QString, refresh);
        if (!refresh.isNull())
            haveConnection(refresh);
        run(u"INSERT INTO tarn.engine_accounts (engine, refresh_token) VALUES ('bing', 'other')"_s);
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        QCOMPARE(analytics::google::sync(client), u"not connected"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.engine_accounts WHERE last_sync_at IS NOT NULL OR "
                        "last_result IS NOT NULL"_s),
                 u"0"_s);
        QCOMPARE(g_messages, QStringList());
    }

    void notConnectedWithoutTheTable()
    {
        run(u"ALTER TABLE tarn.engine_accounts RENAME TO away"_s);
        expectSqlWarning(u"relation \"tarn.engine_accounts\" does not exist"_s);
        QCOMPARE(analytics::google::sync(kClient), u"not connected"_s);
    }

    void noAccessToken_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("missing") << QByteArray("{}");
        QTest::newRow("empty-token") << QByteArray("{'access_token':''}");
        QTest::newRow("number") << QByteArray("{'access_token':17}");
        QTest::newRow("broken-json") << QByteArray("{'access_token':'ya29.access'");
        QTest::newRow("empty") << QByteArray();
    }
    void noAccessToken()
    {
        QFETCH(const QByteArray, body);
        haveConnection();
        m_hosts.expect(refreshRequest(), json(body));
        QCOMPARE(sync(), u""_s);
    }

    void anAccessTokenThatComesWithAnErrorIsUsed()
    {
        haveConnection();
        m_hosts.expect(refreshRequest(),
                       json("{'access_token':'ya29.access','error':{'message':'deprecated'}}", 400));
        m_hosts.expect(sitesRequest(), noProperties());
        QCOMPARE(sync(), u"no Search Console property matches a site here"_s);
    }

    void synchronises()
    {
        haveConnection();
        haveSite(2, u"b.example.org"_s);
        haveSite(1, u"a.example.org"_s);
        haveSite(3, u"c.example.org"_s);
        const QDate today = QDate::currentDate();
        const auto daysAgo = [today](int days) { return iso(today.addDays(-days)); };
        run(u"INSERT INTO tarn.search_days VALUES (2, 'google', '%1', 1, 1, 1), (2, 'google', '%2', 1, 1, "
            u"1), "
            "(2, 'bing', '%3', 1, 1, 1), (3, 'google', '%3', 1, 1, 1)"_s.arg(
                QString::fromLatin1(daysAgo(2)), QString::fromLatin1(daysAgo(3)),
                QString::fromLatin1(daysAgo(0))));
        QVERIFY(m_hosts.expectFile(QStringLiteral(TARN_TEST_DATA "/google/sync.txt"),
                                   {
                                       {"today",         daysAgo(0)               },
                                       {"2-days-ago",    daysAgo(2)               },
                                       {"12-days-ago",   daysAgo(12)              },
                                       {"16-months-ago", iso(today.addMonths(-16))}
        }));
        QCOMPARE(sync(), u"a.example.org: 2 days (2024-10-10 to 2024-10-11), 2 detail rows; b.example.org: "
                         "1 days (%1 to %1), 0 detail rows"_s.arg(QString::fromLatin1(daysAgo(2))));
        QCOMPARE(scalar(u"SELECT string_agg(concat_ws(' ', site_id, day, clicks, impressions, position), '|' "
                        "ORDER BY day) FROM tarn.search_days WHERE engine = 'google' AND site_id = 1"_s),
                 u"1 2024-10-10 3 120 7.5|1 2024-10-11 2 80 6.25"_s);
        QCOMPARE(scalar(u"SELECT clicks FROM tarn.search_days WHERE site_id = 2 AND engine = 'google' AND "
                        "day = '%1'"_s.arg(QString::fromLatin1(daysAgo(2)))),
                 u"5"_s);
        QCOMPARE(
            scalar(u"SELECT string_agg(concat_ws(' ', site_id, engine, day, query, page, "
                   "coalesce(country, 'NULL'), device, clicks, impressions, position), '|' ORDER BY day) "
                   "FROM tarn.search_rows"_s),
            u"1 google 2024-10-10 red shoes /shop/ DE mobile 1 20 2.5|1 google 2024-10-11 schöne schuhe "
            "/shop/schön NULL desktop 0 7 9"_s);
        QCOMPARE(g_messages, QStringList{u"collect: synchronising 2 sites with Google"_s});
    }

    void theLastStoredDayMayBeToday()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        const QDate today = QDate::currentDate();
        run(u"INSERT INTO tarn.search_days VALUES (1, 'google', '%1', 1, 1, 1)"_s.arg(
            today.toString(Qt::ISODate)));
        expectStart();
        QByteArrayList days;
        m_hosts.answer([&days](const FakeHosts::Request& request) {
            const QJsonObject body = QJsonDocument::fromJson(request.body).object();
            days += body[u"startDate"].toString().toLatin1() + ' ' + body[u"endDate"].toString().toLatin1();
            return json("{}");
        });
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
        const QByteArray expected = iso(today.addDays(-10)) + ' ' + iso(today);
        QCOMPARE(days, QByteArrayList({expected, expected}));
    }

    /// In a zone in which another day has begun, or the day before is not over.
    void todayIsTheLocalDay()
    {
        const int hour = QDateTime::currentDateTimeUtc().time().hour();
        const Zone zone("<test>" + QByteArray::number(hour < 12 ? hour + 2 : -13)); // hours west
        QVERIFY(QDate::currentDate() != QDateTime::currentDateTimeUtc().date());
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), json("{}"));
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"), json("{}"));
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
    }

    void propertyReachesGoogleAsItIs_data()
    {
        QTest::addColumn<QString>("property");
        QTest::addColumn<QByteArray>("encoded");
        QString ascii;
        for (char16_t c = 0x21; c < 0x7f; ++c)
            ascii += c;
        QTest::newRow("every-character-of-ascii")
            << ascii
            << "%21%22%23%24%25%26%27%28%29%2A%2B%2C-.%2F0123456789%3A%3B%3C%3D%3E%3F%"
               "40ABCDEFGHIJKLMNOPQRSTUVWX"
               "YZ%5B%5C%5D%5E_%60abcdefghijklmnopqrstuvwxyz%7B%7C%7D~"_ba;
        QTest::newRow("percent-encoded-already")
            << u"https://d.example/a%20b%2Fc%C3%BC%41/"_s
            << "https%3A%2F%2Fd.example%2Fa%2520b%252Fc%25C3%25BC%2541%2F"_ba;
        QTest::newRow("plus-and-space")
            << u"https://d.example/a+b c/"_s << "https%3A%2F%2Fd.example%2Fa%2Bb%20c%2F"_ba;
        QTest::newRow("non-ascii") << u"sc-domain:bücher.example\U0001F600"_s
                                   << "sc-domain%3Ab%C3%BCcher.example%F0%9F%98%80"_ba;
        QTest::newRow("path-that-goes-up")
            << u"https://d.example/a/../b/./"_s << "https%3A%2F%2Fd.example%2Fa%2F..%2Fb%2F.%2F"_ba;
        QTest::newRow("line-end") << u"sc-domain:a\r\nb"_s << "sc-domain%3Aa%0D%0Ab"_ba;
    }
    void propertyReachesGoogleAsItIs()
    {
        QFETCH(const QString, property);
        QFETCH(const QByteArray, encoded);
        haveConnection();
        haveSite(1, u"a.example.org"_s);
        run(u"INSERT INTO tarn.search_properties VALUES (1, 'google', $x$%1$x$)"_s.arg(property));
        expectStart();
        m_hosts.expect(totalsRequest(encoded), json("{}"));
        m_hosts.expect(pageRequest(encoded), json("{}"));
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
    }

    void noNewData_data()
    {
        QTest::addColumn<QByteArray>("body"); // of the totals
        QTest::newRow("empty-rows") << QByteArray("{'rows':[]}");
        QTest::newRow("no-rows") << QByteArray("{'responseAggregationType':'byProperty'}");
        QTest::newRow("null") << QByteArray("{'rows':null}");
        QTest::newRow("broken-json") << QByteArray("{'rows':[{'keys':['2024-10-10']}");
        QTest::newRow("error-in-a-success") << QByteArray("{'error':{'message':'not so'}}");
        QTest::newRow("empty") << QByteArray();
    }
    void noNewData()
    {
        QFETCH(const QByteArray, body);
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        run(u"INSERT INTO tarn.search_rows VALUES (1, 'google', '2024-10-10', 'q', '/', 'DE', 'mobile', 1, "
            u"1, "
            "1)"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), json(body));
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"), page(3)); // asked for, and dropped
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
        QCOMPARE(rowCount(), u"1"_s);
    }

    void aFailingSiteStopsNoOther()
    {
        haveConnection();
        haveSite(3, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        haveSite(2, u"b.example.org"_s, u"sc-domain:b.example.org"_s);
        haveSite(1, u"c.example.org"_s, u"sc-domain:c.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), totals());
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"), page(1));
        // None of its pages is asked for.
        m_hosts.expect(totalsRequest("sc-domain%3Ab.example.org"),
                       json("{'error':{'message':'User does not have access'}}", 403));
        m_hosts.expect(totalsRequest("sc-domain%3Ac.example.org"), totals("2024-10-11"));
        m_hosts.expect(pageRequest("sc-domain%3Ac.example.org"), page(2));
        QCOMPARE(sync(),
                 u"a.example.org: 1 days (2024-10-10 to 2024-10-10), 1 detail rows; b.example.org: User "
                 "does not have access; c.example.org: 1 days (2024-10-11 to 2024-10-11), 2 detail "
                 "rows"_s);
        QCOMPARE(rowCount(), u"3"_s);
    }

    void anImportThatFailsStopsNoOther()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        haveSite(2, u"b.example.org"_s, u"sc-domain:b.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), totals());
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"), page(1, "{'keys':['soon']}"));
        m_hosts.expect(totalsRequest("sc-domain%3Ab.example.org"), totals());
        m_hosts.expect(pageRequest("sc-domain%3Ab.example.org"), page(1));
        expectSqlWarning(u"invalid input syntax for type date: \"soon\""_s);
        QCOMPARE(sync(), u"a.example.org: database error while storing; b.example.org: 1 days (2024-10-10 to "
                         "2024-10-10), 1 detail rows"_s);
        QCOMPARE(rowCount(), u"1"_s);
    }

    /// Which pages are asked for, told by how many rows each has; nothing is stored, for want of totals.
    void pages_data()
    {
        QTest::addColumn<QList<int>>("counts");
        QTest::newRow("none") << QList<int>{0};
        QTest::newRow("one-short-of-a-page") << QList<int>{kPage - 1};
        QTest::newRow("a-page") << QList<int>{kPage, 0};
        QTest::newRow("a-page-and-one") << QList<int>{kPage, 1};
        QTest::newRow("two-pages") << QList<int>{kPage, kPage, 0};
        QTest::newRow("more-than-was-asked-for") << QList<int>{kPage + 1, 0};
        QTest::newRow("a-million") << QList<int>(40, kPage);
    }
    void pages()
    {
        QFETCH(const QList<int>, counts);
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), json("{}"));
        for (int i = 0; i < counts.size(); ++i)
            m_hosts.expect(pageRequest("sc-domain%3Aa.example.org", i * kPage), page(counts.at(i), "0"));
        if (counts.size() == 40) {
            QTest::ignoreMessage(QtWarningMsg,
                                 "collect: google: a.example.org: details end with page 40, the last "
                                 "that is asked for: rows from 1000000 on are missing");
        }
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
    }

    void whatCameBeforeAFailedPageIsStored_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<Delivery>("delivery");
        QTest::addColumn<int>("stored");
        QTest::addColumn<QString>("reason");
        const QByteArray row = page(1).body;
        QTest::newRow("server-error") << 500 << QByteArray() << Delivery::Whole << kPage << statusText(500);
        QTest::newRow("quota") << 429 << json("{'error':{'message':'Slow down'}}").body << Delivery::Whole
                               << kPage << u"Slow down"_s;
        QTest::newRow("redirect") << 302 << row << Delivery::Whole << kPage << redirectText(302);
        QTest::newRow("broken-json") << 200 << row.chopped(1) << Delivery::Whole << kPage
                                     << u"the answer is no JSON object"_s;
        const qsizetype size = page(100).body.size();
        QTest::newRow("cut") << 200 << page(100).body << Delivery::CutInBody << kPage
                             << u"transfer closed with %1 bytes remaining to read"_s.arg(size - size / 2);
        QTest::newRow("in-chunks") << 200 << page(100).body << Delivery::Chunked << kPage + 100 << QString();
    }
    void whatCameBeforeAFailedPageIsStored()
    {
        QFETCH(const int, status);
        QFETCH(const QByteArray, body);
        QFETCH(const Delivery, delivery);
        QFETCH(const int, stored);
        QFETCH(const QString, reason);
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), totals());
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"), page(kPage));
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org", kPage),
                       {.status = status,
                        .body = body,
                        .headers = {{"Location", "https://elsewhere.example.net/"}},
                        .delivery = delivery});
        const auto warning =
            u"collect: google: a.example.org: page 2 of the details failed, rows from 25000 on are "
            "missing: "_s
            + reason;
        if (!reason.isEmpty())
            QTest::ignoreMessage(QtWarningMsg, qPrintable(warning));
        QCOMPARE(sync(), u"a.example.org: 1 days (2024-10-10 to 2024-10-10), %1 detail rows"_s.arg(stored));
        QCOMPARE(rowCount(), QString::number(stored));
        QCOMPARE(g_messages.count(warning), reason.isEmpty() ? 0 : 1);
    }

    void oddCharactersAreStored()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), totals());
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"),
                       page(1, "{'keys':['2024-10-10','a\\u0000b\\ud800','https://a/%00x\\u0000',null,7],"
                               "'clicks':'3','impressions':2.5,'position':null}"));
        QCOMPARE(sync(), u"a.example.org: 1 days (2024-10-10 to 2024-10-10), 1 detail rows"_s);
        QCOMPARE(
            scalar(u"SELECT concat_ws(' ', left(query, 2), page, coalesce(country, 'NULL'), '<' || device "
                   "|| '>', clicks, impressions, position) FROM tarn.search_rows"_s),
            u"ab /x NULL <> 0 0 0"_s);
    }
};

QTEST_GUILESS_MAIN(tst_GoogleSync)
#include "tst_GoogleSync.moc"
