// The disks of the host and the state of its systemd units. Results are JSON in the form that the panel
// shows. Judges nothing: Health decides what is bad. Sources are the mount table (proc(5)), statvfs(3) and
// `systemctl show`. Each call waits for a few seconds at most, without an event loop. Main thread only.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

class QJsonArray;
class QSettings;

namespace tarn::system {

class SpaceQuery;

/// The mounted volumes that can fill up, in the order of the mount table:
/// [{"mount": "/", "device": "/dev/sda1", "type": "ext4", "total": 1000000, "avail": 400000}, ...], sizes in
/// bytes, "avail" for an unprivileged user. A device that is mounted twice is there twice; a mount that
/// another one covers is left out. Asks the mounts for their sizes in threads and waits for a second at most.
/// A mount that does not answer is left out, which is logged once.
QJsonArray disks();

/// The same for a mount table @p mountInfo (proc(5)), whose mounts @p query asks.
QJsonArray disks(const QByteArray& mountInfo, SpaceQuery& query);

/// A mounted volume, as the operating system describes it.
struct Volume
{
    QString mount;
    QByteArray device; ///< as the mount table names it, which need not be a path
    QByteArray type;   ///< of the file system
    qint64 totalBytes = 0;
    qint64 availableBytes = 0; ///< to an unprivileged user
    bool usable = false;       ///< valid, and ready to be used
};

/// Those of @p volumes that disks() lists. File systems in memory, images, views of other file systems and
/// everything below /run and /snap are left out.
QJsonArray disks(const QList<Volume>& volumes);

/// Blocks that parseServices() takes beyond those that were asked for.
constexpr qsizetype kMaxUnaskedServices = 1'000;

/// The units of `health/services` (kServiceSettings), in their order. Names are trimmed, and empty ones left
/// out; a name that stands there twice is kept twice.
QStringList monitoredServices(const QSettings& settings);

/// What systemd says of the units @p names, in their order; see parseServices(). Waits for systemctl for at
/// most 5 seconds and then ends it. Without a systemctl, or without an answer, the list is empty or short;
/// nothing is logged. systemctl takes a name that begins with "-" for an option, and fails as a whole if it
/// does not know it.
QJsonArray serviceStatus(const QStringList& names);

/// The state of each unit in the output of `systemctl show`, blocks of
///
///     LoadState=loaded
///     ActiveState=active
///     SubState=running
///     ActiveEnterTimestamp=Sat 2024-10-12 13:55:36 UTC
///     MemoryCurrent=21544960
///
/// with empty lines between them. @p names gives the units their names, by position:
/// [{"name": "apache2", "loaded": true, "active": true, "sub": "running", "since": 1728741336,
/// "memory": 21544960}, ...]. A property that the block lacks is left out, and a memory use that is no number
/// is 0. A number or time of more than 64 bytes is none. "since" is in seconds since the Unix epoch. systemd
/// writes local time, so the zone that it names is not read. Blocks behind the last name have the name "";
/// at most kMaxUnaskedServices of them are taken.
QJsonArray parseServices(const QByteArray& output, const QStringList& names);

} // namespace tarn::system
