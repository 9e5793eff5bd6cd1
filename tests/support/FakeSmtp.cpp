#include "support/FakeSmtp.h"

#include "support/TestAuthority.h"

#include <QElapsedTimer>
#include <QSemaphore>
#include <QSslSocket>
#include <QSysInfo>
#include <QTcpServer>

using namespace Qt::Literals::StringLiterals;

namespace tarn::test {

namespace {

/// How often a wait looks whether it is to end.
constexpr int kGlanceMs = 50;
constexpr int kTrickleMs = 1'000;
/// How long a client may take to say something.
constexpr int kClientMs = 60'000;
constexpr qsizetype kFloodBytes = 16'384;
/// A client that takes more of an endless reply than this does not notice.
constexpr qint64 kMaxFloodBytes = 67'108'864;

class Listener : public QTcpServer
{
protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto* socket = new QSslSocket(this);
        socket->setSocketDescriptor(descriptor);
        addPendingConnection(socket);
    }
};

/// What stands behind the first word of a step.
QByteArray argument(const QByteArray& step)
{
    const qsizetype blank = step.indexOf(' ');
    return blank < 0 ? QByteArray() : step.sliced(blank + 1);
}

} // namespace

bool FakeSmtp::play(const QList<QByteArray>& script, const TestAuthority* authority)
{
    m_script = script;
    return start(authority);
}

bool FakeSmtp::takeMail(const TestAuthority* authority)
{
    m_script.clear();
    return start(authority);
}

bool FakeSmtp::start(const TestAuthority* authority)
{
    stop();
    m_authority = authority;
    QSemaphore listening;
    m_thread.reset(QThread::create([this, &listening] {
        Listener listener;
        listener.listen(QHostAddress::LocalHost);
        m_port = listener.serverPort();
        listening.release();
        while (!isStopped()) {
            if (!listener.waitForNewConnection(kGlanceMs))
                continue;
            const std::unique_ptr<QTcpSocket> socket(listener.nextPendingConnection());
            {
                const QMutexLocker lock(&m_mutex);
                ++m_sessions;
            }
            auto& client = static_cast<QSslSocket&>(*socket);
            m_script.isEmpty() ? takeFrom(client) : playTo(client);
        }
    }));
    m_thread->start();
    listening.acquire();
    return m_port != 0;
}

void FakeSmtp::stop()
{
    if (!m_thread)
        return;
    m_thread->requestInterruption();
    m_thread->wait();
    m_thread.reset();
}

QList<QByteArray> FakeSmtp::commands() const
{
    const QMutexLocker lock(&m_mutex);
    return m_commands;
}

QList<QByteArray> FakeSmtp::mails() const
{
    const QMutexLocker lock(&m_mutex);
    return m_mails;
}

int FakeSmtp::sessions() const
{
    const QMutexLocker lock(&m_mutex);
    return m_sessions;
}

qint64 FakeSmtp::floodedBytes() const
{
    const QMutexLocker lock(&m_mutex);
    return m_floodedBytes;
}

QStringList FakeSmtp::complaints() const
{
    const QMutexLocker lock(&m_mutex);
    return m_complaints;
}

void FakeSmtp::complain(const QString& text)
{
    const QMutexLocker lock(&m_mutex);
    m_complaints.append(text);
}

void FakeSmtp::playTo(QSslSocket& socket)
{
    QByteArray replies;
    for (const QByteArray& line : std::as_const(m_script)) {
        if (line.startsWith("S: ") || line.startsWith("S-part: ")) {
            replies += argument(line) + (line.startsWith("S: ") ? "\r\n" : "");
            continue;
        }
        socket.write(replies);
        socket.flush();
        replies.clear();
        if (!step(socket, line))
            return;
    }
    socket.write(replies);
    socket.flush();
    QByteArray more;
    if (readLine(socket, &more))
        complain(u"said and not expected: "_s + QString::fromUtf8(more));
}

bool FakeSmtp::step(QSslSocket& socket, const QByteArray& line)
{
    if (line == "CLOSE") {
        socket.disconnectFromHost();
        if (socket.state() != QAbstractSocket::UnconnectedState)
            socket.waitForDisconnected(kGlanceMs);
        return false;
    }
    if (line == "SILENCE") {
        sendUntilLeft(socket, {}, false);
        return false;
    }
    if (line.startsWith("PAUSE ")) {
        QThread::msleep(argument(line).toULong());
        return true;
    }
    if (line == "TLS")
        return encrypt(socket);
    if (line == "C-mail")
        return readMail(socket);
    if (line.startsWith("FLOOD ") || line.startsWith("TRICKLE ")) {
        sendUntilLeft(socket, argument(line).replace("\\n", "\r\n"), line.startsWith("FLOOD "));
        return false;
    }
    QByteArray expected = argument(line);
    expected.replace("<host>", QSysInfo::machineHostName().toUtf8());
    QByteArray said;
    if (!readLine(socket, &said)) {
        complain(u"expected and never said: "_s + QString::fromUtf8(expected));
        return false;
    }
    if (said != expected) {
        complain(u"said: %1, expected: %2"_s.arg(QString::fromUtf8(said), QString::fromUtf8(expected)));
        return false;
    }
    return true;
}

void FakeSmtp::takeFrom(QSslSocket& socket)
{
    QByteArray reply = "220 mail.test takes any mail";
    QByteArray said;
    do {
        socket.write(reply + "\r\n");
        socket.flush();
        if (said == "STARTTLS" && !encrypt(socket))
            return;
        if (said == "DATA") {
            if (!readMail(socket))
                return;
            socket.write("250 taken\r\n");
            socket.flush();
        }
        if (!readLine(socket, &said))
            return;
        reply = "250 yes";
        if (said.startsWith("EHLO ")) {
            reply = "250-mail.test\r\n250-AUTH PLAIN\r\n250 SMTPUTF8";
        } else if (said == "STARTTLS") {
            reply = "220 go ahead";
        } else if (said.startsWith("AUTH ")) {
            reply = "235 welcome";
        } else if (said == "DATA") {
            reply = "354 go ahead";
        } else if (said == "QUIT") {
            reply = "221 bye";
        }
    } while (true);
}

bool FakeSmtp::readLine(QSslSocket& socket, QByteArray* line)
{
    QElapsedTimer waited;
    waited.start();
    while (!socket.canReadLine()) {
        socket.waitForReadyRead(kGlanceMs);
        const bool isLeft = socket.state() != QAbstractSocket::ConnectedState;
        if (!socket.canReadLine() && (isLeft || isStopped() || waited.elapsed() > kClientMs))
            return false;
    }
    *line = socket.readLine();
    if (!line->endsWith("\r\n"))
        complain(u"a line does not end with CR LF: "_s + QString::fromUtf8(*line));
    line->chop(line->endsWith("\r\n") ? 2 : 1);
    const QMutexLocker lock(&m_mutex);
    m_commands.append(*line);
    return true;
}

bool FakeSmtp::readMail(QSslSocket& socket)
{
    const qsizetype before = commands().size();
    QByteArray line;
    while (line != ".") {
        if (!readLine(socket, &line)) {
            complain(u"the mail has no end"_s);
            return false;
        }
    }
    const QMutexLocker lock(&m_mutex);
    QByteArray mail;
    for (const QByteArray& said : m_commands.mid(before, m_commands.size() - before - 1))
        mail += said + "\r\n";
    m_commands.resize(before);
    m_mails.append(mail);
    return true;
}

bool FakeSmtp::encrypt(QSslSocket& socket)
{
    socket.flush();
    socket.setLocalCertificate(m_authority->certificate());
    socket.setPrivateKey(m_authority->key());
    socket.startServerEncryption();
    QElapsedTimer waited;
    waited.start();
    // A wait that does not succeed in time leaves the handshake where it is.
    while (!socket.isEncrypted() && socket.state() == QAbstractSocket::ConnectedState && !isStopped()
           && waited.elapsed() < kClientMs) {
        socket.waitForEncrypted(kGlanceMs);
    }
    return socket.isEncrypted();
}

void FakeSmtp::sendUntilLeft(QSslSocket& socket, const QByteArray& bytes, bool flood)
{
    const QByteArray block = flood ? bytes.repeated(kFloodBytes / bytes.size() + 1) : bytes;
    QElapsedTimer sinceLast;
    sinceLast.start();
    while (socket.state() == QAbstractSocket::ConnectedState && !isStopped()) {
        if (flood || sinceLast.elapsed() >= kTrickleMs) {
            sinceLast.restart();
            socket.write(block);
        }
        const bool isWritten = flood && socket.waitForBytesWritten(kGlanceMs);
        if (!flood)
            socket.waitForReadyRead(kGlanceMs);
        const QMutexLocker lock(&m_mutex);
        m_floodedBytes += isWritten ? block.size() : 0;
        if (m_floodedBytes > kMaxFloodBytes) {
            m_complaints.append(u"the client takes an endless reply"_s);
            return;
        }
    }
}

} // namespace tarn::test
