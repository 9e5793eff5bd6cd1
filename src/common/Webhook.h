// The webhook channel: what is posted in each of the four formats, and the posting. Private to the
// notification unit.
#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

namespace tarn::notify {

struct Config;
struct Message;
struct Notice;

/// A message as a webhook gets it.
struct WebhookPayload
{
    QByteArray contentType;
    QList<QPair<QByteArray, QByteArray>> headers; ///< beside the content type; values in UTF-8
    QByteArray body;
};

/// @p message, composed as @p notice, in the form of `config.webhookFormat`:
///
///     ntfy     text, title and priority in headers   https://docs.ntfy.sh/publish/
///     discord  {"content": "**title**\nbody"}        https://discord.com/developers/docs/resources/webhook
///     slack    {"text": "*title*\nbody"}             https://api.slack.com/messaging/webhooks
///     other    {"title": ..., "message": ..., "host": ..., "kind": ..., "subject": ..., "status": "open",
///              "at": 1718445000, "url": ...}, in this order
WebhookPayload webhookPayload(const Config& config, const Message& message, const Notice& notice);

/// Posts @p message, composed as @p notice, to `config.webhookUrl` and waits for the answer in a local event
/// loop: for 10 seconds of silence and 12 in all at most. Empty when the answer has a status of 200 to 299.
/// Otherwise the reason in 300 characters at most, without any part of the address that can be secret.
/// Redirects are not followed, a second attempt is not made, and nothing is logged.
QString postToWebhook(const Config& config, const Message& message, const Notice& notice);

/// @p text with what it contains of @p address reduced to scheme, host and port: a webhook's path, query and
/// user part are its password. Percent-encoded or not.
QString withoutAddress(const QString& text, const QString& address);

} // namespace tarn::notify
