#include "analytics/Ingest.h"
#include "analytics/LogLines.h"
#include "common/Db.h"
#include "support/Messages.h"
#include "support/ProductSession.h"

#include <QCryptographicHash>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QTest>

#include <memory>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;
using analytics::Ingest;

namespace {

QByteArray withTarget(const QByteArray& target, const QByteArray& method = "GET")
{
    return Written{.request = '"' + method + ' ' + target + " HTTP/1.1\""}.line();
}

QByteArray withReferrer(const QByteArray& referrer)
{
    return Written{.referrer = '"' + referrer + '"'}.line();
}

QByteArray withAgent(const QByteArray& agent)
{
    return Written{.userAgent = '"' + agent + '"'}.line();
}

} // namespace

/// What a field of a line, or a failing database, makes of the row: of its site, visitor, session and
/// country.
class tst_IngestRows : public QObject
{
    Q_OBJECT

private:
    void startAnew()
    {
        m_ingest = std::make_unique<Ingest>();
        QVERIFY(m_ingest->init());
    }

    void ingest(const QByteArray& line) { m_ingest->ingest(1, u"example.org"_s, {line}); }

    /// @p expression of each hit, in the order of their storing.
    static QString hits(const QString& expression)
    {
        return scalar(u"SELECT string_agg((%1)::text, '|' ORDER BY ctid) FROM tarn.hits"_s.arg(expression));
    }

    static void expectSqlWarning(const QString& text)
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^sql: .*"_s + text));
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
        m_session.close();
    }

    void linksAreInternalToTheSiteOfTheCall()
    {
        const QByteArray line = withReferrer("https://www.example.net/shop");
        m_ingest->ingest(2, u"example.net"_s, {line});
        m_ingest->ingest(1, u"example.org"_s, {line});
        QCOMPARE(hits(u"concat_ws(' ', source_kind, source)"_s), u"internal|referral example.net"_s);
    }

    void theVisitorIsThatOfTheSite()
    {
        const QByteArray line = Written{}.line();
        m_ingest->ingest(1, u"example.org"_s, {line});
        m_ingest->ingest(2, u"example.net"_s, {line});
        QByteArrayList visitors;
        for (const int site : {1, 2})
            visitors +=
                m_ingest->visitorHash(site, u"127.0.0.1"_s, "Mozilla/5.0", QDate(2024, 10, 10)).toHex();
        QCOMPARE(hits(u"encode(visitor, 'hex')"_s), QString::fromLatin1(visitors.join('|')));
    }

    void theNotificationNamesTheSite()
    {
        const QSqlDatabase listener = m_session.other();
        const QSignalSpy spy(listener.driver(), &QSqlDriver::notification);
        QVERIFY(listener.driver()->subscribeToNotification(u"tarn_hits"_s));
        m_ingest->ingest(2, u"example.net"_s, {Written{}.line()});
        run(listener, u"SELECT 1"_s);
        QTRY_COMPARE(spy.size(), 1);
        QCOMPARE(spy.at(0).at(2).toString(), u"2"_s);
    }

    void beaconsComeByAnyMethod_data()
    {
        QTest::addColumn<QByteArray>("method");
        for (const char* method : {"GET", "POST", "HEAD", "-"})
            QTest::newRow(method) << QByteArray(method);
    }
    void beaconsComeByAnyMethod()
    {
        QFETCH(const QByteArray, method);
        ingest(withTarget("/tarn-b?p=%2Fabout&t=5", method));
        QCOMPARE(hits(u"concat_ws(' ', method, path, status, engaged_secs)"_s), u"BEACON /about 204 5"_s);
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
        ingest(withTarget(target));
        QCOMPARE(hits(u"is_page"_s), isPage ? u"true"_s : u"false"_s);
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
        ingest(withTarget(target));
        QCOMPARE(hits(u"method || ' ' || path"_s), stored);
    }

    void termsOfGoogleAreStoredWhole()
    {
        // All of them stand behind the 1,000 bytes that are stored of a referrer.
        ingest(withReferrer("https://www.google.com/search?x=" + QByteArray(1'000, 'x')
                            + "&q=" + QByteArray(5'000, 'q')));
        QCOMPARE(hits(u"concat_ws(' ', source, length(search_terms), length(referrer))"_s),
                 u"Google 5000 1000"_s);
    }

    void agentsAreTakenWhole()
    {
        const QByteArray start = "Mozilla/5.0 " + QByteArray(300, 'x');
        for (const char* end : {" Firefox/128.0", " Firefox/129.0", " Googlebot/2.1"})
            ingest(withAgent(start + end));
        QCOMPARE(hits(u"coalesce(bot, browser)"_s), u"Firefox|Firefox|Googlebot"_s);
        QCOMPARE(scalar(u"SELECT count(DISTINCT visitor) FROM tarn.hits"_s), u"3"_s);
    }

    void largeNumbersAreStored()
    {
        ingest(Written{.status = "1000", .bytes = "2147483648"}.line());
        ingest(Written{.status = "2147483647", .bytes = "9223372036854775807"}.line());
        QCOMPARE(hits(u"concat_ws(' ', status, bytes)"_s),
                 u"1000 2147483648|2147483647 9223372036854775807"_s);
    }

    /// The secret goes into the hash by its bytes in Latin-1, the agent as it was sent.
    void bytesBeyondAsciiInTheHash()
    {
        run(u"UPDATE tarn.settings SET value = U&'pf\\00E4ffer' WHERE key = 'visitor_secret'"_s);
        startAnew();
        const QByteArray agent = "caf\xc3\xa9 \xff";
        ingest(withAgent(agent));
        const QByteArray digest = QCryptographicHash::hash("pf\xe4" + ("ffer2024-10-101127.0.0.1" + agent),
                                                           QCryptographicHash::Sha256);
        QCOMPARE(hits(u"encode(visitor, 'hex')"_s), QString::fromLatin1(digest.first(8).toHex()));
    }

    void aSessionLostDuringALookUpSaysNothingOfTheAddress()
    {
        run(u"INSERT INTO tarn.geo_country VALUES ('192.0.2.0', '192.0.2.127', 'DE')"_s);
        startAnew();
        ProductSession::endBackend(m_session.other());
        messagesOf([this] { QCOMPARE(m_ingest->country(u"192.0.2.1"_s), QString()); });
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(false));
        QCOMPARE(m_ingest->country(u"192.0.2.1"_s), u"DE"_s);
    }

    /// Sessions are pruned when there are more than 50,000; those that can still go on are left.
    void sessionsThatCanGoOnAreNotPruned()
    {
        const QDateTime longAgo(QDate(2015, 5, 17), QTime(10, 0), Qt::UTC);
        for (int i = 0; i < 49'999; ++i)
            m_ingest->sessionFor(QByteArray::number(i).rightJustified(8, '0'), longAgo);
        const QDateTime now = QDateTime::currentDateTimeUtc();
        const QDateTime recent = now.addSecs(-1'790);
        const QDateTime older = now.addSecs(-1'810);
        const qint64 kept = m_ingest->sessionFor("kept----", recent);
        const qint64 gone = m_ingest->sessionFor("gone----", older);
        m_ingest->ingest(1, u"example.org"_s, {});
        QCOMPARE(m_ingest->sessionFor("kept----", recent), kept);
        QVERIFY(m_ingest->sessionFor("gone----", older) != gone);
    }

    void anExpiredSessionWithoutASuccessorIsNotContinued()
    {
        const QDateTime at(QDate(2024, 10, 10), QTime(10, 0), Qt::UTC);
        const qint64 first = m_ingest->sessionFor("visitor-", at);
        QVERIFY(first > 0);
        run(u"ALTER SEQUENCE tarn.session_seq RENAME TO away"_s);
        expectSqlWarning(u"tarn.session_seq"_s);
        QCOMPARE(m_ingest->sessionFor("visitor-", at.addSecs(1'801)), 0);
        run(u"ALTER SEQUENCE tarn.away RENAME TO session_seq"_s);
        QVERIFY(m_ingest->sessionFor("visitor-", at.addSecs(1'802)) > first);
    }

    void aCountryTableThatCannotBeAskedIsNotUsed_data()
    {
        QTest::addColumn<QString>("instead"); // of the table
        QTest::addColumn<QString>("warning");
        QTest::newRow("missing") << QString() << QString();
        QTest::newRow("failing") << u"CREATE VIEW tarn.geo_country AS SELECT * FROM tarn.away "
                                    "WHERE 1 / (masklen(ip_from) - 32) = 0"_s
                                 << u"division by zero"_s;
    }
    void aCountryTableThatCannotBeAskedIsNotUsed()
    {
        QFETCH(const QString, instead);
        QFETCH(const QString, warning);
        run(u"INSERT INTO tarn.geo_country VALUES ('192.0.2.0', '192.0.2.127', 'DE')"_s);
        run(u"ALTER TABLE tarn.geo_country RENAME TO away"_s);
        if (!instead.isEmpty()) {
            run(instead);
            expectSqlWarning(warning);
        }
        startAnew();
        ingest(Written{.ip = "192.0.2.1"}.line());
        QCOMPARE(hits(u"coalesce(country, 'none')"_s), u"none"_s);
    }
};

QTEST_GUILESS_MAIN(tst_IngestRows)
#include "tst_IngestRows.moc"
