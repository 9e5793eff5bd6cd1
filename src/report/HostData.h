// The figures of the host: what needs attention, its samples, accounts and sites. Read from the database, and
// for the logs' backlog from the files themselves, as far as this program may see them.
#pragma once

#include "report/Query.h"
#include "report/SiteData.h"
#include "report/Svg.h"

#include <array>

namespace tarn::report {

/// Points of a curve of samples.
inline constexpr int kBuckets = 240;
/// Days that samples are kept for.
inline constexpr int kSampleDays = 30;
/// Days of the long curves.
inline constexpr int kLongDays = 366;
/// Rows of the host page's lists; what there is beyond is counted.
inline constexpr int kListedSites = 200;
inline constexpr int kListedAccounts = 100;
inline constexpr int kListedAlerts = 50;
inline constexpr int kListedSources = 20;
/// Alerts that are drawn; those of a condition that comes and goes every few minutes are more than can be
/// seen.
inline constexpr int kDrawnAlerts = 500;
/// Points of a sparkline.
inline constexpr int kSparkPoints = 60;
/// Share of a limit from which on an account needs attention.
inline constexpr double kNearLimit = 0.9;
/// Seconds after which a log that has grown, or a collector without a sample, counts as behind.
inline constexpr qint64 kBehindSeconds = 300;
/// Fewer unread bytes than these are nothing to tell of while the file was written in the last so many
/// seconds.
inline constexpr qint64 kFreshBytes = 65'536;
inline constexpr qint64 kFreshSeconds = 10;

/// Columns of the curves, in the order in which they are read.
enum Metric {
    Load,
    LoadMax,
    Processors,
    IoWait,
    Memory,
    Swap,
    DiskUsed,
    DiskRead,
    DiskWritten,
    NetIn,
    NetOut,
    BusyWorkers,
    Workers,
    ApacheRequests,
    MetricCount
};

/// A row of host_samples, the latest.
struct Sample
{
    qint64 seconds = 0; ///< since the Unix epoch
    QString minute;
    std::array<std::optional<double>, MetricCount> metrics; ///< LoadMax: the load over 15 minutes
    std::optional<double> memoryBytes;
    std::optional<double> diskBytes;
    std::optional<double> temperature;
    std::optional<double> connections;
    std::optional<double> transactions;
};

/// Samples over time, the mean of each part of it (LoadMax: the greatest).
struct Samples
{
    qint64 from = 0; ///< seconds since the Unix epoch
    qint64 to = 0;
    std::array<Values, MetricCount> metrics; ///< kBuckets values each
};

/// A day of the host, for the long curves.
struct HostDay
{
    QDate day;
    std::optional<double> loadAverage;
    std::optional<double> loadMax;
    std::optional<double> processors;
    std::optional<double> memory;
    std::optional<double> disk;
    double received = 0; ///< bytes
    double sent = 0;
};

struct Alert
{
    QString kind;
    QString subject;
    QString message;
    qint64 openedSeconds = 0;
    std::optional<qint64> closedSeconds; ///< nothing: still open
    QString opened;                      ///< "2026-11-21 16:05"
};

struct Account
{
    QString username;
    QString domain;
    double diskLimit = 0; ///< bytes; 0: none
    double databaseLimit = 0;
    std::optional<double> disk; ///< bytes
    std::optional<double> database;
    bool readOnly = false;
    std::optional<double> diskBefore; ///< at the first measurement of the period
    std::optional<double> databaseBefore;
    QDate since; ///< day of that

    /// The greater one of the used shares of both limits; 0 without limits.
    double share() const;
};

struct Accounts
{
    QList<Account> listed; ///< by share of the limit, then by size
    qint64 count = 0;      ///< all of them
    double disk = 0;       ///< bytes of all of them
    double database = 0;
};

/// A log that has not been read to its end for kBehindSeconds, or is not there.
struct Behind
{
    QString host;
    QString path;
    qint64 unreadBytes = 0;
    bool missing = false;
    QString since; ///< when the collector last moved on in it, "2026-11-21 16:05"; empty: never
};

struct Sources
{
    QList<Behind> listed; ///< the most unread bytes first
    qint64 behind = 0;    ///< all that are behind
    qint64 unseen = 0;    ///< logs that this program may not look at
    qint64 count = 0;
};

/// A log as the database knows it, and as its file is.
struct SourceState
{
    std::optional<quint64> inode; ///< of the file last read
    qint64 readOffset = 0;
    qint64 movedSeconds = 0; ///< since the Unix epoch: when it was last read on, or registered
    bool exists = false;
    quint64 fileInode = 0;
    qint64 fileSize = 0;
    qint64 fileSeconds = 0; ///< since the Unix epoch: when it was last written
};

struct SiteRow
{
    Site site;
    qint64 visitors = 0;
    qint64 views = 0;
    qint64 visitorsBefore = 0;
    double botShare = 0; ///< of its requests
    QList<double> trend; ///< visitors, at most kSparkPoints values
};

struct Sites
{
    QList<SiteRow> listed; ///< the most visitors first
    qint64 count = 0;      ///< all of them
    qint64 visitors = 0;
    qint64 views = 0;
    qint64 visitorsBefore = 0;
};

struct HostFigures
{
    QString name;
    Now now;
    Period period;
    std::optional<Sample> latest;
    Samples samples;
    QList<HostDay> days; ///< one for each of the last kLongDays from the first that is known
    QList<Alert> open;
    QList<Alert> alerts; ///< of the samples' time, the latest first, the open ones included
    Accounts accounts;
    Sources sources;
    Sites sites;
    QString searchResult; ///< of the last synchronisation with a search engine; empty: there was none
    QString searchAt;
    bool searchLate = false; ///< that was more than two days ago
};

std::optional<HostFigures> readHost(const QString& name, const Now& now, const Period& period);

/// Bytes that the collector has not read yet; nothing when it is not behind at @p nowSeconds.
std::optional<qint64> unreadBytes(const SourceState& state, qint64 nowSeconds);

} // namespace tarn::report
