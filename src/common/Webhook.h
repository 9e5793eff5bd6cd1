// The webhook channel: what is posted in each of the four formats, and the posting. Private to the
// notification unit.
#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

class QDateTime;

namespace tarn::notify {

struct Config;
struct Message;

/// A message as a webhook gets it.
struct WebhookPayload
{
    QByteArray contentType;
    QList<QPair<QByteArray, QByteArray>> headers; ///< beside the content type; values in UTF-8
    QByteArray body;
};

/// @p message at the local time @p now, in the form of `config.webhookFormat`:
///
///     ntfy     text, title and priority in headers   https://docs.ntfy.sh/publish/
///     discord  {"content": "**title**\nbody"}        https://discord.com/developers/docs/resources/webhook
///     slack    {"text": "*title*\nbody"}             https://api.slack.com/messaging/webhooks
///     other    {"title": ..., "message": ..., "host": ..., "kind": ..., "subject": ..., "status": "open",
///              "at": 1718445000, "url": ...}, in this order
WebhookPayload webhookPayload(const Config& config, const Message& message, const QDateTime& now);

/// Posts @p message and waits for the answer in a local event loop. Empty when the webhook has taken it,
/// which only an answer of 200 to 299 says (a redirect is not followed); otherwise the reason, without any
/// part of the address that can be secret.
QString postToWebhook(const Config& config, const Message& message);

/// @p text with what it contains of @p address reduced to scheme, host and port: a webhook's path, query and
/// user part are its password. Percent-encoded or not.
QString withoutAddress(const QString& text, const QString& address);

} // namespace tarn::notify
