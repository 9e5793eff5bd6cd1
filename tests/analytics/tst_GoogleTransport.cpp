#include "analytics/GoogleFixture.h"
#include "support/GzipProgram.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTimer>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;
using Delivery = FakeHosts::Delivery;

namespace {

/// @p reply as a server sends it that compresses.
FakeHosts::Reply compressed(FakeHosts::Reply reply)
{
    reply.body = test::gzip(reply.body);
    reply.headers.emplaceBack("Content-Encoding", "gzip");
    return reply;
}

/// Memory that this process has, in MB.
double residentMb()
{
    QFile file(u"/proc/self/statm"_s);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').at(1).toDouble() * static_cast<double>(sysconf(_SC_PAGESIZE))
           / 1'048'576;
}

} // namespace

/// Answers that are refusals, redirects, too long, cut or never given.
class tst_GoogleTransport : public GoogleFixture
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void cleanupTestCase() { endProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    /// What a refused request is called, wherever it was refused.
    void refusals_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("reason"); // empty: the network library's
        QTest::newRow("oauth-form")
            << 400 << QByteArray("{'error':'invalid_grant','error_description':'Token has been revoked.'}")
            << u"Token has been revoked."_s;
        QTest::newRow("oauth-form-without-words") << 400 << QByteArray("{'error':'invalid_grant'}") << u""_s;
        QTest::newRow("oauth-form-with-empty-words")
            << 400 << QByteArray("{'error':'invalid_grant','error_description':''}") << u""_s;
        QTest::newRow("oauth-form-with-a-number")
            << 400 << QByteArray("{'error':'invalid_grant','error_description':5}") << u""_s;
        QTest::newRow("description-alone")
            << 400 << QByteArray("{'error_description':'Bad Request'}") << u"Bad Request"_s;
        QTest::newRow("api-form") << 403
                                  << QByteArray(
                                         "{'error':{'code':403,'message':'Quota exceeded for ümlauts'}}")
                                  << u"Quota exceeded for ümlauts"_s;
        QTest::newRow("api-form-goes-first")
            << 400 << QByteArray("{'error':{'message':'the one'},'error_description':'the other'}")
            << u"the one"_s;
        QTest::newRow("api-form-without-words")
            << 403 << QByteArray("{'error':{'code':403},'error_description':'of another form'}") << u""_s;
        QTest::newRow("api-form-with-empty-words") << 403 << QByteArray("{'error':{'message':''}}") << u""_s;
        QTest::newRow("api-form-with-null") << 403 << QByteArray("{'error':{'message':null}}") << u""_s;
        QTest::newRow("error-is-null") << 500 << QByteArray("{'error':null}") << u""_s;
        QTest::newRow("nul-in-the-words")
            << 400 << QByteArray("{'error':{'message':'a\\u0000b'}}") << QString::fromLatin1("a\0b", 3);
        QTest::newRow("unauthorized")
            << 401 << QByteArray("{'error':{'code':401,'message':'Invalid Credentials'}}")
            << u"Invalid Credentials"_s;
        QTest::newRow("too-many") << 429 << json("{'error':{'message':'Slow down'}}").body << u"Slow down"_s;
        QTest::newRow("server-error")
            << 500 << QByteArray("{'error':{'message':'Internal error'}}") << u"Internal error"_s;
        QTest::newRow("empty-body") << 404 << QByteArray() << u""_s;
        QTest::newRow("page-of-html") << 502 << QByteArray("<html>Bad gateway</html>") << u""_s;
        QTest::newRow("json-array") << 503 << QByteArray("[{'error':{'message':'no'}}]") << u""_s;
        QTest::newRow("broken-json") << 500 << QByteArray("{'error':{'message':'no'}") << u""_s;
    }
    void refusals()
    {
        QFETCH(const int, status);
        QFETCH(const QByteArray, body);
        QFETCH(const QString, reason);
        const QString shown = reason.isEmpty() ? statusText(status) : reason;
        // The exchange of a code.
        m_hosts.expect(exchangeRequest(), json(body, status));
        QCOMPARE(connectNow(), shown);
        QCOMPARE(scalar(u"SELECT count(*) FROM tarn.engine_accounts"_s), u"0"_s);

        // The refresh token.
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        const auto recorded = [](QString text) { return text.remove(QChar::Null); };
        m_hosts.expect(refreshRequest(), json(body, status));
        const QString refused = u"Google refused the stored sign-in (%1). Connect again."_s.arg(shown);
        QCOMPARE(analytics::google::sync(kClient), refused);
        QCOMPARE(account(u"last_result"_s), recorded(refused));

        // The list of properties.
        m_hosts.expect(refreshRequest(), granted());
        m_hosts.expect(sitesRequest(), json(body, status));
        QCOMPARE(analytics::google::sync(kClient), shown);
        QCOMPARE(account(u"last_result"_s), recorded(shown));

        // A site's totals.
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), json(body, status));
        const QString failed = u"a.example.org: "_s + shown;
        QCOMPARE(analytics::google::sync(kClient), failed);
        QCOMPARE(account(u"last_result"_s), recorded(failed));
        QCOMPARE(mapping(), u"a.example.org google sc-domain:a.example.org"_s);
    }

    void memoryOfALargeSiteIsGivenBack()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        m_hosts.answer([](const FakeHosts::Request& request) {
            if (request.target == "/token")
                return granted();
            const bool last = request.body.contains(quoted("'startRow':100000"));
            return request.body.contains("device") && !last ? page(kPage) : json("{}");
        });
        const double before = residentMb();
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
        m_hosts.reset();
        const double more = residentMb() - before;
#ifdef __SANITIZE_ADDRESS__ // which keeps what is freed
        QVERIFY(more < 1000);
#else
        QVERIFY2(more < 30, qPrintable(u"%1 MB more than before"_s.arg(more)));
#endif
    }

    void wellCompressedPages_data()
    {
        QTest::addColumn<int>("rowBytes");
        QTest::addColumn<bool>("taken");
        QTest::newRow("12-mb") << 500 << true;
        QTest::newRow("75-mb") << 3000 << true;
        QTest::newRow("137-mb") << 5500 << false;
    }
    void wellCompressedPages()
    {
        QFETCH(const int, rowBytes);
        QFETCH(const bool, taken);
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), json("{}"));
        m_hosts.expect(pageRequest("sc-domain%3Aa.example.org"),
                       compressed(page(kPage, '"' + QByteArray(rowBytes - 3, 'x') + '"')));
        if (taken) {
            m_hosts.expect(pageRequest("sc-domain%3Aa.example.org", kPage), page(0));
        } else {
            QTest::ignoreMessage(QtWarningMsg,
                                 "collect: google: a.example.org: page 1 of the details failed, rows "
                                 "from 0 on are missing: the answer has no end");
        }
        QCOMPARE(sync(), u"a.example.org: no new data"_s);
    }

    void redirects_data()
    {
        QTest::addColumn<int>("status");
        for (const int status : {301, 302, 303, 307, 308})
            QTest::addRow("%d", status) << status;
    }
    void redirects()
    {
        QFETCH(const int, status);
        // A host that nobody answers for: a request to it would be a complaint.
        const FakeHosts::Reply away = {.status = status,
                                       .body = "{'refresh_token':'x','access_token':'y'}",
                                       .headers = {{"Location", "https://elsewhere.example.net/"}}};
        m_hosts.expect(exchangeRequest(), away);
        QCOMPARE(connectNow(), redirectText(status));

        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        m_hosts.expect(refreshRequest(), away);
        QCOMPARE(sync(),
                 u"Google refused the stored sign-in (%1). Connect again."_s.arg(redirectText(status)));
        m_hosts.expect(refreshRequest(), granted());
        m_hosts.expect(sitesRequest(), away);
        QCOMPARE(sync(), redirectText(status));
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"), away);
        QCOMPARE(sync(), u"a.example.org: "_s + redirectText(status));
        m_hosts.expect(revokeRequest(), away);
        analytics::google::disconnect();
        // Within one host as well.
        m_hosts.expect(
            exchangeRequest(),
            {.status = status, .headers = {{"Location", "https://oauth2.googleapis.com/v2/token"}}});
        QCOMPARE(connectNow(), redirectText(status));
    }

    void cutConnections_data()
    {
        QTest::addColumn<Delivery>("delivery");
        QTest::addColumn<QString>("reason");
        const qsizetype size = totals().body.size();
        QTest::newRow("before-the-answer")
            << Delivery::CutAtOnce << u"the server closed the connection without an answer"_s;
        QTest::newRow("in-the-answer")
            << Delivery::CutInBody
            << u"transfer closed with %1 bytes remaining to read"_s.arg(size - size / 2);
    }
    void cutConnections()
    {
        QFETCH(const Delivery, delivery);
        QFETCH(const QString, reason);
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        haveSite(2, u"b.example.org"_s, u"sc-domain:b.example.org"_s);
        expectStart();
        m_hosts.answer([delivery](const FakeHosts::Request& request) {
            FakeHosts::Reply reply = totals();
            if (request.target.contains("a.example.org"))
                reply.delivery = delivery;
            return reply;
        });
        QCOMPARE(sync(),
                 u"a.example.org: %1; b.example.org: 1 days (2024-10-10 to 2024-10-10), 1 detail rows"_s.arg(
                     reason));
        // The token, the properties, the totals of both and the details of one, each once.
        QCOMPARE(m_hosts.requests().size(), 5);
    }

    /// What a code was exchanged for at the first try is lost when there is a second one.
    void codesAreSentOnce()
    {
        m_hosts.answer(
            [](const FakeHosts::Request&) { return FakeHosts::Reply{.delivery = Delivery::CutAtOnce}; });
        QCOMPARE(connectNow(), u"the server closed the connection without an answer"_s);
        QCOMPARE(m_hosts.requests().size(), 1);
    }

    void nobodyThere()
    {
        FakeHosts gone;
        QVERIFY(gone.start({u"oauth2.googleapis.com"_s}));
        gone.close();
        haveConnection();
        FakeHosts::capture(m_hosts.serverPort(), gone.authority().file());
        const QString untrusted = sync();
        FakeHosts::capture(gone.serverPort(), m_hosts.authority().file());
        const QString refused = sync();
        const QString notConnected = connectNow();
        m_hosts.capture();
        QVERIFY2(untrusted.startsWith(u"Google refused the stored sign-in (SSL certificate problem"_s),
                 qPrintable(untrusted));
        QCOMPARE(refused, u"Google refused the stored sign-in (Proxy connection refused). Connect again."_s);
        QCOMPARE(notConnected, u"Proxy connection refused"_s);
    }

    void stalledTransfersEndAfterAMinute()
    {
        // The second while the first waits, as when a notification starts it.
        haveConnection();
        m_hosts.expect(exchangeRequest(), {.body = "{}", .delivery = Delivery::Stalled});
        FakeHosts::Reply half = granted();
        half.delivery = Delivery::StalledBody;
        m_hosts.expect(refreshRequest(), half);
        QString nested;
        QTimer::singleShot(500, this, [&] { nested = sync(); });
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(connectNow(), u"no data for 60 seconds"_s);
        QVERIFY2(timer.elapsed() > 58'000 && timer.elapsed() < 90'000,
                 qPrintable(QString::number(timer.elapsed())));
        QTRY_COMPARE(nested, u"Google refused the stored sign-in (no data for 60 seconds). Connect again."_s);
    }

    void toldToEndDuringAWait()
    {
        haveConnection();
        haveSite(1, u"a.example.org"_s, u"sc-domain:a.example.org"_s);
        expectStart();
        m_hosts.expect(totalsRequest("sc-domain%3Aa.example.org"),
                       {.body = "", .delivery = Delivery::Stalled});
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [this] {
            if (m_hosts.requests().size() == 3)
                QCoreApplication::quit();
        });
        timer.start(10);
        QString result;
        QTimer::singleShot(0, this, [&] { result = sync(); });
        QCoreApplication::exec();
        QCOMPARE(result, u"a.example.org: interrupted"_s);
    }
};

QTEST_GUILESS_MAIN(tst_GoogleTransport)
#include "tst_GoogleTransport.moc"
