#include "support/HttpRequest.h"

#include <QJsonDocument>

#include <algorithm>
#include <array>

namespace tarn::test {

namespace {

/// What Qt's client sends with every request.
constexpr auto kUsualHeaders = std::to_array<QByteArrayView>(
    {"host", "content-length", "connection", "accept-encoding", "accept-language", "user-agent"});

bool isUsual(const QByteArray& name)
{
    return std::find(kUsualHeaders.begin(), kUsualHeaders.end(), name.toLower()) != kUsualHeaders.end();
}

} // namespace

bool HttpRequest::takeFrom(QByteArray& buffer)
{
    const qsizetype end = buffer.indexOf("\r\n\r\n");
    if (end < 0)
        return false;
    QByteArray head = buffer.first(end);
    // A carriage return or line feed of its own stays in the name or value, and shows.
    const QList<QByteArray> lines = head.replace("\r\n", QByteArray(1, '\0')).split('\0');
    const QList<QByteArray> words = lines.first().split(' ');
    HttpRequest found;
    found.method = words.value(0);
    found.target = words.value(1);
    for (const QByteArray& line : lines.sliced(1)) {
        const qsizetype colon = line.indexOf(": ");
        found.headers.append({line.first(std::max<qsizetype>(colon, 0)), line.mid(colon + 2)});
    }
    const qsizetype length = found.header("Content-Length").toLongLong();
    if (buffer.size() < end + 4 + length)
        return false;
    found.body = buffer.sliced(end + 4, length);
    buffer = buffer.sliced(end + 4 + length);
    *this = found;
    return true;
}

QByteArray HttpRequest::header(const QByteArray& name) const
{
    const auto found = std::find_if(headers.begin(), headers.end(), [&name](const auto& entry) {
        return entry.first.compare(name, Qt::CaseInsensitive) == 0;
    });
    return found == headers.end() ? QByteArray() : found->second;
}

QJsonObject HttpRequest::json() const
{
    return QJsonDocument::fromJson(body).object();
}

QByteArray HttpRequest::text() const
{
    QByteArray text = method + ' ' + (host.isEmpty() ? host : "https://" + host) + target + '\n';
    for (const auto& [name, value] : headers) {
        if (!isUsual(name))
            text += name + ": " + value + '\n';
    }
    return text + '\n' + body;
}

} // namespace tarn::test
