#include "analytics/LogParser.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>

namespace tarn::analytics {

namespace {

constexpr auto kMonths = std::to_array<std::string_view>(
    {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"});

/// The zones that PostgreSQL and Qt know end at 16 hours either way.
constexpr int kMaxOffsetSeconds = 16 * 3600;

/// Length of "dd/Mon/yyyy:HH:mm:ss +zzzz".
constexpr qsizetype kTimeLength = 26;

/// Runs of spaces are skipped by so many at a time: a line can consist of them.
constexpr QByteArrayView kSpaces = "                                                                ";

void skipSpaces(QByteArrayView line, qsizetype& pos)
{
    if (pos < line.size() && line[pos] == ' ')
        ++pos;
    if (pos >= line.size() || line[pos] != ' ')
        return;
    while (line.sliced(pos).startsWith(kSpaces))
        pos += kSpaces.size();
    while (pos < line.size() && line[pos] == ' ')
        ++pos;
}

/// The next run of characters up to a space, with @p pos left on that space; empty at the end of the line.
QByteArrayView token(QByteArrayView line, qsizetype& pos)
{
    skipSpaces(line, pos);
    const qsizetype start = pos;
    const qsizetype end = line.indexOf(' ', start);
    pos = end < 0 ? line.size() : end;
    return line.sliced(start, pos - start);
}

/// The quoted field that begins at @p pos, its backslashes resolved, with @p pos left behind the closing
/// quote; nothing, and @p pos as it was, when there is no quote at @p pos. Also nothing when the field is not
/// closed.
std::optional<QByteArray> quoted(QByteArrayView line, qsizetype& pos)
{
    if (pos >= line.size() || line[pos] != '"')
        return std::nullopt;
    QByteArray text;
    qsizetype runStart = ++pos;
    for (; pos < line.size(); ++pos) {
        if (line[pos] != '"' && line[pos] != '\\')
            continue;
        text.append(line.sliced(runStart, pos - runStart));
        if (line[pos] == '"') {
            ++pos;
            return text;
        }
        // The character behind the backslash opens the next run, whatever it is.
        runStart = ++pos;
        if (pos >= line.size())
            break;
    }
    return std::nullopt;
}

int number(QByteArrayView text, qsizetype pos, qsizetype length)
{
    return text.sliced(pos, length).toInt();
}

int monthNumber(QByteArrayView name)
{
    for (std::size_t i = 0; i < kMonths.size(); ++i) {
        if (name == QByteArrayView(kMonths[i]))
            return static_cast<int>(i) + 1;
    }
    return 0;
}

/// Reads "10/Oct/2024:13:55:36 +0200" by position; the separators are not looked at. Invalid on failure.
QDateTime parseTime(QByteArrayView text)
{
    if (text.size() < kTimeLength)
        return {};
    const QDate date(number(text, 7, 4), monthNumber(text.sliced(3, 3)), number(text, 0, 2));
    const QTime time(number(text, 12, 2), number(text, 15, 2), number(text, 18, 2));
    const int sign = text[21] == '-' ? -1 : 1;
    const int offset = sign * (number(text, 22, 2) * 3600 + number(text, 24, 2) * 60);
    if (!date.isValid() || !time.isValid() || qAbs(offset) > kMaxOffsetSeconds)
        return {};
    // Computed by hand: the fixed zones of Qt before 6.7 end at 14 hours.
    return QDateTime(date, time, Qt::UTC).addSecs(-offset);
}

/// The bytes from @p pos up to the next single space; empty past the end.
QByteArray word(const QByteArray& text, qsizetype pos)
{
    if (pos >= text.size())
        return {};
    const qsizetype end = text.indexOf(' ', pos);
    return text.sliced(pos, (end < 0 ? text.size() : end) - pos);
}

/// The last of the fields from @p pos on as a response time, 0 when it is not all digits.
qint64 responseTime(QByteArrayView line, qsizetype pos)
{
    // From the end, since there can be thousands of fields before the last.
    QByteArrayView rest = line.sliced(pos);
    while (rest.endsWith(' '))
        rest.chop(1);
    const QByteArrayView last = rest.sliced(rest.lastIndexOf(' ') + 1);
    const bool digits =
        !last.isEmpty() && std::all_of(last.begin(), last.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (!digits)
        return 0;
    bool fits = false;
    const qint64 value = last.toLongLong(&fits);
    return fits ? value : std::numeric_limits<qint64>::max();
}

} // namespace

std::optional<LogLine> parseCombined(QByteArrayView line)
{
    LogLine result;
    qsizetype pos = 0;
    result.ip = QString::fromLatin1(token(line, pos));
    token(line, pos); // ident
    token(line, pos); // user

    skipSpaces(line, pos);
    if (pos >= line.size() || line[pos] != '[')
        return std::nullopt;
    const qsizetype bracket = line.indexOf(']', pos);
    if (bracket < 0)
        return std::nullopt;
    result.at = parseTime(line.sliced(pos + 1, bracket - pos - 1));
    pos = bracket + 1;

    skipSpaces(line, pos);
    const std::optional<QByteArray> request = quoted(line, pos);
    if (!request || !result.at.isValid())
        return std::nullopt;
    result.method = word(*request, 0);
    result.target = word(*request, result.method.size() + 1);

    bool isNumber = false;
    result.status = token(line, pos).toInt(&isNumber);
    if (!isNumber)
        return std::nullopt;
    result.bytes = token(line, pos).toLongLong();

    for (QByteArray* field : {&result.referrer, &result.userAgent}) {
        skipSpaces(line, pos);
        if (std::optional<QByteArray> text = quoted(line, pos); text && *text != "-")
            *field = std::move(*text);
    }
    result.responseUs = responseTime(line, pos);
    return result;
}

} // namespace tarn::analytics
