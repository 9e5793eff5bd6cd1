#include "analytics/HitTransaction.h"
#include "analytics/Ingest.h"
#include "common/Db.h"
#include "support/Messages.h"
#include "support/ProductSession.h"

#include <QCryptographicHash>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlQuery>
#include <QTest>
#include <QTimeZone>

#include <cmath>
#include <ctime>
#include <memory>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using analytics::Ingest;
using test::run;
using test::scalar;

namespace {

const auto kFirefox =
    QByteArrayLiteral("Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0");

/// The parts of a log line; what a test does not name is ordinary.
struct Line
{
    QByteArray ip = "192.0.2.1";
    QByteArray time = "10/Oct/2024:13:55:36 +0000";
    QByteArray request = "GET /about HTTP/1.1";
    QByteArray status = "200";
    QByteArray bytes = "2326";
    QByteArray referrer = "-";
    QByteArray agent = kFirefox;
    QByteArray rest = " 1234";

    QByteArray text() const
    {
        return ip + " - - [" + time + "] \"" + request + "\" " + status + ' ' + bytes + " \"" + referrer
               + "\" \"" + agent + '"' + rest;
    }
};

QByteArray lineAt(const QByteArray& clock)
{
    return Line{.time = "10/Oct/2024:" + clock + " +0000"}.text();
}

QByteArray beacon(const QByteArray& query)
{
    return Line{.request = "POST /tarn-b" + query + " HTTP/1.1"}.text();
}

} // namespace

class tst_Ingest : public QObject
{
    Q_OBJECT

private:
    /// The columns of the only hit, as text.
    static QStringList onlyHit(const QString& columns)
    {
        QSqlQuery query(u"SELECT "_s + columns + u" FROM tarn.hits"_s);
        if (query.size() != 1 || !query.next())
            return {u"%1 hits"_s.arg(query.size())};
        QStringList values;
        for (int column = 0; column < columns.count(u',') + 1; ++column)
            values.append(query.isNull(column) ? u"NULL"_s : query.value(column).toString());
        return values;
    }

    static QString hits() { return scalar(u"SELECT count(*) FROM tarn.hits"_s); }

    Ingest::Result ingest(const QList<QByteArray>& lines)
    {
        return m_ingest->ingest(1, u"example.org"_s, lines);
    }

    /// Fills the country table and starts anew with it.
    void useCountries()
    {
        run(u"INSERT INTO tarn.geo_country VALUES ('192.0.2.0', '192.0.2.127', 'DE'), "
            "('198.51.100.0', '198.51.100.255', 'FR'), ('2001:db8::', '2001:db8::ffff', 'SE')"_s);
        startAnew();
    }

    void startAnew()
    {
        m_ingest = std::make_unique<Ingest>();
        QVERIFY(m_ingest->init());
    }

    static void expectBadAddress()
    {
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(u"^sql: .*invalid input syntax for type inet: \"\""_s));
    }

    test::PostgresServer m_server;
    test::ProductSession m_session{m_server};
    std::unique_ptr<Ingest> m_ingest;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_session.open());
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org'), (2, 'example.net')"_s);
        startAnew();
    }

    void cleanup()
    {
        m_ingest.reset();
        qputenv("TZ", "UTC");
        tzset();
        m_session.close();
    }

    void initWantsTheSecret()
    {
        run(u"DELETE FROM tarn.settings WHERE key = 'visitor_secret'"_s);
        QVERIFY(!Ingest().init());
        run(u"DROP TABLE tarn.settings CASCADE"_s);
        QVERIFY(!Ingest().init());
    }

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

    void blankLinesAreNotCounted()
    {
        const auto result = ingest({"", " ", "\r", " \t\r", lineAt("10:00:00"), ""});
        QCOMPARE(result.lines, 1);
        QCOMPARE(result.skipped, 0);
        QCOMPARE(result.stored, 1);
    }

    void carriageReturnReachesTheParser()
    {
        ingest({lineAt("10:00:00") + '\r'});
        QCOMPARE(onlyHit(u"response_us"_s), QStringList{u"0"_s}); // "1234\r" is no number
    }

    void beacon_data()
    {
        QTest::addColumn<QByteArray>("query");
        QTest::addColumn<QString>("seconds"); // of the stored hit; empty when there is none
        QTest::newRow("ordinary") << QByteArray("?p=%2Fabout&t=12.5") << u"12.5"_s;
        QTest::newRow("zero") << QByteArray("?p=/about&t=0") << QString();
        QTest::newRow("negative") << QByteArray("?p=/about&t=-1") << QString();
        QTest::newRow("smallest") << QByteArray("?p=/about&t=0.001") << u"0.001"_s;
        QTest::newRow("six-hours") << QByteArray("?p=/about&t=21600") << u"21600"_s;
        QTest::newRow("six-hours-and-a-second") << QByteArray("?p=/about&t=21601") << QString();
        QTest::newRow("infinite") << QByteArray("?p=/about&t=inf") << QString();
        QTest::newRow("not-a-number") << QByteArray("?p=/about&t=nan") << u"nan"_s;
        QTest::newRow("no-time") << QByteArray("?p=/about") << QString();
        QTest::newRow("longest-number-read-by-qt") << "?p=/about&t=+12.5" + QByteArray(59, '0') << u"12.5"_s;
        QTest::newRow("longest-number-read-by-qt-plus-one")
            << "?p=/about&t=+12.5" + QByteArray(60, '0') << u"12.5"_s;
        QTest::newRow("thousands-of-digits")
            << "?p=/about&t=" + QByteArray(8000, '0') + "12.5" + QByteArray(8000, '0') << u"12.5"_s;
        QTest::newRow("thousands-of-digits-and-an-exponent")
            << "?p=/about&t=125" + QByteArray(8000, '0') + "e-8001" << u"12.5"_s;
        QTest::newRow("thousands-of-digits-that-mean-too-much")
            << "?p=/about&t=" + QByteArray(8000, '7') << QString();
        QTest::newRow("thousands-of-digits-and-a-letter")
            << "?p=/about&t=12." + QByteArray(8000, '5') + 'x' << QString();
        QTest::newRow("long-not-a-number") << "?p=/about&t=nan(" + QByteArray(100, '5') + ')' << QString();
        QTest::newRow("text-for-time") << QByteArray("?p=/about&t=long") << QString();
        QTest::newRow("no-page") << QByteArray("?t=5") << QString();
        QTest::newRow("empty-page") << QByteArray("?p=&t=5") << QString();
        QTest::newRow("page-of-nuls") << QByteArray("?p=%00%00&t=5") << QString();
        QTest::newRow("no-query") << QByteArray("") << QString();
        QTest::newRow("bare-question-mark") << QByteArray("?") << QString();
    }
    void beacon()
    {
        QFETCH(const QByteArray, query);
        QFETCH(const QString, seconds);
        const auto result = ingest({::beacon(query)});
        QCOMPARE(result.lines, 1);
        QCOMPARE(result.skipped, 0);
        QCOMPARE(result.stored, seconds.isEmpty() ? 0 : 1);
        QCOMPARE(result.days.size(), seconds.isEmpty() ? 0 : 1);
        if (!seconds.isEmpty()) {
            QCOMPARE(onlyHit(u"method, path, status, is_page, engaged_secs"_s),
                     QStringList({u"BEACON"_s, u"/about"_s, u"204"_s, u"false"_s, seconds}));
        }
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
        QTest::newRow("beacon") << ::beacon("?p=/50%-off%20shoes&t=5") << u"path"_s
                                << QStringList{u"/50%-off shoes"_s};
    }
    void strayPercentSignsStay()
    {
        QFETCH(const QByteArray, line);
        QFETCH(const QString, columns);
        ingest({line});
        QTEST(onlyHit(columns), "stored");
    }

    void beaconsPageIsCut()
    {
        ingest({::beacon("?t=5&p=/" + QByteArray(2000, 'x'))});
        QCOMPARE(onlyHit(u"length(path)"_s), QStringList{u"2000"_s});
    }

    void onlyTheExactPathIsABeacon_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::newRow("slash-behind") << QByteArray("/tarn-b/?p=/about&t=5");
        QTest::newRow("longer") << QByteArray("/tarn-bc?p=/about&t=5");
        QTest::newRow("encoded") << QByteArray("/tarn%2Db?p=/about&t=5");
    }
    void onlyTheExactPathIsABeacon()
    {
        QFETCH(const QByteArray, target);
        ingest({Line{.request = "GET " + target + " HTTP/1.1"}.text()});
        QCOMPARE(onlyHit(u"method, engaged_secs"_s), QStringList({u"GET"_s, u"NULL"_s}));
    }

    void visitorHash_data()
    {
        QTest::addColumn<int>("site");
        QTest::addColumn<QString>("ip");
        QTest::addColumn<QByteArray>("agent");
        QTest::addColumn<QDate>("day");
        QTest::newRow("other-site") << 2 << u"192.0.2.1"_s << kFirefox << QDate(2024, 10, 10);
        QTest::newRow("other-address") << 1 << u"192.0.2.2"_s << kFirefox << QDate(2024, 10, 10);
        QTest::newRow("other-agent") << 1 << u"192.0.2.1"_s << QByteArray("curl/8.0") << QDate(2024, 10, 10);
        QTest::newRow("other-day") << 1 << u"192.0.2.1"_s << kFirefox << QDate(2024, 10, 11);
    }
    void visitorHash()
    {
        QFETCH(const int, site);
        QFETCH(const QString, ip);
        QFETCH(const QByteArray, agent);
        QFETCH(const QDate, day);
        const QByteArray usual = m_ingest->visitorHash(1, u"192.0.2.1"_s, kFirefox, QDate(2024, 10, 10));
        QCOMPARE(usual.size(), 8);
        QVERIFY(m_ingest->visitorHash(site, ip, agent, day) != usual);
        QCOMPARE(m_ingest->visitorHash(1, u"192.0.2.1"_s, kFirefox, QDate(2024, 10, 10)), usual);
    }

    void visitorHashIsTheStatedOne()
    {
        run(u"UPDATE tarn.settings SET value = 'pepper' WHERE key = 'visitor_secret'"_s);
        startAnew();
        const QByteArray digest =
            QCryptographicHash::hash("pepper2024-02-0912192.0.2.1agent", QCryptographicHash::Sha256);
        QCOMPARE(m_ingest->visitorHash(12, u"192.0.2.1"_s, "agent", QDate(2024, 2, 9)), digest.first(8));
    }

    void visitorChangesAtMidnightUtcWhateverTheLocalZone()
    {
        qputenv("TZ", "America/New_York");
        tzset();
        const auto result = ingest({Line{.time = "10/Oct/2024:23:59:00 +0000"}.text(),
                                    Line{.time = "11/Oct/2024:00:01:00 +0000"}.text()});
        QCOMPARE(scalar(u"SELECT count(DISTINCT visitor) FROM tarn.hits"_s), u"2"_s);
        QCOMPARE(scalar(u"SELECT count(DISTINCT session_id) FROM tarn.hits"_s), u"2"_s);
        QCOMPARE(result.days, QSet<QDate>{QDate(2024, 10, 10)}); // local days
    }

    void sessionGap_data()
    {
        QTest::addColumn<QList<QByteArray>>("times");
        QTest::addColumn<QString>("sessions");
        QTest::newRow("half-an-hour") << QList<QByteArray>{"10:00:00", "10:30:00"} << u"1"_s;
        QTest::newRow("half-an-hour-and-a-second") << QList<QByteArray>{"10:00:00", "10:30:01"} << u"2"_s;
        QTest::newRow("out-of-order") << QList<QByteArray>{"12:00:00", "10:00:00"} << u"1"_s;
        QTest::newRow("an-older-hit-does-not-shorten-it")
            << QList<QByteArray>{"12:00:00", "10:00:00", "12:30:00"} << u"1"_s;
        QTest::newRow("each-hit-extends-it")
            << QList<QByteArray>{"10:00:00", "10:20:00", "10:40:00", "11:00:00"} << u"1"_s;
    }
    void sessionGap()
    {
        QFETCH(const QList<QByteArray>, times);
        QFETCH(const QString, sessions);
        QList<QByteArray> lines;
        for (const QByteArray& time : times)
            lines.append(lineAt(time));
        ingest(lines);
        QCOMPARE(scalar(u"SELECT count(DISTINCT session_id) FROM tarn.hits"_s), sessions);
    }

    void sessionsOutliveACall()
    {
        ingest({lineAt("10:00:00")});
        ingest({lineAt("10:10:00")});
        QCOMPARE(scalar(u"SELECT count(DISTINCT session_id) FROM tarn.hits"_s), u"1"_s);
        startAnew();
        ingest({lineAt("10:20:00")});
        QCOMPARE(scalar(u"SELECT count(DISTINCT session_id) FROM tarn.hits"_s), u"2"_s);
    }

    void sessionWithoutASequence()
    {
        run(u"ALTER SEQUENCE tarn.session_seq RENAME TO away"_s);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(u"^sql: .*tarn.session_seq"_s)); // one for both lines
        QCOMPARE(ingest({lineAt("10:00:00"), lineAt("10:00:01")}).stored, 2);
        QCOMPARE(scalar(u"SELECT string_agg(session_id::text, ' ') FROM tarn.hits"_s), u"0 0"_s);
        run(u"ALTER SEQUENCE tarn.away RENAME TO session_seq"_s);
        ingest({lineAt("10:00:02")});
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits WHERE session_id > 0"_s), u"1"_s);
    }

    void sessionsArePrunedPastTheirNumber_data()
    {
        QTest::addColumn<int>("visitors");
        QTest::addColumn<bool>("pruned");
        QTest::newRow("as-many-as-are-kept") << 50'000 << false;
        QTest::newRow("one-more") << 50'001 << true;
    }
    void sessionsArePrunedPastTheirNumber()
    {
        QFETCH(const int, visitors);
        QFETCH(const bool, pruned);
        const QDateTime longAgo(QDate(2015, 5, 17), QTime(10, 0), Qt::UTC);
        const QDateTime now = QDateTime::currentDateTimeUtc();
        const qint64 old = m_ingest->sessionFor("visitor-", longAgo);
        const qint64 fresh = m_ingest->sessionFor("fresh---", now);
        for (int i = 2; i < visitors; ++i)
            m_ingest->sessionFor(QByteArray::number(i).rightJustified(8, '0'), longAgo);
        ingest({});
        QCOMPARE(m_ingest->sessionFor("visitor-", longAgo) != old, pruned);
        QCOMPARE(m_ingest->sessionFor("fresh---", now), fresh);
    }

    void country_data()
    {
        QTest::addColumn<QString>("ip");
        QTest::addColumn<QString>("country");
        QTest::newRow("first-of-range") << u"192.0.2.0"_s << u"DE"_s;
        QTest::newRow("last-of-range") << u"192.0.2.127"_s << u"DE"_s;
        QTest::newRow("past-the-range") << u"192.0.2.128"_s << QString();
        QTest::newRow("before-all-ranges") << u"10.0.0.1"_s << QString();
        QTest::newRow("version-6") << u"2001:db8::1"_s << u"SE"_s;
        QTest::newRow("version-6-outside") << u"2001:db9::1"_s << QString();
    }
    void country()
    {
        QFETCH(const QString, ip);
        QFETCH(const QString, country);
        useCountries();
        QCOMPARE(m_ingest->country(ip), country);
        // Known now, the absence of a country too: no look-up any more.
        run(u"TRUNCATE tarn.geo_country"_s);
        QCOMPARE(m_ingest->country(ip), country);
        ingest({Line{.ip = ip.toLatin1()}.text()});
        QCOMPARE(onlyHit(u"country"_s), QStringList{country.isEmpty() ? u"NULL"_s : country});
    }

    void countriesAreForgottenPastTheirNumber()
    {
        useCountries();
        QCOMPARE(m_ingest->country(u"192.0.2.1"_s), u"DE"_s);
        run(u"TRUNCATE tarn.geo_country"_s);
        // What is stored does not matter here, and storing it would take most of the time.
        run(u"ALTER TABLE tarn.hits DISABLE TRIGGER mark_rollup_due"_s);
        run(u"DROP INDEX tarn.hits_site_at, tarn.hits_at"_s);
        QList<QByteArray> lines;
        for (int i = 1; i <= 200'000; ++i) {
            const QByteArray address = "10." + QByteArray::number(i >> 16) + '.'
                                       + QByteArray::number((i >> 8) & 255) + '.'
                                       + QByteArray::number(i & 255);
            lines.append(Line{.ip = address}.text());
        }
        QCOMPARE(ingest(lines).stored, 200'000);
        QCOMPARE(m_ingest->country(u"192.0.2.1"_s), u"DE"_s); // remembered beside the 200,000 others
        ingest({Line{.ip = "203.0.113.1"}.text()});
        QCOMPARE(m_ingest->country(u"192.0.2.1"_s), QString());
    }

    void noCountryTableNoLookUp()
    {
        QCOMPARE(m_ingest->country(u"192.0.2.1"_s), QString());
        QCOMPARE(m_ingest->country(u"not an address"_s), QString());
    }

    void countryOfABadAddressOutsideACall()
    {
        useCountries();
        expectBadAddress();
        QCOMPARE(m_ingest->country({}), QString());
        QCOMPARE(m_ingest->country({}), QString());
        QCOMPARE(ingest({Line{.ip = "host.example.net"}.text()}).stored, 1);
    }

    void hostNamesCostOneWarningAndNoNeighbour()
    {
        useCountries();
        expectBadAddress();
        const auto result =
            ingest({lineAt("10:00:00"), Line{.ip = "host.example.net"}.text(), lineAt("10:00:01"),
                    Line{.ip = "other.example.net"}.text(), lineAt("10:00:02")});
        QCOMPARE(result.stored, 5);
        QCOMPARE(hits(), u"5"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits WHERE ip IS NULL AND country IS NULL"_s), u"2"_s);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.hits WHERE country = 'DE'"_s), u"3"_s);
        QCOMPARE(scalar(u"SELECT count(DISTINCT visitor) FROM tarn.hits"_s), u"3"_s);
        ingest({Line{.ip = "third.example.net"}.text()});
        QCOMPARE(hits(), u"6"_s);
    }

    void failedLookUpsCostNoHitOfTheBatchesAround()
    {
        useCountries();
        run(u"ALTER TABLE tarn.geo_country RENAME TO away"_s);
        QList<QByteArray> lines;
        for (int i = 0; i < 401; ++i) {
            lines.append(
                Line{.ip = i % 100 == 0 ? "192.0.2." + QByteArray::number(i / 100) : "192.0.2.0"}.text());
        }
        for (int i = 0; i < 5; ++i)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: .*tarn.geo_country"_s));
        QCOMPARE(ingest(lines).stored, 401);
        QCOMPARE(hits(), u"401"_s);
    }

    void batchesAndTheirNotification_data()
    {
        QTest::addColumn<int>("lines");
        QTest::addColumn<QString>("statements");
        QTest::newRow("one") << 1 << u"1"_s;
        QTest::newRow("full-batch") << 200 << u"200"_s;
        QTest::newRow("full-batch-plus-one") << 201 << u"200 1"_s;
        QTest::newRow("two-full-batches-plus-one") << 401 << u"200 200 1"_s;
    }
    void batchesAndTheirNotification()
    {
        QFETCH(const int, lines);
        QFETCH(const QString, statements);
        run(u"CREATE TABLE statements (n serial, rows bigint)"_s);
        run(u"CREATE FUNCTION note() RETURNS trigger LANGUAGE plpgsql AS "
            "'BEGIN INSERT INTO statements (rows) SELECT count(*) FROM added; RETURN NULL; END'"_s);
        run(u"CREATE TRIGGER note AFTER INSERT ON tarn.hits REFERENCING NEW TABLE AS added "
            "FOR EACH STATEMENT EXECUTE FUNCTION note()"_s);
        const QSqlDatabase listener = m_session.other();
        QSignalSpy spy(listener.driver(), &QSqlDriver::notification);
        QVERIFY(listener.driver()->subscribeToNotification(u"tarn_hits"_s));

        const auto result = ingest(QList<QByteArray>(lines, lineAt("10:00:00")));
        QCOMPARE(result.stored, lines);
        QCOMPARE(scalar(u"SELECT string_agg(rows::text, ' ' ORDER BY n) FROM statements"_s), statements);
        run(listener, u"SELECT 1"_s);
        QTRY_COMPARE(spy.size(), 1);
        QCOMPARE(spy.at(0).at(0).toString(), u"tarn_hits"_s);
        QCOMPARE(spy.at(0).at(2).toString(), u"1"_s);
        QTest::qWait(50);
        QCOMPARE(spy.size(), 1);
    }

    void fullBatchIsPreparedOnceACall()
    {
        run(u"ALTER DATABASE %1 SET log_statement = 'all'"_s.arg(db::session().databaseName()));
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(true));
        run(u"SELECT 'start of the call'"_s);
        ingest(QList<QByteArray>(601, lineAt("10:00:00")));
        run(u"SELECT 'end of the call'"_s);
        QStringList log;
        QTRY_VERIFY(!(log = m_server.logBetween(u"start of the call"_s, u"end of the call"_s)).isEmpty());
        const auto count = [&log](const QString& pattern) {
            return log.filter(QRegularExpression(pattern)).size();
        };
        // One for the full batch and one for the rest.
        QCOMPARE(scalar(u"SELECT count(*) FROM pg_prepared_statements WHERE statement LIKE 'INSERT INTO "
                        "tarn.hits%'"_s),
                 u"2"_s);
        // Three full ones, the rest, the notification.
        QCOMPARE(count(u"execute \\S+: INSERT INTO tarn.hits"_s), 3 + 1);
        QCOMPARE(count(u"execute \\S+: SELECT pg_notify"_s), 1);
        QCOMPARE(count(u"statement: (PREPARE|EXECUTE|SAVEPOINT)"_s), 0);
        QCOMPARE(count(u"statement: BEGIN"_s), 1);
        QCOMPARE(count(u"statement: COMMIT"_s), 1);
    }

    void nothingStoredNothingAnnounced()
    {
        const QSqlDatabase listener = m_session.other();
        QSignalSpy spy(listener.driver(), &QSqlDriver::notification);
        QVERIFY(listener.driver()->subscribeToNotification(u"tarn_hits"_s));
        const auto result = ingest({"what", "is this", ::beacon("?t=0")});
        QCOMPARE(result.lines, 3);
        QCOMPARE(result.skipped, 2);
        QCOMPARE(result.stored, 0);
        run(u"SELECT pg_notify('tarn_hits', 'end')"_s);
        QTRY_COMPARE(spy.size(), 1);
        QCOMPARE(spy.at(0).at(2).toString(), u"end"_s);
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
        QTest::newRow("nul-in-beacon") << ::beacon("?p=/a%00b&t=5") << path << QStringList{u"/ab"_s};
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

    void refusedBatchKeepsNothingOfTheCall()
    {
        run(u"ALTER TABLE tarn.hits ADD CONSTRAINT test CHECK (path <> '/refused')"_s);
        QList<QByteArray> lines(601, lineAt("10:00:00"));
        lines[300] = Line{.request = "GET /refused HTTP/1.1"}.text();
        lines.append("not an entry");
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(u"^sql: .*violates check constraint \"test\""_s));
        const auto result = ingest(lines);
        QCOMPARE(result.lines, 602);
        QCOMPARE(result.skipped, 1);
        QCOMPARE(result.stored, 200); // the batch before it, which the database had taken
        QCOMPARE(hits(), u"0"_s);
        QCOMPARE(ingest({lineAt("10:00:00")}).stored, 1);
        QCOMPARE(hits(), u"1"_s);
    }

    void commitThatFailsIsSaid()
    {
        run(u"CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN RAISE ''not now''; END'"_s);
        run(u"CREATE CONSTRAINT TRIGGER refuse AFTER INSERT ON tarn.hits DEFERRABLE INITIALLY DEFERRED "
            "FOR EACH ROW EXECUTE FUNCTION refuse()"_s);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: .*not now"_s));
        ingest({lineAt("10:00:00")});
        QCOMPARE(hits(), u"0"_s);
        run(u"DROP TRIGGER refuse ON tarn.hits"_s);
        ingest({lineAt("10:00:00")});
        QCOMPARE(hits(), u"1"_s);
    }

    void refusedBatchesLeaveNoStatementInTheServer()
    {
        run(u"ALTER TABLE tarn.hits ADD CONSTRAINT test CHECK (false) NOT VALID"_s);
        useCountries();
        for (int i = 0; i < 5; ++i) {
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: .*check constraint \"test\""_s));
            QCOMPARE(ingest(QList<QByteArray>(i % 2 == 0 ? 200 : 7, lineAt("10:00:00"))).stored, 0);
            QCOMPARE(scalar(u"SELECT count(*) FROM pg_prepared_statements"_s), u"0"_s);
        }
    }

    void lostSessionStopsTheCallQuietly()
    {
        const QString backend = scalar(u"SELECT pg_backend_pid()"_s);
        run(m_session.other(), u"SELECT pg_terminate_backend(%1)"_s.arg(backend));
        // The driver's own remarks come as well, but none for each of the lines.
        Ingest::Result result;
        const QStringList messages =
            test::messagesOf([&] { result = ingest(QList<QByteArray>(1000, lineAt("10:00:00"))); });
        QVERIFY2(messages.size() <= 5, qPrintable(messages.join(u" | "_s)));
        QCOMPARE(result.stored, 0);
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
        QCOMPARE(ingest({lineAt("10:00:00")}).stored, 1);
        QCOMPARE(hits(), u"1"_s);
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

    void sessionsGetTheirNumbersInTheOrderOfTheLines()
    {
        useCountries();
        QList<QByteArray> lines;
        for (const int visitor : {1, 2, 1, 3, 2, 200, 4})
            lines.append(Line{.ip = "192.0.2." + QByteArray::number(visitor)}.text());
        lines.insert(3, Line{.ip = "192.0.2.1", .time = "10/Oct/2024:15:00:00 +0000"}.text());
        QCOMPARE(ingest(lines).stored, 8);
        QCOMPARE(scalar(u"SELECT string_agg(session_id::text, ' ' ORDER BY ctid) FROM tarn.hits"_s),
                 u"1 2 1 3 4 2 5 6"_s);
        QCOMPARE(scalar(u"SELECT string_agg(coalesce(country, '-'), ' ' ORDER BY ctid) FROM tarn.hits"_s),
                 u"DE DE DE DE DE DE - DE"_s);
        QCOMPARE(scalar(u"SELECT last_value FROM tarn.session_seq"_s), u"6"_s); // none more was asked for
    }

    void sessionLostInALookUpKeepsNothing_data()
    {
        QTest::addColumn<int>("lines");
        QTest::addColumn<QString>("last"); // the address whose look-up ends the session
        QTest::newRow("alone") << 1 << u"192.0.2.1"_s;
        QTest::newRow("among-many") << 50 << u"192.0.2.25"_s;
        QTest::newRow("behind-a-batch") << 240 << u"192.0.2.230"_s;
    }
    void sessionLostInALookUpKeepsNothing()
    {
        QFETCH(const int, lines);
        QFETCH(const QString, last);
        useCountries();
        run(u"ALTER TABLE tarn.geo_country RENAME TO away"_s);
        run(u"CREATE VIEW tarn.geo_country AS SELECT * FROM tarn.away UNION ALL SELECT '%1'::inet, "
            u"'%1'::inet, "
            "pg_terminate_backend(pg_backend_pid(), 5000)::text"_s.arg(last));
        QList<QByteArray> batch;
        for (int i = 1; i <= lines; ++i)
            batch.append(Line{.ip = "192.0.2." + QByteArray::number(i)}.text());
        Ingest::Result result;
        const QStringList messages = test::messagesOf([&] { result = ingest(batch); });
        QVERIFY2(!messages.isEmpty() && messages.size() <= 5, qPrintable(messages.join(u" | "_s)));
        QCOMPARE(result.lines, lines);
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
        QCOMPARE(hits(), u"0"_s);
        run(u"DROP VIEW tarn.geo_country"_s);
        run(u"ALTER TABLE tarn.away RENAME TO geo_country"_s);
        QCOMPARE(ingest(batch).stored, lines);
        QCOMPARE(hits(), QString::number(lines));
    }

    void statementsOfAllSizesStayBoundedInTheServer()
    {
        for (int n = 1; n < 200; n += 3)
            QCOMPARE(ingest(QList<QByteArray>(n, lineAt("10:00:00"))).stored, n);
        const double megabytes =
            scalar(u"SELECT sum(total_bytes) / 1048576.0 FROM pg_backend_memory_contexts"_s).toDouble();
        QVERIFY2(megabytes < 16, qPrintable(QString::number(megabytes)));
        // cleanup() counts their placeholders.
    }

    void aCountryTableThatIsNotUsedIsSaid()
    {
        const auto said = [this] { return test::messagesOf([this] { m_ingest->noteCountryLoad(); }); };
        QVERIFY(m_ingest->init());
        QCOMPARE(said(), QStringList(u"collect: geoip: hits get countries from the next start on; restart "
                                     "tarn-collect"_s));
        run(u"INSERT INTO tarn.geo_country VALUES ('192.0.2.0', '192.0.2.255', 'DE')"_s);
        QVERIFY(m_ingest->init());
        QCOMPARE(said(), QStringList());
    }

    void rollupShowsTheHits()
    {
        ingest({lineAt("10:00:00"), lineAt("10:00:01"), ::beacon("?p=/about&t=4")});
        Ingest::rollup(1, {QDate(2024, 10, 10), QDate(2024, 10, 9)});
        QCOMPARE(
            scalar(u"SELECT format('%s %s %s', page_views, visitors, engaged_seconds) FROM tarn.site_days"_s),
            u"2 1 4"_s);
    }

    void rollupFailureIsOnlyLogged()
    {
        run(u"DROP FUNCTION tarn.rollup_day"_s);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: .*rollup_day"_s));
        Ingest::rollup(1, {QDate(2024, 10, 10)});
    }

    void insertStatement()
    {
        const auto head =
            u"INSERT INTO tarn.hits (site_id, at, method, path, status, bytes, is_page, ip, visitor, "
            "session_id, country, source_kind, source, referrer, search_terms, device, browser, os, "
            "bot, engaged_secs, response_us) VALUES "_s;
        const auto group = u"(?, ?, ?, ?, ?, ?, ?, CAST(? AS inet), ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"_s;
        QCOMPARE(analytics::hitInsertStatement(1), head + group);
        QCOMPARE(analytics::hitInsertStatement(2), head + group + u", "_s + group);
        QCOMPARE(analytics::hitInsertStatement(200).count(u'?'), 4200);
    }
};

QTEST_GUILESS_MAIN(tst_Ingest)
#include "tst_Ingest.moc"
