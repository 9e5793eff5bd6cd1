#include "common/Webhook.h"

#include "common/Http.h"
#include "common/NotifyMessage.h"
#include "common/NotifyText.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QUrl>

#include <algorithm>
#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace tarn::notify {

namespace {

constexpr int kSilenceMs = 10'000;
constexpr int kTotalMs = 12'000;
/// Nobody reads the answer. A longer one does not come from a webhook.
constexpr qint64 kBodyBytes = 1'048'576;
constexpr http::Limits kLimits{.silenceMs = kSilenceMs, .totalMs = kTotalMs, .bodyBytes = kBodyBytes};

/// A shorter piece of the address is no secret, and may be a part of an ordinary word.
constexpr qsizetype kSecretCharacters = 4;

/// Stands for the address while pieces of it are looked for. Nothing on one line contains a line feed.
constexpr QChar kAddressMark = u'\n';

QByteArray headerValue(const QString& text)
{
    return controlsBlanked(text).toUtf8();
}

/// @p text as a JSON string, with its quotation marks.
QByteArray quoted(const QString& text)
{
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.sliced(1, array.size() - 2);
}

WebhookPayload ntfyPayload(const Config& config, const Message& message, const Notice& notice)
{
    const bool isTest = message.kind == u"test";
    const QByteArray priority = message.cleared || isTest ? "default" : "high";
    const QByteArray tag = message.cleared ? "white_check_mark" : (isTest ? "bell" : "warning");
    WebhookPayload payload{"text/plain; charset=utf-8", {}, notice.body.toUtf8()};
    payload.headers.append({"Title", headerValue(notice.title)});
    payload.headers.append({"Priority", priority});
    payload.headers.append({"Tags", tag});
    if (!config.panelUrl.isEmpty())
        payload.headers.append({"Click", headerValue(config.panelUrl)});
    return payload;
}

/// Written by hand: the order of the members is fixed, and Qt's objects sort them.
QByteArray genericBody(const Config& config, const Message& message, const Notice& notice)
{
    return "{\"title\":" + quoted(notice.title) + ",\"message\":" + quoted(notice.body)
           + ",\"host\":" + quoted(config.host) + ",\"kind\":" + quoted(message.kind) + ",\"subject\":"
           + quoted(message.subject) + ",\"status\":" + (message.cleared ? "\"cleared\"" : "\"open\"")
           + ",\"at\":" + QByteArray::number(notice.at.toSecsSinceEpoch())
           + ",\"url\":" + quoted(config.panelUrl) + '}';
}

bool isUsable(const QUrl& address)
{
    return address.isValid() && !address.host().isEmpty()
           && (address.scheme() == u"http" || address.scheme() == u"https");
}

/// RFC 7617.
QByteArray basicCredentials(const QUrl& address)
{
    const QString user = address.userName(QUrl::FullyDecoded) + u':' + address.password(QUrl::FullyDecoded);
    return user.toUtf8().toBase64();
}

http::Request requestFor(const QUrl& address, const WebhookPayload& payload)
{
    http::Request request{.method = http::Method::Post, .url = address, .body = payload.body};
    request.headers.append({"Content-Type", payload.contentType});
    request.headers += payload.headers;
    // Sent with the first request: after a 401 the body would have to be sent again.
    if (!address.userName().isEmpty())
        request.headers.append({"Authorization", "Basic " + basicCredentials(address)});
    return request;
}

/// Why @p answer does not say that the message has arrived.
QString problemOf(const http::Answer& answer)
{
    const bool taken = answer.failure == http::Failure::None;
    if (taken && answer.status >= 300 && answer.status < 400)
        return u"redirected (HTTP %1) instead of delivered"_s.arg(answer.status);
    return http::problem(answer);
}

/// The pieces of path, query and user that can be recognised, in each way of writing them, longest first.
QStringList secretsOf(const QUrl& address)
{
    QStringList encoded = {
        address.userName(QUrl::FullyEncoded), address.password(QUrl::FullyEncoded),
        address.path(QUrl::FullyEncoded),     address.query(QUrl::FullyEncoded),
        address.fragment(QUrl::FullyEncoded), QString::fromLatin1(basicCredentials(address))};
    static const QRegularExpression separators(u"[/&=]"_s);
    encoded += (encoded.at(2) + u'/' + encoded.at(3)).split(separators);
    QStringList secrets;
    for (const QString& secret : std::as_const(encoded)) {
        // Some characters may be written both ways. The network layer decodes some of those, not all.
        const QString pretty = QUrl(u"?"_s + secret).query(QUrl::PrettyDecoded);
        secrets +=
            {secret, controlsBlanked(pretty), controlsBlanked(QUrl::fromPercentEncoding(secret.toUtf8()))};
    }
    secrets.removeIf([](const QString& secret) { return secret.size() < kSecretCharacters; });
    std::sort(secrets.begin(), secrets.end(),
              [](const QString& one, const QString& other) { return one.size() > other.size(); });
    return secrets;
}

} // namespace

WebhookPayload webhookPayload(const Config& config, const Message& message, const Notice& notice)
{
    if (config.webhookFormat == u"ntfy")
        return ntfyPayload(config, message, notice);
    QJsonObject object;
    if (config.webhookFormat == u"discord")
        object.insert(u"content"_s, u"**"_s + notice.title + u"**\n"_s + notice.body);
    if (config.webhookFormat == u"slack")
        object.insert(u"text"_s, u"*"_s + notice.title + u"*\n"_s + notice.body);
    const QByteArray json = object.isEmpty() ? genericBody(config, message, notice)
                                             : QJsonDocument(object).toJson(QJsonDocument::Compact);
    return {"application/json", {}, json};
}

QString postToWebhook(const Config& config, const Message& message, const Notice& notice)
{
    const QUrl address(config.webhookUrl);
    if (!isUsable(address))
        return u"webhook_url is not an http or https address"_s;
    const WebhookPayload payload = webhookPayload(config, message, notice);
    const QString problem = problemOf(http::exchange(requestFor(address, payload), kLimits));
    return excerpt(withoutAddress(problem, config.webhookUrl));
}

QString withoutAddress(const QString& text, const QString& address)
{
    const QUrl url(address);
    QString rest = controlsBlanked(text);
    for (const QUrl& form : {url, url.adjusted(QUrl::RemovePassword), url.adjusted(QUrl::RemoveUserInfo)}) {
        const QString encoded = form.toString(QUrl::FullyEncoded);
        for (const QString& whole :
             {form.toString(QUrl::PrettyDecoded), encoded, QUrl::fromPercentEncoding(encoded.toLatin1())}) {
            if (!whole.isEmpty())
                rest.replace(controlsBlanked(whole), QString(kAddressMark), Qt::CaseInsensitive);
        }
    }
    // A server can repeat what it was asked for in its own words.
    const QStringList secrets = secretsOf(url);
    for (const QString& secret : secrets)
        rest.replace(secret, u"***"_s, Qt::CaseInsensitive);
    const QString shown =
        url.toString(QUrl::RemoveUserInfo | QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment);
    return rest.replace(kAddressMark, shown);
}

} // namespace tarn::notify
