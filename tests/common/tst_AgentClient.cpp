#include "common/AgentClient.h"
#include "support/FakeAgent.h"
#include "support/ProcessMemory.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThreadPool>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using tarn::callAgent;
using tarn::test::AgentAnswer;
using tarn::test::FakeAgent;
using tarn::test::memoryMb;

namespace {

const auto kMethod = u"hosting.usage"_s;

/// Longer than any answer takes that comes at all.
constexpr int kAmpleMs = 20'000;
/// The wait of a call that is to be in vain.
constexpr int kShortMs = 300;
/// What a busy machine may add.
constexpr int kSlackMs = 3'000;

constexpr qsizetype kMaxAnswerBytes = 67'108'864;

QJsonObject usage()
{
    return {
        {u"ok"_s,    true                                                                        },
        {u"usage"_s,
         QJsonObject{{u"anna"_s, qint64(1'234'567'890'123)}, {u"b\u00f6rge"_s, 0}, {u"c"_s, 512}}},
    };
}

QJsonObject unreachable()
{
    return {
        {u"ok"_s,    false                   },
        {u"error"_s, u"agent not reachable"_s},
    };
}

QJsonObject noAnswer()
{
    return {
        {u"ok"_s,    false                    },
        {u"error"_s, u"agent did not answer"_s},
    };
}

/// Processor time of the process, in milliseconds.
qint64 cpuMs()
{
    rusage use = {};
    getrusage(RUSAGE_SELF, &use);
    return (use.ru_utime.tv_sec + use.ru_stime.tv_sec) * 1000
           + (use.ru_utime.tv_usec + use.ru_stime.tv_usec) / 1000;
}

sockaddr_un addressOf(const QString& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray name = path.toLocal8Bit();
    std::copy(name.cbegin(), name.cend(), address.sun_path);
    return address;
}

/// A listener whose queue is full, so that nobody gets in.
class FullListener
{
public:
    explicit FullListener(const QString& path)
    {
        const sockaddr_un address = addressOf(path);
        const auto* plain = reinterpret_cast<const sockaddr*>(&address);
        m_sockets.append(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const bool listens =
            bind(m_sockets.first(), plain, sizeof(address)) == 0 && listen(m_sockets.first(), 0) == 0;
        if (!listens)
            qFatal("cannot listen on %s", qPrintable(path));
        int result = 0;
        while (result == 0) {
            m_sockets.append(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            result = ::connect(m_sockets.last(), plain, sizeof(address));
        }
    }
    ~FullListener()
    {
        for (const int socket : std::as_const(m_sockets))
            close(socket);
    }
    FullListener(const FullListener&) = delete;
    FullListener& operator=(const FullListener&) = delete;

private:
    QList<int> m_sockets;
};

} // namespace

class tst_AgentClient : public QObject
{
    Q_OBJECT

private:
    /// The result of a call that is answered by @p answer.
    QJsonObject callAnsweredBy(const AgentAnswer& answer, int timeoutMs = kAmpleMs)
    {
        m_agent->setAnswer(kMethod, answer);
        return callAgent(m_agent->socketPath(), kMethod, {}, timeoutMs);
    }

    std::unique_ptr<FakeAgent> m_agent;
    QTemporaryDir m_folder;

private Q_SLOTS:
    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_agent = std::make_unique<FakeAgent>();
        QVERIFY(m_agent->start());
    }
    void cleanup() { m_agent.reset(); }

    void answerIsHandedOnUnchanged_data()
    {
        QTest::addColumn<QJsonObject>("object");
        QTest::newRow("success") << usage();
        QTest::newRow("failure") << QJsonObject{
            {u"ok"_s,    false               },
            {u"error"_s, u"no such account"_s},
        };
        QTest::newRow("neither") << QJsonObject{
            {u"a"_s, QJsonArray{1, 2.5, QJsonValue(), u"x"_s}}
        };
        QTest::newRow("empty") << QJsonObject();
        QTest::newRow("line-feed-in-a-text") << QJsonObject{
            {u"error"_s, u"two\nlines\r\n"_s}
        };
        QTest::newRow("largest-integer") << QJsonObject{
            {u"bytes"_s, QJsonValue(std::numeric_limits<qint64>::max())}
        };
    }
    void answerIsHandedOnUnchanged()
    {
        QFETCH(const QJsonObject, object);
        QCOMPARE(callAnsweredBy(AgentAnswer::good(object)), object);
    }

    void lineEndings_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("crlf") << QByteArray("{\"ok\":true}\r\n");
        QTest::newRow("blanks-around") << QByteArray("  { \"ok\" : true }\t \n");
    }
    void lineEndings()
    {
        QFETCH(const QByteArray, bytes);
        AgentAnswer answer;
        answer.bytes = bytes;
        QCOMPARE(callAnsweredBy(answer), (QJsonObject{
                                             {u"ok"_s, true}
        }));
    }

    void requestIsOneCompactLine_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QJsonObject>("args");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("without-arguments")
            << u"hosting.usage"_s << QJsonObject() << QByteArray("{\"args\":{},\"cmd\":\"hosting.usage\"}\n");
        QTest::newRow("arguments")
            << u"hosting.dbReadOnly"_s
            << QJsonObject{
                   {u"username"_s, u"anna"_s},
                   {u"readOnly"_s, true     },
               }
            << QByteArray("{\"args\":{\"readOnly\":true,\"username\":\"anna\"},"
                          "\"cmd\":\"hosting.dbReadOnly\"}\n");
        // No text may end the line early.
        QTest::newRow("line-feed-and-quote") << u"a\nb"_s << QJsonObject{{u"x"_s, u"\r\n\"}\n"_s}}
                                             << QByteArray("{\"args\":{\"x\":\"\\r\\n\\\"}\\n\"},"
                                                           "\"cmd\":\"a\\nb\"}\n");
        QTest::newRow("beyond-ascii")
            << u"m\u00e9thode"_s << QJsonObject() << QByteArray("{\"args\":{},\"cmd\":\"m\xc3\xa9thode\"}\n");
    }
    void requestIsOneCompactLine()
    {
        QFETCH(const QString, method);
        QFETCH(const QJsonObject, args);
        QFETCH(const QByteArray, line);
        m_agent->setAnswer(method, AgentAnswer::good(usage()));
        QCOMPARE(callAgent(m_agent->socketPath(), method, args, kAmpleMs), usage());
        QCOMPARE(m_agent->requests(), QList<QByteArray>{line});
        QCOMPARE(m_agent->calls(method), QList<QJsonObject>{args});
    }

    void oneConnectionACall()
    {
        QCOMPARE(callAnsweredBy(AgentAnswer::good(usage())), usage());
        QCOMPARE(callAnsweredBy(AgentAnswer::good(usage())), usage());
        QCOMPARE(m_agent->connections(), 2);
        QCOMPARE(m_agent->requests().size(), 2);
        QTRY_COMPARE(m_agent->openConnections(), 0);
    }

    void connectionIsClosedAfterAFailure()
    {
        QCOMPARE(callAnsweredBy(AgentAnswer::silent(), kShortMs), noAnswer());
        QTRY_COMPARE(m_agent->openConnections(), 0);
    }

    void notReachable_data()
    {
        QTest::addColumn<QString>("path");
        QTest::newRow("no-file") << m_folder.filePath(u"none.sock"_s);
        QTest::newRow("no-folder") << m_folder.filePath(u"none/agent.sock"_s);
        QTest::newRow("empty-path") << QString();
        QTest::newRow("relative-path") << u"no-such-agent.sock"_s;
        QTest::newRow("path-too-long-for-a-socket") << m_folder.filePath(QString(200, u'x'));
        QTest::newRow("a-folder") << m_folder.path();

        QFile plain(m_folder.filePath(u"plain"_s));
        QVERIFY(plain.open(QIODevice::WriteOnly));
        QTest::newRow("a-plain-file") << plain.fileName();

        // What an agent leaves that was killed.
        const QString left = m_folder.filePath(u"left.sock"_s);
        const sockaddr_un address = addressOf(left);
        const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        QCOMPARE(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        close(listener);
        QTest::newRow("nobody-listens") << left;
    }
    void notReachable()
    {
        QFETCH(const QString, path);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(callAgent(path, kMethod, {}, kAmpleMs), unreachable());
        QVERIFY2(timer.elapsed() < kSlackMs, "it is known at once");
    }

    void agentThatAcceptsNobody()
    {
        const QString path = m_folder.filePath(u"full.sock"_s);
        const FullListener listener(path);
        QElapsedTimer timer;
        timer.start();
        const qint64 before = cpuMs();
        QCOMPARE(callAgent(path, kMethod, {}, 1'000), unreachable());
        QVERIFY(timer.elapsed() < 1'000 + kSlackMs);
        QVERIFY2(cpuMs() - before < 500, "it waits at full speed");
    }

    void agentThatAcceptsNobodyWithoutAWait_data()
    {
        QTest::addColumn<int>("timeoutMs");
        QTest::newRow("zero") << 0;
        QTest::newRow("negative") << -1;
        QTest::newRow("one") << 1;
    }
    void agentThatAcceptsNobodyWithoutAWait()
    {
        QFETCH(const int, timeoutMs);
        const QTemporaryDir folder;
        const QString path = folder.filePath(u"full.sock"_s);
        const FullListener listener(path);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(callAgent(path, kMethod, {}, timeoutMs), unreachable());
        QVERIFY(timer.elapsed() < kSlackMs);
    }

    /// To the kernel a path without a character is the name of a socket too, one that anybody can take.
    void emptyPathIsNobodysSocket()
    {
        const sockaddr_un address = addressOf({});
        const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        QCOMPARE(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        QCOMPARE(listen(listener, 1), 0);
        QCOMPARE(callAgent({}, kMethod, {}, kShortMs), unreachable());
        close(listener);
    }

    void reachableOnceItListensAgain()
    {
        m_agent->stop();
        QCOMPARE(callAgent(m_agent->socketPath(), kMethod, {}, kAmpleMs), unreachable());
        QVERIFY(m_agent->start());
        QCOMPARE(callAnsweredBy(AgentAnswer::good(usage())), usage());
    }

    void didNotAnswer_data()
    {
        QTest::addColumn<AgentAnswer>("answer");
        QTest::newRow("silent") << AgentAnswer::silent();
        QTest::newRow("too-slow") << AgentAnswer::slow(usage(), 10'000);
        QTest::newRow("no-line-feed") << AgentAnswer::halfLine(usage());
        QTest::newRow("pause-within-the-line") << AgentAnswer::trickling(usage(), 2, 10'000);
    }
    void didNotAnswer()
    {
        QFETCH(const AgentAnswer, answer);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(callAnsweredBy(answer, kShortMs), noAnswer());
        QVERIFY2(timer.elapsed() >= kShortMs, "it did not wait");
        QVERIFY2(timer.elapsed() < 2 * kShortMs + kSlackMs, "it waited too long");
    }

    void hungUp_data()
    {
        QTest::addColumn<AgentAnswer>("answer");
        QTest::newRow("at-once") << AgentAnswer::closedAtOnce();
        AgentAnswer half = AgentAnswer::halfLine(usage());
        half.closes = true;
        QTest::newRow("within-the-line") << half;
        AgentAnswer unread = AgentAnswer::closedAtOnce();
        unread.readsRequest = false;
        QTest::newRow("before-the-request") << unread;
    }
    void hungUp()
    {
        QFETCH(const AgentAnswer, answer);
        if (!answer.readsRequest)
            m_agent->setAnswer({}, answer);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(callAnsweredBy(answer), noAnswer());
        QVERIFY2(timer.elapsed() < kSlackMs, "it waited for somebody who is gone");
    }

    void answerIsReadThoughTheAgentHasHungUp()
    {
        AgentAnswer answer = AgentAnswer::good(usage());
        answer.closes = true;
        for (int i = 0; i < 50; ++i)
            QCOMPARE(callAnsweredBy(answer), usage());
    }

    void limitIsForEachWait()
    {
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(callAnsweredBy(AgentAnswer::trickling(usage(), 12, 100), 800), usage());
        QVERIFY2(timer.elapsed() > 800, "the whole took no longer than one wait");
    }

    void answerInManyPieces() { QCOMPARE(callAnsweredBy(AgentAnswer::trickling(usage(), 60, 1)), usage()); }

    void onlyTheFirstLineIsRead()
    {
        const QJsonObject first{
            {u"ok"_s, true}
        };
        QCOMPARE(callAnsweredBy(AgentAnswer::twoLines(first, usage())), first);
    }

    void noObject_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("garbage") << AgentAnswer::garbage().bytes;
        QTest::newRow("empty-line") << QByteArray("\n");
        QTest::newRow("empty-line-first") << QByteArray("\n{\"ok\":true}\n");
        QTest::newRow("array") << QByteArray("[{\"ok\":true}]\n");
        QTest::newRow("text") << QByteArray("\"ok\"\n");
        QTest::newRow("null") << QByteArray("null\n");
        QTest::newRow("cut") << QByteArray("{\"ok\":true\n");
        QTest::newRow("more-behind") << QByteArray("{\"ok\":true}{\"ok\":true}\n");
        QTest::newRow("nul-byte") << QByteArray("{\"ok\":\0true}\n", 13);
        QTest::newRow("not-utf-8") << QByteArray("{\"ok\":\"\xff\xfe\"}\n");
        QTest::newRow("object-over-two-lines") << QByteArray("{\"ok\":\ntrue}\n");
        QTest::newRow("nested-too-deeply") << QByteArray(5'000'000, '[') + '\n';
    }
    void noObject()
    {
        QFETCH(const QByteArray, line);
        AgentAnswer answer;
        answer.bytes = line;
        QCOMPARE(callAnsweredBy(answer), QJsonObject());
    }

    void longestLine()
    {
        const QJsonObject object = callAnsweredBy(AgentAnswer::hugeLine(kMaxAnswerBytes));
        QVERIFY(object[u"ok"_s].toBool());
        QVERIFY(object[u"padding"_s].toString().size() > kMaxAnswerBytes - 100);
    }

    void longestLinePlusOne()
    {
        QCOMPARE(callAnsweredBy(AgentAnswer::hugeLine(kMaxAnswerBytes + 1)), noAnswer());
    }

    void endlessLineIsGivenUp()
    {
        const double before = memoryMb("VmRSS");
        tarn::test::resetMemoryPeak();
        QCOMPARE(callAnsweredBy(AgentAnswer::endlessLine()), noAnswer());
        QTRY_COMPARE(m_agent->openConnections(), 0);
        const double grown = memoryMb("VmHWM") - before;
        // The line once, once more while its room grows, and what the sanitizers want.
        QVERIFY2(grown < 500, qPrintable(u"%1 MB"_s.arg(grown)));
    }

    void requestThatNobodyReads_data()
    {
        QTest::addColumn<bool>("closes");
        QTest::newRow("silent") << false;
        QTest::newRow("closed") << true;
    }
    void requestThatNobodyReads()
    {
        QFETCH(const bool, closes);
        AgentAnswer deaf;
        deaf.readsRequest = false;
        deaf.waitsForGo = !closes;
        deaf.closes = true;
        m_agent->setAnswer({}, deaf);
        QElapsedTimer timer;
        timer.start();
        const QJsonObject args{
            {u"padding"_s, QString(10'000'000, u'x')}
        };
        QCOMPARE(callAgent(m_agent->socketPath(), kMethod, args, kShortMs), noAnswer());
        QVERIFY(timer.elapsed() < kShortMs + kSlackMs);
    }

    void longRequest()
    {
        m_agent->setAnswer(kMethod, AgentAnswer::good(usage()));
        const QJsonObject args{
            {u"padding"_s, QString(3'000'000, u'x')}
        };
        QCOMPARE(callAgent(m_agent->socketPath(), kMethod, args, kAmpleMs), usage());
        QCOMPARE(m_agent->calls(kMethod), QList<QJsonObject>{args});
    }

    void oddTimeouts_data()
    {
        QTest::addColumn<int>("timeoutMs");
        QTest::newRow("zero") << 0;
        QTest::newRow("negative") << -1;
        QTest::newRow("most-negative") << std::numeric_limits<int>::min();
    }
    void oddTimeouts()
    {
        QFETCH(const int, timeoutMs);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(callAnsweredBy(AgentAnswer::silent(), timeoutMs), noAnswer());
        QCOMPARE(callAgent(m_folder.filePath(u"none.sock"_s), kMethod, {}, timeoutMs), unreachable());
        QVERIFY2(timer.elapsed() < kSlackMs, "no wait is no wait");
    }

    void longestTimeout()
    {
        QCOMPARE(callAnsweredBy(AgentAnswer::slow(usage(), 50), std::numeric_limits<int>::max()), usage());
    }

    void onAPoolThread()
    {
        m_agent->setAnswer(kMethod, AgentAnswer::held(usage()));
        QJsonObject result;
        std::atomic_bool done = false;
        QThreadPool::globalInstance()->start([&] {
            result = callAgent(m_agent->socketPath(), kMethod, {}, kAmpleMs);
            done = true;
        });
        // Meanwhile this thread's timers go on.
        int ticks = 0;
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [&] { ++ticks; });
        timer.start(1);
        QTRY_COMPARE(m_agent->requests().size(), 1);
        QTRY_VERIFY(ticks > 3);
        QVERIFY(!done);
        m_agent->go();
        QTRY_VERIFY(done);
        QVERIFY(QThreadPool::globalInstance()->waitForDone());
        QCOMPARE(result, usage());
    }

    void onAThreadThatIsNotQts()
    {
        m_agent->setAnswer(kMethod, AgentAnswer::good(usage()));
        const QString full = m_folder.filePath(u"full2.sock"_s);
        const FullListener listener(full);
        QJsonObject good;
        QJsonObject missing;
        QJsonObject refused;
        std::thread thread([&] {
            good = callAgent(m_agent->socketPath(), kMethod, {}, kAmpleMs);
            missing = callAgent(m_folder.filePath(u"none.sock"_s), kMethod, {}, kAmpleMs);
            refused = callAgent(full, kMethod, {}, kShortMs);
        });
        thread.join();
        QCOMPARE(good, usage());
        QCOMPARE(missing, unreachable());
        QCOMPARE(refused, unreachable());
    }

    void manyAtOnce()
    {
        m_agent->setAnswer(kMethod, AgentAnswer::trickling(usage(), 5, 2));
        std::atomic_int good = 0;
        std::vector<std::thread> threads;
        threads.reserve(20);
        for (int i = 0; i < 20; ++i) {
            threads.emplace_back([&] {
                if (callAgent(m_agent->socketPath(), kMethod, {}, kAmpleMs) == usage())
                    ++good;
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        QCOMPARE(good.load(), 20);
    }
};

QTEST_GUILESS_MAIN(tst_AgentClient)
#include "tst_AgentClient.moc"
