// What the host's files say at one moment, as two records: counters, from which HostSample makes rates, and
// figures that are stored as they are. Reads files only: no database, no network.
#pragma once

#include "collect/HostFiles.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace tarn {

/// Everything on the host that only counts up, as it stood at one moment. What cannot be read is 0.
struct HostCounters
{
    qint64 cpuBusy = 0;        ///< jiffies, over all processors, neither idle nor waiting for a disk
    qint64 cpuTotal = 0;       ///< jiffies
    qint64 cpuIowait = 0;      ///< jiffies
    qint64 netRx = 0;          ///< bytes received on all interfaces but the loopback
    qint64 netTx = 0;          ///< bytes sent on them
    qint64 diskRead = 0;       ///< bytes, over all whole disks
    qint64 diskWrite = 0;      ///< bytes
    qint64 pgXacts = 0;        ///< transactions of all databases of the server, rolled back ones included
    qint64 apacheRequests = 0; ///< since Apache was started
    qint64 apacheBytes = 0;    ///< sent since then
    qint32 apacheBusy = 0;     ///< workers serving a request (no counter: as it is)
    qint32 apacheSlots = 0;    ///< workers that there can be at most
    bool apache = false;       ///< Apache's status page could be had
    qint64 atMs = 0;           ///< milliseconds since the epoch, by the wall clock
    bool valid = false;        ///< false for the sample before the first one
};

/// What a sample says of the host that is no counter. What cannot be read is 0.
struct HostFigures
{
    LoadAverage load;
    qint64 memTotalKb = 0;
    qint64 memAvailableKb = 0;     ///< 0 on kernels that do not say it (before 3.14)
    qint64 diskTotalBytes = 0;     ///< of the volume at "/"
    qint64 diskAvailableBytes = 0; ///< of the volume at "/", to an unprivileged user
    qint64 swapTotalKb = 0;
    qint64 swapFreeKb = 0;
    std::optional<double> cpuTemperatureC; ///< nothing without a sensor
    int pgConnections = 0;                 ///< client sessions of the database server
};

/// The whole file; empty when it cannot be read. Logs nothing.
QByteArray readFile(const QString& path);

/// The hottest of the processors' sensors (drivers coretemp, k10temp and zenpower), in degrees Celsius.
/// Nothing without one that reads above 0. @p root is the folder of the kernel's hwmon devices
/// (hwmon/sysfs-interface):
///
///     hwmon2/name         coretemp
///     hwmon2/temp1_input  45000       thousandths of a degree
std::optional<double> cpuTemperature(const QString& root = QStringLiteral("/sys/class/hwmon"));

/// The counters of the kernel, from "stat", "net/dev" and "diskstats" in the folder @p procRoot; `atMs` is
/// the moment before the first is read. PostgreSQL's, Apache's and `valid` are left to the caller.
HostCounters readHostCounters(const QString& procRoot = QStringLiteral("/proc"));

/// The figures of "loadavg" and "meminfo" in the folder @p procRoot, of the volume at "/", and of the sensors
/// in @p hwmonRoot. `pgConnections` is left to the caller.
HostFigures readHostFigures(const QString& procRoot = QStringLiteral("/proc"),
                            const QString& hwmonRoot = QStringLiteral("/sys/class/hwmon"));

} // namespace tarn
