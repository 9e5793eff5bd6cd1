#include "support/FakeHttp.h"

#include "support/TestAuthority.h"

#include <QPointer>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTimer>

#include <memory>

using namespace Qt::Literals::StringLiterals;

namespace tarn::test {

namespace {

constexpr int kLateMs = 20;
constexpr int kTrickleMs = 500;
constexpr qsizetype kFloodBytes = 65'536;

} // namespace

FakeHttp::~FakeHttp()
{
    reset();
}

bool FakeHttp::start(const TestAuthority& authority)
{
    m_authority = &authority;
    return start();
}

QString FakeHttp::url(const QString& path) const
{
    return u"%1://127.0.0.1:%2%3"_s.arg(m_authority ? u"https"_s : u"http"_s, QString::number(serverPort()),
                                        path);
}

FakeHttp::Reply FakeHttp::reply(const QByteArray& status, const QByteArray& body, const QByteArray& headers)
{
    return {.bytes = "HTTP/1.1 " + status + "\r\n" + headers
                     + "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body};
}

void FakeHttp::reset()
{
    const QList<QSslSocket*> sockets = findChildren<QSslSocket*>();
    for (QSslSocket* socket : sockets) {
        socket->disconnect(this);
        socket->abort();
        delete socket;
    }
    m_answerer = nullptr;
    m_requests.clear();
    m_connections = 0;
    m_floodedBytes = 0;
}

void FakeHttp::incomingConnection(qintptr descriptor)
{
    ++m_connections;
    auto* socket = new QSslSocket(this);
    socket->setSocketDescriptor(descriptor);
    const auto buffer = std::make_shared<QByteArray>();
    connect(socket, &QSslSocket::readyRead, this, [this, socket, buffer] { read(socket, *buffer); });
    connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
    if (m_authority) {
        QSslConfiguration configuration = socket->sslConfiguration();
        // HTTP/2 would be had by who wants it, and is not understood.
        configuration.setAllowedNextProtocols({"h2", "http/1.1"});
        socket->setSslConfiguration(configuration);
        socket->setLocalCertificate(m_authority->certificate());
        socket->setPrivateKey(m_authority->key());
        socket->startServerEncryption();
    }
}

void FakeHttp::read(QSslSocket* socket, QByteArray& buffer)
{
    buffer += socket->readAll();
    // What makes the reply may run the event loop, which deletes a socket that is closed.
    const QPointer<QSslSocket> open(socket);
    Request request;
    while (open && request.takeFrom(buffer)) {
        m_requests.append(request);
        const Reply made = m_answerer ? m_answerer(request) : reply("200 OK");
        if (open)
            respond(socket, made);
    }
}

void FakeHttp::respond(QSslSocket* socket, const Reply& reply)
{
    socket->write(reply.bytes);
    const auto write = [this, socket](const QByteArray& bytes) { m_floodedBytes += socket->write(bytes); };
    switch (reply.then) {
    case Then::Close:
        socket->disconnectFromHost();
        break;
    case Then::CloseLate:
        QTimer::singleShot(kLateMs, socket, &QSslSocket::disconnectFromHost);
        break;
    case Then::StayOpen:
        break;
    case Then::Trickle: {
        auto* timer = new QTimer(socket);
        connect(timer, &QTimer::timeout, this, [write] { write("x"); });
        timer->start(kTrickleMs);
        break;
    }
    case Then::Flood:
        connect(socket, &QSslSocket::bytesWritten, this,
                [write, socket, flood = reply.piece.repeated(kFloodBytes / reply.piece.size())] {
                    if (socket->bytesToWrite() < kFloodBytes)
                        write(flood);
                });
        break;
    }
}

} // namespace tarn::test
