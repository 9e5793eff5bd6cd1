#include "collect/Alerts.h"

#include <QJsonObject>

#include <cmath>
#include <limits>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

constexpr double kMbPerByte = 1.0 / 1'048'576;

/// Rounded to the nearest whole number, halves away from zero.
QString rounded(double value)
{
    return QString::number(std::round(value) + 0.0, 'f', 0); // + 0.0 makes -0 a plain 0
}

/// Computed in floating point, where figures of up to 2^63 do not overflow. The factor 100 comes before the
/// division, so that nine tenths are exactly 90.
double usedPercent(qint64 total, qint64 available)
{
    const auto all = static_cast<double>(total);
    return total > 0 ? (all - static_cast<double>(available)) * 100 / all : 0;
}

bool isOverLimit(double usedMb, qint64 limitMb)
{
    return limitMb > 0 && usedMb > static_cast<double>(limitMb);
}

} // namespace

Streak nextStreak(int length, bool bad, int n)
{
    // A collector may run for years: a streak stays at the ends of its range.
    constexpr int longest = std::numeric_limits<int>::max();
    if (bad) {
        const int next = length <= 0 ? 1 : length + (length < longest ? 1 : 0);
        if (next == n)
            return {next, AlertAction::Open};
        return {next, next > n ? AlertAction::Refresh : AlertAction::None};
    }
    const int next = length >= 0 ? -1 : length - (length > -longest ? 1 : 0);
    return {next, next == -n ? AlertAction::Close : AlertAction::None};
}

Condition memoryCondition(qint64 totalKb, qint64 availableKb, double alertPct)
{
    const double percent = usedPercent(totalKb, availableKb);
    return {u"memory"_s, u"RAM"_s, percent >= alertPct, u"Memory %1% used"_s.arg(rounded(percent))};
}

Condition apacheCondition(int busy, int slotCount, double alertPct)
{
    const double percent = busy * 100.0 / slotCount;
    return {u"apache"_s, u"workers"_s, percent >= alertPct,
            u"Apache is using %1 of %2 workers; new visitors wait in line"_s.arg(QString::number(busy),
                                                                                 QString::number(slotCount))};
}

Condition loadCondition(double load1, int cpus, double alertPerCpu)
{
    return {u"load"_s, u"CPU"_s, load1 >= cpus * alertPerCpu,
            u"Load %1 on %2 CPUs"_s.arg(QString::number(load1, 'f', 1), QString::number(cpus))};
}

Condition temperatureCondition(double celsius, double alertCelsius)
{
    return {u"temperature"_s, u"CPU"_s, celsius >= alertCelsius, u"CPU at %1 °C"_s.arg(rounded(celsius))};
}

Condition diskCondition(const QJsonObject& disk, double alertPct)
{
    const QString mount = disk.value(u"mount"_s).toString();
    const double percent =
        usedPercent(disk.value(u"total"_s).toInteger(), disk.value(u"avail"_s).toInteger());
    return {u"disk"_s, mount, percent >= alertPct, u"Disk %1 is %2% full"_s.arg(mount, rounded(percent))};
}

Condition serviceCondition(const QJsonObject& service)
{
    const QString name = service.value(u"name"_s).toString();
    if (!service.value(u"loaded"_s).toBool())
        return {u"service"_s, name, true, u"Service %1 is not installed"_s.arg(name)};
    const QString state = service.value(u"sub"_s).toString();
    return {u"service"_s, name, !service.value(u"active"_s).toBool(),
            u"Service %1 is not running (%2)"_s.arg(name, state)};
}

Condition quotaCondition(const QString& user, const QString& domain, qint64 usedBytes, qint64 limitMb)
{
    const double usedMb = static_cast<double>(usedBytes) * kMbPerByte;
    return {
        u"quota"_s, user, isOverLimit(usedMb, limitMb),
        u"%1 uses %2 MB of its %3 MB disk limit"_s.arg(domain, rounded(usedMb), QString::number(limitMb))};
}

Condition databaseQuotaCondition(const QString& user, const QString& domain, qint64 sizeBytes, qint64 limitMb)
{
    const double sizeMb = static_cast<double>(sizeBytes) * kMbPerByte;
    return {u"dbquota"_s, user, isOverLimit(sizeMb, limitMb),
            u"%1's database is %2 MB, over its %3 MB limit; it is read-only until it shrinks or the limit is "
            "raised"_s.arg(domain, rounded(sizeMb), QString::number(limitMb))};
}

} // namespace tarn
