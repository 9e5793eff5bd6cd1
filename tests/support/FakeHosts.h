// Public HTTPS hosts, answered by the test under their real names and with no hook in the product: a proxy
// that ends the encryption itself, with certificates of an authority made for this run, and that answers from
// a script. It runs on the test's own thread, whenever the event loop does.
#pragma once

#include "support/HttpRequest.h"
#include "support/TestAuthority.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QStringList>
#include <QTcpServer>

#include <functional>

class QSslSocket;

namespace tarn::test {

class FakeHosts : public QTcpServer
{
public:
    using Headers = HttpRequest::Headers;
    using Request = HttpRequest;

    enum class Delivery : quint8 {
        Whole,
        Chunked,     ///< in chunks of 1000 bytes, without a length
        CutAtOnce,   ///< the connection ends before anything is said
        CutInBody,   ///< it ends in the middle of the body
        Stalled,     ///< the connection stays open, and nothing is said
        StalledBody, ///< the connection stays open, and nothing comes after half of the body
    };

    struct Reply
    {
        int status = 200;
        QByteArray body = {};
        Headers headers = {};
        Delivery delivery = Delivery::Whole;
    };

    FakeHosts();
    ~FakeHosts() override;

    /// Makes the certificates of @p hosts and starts to listen; anything that is asked of another host is a
    /// complaint. False, with a warning that says why, when that fails.
    bool start(const QStringList& hosts);

    /// Sends this process's requests here, and has it trust this authority alone; until @ref release.
    void capture() const;
    static void release();
    /// The same for a process whose settings are at hand: what capture() needs to know.
    static void capture(quint16 port, const QString& authorityFile);

    /// The next request is to be exactly @p request, in the form of Request::text(), and is answered by @p
    /// reply.
    void expect(const QByteArray& request, const Reply& reply);
    /// The same for every exchange of the file @p path. Requests and replies stand there as they are, "@"s
    /// around the names of @p values:
    ///
    ///     what comes before the first request is a remark
    ///     => POST https://www.example.org/path
    ///     Content-Type: application/json
    ///
    ///     {"day":"@today@"}
    ///     <= 200
    ///     {"ok":true}
    ///
    /// A line feed at the end of a body is not a part of it. False, with a warning, when there is none.
    bool expectFile(const QString& path, const QMap<QByteArray, QByteArray>& values = {});
    /// What answers a request that comes when nothing is expected any more; without one it is a complaint.
    void answer(const std::function<Reply(const Request&)>& answerer) { m_answerer = answerer; }

    /// Every request since the start or the last reset().
    const QList<Request>& requests() const { return m_requests; }
    /// What was asked and not expected, and what was expected and not asked. To be compared with an empty
    /// list at the end of each test.
    QStringList complaints() const;
    /// Forgets requests, expectations and complaints, and closes every connection.
    void reset();

    /// For the variable https_proxy of a child process.
    QString proxyUrl() const;
    /// Who vouches for the hosts.
    const TestAuthority& authority() const { return m_authority; }

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    struct Connection;

    struct Exchange
    {
        QByteArray request;
        Reply reply;
    };

    void read(QSslSocket* socket, Connection& connection);
    void tunnel(QSslSocket* socket, Connection& connection);
    void respond(QSslSocket* socket, const Request& request);
    Reply replyTo(const Request& request);
    void complain(const QString& text);

    QStringList m_hosts;
    TestAuthority m_authority;
    QList<Exchange> m_expected;
    QList<Request> m_requests;
    QStringList m_complaints;
    std::function<Reply(const Request&)> m_answerer;
};

} // namespace tarn::test
