#include "collect/HostFiles.h"

#include "collect/CounterText.h"
#include "common/Lines.h"

#include <QByteArrayView>
#include <QRegularExpression>

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

/// The size of a sector in /proc/diskstats, whatever the disk's own is.
constexpr qint64 kSectorBytes = 512;

/// Names of devices are shorter; see IFNAMSIZ and DISK_NAME_LEN in the kernel.
constexpr qsizetype kMaxDeviceLength = 64;

bool isSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// The first kMost pieces of a line, which white space separates. A piece that the line lacks is empty.
template <std::size_t kMost>
std::array<QByteArrayView, kMost> pieces(QByteArrayView line)
{
    std::array<QByteArrayView, kMost> result;
    const char* at = std::find_if_not(line.begin(), line.end(), isSpace);
    for (QByteArrayView& piece : result) {
        const char* const end = std::find_if(at, line.end(), isSpace);
        piece = QByteArrayView(at, end);
        at = std::find_if_not(end, line.end(), isSpace);
    }
    return result;
}

/// The text before the first blank.
QByteArrayView firstWord(QByteArrayView text)
{
    const qsizetype blank = text.indexOf(' ');
    return blank < 0 ? text : text.first(blank);
}

/// The text behind @p word, which @p text begins with, and behind the blank that follows.
QByteArrayView behind(QByteArrayView text, QByteArrayView word)
{
    return text.sliced(std::min(word.size() + 1, text.size()));
}

double load(QByteArrayView piece)
{
    const double value = piece.size() > kMaxNumberLength ? 0.0 : piece.toDouble();
    return std::isfinite(value) ? value : 0.0; // "nan" and "inf" are read as numbers
}

/// True for a whole disk.
bool isDisk(QByteArrayView device)
{
    static const QRegularExpression disk(u"^(sd[a-z]+|vd[a-z]+|xvd[a-z]+|nvme\\d+n\\d+|mmcblk\\d+)$"_s);
    return device.size() <= kMaxDeviceLength && disk.match(QString::fromLatin1(device)).hasMatch();
}

} // namespace

CpuTimes parseStat(const QByteArray& text)
{
    constexpr std::size_t kIdle = 4;
    constexpr std::size_t kIowait = 5;
    constexpr std::size_t kLast = 8;
    QByteArrayView rest(text);
    const auto columns = pieces<kLast + 1>(takeLine(rest));
    CpuTimes times;
    for (std::size_t i = 1; i <= kLast; ++i)
        times.total = saturatingSum(times.total, counter(columns[i]));
    times.iowait = counter(columns[kIowait]);
    // The two exceed the total only where the sum did not fit.
    times.busy = std::max(times.total - counter(columns[kIdle]) - times.iowait, qint64(0));
    return times;
}

Traffic parseNetDev(const QByteArray& text)
{
    constexpr std::size_t kReceived = 0;
    constexpr std::size_t kSent = 8;
    Traffic traffic;
    for (QByteArrayView rest(text); !rest.isEmpty();) {
        // The two lines of headings have no colon. A long number follows its colon without a blank.
        const std::optional<NameAndValue> interface = splitAtColon(takeLine(rest));
        if (!interface || interface->name == "lo")
            continue;
        const auto columns = pieces<kSent + 1>(interface->value);
        traffic.in = saturatingSum(traffic.in, counter(columns[kReceived]));
        traffic.out = saturatingSum(traffic.out, counter(columns[kSent]));
    }
    return traffic;
}

Traffic parseDiskStats(const QByteArray& text)
{
    constexpr std::size_t kDevice = 2;
    constexpr std::size_t kSectorsRead = 5;
    constexpr std::size_t kSectorsWritten = 9;
    Traffic traffic;
    for (QByteArrayView rest(text); !rest.isEmpty();) {
        const auto columns = pieces<kSectorsWritten + 1>(takeLine(rest));
        if (columns[kSectorsWritten].isEmpty() || !isDisk(columns[kDevice]))
            continue;
        traffic.in =
            saturatingSum(traffic.in, saturatingProduct(counter(columns[kSectorsRead]), kSectorBytes));
        traffic.out =
            saturatingSum(traffic.out, saturatingProduct(counter(columns[kSectorsWritten]), kSectorBytes));
    }
    return traffic;
}

LoadAverage parseLoadAverage(const QByteArray& text)
{
    const QByteArrayView one = firstWord(text);
    const QByteArrayView behindOne = behind(text, one);
    const QByteArrayView five = firstWord(behindOne);
    const QByteArrayView fifteen = firstWord(behind(behindOne, five));
    return {load(one), load(five), load(fifteen)};
}

qint64 meminfo(const QByteArray& text, const QByteArray& key)
{
    for (QByteArrayView rest(text); !rest.isEmpty();) {
        const QByteArrayView line = takeLine(rest);
        if (line.size() <= key.size() || !line.startsWith(key) || line[key.size()] != ':')
            continue;
        const QByteArrayView value = line.sliced(key.size() + 1);
        return value.size() > kMaxNumberLength ? 0 : counter(firstWord(value.trimmed()));
    }
    return 0;
}

} // namespace tarn
