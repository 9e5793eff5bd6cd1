// The collector's timers: how often each job runs, and the one place that starts them. Knows no job; main has
// the table. Main thread only.
#pragma once

#include <QList>
#include <QObject>

#include <chrono>
#include <functional>

class QSettings;

namespace tarn {

/// From one start of a job to the next.
struct Periods
{
    std::chrono::milliseconds samples;     ///< `collect/interval_seconds`
    std::chrono::milliseconds logs;        ///< two seconds
    std::chrono::milliseconds accounts;    ///< `hosting/usage_minutes`
    std::chrono::milliseconds maintenance; ///< half a minute
};

/// The periods by kTimerSettings. They are cut to the 2^31 - 1 milliseconds that a timer can take. A setting
/// that is no number gives 0, and a negative one a negative period: checkSettings() has named both.
Periods periodsFrom(const QSettings& settings);

class Timetable
{
public:
    struct Entry
    {
        const char* name; ///< of the timer, for a debugger
        std::chrono::milliseconds period;
        std::function<bool()> prepare; ///< what the first run needs; nothing: no more than the entries above
        std::function<void()> job;
    };

    /// @p isReady is asked before each run by a timer; after a false that run is left out.
    Timetable(QList<Entry> entries, std::function<bool()> isReady);

    /// Prepares and starts entry by entry: its timer first, then the first run of its job. A job whose first
    /// run waits therefore runs before the timers of the later entries. False when an entry could not be
    /// prepared; what comes behind it is not started. To be called once.
    bool start();

private:
    const QList<Entry> m_entries;
    const std::function<bool()> m_isReady;
    QObject m_timers; ///< their parent
};

} // namespace tarn
