#include "collect/LogSource.h"

#include "analytics/Ingest.h"
#include "common/Db.h"
#include "common/Prepared.h"

#include <QFile>
#include <QSet>
#include <QSqlDatabase>
#include <QSqlQuery>

#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;
using tarn::analytics::Ingest;

namespace tarn {

namespace {

LogFile asLogFile(const struct stat& status)
{
    return {.inode = status.st_ino, .device = status.st_dev, .size = status.st_size};
}

/// At most @p bytes of the log from @p offset on. Nothing when it cannot be read. No bytes when it has been
/// rotated or cut since @p file was looked at: the next pass handles that.
std::optional<QByteArray> readBytes(const QString& path, const LogFile& file, qint64 offset, qint64 bytes)
{
    QFile log(path);
    if (!log.open(QIODevice::ReadOnly | QIODevice::Unbuffered) || !log.seek(offset))
        return std::nullopt;
    struct stat status = {};
    if (fstat(log.handle(), &status) != 0)
        return QByteArray();
    const LogFile opened = asLogFile(status);
    if (opened.inode != file.inode || opened.device != file.device || opened.size < offset)
        return QByteArray();
    return log.read(bytes);
}

} // namespace

QList<LogSource> logSources()
{
    QList<LogSource> sources;
    QSqlQuery query;
    db::exec(query, kLogSourcesQuery);
    while (query.next()) {
        LogSource source;
        source.id = query.value(0).toInt();
        source.path = query.value(1).toString();
        if (!query.isNull(2))
            source.inode = static_cast<quint64>(query.value(2).toLongLong());
        source.readOffset = query.value(3).toLongLong();
        source.siteId = query.value(4).toInt();
        source.host = query.value(5).toString();
        sources.append(source);
    }
    return sources;
}

std::optional<LogFile> logFile(const QString& path)
{
    struct stat status = {};
    if (stat(path.toLocal8Bit().constData(), &status) != 0)
        return std::nullopt;
    return asLogFile(status);
}

bool isPlaceVoid(const LogSource& source, const LogFile& file)
{
    return source.inode && (*source.inode != file.inode || file.size < source.readOffset);
}

qint64 startOffset(const LogSource& source, const LogFile& file)
{
    return source.inode && !isPlaceVoid(source, file) ? source.readOffset : 0;
}

LogSlice readSlice(const QString& path, const LogFile& file, qint64 offset)
{
    std::optional<QByteArray> data = readBytes(path, file, offset, kSliceBytes);
    if (!data)
        return {.state = LogSlice::State::Unreadable, .data = {}};
    const qsizetype end = data->lastIndexOf('\n') + 1;
    if (end == 0 && data->size() == kSliceBytes)
        return {.state = LogSlice::State::TooLong, .data = *data};
    data->truncate(end);
    return {.state = end > 0 ? LogSlice::State::Lines : LogSlice::State::NoLine, .data = *data};
}

QList<QByteArray> linesOf(const QByteArray& data)
{
    // A copy of each would make a file of nothing but line feeds cost a hundred times its size.
    QList<QByteArray> lines;
    for (qsizetype start = 0; start < data.size();) {
        if (data.at(start) == '\n') { // without the cost of a search for each
            ++start;
            continue;
        }
        qsizetype end = data.indexOf('\n', start);
        if (end < 0)
            end = data.size();
        lines.append(QByteArray::fromRawData(data.constData() + start, end - start));
        start = end + 1;
    }
    return lines;
}

bool storePlace(const LogSource& source, quint64 inode, qint64 offset)
{
    db::Values values;
    values.addBigInt(static_cast<qint64>(inode));
    values.addBigInt(offset);
    values.addInt(source.id);
    return db::exec(kPlaceStorage, values);
}

bool LongLines::isKnown(const LogSource& source, const LogFile& file, qint64 offset)
{
    const auto record = m_records.find(source.id);
    if (record == m_records.end() || record->offset != offset || record->file.inode != file.inode
        || record->file.device != file.device || file.size < record->file.size) {
        return false;
    }
    record->file.size = file.size;
    return readBytes(source.path, file, offset, kHeadBytes) == record->head;
}

bool LongLines::note(const LogSource& source, const LogFile& file, qint64 offset, const QByteArray& slice)
{
    const auto record = m_records.constFind(source.id);
    const bool isNews = record == m_records.constEnd() || record->file.inode != file.inode
                        || record->file.device != file.device;
    m_records.insert(source.id, {file, offset, QByteArray(slice.constData(), kHeadBytes)});
    return isNews;
}

void LongLines::keepOnly(const QList<LogSource>& sources)
{
    if (m_records.isEmpty())
        return;
    QSet<int> ids;
    for (const LogSource& source : sources)
        ids.insert(source.id);
    m_records.removeIf([&ids](const auto& record) { return !ids.contains(record.key()); });
}

void followLog(Ingest& ingest, LongLines& longLines, const LogSource& source)
{
    const std::optional<LogFile> file = logFile(source.path);
    if (!file)
        return;
    const bool lostSession =
        isPlaceVoid(source, *file) && !storePlace(source, file->inode, 0) && !db::session().isOpen();
    const qint64 offset = startOffset(source, *file);
    if (lostSession || file->size == offset || longLines.isKnown(source, *file, offset))
        return;

    const LogSlice slice = readSlice(source.path, *file, offset);
    if (slice.state == LogSlice::State::Unreadable)
        qWarning("collect: cannot read %s", qPrintable(source.path));
    if (slice.state == LogSlice::State::TooLong && longLines.note(source, *file, offset, slice.data)) {
        qWarning("collect: %s: a line is longer than %lld bytes; nothing from there on is read",
                 qPrintable(source.path), kSliceBytes);
    }
    if (slice.state != LogSlice::State::Lines)
        return;

    const Ingest::Result result = ingest.ingest(source.siteId, source.host, linesOf(slice.data));
    if (result.skipped != 0)
        qWarning("collect: %s: %d lines were not log entries", qPrintable(source.path), result.skipped);
    // A session that was lost has taken the hits with it, and said so. The next pass reads these lines again.
    if (db::session().isOpen())
        storePlace(source, file->inode, offset + slice.data.size());
}

} // namespace tarn
