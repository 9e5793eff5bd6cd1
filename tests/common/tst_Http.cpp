#include "common/HttpTest.h"
#include "support/GzipProgram.h"
#include "support/ProcessMemory.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTimer>

#include <csignal>

#include <fcntl.h>
#include <sys/socket.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::test;
using tarn::http::Request;

namespace {

constexpr int kPromptMs = 5'000;

/// "200 OK" and further fields, @p bytes of them in all, and the body "whole".
QByteArray headOf(qint64 bytes)
{
    QByteArray head = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n";
    const qint64 last = bytes - 2;
    while (head.size() < last) {
        const qint64 most = std::min<qint64>(last - head.size(), 1'000);
        const qint64 line = last - head.size() - most < 10 && most > 990 ? most - 100 : most;
        head += "X: " + QByteArray(line - 5, 'x') + "\r\n";
    }
    return head + "\r\nwhole";
}

qsizetype entries(const QString& folder)
{
    return QDir(folder)
        .entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot)
        .size();
}

/// Of this process's internet sockets those that its children would inherit.
int inheritableSockets()
{
    int found = 0;
    for (const QString& name : QDir(u"/proc/self/fd"_s).entryList(QDir::AllEntries | QDir::System)) {
        bool isNumber = false;
        const int descriptor = name.toInt(&isNumber);
        int domain = 0;
        socklen_t size = sizeof domain;
        if (isNumber && getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0
            && domain == AF_INET && (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) == 0) {
            ++found;
        }
    }
    return found;
}

} // namespace

/// One request and one answer, with a limit for everything that the peer decides.
class tst_Http : public HttpTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { beginProgram(); }
    void init() { beginTest(); }
    void cleanup() { endTest(); }

    void answers()
    {
        m_web.setReply(FakeHttp::reply("201 Made it", "a body"));
        const Answer answer = get(m_web.url(u"/a%20b/../c?d=%2F#fragment"_s));
        QCOMPARE(answer.error, QString());
        QCOMPARE(answer.status, 201);
        QCOMPARE(answer.reason, u"Made it"_s);
        QCOMPARE(answer.body, QByteArray("a body"));
        const FakeHttp::Request request = m_web.requests().constFirst();
        QCOMPARE(request.text(), QByteArray("GET /a%20b/../c?d=%2F\n\n"));
        QCOMPARE(request.header("Accept-Encoding"), QByteArray("identity"));
        QCOMPARE(m_web.connections(), 1);
    }

    void posts()
    {
        Request request{.method = tarn::http::Method::Post, .url = QUrl(m_web.url(u"/"_s))};
        request.headers = {
            {"Content-Type", "text/plain"                                 },
            {"X-One",        QByteArray("1\r\nX-Two: 2\n\r\n0\0X-Three: 3", 26)},
            {"X-Blanks",              "y"                                                 }
        };
        request.body = QByteArray("nul \0 and line\r\n", 16).repeated(1'000);
        QCOMPARE(tarn::http::problem(tarn::http::exchange(request, kLimits)), QString());
        QCOMPARE(m_web.requests().size(), 1);
        QCOMPARE(m_web.requests().constFirst().text(),
                 "POST /\nContent-Type: text/plain\nX-One: 1X-Two: 20X-Three: 3\nX-Blanks: y\n\n"
                     + request.body);
        request.headers.clear();
        tarn::http::exchange(request, kLimits);
        QCOMPARE(m_web.requests().constLast().text(), "POST /\n\n" + request.body);
    }

    void noExchangeWithOtherSchemes_data()
    {
        QTest::addColumn<QString>("address");
        for (const auto& address : {u"file:///etc/hostname"_s, u"ftp://127.0.0.1/"_s,
                                    u"gopher://127.0.0.1/"_s, u"127.0.0.1"_s, u""_s}) {
            QTest::newRow(qPrintable(address)) << address;
        }
    }
    void noExchangeWithOtherSchemes()
    {
        QFETCH(const QString, address);
        compare(get(address), Failure::Network, u"not an http or https address"_s);
    }

    void problems_data()
    {
        QTest::addColumn<QByteArray>("status");
        QTest::addColumn<QString>("problem");
        QTest::newRow("success") << QByteArray("299 Odd") << QString();
        QTest::newRow("redirect") << QByteArray("302 Found")
                                  << u"the server answered with a redirect (HTTP status 302)"_s;
        QTest::newRow("error") << QByteArray("503 Service Unavailable")
                               << u"the server answered with HTTP status 503: Service Unavailable"_s;
        QTest::newRow("no-words") << QByteArray("404 ") << u"the server answered with HTTP status 404"_s;
        QTest::newRow("control-characters") << QByteArray("404 a\tb\x1b[0m\xff")
                                            << u"the server answered with HTTP status 404: a b [0m\ufffd"_s;
        QTest::newRow("longest-words")
            << "404 " + QByteArray(500, 'x')
            << u"the server answered with HTTP status 404: "_s + QString(500, u'x');
        QTest::newRow("longer-words") << "404 " + QByteArray(501, 'x')
                                      << u"the server answered with HTTP status 404: "_s + QString(500, u'x');
    }
    void problems()
    {
        QFETCH(const QByteArray, status);
        m_web.setReply(FakeHttp::reply(status));
        QTEST(tarn::http::problem(get(m_web.url(u"/"_s))), "problem");
    }

    void endlessHeads_data()
    {
        QTest::addColumn<QByteArray>("start");
        QTest::addColumn<QByteArray>("piece");
        QTest::newRow("status-line") << QByteArray("HTTP/1.1 200 ") << QByteArray("x");
        QTest::newRow("field") << QByteArray("HTTP/1.1 200 OK\r\nX: ") << QByteArray("x");
        QTest::newRow("fields") << QByteArray("HTTP/1.1 200 OK\r\n") << QByteArray("X: xxxxxxxxxxxxxx\r\n");
        QTest::newRow("answers-before-the-answer")
            << QByteArray() << QByteArray("HTTP/1.1 100 Continue\r\n\r\n");
        QTest::newRow("hints-before-the-answer")
            << QByteArray() << QByteArray("HTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\n");
        QTest::newRow("fields-behind-the-body")
            << QByteArray("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nTrailer: X\r\n\r\n0\r\n")
            << QByteArray("X: xxxxxxxxxxxxxx\r\n");
    }
    void endlessHeads()
    {
        QFETCH(const QByteArray, start);
        QFETCH(const QByteArray, piece);
        m_web.setReply({start + piece, FakeHttp::Then::Flood, piece});
        tarn::test::resetMemoryPeak();
        const double before = tarn::test::memoryMb("VmHWM");
        QElapsedTimer timer;
        timer.start();
        compare(get(m_web.url(u"/"_s)), Failure::HeadTooLong, u"the head of the answer has no end"_s);
        QVERIFY2(timer.elapsed() < kPromptMs, qPrintable(QString::number(timer.elapsed())));
        QVERIFY2(m_web.floodedBytes() < kFloodedBytes, qPrintable(QString::number(m_web.floodedBytes())));
        const double grown = tarn::test::memoryMb("VmHWM") - before;
        QVERIFY2(grown < 20, qPrintable(QString::number(grown)));
    }

    void longestHead()
    {
        m_web.setReply({headOf(tarn::http::kHeadBytes)});
        QCOMPARE(get(m_web.url(u"/"_s)).body, QByteArray("whole"));
        m_web.setReply({headOf(tarn::http::kHeadBytes + 1)});
        compare(get(m_web.url(u"/"_s)), Failure::HeadTooLong, u"the head of the answer has no end"_s);
        // Heads before the answer count.
        const QByteArray early = "HTTP/1.1 100 Continue\r\n\r\n";
        m_web.setReply({early + headOf(tarn::http::kHeadBytes - early.size())});
        QCOMPARE(get(m_web.url(u"/"_s)).body, QByteArray("whole"));
        m_web.setReply({early + headOf(tarn::http::kHeadBytes - early.size() + 1)});
        QCOMPARE(get(m_web.url(u"/"_s)).failure, Failure::HeadTooLong);
    }

    void longestBody_data()
    {
        QTest::addColumn<bool>("compressed");
        QTest::newRow("plain") << false;
        QTest::newRow("compressed") << true;
    }
    void longestBody()
    {
        QFETCH(const bool, compressed);
        const auto ask = [&](qint64 bytes) {
            const QByteArray body(bytes, 'x');
            m_web.setReply(FakeHttp::reply("200 OK", compressed ? tarn::test::gzip(body) : body,
                                           compressed ? "Content-Encoding: gzip\r\n" : ""));
            Request request{.url = QUrl(m_web.url(u"/"_s))};
            request.encoding = compressed ? tarn::http::Encoding::Compressed : tarn::http::Encoding::Identity;
            return tarn::http::exchange(request, kLimits);
        };
        QCOMPARE(ask(kBodyBytes).body, QByteArray(kBodyBytes, 'x'));
        compare(ask(kBodyBytes + 1), Failure::BodyTooLong, u"the answer has no end"_s);
        QVERIFY(!compressed || m_web.requests().constFirst().header("Accept-Encoding").contains("gzip"));
    }

    void encodingThatWasNotAskedForStays()
    {
        const QByteArray body = tarn::test::gzip("text");
        m_web.setReply(FakeHttp::reply("200 OK", body, "Content-Encoding: gzip\r\n"));
        QCOMPARE(get(m_web.url(u"/"_s)).body, body);
    }

    void endlessBody()
    {
        m_web.setReply({"HTTP/1.1 200 OK\r\n\r\n", FakeHttp::Then::Flood});
        compare(get(m_web.url(u"/"_s)), Failure::BodyTooLong, u"the answer has no end"_s);
        QVERIFY(m_web.floodedBytes() < kFloodedBytes);
    }

    void silence_data()
    {
        QTest::addColumn<QByteArray>("start");
        QTest::newRow("no-answer") << QByteArray();
        QTest::newRow("half-a-status-line") << QByteArray("HTTP/1.1 2");
        QTest::newRow("half-a-head") << QByteArray("HTTP/1.1 200 OK\r\nX: y\r\n");
        QTest::newRow("half-a-body") << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf");
    }
    void silence()
    {
        QFETCH(const QByteArray, start);
        m_web.setReply({start});
        QElapsedTimer timer;
        timer.start();
        compare(get(m_web.url(u"/"_s), {.silenceMs = 1'000, .totalMs = kEnoughMs, .bodyBytes = kBodyBytes}),
                Failure::Silence, u"no data for 1 seconds"_s);
        QVERIFY(timer.elapsed() > 900 && timer.elapsed() < kPromptMs);
        QCOMPARE(m_web.connections(), 1);
    }

    void dropsDoNotOutlastTheTotalTime()
    {
        m_web.setReply({"HTTP/1.1 200 OK\r\n\r\n", FakeHttp::Then::Trickle});
        QElapsedTimer timer;
        timer.start();
        compare(get(m_web.url(u"/"_s), {.silenceMs = 1'500, .totalMs = 3'000, .bodyBytes = kBodyBytes}),
                Failure::TotalTime, u"the answer takes too long"_s);
        QVERIFY(timer.elapsed() > 2'800 && timer.elapsed() < kPromptMs + 2'000);
    }

    void silenceWithoutALimitLastsForTheTotalTime()
    {
        m_web.setReply({"HTTP/1.1 200 OK\r\n"});
        QCOMPARE(get(m_web.url(u"/"_s), {.totalMs = 1'000, .bodyBytes = kBodyBytes}).failure,
                 Failure::TotalTime);
    }

    void cutBodies_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::newRow("length") << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n123456789");
        QTest::newRow("chunk") << QByteArray("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n12");
        QTest::newRow("no-last-chunk")
            << QByteArray("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n12\r\n");
        QTest::newRow("head") << QByteArray("HTTP/1.1 200 OK\r\nX: y\r\n");
        QTest::newRow("line-of-the-head") << QByteArray("HTTP/1.1 200 OK\r\nContent-");
        QTest::newRow("no-http") << QByteArray("SSH-2.0-OpenSSH_9.2\r\n");
        QTest::newRow("first-version") << QByteArray("<p>HTTP/0.9</p>\r\n");
        QTest::newRow("odd-length") << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n123456789");
    }
    void cutBodies()
    {
        QFETCH(const QByteArray, answer);
        m_web.setReply({answer, FakeHttp::Then::CloseLate});
        for (int i = 0; i < 10; ++i) {
            const Answer got = get(m_web.url(u"/"_s));
            QCOMPARE(got.failure, Failure::Network);
            QVERIFY(!got.error.isEmpty());
            QCOMPARE(got.body, QByteArray());
        }
        QCOMPARE(m_web.connections(), 10);
    }

    void bodyWithoutALengthEndsWithTheConnection()
    {
        m_web.setReply({"HTTP/1.0 200 OK\r\n\r\nall", FakeHttp::Then::Close});
        QCOMPARE(get(m_web.url(u"/"_s)).body, QByteArray("all"));
    }

    void whatIsNotAnsweredIsNotSentAgain_data()
    {
        QTest::addColumn<bool>("encrypted");
        QTest::newRow("http") << false;
        QTest::newRow("https") << true;
    }
    void whatIsNotAnsweredIsNotSentAgain()
    {
        QFETCH(const bool, encrypted);
        FakeHttp& server = encrypted ? m_secure : m_web;
        server.setReply({QByteArray(), FakeHttp::Then::Close});
        for (const auto method : {tarn::http::Method::Get, tarn::http::Method::Post}) {
            const Request request{.method = method, .url = QUrl(server.url(u"/"_s)), .body = "once"};
            compare(tarn::http::exchange(request, kLimits), Failure::Unanswered,
                    u"the server closed the connection without an answer"_s);
        }
        QCOMPARE(server.requests().size(), 2);
        QCOMPARE(server.connections(), 2);
    }

    void nobodyListens()
    {
        FakeHttp gone;
        QVERIFY(gone.start());
        const QString url = gone.url(u"/"_s);
        gone.close();
        compare(get(url), Failure::Network, u"Connection refused"_s);
    }

    void theProcessIsToldToEnd()
    {
        m_web.setReply({QByteArray()});
        Answer answer;
        QTimer::singleShot(0, qApp, [&] { answer = get(m_web.url(u"/"_s)); });
        QTimer poll;
        connect(&poll, &QTimer::timeout, qApp, [this] {
            if (!m_web.requests().isEmpty())
                QCoreApplication::quit();
        });
        poll.start(10);
        QElapsedTimer timer;
        timer.start();
        QCoreApplication::exec();
        compare(answer, Failure::Interrupted, u"interrupted"_s);
        QVERIFY(timer.elapsed() < kPromptMs);
    }

    void exchangesInsideEachOthersWaits()
    {
        // Each is begun while the one before waits, and the first is answered first.
        constexpr int kDepth = 12;
        QList<QByteArray> bodies;
        std::function<void(int)> ask = [&](int depth) {
            if (depth < kDepth)
                QTimer::singleShot(0, this, [&ask, depth] { ask(depth + 1); });
            const Answer answer = get(m_web.url(u"/%1"_s.arg(depth)));
            QCOMPARE(answer.error, QString());
            bodies.append(answer.body);
        };
        m_web.answer([&](const FakeHttp::Request& request) {
            return FakeHttp::reply("200 OK", request.target + QByteArray(9'000, 'x'));
        });
        ask(1);
        QTRY_COMPARE(bodies.size(), kDepth);
        for (int depth = 1; depth <= kDepth; ++depth)
            QVERIFY(bodies.contains('/' + QByteArray::number(depth) + QByteArray(9'000, 'x')));
        QCOMPARE(m_web.connections(), kDepth);
    }

    void timersGoOn()
    {
        m_web.setReply({QByteArray()});
        int ticks = 0;
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [&ticks] { ++ticks; });
        timer.start(50);
        get(m_web.url(u"/"_s), {.silenceMs = 1'000, .totalMs = kEnoughMs, .bodyBytes = kBodyBytes});
        QVERIFY2(ticks >= 5, qPrintable(QString::number(ticks)));
    }

    void childrenDoNotGetTheConnection()
    {
        int inherited = -1;
        m_web.answer([&](const FakeHttp::Request&) {
            inherited = inheritableSockets();
            return FakeHttp::reply("200 OK");
        });
        get(m_web.url(u"/"_s));
        QCOMPARE(inherited, 0);
    }

    void peerThatIsGoneDoesNotEndTheProcess()
    {
        get(m_web.url(u"/"_s));
        struct sigaction action = {};
        QCOMPARE(sigaction(SIGPIPE, nullptr, &action), 0);
        QVERIFY(action.sa_handler == SIG_IGN);
    }

    void nothingIsLeftBehind()
    {
        const auto round = [this] {
            m_web.setReply(FakeHttp::reply("200 OK", "x"));
            get(m_web.url(u"/"_s));
            get(m_web.url(u"/"_s).replace(u"127.0.0.1"_s, u"localhost"_s)); // looks a name up
            get(m_secure.url(u"/"_s));
            m_web.setReply({QByteArray()});
            get(m_web.url(u"/"_s), {.silenceMs = 10, .totalMs = 10, .bodyBytes = 1});
            m_web.setReply({"HTTP/1.1 200 OK\r\n\r\n", FakeHttp::Then::Flood});
            get(m_web.url(u"/"_s));
            m_web.reset();
            m_secure.reset();
        };
        const auto left = [] {
            return std::pair(entries(u"/proc/self/fd"_s), entries(u"/proc/self/task"_s));
        };
        round();
        const auto before = left();
        for (int i = 0; i < 30; ++i)
            round();
        QTRY_COMPARE(left(), before);
    }
};

QTEST_GUILESS_MAIN(tst_Http)
#include "tst_Http.moc"
