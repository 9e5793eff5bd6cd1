// A minimal mail client (RFC 5321): one session, one message in plain text. Speaks implicit TLS, STARTTLS
// (RFC 3207) or no encryption; the caller decides who may go without. Each wait runs a local event loop, in
// which timers are served and other jobs run, another mail's session among them. What is sent is the message
// of MailMessage.h. Private to the notification unit.
#pragma once

#include <QByteArray>
#include <QDeadlineTimer>
#include <QHostAddress>
#include <QList>
#include <QSslSocket>
#include <QString>

#include <functional>

namespace tarn::notify {

struct Config;

class Smtp
{
public:
    /// For one send(). @p config is not copied. @p addresses are the server's where they are known; the name
    /// is not looked up then, but certificates are still to be good for it.
    explicit Smtp(const Config& config, const QList<QHostAddress>& addresses = {});

    /// Runs a whole session. Empty when the server has taken the message for every recipient, otherwise the
    /// reason, which contains nothing of the password. Waits for 10 seconds at most while the server is
    /// silent, and for 30 at most for the end of a reply; jobs that run meanwhile can make it longer. The
    /// first 10 seconds are for looking the name up, for all of its addresses in turn and, with implicit TLS,
    /// for the handshake. No proxy is used. Its thread needs an event dispatcher; an exit from that thread's
    /// event loops ends the session with "interrupted".
    QString send(const QString& subject, const QString& text);

private:
    bool connectToServer();
    QString lookUp(const QDeadlineTimer& deadline);
    QString connectToAny(const QDeadlineTimer& deadline);
    QString connectTo(const QHostAddress& address, const QDeadlineTimer& deadline);
    /// Serves events until @p isDone; otherwise why not: what became of the connection, or of the wait.
    QString waitUntil(const std::function<bool()>& isDone, const QDeadlineTimer& deadline);
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
    QList<QHostAddress> m_addresses;
};

/// Why no mail can be sent with these settings, whatever the server says; empty when one can. An address with
/// a blank, a control character, "<" or ">" in it would change the meaning of a command.
QString mailSettingsProblem(const Config& config);

/// @p reply of a server with "***" in place of each piece of the sign-in that it repeats: the password, and
/// eight or more characters of the base64 text of AUTH PLAIN. Unchanged when `config.smtpUser` is empty,
/// since there was no sign-in then.
QString withoutCredentials(const QString& reply, const Config& config);

} // namespace tarn::notify
