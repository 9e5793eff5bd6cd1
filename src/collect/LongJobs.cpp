#include "collect/LongJobs.h"

#include <QAbstractEventDispatcher>
#include <QScopedValueRollback>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <utility>

namespace tarn {

namespace {

constexpr auto kPause = std::chrono::seconds(2);

/// QThread::loopLevel() inside the application's own exec(). Every local event loop adds 1.
constexpr int kOuterLoop = 1;

} // namespace

LongJobs::LongJobs(QList<Entry> table, std::function<bool()> isReady)
    : m_table(std::move(table))
    , m_isReady(std::move(isReady))
{
    m_pause.setSingleShot(true);
    // A job that starts between two passes of the loop holds up no handler. A timer would not do: beside a
    // job that waits nearly all of the time, it would fire inside those waits and never in the outer loop.
    QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, this,
                     [this] { startNext(); });
}

void LongJobs::request(LongJob job)
{
    if (m_waiting.contains(job))
        return;
    m_waiting.append(job);
    // The loop may be about to sleep, or not have begun.
    QAbstractEventDispatcher::instance()->wakeUp();
}

void LongJobs::startNext()
{
    if (m_waiting.isEmpty() || m_isRunning || m_pause.isActive()
        || QThread::currentThread()->loopLevel() != kOuterLoop) {
        return;
    }
    const QScopedValueRollback<bool> running(m_isRunning, true);
    if (!m_isReady()) {
        m_pause.start(kPause);
        return;
    }
    const LongJob job = m_waiting.takeFirst();
    const auto entry = std::find_if(m_table.cbegin(), m_table.cend(),
                                    [job](const Entry& candidate) { return candidate.job == job; });
    if (entry != m_table.cend())
        entry->run();
    if (!m_waiting.isEmpty())
        QAbstractEventDispatcher::instance()->wakeUp();
}

} // namespace tarn
