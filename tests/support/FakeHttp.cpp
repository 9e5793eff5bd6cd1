#include "support/FakeHttp.h"

#include "support/TestAuthority.h"

#include <QSslConfiguration>
#include <QSslSocket>
#include <QTimer>

#include <algorithm>
#include <array>
#include <memory>

using namespace Qt::Literals::StringLiterals;

namespace tarn::test {

namespace {

constexpr int kTrickleMs = 500;
constexpr qsizetype kFloodBytes = 65'536;

/// What Qt's client sends with every request.
constexpr std::array<QByteArrayView, 6> kUsualHeaders = {
    "host", "content-length", "connection", "accept-encoding", "accept-language", "user-agent"};

bool isUsual(const QByteArray& name)
{
    return std::find(kUsualHeaders.begin(), kUsualHeaders.end(), name.toLower()) != kUsualHeaders.end();
}

/// Takes a whole request off the front of @p buffer; false while there is none.
bool takeRequest(QByteArray& buffer, FakeHttp::Request& request)
{
    const qsizetype end = buffer.indexOf("\r\n\r\n");
    if (end < 0)
        return false;
    QByteArray head = buffer.first(end);
    // A carriage return or line feed of its own stays in the name or value, and shows.
    const QList<QByteArray> lines = head.replace("\r\n", QByteArray(1, '\0')).split('\0');
    const QList<QByteArray> words = lines.first().split(' ');
    FakeHttp::Request found;
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
    request = found;
    return true;
}

} // namespace

QByteArray FakeHttp::Request::header(const QByteArray& name) const
{
    const auto found = std::find_if(headers.begin(), headers.end(), [&name](const auto& entry) {
        return entry.first.compare(name, Qt::CaseInsensitive) == 0;
    });
    return found == headers.end() ? QByteArray() : found->second;
}

QByteArray FakeHttp::Request::text() const
{
    QByteArray text = method + ' ' + target + '\n';
    for (const auto& [name, value] : headers) {
        if (!isUsual(name))
            text += name + ": " + value + '\n';
    }
    return text + '\n' + body;
}

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
    return {"HTTP/1.1 " + status + "\r\n" + headers + "Content-Length: " + QByteArray::number(body.size())
            + "\r\n\r\n" + body};
}

void FakeHttp::reset()
{
    const QList<QSslSocket*> sockets = findChildren<QSslSocket*>();
    for (QSslSocket* socket : sockets) {
        socket->disconnect(this);
        socket->abort();
        delete socket;
    }
    m_reply = reply("200 OK");
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
    Request request;
    while (takeRequest(buffer, request)) {
        m_requests.append(request);
        answer(socket);
    }
}

void FakeHttp::answer(QSslSocket* socket)
{
    socket->write(m_reply.bytes);
    const auto write = [this, socket](qsizetype bytes) {
        m_floodedBytes += socket->write(QByteArray(bytes, 'x'));
    };
    switch (m_reply.then) {
    case Then::Close:
        socket->disconnectFromHost();
        break;
    case Then::StayOpen:
        break;
    case Then::Trickle: {
        auto* timer = new QTimer(socket);
        connect(timer, &QTimer::timeout, this, [write] { write(1); });
        timer->start(kTrickleMs);
        break;
    }
    case Then::Flood:
        connect(socket, &QSslSocket::bytesWritten, this, [write, socket] {
            if (socket->bytesToWrite() < kFloodBytes)
                write(kFloodBytes);
        });
        break;
    }
}

} // namespace tarn::test
