// What a notification says: the title and the text that every channel carries, and the entries of the report
// on its delivery. Private to the notification unit.
#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QString>

namespace tarn::notify {

struct Config;
struct Message;

/// "[web1] Memory 93% used", "[web1] Cleared: Memory 93% used".
QString title(const Config& config, const Message& message);

/// A sentence, the local time and, when there is one, the address of the panel:
///
///     Memory 93% used on web1.
///
///     Time: 2024-06-15 09:30 CEST
///     Server health: https://panel.example.org/#/health
QString body(const Config& config, const Message& message);
/// The same at the local time @p now.
QString body(const Config& config, const Message& message, const QDateTime& now);

/// A message as every channel says it: composed once, so that all say the same moment.
struct Notice
{
    QString title;
    QString body;
    QDateTime at; ///< local time
};

/// @p message at the local time @p now.
Notice compose(const Config& config, const Message& message, const QDateTime& now);

/// An entry of the report: {"channel": "email", "ok": true}, and with an @p error {"channel": "email",
/// "ok": false, "error": "..."}.
QJsonObject result(const QString& channel, const QString& error);

/// @p text as it can stand in a header or a command: each control character, line ends among them, is a
/// blank. The length stays.
QString controlsBlanked(QString text);

/// The first 300 characters of a text that somebody else has written, as controlsBlanked() gives them. No
/// character is cut in half.
QString excerpt(const QString& text);

} // namespace tarn::notify
