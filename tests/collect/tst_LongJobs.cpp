// When the long jobs start: from the outer loop only, one at a time, each remembered once.

#include "collect/LongJobs.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTest>
#include <QThread>

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

using namespace std::chrono_literals;
using tarn::LongJob;
using tarn::LongJobs;

class tst_LongJobs : public QObject
{
    Q_OBJECT

private:
    static int level() { return QThread::currentThread()->loopLevel(); }

    /// Runs an outer loop until @p done, or for too long.
    template <typename Condition>
    static bool runUntil(Condition done)
    {
        QEventLoop outer;
        QTimer look;
        QObject::connect(&look, &QTimer::timeout, &outer, [&] {
            if (done())
                outer.quit();
        });
        look.start(5ms);
        QTimer::singleShot(20s, &outer, &QEventLoop::quit);
        outer.exec();
        return done();
    }

    /// Waits as a job does, in a loop of its own.
    static void wait(std::chrono::milliseconds time)
    {
        QEventLoop loop;
        QTimer::singleShot(time, &loop, &QEventLoop::quit);
        loop.exec();
    }

    QStringList m_runs;
    bool m_ready = true;
    std::function<void()> m_inside;
    std::unique_ptr<LongJobs> m_jobs;

    std::function<void()> job(const QString& name)
    {
        return [this, name] {
            m_runs.append(name + QString::number(level()));
            if (m_inside)
                m_inside();
        };
    }

private Q_SLOTS:
    void init()
    {
        m_runs.clear();
        m_ready = true;
        m_inside = nullptr;
        m_jobs = std::make_unique<LongJobs>(
            QList<LongJobs::Entry>{
                {LongJob::SyncSearch,      job(QStringLiteral("sync"))     },
                {LongJob::UpdateCountries, job(QStringLiteral("countries"))},
        },
            [this] { return m_ready; });
    }
    void cleanup() { m_jobs.reset(); }

    void askedForBeforeTheLoopRuns()
    {
        m_jobs->request(LongJob::SyncSearch);
        QVERIFY(m_runs.isEmpty());
        QVERIFY(runUntil([this] { return !m_runs.isEmpty(); }));
        QCOMPARE(m_runs, QStringList{QStringLiteral("sync1")});
    }

    void anIdleLoopIsWokenUpForEach()
    {
        // Nothing else would: no timer runs out before the loop's own end.
        QEventLoop outer;
        m_inside = [&] {
            if (m_runs.size() == 2)
                outer.quit();
        };
        QElapsedTimer timer;
        timer.start();
        QTimer::singleShot(20s, &outer, [&outer] { outer.quit(); });
        m_jobs->request(LongJob::SyncSearch);
        m_jobs->request(LongJob::UpdateCountries);
        outer.exec();
        QVERIFY2(timer.elapsed() < 15'000, "it slept until the timer ran out");
    }

    void aRequestJustBeforeTheLoopSleepsIsNotSleptOver()
    {
        QEventLoop outer;
        m_inside = [&outer] { outer.quit(); };
        QElapsedTimer timer;
        timer.start();
        QTimer::singleShot(20s, &outer, [&outer] { outer.quit(); });
        bool asked = false;
        QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock,
                         &outer, [&] {
                             if (!std::exchange(asked, true))
                                 m_jobs->request(LongJob::SyncSearch);
                         });
        outer.exec();
        QVERIFY2(timer.elapsed() < 15'000, "it slept until the timer ran out");
    }

    void inTheOrderOfTheirRequests()
    {
        m_jobs->request(LongJob::UpdateCountries);
        m_jobs->request(LongJob::SyncSearch);
        m_jobs->request(LongJob::UpdateCountries);
        QVERIFY(runUntil([this] { return m_runs.size() >= 2; }));
        QCOMPARE(m_runs, QStringList({QStringLiteral("countries1"), QStringLiteral("sync1")}));
    }

    void neverInsideTheWaitOfAShortJob()
    {
        bool waited = false;
        QTimer::singleShot(0ms, this, [&] {
            m_jobs->request(LongJob::SyncSearch);
            wait(50ms);
            waited = true;
            QVERIFY(m_runs.isEmpty());
        });
        QVERIFY(runUntil([this] { return !m_runs.isEmpty(); }));
        QVERIFY(waited);
        QCOMPARE(m_runs, QStringList{QStringLiteral("sync1")});
    }

    void neverOneInsideAnother()
    {
        bool running = false;
        bool nested = false;
        m_inside = [&] {
            nested = nested || running;
            running = true;
            m_jobs->request(LongJob::SyncSearch);
            m_jobs->request(LongJob::UpdateCountries);
            wait(20ms);
            running = false;
        };
        m_jobs->request(LongJob::SyncSearch);
        QVERIFY(runUntil([this] { return m_runs.size() >= 6; }));
        QVERIFY(!nested);
    }

    void noneWhileAnotherProcessesEventsWithoutALoop()
    {
        QStringList ended;
        m_inside = [&] {
            if (m_runs.size() > 2)
                return;
            m_jobs->request(LongJob::UpdateCountries);
            QCoreApplication::processEvents();
            ended.append(m_runs.last());
        };
        m_jobs->request(LongJob::SyncSearch);
        QVERIFY(runUntil([&ended] { return ended.size() >= 2; }));
        QCOMPARE(ended.first(2), QStringList({QStringLiteral("sync1"), QStringLiteral("countries1")}));
    }

    void manyRequestsDuringARunAreOneMore()
    {
        bool first = true;
        m_inside = [&] {
            if (!std::exchange(first, false))
                return;
            for (int i = 0; i < 640; ++i)
                m_jobs->request(LongJob::SyncSearch);
            wait(20ms);
        };
        m_jobs->request(LongJob::SyncSearch);
        QVERIFY(runUntil([this] { return m_runs.size() >= 2; }));
        int passes = 0;
        QVERIFY(runUntil([&passes] { return ++passes > 20; }));
        QCOMPARE(m_runs, QStringList(2, QStringLiteral("sync1")));
    }

    void aTimerThatFiresOnEveryPassStarvesNone()
    {
        // As the samples do with an interval of 0 and an Apache that says nothing.
        QTimer busy;
        bool waiting = false;
        QObject::connect(&busy, &QTimer::timeout, this, [&waiting] {
            if (std::exchange(waiting, true))
                return;
            wait(30ms);
            waiting = false;
        });
        busy.start(0ms);
        m_jobs->request(LongJob::SyncSearch);
        QVERIFY(runUntil([this] { return !m_runs.isEmpty(); }));
        QCOMPARE(m_runs, QStringList{QStringLiteral("sync1")});
    }

    void noTimerIsHeldByALongJob()
    {
        int ticks = 0;
        QTimer other;
        QObject::connect(&other, &QTimer::timeout, this, [&] {
            if (++ticks == 1)
                m_jobs->request(LongJob::SyncSearch);
        });
        m_inside = [&] {
            const int before = ticks;
            QVERIFY(QTest::qWaitFor([&] { return ticks > before + 3; }));
        };
        other.start(5ms);
        QVERIFY(runUntil([this] { return !m_runs.isEmpty(); }));
    }

    void waitsUntilItMayStart()
    {
        m_ready = false;
        int asked = 0;
        QElapsedTimer since;
        LongJobs jobs(
            {
                {LongJob::SyncSearch, job(QStringLiteral("sync"))}
        },
            [&] {
                if (++asked == 1)
                    since.start();
                return m_ready;
            });
        jobs.request(LongJob::SyncSearch);
        int passes = 0;
        QVERIFY(runUntil([&passes] { return ++passes > 20; }));
        QCOMPARE(asked, 1);
        QVERIFY(m_runs.isEmpty());
        m_ready = true;
        QVERIFY(runUntil([this] { return !m_runs.isEmpty(); }));
        QCOMPARE(asked, 2);
        QVERIFY(since.elapsed() >= 1'900);
    }
};

QTEST_GUILESS_MAIN(tst_LongJobs)
#include "tst_LongJobs.moc"
