#include "common/Log.h"

#include <QStringView>
#include <QtGlobal>

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace tarn {

namespace {

constexpr QByteArrayView kCutMark = "...";

/// True for characters that a terminal, the journal or a log viewer may take for a line end or a command.
bool breaksLine(QChar c)
{
    switch (c.category()) {
    case QChar::Other_Control: // "\n", "\r", escape, U+0085
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    default:
        return false;
    }
}

/// The most bytes of @p text that are at most @p limit and end with a whole character.
qsizetype wholeCharacters(const QByteArray& text, qsizetype limit)
{
    const auto continues = [&text](qsizetype at) { return (text.at(at) & '\xc0') == '\x80'; };
    qsizetype size = limit;
    while (size > 0 && continues(size))
        --size;
    return size;
}

/// The first @p units of @p text, or one less where they would end between two surrogates.
QStringView wholePairs(QStringView text, qsizetype units)
{
    const bool parts = units > 1 && units < text.size() && text.at(units - 1).isHighSurrogate();
    return text.left(parts ? units - 1 : units);
}

void writeLine(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    const QString formatted = qFormatLogMessage(type, context, oneLine(text));
    if (formatted.isNull()) // the pattern has no place for this message
        return;
    const QByteArray line = logLine(formatted);
    for (qsizetype done = 0; done < line.size();) {
        const ssize_t written =
            write(STDERR_FILENO, line.constData() + done, static_cast<size_t>(line.size() - done));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return; // nobody is left to be told
        done += written;
    }
}

} // namespace

QString oneLine(const QString& text)
{
    QString line;
    line.reserve(text.size());
    bool pending = false;
    for (const QChar c : text) {
        if (breaksLine(c)) {
            pending = true;
            continue;
        }
        if (std::exchange(pending, false))
            line += u' ';
        line += c;
    }
    return line;
}

QByteArray logLine(const QString& text)
{
    constexpr qsizetype room = kMaxLogLineBytes - 1;
    // In pieces, so that no more of a long text is converted than fits: three bytes are the most for a unit.
    QByteArray line;
    for (QStringView rest(text); !rest.isEmpty() && line.size() <= room;) {
        const QStringView piece = wholePairs(rest, (room - line.size()) / 3 + 2);
        line += piece.toUtf8();
        rest = rest.sliced(piece.size());
    }
    if (line.size() > room) {
        line.truncate(wholeCharacters(line, room - kCutMark.size()));
        line += kCutMark;
    }
    return line + '\n';
}

void installLog()
{
    qInstallMessageHandler(writeLine);
}

} // namespace tarn
