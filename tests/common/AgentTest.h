// What the tests of the client of the agent share: the agent on a socket of its own, a call and its results.
// A test class inherits this one.
#pragma once

#include "common/AgentClient.h"
#include "support/FakeAgent.h"

#include <QObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace tarn::test {

using namespace Qt::Literals::StringLiterals;
using tarn::callAgent;

inline const auto kMethod = u"hosting.usage"_s;

/// Longer than any answer takes that comes at all.
inline constexpr int kAmpleMs = 20'000;

/// The wait of a call that is to be in vain.
inline constexpr int kShortMs = 300;

/// What a busy machine may add.
inline constexpr int kSlackMs = 3'000;

inline QJsonObject usage()
{
    return {
        {u"ok"_s,    true                                                                        },
        {u"usage"_s,
         QJsonObject{{u"anna"_s, qint64(1'234'567'890'123)}, {u"b\u00f6rge"_s, 0}, {u"c"_s, 512}}},
    };
}

inline QJsonObject unreachable()
{
    return {
        {u"ok"_s,    false                   },
        {u"error"_s, u"agent not reachable"_s},
    };
}

inline QJsonObject noAnswer()
{
    return {
        {u"ok"_s,    false                    },
        {u"error"_s, u"agent did not answer"_s},
    };
}

inline sockaddr_un addressOf(const QString& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray name = path.toLocal8Bit();
    std::copy(name.cbegin(), name.cend(), address.sun_path);
    return address;
}

/// A listener whose queue is full, so that nobody gets in.
class FullListener
{
public:
    explicit FullListener(const QString& path)
    {
        const sockaddr_un address = addressOf(path);
        const auto* plain = reinterpret_cast<const sockaddr*>(&address);
        m_sockets.append(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const bool listens =
            bind(m_sockets.first(), plain, sizeof(address)) == 0 && listen(m_sockets.first(), 0) == 0;
        if (!listens)
            qFatal("cannot listen on %s", qPrintable(path));
        int result = 0;
        while (result == 0) {
            m_sockets.append(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            result = ::connect(m_sockets.last(), plain, sizeof(address));
        }
    }
    ~FullListener()
    {
        for (const int socket : std::as_const(m_sockets))
            close(socket);
    }
    FullListener(const FullListener&) = delete;
    FullListener& operator=(const FullListener&) = delete;

private:
    QList<int> m_sockets;
};

class AgentTest : public QObject
{
protected:
    void beginTest()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_agent = std::make_unique<FakeAgent>();
        QVERIFY(m_agent->start());
    }

    void endTest() { m_agent.reset(); }

    /// The result of a call that is answered by @p answer.
    QJsonObject callAnsweredBy(const AgentAnswer& answer, int timeoutMs = kAmpleMs)
    {
        m_agent->setAnswer(kMethod, answer);
        return callAgent(m_agent->socketPath(), kMethod, {}, timeoutMs);
    }

    std::unique_ptr<FakeAgent> m_agent;
    QTemporaryDir m_folder;
};

} // namespace tarn::test
