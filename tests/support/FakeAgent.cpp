#include "support/FakeAgent.h"

#include <QJsonDocument>

#include <algorithm>
#include <chrono>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace tarn::test {

namespace {

QByteArray lineOf(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

/// False when the client has hung up.
bool send(int client, QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const ssize_t written =
            ::send(client, bytes.data(), static_cast<std::size_t>(bytes.size()), MSG_NOSIGNAL);
        if (written <= 0)
            return false;
        bytes = bytes.sliced(written);
    }
    return true;
}

} // namespace

AgentAnswer AgentAnswer::good(const QJsonObject& object)
{
    AgentAnswer answer;
    answer.bytes = lineOf(object);
    return answer;
}

AgentAnswer AgentAnswer::failed(const QString& error)
{
    return good({
        {u"ok"_s,    false},
        {u"error"_s, error}
    });
}

AgentAnswer AgentAnswer::held(const QJsonObject& object)
{
    AgentAnswer answer = good(object);
    answer.waitsForGo = true;
    return answer;
}

AgentAnswer AgentAnswer::slow(const QJsonObject& object, int delayMs)
{
    AgentAnswer answer = good(object);
    answer.delayMs = delayMs;
    return answer;
}

AgentAnswer AgentAnswer::trickling(const QJsonObject& object, int pieces, int betweenMs)
{
    AgentAnswer answer = good(object);
    answer.pieces = pieces;
    answer.betweenMs = betweenMs;
    return answer;
}

AgentAnswer AgentAnswer::silent()
{
    return {};
}

AgentAnswer AgentAnswer::halfLine(const QJsonObject& object)
{
    AgentAnswer answer = good(object);
    answer.bytes.chop(1);
    return answer;
}

AgentAnswer AgentAnswer::twoLines(const QJsonObject& first, const QJsonObject& second)
{
    AgentAnswer answer = good(first);
    answer.bytes += lineOf(second);
    return answer;
}

AgentAnswer AgentAnswer::garbage()
{
    AgentAnswer answer;
    answer.bytes = "HTTP/1.1 400 Bad Request\r\n";
    return answer;
}

AgentAnswer AgentAnswer::closedAtOnce()
{
    AgentAnswer answer;
    answer.closes = true;
    return answer;
}

AgentAnswer AgentAnswer::hugeLine(qsizetype size)
{
    const QByteArray start = "{\"ok\":true,\"padding\":\"";
    const QByteArray end = "\"}";
    AgentAnswer answer;
    answer.bytes = start + QByteArray(size - start.size() - end.size(), 'x') + end + '\n';
    return answer;
}

AgentAnswer AgentAnswer::endlessLine()
{
    AgentAnswer answer;
    answer.bytes = QByteArray(65'536, ' ');
    answer.endless = true;
    return answer;
}

FakeAgent::~FakeAgent()
{
    stop();
}

QString FakeAgent::socketPath() const
{
    return m_folder.filePath(u"agent.sock"_s);
}

bool FakeAgent::start()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray path = socketPath().toLocal8Bit();
    if (path.size() >= static_cast<qsizetype>(sizeof(address.sun_path)))
        return false;
    std::copy(path.cbegin(), path.cend(), address.sun_path);

    m_stopping = false;
    m_go = false;
    m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0
        || listen(m_listener, SOMAXCONN) != 0) {
        close(m_listener);
        return false;
    }
    m_acceptor = std::thread([this] { acceptClients(); });
    return true;
}

void FakeAgent::stop()
{
    if (!m_acceptor.joinable())
        return;
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
        for (const int client : std::as_const(m_clients))
            shutdown(client, SHUT_RDWR);
    }
    m_changed.notify_all();
    shutdown(m_listener, SHUT_RDWR); // wakes the acceptor
    m_acceptor.join();
    for (std::thread& server : m_servers) // nobody adds to them any more
        server.join();
    m_servers.clear();
    close(m_listener);
    unlink(socketPath().toLocal8Bit().constData());
}

void FakeAgent::setAnswer(const QString& method, const AgentAnswer& answer)
{
    const std::lock_guard lock(m_mutex);
    m_answers[method] = answer;
}

void FakeAgent::go()
{
    {
        const std::lock_guard lock(m_mutex);
        m_go = true;
    }
    m_changed.notify_all();
}

QList<QByteArray> FakeAgent::requests() const
{
    const std::lock_guard lock(m_mutex);
    return m_requests;
}

QList<QJsonObject> FakeAgent::calls(const QString& method) const
{
    QList<QJsonObject> arguments;
    const QList<QByteArray> lines = requests();
    for (const QByteArray& line : lines) {
        const QJsonObject request = QJsonDocument::fromJson(line).object();
        if (request[u"cmd"_s].toString() == method)
            arguments.append(request[u"args"_s].toObject());
    }
    return arguments;
}

int FakeAgent::connections() const
{
    const std::lock_guard lock(m_mutex);
    return m_connections;
}

int FakeAgent::openConnections() const
{
    const std::lock_guard lock(m_mutex);
    return static_cast<int>(m_clients.size());
}

void FakeAgent::acceptClients()
{
    for (;;) {
        const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        const std::lock_guard lock(m_mutex);
        if (client < 0)
            return; // stop()
        ++m_connections;
        m_clients.append(client);
        m_servers.emplace_back([this, client] { serve(client); });
        if (m_stopping)
            shutdown(client, SHUT_RDWR);
    }
}

void FakeAgent::serve(int client)
{
    AgentAnswer answer = answerTo({});
    if (answer.readsRequest) {
        const QByteArray request = readRequest(client);
        if (!request.isEmpty())
            answer = answerTo(request);
    }
    write(client, answer);
    char rest[4096];
    // What comes after the request is none of the protocol's; it shows in requests().
    for (ssize_t size = 0; !answer.closes && (size = recv(client, rest, sizeof(rest), 0)) > 0;) {
        const std::lock_guard lock(m_mutex);
        m_requests.append(QByteArray(rest, size));
    }
    const std::lock_guard lock(m_mutex);
    m_clients.removeOne(client);
    close(client);
}

QByteArray FakeAgent::readRequest(int client)
{
    QByteArray request;
    char piece[65'536];
    while (!request.contains('\n')) {
        const ssize_t size = recv(client, piece, sizeof(piece), 0);
        if (size <= 0)
            return {};
        request.append(piece, size);
    }
    const std::lock_guard lock(m_mutex);
    m_requests.append(request);
    return request;
}

AgentAnswer FakeAgent::answerTo(const QByteArray& request)
{
    const QString method = QJsonDocument::fromJson(request).object()[u"cmd"_s].toString();
    const std::lock_guard lock(m_mutex);
    if (m_answers.contains(method) || request.isEmpty())
        return m_answers.value(method);
    qWarning("fake agent: surprised by %s", request.trimmed().constData());
    return AgentAnswer::failed(u"no such method"_s);
}

void FakeAgent::write(int client, const AgentAnswer& answer)
{
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_stopping || m_go || !answer.waitsForGo; });
    }
    if (!pause(answer.delayMs))
        return;
    const qsizetype size = answer.bytes.size() / answer.pieces;
    do {
        for (int i = 0; i < answer.pieces; ++i) {
            if (i > 0 && !pause(answer.betweenMs))
                return;
            const qsizetype start = i * size;
            const qsizetype end = i + 1 == answer.pieces ? answer.bytes.size() : start + size;
            if (!send(client, QByteArrayView(answer.bytes).first(end).sliced(start)))
                return;
        }
    } while (answer.endless);
}

/// False when the agent is stopped meanwhile.
bool FakeAgent::pause(int ms)
{
    std::unique_lock lock(m_mutex);
    return !m_changed.wait_for(lock, std::chrono::milliseconds(ms), [&] { return m_stopping; });
}

} // namespace tarn::test
