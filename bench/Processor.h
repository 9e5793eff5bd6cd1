// Processor time of this process, of the PostgreSQL process behind a session, and of programs that were run.
#pragma once

#include <QElapsedTimer>
#include <QFile>
#include <QSqlQuery>
#include <QString>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <sys/resource.h>

namespace tarn::bench {

/// What a job has taken, in seconds.
struct Cost
{
    double own = 0;      ///< processor time of this process
    double backend = 0;  ///< processor time of the server's process behind the session
    double children = 0; ///< processor time of programs that were run to their end
    double wall = 0;

    double processor() const { return own + backend + children; }
};

/// Processor time of the process @p pid so far: the first field of its schedstat, in ns (kernel,
/// Documentation/scheduler/sched-stats). It is the main thread's; PostgreSQL's processes have no other.
inline double processSeconds(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/schedstat").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').constFirst().toDouble() / 1e9;
}

inline double seconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// What @p job costs; the server's process is @p backend, or nobody's when it is 0.
inline Cost costOf(qint64 backend, const std::function<void()>& job)
{
    const auto now = [backend] {
        timespec own = {};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &own);
        rusage children = {};
        getrusage(RUSAGE_CHILDREN, &children);
        return Cost{.own = static_cast<double>(own.tv_sec) + static_cast<double>(own.tv_nsec) / 1e9,
                    .backend = backend == 0 ? 0 : processSeconds(backend),
                    .children = seconds(children.ru_utime) + seconds(children.ru_stime)};
    };
    QElapsedTimer timer;
    timer.start();
    const Cost before = now();
    job();
    Cost after = now();
    after.own -= before.own;
    after.backend -= before.backend;
    after.children -= before.children;
    after.wall = static_cast<double>(timer.nsecsElapsed()) / 1e9;
    return after;
}

/// The median run by processor time.
inline Cost median(QList<Cost> costs)
{
    std::sort(costs.begin(), costs.end(),
              [](const Cost& a, const Cost& b) { return a.processor() < b.processor(); });
    return costs.at(costs.size() / 2);
}

/// The process behind @p session.
inline qint64 backendOf(const QSqlDatabase& session)
{
    QSqlQuery query(QStringLiteral("SELECT pg_backend_pid()"), session);
    return query.next() ? query.value(0).toLongLong() : 0;
}

} // namespace tarn::bench
