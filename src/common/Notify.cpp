#include "common/Notify.h"

#include "common/NotifyText.h"
#include "common/Settings.h"
#include "common/Smtp.h"
#include "common/Webhook.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QSettings>
#include <QSysInfo>
#include <QUrl>
#include <QVariant>

#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace tarn::notify {

namespace {

int usualPort(const QString& security)
{
    if (security == u"ssl")
        return 465;
    return security == u"starttls" ? 587 : 25;
}

/// The recipients, however the value is written: the settings file gives a list for `a, b` and a text for
/// `"a, b"`.
QStringList recipients(const QVariant& value)
{
    const bool isList = value.typeId() == QMetaType::QStringList;
    QStringList all = isList ? value.toStringList() : value.toString().split(u',');
    for (QString& address : all)
        address = address.trimmed();
    all.removeAll(QString());
    return all;
}

bool sendsMail(const Config& config)
{
    return !config.smtpHost.isEmpty() && !config.mailTo.isEmpty();
}

/// A mistyped word means no encryption too, and must not send the password in clear.
bool isUnprotected(const Config& config)
{
    return config.smtpSecurity != u"ssl" && config.smtpSecurity != u"starttls"
           && config.smtpHost != u"localhost" && config.smtpHost != u"127.0.0.1";
}

QString mail(const Config& config, const Notice& notice)
{
    if (isUnprotected(config))
        return u"smtp_security=none is only allowed for a relay on this machine"_s;
    return Smtp(config).send(notice.title, notice.body);
}

} // namespace

Config load(const QSettings& settings)
{
    const auto text = [&settings](const Setting& setting, const QString& computed = {}) {
        return (computed.isEmpty() ? settingValue(settings, setting)
                                   : settingValue(settings, setting, computed))
            .toString();
    };
    constexpr std::span table(kNotifySettings);
    Config config;
    config.host = text(settingOf(table, "notify/host_name"), QSysInfo::machineHostName());
    config.panelUrl = text(settingOf(table, "web/public_url"));
    if (!config.panelUrl.isEmpty())
        config.panelUrl += u"/#/health"_s;
    config.webhookUrl = text(settingOf(table, "notify/webhook_url"));
    config.webhookFormat = text(settingOf(table, "notify/webhook_format"));
    config.smtpHost = text(settingOf(table, "notify/smtp_host"));
    config.smtpSecurity = text(settingOf(table, "notify/smtp_security"));
    config.smtpPort = portNumber(
        settingValue(settings, settingOf(table, "notify/smtp_port"), usualPort(config.smtpSecurity)));
    config.smtpUser = text(settingOf(table, "notify/smtp_user"));
    config.smtpPassword = text(settingOf(table, "notify/smtp_password"));
    config.mailFrom = text(settingOf(table, "notify/mail_from"), config.smtpUser);
    config.mailTo = recipients(settingValue(settings, settingOf(table, "notify/mail_to")));
    return config;
}

QJsonObject describe(const Config& config)
{
    QJsonObject channels;
    if (!config.webhookUrl.isEmpty())
        channels.insert(u"webhook"_s, u"%1 · %2"_s.arg(config.webhookFormat, QUrl(config.webhookUrl).host()));
    if (sendsMail(config)) {
        channels.insert(u"email"_s, u"to %1 via %2:%3"_s.arg(config.mailTo.join(u", "_s), config.smtpHost,
                                                             QString::number(config.smtpPort)));
    }
    return channels;
}

QJsonArray send(const Config& config, const Message& message)
{
    // Composed once: the webhook's wait can last into the next minute, which the mail must not show.
    const Notice notice = compose(config, message, QDateTime::currentDateTime());
    QJsonArray report;
    const auto note = [&report](const QString& channel, const QString& error) {
        report.append(result(channel, controlsBlanked(error)));
    };
    if (!config.webhookUrl.isEmpty())
        note(u"webhook"_s, postToWebhook(config, message, notice));
    if (sendsMail(config))
        note(u"email"_s, mail(config, notice));

    for (const QJsonValueConstRef entry : std::as_const(report)) {
        if (!entry[u"ok"].toBool()) {
            qWarning("notify: %s failed: %s", qPrintable(entry[u"channel"].toString()),
                     qPrintable(entry[u"error"].toString()));
        }
    }
    return report;
}

} // namespace tarn::notify
