#include "common/Mounts.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <thread>

#include <sys/statvfs.h>

namespace tarn::system {

namespace {

/// Blanks, line feeds and backslashes are written as three octal digits: "\040".
QByteArray unescaped(const QByteArray& text)
{
    const auto digit = [&text](qsizetype at) {
        const char c = at < text.size() ? text.at(at) : '\0';
        return c >= '0' && c <= '7' ? c - '0' : -1;
    };
    QByteArray plain;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const bool isEscape = text.at(i) == '\\' && digit(i + 1) >= 0 && digit(i + 1) <= 3
                              && digit(i + 2) >= 0 && digit(i + 3) >= 0;
        if (isEscape) {
            plain += static_cast<char>(digit(i + 1) * 64 + digit(i + 2) * 8 + digit(i + 3));
            i += 3;
        } else {
            plain += text.at(i);
        }
    }
    return plain;
}

std::optional<Mount> parseLine(const QByteArray& line)
{
    const QList<QByteArray> fields = line.split(' ');
    // Tags, of which there can be any number, stand before the dash.
    const qsizetype dash = fields.indexOf("-", 6);
    if (dash < 0 || dash + 2 >= fields.size())
        return std::nullopt;
    Mount mount;
    bool isNumber = false;
    bool hasParent = false;
    mount.id = fields.at(0).toLongLong(&isNumber);
    mount.parent = fields.at(1).toLongLong(&hasParent);
    mount.folder = unescaped(fields.at(4));
    mount.type = unescaped(fields.at(dash + 1));
    mount.device = unescaped(fields.at(dash + 2));
    if (!isNumber || !hasParent || !mount.folder.startsWith('/'))
        return std::nullopt;
    return mount;
}

/// The mounts of one table, by what they are mounted in and where.
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

    bool isVisible(const Mount& mount) const
    {
        if (m_children.contains({mount.id, mount.folder}))
            return false;
        // The table is read in pieces, and could so make a circle.
        Mount inner = mount;
        for (qsizetype depth = 0; depth <= m_parents.size(); ++depth) {
            if (isBelowAnother(inner))
                return false;
            const auto outer = m_parents.constFind(inner.parent);
            if (outer == m_parents.cend() || outer->id == inner.id)
                return true;
            inner = *outer;
        }
        return true;
    }

private:
    /// True when what @p mount is in has later been covered at a folder above it.
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
};

} // namespace

QList<Mount> parseMountInfo(const QByteArray& text)
{
    QList<Mount> mounts;
    const QList<QByteArray> lines = text.split('\n');
    for (const QByteArray& line : lines) {
        if (const std::optional<Mount> mount = parseLine(line))
            mounts.append(*mount);
    }
    return mounts;
}

QList<Mount> visibleMounts(const QList<Mount>& mounts)
{
    const Tree tree(mounts);
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
