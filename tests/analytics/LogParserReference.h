// The combined format once more, slow and from its description: each step cuts what it has read off the front
// of the line, and the calendar is the standard library's. It shares no technique with the product, so that
// the two agree on a line only if both are right about it. No limits on time or memory: lines of tests are
// short.
#pragma once

#include "analytics/LogParser.h"

#include <QByteArray>
#include <QDateTime>
#include <QDebug>
#include <QList>
#include <QString>

#include <chrono>
#include <limits>
#include <optional>

namespace tarn::analytics::reference {

/// A whole number as Qt's conversions take it: white space around it and a sign are allowed, and a NUL byte
/// ends the text, whatever follows.
inline std::optional<qint64> integer(QByteArray text)
{
    if (text.contains('\0'))
        text.truncate(text.indexOf('\0'));
    text = text.trimmed();
    const bool negative = text.startsWith('-');
    if (negative || text.startsWith('+'))
        text = text.mid(1);
    if (text.isEmpty())
        return std::nullopt;
    qint64 value = 0; // kept negative, the side that reaches one further
    for (const char c : text) {
        const int digit = c - '0';
        if (digit < 0 || digit > 9 || value < (std::numeric_limits<qint64>::min() + digit) / 10)
            return std::nullopt;
        value = value * 10 - digit;
    }
    if (negative)
        return value;
    if (value == std::numeric_limits<qint64>::min())
        return std::nullopt;
    return -value;
}

inline QByteArray cutSpaces(QByteArray rest)
{
    while (rest.startsWith(' '))
        rest = rest.mid(1);
    return rest;
}

inline QByteArray cutToken(QByteArray& rest)
{
    rest = cutSpaces(rest);
    QByteArray token;
    while (!rest.isEmpty() && !rest.startsWith(' ')) {
        token += rest.front();
        rest = rest.mid(1);
    }
    return token;
}

inline std::optional<QByteArray> cutQuoted(QByteArray& rest)
{
    if (!rest.startsWith('"'))
        return std::nullopt;
    rest = rest.mid(1);
    QByteArray text;
    while (!rest.isEmpty()) {
        const char c = rest.front();
        rest = rest.mid(1);
        if (c == '"')
            return text;
        if (c != '\\') {
            text += c;
        } else if (!rest.isEmpty()) {
            text += rest.front();
            rest = rest.mid(1);
        }
    }
    return std::nullopt;
}

/// The seconds since 1970 of a time stamp without its brackets.
inline std::optional<qint64> seconds(const QByteArray& stamp)
{
    using namespace std::chrono;
    if (stamp.size() <= 25)
        return std::nullopt;
    const auto part = [&stamp](qsizetype from, qsizetype length) {
        return integer(stamp.mid(from, length)).value_or(0);
    };
    static const QList<QByteArray> names = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const qint64 written = part(7, 4);
    if (written == 0)
        return std::nullopt;
    // The record counts the years as people do, without a year 0; the standard calendar has one.
    const year_month_day date{year(static_cast<int>(written > 0 ? written : written + 1)),
                              month(static_cast<unsigned>(names.indexOf(stamp.mid(3, 3)) + 1)),
                              day(static_cast<unsigned>(part(0, 2)))};
    const qint64 hour = part(12, 2);
    const qint64 minute = part(15, 2);
    const qint64 second = part(18, 2);
    const bool inDay = hour >= 0 && hour <= 23 && minute >= 0 && minute <= 59 && second >= 0 && second <= 59;
    if (!date.ok() || !inDay)
        return std::nullopt;
    const qint64 offset = (stamp[21] == '-' ? -1 : 1) * (part(22, 2) * 60 + part(24, 2)) * 60;
    constexpr qint64 sixteenHours = 57'600;
    if (offset < -sixteenHours || offset > sixteenHours)
        return std::nullopt;
    return sys_days(date).time_since_epoch().count() * 86400LL + hour * 3600 + minute * 60 + second - offset;
}

inline std::optional<LogLine> parseCombined(QByteArray rest)
{
    LogLine result;
    result.ip = QString::fromLatin1(cutToken(rest));
    cutToken(rest);
    cutToken(rest);
    rest = cutSpaces(rest);
    if (!rest.startsWith('[') || !rest.contains(']'))
        return std::nullopt;
    const std::optional<qint64> at = seconds(rest.mid(1, rest.indexOf(']') - 1));
    rest = cutSpaces(rest.mid(rest.indexOf(']') + 1));
    const std::optional<QByteArray> request = cutQuoted(rest);
    if (!at || !request)
        return std::nullopt;
    result.at = QDateTime::fromSecsSinceEpoch(*at, Qt::UTC);
    const QList<QByteArray> words = request->split(' ');
    result.method = words.value(0);
    result.target = words.value(1);

    const std::optional<qint64> status = integer(cutToken(rest));
    if (!status || *status < std::numeric_limits<qint32>::min()
        || *status > std::numeric_limits<qint32>::max())
        return std::nullopt;
    result.status = static_cast<qint32>(*status);
    result.bytes = integer(cutToken(rest)).value_or(0);
    rest = cutSpaces(rest);
    result.referrer = cutQuoted(rest).value_or("-");
    rest = cutSpaces(rest);
    result.userAgent = cutQuoted(rest).value_or("-");
    if (result.referrer == "-")
        result.referrer.clear();
    if (result.userAgent == "-")
        result.userAgent.clear();

    QByteArray last;
    while (!cutSpaces(rest).isEmpty())
        last = cutToken(rest);
    bool digits = !last.isEmpty();
    for (const char c : last)
        digits = digits && QByteArrayView("0123456789").contains(c);
    if (digits)
        result.responseUs = integer(last).value_or(std::numeric_limits<qint64>::max());
    return result;
}

/// The names and values of the fields in which two results differ; empty when there are none.
inline QString difference(const std::optional<LogLine>& actual, const std::optional<LogLine>& expected)
{
    if (!actual && !expected)
        return {};
    if (!actual || !expected)
        return QString::fromLatin1(actual ? "accepted" : "rejected");
    QString text;
    const auto field = [&text](const char* name, const auto& left, const auto& right) {
        if (left != right)
            QDebug(&text).nospace() << name << " is " << left << ", not " << right << "; ";
    };
    field("ip", actual->ip, expected->ip);
    field("at", actual->at, expected->at);
    field("at's zone", static_cast<int>(actual->at.timeSpec()), static_cast<int>(expected->at.timeSpec()));
    field("method", actual->method, expected->method);
    field("target", actual->target, expected->target);
    field("status", actual->status, expected->status);
    field("bytes", actual->bytes, expected->bytes);
    field("referrer", actual->referrer, expected->referrer);
    field("userAgent", actual->userAgent, expected->userAgent);
    field("responseUs", actual->responseUs, expected->responseUs);
    return text;
}

} // namespace tarn::analytics::reference
