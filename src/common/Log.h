// Turns messages into lines of the log. Messages hold texts of strangers and other programs (domains, paths,
// reasons of servers). A line feed in such a text must not begin a new line.
// Only messages that go through Qt's logging come here; the notices of PostgreSQL's client library do not.
#pragma once

#include <QByteArray>
#include <QString>

namespace tarn {

/// The most bytes of one line, its line feed included. The journal cuts a line of more than 48 KiB in two.
constexpr qsizetype kMaxLogLineBytes = 48'000;

/// @p text as one line. Each run of control characters and of Unicode's line and paragraph separators becomes
/// one blank; a run at the end is dropped:
///
///     "ERROR:  no such site\nDETAIL:  1\n(23503) QPSQL"  ->  "ERROR:  no such site DETAIL:  1 (23503) QPSQL"
QString oneLine(const QString& text);

/// The bytes of a line of the log: @p text in UTF-8, cut between two characters and ended by "..." if it is
/// too long, and a line feed.
QByteArray logLine(const QString& text);

/// Has every message of the process written to standard error as one line, in one write. The text is
/// formatted by Qt, so that QT_MESSAGE_PATTERN works as ever. To be called first thing.
void installLog();

} // namespace tarn
