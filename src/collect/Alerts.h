// The rules of alerts, as values: which pass opens or closes an alert, what counts as bad, and the text of
// each condition. No database, no clock, no network.
#pragma once

#include <QString>

class QJsonObject;

namespace tarn {

/// What a pass calls for. It need not find what it is for: an alert can be open since an earlier run.
enum class AlertAction {
    None,    ///< leave tarn.alerts as it is
    Open,    ///< this pass is the n-th bad one in a row
    Refresh, ///< a further bad one: the open alert's text may have changed
    Close,   ///< this pass is the n-th good one in a row
};

/// A condition's streak after a pass, and what that pass calls for.
struct Streak
{
    int length = 0; ///< passes in a row that were bad (above 0) or good (below 0); 0 before the first
    AlertAction action = AlertAction::None;
};

/// The streak of @p length after one more pass. @p n, at least 1, is how many passes in a row open an alert,
/// and close it. A length stays at the largest int, and at its negative.
Streak nextStreak(int length, bool bad, int n);

/// What one pass has found about one thing that can go wrong.
struct Condition
{
    QString kind;    ///< of tarn.alerts: "memory", "apache", "load", "disk", ...
    QString subject; ///< what it is about: "RAM", a mount point, a unit, a user name
    bool bad = false;
    QString text; ///< of the alert, a sentence without its full stop; filled also when it is not bad
};

// A condition with a threshold is bad when its figure is equal or above. The figure itself is compared, not
// the rounded one of the text. A threshold that is not a number is never reached.

/// "memory" of "RAM": "Memory 93% used". The used share of @p totalKb in percent; 0 without a total.
Condition memoryCondition(qint64 totalKb, qint64 availableKb, double alertPct);

/// "apache" of "workers": "Apache is using 360 of 400 workers; new visitors wait in line". The busy share in
/// percent. @p slotCount is above 0.
Condition apacheCondition(int busy, int slotCount, double alertPct);

/// "load" of "CPU": "Load 8.0 on 4 CPUs". @p load1 is the mean of the last minute; the threshold is
/// @p alertPerCpu for each of @p cpus.
Condition loadCondition(double load1, int cpus, double alertPerCpu);

/// "temperature" of "CPU": "CPU at 71 °C".
Condition temperatureCondition(double celsius, double alertCelsius);

/// "disk" of its mount point: "Disk /var is 93% full". The used share in percent; 0 without a total. @p disk
/// is an object of system::disks(): {"mount": "/var", "total": 1000000, "avail": 70000, ...}.
Condition diskCondition(const QJsonObject& disk, double alertPct);

/// "service" of its name: "Service apache2 is not running (failed)", or "Service apache2 is not installed".
/// Bad unless it is loaded and active; what @p service does not say is false. It is an object of
/// system::parseServices(): {"name": "apache2", "loaded": true, "active": false, "sub": "failed", ...}.
Condition serviceCondition(const QJsonObject& service);

// A limit is in units of 2^20 bytes; 0 and below are no limit. A condition is bad when the use is above the
// limit. An equal use is not.

/// "quota" of @p user: "a.example uses 12 MB of its 10 MB disk limit".
Condition quotaCondition(const QString& user, const QString& domain, qint64 usedBytes, qint64 limitMb);

/// "dbquota" of @p user: "a.example's database is 12 MB, over its 10 MB limit; it is read-only until it
/// shrinks or the limit is raised".
Condition databaseQuotaCondition(const QString& user, const QString& domain, qint64 sizeBytes,
                                 qint64 limitMb);

} // namespace tarn
