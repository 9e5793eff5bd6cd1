// What a job costs this thread, whatever else the machine does meanwhile.
#pragma once

#include <algorithm>
#include <ctime>
#include <limits>

namespace tarn::tests {

/// Processor time of the calling thread so far.
inline double threadSeconds()
{
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// The least processor time of @p rounds runs of @p job: what disturbs a run only makes it longer.
template <typename Job>
double leastSeconds(int rounds, Job job)
{
    double least = std::numeric_limits<double>::max();
    for (int round = 0; round < rounds; ++round) {
        const double start = threadSeconds();
        job();
        least = std::min(least, threadSeconds() - start);
    }
    return least;
}

} // namespace tarn::tests
