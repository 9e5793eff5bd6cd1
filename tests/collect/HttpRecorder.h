// A small HTTP server on a free loopback port, in the thread of the test: it keeps what it is asked and
// answers as the test says. Stands for Apache's status page, and for what listens at a webhook's address.
#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>

#include <functional>

namespace tarn::test {

class HttpRecorder : public QObject
{
public:
    struct Request
    {
        QByteArray head; ///< request line and headers
        QByteArray body;

        QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
    };

    HttpRecorder()
    {
        if (!m_server.listen(QHostAddress::LocalHost))
            qFatal("no free port");
        connect(&m_server, &QTcpServer::newConnection, this, &HttpRecorder::takeConnections);
    }

    /// What is written for a request; a connection that gets nothing stays open and silent.
    std::function<QByteArray(const Request&)> answer = [](const Request&) { return ok({}); };

    QList<Request> requests;

    /// The connection of the latest request, null once it is closed.
    QPointer<QTcpSocket> latest;

    QString url(const QString& path = QStringLiteral("/")) const
    {
        return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort()) + path;
    }

    /// Takes no more connections: they are refused.
    void stop() { m_server.close(); }

    static QByteArray ok(const QByteArray& body) { return response("200 OK", body); }
    static QByteArray response(const QByteArray& status, const QByteArray& body, const QByteArray& more = {})
    {
        return "HTTP/1.1 " + status + "\r\nContent-Type: text/plain\r\nContent-Length: "
               + QByteArray::number(body.size()) + "\r\n" + more + "\r\n" + body;
    }

private:
    void takeConnections()
    {
        while (QTcpSocket* socket = m_server.nextPendingConnection()) {
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
        }
    }

    void read(QTcpSocket* socket)
    {
        const QByteArray received = socket->peek(socket->bytesAvailable());
        const qsizetype end = received.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        Request request{received.first(end), received.sliced(end + 4)};
        const QByteArray length = "content-length: ";
        const qsizetype at = request.head.toLower().indexOf(length);
        const qsizetype size =
            at < 0 ? 0 : request.head.sliced(at + length.size()).split('\r').first().toInt();
        if (request.body.size() < size)
            return;
        socket->readAll();
        requests.append(request);
        latest = socket;
        socket->write(answer(request));
    }

    QTcpServer m_server;
};

} // namespace tarn::test
