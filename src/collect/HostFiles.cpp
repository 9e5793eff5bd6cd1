#include "collect/HostFiles.h"

#include <QByteArrayView>
#include <QDir>
#include <QFile>
#include <QList>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>
#include <limits>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

constexpr qint64 kLargest = std::numeric_limits<qint64>::max();

/// Sectors of /proc/diskstats have this size whatever the disk's own.
constexpr qint64 kSectorBytes = 512;
constexpr qint64 kKiloByte = 1024;

/// @p piece as a counter. The kernel's reach to 2^64; beyond 2^63 they are no number to us.
qint64 counter(QByteArrayView piece)
{
    return std::max(piece.toLongLong(), qint64(0));
}

qint64 sum(qint64 a, qint64 b)
{
    return a > kLargest - b ? kLargest : a + b;
}

qint64 product(qint64 count, qint64 size)
{
    return count > kLargest / size ? kLargest : count * size;
}

/// The first pieces of a line between any white space, as many as a parser looks at.
QList<QByteArray> pieces(const QByteArray& line)
{
    constexpr qsizetype kMostPieces = 10;
    const auto isSpace = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
    QList<QByteArray> result;
    auto start = std::find_if_not(line.begin(), line.end(), isSpace);
    while (start != line.end() && result.size() < kMostPieces) {
        const auto end = std::find_if(start, line.end(), isSpace);
        result.append(QByteArray(start, end - start));
        start = std::find_if_not(end, line.end(), isSpace);
    }
    return result;
}

/// What is in front of the first blank.
QByteArray firstWord(const QByteArray& text)
{
    const qsizetype blank = text.indexOf(' ');
    return blank < 0 ? text : text.first(blank);
}

/// What a line says of a name, and the name.
struct NameAndValue
{
    QByteArray name;
    QByteArray value;
};

/// The two sides of the first colon; nothing without one.
std::optional<NameAndValue> splitAtColon(const QByteArray& line)
{
    const qsizetype colon = line.indexOf(':');
    if (colon < 0)
        return std::nullopt;
    return NameAndValue{line.first(colon).trimmed(), line.sliced(colon + 1).trimmed()};
}

double load(const QByteArray& piece)
{
    const double value = piece.toDouble();
    return std::isfinite(value) ? value : 0.0; // "nan" and "inf" are read as numbers
}

/// True for a whole disk.
bool isDisk(const QByteArray& device)
{
    static const QRegularExpression disk(u"^(sd[a-z]+|vd[a-z]+|xvd[a-z]+|nvme\\d+n\\d+|mmcblk\\d+)$"_s);
    return disk.match(QString::fromLatin1(device)).hasMatch();
}

/// True for the drivers of the sensors in Intel's and AMD's processors.
bool isCpuSensor(QByteArrayView driver)
{
    return driver == "coretemp" || driver == "k10temp" || driver == "zenpower";
}

} // namespace

CpuTimes parseStat(const QByteArray& text)
{
    constexpr qsizetype kIdle = 4;
    constexpr qsizetype kIowait = 5;
    constexpr qsizetype kLast = 8;
    const QList<QByteArray> columns = pieces(text.split('\n').constFirst());
    CpuTimes times;
    for (qsizetype i = 1; i <= kLast && i < columns.size(); ++i)
        times.total = sum(times.total, counter(columns.at(i)));
    times.iowait = counter(columns.value(kIowait));
    // Only where the sum did not fit can the two be more than it.
    times.busy = std::max(times.total - counter(columns.value(kIdle)) - times.iowait, qint64(0));
    return times;
}

Traffic parseNetDev(const QByteArray& text)
{
    constexpr qsizetype kReceived = 0;
    constexpr qsizetype kSent = 8;
    Traffic traffic;
    const QList<QByteArray> lines = text.split('\n');
    for (const QByteArray& line : lines) {
        // The two lines of headings have no colon. A long number leaves no blank behind it.
        const std::optional<NameAndValue> interface = splitAtColon(line);
        if (!interface || interface->name == "lo")
            continue;
        const QList<QByteArray> columns = pieces(interface->value);
        traffic.in = sum(traffic.in, counter(columns.value(kReceived)));
        traffic.out = sum(traffic.out, counter(columns.value(kSent)));
    }
    return traffic;
}

Traffic parseDiskStats(const QByteArray& text)
{
    constexpr qsizetype kDevice = 2;
    constexpr qsizetype kSectorsRead = 5;
    constexpr qsizetype kSectorsWritten = 9;
    Traffic traffic;
    const QList<QByteArray> lines = text.split('\n');
    for (const QByteArray& line : lines) {
        const QList<QByteArray> columns = pieces(line);
        if (columns.size() <= kSectorsWritten || !isDisk(columns.at(kDevice)))
            continue;
        traffic.in = sum(traffic.in, product(counter(columns.at(kSectorsRead)), kSectorBytes));
        traffic.out = sum(traffic.out, product(counter(columns.at(kSectorsWritten)), kSectorBytes));
    }
    return traffic;
}

LoadAverage parseLoadAverage(const QByteArray& text)
{
    const QByteArray one = firstWord(text);
    const QByteArray five = firstWord(text.mid(one.size() + 1));
    const QByteArray fifteen = firstWord(text.mid(one.size() + five.size() + 2));
    return {load(one), load(five), load(fifteen)};
}

qint64 meminfo(const QByteArray& text, const QByteArray& key)
{
    const QByteArray start = key + ':';
    const QList<QByteArray> lines = text.split('\n');
    for (const QByteArray& line : lines) {
        if (line.startsWith(start))
            return counter(firstWord(line.sliced(start.size()).trimmed()));
    }
    return 0;
}

ApacheStatus parseApacheStatus(const QByteArray& text)
{
    ApacheStatus status;
    const QList<QByteArray> lines = text.split('\n');
    for (const QByteArray& line : lines) {
        const std::optional<NameAndValue> entry = splitAtColon(line);
        if (!entry)
            continue;
        if (entry->name == "Total Accesses") {
            status.found = true;
            status.requests = counter(entry->value);
        } else if (entry->name == "Total kBytes") {
            status.bytes = product(counter(entry->value), kKiloByte);
        } else if (entry->name == "BusyWorkers") {
            status.busy = std::max(entry->value.toInt(), 0);
        } else if (entry->name == "Scoreboard") {
            status.slotCount = static_cast<qint32>(
                std::min<qsizetype>(entry->value.size(), std::numeric_limits<qint32>::max()));
        }
    }
    return status.found ? status : ApacheStatus();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    // Qt warns of a file without a name.
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

std::optional<double> cpuTemperature(const QString& root)
{
    constexpr double kPerDegree = 1000;
    double hottest = -1;
    // The kernel's devices are links to folders elsewhere.
    const QStringList devices = QDir(root).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString& device : devices) {
        const QDir folder(root + u'/' + device);
        if (!isCpuSensor(readFile(folder.filePath(u"name"_s)).trimmed()))
            continue;
        const QStringList inputs =
            folder.entryList({u"temp*_input"_s}, QDir::Files | QDir::CaseSensitive, QDir::Unsorted);
        for (const QString& input : inputs) {
            const double degrees = readFile(folder.filePath(input)).trimmed().toDouble() / kPerDegree;
            if (std::isfinite(degrees))
                hottest = std::max(hottest, degrees);
        }
    }
    return hottest > 0 ? std::optional(hottest) : std::nullopt;
}

} // namespace tarn
