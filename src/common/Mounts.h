// The mount table, and the sizes of what is mounted. The parser is a function of the text alone. Threads ask
// for the sizes, since a mount whose server is gone never answers.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>

#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <set>
#include <utility>

namespace tarn::system {

/// A line of /proc/self/mountinfo.
struct Mount
{
    qint64 id = 0;
    qint64 parent = 0; ///< the mount that its folder is in
    QByteArray folder; ///< where it is mounted, in bytes of the file system
    QByteArray type;   ///< of the file system
    QByteArray device; ///< what is mounted, which need not be a path
};

/// The lines of /proc/self/mountinfo (proc(5)); lines of another form are passed over:
///
///     36 35     98:0  /root  /srv/my\040data rw,noatime master:1 - ext3 /dev/root rw
///     id parent device  root folder          options    tags...    type device    options
QList<Mount> parseMountInfo(const QByteArray& text);

/// The mounts that a path can reach, in the order of @p mounts. A mount is left out when another one covers
/// its folder or a folder above. Each folder is listed once.
QList<Mount> visibleMounts(const QList<Mount>& mounts);

/// What a file system says of its size.
struct Space
{
    qint64 totalBytes = 0;
    qint64 availableBytes = 0; ///< to an unprivileged user
};

/// Asks the file system that @p folder is in (statvfs(3)), for as long as it takes; nothing when it fails.
std::optional<Space> spaceOf(const QByteArray& folder);

/// Asks many mounts at once, each from a thread of its own, and gives up those that do not answer. A thread
/// that the kernel holds cannot be ended: it is left behind, and its mount is not asked again until the
/// thread has come back. Hence a mount that hangs costs one thread at most. To be used from one thread.
class SpaceQuery
{
public:
    using Ask = std::function<std::optional<Space>(const QByteArray& folder)>;

    /// How long all mounts together may take.
    static constexpr std::chrono::milliseconds kLimit{1'000};
    /// Threads at a time, including those that were left behind. Further mounts are not asked.
    static constexpr std::size_t kMaxThreads = 256;

    /// @p ask is called in other threads, by several at a time, and may return after this object's end.
    explicit SpaceQuery(Ask ask = spaceOf, std::chrono::milliseconds limit = kLimit);

    /// The space of each of @p mounts, by its folder. Mounts that fail or do not answer are left out. Blocks
    /// for the limit at most. A mount that does not answer is logged once, and again only after it has
    /// answered.
    QHash<QByteArray, Space> ask(const QList<Mount>& mounts);

private:
    /// Id and folder: a later mount at the same folder has another id.
    using Key = std::pair<qint64, QByteArray>;

    /// False when there is no thread to be had.
    bool start(const Mount& mount);
    void note(const Mount& mount, bool answers);

    Ask m_ask;
    std::chrono::milliseconds m_limit;
    std::map<Key, std::future<std::optional<Space>>> m_asked; ///< threads that have not answered
    std::set<Key> m_silent;                                   ///< mounts that were logged as silent
};

} // namespace tarn::system
