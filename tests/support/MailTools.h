// Programs that nobody here wrote, for the other side of the mail client: Debian's mail parser and mail
// server in Python.
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>

namespace tarn::test {

class TestAuthority;

/// @p mail as Python's `email` package understands it: "from", "to" (a list), "subject", "text", "id", "at"
/// (seconds since the epoch), "offset" (seconds east of UTC), "defects" (a list). Empty, with a warning, when
/// it does not understand it.
QJsonObject parsedMail(const QByteArray& mail);

/// A mail server on 127.0.0.1 that insists on STARTTLS and on a sign-in as "alerts" with the given password.
class MailServer
{
public:
    MailServer() = default;
    ~MailServer();
    MailServer(const MailServer&) = delete;
    MailServer& operator=(const MailServer&) = delete;

    /// False, with a warning that says why, when it does not start.
    bool start(const TestAuthority& authority, const QString& password);
    quint16 port() const { return m_port; }
    /// The next mail: {"from", "to", "mail" (as base64), "user"}; empty when none comes within half a minute.
    QJsonObject nextMail();

private:
    QProcess m_process;
    quint16 m_port = 0;
};

} // namespace tarn::test
