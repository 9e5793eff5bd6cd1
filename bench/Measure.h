// Medians of alternating rounds, so that whatever else the machine does falls on all candidates alike.
#pragma once

#include <QElapsedTimer>
#include <QList>
#include <QString>

#include <algorithm>
#include <cstdio>
#include <functional>

namespace tarn::bench {

/// One way to do the job; the first of a list is the baseline.
struct Candidate
{
    QString name;
    std::function<void()> job;
    QList<double> seconds = {};

    double median() const
    {
        QList<double> sorted = seconds;
        std::sort(sorted.begin(), sorted.end());
        return sorted.at(sorted.size() / 2);
    }
};

/// Runs each candidate @p rounds times in turn and prints its speed in @p unit and the ratio to the baseline.
inline void compare(QList<Candidate> candidates, int rounds, qsizetype units, const char* unit)
{
    for (int round = 0; round < rounds; ++round) {
        for (Candidate& candidate : candidates) {
            QElapsedTimer timer;
            timer.start();
            candidate.job();
            candidate.seconds.append(static_cast<double>(timer.nsecsElapsed()) / 1e9);
        }
    }
    std::printf("%-44s %14s %10s   median of %d rounds\n", "", unit, "ratio", rounds);
    for (const Candidate& candidate : candidates) {
        std::printf("%-44s %14.0f %9.2fx\n", qPrintable(candidate.name),
                    static_cast<double>(units) / candidate.median(),
                    candidates.first().median() / candidate.median());
    }
}

} // namespace tarn::bench
