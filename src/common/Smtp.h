// A minimal mail client (RFC 5321): one session, one message in plain text, blocking. Speaks implicit TLS,
// STARTTLS (RFC 3207) or no encryption; who may go without is for the caller to know. Private to the
// notification unit.
#pragma once

#include <QByteArray>
#include <QDeadlineTimer>
#include <QList>
#include <QSslSocket>
#include <QString>

class QDateTime;
class QUuid;

namespace tarn::notify {

struct Config;

class Smtp
{
public:
    /// For one send(). @p config is not copied.
    explicit Smtp(const Config& config);

    /// Runs a whole session: empty when the server has taken the message for every recipient, otherwise the
    /// reason, which contains nothing of the password. Blocks for 10 seconds at most where the server is
    /// silent, and for 30 where it never comes to the end of a reply.
    QString send(const QString& subject, const QString& text);

private:
    bool connectToServer();
    bool startTls();
    bool signIn();
    bool deliver(const QByteArray& message, const QList<QByteArray>& extensions);

    /// Reads one reply, of however many lines, and puts its lines into @p reply. False, with the error set,
    /// when its code is not @p code or when none comes.
    bool expect(int code, QList<QByteArray>* reply = nullptr);
    /// Reads a line of a reply, without an end when it is too long; false when there is none to be had.
    bool readLine(QByteArray* line, const QDeadlineTimer& deadline);
    bool command(const QByteArray& line, int code, QList<QByteArray>* reply = nullptr);
    bool ehlo(QList<QByteArray>* extensions);

    const Config& m_c;
    QSslSocket m_sock;
    QString m_error;
};

/// The message as it goes over the wire, without the dot behind it. @p now is local time.
QByteArray mailMessage(const Config& config, const QString& subject, const QString& text,
                       const QDateTime& now, const QUuid& id);

/// Why no mail can be sent with these settings, whatever the server says; empty when there is no reason. An
/// address with a blank, a control character, "<" or ">" in it would say something else in a command.
QString mailSettingsProblem(const Config& config);

/// @p reply of a server without what it repeats of the sign-in, encoded or not.
QString withoutCredentials(const QString& reply, const Config& config);

} // namespace tarn::notify
