#include "common/AgentTest.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>

#include <limits>

#include <sys/resource.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::test;

namespace {

/// Processor time of the process, in milliseconds.
qint64 cpuMs()
{
    rusage use = {};
    getrusage(RUSAGE_SELF, &use);
    return (use.ru_utime.tv_sec + use.ru_stime.tv_sec) * 1000
           + (use.ru_utime.tv_usec + use.ru_stime.tv_usec) / 1000;
}

} // namespace

/// A request and its answer, and agents that cannot be reached.
class tst_AgentClient : public AgentTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { beginTest(); }
    void cleanup() { endTest(); }

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
};

QTEST_GUILESS_MAIN(tst_AgentClient)
#include "tst_AgentClient.moc"
