// The access logs that are followed: the row of each, the place in it, and the slice that comes next. State
// that must outlive a pass is in tarn.log_sources. Main thread only.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>

#include <optional>

namespace tarn {

namespace analytics {
class Ingest;
}

/// Bytes of one log that one pass reads at most. The limit bounds how long a backlog holds up the other jobs.
/// A longer line is never read.
constexpr qint64 kSliceBytes = 8'388'608;

/// One row of tarn.log_sources, with the host of its site.
struct LogSource
{
    int id = 0;
    QString path;
    std::optional<quint64> inode; ///< of the file last read; nothing for a source that was never read
    qint64 readOffset = 0;        ///< bytes of that file that have been consumed
    int siteId = 0;
    QString host;
};

/// What stands at the path of a source, as stat(2) tells it.
struct LogFile
{
    quint64 inode = 0;
    quint64 device = 0;
    qint64 size = 0; ///< bytes
};

/// Bytes of a log from some place on.
struct LogSlice
{
    enum class State : quint8 {
        Lines,      ///< data is one whole line or more
        NoLine,     ///< there is none yet, or the file has been exchanged since it was looked at
        TooLong,    ///< data is a slice without a line feed
        Unreadable, ///< the file could not be opened
    };
    State state = State::NoLine;
    QByteArray data;
};

/// Every row of tarn.log_sources; none when the query fails (logged).
QList<LogSource> logSources();

/// What stands at @p path. Nothing when there is no such file, or a folder above it may not be searched.
std::optional<LogFile> logFile(const QString& path);

/// True when the stored place is in another file than @p file, or behind its end: the log has been rotated or
/// cut. A source that was never read has no place that could be void.
bool isPlaceVoid(const LogSource& source, const LogFile& file);

/// The byte of @p file at which reading goes on; 0 where there is no place, or a void one.
qint64 startOffset(const LogSource& source, const LogFile& file);

/// At most kSliceBytes of the log at @p path from @p offset on, up to the last line feed. @p file is what
/// logFile() has said of it.
LogSlice readSlice(const QString& path, const LogFile& file, qint64 offset);

/// The lines in @p data that are not empty, without their line feeds. They share its bytes, and must not
/// outlive it.
QList<QByteArray> linesOf(const QByteArray& data);

/// Stores the place in a log: the next byte to be read, @p offset, of the file @p inode. False when that
/// fails (logged).
bool storePlace(const LogSource& source, quint64 inode, qint64 offset);

/// Remembers the sources that stop at a line longer than a slice. Such a line is logged once for a file, and
/// is not read again in each pass. In memory only; some 1 kB for each such source.
class LongLines
{
public:
    /// Bytes at the beginning of a line by which it is recognised.
    static constexpr qint64 kHeadBytes = 1'024;

    /// True when the line that begins at @p offset of @p file is the one that was noted last: the file has
    /// not become shorter, and the beginning of the line is the same.
    bool isKnown(const LogSource& source, const LogFile& file, qint64 offset);

    /// Notes that @p slice, which begins at @p offset, has no line feed. True when the caller should log
    /// that: nothing was noted of this file before.
    bool note(const LogSource& source, const LogFile& file, qint64 offset, const QByteArray& slice);

    /// Forgets every source that is not among @p sources.
    void keepOnly(const QList<LogSource>& sources);

private:
    struct Record
    {
        LogFile file; ///< as it was last seen
        qint64 offset = 0;
        QByteArray head;
    };
    QHash<int, Record> m_records; ///< by the source's id
};

/// Feeds the next slice of @p source, if there is any, to @p ingest. The place is stored after the lines are:
/// after a crash in between they are read again, not lost. A void place is stored as the start of the new
/// file before anything is read: that file could grow past the old place until the next pass. Files that
/// cannot be read, overlong lines and lines that are no log entries are logged.
void followLog(analytics::Ingest& ingest, LongLines& longLines, const LogSource& source);

/// The rows of tarn.log_sources, in the order of the record.
inline const QString kLogSourcesQuery = QStringLiteral(
    "SELECT l.id, l.path, l.inode, l.read_offset, l.site_id, s.host FROM tarn.log_sources l JOIN "
    "tarn.sites s ON s.id = l.site_id");
/// Stores the place in a log: inode, next byte and the source's id.
inline const QString kPlaceStorage =
    QStringLiteral("UPDATE tarn.log_sources SET inode = ?, read_offset = ?, updated_at = now() WHERE id = ?");

} // namespace tarn
