#include "common/Settings.h"

#include <QSettings>
#include <QStringList>

#include <cmath>
#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

constexpr qsizetype kShownCharacters = 80;

QString text(std::string_view bytes)
{
    return QString::fromLatin1(bytes.data(), static_cast<qsizetype>(bytes.size()));
}

/// The value as it stands in the file, as far as that can be told: Qt has taken it apart at the commas.
QString shown(const QVariant& stored)
{
    return stored.toStringList().join(u", "_s).left(kShownCharacters);
}

/// What a number is that lies outside the range of @p setting.
QString outOfRange(const Setting& setting)
{
    const QString least = QString::number(setting.least);
    QString range = std::isinf(setting.most)
                        ? u"not at least %1"_s.arg(least)
                        : u"not from %1 to %2"_s.arg(least, QString::number(setting.most, 'g', 10));
    if (!setting.unit.empty())
        range += u' ' + text(setting.unit);
    return range;
}

/// Why @p stored is no number in the range of @p setting; empty when it is one.
QString numberProblem(const Setting& setting, const QVariant& stored)
{
    bool isNumber = false;
    double number = 0;
    if (setting.kind == SettingKind::Number) {
        number = stored.toDouble(&isNumber);
        if (!isNumber)
            return u"no number"_s;
    } else {
        number = static_cast<double>(stored.toLongLong(&isNumber));
        if (!isNumber)
            return u"no whole number"_s;
    }
    // The other way round "not a number" would pass.
    return number >= setting.least && number <= setting.most ? QString() : outOfRange(setting);
}

bool isFlag(const QVariant& stored)
{
    const QString word = stored.toString().toLower();
    return word == u"true" || word == u"false" || word == u"1" || word == u"0";
}

QString problemOf(const Setting& setting, const QVariant& stored)
{
    switch (setting.kind) {
    case SettingKind::Text:
    case SettingKind::List:
        break;
    case SettingKind::Flag:
        return isFlag(stored) ? QString() : u"neither true nor false"_s;
    case SettingKind::Word: {
        const QStringList words = text(setting.words).split(u' ');
        return words.contains(stored.toString()) ? QString() : u"none of "_s + words.join(u", "_s);
    }
    case SettingKind::Whole:
    case SettingKind::Port:
    case SettingKind::Number:
        return numberProblem(setting, stored);
    }
    return {};
}

/// What the reader makes of @p stored.
QString usedInstead(const Setting& setting, const QVariant& stored)
{
    switch (setting.kind) {
    case SettingKind::Text:
    case SettingKind::List:
        break;
    case SettingKind::Flag:
        return stored.toBool() ? u"true"_s : u"false"_s;
    case SettingKind::Word:
        return text(setting.words.substr(setting.words.rfind(' ') + 1));
    case SettingKind::Whole:
        return QString::number(stored.toInt());
    case SettingKind::Port:
        return QString::number(portNumber(stored));
    case SettingKind::Number:
        return QString::number(stored.toDouble());
    }
    return {};
}

} // namespace

QVariant settingValue(const QSettings& settings, const Setting& setting)
{
    return settingValue(settings, setting, setting.standard.empty() ? QVariant() : text(setting.standard));
}

QVariant settingValue(const QSettings& settings, const Setting& setting, const QVariant& computed)
{
    return settings.value(text(setting.key), computed);
}

qint32 portNumber(const QVariant& value)
{
    // Of a text with a greater number, toInt() gives the lower bits.
    const qint64 number = value.toLongLong();
    return std::in_range<qint32>(number) ? static_cast<qint32>(number) : 0;
}

QString settingProblem(const QSettings& settings, const Setting& setting)
{
    const QVariant stored = settings.value(text(setting.key));
    if (!stored.isValid())
        return {};
    const QString problem = problemOf(setting, stored);
    if (problem.isEmpty())
        return {};
    return u"%1=%2 is %3; %4 is used"_s.arg(text(setting.key), shown(stored), problem,
                                            usedInstead(setting, stored));
}

void checkSettings(const QSettings& settings)
{
    for (const std::span<const Setting> table : kAllSettings) {
        for (const Setting& setting : table) {
            const QString problem = settingProblem(settings, setting);
            if (!problem.isEmpty())
                qWarning("settings: %s", qPrintable(problem));
        }
    }
}

} // namespace tarn
