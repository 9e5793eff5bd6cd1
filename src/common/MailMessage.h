// A mail in plain text (RFC 5322): its head and its encoded body, from values to bytes. Knows no server.
// Private to the notification unit.
#pragma once

#include <QByteArray>
#include <QString>

class QDateTime;
class QUuid;

namespace tarn::notify {

struct Config;

/// The message as it goes over the wire (RFC 5322), with CR LF line ends, without the dot behind it: a
/// head with From, To, Subject, Date and Message-ID, and @p text in UTF-8 as base64 in lines of 76
/// characters.
/// @p now is local time; @p id makes the Message-ID. Recipients or a subject that would make a line of more
/// than 998 bytes (RFC 5322, 2.1.1) are folded. Control characters of the subject become blanks. Addresses
/// are taken as they are: mailSettingsProblem() judges them.
QByteArray mailMessage(const Config& config, const QString& subject, const QString& text,
                       const QDateTime& now, const QUuid& id);

} // namespace tarn::notify
