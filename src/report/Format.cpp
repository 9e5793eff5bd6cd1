#include "report/Format.h"

#include <QRegularExpression>

#include <array>
#include <cmath>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

constexpr QChar kThinSpace(0x202F);
constexpr QChar kMinus(0x2212);
const auto kNothing = u"–"_s;

QString withUnit(const QString& number, const QString& unit)
{
    return number + kThinSpace + unit;
}

/// Two numbers with their units, "2 h 05 min".
QString inTwoUnits(qint64 greater, const QString& greaterUnit, qint64 smaller, const QString& smallerUnit)
{
    const QString padded = u"%1"_s.arg(smaller, smallerUnit == u"h"_s ? 1 : 2, 10, QLatin1Char('0'));
    return withUnit(count(greater), greaterUnit) + QChar::Nbsp + withUnit(padded, smallerUnit);
}

} // namespace

QString count(qint64 number)
{
    QString digits = QString::number(number);
    const qsizetype first = number < 0 ? 1 : 0;
    for (qsizetype i = digits.size() - 3; i > first; i -= 3)
        digits.insert(i, kThinSpace);
    if (number < 0)
        digits[0] = kMinus;
    return digits;
}

QString decimal(double number, int decimals)
{
    if (!std::isfinite(number))
        return kNothing;
    QString digits = QString::number(number, 'f', decimals);
    const qsizetype point = decimals > 0 ? digits.indexOf(u'.') : digits.size();
    for (qsizetype i = point - 3; i > (digits.startsWith(u'-') ? 1 : 0); i -= 3)
        digits.insert(i, kThinSpace);
    if (digits.startsWith(u'-'))
        digits[0] = kMinus;
    return digits;
}

QString bytes(double number)
{
    static constexpr std::array<const char16_t*, 7> kUnits = {u"B",   u"KiB", u"MiB", u"GiB",
                                                              u"TiB", u"PiB", u"EiB"};
    if (!std::isfinite(number))
        return kNothing;
    std::size_t unit = 0;
    // 1023.95 would be shown as 1024.0 of its unit.
    while (unit + 1 < kUnits.size() && std::abs(number) >= (unit == 0 ? 1024 : 1023.95)) {
        number /= 1024;
        ++unit;
    }
    const int decimals = unit == 0 || std::abs(number) >= 99.95 ? 0 : 1;
    return withUnit(decimal(number, decimals), QString::fromUtf16(kUnits.at(unit)));
}

QString percent(double number)
{
    return std::isfinite(number) ? withUnit(decimal(number, std::abs(number) >= 99.95 ? 0 : 1), u"%"_s)
                                 : kNothing;
}

QString duration(double seconds)
{
    constexpr qint64 minute = 60;
    constexpr qint64 hour = 60 * minute;
    constexpr qint64 day = 24 * hour;
    if (!std::isfinite(seconds))
        return kNothing;
    const qint64 whole = std::llround(seconds);
    if (whole < minute)
        return withUnit(count(whole), u"s"_s);
    if (whole < hour)
        return inTwoUnits(whole / minute, u"min"_s, whole % minute, u"s"_s);
    if (whole < 3 * day)
        return inTwoUnits(whole / hour, u"h"_s, whole % hour / minute, u"min"_s);
    return inTwoUnits(whole / day, u"d"_s, whole % day / hour, u"h"_s);
}

QString responseTime(double microseconds)
{
    constexpr double secondsFrom = 10'000'000;
    if (microseconds >= secondsFrom)
        return withUnit(decimal(microseconds / 1e6, 1), u"s"_s);
    return std::isfinite(microseconds)
               ? withUnit(decimal(microseconds / 1000, microseconds < 10'000 ? 1 : 0), u"ms"_s)
               : kNothing;
}

QString scaleLabel(const QString& figure)
{
    static const QRegularExpression noughts(u"\\.0+(?=\\D|$)|\u00A0(00\u202F(s|min)|0\u202Fh)$"_s);
    return QString(figure).remove(noughts);
}

QString change(double now, double before)
{
    if (before <= 0)
        return now > 0 ? u"new"_s : kNothing;
    const qint64 share = std::llround((now - before) * 100 / before);
    if (share == 0)
        return withUnit(u"±0"_s, u"%"_s);
    return withUnit((share > 0 ? u"+"_s : QString()) + count(share), u"%"_s);
}

QString points(double percent)
{
    const QString number = decimal(percent, 1);
    if (number == u"0.0" || number.endsWith(u"\u22120.0"_s))
        return u"±0 points"_s;
    return (percent > 0 ? u"+"_s : QString()) + number + u" points"_s;
}

QString growth(double number)
{
    return (number > 0 ? u"+"_s : QString()) + bytes(number);
}

QString isoDate(QDate day)
{
    return day.toString(Qt::ISODate);
}

QString isoMinute(const QDateTime& at)
{
    return at.toString(u"yyyy-MM-dd HH:mm"_s);
}

} // namespace tarn::report
