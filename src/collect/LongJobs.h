// The jobs that may wait for minutes, or for hours: the daily work and all that asks Google or DB-IP. They
// run one at a time and from the outer event loop only. No job is therefore suspended by a longer one that
// began inside its wait. Samples, log passes, roll-ups and measurements are not among them: they go on inside
// the waits of these. Owned by main, which needs the application object for it. Main thread only.
#pragma once

#include <QList>
#include <QObject>
#include <QTimer>

#include <functional>

namespace tarn {

enum class LongJob : quint8 {
    RemoveOldHits,   ///< hits past the retention; as long as the database takes
    SyncSearch,      ///< search figures from Google, page by page
    UpdateCountries, ///< the country table from DB-IP
};

class LongJobs : public QObject
{
public:
    struct Entry
    {
        LongJob job;
        std::function<void()> run;
    };

    /// @p table has one entry for each job that is requested. @p isReady is asked before each start; after a
    /// false the next look is two seconds later.
    LongJobs(QList<Entry> table, std::function<bool()> isReady);
    LongJobs(const LongJobs&) = delete;
    LongJobs& operator=(const LongJobs&) = delete;
    ~LongJobs() override = default;

    /// Has @p job run as soon as the outer event loop is free and every job that was requested before has
    /// ended. Returns at once. Further requests for a job that waits for its turn do nothing; requests for
    /// one that is running have it run once more.
    void request(LongJob job);

private:
    void startNext();

    const QList<Entry> m_table;
    const std::function<bool()> m_isReady;
    QList<LongJob> m_waiting; ///< each at most once, in the order of their requests
    bool m_isRunning = false;
    QTimer m_pause; ///< active after a false of m_isReady
};

} // namespace tarn
