// Tells the administrator that an alert has opened or ended, by webhook and by e-mail, as the settings file
// says. Keeps nothing: what cannot be delivered is reported, logged and lost.
#pragma once

#include <QString>
#include <QStringList>

class QJsonArray;
class QJsonObject;
class QSettings;

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

/// Reads the `notify/...` settings and `web/public_url`.
Config load(const QSettings& settings);

/// What is configured, for the panel: {"webhook": "ntfy · ntfy.example.org",
/// "email": "to a@example.org, b@example.org via mail.example.org:465"}, without what is not. The address of
/// a webhook, which can contain a secret, is not shown.
QJsonObject describe(const Config& config);

/// Delivers @p message over every configured channel, one after the other, and returns an entry for each:
/// {"channel": "webhook", "ok": false, "error": "..."}, {"channel": "email", "ok": true}. Failures are logged
/// as well. Returns after some 10 seconds a step at worst. The waits run a local event loop, so that timers
/// are served meanwhile: never to be called with a transaction open.
QJsonArray send(const Config& config, const Message& message);

} // namespace tarn::notify
