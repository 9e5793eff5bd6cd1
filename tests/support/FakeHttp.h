// A web server on 127.0.0.1 that records what it is asked and gives one answer, byte for byte as the test
// wants it. It runs on the thread that made it, whenever the event loop does: the client is another process,
// another thread, or waits in an event loop of its own.
#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QTcpServer>

class QSslSocket;

namespace tarn::test {

class TestAuthority;

class FakeHttp : public QTcpServer
{
public:
    struct Request
    {
        QByteArray method;
        QByteArray target;
        QList<QPair<QByteArray, QByteArray>> headers; ///< in the order received
        QByteArray body;

        /// Empty when there is no such header; names in any case.
        QByteArray header(const QByteArray& name) const;
        /// "METHOD target", the headers, an empty line and the body, with line feeds: all that a test can
        /// want to know. Headers that the client library always sends (Host, Content-Length, User-Agent, ...)
        /// are left out.
        QByteArray text() const;
    };

    enum class Then : quint8 {
        Close,
        StayOpen, ///< silent
        Trickle,  ///< a byte of the body now and then, without end
        Flood,    ///< the body goes on without end
    };

    struct Reply
    {
        QByteArray bytes; ///< from the status line on
        Then then = Then::StayOpen;
    };

    ~FakeHttp() override;

    bool start() { return listen(QHostAddress::LocalHost); }
    /// Speaks TLS, with the certificate of @p authority.
    bool start(const TestAuthority& authority);

    /// Address of @p path, which begins with a slash.
    QString url(const QString& path) const;

    /// "HTTP/1.1 status reason", @p headers, a length and @p body.
    static Reply reply(const QByteArray& status, const QByteArray& body = {}, const QByteArray& headers = {});
    /// What answers from now on; "200 OK" until it is set.
    void setReply(const Reply& reply) { m_reply = reply; }

    const QList<Request>& requests() const { return m_requests; }
    int connections() const { return m_connections; }
    /// Bytes that an endless answer has had taken off it.
    qint64 floodedBytes() const { return m_floodedBytes; }
    /// Forgets the requests and the reply, and closes every connection.
    void reset();

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void read(QSslSocket* socket, QByteArray& buffer);
    void answer(QSslSocket* socket);

    const TestAuthority* m_authority = nullptr;
    Reply m_reply = reply("200 OK");
    QList<Request> m_requests;
    int m_connections = 0;
    qint64 m_floodedBytes = 0;
};

} // namespace tarn::test
