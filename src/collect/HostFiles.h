// The counters that the kernel keeps in text files. Each parser is a function of the text alone and never
// fails: what is missing, cut off or no number counts as 0, a text of more than 64 bytes included, and a sum
// that does not fit stays at the largest number. Counters are never negative, so that two of them can be
// subtracted.
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace tarn {

/// Time since the start of the machine, all processors together, in ticks of the kernel's clock (jiffies).
struct CpuTimes
{
    qint64 busy = 0;   ///< neither idle nor waiting for I/O
    qint64 total = 0;  ///< guests' time, which is part of the user's, is not added again
    qint64 iowait = 0; ///< idle with I/O under way
};

/// /proc/stat (proc(5)), of which the first line is read; old kernels have fewer columns:
///
///     cpu  354280 3085 335259 1636640 5336   0   1234    1252  0     0
///          user   nice system idle    iowait irq softirq steal guest guest_nice
CpuTimes parseStat(const QByteArray& text);

/// Bytes that came in and went out.
struct Traffic
{
    qint64 in = 0;
    qint64 out = 0;
};

/// /proc/net/dev (proc(5)): bytes received and sent over all interfaces except "lo". What passes through a
/// bridge or a tunnel is counted at each interface that it passes.
Traffic parseNetDev(const QByteArray& text);

/// /proc/diskstats (the kernel's admin-guide/iostats): bytes read from and written to the disks. Partitions,
/// and what is made of disks (dm, md, loop), would count them twice and are left out.
Traffic parseDiskStats(const QByteArray& text);

/// Processes that run or wait to, as means over the last 1, 5 and 15 minutes.
struct LoadAverage
{
    double one = 0;
    double five = 0;
    double fifteen = 0;
};

/// /proc/loadavg (proc(5)).
LoadAverage parseLoadAverage(const QByteArray& text);

/// The value of @p key ("MemAvailable") in a /proc/meminfo (proc(5)), in kB.
qint64 meminfo(const QByteArray& text, const QByteArray& key);

/// The whole file; empty when it cannot be read.
QByteArray readFile(const QString& path);

/// The hottest of the processors' sensors, in degrees Celsius; nothing without one that reads above zero.
/// @p root is the folder of the kernel's hwmon devices (hwmon/sysfs-interface).
std::optional<double> cpuTemperature(const QString& root = QStringLiteral("/sys/class/hwmon"));

} // namespace tarn
