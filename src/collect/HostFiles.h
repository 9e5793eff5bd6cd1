// Parsers of the text files in /proc. Each is a function of the text alone and never fails. A number that is
// missing, cut off, malformed or longer than 64 bytes counts as 0. A sum that does not fit stays at the
// largest number. Counters are never negative, so that two of them can be subtracted. HostCounters reads the
// files.
#pragma once

#include <QByteArray>

namespace tarn {

/// Time since the start of the machine, all processors together, in ticks of the kernel's clock (jiffies).
struct CpuTimes
{
    qint64 busy = 0;   ///< neither idle nor waiting for I/O
    qint64 total = 0;  ///< the first eight columns; guests' time is part of the user's already
    qint64 iowait = 0; ///< idle with I/O under way
};

/// The first line of /proc/stat (proc(5)); old kernels have fewer columns:
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

/// /proc/net/dev (proc(5)), all interfaces except "lo". A packet that passes a bridge or a tunnel counts at
/// each interface on its way:
///
///     eth0: 294737562 421053  0    0    0    0     0          0         369895    739     0 ...
///           bytes in  packets errs drop fifo frame compressed multicast bytes out packets errs ...
Traffic parseNetDev(const QByteArray& text);

/// /proc/diskstats (the kernel's admin-guide/iostats), as bytes read (in) and written (out). Whole disks
/// count: sd*, vd*, xvd*, nvme*n* and mmcblk*. Partitions, dm, md and loop would count them twice. A sector
/// has 512 bytes here, whatever the disk's own size is:
///
///     254   0     vda  326168 56475  22344026     337326 328700 1171880 98091160        489294 ...
///     major minor name reads  merged sectors read ms     writes merged  sectors written ms     ...
Traffic parseDiskStats(const QByteArray& text);

/// Mean number of processes that run or wait to, over the last 1, 5 and 15 minutes.
struct LoadAverage
{
    double one = 0;
    double five = 0;
    double fifteen = 0;
};

/// /proc/loadavg (proc(5)). What is not finite counts as 0:
///
///     0.30 0.23 0.41 1/87        29307
///     1    5    15   running/all last process id
LoadAverage parseLoadAverage(const QByteArray& text);

/// The value of @p key in /proc/meminfo (proc(5)), in kB. Of two lines with one name the first counts:
///
///     MemAvailable:   24194228 kB
qint64 meminfo(const QByteArray& text, const QByteArray& key);

} // namespace tarn
