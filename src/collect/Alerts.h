// When an alert opens and closes, and what is bad and how it is said, as values: no database, no clock, no
// network.
#pragma once

#include <QString>

class QJsonObject;

namespace tarn {

enum class AlertAction {
    None,
    Open,
    Refresh, ///< the open alert's text may have changed
    Close,
};

/// How many passes in a row a condition has been bad (above 0) or good (below 0), and what that calls for.
struct Streak
{
    int length = 0;
    AlertAction action = AlertAction::None;
};

/// The streak after one more pass. @p n, at least 1, is how many passes in a row open an alert, and close it.
Streak nextStreak(int length, bool bad, int n);

/// What one pass has found about one thing that can go wrong.
struct Condition
{
    QString kind;
    QString subject;
    bool bad = false;
    QString text; ///< of the alert, whether it is bad or not
};

// A threshold is reached when the figure itself, not the rounded one of the text, is equal or above.

Condition memoryCondition(qint64 totalKb, qint64 availableKb, double alertPct);
/// @p slotCount is above 0.
Condition apacheCondition(int busy, int slotCount, double alertPct);
Condition loadCondition(double load1, int cpus, double alertPerCpu);
Condition temperatureCondition(double celsius, double alertCelsius);
/// @p disk as of system::disks().
Condition diskCondition(const QJsonObject& disk, double alertPct);
/// @p service as of system::parseServices().
Condition serviceCondition(const QJsonObject& service);

// A limit is in units of 2^20 bytes, and is none at 0 and below. What is used must be above it, not equal.

Condition quotaCondition(const QString& user, const QString& domain, qint64 usedBytes, qint64 limitMb);
Condition databaseQuotaCondition(const QString& user, const QString& domain, qint64 sizeBytes,
                                 qint64 limitMb);

} // namespace tarn
