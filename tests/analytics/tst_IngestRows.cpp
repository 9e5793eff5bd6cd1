#include "analytics/IngestTest.h"

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

/// What the fields of a line make of its row.
class tst_IngestRows : public IngestTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void everyColumnOfAHit()
    {
        useCountries();
        const auto result = ingest({
            Line{.request = "GET /shoes%20red/?utm_x=1 HTTP/1.1",
                 .referrer = "https://www.bing.com/search?q=red%20shoes"}
                .text()
        });
        QCOMPARE(result.lines, 1);
        QCOMPARE(result.stored, 1);
        QCOMPARE(result.skipped, 0);
        QCOMPARE(result.days, QSet<QDate>{QDate(2024, 10, 10)});
        QCOMPARE(onlyHit(u"site_id, at AT TIME ZONE 'UTC', method, path, status, bytes, is_page, host(ip)"_s),
                 QStringList({u"1"_s, u"2024-10-10T13:55:36.000"_s, u"GET"_s, u"/shoes red/"_s, u"200"_s,
                              u"2326"_s, u"true"_s, u"192.0.2.1"_s}));
        QCOMPARE(onlyHit(u"country, source_kind, source, referrer, search_terms"_s),
                 QStringList({u"DE"_s, u"search"_s, u"Bing"_s, u"https://www.bing.com/search?q=red%20shoes"_s,
                              u"red shoes"_s}));
        QCOMPARE(onlyHit(u"device, browser, os, bot, engaged_secs, response_us"_s),
                 QStringList({u"desktop"_s, u"Firefox"_s, u"Linux"_s, u"NULL"_s, u"NULL"_s, u"1234"_s}));
        QCOMPARE(onlyHit(u"session_id = (SELECT last_value FROM tarn.session_seq)"_s),
                 QStringList{u"true"_s});
        const QByteArray visitor =
            m_ingest->visitorHash(1, u"192.0.2.1"_s, kFirefox, QDate(2024, 10, 10)).toHex();
        QCOMPARE(scalar(u"SELECT encode(visitor, 'hex') FROM tarn.hits"_s), QString::fromLatin1(visitor));
    }

    void emptyValuesAreNull()
    {
        ingest({
            Line{.request = "", .bytes = "-", .referrer = "-", .agent = "-", .rest = ""}
            .text()
        });
        QCOMPARE(
            onlyHit(u"method, path, bytes, is_page, country, source_kind, source, referrer, search_terms"_s),
            QStringList(
                {u""_s, u""_s, u"0"_s, u"false"_s, u"NULL"_s, u"direct"_s, u"NULL"_s, u"NULL"_s, u"NULL"_s}));
        QCOMPARE(onlyHit(u"bot, response_us"_s), QStringList({u"No user agent"_s, u"0"_s}));
    }

    void responseTime_data()
    {
        QTest::addColumn<QByteArray>("field");
        QTest::addColumn<QString>("stored");
        QTest::newRow("zero") << QByteArray("0") << u"0"_s;
        QTest::newRow("largest") << QByteArray("2147483646") << u"2147483646"_s;
        QTest::newRow("largest-plus-one") << QByteArray("2147483647") << u"NULL"_s;
        QTest::newRow("past-64-bits") << QByteArray("99999999999999999999") << u"NULL"_s;
    }
    void responseTime()
    {
        QFETCH(const QByteArray, field);
        QFETCH(const QString, stored);
        ingest({Line{.rest = ' ' + field}.text()});
        QCOMPARE(onlyHit(u"response_us"_s), QStringList{stored});
    }

    void textsAreCut()
    {
        ingest({
            Line{.request = QByteArray(17, 'M') + " /" + QByteArray(2000, 'p') + " HTTP/1.1",
                 .referrer = "https://example.net/" + QByteArray(1000, 'r')}
                .text()
        });
        QCOMPARE(onlyHit(u"length(method), length(path), length(referrer)"_s),
                 QStringList({u"16"_s, u"2000"_s, u"1000"_s}));
    }

    void largeNumbersAreStored()
    {
        ingest({
            Line{.status = "1000", .bytes = "2147483648"}
            .text()
        });
        ingest({
            Line{.status = "2147483647", .bytes = "9223372036854775807"}
            .text()
        });
        QCOMPARE(ofEachHit(u"concat_ws(' ', status, bytes)"_s),
                 u"1000 2147483648|2147483647 9223372036854775807"_s);
    }

    void agentsAreTakenWhole()
    {
        const QByteArray start = "Mozilla/5.0 " + QByteArray(300, 'x');
        for (const char* end : {" Firefox/128.0", " Firefox/129.0", " Googlebot/2.1"})
            ingest({withAgent(start + end)});
        QCOMPARE(ofEachHit(u"coalesce(bot, browser)"_s), u"Firefox|Firefox|Googlebot"_s);
        QCOMPARE(scalar(u"SELECT count(DISTINCT visitor) FROM tarn.hits"_s), u"3"_s);
    }

    void termsOfGoogleAreStoredWhole()
    {
        // All of them stand behind the 1,000 bytes that are stored of a referrer.
        ingest({withReferrer("https://www.google.com/search?x=" + QByteArray(1'000, 'x')
                             + "&q=" + QByteArray(5'000, 'q'))});
        QCOMPARE(ofEachHit(u"concat_ws(' ', source, length(search_terms), length(referrer))"_s),
                 u"Google 5000 1000"_s);
    }

    void carriageReturnReachesTheParser()
    {
        ingest({lineAt("10:00:00") + '\r'});
        QCOMPARE(onlyHit(u"response_us"_s), QStringList{u"0"_s}); // "1234\r" is no number
    }

    void theTargetIsSplitAtItsFirstQuestionMark_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QString>("stored"); // method and path
        QTest::newRow("in-the-query") << QByteArray("/a?b=1?c=2") << u"GET /a"_s;
        QTest::newRow("doubled") << QByteArray("/a??b") << u"GET /a"_s;
        QTest::newRow("encoded") << QByteArray("/a%3Fb?c") << u"GET /a?b"_s;
        QTest::newRow("in-the-page-of-a-beacon") << QByteArray("/tarn-b?p=/a?b&t=5") << u"BEACON /a?b"_s;
    }
    void theTargetIsSplitAtItsFirstQuestionMark()
    {
        QFETCH(const QByteArray, target);
        QFETCH(const QString, stored);
        ingest({withTarget(target)});
        QCOMPARE(ofEachHit(u"method || ' ' || path"_s), stored);
    }

    void pagesAreToldByTheWholeDecodedPath_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<bool>("isPage");
        QTest::newRow("encoded-dot") << QByteArray("/style%2Ecss") << false;
        QTest::newRow("encoded-letter-of-a-prefix") << QByteArray("/%61pi/x") << false;
        QTest::newRow("encoded-slash-behind-the-dot") << QByteArray("/v1.2%2Fguide") << true;
        QTest::newRow("extension-past-what-is-stored") << "/" + QByteArray(2'000, 'x') + ".css" << false;
        QTest::newRow("slash-past-what-is-stored") << "/x." + QByteArray(2'000, 'x') + "/guide" << true;
    }
    void pagesAreToldByTheWholeDecodedPath()
    {
        QFETCH(const QByteArray, target);
        QFETCH(const bool, isPage);
        ingest({withTarget(target)});
        QCOMPARE(ofEachHit(u"is_page"_s), isPage ? u"true"_s : u"false"_s);
    }

    void linksAreInternalToTheSiteOfTheCall()
    {
        const QByteArray line = withReferrer("https://www.example.net/shop");
        m_ingest->ingest(2, u"example.net"_s, {line});
        m_ingest->ingest(1, u"example.org"_s, {line});
        QCOMPARE(ofEachHit(u"concat_ws(' ', source_kind, source)"_s), u"internal|referral example.net"_s);
    }

    void aRememberedReferrerHidesNoCampaign()
    {
        const auto from = [](const QByteArray& target) {
            return Line{.request = "GET " + target + " HTTP/1.1", .referrer = "https://example.net/a"}.text();
        };
        ingest({from("/"), from("/?utm_source=news"), from("/?utm%5Fsource=mail"), from("/?a=1"), from("/")});
        m_ingest->ingest(2, u"example.net"_s, {from("/")});
        QCOMPARE(scalar(u"SELECT string_agg(source_kind || ' ' || coalesce(source, '-'), ', ' ORDER BY ctid) "
                        "FROM tarn.hits"_s),
                 u"referral example.net, campaign news, campaign mail, referral example.net, referral "
                 "example.net, internal -"_s);
    }

    void strayPercentSignsStay_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("columns");
        QTest::addColumn<QStringList>("stored");
        QTest::newRow("path") << Line{.request = "GET /50%-off%20shoes HTTP/1.1"}.text() << u"path"_s
                              << QStringList{u"/50%-off shoes"_s};
        QTest::newRow("end-of-a-path")
            << Line{.request = "GET /100% HTTP/1.1"}.text() << u"path"_s << QStringList{u"/100%"_s};
        QTest::newRow("one-digit") << Line{.request = "GET /%4/%zz HTTP/1.1"}.text() << u"path"_s
                                   << QStringList{u"/%4/%zz"_s};
        QTest::newRow("search-terms")
            << Line{.referrer = "https://www.google.com/search?q=100%+red%20shoes"}.text()
            << u"search_terms"_s << QStringList{u"100%+red shoes"_s};
        QTest::newRow("campaign")
            << Line{.request = "GET /?utm_source=50%-off%20now&utm_campaign=%20% HTTP/1.1"}.text()
            << u"source, search_terms"_s << QStringList{u"50%-off now"_s, u" %"_s};
        QTest::newRow("beacon") << beaconLine("?p=/50%-off%20shoes&t=5") << u"path"_s
                                << QStringList{u"/50%-off shoes"_s};
    }
    void strayPercentSignsStay()
    {
        QFETCH(const QByteArray, line);
        QFETCH(const QString, columns);
        ingest({line});
        QTEST(onlyHit(columns), "stored");
    }

    void whatAStrangerSends_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<QString>("columns");
        QTest::addColumn<QStringList>("stored"); // empty when the line is skipped
        const auto path = u"path"_s;
        const QString address = u"host(ip)"_s;
        QTest::newRow("nul-in-path") << Line{.request = "GET /a%00b HTTP/1.1"}.text() << path
                                     << QStringList{u"/ab"_s};
        QTest::newRow("nul-in-campaign")
            << Line{.request = "GET /?utm_source=a%00b&utm_campaign=%00 HTTP/1.1"}.text()
            << u"source, search_terms"_s << QStringList{u"ab"_s, u"NULL"_s};
        QTest::newRow("nul-in-search-terms")
            << Line{.referrer = "https://www.google.com/?q=a%00'; DROP TABLE x"}.text()
            << u"source, search_terms"_s << QStringList{u"Google"_s, u"a'; DROP TABLE x"_s};
        QTest::newRow("nul-in-beacon") << beaconLine("?p=/a%00b&t=5") << path << QStringList{u"/ab"_s};
        QTest::newRow("raw-nul-in-request") << Line{.request = QByteArray("G\0T /a\0b HTTP/1.1", 17)}.text()
                                            << u"method, path"_s << QStringList{u"GT"_s, u"/ab"_s};
        QTest::newRow("raw-nul-in-referrer")
            << Line{.referrer = QByteArray("http://a.example/\0x", 19)}.text() << u"referrer"_s
            << QStringList{u"http://a.example/x"_s};
        QTest::newRow("referrer-of-nuls")
            << Line{.referrer = QByteArray("\0\0", 2)}.text() << u"referrer"_s << QStringList{u"NULL"_s};
        QTest::newRow("raw-nul-in-agent")
            << Line{.agent = QByteArray("curl/\0", 6)}.text() << u"bot"_s << QStringList{u"curl"_s};
        QTest::newRow("raw-nul-in-address")
            << Line{.ip = QByteArray("192.0.2.1\0", 10)}.text() << address << QStringList{u"NULL"_s};
        QTest::newRow("invalid-utf8-in-path") << Line{.request = "GET /%ff%C3(\xf0\x28 HTTP/1.1"}.text()
                                              << u"length(path) > 3"_s << QStringList{u"true"_s};
        QTest::newRow("encoded-surrogate") << Line{.request = "GET /%ED%A0%80 HTTP/1.1"}.text()
                                           << u"length(path) > 1"_s << QStringList{u"true"_s};
        QTest::newRow("invalid-utf8-in-referrer")
            << Line{.referrer = "\xff\xfe\xc3"}.text() << u"length(referrer)"_s << QStringList{u"3"_s};
        QTest::newRow("character-cut-in-referrer")
            << Line{.referrer = QByteArray(999, 'x') + "\xc3\xa9"}.text() << u"length(referrer)"_s
            << QStringList{u"1000"_s};
        QTest::newRow("character-cut-in-path")
            << Line{.request = "GET /" + QByteArray(1998, 'x') + "%F0%9F%98%80 HTTP/1.1"}.text()
            << u"length(path)"_s << QStringList{u"2000"_s};
        QTest::newRow("quote-and-backslash")
            << Line{.request = "GET /\\\"'\\\\ HTTP/1.1"}.text() << path << QStringList{u"/\"'\\"_s};
        QTest::newRow("address-of-one-number") << Line{.ip = "1"}.text() << address << QStringList{u"NULL"_s};
        QTest::newRow("address-of-two-numbers")
            << Line{.ip = "127.1"}.text() << address << QStringList{u"NULL"_s};
        QTest::newRow("address-of-three-numbers")
            << Line{.ip = "1.2.3"}.text() << address << QStringList{u"NULL"_s};
        QTest::newRow("address-in-hexadecimal")
            << Line{.ip = "0x7f.1.1.1"}.text() << address << QStringList{u"NULL"_s};
        QTest::newRow("address-with-zone")
            << Line{.ip = "fe80::1%eth0"}.text() << address << QStringList{u"NULL"_s};
        QTest::newRow("address-with-prefix")
            << Line{.ip = "10.0.0.0/8"}.text() << address << QStringList{u"NULL"_s};
        QTest::newRow("address-with-tab")
            << Line{.ip = "192.0.2.1\t"}.text() << address << QStringList{u"NULL"_s};
        QTest::newRow("address-mapped")
            << Line{.ip = "::ffff:192.0.2.1"}.text() << address << QStringList{u"::ffff:192.0.2.1"_s};
        QTest::newRow("year-before-one")
            << Line{.time = "10/Oct/-001:13:55:36 +0000"}.text() << path << QStringList();
        QTest::newRow("year-one-before-utc")
            << Line{.time = "01/Jan/0001:00:00:00 +0100"}.text() << path << QStringList();
        QTest::newRow("year-one") << Line{.time = "01/Jan/0001:01:00:00 +0100"}.text() << path
                                  << QStringList{u"/about"_s};
        QTest::newRow("year-9999") << Line{.time = "31/Dec/9999:23:59:59 +0000"}.text() << path
                                   << QStringList{u"/about"_s};
        QTest::newRow("year-9999-past-utc")
            << Line{.time = "31/Dec/9999:23:59:59 -0100"}.text() << path << QStringList();
        QTest::newRow("zone-of-sixteen-hours")
            << Line{.time = "10/Oct/2024:13:00:00 +1600"}.text() << u"at AT TIME ZONE 'UTC'"_s
            << QStringList{u"2024-10-09T21:00:00.000"_s};
        QTest::newRow("extreme-numbers")
            << Line{.status = "-2147483648", .bytes = "-9223372036854775808"}.text() << u"status, bytes"_s
            << QStringList{u"-2147483648"_s, u"-9223372036854775808"_s};
    }
    void whatAStrangerSends()
    {
        QFETCH(const QByteArray, line);
        QFETCH(const QString, columns);
        QFETCH(const QStringList, stored);
        const QByteArray neighbour = Line{.request = "GET /neighbour HTTP/1.1"}.text();
        const auto result = ingest({neighbour, line, neighbour});
        QCOMPARE(result.lines, 3);
        QCOMPARE(result.skipped, stored.isEmpty() ? 1 : 0);
        QCOMPARE(result.stored, stored.isEmpty() ? 2 : 3);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits WHERE path = '/neighbour'"_s), u"2"_s);
        run(u"DELETE FROM tarn.hits WHERE path = '/neighbour'"_s);
        if (!stored.isEmpty())
            QCOMPARE(onlyHit(columns), stored);
    }
};

QTEST_GUILESS_MAIN(tst_IngestRows)
#include "tst_IngestRows.moc"
