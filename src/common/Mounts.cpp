#include "common/Mounts.h"

#include "common/Lines.h"

#include <QByteArrayView>
#include <QFile>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <thread>

#include <sys/statvfs.h>

namespace tarn::system {

namespace {

/// The longest path that statvfs(3) takes: PATH_MAX without its NUL.
constexpr qsizetype kMaxFolderBytes = 4'095;

/// A line with more tags than this is passed over.
constexpr int kMaxTags = 64;

/// The kernel writes blanks, line feeds and backslashes as a backslash and three octal digits: "\040".
QByteArray unescaped(QByteArrayView text)
{
    const auto digit = [text](qsizetype at) {
        const char c = at < text.size() ? text[at] : '\0';
        return c >= '0' && c <= '7' ? c - '0' : -1;
    };
    QByteArray plain;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const bool isEscape = text[i] == '\\' && digit(i + 1) >= 0 && digit(i + 1) <= 3 && digit(i + 2) >= 0
                              && digit(i + 3) >= 0;
        if (isEscape) {
            plain += static_cast<char>(digit(i + 1) * 64 + digit(i + 2) * 8 + digit(i + 3));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

/// Takes the next field off @p rest. Nothing at the end of the line.
std::optional<QByteArrayView> takeField(std::optional<QByteArrayView>& rest)
{
    if (!rest)
        return std::nullopt;
    const qsizetype blank = rest->indexOf(' ');
    const QByteArrayView field = blank < 0 ? *rest : rest->first(blank);
    rest = blank < 0 ? std::nullopt : std::optional(rest->sliced(blank + 1));
    return field;
}

std::optional<qint64> number(QByteArrayView field)
{
    constexpr qsizetype kMaxDigits = 20;
    bool isNumber = false;
    const qint64 value = field.size() > kMaxDigits ? 0 : field.toLongLong(&isNumber);
    return isNumber ? std::optional(value) : std::nullopt;
}

std::optional<Mount> parseLine(QByteArrayView line)
{
    std::optional<QByteArrayView> rest(line);
    std::array<QByteArrayView, 6> fields;
    for (QByteArrayView& field : fields)
        field = takeField(rest).value_or(QByteArrayView());
    // Tags stand before the dash. The kernel has four of them.
    std::optional<QByteArrayView> tag = takeField(rest);
    for (int tags = 0; tag && *tag != "-"; ++tags) {
        if (tags == kMaxTags)
            return std::nullopt;
        tag = takeField(rest);
    }
    const std::optional<QByteArrayView> type = takeField(rest);
    const std::optional<QByteArrayView> device = takeField(rest);
    const std::optional<qint64> id = number(fields[0]);
    const std::optional<qint64> parent = number(fields[1]);
    if (!device || !id || !parent || !fields[4].startsWith('/'))
        return std::nullopt;
    QByteArray folder = unescaped(fields[4]);
    if (folder.size() > kMaxFolderBytes)
        return std::nullopt;
    return Mount{*id, *parent, std::move(folder), unescaped(*type), unescaped(*device)};
}

/// The mounts of one table, by the mount and the folder at which each is mounted.
class Tree
{
public:
    explicit Tree(const QList<Mount>& mounts)
    {
        for (const Mount& mount : mounts) {
            m_parents.insert(mount.id, mount);
            if (mount.id != mount.parent)
                m_children.insert({mount.parent, mount.folder}, mount.id);
        }
    }

    bool isVisible(const Mount& mount)
    {
        return !m_children.contains({mount.id, mount.folder}) && isReachable(mount);
    }

private:
    /// False when @p mount, or a mount that it is in, is below a folder that another mount covers. The result
    /// is stored for every mount on the way, so that each is looked at once.
    bool isReachable(const Mount& mount)
    {
        QList<qint64> way;
        Mount inner = mount;
        std::optional<bool> found;
        while (!found) {
            if (const auto known = m_reachable.constFind(inner.id); known != m_reachable.cend()) {
                found = *known;
                break;
            }
            // An answer for now. The table is read in pieces, which can make a circle.
            m_reachable.insert(inner.id, true);
            way.append(inner.id);
            const auto outer = m_parents.constFind(inner.parent);
            if (isBelowAnother(inner)) {
                found = false;
            } else if (outer == m_parents.cend()) {
                found = true;
            } else {
                inner = *outer;
            }
        }
        for (const qint64 id : std::as_const(way))
            m_reachable.insert(id, *found);
        return *found;
    }

    /// True when another mount in the same parent covers a folder above that of @p mount.
    bool isBelowAnother(const Mount& mount) const
    {
        QByteArray above = mount.folder;
        while (above.size() > 1) {
            above.truncate(std::max<qsizetype>(above.lastIndexOf('/'), 1));
            if (m_children.contains({mount.parent, above}))
                return true;
        }
        return false;
    }

    QHash<qint64, Mount> m_parents;
    QHash<std::pair<qint64, QByteArray>, qint64> m_children;
    QHash<qint64, bool> m_reachable;
};

} // namespace

QList<Mount> parseMountInfo(const QByteArray& text)
{
    QList<Mount> mounts;
    for (QByteArrayView rest(text); !rest.isEmpty();) {
        if (const std::optional<Mount> mount = parseLine(takeLine(rest)))
            mounts.append(*mount);
    }
    return mounts;
}

QList<Mount> visibleMounts(const QList<Mount>& mounts)
{
    Tree tree(mounts);
    QHash<QByteArray, qint64> topmost;
    for (const Mount& mount : mounts) {
        if (tree.isVisible(mount))
            topmost.insert(mount.folder, mount.id);
    }
    QList<Mount> visible;
    for (const Mount& mount : mounts) {
        if (topmost.value(mount.folder, -1) == mount.id)
            visible.append(mount);
    }
    return visible;
}

std::optional<Space> spaceOf(const QByteArray& folder)
{
    struct statvfs figures = {};
    int result = 0;
    do {
        result = statvfs(folder.constData(), &figures);
    } while (result != 0 && errno == EINTR);
    if (result != 0)
        return std::nullopt;
    const auto unit = static_cast<qint64>(figures.f_frsize);
    return Space{static_cast<qint64>(figures.f_blocks) * unit, static_cast<qint64>(figures.f_bavail) * unit};
}

SpaceQuery::SpaceQuery(Ask ask, std::chrono::milliseconds limit)
    : m_ask(std::move(ask))
    , m_limit(limit)
{
}

bool SpaceQuery::start(const Mount& mount)
{
    std::promise<std::optional<Space>> promise;
    std::future<std::optional<Space>> answer = promise.get_future();
    try {
        std::thread([ask = m_ask, folder = mount.folder, promise = std::move(promise)]() mutable {
            promise.set_value(ask(folder));
        }).detach();
    } catch (const std::system_error&) {
        return false;
    }
    m_asked.emplace(Key(mount.id, mount.folder), std::move(answer));
    return true;
}

void SpaceQuery::note(const Mount& mount, bool answers)
{
    const Key key(mount.id, mount.folder);
    if (answers) {
        m_silent.erase(key);
    } else if (m_silent.insert(key).second) {
        qWarning("collect: %s does not answer; its size is not known until it does",
                 qPrintable(QFile::decodeName(mount.folder)));
    }
}

QHash<QByteArray, Space> SpaceQuery::ask(const QList<Mount>& mounts)
{
    using std::future_status;
    const auto deadline = std::chrono::steady_clock::now() + m_limit;
    std::erase_if(m_asked, [](const auto& entry) {
        return entry.second.wait_for(std::chrono::seconds(0)) == future_status::ready;
    });
    QList<Mount> asked;
    std::set<Key> known;
    for (const Mount& mount : mounts) {
        const Key key(mount.id, mount.folder);
        known.insert(key);
        if (!m_asked.contains(key) && m_asked.size() < kMaxThreads && start(mount))
            asked.append(mount);
    }
    QHash<QByteArray, Space> spaces;
    for (const Mount& mount : std::as_const(asked)) {
        const auto entry = m_asked.find(Key(mount.id, mount.folder));
        const bool answers = entry->second.wait_until(deadline) == future_status::ready;
        note(mount, answers);
        if (!answers)
            continue;
        if (const std::optional<Space> space = entry->second.get())
            spaces.insert(mount.folder, *space);
        m_asked.erase(entry);
    }
    std::erase_if(m_silent, [&known](const Key& key) { return !known.contains(key); });
    return spaces;
}

} // namespace tarn::system
