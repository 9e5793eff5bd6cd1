#include "common/NotifyText.h"

#include "common/NotifyMessage.h"

#include <QLocale>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace tarn::notify {

namespace {

constexpr qint64 kMinute = 60;
constexpr qint64 kHour = 60 * kMinute;
constexpr qint64 kDay = 24 * kHour;

constexpr qsizetype kExcerptCharacters = 300;

QString duration(qint64 seconds)
{
    // The wording "1 days" is intended.
    if (seconds >= kDay) {
        return u"%1 days %2 h"_s.arg(QString::number(seconds / kDay),
                                     QString::number(seconds % kDay / kHour));
    }
    if (seconds >= kHour) {
        return u"%1 h %2 min"_s.arg(QString::number(seconds / kHour),
                                    QString::number(seconds % kHour / kMinute));
    }
    return u"%1 min"_s.arg(std::max<qint64>(seconds / kMinute, 1));
}

QString lead(const Config& config, const Message& message)
{
    if (message.kind == u"test")
        return u"This is a test from Tarnhold on %1. Notifications reach you here."_s.arg(config.host);
    if (message.cleared) {
        return u"Back to normal after %1. The alert was: %2."_s.arg(duration(message.openSeconds),
                                                                    message.text);
    }
    return u"%1 on %2."_s.arg(message.text, config.host);
}

} // namespace

QString title(const Config& config, const Message& message)
{
    return (message.cleared ? u"[%1] Cleared: %2"_s : u"[%1] %2"_s).arg(config.host, message.text);
}

QString body(const Config& config, const Message& message)
{
    return body(config, message, QDateTime::currentDateTime());
}

QString body(const Config& config, const Message& message, const QDateTime& now)
{
    QString text = lead(config, message);
    text += u"\n\nTime: "_s + QLocale::c().toString(now, u"yyyy-MM-dd HH:mm t"_s);
    if (!config.panelUrl.isEmpty())
        text += u"\nServer health: "_s + config.panelUrl;
    return text;
}

Notice compose(const Config& config, const Message& message, const QDateTime& now)
{
    return {title(config, message), body(config, message, now), now};
}

QJsonObject result(const QString& channel, const QString& error)
{
    QJsonObject entry{
        {u"channel"_s, channel        },
        {u"ok"_s,      error.isEmpty()}
    };
    if (!error.isEmpty())
        entry.insert(u"error"_s, error);
    return entry;
}

QString controlsBlanked(QString text)
{
    for (QChar& character : text) {
        if (character.category() == QChar::Other_Control)
            character = u' ';
    }
    return text;
}

QString excerpt(const QString& text)
{
    QString cut = controlsBlanked(text).left(kExcerptCharacters);
    // A character above U+FFFF has two halves.
    if (!cut.isEmpty() && cut.back().isHighSurrogate())
        cut.chop(1);
    return cut;
}

} // namespace tarn::notify
