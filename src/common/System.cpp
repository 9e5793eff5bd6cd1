#include "common/System.h"

#include "common/Lines.h"
#include "common/Mounts.h"
#include "common/Settings.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>
#include <QVariant>

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>

using namespace Qt::Literals::StringLiterals;

namespace tarn::system {

namespace {

/// File systems in memory, images that are always full, and views of other file systems.
constexpr QByteArrayView kExcludedTypes[] = {
    "tmpfs", "devtmpfs", "squashfs", "overlay", "efivarfs", "ramfs", "fuse.portal", "fuse.gvfsd-fuse",
};

/// The initial file system, which some machines list, and folders that a question for their size would mount.
constexpr QByteArrayView kTypesNotAsked[] = {"rootfs", "autofs"};

/// Folders of the kernel's own file systems, with what is below them.
constexpr QByteArrayView kKernelFolders[] = {"/dev", "/proc", "/sys", "/var/run", "/var/lock"};

/// The time in which systemctl has to write everything and end.
constexpr int kTotalMs = 5'000;
/// The time in which a killed systemctl has to end.
constexpr int kKillMs = 1'000;

/// The most of systemctl's output that is read. A unit takes some 200 bytes.
constexpr qsizetype kMaxOutputBytes = 1'048'576;

/// The numbers, times and states that are looked for are shorter.
constexpr qsizetype kMaxShortValueBytes = 64;

bool isExcluded(QByteArrayView type, const QString& folder)
{
    return std::ranges::find(kExcludedTypes, type) != std::end(kExcludedTypes)
           || folder.startsWith("/snap/"_L1) || folder.startsWith("/run/"_L1);
}

bool canFillUp(const Volume& volume)
{
    return volume.usable && !isExcluded(volume.type, volume.mount) && volume.totalBytes > 0;
}

bool isBelow(const QByteArray& folder, QByteArrayView parent)
{
    return folder.startsWith(parent) && (folder.size() == parent.size() || folder.at(parent.size()) == '/');
}

/// True when a mount is to be asked for its size. A mount that is not listed must not hold anything up.
bool isAsked(const Mount& mount)
{
    return std::ranges::find(kTypesNotAsked, mount.type) == std::end(kTypesNotAsked)
           && std::ranges::none_of(kKernelFolders,
                                   [&mount](QByteArrayView parent) { return isBelow(mount.folder, parent); })
           && !isExcluded(mount.type, QFile::decodeName(mount.folder));
}

/// Reads what the process writes, until it ends, has written too much or has taken too long.
QByteArray readOutput(QProcess& process)
{
    const QDeadlineTimer deadline(kTotalMs);
    const auto remaining = [&deadline] { return static_cast<int>(deadline.remainingTime()); };
    QByteArray output;
    while (output.size() < kMaxOutputBytes && process.waitForReadyRead(remaining()))
        output += process.readAllStandardOutput();
    output += process.readAllStandardOutput();
    output.truncate(kMaxOutputBytes);
    return output;
}

/// Ends the process if it has not ended.
void dispose(std::unique_ptr<QProcess> process)
{
    if (process->state() == QProcess::NotRunning)
        return;
    process->kill();
    if (process->waitForFinished(kKillMs))
        return;
    // The kernel can hold a killed process for some time. The event loop deletes the object afterwards: its
    // destructor would log a warning and wait.
    QObject::connect(process.get(), &QProcess::finished, process.get(), &QObject::deleteLater);
    [[maybe_unused]] const QProcess* dying = process.release();
}

bool isSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isBlank(QByteArrayView line)
{
    // The inner loop has no early end, so that the compiler makes vector instructions of it. A long line of
    // blanks then costs little more than the search for "=" in any other.
    constexpr qsizetype pieceBytes = 64;
    for (; line.size() >= pieceBytes; line = line.sliced(pieceBytes)) {
        const char* const piece = line.data();
        unsigned others = 0;
        for (qsizetype i = 0; i < pieceBytes; ++i)
            others |= isSpace(piece[i]) ? 0U : 1U;
        if (others != 0)
            return false;
    }
    return std::all_of(line.begin(), line.end(), isSpace);
}

/// Takes the first word off @p rest.
QByteArrayView takeWord(QByteArrayView& rest)
{
    const qsizetype blank = rest.indexOf(' ');
    const QByteArrayView word = blank < 0 ? rest : rest.first(blank);
    rest = blank < 0 ? QByteArrayView() : rest.sliced(blank + 1);
    return word;
}

/// Reads "2024-10-12" or "13:55:36": three numbers of @p sizes digits with @p separator between them. Qt's
/// reading by a format takes ten times as long.
std::optional<std::array<int, 3>> parseThree(QByteArrayView text, const std::array<int, 3>& sizes,
                                             char separator)
{
    std::array<int, 3> numbers = {};
    qsizetype at = 0;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        if (i > 0 && (at >= text.size() || text[at++] != separator))
            return std::nullopt;
        for (int digit = 0; digit < sizes[i]; ++digit, ++at) {
            if (at >= text.size() || text[at] < '0' || text[at] > '9')
                return std::nullopt;
            numbers[i] = numbers[i] * 10 + (text[at] - '0');
        }
    }
    return at == text.size() ? std::optional(numbers) : std::nullopt;
}

/// Seconds since the epoch of systemd's "Sat 2024-10-12 13:55:36 UTC"; nothing when it is no time.
std::optional<qint64> parseTimestamp(QByteArrayView text)
{
    takeWord(text); // the day of the week
    const auto date = parseThree(takeWord(text), {4, 2, 2}, '-');
    const auto time = parseThree(takeWord(text), {2, 2, 2}, ':');
    if (!date || !time)
        return std::nullopt;
    const QTime timeOfDay((*time)[0], (*time)[1], (*time)[2]);
    if (!timeOfDay.isValid()) // which would count as midnight
        return std::nullopt;
    const QDateTime at(QDate((*date)[0], (*date)[1], (*date)[2]), timeOfDay);
    return at.isValid() ? std::optional(at.toSecsSinceEpoch()) : std::nullopt;
}

/// @p value without the blanks around it; empty when it has more than kMaxShortValueBytes.
QByteArrayView shortValue(QByteArrayView value)
{
    return value.size() > kMaxShortValueBytes ? QByteArrayView() : value.trimmed();
}

void addProperty(QJsonObject& service, QByteArrayView key, QByteArrayView value)
{
    if (key == "LoadState") {
        service.insert(u"loaded"_s, shortValue(value) == "loaded");
    } else if (key == "ActiveState") {
        service.insert(u"active"_s, shortValue(value) == "active");
    } else if (key == "SubState") {
        service.insert(u"sub"_s, QString::fromUtf8(value).trimmed());
    } else if (key == "ActiveEnterTimestamp") {
        if (const std::optional<qint64> since = parseTimestamp(shortValue(value)))
            service.insert(u"since"_s, *since);
    } else if (key == "MemoryCurrent") {
        // "[not set]" and 2^64 - 1 stand for an unknown memory use.
        service.insert(u"memory"_s, shortValue(value).toLongLong());
    }
}

} // namespace

QJsonArray disks()
{
    // Remembers which mounts hang, from one call to the next.
    static SpaceQuery query;
    QFile table(u"/proc/self/mountinfo"_s);
    return disks(table.open(QIODevice::ReadOnly) ? table.readAll() : QByteArray(), query);
}

QJsonArray disks(const QByteArray& mountInfo, SpaceQuery& query)
{
    QList<Mount> mounts = visibleMounts(parseMountInfo(mountInfo));
    mounts.removeIf([](const Mount& mount) { return !isAsked(mount); });
    const QHash<QByteArray, Space> spaces = query.ask(mounts);
    QList<Volume> volumes;
    for (const Mount& mount : std::as_const(mounts)) {
        const Space space = spaces.value(mount.folder);
        volumes.append({QFile::decodeName(mount.folder), mount.device, mount.type, space.totalBytes,
                        space.availableBytes, spaces.contains(mount.folder)});
    }
    return disks(volumes);
}

QJsonArray disks(const QList<Volume>& volumes)
{
    QJsonArray result;
    for (const Volume& volume : volumes) {
        if (!canFillUp(volume))
            continue;
        result.append(QJsonObject{
            {u"mount"_s,  volume.mount                      },
            {u"device"_s, QString::fromLatin1(volume.device)},
            {u"type"_s,   QString::fromLatin1(volume.type)  },
            {u"total"_s,  volume.totalBytes                 },
            {u"avail"_s,  volume.availableBytes             },
        });
    }
    return result;
}

QStringList monitoredServices(const QSettings& settings)
{
    const QVariant stored = settingValue(settings, settingOf(kServiceSettings, "health/services"));
    // A value with commas and without quotes is read as a list.
    const QStringList pieces =
        stored.typeId() == QMetaType::QStringList ? stored.toStringList() : stored.toString().split(u',');
    QStringList names;
    for (const QString& piece : pieces) {
        const QString name = piece.trimmed();
        if (!name.isEmpty())
            names.append(name);
    }
    return names;
}

QJsonArray serviceStatus(const QStringList& names)
{
    if (names.isEmpty())
        return {};
    auto process = std::make_unique<QProcess>();
    // systemctl's error messages would end up in the collector's log. It inherits the environment: it writes
    // times in the zone of TZ, in which they are read.
    process->setStandardErrorFile(QProcess::nullDevice());
    process->setStandardInputFile(QProcess::nullDevice());
    process->start(u"systemctl"_s,
                   QStringList{u"show"_s, u"--no-pager"_s, u"-p"_s,
                               u"Id,LoadState,ActiveState,SubState,ActiveEnterTimestamp,MemoryCurrent"_s}
                       + names,
                   QIODevice::ReadOnly);
    const QByteArray output = readOutput(*process);
    dispose(std::move(process));
    return parseServices(output, names);
}

QJsonArray parseServices(const QByteArray& output, const QStringList& names)
{
    QJsonArray services;
    QJsonObject service;
    const auto endBlock = [&] {
        if (service.isEmpty())
            return;
        service.insert(u"name"_s, names.value(services.size()));
        services.append(service);
        service = {};
    };
    const qsizetype most = names.size() + kMaxUnaskedServices;
    for (QByteArrayView rest(output); !rest.isEmpty() && services.size() < most;) {
        const QByteArrayView line = takeLine(rest);
        if (isBlank(line)) {
            endBlock();
            continue;
        }
        const qsizetype equals = line.indexOf('=');
        const QByteArrayView key = line.first(equals < 0 ? line.size() : equals);
        addProperty(service, key, equals < 0 ? QByteArrayView() : line.sliced(equals + 1));
    }
    if (services.size() < most)
        endBlock();
    return services;
}

} // namespace tarn::system
