#include "support/FakeHosts.h"

#include <QFile>
#include <QNetworkProxy>
#include <QSslSocket>

#include <algorithm>
#include <memory>

using namespace Qt::Literals::StringLiterals;

namespace tarn::test {

namespace {

constexpr qsizetype kChunkBytes = 1'000;

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray inChunks(const QByteArray& body)
{
    QByteArray chunks;
    for (qsizetype start = 0; start < body.size(); start += kChunkBytes) {
        const QByteArray chunk = body.mid(start, kChunkBytes);
        chunks += QByteArray::number(chunk.size(), 16) + "\r\n" + chunk + "\r\n";
    }
    return chunks + "0\r\n\r\n";
}

} // namespace

/// A client: what it has sent and has not been answered yet, and whom it believes to be talking to.
struct FakeHosts::Connection
{
    QByteArray buffer;
    QByteArray host; ///< empty until it has asked for a tunnel
};

FakeHosts::FakeHosts() = default;

FakeHosts::~FakeHosts()
{
    reset();
}

bool FakeHosts::start(const QStringList& hosts)
{
    m_hosts = hosts;
    return m_authority.make(hosts) && listen(QHostAddress::LocalHost);
}

QString FakeHosts::proxyUrl() const
{
    return u"http://127.0.0.1:%1"_s.arg(serverPort());
}

void FakeHosts::capture() const
{
    capture(serverPort(), m_authority.file());
}

void FakeHosts::capture(quint16 port, const QString& authorityFile)
{
    QNetworkProxy::setApplicationProxy({QNetworkProxy::HttpProxy, u"127.0.0.1"_s, port});
    TestAuthority::trust(authorityFile);
}

void FakeHosts::release()
{
    QNetworkProxy::setApplicationProxy(QNetworkProxy(QNetworkProxy::DefaultProxy));
    TestAuthority::trustSystem();
}

void FakeHosts::expect(const QByteArray& request, const Reply& reply)
{
    m_expected.append({request, reply});
}

bool FakeHosts::expectFile(const QString& path, const QMap<QByteArray, QByteArray>& values)
{
    QByteArray script = '\n' + contents(path);
    for (auto it = values.cbegin(); it != values.cend(); ++it)
        script.replace('@' + it.key() + '@', it.value());
    qsizetype start = script.indexOf("\n=> ");
    if (start < 0)
        qWarning("no exchanges in %s", qPrintable(path));
    const bool any = start >= 0;
    while (start >= 0) {
        const qsizetype answer = script.indexOf("\n<= ", start);
        if (answer < 0) {
            qWarning("no answer to the last request in %s", qPrintable(path));
            return false;
        }
        const qsizetype next = script.indexOf("\n=> ", answer);
        QByteArray request = script.first(answer).sliced(start + 4);
        if (!request.contains("\n\n")) // without a body
            request += "\n\n";
        const QByteArray reply = script.first(next < 0 ? script.size() : next).sliced(answer + 4);
        const qsizetype body = reply.indexOf('\n') + 1;
        expect(request, {.status = reply.first(body > 0 ? body - 1 : reply.size()).toInt(),
                         .body = body > 0 ? reply.sliced(body).trimmed() : QByteArray()});
        start = next;
    }
    return any;
}

QStringList FakeHosts::complaints() const
{
    QStringList all = m_complaints;
    for (const Exchange& exchange : m_expected)
        all.append(u"expected and never asked: "_s + QString::fromUtf8(exchange.request));
    return all;
}

void FakeHosts::reset()
{
    const QList<QSslSocket*> sockets = findChildren<QSslSocket*>();
    for (QSslSocket* socket : sockets) {
        socket->disconnect(this);
        socket->abort();
        delete socket;
    }
    m_expected.clear();
    m_requests.clear();
    m_complaints.clear();
    m_answerer = nullptr;
}

void FakeHosts::complain(const QString& text)
{
    m_complaints.append(text);
}

void FakeHosts::incomingConnection(qintptr descriptor)
{
    auto* socket = new QSslSocket(this);
    // The proxy that capture() sets is for clients.
    socket->setProxy(QNetworkProxy::NoProxy);
    socket->setSocketDescriptor(descriptor);
    const auto connection = std::make_shared<Connection>();
    connect(socket, &QSslSocket::readyRead, this, [this, socket, connection] { read(socket, *connection); });
    connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
}

void FakeHosts::read(QSslSocket* socket, Connection& connection)
{
    connection.buffer += socket->readAll();
    if (connection.host.isEmpty()) {
        tunnel(socket, connection);
        return;
    }
    Request request;
    while (request.takeFrom(connection.buffer)) {
        request.host = connection.host;
        m_requests.append(request);
        respond(socket, request);
    }
}

void FakeHosts::tunnel(QSslSocket* socket, Connection& connection)
{
    Request request;
    if (!request.takeFrom(connection.buffer))
        return;
    const QByteArray host = request.target.first(std::max<qsizetype>(request.target.indexOf(':'), 0));
    if (request.method != "CONNECT" || !request.target.endsWith(":443")
        || !m_hosts.contains(QString::fromLatin1(host))) {
        complain(u"the proxy was asked for: "_s + QString::fromUtf8(request.method + ' ' + request.target));
        socket->write("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        socket->disconnectFromHost();
        return;
    }
    connection.host = host;
    socket->write("HTTP/1.1 200 Connection established\r\n\r\n");
    socket->flush();
    socket->setLocalCertificate(m_authority.certificate());
    socket->setPrivateKey(m_authority.key());
    socket->startServerEncryption();
}

FakeHosts::Reply FakeHosts::replyTo(const Request& request)
{
    if (request.header("Host") != request.host)
        complain(u"the header Host says: "_s + QString::fromUtf8(request.header("Host")));
    if (m_expected.isEmpty()) {
        if (m_answerer)
            return m_answerer(request);
        complain(u"asked and not expected: "_s + QString::fromUtf8(request.text()));
        return {.status = 501, .body = "not expected"};
    }
    const Exchange exchange = m_expected.takeFirst();
    if (request.text() != exchange.request) {
        complain(u"asked:\n%1\nexpected:\n%2"_s.arg(QString::fromUtf8(request.text()),
                                                    QString::fromUtf8(exchange.request)));
    }
    return exchange.reply;
}

void FakeHosts::respond(QSslSocket* socket, const Request& request)
{
    const Reply reply = replyTo(request);
    if (reply.delivery == Delivery::Stalled)
        return;
    if (reply.delivery == Delivery::CutAtOnce) {
        socket->abort();
        return;
    }
    const bool chunked = reply.delivery == Delivery::Chunked;
    QByteArray head = "HTTP/1.1 " + QByteArray::number(reply.status) + " Scripted\r\n";
    for (const auto& [name, value] : reply.headers)
        head += name + ": " + value + "\r\n";
    head += chunked ? QByteArray("Transfer-Encoding: chunked")
                    : "Content-Length: " + QByteArray::number(reply.body.size());
    socket->write(head + "\r\n\r\n");
    if (reply.delivery == Delivery::CutInBody || reply.delivery == Delivery::StalledBody) {
        socket->write(reply.body.first(reply.body.size() / 2));
    } else {
        socket->write(chunked ? inChunks(reply.body) : reply.body);
    }
    if (reply.delivery == Delivery::CutInBody)
        socket->disconnectFromHost();
}

} // namespace tarn::test
