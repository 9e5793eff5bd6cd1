#include "analytics/CountryFileTest.h"
#include "common/Db.h"
#include "support/GzipProgram.h"
#include "support/Messages.h"

#include <QSqlDatabase>
#include <QSqlDriver>
#include <QTimer>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;
using analytics::geoIpIsStale;
using Delivery = FakeHosts::Delivery;

namespace {

/// The file of its month.
const QByteArray kAddress = "https://download.db-ip.com/free/dbip-country-lite-2024-05.csv.gz";

} // namespace

/// The file's way from DB-IP, and what can go wrong on it.
class tst_GeoIpDownload : public CountryFileTest
{
    Q_OBJECT

private:
    /// Downloads the file, and returns the message. The flag must fit it, and the request must be as it
    /// should.
    QString download(const FakeHosts::Reply& reply)
    {
        m_hosts.expect("GET " + kAddress + "\n\n", reply);
        return download();
    }

    static QString download()
    {
        QTest::ignoreMessage(QtInfoMsg, ("collect: loading countries from " + kAddress).constData());
        bool ok = true;
        const QString message = updateGeoIp({}, &ok, kDay);
        return ok == message.startsWith(u"loaded "_s) ? message : u"flag and message differ: "_s + message;
    }

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void cleanupTestCase() { endProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void downloads_data()
    {
        QTest::addColumn<Delivery>("delivery");
        QTest::newRow("whole") << Delivery::Whole;
        QTest::newRow("in-chunks") << Delivery::Chunked;
    }
    void downloads()
    {
        QFETCH(const Delivery, delivery);
        QCOMPARE(download({.body = gzip(text(lines(1234))), .delivery = delivery}), loaded(1234));
        QCOMPARE(ranges(), u"1234"_s);
        QCOMPARE(month(), u"2024-05"_s);
        QCOMPARE(m_hosts.requests().first().header("Accept-Encoding"), "identity");
    }

    void fileSaidToBeAnEncodingIsTakenAsItIs()
    {
        // As web servers say of files with such a name.
        QCOMPARE(download({
                     .body = gzip(text(lines(1000))),
                     .headers = {{"Content-Type", "text/csv"}, {"Content-Encoding", "gzip"}}
        }),
                 loaded(1000));
    }

    void failedDownload_data()
    {
        QTest::addColumn<FakeHosts::Reply>("reply");
        QTest::addColumn<QString>("message");
        const QByteArray good = gzip(text(lines(1200)));
        const auto refused = u"download failed: the server answered with HTTP status %1: Scripted"_s;
        const auto closed = u"download failed: transfer closed with %1 bytes remaining to read"_s.arg(
            good.size() - good.size() / 2);
        QTest::newRow("not-there-yet") << FakeHosts::Reply{.status = 404, .body = good} << refused.arg(404);
        QTest::newRow("forbidden") << FakeHosts::Reply{.status = 403, .body = good} << refused.arg(403);
        QTest::newRow("too-many") << FakeHosts::Reply{.status = 429, .body = good} << refused.arg(429);
        QTest::newRow("server-error") << FakeHosts::Reply{.status = 500, .body = good} << refused.arg(500);
        const auto moved = [&](const char* name, int status, const FakeHosts::Headers& headers,
                               const QString& why) {
            QTest::newRow(name) << FakeHosts::Reply{.status = status, .body = good, .headers = headers}
                                << u"download failed: "_s + why;
        };
        moved("redirect-not-encrypted", 302,
              {
                  {"Location", "http://elsewhere.example.net/"}
        },
              u"redirected to an address that is not https"_s);
        moved("redirect-with-a-password", 302,
              {
                  {"Location", "https://a:b@elsewhere.example.net/"}
        },
              u"redirected to an address with a user name"_s);
        moved("redirect-to-nowhere", 302, {}, u"the server answered with a redirect (HTTP status 302)"_s);
        moved("choices", 300,
              {
                  {"Location", "https://elsewhere.example.net/"}
        },
              u"the server answered with a redirect (HTTP status 300)"_s);
        QTest::newRow("cut-in-the-body")
            << FakeHosts::Reply{.body = good, .delivery = Delivery::CutInBody} << closed;
        QTest::newRow("not-compressed") << FakeHosts::Reply{.body = text(lines(1200))} << kNoCountryFile;
        QTest::newRow("page-of-html")
            << FakeHosts::Reply{.body = QByteArray("<p>Sorry, this file has moved.</p>\n").repeated(2000)}
            << kNoCountryFile;
        QTest::newRow("empty") << FakeHosts::Reply{} << kNoCountryFile;
        QTest::newRow("compressed-short") << FakeHosts::Reply{.body = good.chopped(9)} << kNoCountryFile;
        QTest::newRow("compressed-twice") << FakeHosts::Reply{.body = gzip(good)} << kNoCountryFile;
        QTest::newRow("too-few-lines") << FakeHosts::Reply{.body = gzip(text(lines(999)))} << kNoCountryFile;
    }
    void failedDownload()
    {
        QFETCH(const FakeHosts::Reply, reply);
        QFETCH(const QString, message);
        QCOMPARE(download(reply), message);
        QVERIFY(isAsBefore());
    }

    void redirectsToOtherHosts_data()
    {
        QTest::addColumn<int>("status");
        for (const int status : {301, 302, 303, 307, 308})
            QTest::addRow("%d", status) << status;
    }
    void redirectsToOtherHosts()
    {
        QFETCH(const int, status);
        m_hosts.expect(
            "GET " + kAddress + "\n\n",
            {.status = status, .headers = {{"Location", "https://elsewhere.example.net/file?x=1"}}});
        m_hosts.expect("GET https://elsewhere.example.net/file?x=1\n\n", {.body = gzip(text(lines(1000)))});
        QCOMPARE(download(), loaded(1000));
        QCOMPARE(m_hosts.requests().last().header("Accept-Encoding"), "identity");
    }

    void whatStandsBehindTheFileIsPassedOver()
    {
        QCOMPARE(download({.body = gzip(text(lines(1000))) + "rubbish"}), loaded(1000));
        QCOMPARE(load(gzip(text(lines(1100))) + "rubbish", u"ranges.csv.gz"_s), loaded(1100));
    }

    void sessionLostWhileDownloading()
    {
        QVERIFY(db::session().driver()->subscribeToNotification(u"test"_s));
        m_hosts.answer([this](const FakeHosts::Request&) {
            ProductSession::lose(m_session.other());
            return FakeHosts::Reply{.body = gzip(text(lines(1000)))};
        });
        bool ok = false;
        QString message;
        const QStringList messages = messagesOf([&] { message = updateGeoIp({}, &ok, kDay); });
        QCOMPARE(message, loaded(1000));
        QVERIFY2(messages.contains(u"database: reconnected"_s), qPrintable(messages.join(u" | "_s)));
    }

    void lostSessionIsNoStaleTable()
    {
        QVERIFY(geoIpIsStale(kDay));
        QSqlDatabase other = m_session.other();
        ProductSession::endBackend(other);
        bool stale = true;
        messagesOf([&] { stale = geoIpIsStale(kDay); });
        QVERIFY(!stale);
        // While the database cannot be had again.
        const auto allowConnections = [&](const QString& allowed) {
            run(other, u"UPDATE pg_database SET datallowconn = %1 WHERE datname = current_database()"_s.arg(
                           allowed));
        };
        allowConnections(u"false"_s);
        stale = true;
        messagesOf([&] { stale = geoIpIsStale(); });
        allowConnections(u"true"_s);
        QVERIFY(!stale);
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(geoIpIsStale());
    }

    void connectionCutBeforeTheAnswer()
    {
        QCOMPARE(download({.delivery = Delivery::CutAtOnce}),
                 u"download failed: the server closed the connection without an answer"_s);
        QVERIFY(isAsBefore());
    }

    void unreachableHost()
    {
        FakeHosts gone;
        QVERIFY(gone.start({u"download.db-ip.com"_s}));
        gone.close();
        FakeHosts::capture(m_hosts.serverPort(), gone.authority().file());
        const QString untrusted = download();
        FakeHosts::capture(gone.serverPort(), m_hosts.authority().file());
        const QString refused = download();
        m_hosts.capture();
        QVERIFY2(untrusted.startsWith(u"download failed: SSL certificate problem"_s), qPrintable(untrusted));
        QCOMPARE(refused, u"download failed: Proxy connection refused"_s);
        QVERIFY(isAsBefore());
    }

    void reconnectWhileDownloading()
    {
        m_hosts.answer([](const FakeHosts::Request&) {
            // Also: in no transaction, and with nothing prepared.
            const bool idle = scalar(u"SELECT now() = statement_timestamp() AND NOT EXISTS (SELECT FROM "
                                     "pg_prepared_statements)"_s)
                              == u"true"_s;
            QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
            return FakeHosts::Reply{.status = idle && db::ensure(true) ? 200 : 500,
                                    .body = gzip(text(lines(1000)))};
        });
        QCOMPARE(download(), loaded(1000));
        QCOMPARE(month(), u"2024-05"_s);
    }

    void toldToEndWhileDownloading()
    {
        m_hosts.expect("GET " + kAddress + "\n\n", {.delivery = Delivery::Stalled});
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [this] {
            if (!m_hosts.requests().isEmpty())
                QCoreApplication::quit();
        });
        timer.start(10);
        QString message;
        QTimer::singleShot(0, this, [&message] { message = download(); });
        QCoreApplication::exec();
        QCOMPARE(message, u"download failed: interrupted"_s);
        QVERIFY(isAsBefore());
    }

    void noGunzip()
    {
        const QString path = makeFile(u"ranges.csv.gz"_s, gzip(text(lines(1000))));
        const QByteArray before = qgetenv("PATH");
        qputenv("PATH", m_folder.path().toLocal8Bit());
        const QString message = loadFile(path);
        qputenv("PATH", before);
        QCOMPARE(message, kNoCountryFile);
        QVERIFY(isAsBefore());
    }
};

QTEST_GUILESS_MAIN(tst_GeoIpDownload)
#include "tst_GeoIpDownload.moc"
