// A web server on 127.0.0.1 that records what it is asked and answers byte for byte as the test wants it. It
// runs on the thread that made it, whenever the event loop does: the client is another process, another
// thread, or waits in an event loop of its own.
#pragma once

#include "support/HttpRequest.h"

#include <QByteArray>
#include <QList>
#include <QTcpServer>

#include <functional>
#include <utility>

class QSslSocket;

namespace tarn::test {

class TestAuthority;

class FakeHttp : public QTcpServer
{
public:
    using Request = HttpRequest;

    enum class Then : quint8 {
        Close,
        CloseLate, ///< when the client has most likely taken what there is
        StayOpen,  ///< silent
        Trickle,   ///< a byte now and then, without end
        Flood,     ///< goes on without end
    };

    struct Reply
    {
        QByteArray bytes; ///< from the status line on
        Then then = Then::StayOpen;
        QByteArray piece = "x"; ///< what a flood repeats
    };

    ~FakeHttp() override;

    /// Until close(), after which connections are refused.
    bool start() { return listen(QHostAddress::LocalHost); }
    /// Speaks TLS, with the certificate of @p authority.
    bool start(const TestAuthority& authority);

    /// Address of @p path, which begins with a slash.
    QString url(const QString& path) const;

    /// "HTTP/1.1 status reason", @p headers, a length and @p body.
    static Reply reply(const QByteArray& status, const QByteArray& body = {}, const QByteArray& headers = {});
    /// What answers from now on; "200 OK" until it is set.
    void setReply(const Reply& reply)
    {
        answer([reply](const Request&) { return reply; });
    }
    /// The same, made for each request. It may run the event loop.
    void answer(const std::function<Reply(const Request&)>& answerer) { m_answerer = answerer; }

    const QList<Request>& requests() const { return m_requests; }
    /// The requests since the last call.
    QList<Request> takeRequests() { return std::exchange(m_requests, {}); }
    int connections() const { return m_connections; }
    /// Bytes that an endless answer has had taken off it.
    qint64 floodedBytes() const { return m_floodedBytes; }
    /// Forgets the requests and the reply, and closes every connection.
    void reset();

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void read(QSslSocket* socket, QByteArray& buffer);
    void respond(QSslSocket* socket, const Reply& reply);

    const TestAuthority* m_authority = nullptr;
    std::function<Reply(const Request&)> m_answerer;
    QList<Request> m_requests;
    int m_connections = 0;
    qint64 m_floodedBytes = 0;
};

} // namespace tarn::test
