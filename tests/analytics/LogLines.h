// Lines of an access log, field by field, for the tests of their parser.
#pragma once

#include "analytics/LogParser.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <limits>
#include <optional>
#include <vector>

namespace tarn::test {

using namespace Qt::Literals::StringLiterals;
using namespace tarn::analytics;

inline constexpr qint64 kMost = std::numeric_limits<qint64>::max();

/// The parts of a line as they are written, with their quotes and brackets.
struct Written
{
    QByteArray ip = "127.0.0.1";
    QByteArray identAndUser = "- -";
    QByteArray time = "[10/Oct/2024:13:55:36 +0200]";
    QByteArray request = "\"GET /a?b=1 HTTP/1.1\"";
    QByteArray status = "200";
    QByteArray bytes = "2326";
    QByteArray referrer = "\"-\"";
    QByteArray userAgent = "\"Mozilla/5.0\"";
    QByteArray extra = {};

    QByteArray line() const
    {
        QByteArray text = ip + ' ' + identAndUser + ' ' + time + ' ' + request + ' ' + status + ' ' + bytes
                          + ' ' + referrer + ' ' + userAgent;
        return extra.isEmpty() ? text : text + ' ' + extra;
    }
};

/// The parser is given the line in a block of exactly its size, so that the address sanitizer sees a read
/// past it.
inline std::optional<LogLine> parse(const QByteArray& line)
{
    const std::vector<char> exact(line.begin(), line.end());
    return parseCombined(QByteArrayView(exact.data(), static_cast<qsizetype>(exact.size())));
}

/// "2024-10-10 11:55:36 UTC"; years before 1 have a minus sign, which Qt's own formats leave out or refuse.
inline QString shown(const QDateTime& at)
{
    const QDate date = at.date();
    return u"%1-%2-%3 %4%5"_s.arg(date.year())
        .arg(date.month(), 2, 10, QChar(u'0'))
        .arg(date.day(), 2, 10, QChar(u'0'))
        .arg(at.time().toString(u"HH:mm:ss"_s), at.timeSpec() == Qt::UTC ? u" UTC"_s : u" in another zone"_s);
}

/// A literal with the NUL bytes that stand in it.
template <std::size_t size>
QByteArray bytes(const char (&literal)[size])
{
    return QByteArray(literal, static_cast<qsizetype>(size) - 1);
}

} // namespace tarn::test
