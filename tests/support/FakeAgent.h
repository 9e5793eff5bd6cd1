// The suite's agent on a real Unix socket, with an answer scripted for each method. It runs on threads of its
// own: a client that blocks the test's thread is answered, and the collector's binary is served as well. A
// method without an answer is warned of, which fails a test that expects no warning.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QTemporaryDir>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace tarn::test {

/// What the agent does once it has read a request.
struct AgentAnswer
{
    QByteArray bytes;         ///< that are written, as they are
    int delayMs = 0;          ///< before the first of them
    int pieces = 1;           ///< in which they are written
    int betweenMs = 0;        ///< between two pieces
    bool endless = false;     ///< write them again and again, until the client hangs up
    bool closes = false;      ///< hang up after them; otherwise the client has to
    bool waitsForGo = false;  ///< write nothing before FakeAgent::go()
    bool readsRequest = true; ///< false: start as soon as the client has connected

    static AgentAnswer good(const QJsonObject& object);
    /// {"ok": false, "error": @p error}
    static AgentAnswer failed(const QString& error);
    /// good() after FakeAgent::go().
    static AgentAnswer held(const QJsonObject& object);
    static AgentAnswer slow(const QJsonObject& object, int delayMs);
    /// good() in @p pieces.
    static AgentAnswer trickling(const QJsonObject& object, int pieces, int betweenMs);
    static AgentAnswer silent();
    /// All of good() but the line feed; the connection stays open.
    static AgentAnswer halfLine(const QJsonObject& object);
    static AgentAnswer twoLines(const QJsonObject& first, const QJsonObject& second);
    static AgentAnswer garbage();
    static AgentAnswer closedAtOnce();
    /// good() with an object whose line has @p size bytes without its line feed.
    static AgentAnswer hugeLine(qsizetype size);
    static AgentAnswer endlessLine();
};

class FakeAgent
{
public:
    FakeAgent() = default;
    ~FakeAgent();
    FakeAgent(const FakeAgent&) = delete;
    FakeAgent& operator=(const FakeAgent&) = delete;

    /// Listens; may be called again after stop(). False when it cannot.
    bool start();
    /// Ends all connections and takes the socket away.
    void stop();

    /// The path of the socket, also while the agent is not started.
    QString socketPath() const;

    /// From now on @p method is answered so. "" is for clients that are not read first.
    void setAnswer(const QString& method, const AgentAnswer& answer);
    /// Lets the answers go that wait for it, and those that would.
    void go();

    /// The lines that arrived so far, with all that came with them.
    QList<QByteArray> requests() const;
    /// The arguments of the requests for @p method.
    QList<QJsonObject> calls(const QString& method) const;
    /// How many clients have connected, and how many of them have not hung up.
    int connections() const;
    int openConnections() const;

private:
    void acceptClients();
    void serve(int client);
    QByteArray readRequest(int client);
    AgentAnswer answerTo(const QByteArray& request);
    void write(int client, const AgentAnswer& answer);
    bool pause(int ms);

    QTemporaryDir m_folder;
    int m_listener = -1;
    std::thread m_acceptor;

    mutable std::mutex m_mutex; ///< guards all that follows
    std::condition_variable m_changed;
    bool m_stopping = false;
    bool m_go = false;
    int m_connections = 0;
    QHash<QString, AgentAnswer> m_answers;
    QList<QByteArray> m_requests;
    QList<int> m_clients; ///< that are open
    std::vector<std::thread> m_servers;
};

} // namespace tarn::test
