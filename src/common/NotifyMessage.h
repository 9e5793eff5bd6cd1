// The records of the notification unit: where messages go, and what one says. Values only.
#pragma once

#include <QString>
#include <QStringList>

namespace tarn::notify {

/// Where messages go, and how this server is called in them.
struct Config
{
    QString host;          ///< name of this server, as shown
    QString panelUrl;      ///< the panel's health page; empty: no public address
    QString webhookUrl;    ///< empty: no webhook
    QString webhookFormat; ///< "ntfy", "discord", "slack"; anything else: generic JSON
    QString smtpHost;      ///< empty: no e-mail
    qint32 smtpPort = 465;
    QString smtpSecurity; ///< "ssl" or "starttls"; anything else is unencrypted, and for this machine only
    QString smtpUser;     ///< empty: no sign-in
    QString smtpPassword;
    QString mailFrom;   ///< sender, in the envelope and in the mail
    QStringList mailTo; ///< empty: no e-mail
};

/// An alert, its end, or a test of the channels.
struct Message
{
    QString kind;    ///< the check that raised it ("memory", "disk", ...), or "test"
    QString subject; ///< what it is about: a mount point, a unit, an account
    QString text;    ///< a sentence without its full stop
    bool cleared = false;
    qint64 openSeconds = 0; ///< of a cleared alert: how long it was open
};

} // namespace tarn::notify
