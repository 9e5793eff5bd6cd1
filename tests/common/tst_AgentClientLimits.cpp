#include "common/AgentTest.h"
#include "support/ProcessMemory.h"

#include <QElapsedTimer>
#include <QThreadPool>
#include <QTimer>

#include <atomic>
#include <limits>
#include <thread>
#include <vector>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::test;

namespace {

constexpr qsizetype kMaxAnswerBytes = 67'108'864;

} // namespace

/// The limits of time and length, and callers on several threads.
class tst_AgentClientLimits : public AgentTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { beginTest(); }
    void cleanup() { endTest(); }

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

    void limitIsForEachWait()
    {
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(callAnsweredBy(AgentAnswer::trickling(usage(), 12, 100), 800), usage());
        QVERIFY2(timer.elapsed() > 800, "the whole took no longer than one wait");
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

QTEST_GUILESS_MAIN(tst_AgentClientLimits)
#include "tst_AgentClientLimits.moc"
