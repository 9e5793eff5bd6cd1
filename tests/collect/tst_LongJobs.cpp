// When the long jobs start: from the outer loop only, one at a time, each remembered once.

#include "collect/LongJobs.h"

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

    void anIdleLoopIsWokenUp()
    {
        // Nothing else would: no timer runs out before the loop's own end.
        QEventLoop outer;
        m_inside = [&outer] { outer.quit(); };
        QTimer::singleShot(20s, &outer, [&outer] { outer.exit(1); });
        m_jobs->request(LongJob::SyncSearch);
        QCOMPARE(outer.exec(), 0);
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
        LongJobs jobs(
            {
                {LongJob::SyncSearch, job(QStringLiteral("sync"))}
        },
            [&] {
                ++asked;
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
    }
};

QTEST_GUILESS_MAIN(tst_LongJobs)
#include "tst_LongJobs.moc"
