// A request as the servers of the tests receive it.
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QPair>

namespace tarn::test {

struct HttpRequest
{
    using Headers = QList<QPair<QByteArray, QByteArray>>;

    QByteArray method;
    QByteArray host;   ///< that a proxy was asked for, without the port; else empty
    QByteArray target; ///< as it stood in the request line
    Headers headers;   ///< in the order received
    QByteArray body;

    /// Takes a whole request off the front of @p buffer into this one; false while there is none.
    bool takeFrom(QByteArray& buffer);

    /// Empty when there is no such header; names in any case.
    QByteArray header(const QByteArray& name) const;
    /// The object in the body; empty when there is none.
    QJsonObject json() const;
    /// "METHOD target", or "METHOD https://host/target" behind a proxy, the headers, an empty line and the
    /// body, with line feeds: all that a test can want to know. Headers that the client library always sends
    /// (Host, Content-Length, User-Agent, ...) are left out.
    QByteArray text() const;
};

} // namespace tarn::test
