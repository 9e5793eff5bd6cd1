#include "common/AgentClient.h"

#include <QFile>
#include <QJsonDocument>
#include <QLocalSocket>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

/// The longest line that is taken for an answer. The disk use of one account takes some 40 bytes.
constexpr qsizetype kMaxAnswerBytes = 67'108'864;

QJsonObject failure(const QString& reason)
{
    return {
        {u"ok"_s,    false },
        {u"error"_s, reason},
    };
}

/// Connects @p socket. The kernel's connect() waits while the agent is too busy to accept clients.
/// QLocalSocket would try again without a pause, with a processor at full load for up to ten minutes.
bool connectSocket(QLocalSocket& socket, const QString& path, int timeoutMs)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    if (name.isEmpty() || name.size() >= static_cast<qsizetype>(sizeof(address.sun_path)))
        return false;
    std::memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));

    // 0 would be no limit to the kernel.
    const int blocking = timeoutMs > 0 ? 0 : SOCK_NONBLOCK;
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | blocking, 0);
    if (descriptor < 0)
        return false;
    const timeval limit = {timeoutMs / 1000, timeoutMs % 1000 * 1000L};
    setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    int result = 0;
    do {
        result = ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } while (result != 0 && errno == EINTR);
    if (result == 0 && socket.setSocketDescriptor(descriptor))
        return true;
    close(descriptor);
    return false;
}

/// The first line that comes from @p socket, without its line feed. Nothing when a wait ends without more of
/// it, or when it is too long.
std::optional<QByteArray> readLine(QLocalSocket& socket, int timeoutMs)
{
    QByteArray line;
    while (socket.waitForReadyRead(timeoutMs)) {
        const qsizetype known = line.size();
        line += socket.readAll();
        const qsizetype end = line.indexOf('\n', known);
        if ((end < 0 ? line.size() : end) > kMaxAnswerBytes)
            return std::nullopt;
        if (end >= 0)
            return line.first(end);
    }
    return std::nullopt;
}

} // namespace

QJsonObject callAgent(const QString& socketPath, const QString& method, const QJsonObject& args,
                      int timeoutMs)
{
    const int waitMs = std::max(timeoutMs, 0); // Qt takes a negative one for "as long as it takes"
    QLocalSocket socket;
    if (!connectSocket(socket, socketPath, waitMs))
        return failure(u"agent not reachable"_s);

    const QJsonObject request = {
        {u"cmd"_s,  method},
        {u"args"_s, args  },
    };
    socket.write(QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n');
    const std::optional<QByteArray> answer = readLine(socket, waitMs);
    if (!answer)
        return failure(u"agent did not answer"_s);
    return QJsonDocument::fromJson(*answer).object();
}

} // namespace tarn
