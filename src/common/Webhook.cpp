#include "common/Webhook.h"

#include "common/Notify.h"
#include "common/NotifyText.h"

#include <QDateTime>
#include <QEventLoop>
#include <QIODevice>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <memory>
#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace tarn::notify {

namespace {

/// How long nothing may come.
constexpr int kTransferMs = 10'000;
/// How long it may take in all: a byte now and then starts the other time anew.
constexpr int kExchangeMs = 12'000;

/// Nobody reads the answer. One that is longer does not come from a webhook.
constexpr qint64 kMaxAnswerBytes = 1'048'576;

/// What is shorter than this and comes from the address is no secret, and may well be a part of a word.
constexpr qsizetype kSecretCharacters = 4;

/// Stands for the address while what is left of it is looked for. No text on one line contains it.
constexpr QChar kAddressMark = u'\n';

QByteArray headerValue(const QString& text)
{
    return oneLine(text).toUtf8();
}

/// @p text as a JSON string, with its quotation marks.
QByteArray quoted(const QString& text)
{
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.sliced(1, array.size() - 2);
}

WebhookPayload ntfyPayload(const Config& config, const Message& message, const QDateTime& now)
{
    const bool isTest = message.kind == u"test";
    const QByteArray priority = message.cleared || isTest ? "default" : "high";
    const QByteArray tag = message.cleared ? "white_check_mark" : (isTest ? "bell" : "warning");
    WebhookPayload payload{"text/plain; charset=utf-8", {}, body(config, message, now).toUtf8()};
    payload.headers.append({"Title", headerValue(title(config, message))});
    payload.headers.append({"Priority", priority});
    payload.headers.append({"Tags", tag});
    if (!config.panelUrl.isEmpty())
        payload.headers.append({"Click", headerValue(config.panelUrl)});
    return payload;
}

/// By hand, since the order of the members is promised and Qt's objects sort them.
QByteArray genericBody(const Config& config, const Message& message, const QDateTime& now)
{
    return "{\"title\":" + quoted(title(config, message))
           + ",\"message\":" + quoted(body(config, message, now)) + ",\"host\":" + quoted(config.host)
           + ",\"kind\":" + quoted(message.kind) + ",\"subject\":" + quoted(message.subject)
           + ",\"status\":" + (message.cleared ? "\"cleared\"" : "\"open\"") + ",\"at\":"
           + QByteArray::number(now.toSecsSinceEpoch()) + ",\"url\":" + quoted(config.panelUrl) + '}';
}

/// A body that can be read once. When a connection ends without an answer, the network layer sends the
/// request up to three more times by itself, and the message may have been taken the first time. It gives
/// that up when the body cannot be had again.
class SingleUseBody : public QIODevice
{
public:
    explicit SingleUseBody(QByteArray content)
        : m_content(std::move(content))
    {
    }
    qint64 size() const override { return m_content.size(); }
    bool reset() override { return false; }

protected:
    qint64 readData(char* data, qint64 most) override
    {
        const QByteArray part = m_content.mid(m_taken, most);
        std::copy(part.begin(), part.end(), data);
        m_taken += part.size();
        return part.size();
    }
    qint64 writeData(const char* /*data*/, qint64 /*size*/) override { return -1; }

private:
    QByteArray m_content;
    qsizetype m_taken = 0;
};

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

QNetworkRequest requestFor(const QUrl& address, const WebhookPayload& payload)
{
    QNetworkRequest request(address.adjusted(QUrl::RemoveUserInfo));
    // At once: when asked for it, the network layer would have to send the body again.
    if (!address.userName().isEmpty())
        request.setRawHeader("Authorization", "Basic " + basicCredentials(address));
    request.setTransferTimeout(kTransferMs);
    // A redirected message has not arrived: after most redirects it would be asked for a page, without the
    // message.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    request.setHeader(QNetworkRequest::ContentTypeHeader, payload.contentType);
    for (const auto& [name, value] : payload.headers)
        request.setRawHeader(name, value);
    return request;
}

/// Why an answer that the network layer has no objection to is not one of success.
QString refusal(int status)
{
    if (status >= 200 && status < 300)
        return {};
    if (status >= 300 && status < 400)
        return u"redirected (HTTP %1) instead of delivered"_s.arg(status);
    return u"answered with HTTP %1 instead of success"_s.arg(status);
}

/// Waits in a local event loop until @p reply is complete or has failed. Why it was not waited for longer, if
/// neither.
QString waitForEnd(QNetworkReply& reply)
{
    QString reason;
    qint64 answeredBytes = 0;
    QEventLoop loop;
    QTimer limit;
    limit.setSingleShot(true);
    QObject::connect(&reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QObject::connect(&reply, &QNetworkReply::readyRead, &loop, [&] {
        answeredBytes += reply.readAll().size();
        if (answeredBytes > kMaxAnswerBytes && reason.isEmpty()) {
            reason = u"the answer has no end"_s;
            reply.abort();
        }
    });
    QObject::connect(&limit, &QTimer::timeout, &loop, [&] {
        if (reply.isFinished())
            return;
        reason = u"the answer takes too long"_s;
        reply.abort();
    });
    limit.start(kExchangeMs);
    loop.exec();
    if (reason.isEmpty() && !reply.isFinished()) // the process is told to end
        reason = u"interrupted"_s;
    return reason;
}

/// What can be recognised of a path, a query or a user, in each way of writing it; longest first.
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
        // Of what may be written both ways, the network layer shows some things decoded and others not.
        const QString pretty = QUrl(u"?"_s + secret).query(QUrl::PrettyDecoded);
        secrets += {secret, oneLine(pretty), oneLine(QUrl::fromPercentEncoding(secret.toUtf8()))};
    }
    secrets.removeIf([](const QString& secret) { return secret.size() < kSecretCharacters; });
    std::sort(secrets.begin(), secrets.end(),
              [](const QString& one, const QString& other) { return one.size() > other.size(); });
    return secrets;
}

} // namespace

WebhookPayload webhookPayload(const Config& config, const Message& message, const QDateTime& now)
{
    if (config.webhookFormat == u"ntfy")
        return ntfyPayload(config, message, now);
    const QString heading = title(config, message);
    const QString text = body(config, message, now);
    QJsonObject object;
    if (config.webhookFormat == u"discord")
        object.insert(u"content"_s, u"**"_s + heading + u"**\n"_s + text);
    if (config.webhookFormat == u"slack")
        object.insert(u"text"_s, u"*"_s + heading + u"*\n"_s + text);
    const QByteArray json = object.isEmpty() ? genericBody(config, message, now)
                                             : QJsonDocument(object).toJson(QJsonDocument::Compact);
    return {"application/json", {}, json};
}

QString postToWebhook(const Config& config, const Message& message)
{
    const QUrl address(config.webhookUrl);
    if (!isUsable(address))
        return u"webhook_url is not an http or https address"_s;
    const WebhookPayload payload = webhookPayload(config, message, QDateTime::currentDateTime());
    SingleUseBody content(payload.body);
    content.open(QIODevice::ReadOnly);

    QNetworkAccessManager manager;
    const std::unique_ptr<QNetworkReply> reply(manager.post(requestFor(address, payload), &content));
    QString cutShort = waitForEnd(*reply);
    if (!cutShort.isEmpty())
        return cutShort;
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    // Some redirects end with an error, since the network layer prepares to follow before it is told not to.
    if (reply->error() == QNetworkReply::NoError || (status >= 300 && status < 400))
        return refusal(status);
    if (reply->error() == QNetworkReply::ContentReSendError)
        return u"the server closed the connection without an answer"_s;
    return excerpt(withoutAddress(reply->errorString(), config.webhookUrl));
}

QString withoutAddress(const QString& text, const QString& address)
{
    const QUrl url(address);
    QString rest = oneLine(text);
    for (const QUrl& form : {url, url.adjusted(QUrl::RemovePassword), url.adjusted(QUrl::RemoveUserInfo)}) {
        const QString encoded = form.toString(QUrl::FullyEncoded);
        for (const QString& whole :
             {form.toString(QUrl::PrettyDecoded), encoded, QUrl::fromPercentEncoding(encoded.toLatin1())}) {
            if (!whole.isEmpty())
                rest.replace(oneLine(whole), QString(kAddressMark), Qt::CaseInsensitive);
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
