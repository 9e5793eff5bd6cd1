#include "common/Smtp.h"

#include "common/MailMessage.h"
#include "common/NotifyMessage.h"
#include "common/NotifyText.h"

#include <QDateTime>
#include <QEventLoop>
#include <QHostInfo>
#include <QNetworkProxy>
#include <QObject>
#include <QRegularExpression>
#include <QSet>
#include <QStringMatcher>
#include <QStringView>
#include <QSysInfo>
#include <QTimer>
#include <QUuid>

#include <algorithm>
#include <optional>
#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace tarn::notify {

namespace {

constexpr int kSilenceMs = 10'000;
/// For a whole reply. Each byte of it restarts the limit of silence.
constexpr int kTotalMs = 30'000;

/// RFC 5321 (4.5.3.1.5) allows 512 bytes for a line of a reply. Some servers send longer ones.
constexpr qint64 kMaxLineBytes = 4'096;
constexpr qint64 kMaxReplyBytes = 65'536;

/// The shortest run of characters that is taken for a piece of the sign-in.
constexpr qsizetype kLeastPiece = 8;
constexpr QStringView kMask = u"***";

const auto kInterrupted = u"interrupted"_s;
// As the socket itself calls it.
const auto kTimedOut = u"Socket operation timed out"_s;
const auto kHandshakeTimedOut = u"Network operation timed out"_s;

/// A local event loop that ends when it is woken, or at a deadline.
class Waiting
{
public:
    explicit Waiting(const QDeadlineTimer& deadline)
        : m_deadline(deadline)
    {
        m_timer.setSingleShot(true);
        m_timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&m_timer, &QTimer::timeout, &m_loop, [this] { wake(); });
    }

    void wake()
    {
        m_isWoken = true;
        m_loop.quit();
    }

    /// Returns with an empty text when something may have changed, otherwise with the reason: kTimedOut or
    /// kInterrupted.
    QString run()
    {
        if (m_deadline.hasExpired())
            return kTimedOut;
        m_isWoken = false;
        m_timer.start(static_cast<int>(m_deadline.remainingTime()));
        m_loop.exec();
        return m_isWoken ? QString() : kInterrupted;
    }

    QObject* context() { return &m_loop; }

private:
    QDeadlineTimer m_deadline;
    QEventLoop m_loop;
    QTimer m_timer;
    bool m_isWoken = false;
};

bool isAscii(const QString& text)
{
    return std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 0x80; });
}

bool isSendable(const QString& address)
{
    return !address.isEmpty() && address.isValidUtf16()
           && std::none_of(address.begin(), address.end(), [](QChar c) {
                  return c.isSpace() || c.category() == QChar::Other_Control || c == u'<' || c == u'>';
              });
}

bool needsUtf8(const Config& config)
{
    return !isAscii(config.mailFrom) || !std::all_of(config.mailTo.begin(), config.mailTo.end(), isAscii);
}

/// The lines of a reply to EHLO behind the first name an extension each (RFC 5321, 4.1.1.1).
bool offers(const QList<QByteArray>& extensions, QByteArrayView name)
{
    return std::any_of(extensions.begin(), extensions.end(), [name](const QByteArray& line) {
        return line.mid(4).trimmed().compare(name, Qt::CaseInsensitive) == 0;
    });
}

/// RFC 4616.
QByteArray credentials(const Config& config)
{
    const QByteArray nul(1, '\0');
    return (nul + config.smtpUser.toUtf8() + nul + config.smtpPassword.toUtf8()).toBase64();
}

/// @p text with @p secret masked, in one pass: QString::replace() moves what is behind a match again and
/// again.
QString withoutSecret(const QString& text, const QString& secret)
{
    const QStringMatcher matcher(secret);
    QString clean;
    qsizetype done = 0;
    for (qsizetype at = matcher.indexIn(text); at >= 0; at = matcher.indexIn(text, done)) {
        clean.append(QStringView(text).sliced(done, at - done)).append(kMask);
        done = at + secret.size();
    }
    return clean.append(QStringView(text).sliced(done));
}

/// Calls @p isFound with each run of @p length characters of @p word, which is ASCII, as a number; true when
/// one is found.
template <typename IsFound>
bool anyPiece(QStringView word, qsizetype length, IsFound isFound)
{
    static_assert(kLeastPiece == sizeof(quint64));
    const quint64 mask = ~quint64(0) >> (8 * (kLeastPiece - length));
    quint64 piece = 0;
    for (qsizetype at = 0; at < word.size(); ++at) {
        piece = (piece << 8 | word[at].unicode()) & mask;
        if (at + 1 >= length && isFound(piece))
            return true;
    }
    return false;
}

/// @p text with each word masked that holds a piece of the encoded line @p encoded. What a server repeats may
/// be cut anywhere.
QString withoutPiecesOf(const QString& text, const QString& encoded)
{
    const qsizetype length = std::min(kLeastPiece, encoded.size());
    QSet<quint64> pieces;
    anyPiece(encoded, length, [&pieces](quint64 piece) {
        pieces.insert(piece);
        return false;
    });
    const auto isSecret = [&](QStringView word) {
        return anyPiece(word, length, [&pieces](quint64 piece) { return pieces.contains(piece); });
    };
    static const QRegularExpression encodedWord(u"[A-Za-z0-9+/]{8,}={0,2}"_s);
    QString clean;
    qsizetype done = 0;
    for (const QRegularExpressionMatch& match : encodedWord.globalMatch(text)) {
        if (!isSecret(match.capturedView()))
            continue;
        clean.append(QStringView(text).sliced(done, match.capturedStart() - done)).append(kMask);
        done = match.capturedEnd();
    }
    return clean.append(QStringView(text).sliced(done));
}

} // namespace

Smtp::Smtp(const Config& config, const QList<QHostAddress>& addresses)
    : m_c(config)
    , m_addresses(addresses)
{
    // The proxies of the environment are for HTTP.
    m_sock.setProxy(QNetworkProxy::NoProxy);
    // While another job holds a wait up, the server can go on sending.
    m_sock.setReadBufferSize(kMaxReplyBytes);
}

QString Smtp::send(const QString& subject, const QString& text)
{
    m_error = mailSettingsProblem(m_c);
    if (!m_error.isEmpty())
        return m_error;
    QList<QByteArray> extensions;
    if (!connectToServer() || !expect(220) || !ehlo(&extensions))
        return m_error;
    if (m_c.smtpSecurity == u"starttls" && (!startTls() || !ehlo(&extensions)))
        return m_error;
    if (!m_c.smtpUser.isEmpty() && !signIn())
        return m_error;
    const QDateTime now = QDateTime::currentDateTime();
    if (!deliver(mailMessage(m_c, subject, text, now, QUuid::createUuid()), extensions))
        return m_error;
    // The outcome does not matter: the server has taken the message.
    command("QUIT", 221);
    return {};
}

bool Smtp::connectToServer()
{
    QString reason = u"no such port"_s;
    if (m_c.smtpPort > 0 && m_c.smtpPort <= 65'535) {
        const QDeadlineTimer deadline(kSilenceMs);
        reason = m_addresses.isEmpty() ? lookUp(deadline) : QString();
        if (reason.isEmpty())
            reason = connectToAny(deadline);
    }
    if (reason.isEmpty())
        return true;
    m_error = u"cannot connect to %1:%2: %3"_s.arg(m_c.smtpHost, QString::number(m_c.smtpPort), reason);
    return false;
}

QString Smtp::lookUp(const QDeadlineTimer& deadline)
{
    // The look-up would ask for the name of an address.
    if (QHostAddress address; address.setAddress(m_c.smtpHost)) {
        m_addresses.append(address);
        return {};
    }
    Waiting waiting(deadline);
    std::optional<QHostInfo> answer;
    // A look-up that is given up goes on in a thread of Qt's. The next one for the same name waits for it.
    const int id = QHostInfo::lookupHost(m_c.smtpHost, waiting.context(), [&](const QHostInfo& info) {
        answer = info;
        waiting.wake();
    });
    QString reason;
    while (!answer && reason.isEmpty())
        reason = waiting.run();
    if (!answer) {
        QHostInfo::abortHostLookup(id);
        return reason == kTimedOut ? u"Host lookup timed out"_s : reason;
    }
    m_addresses = answer->addresses();
    if (!m_addresses.isEmpty())
        return {};
    return answer->error() == QHostInfo::UnknownError ? answer->errorString() : u"Host not found"_s;
}

QString Smtp::connectToAny(const QDeadlineTimer& deadline)
{
    QString reason;
    for (qsizetype i = 0; i < m_addresses.size(); ++i) {
        // An address that answers nothing must leave time for the others.
        const QDeadlineTimer share(deadline.remainingTime() / (m_addresses.size() - i));
        reason = connectTo(m_addresses.at(i), share);
        if (reason.isEmpty() || reason == kInterrupted)
            return reason;
        m_sock.abort();
    }
    return reason;
}

QString Smtp::connectTo(const QHostAddress& address, const QDeadlineTimer& deadline)
{
    const auto port = static_cast<quint16>(m_c.smtpPort);
    if (m_c.smtpSecurity == u"ssl") {
        m_sock.connectToHostEncrypted(address.toString(), port, m_c.smtpHost);
        return waitUntil([this] { return m_sock.isEncrypted(); }, deadline);
    }
    m_sock.connectToHost(address, port);
    return waitUntil([this] { return m_sock.state() == QAbstractSocket::ConnectedState; }, deadline);
}

QString Smtp::waitUntil(const std::function<bool()>& isDone, const QDeadlineTimer& deadline)
{
    Waiting waiting(deadline);
    bool hasFailed = false;
    const auto wake = [&waiting] { waiting.wake(); };
    QObject::connect(&m_sock, &QSslSocket::connected, waiting.context(), wake);
    QObject::connect(&m_sock, &QSslSocket::encrypted, waiting.context(), wake);
    QObject::connect(&m_sock, &QSslSocket::readyRead, waiting.context(), wake);
    QObject::connect(&m_sock, &QSslSocket::disconnected, waiting.context(), wake);
    QObject::connect(&m_sock, &QSslSocket::errorOccurred, waiting.context(), [&] {
        hasFailed = true;
        waiting.wake();
    });
    QString reason;
    while (reason.isEmpty() && !isDone()) {
        const bool isOver = hasFailed || m_sock.state() == QAbstractSocket::UnconnectedState;
        reason = isOver ? m_sock.errorString() : waiting.run();
    }
    // A connection that is there is waited for to be encrypted, or for an answer.
    const bool isConnected = m_sock.state() == QAbstractSocket::ConnectedState;
    return reason == kTimedOut && isConnected ? kHandshakeTimedOut : reason;
}

bool Smtp::startTls()
{
    if (!command("STARTTLS", 220))
        return false;
    // Anybody on the way can have added these bytes, which would pass for encrypted words of the server.
    if (m_sock.bytesAvailable() > 0) {
        m_error = u"STARTTLS failed: the mail server did not wait for the encryption"_s;
        return false;
    }
    m_sock.setPeerVerifyName(m_c.smtpHost);
    m_sock.startClientEncryption();
    const QString reason = waitUntil([this] { return m_sock.isEncrypted(); }, QDeadlineTimer(kSilenceMs));
    if (reason.isEmpty())
        return true;
    m_error = u"STARTTLS failed: "_s + reason;
    return false;
}

bool Smtp::signIn()
{
    if (command("AUTH PLAIN " + credentials(m_c), 235))
        return true;
    m_error = u"sign-in refused: "_s + m_error;
    return false;
}

bool Smtp::deliver(const QByteArray& message, const QList<QByteArray>& extensions)
{
    QByteArray parameter;
    if (needsUtf8(m_c)) {
        if (!offers(extensions, "SMTPUTF8")) { // RFC 6531
            m_error = u"the mail server does not take addresses beyond ASCII"_s;
            return false;
        }
        parameter = " SMTPUTF8";
    }
    if (!command("MAIL FROM:<" + m_c.mailFrom.toUtf8() + '>' + parameter, 250))
        return false;
    for (const QString& recipient : m_c.mailTo) {
        if (!command("RCPT TO:<" + recipient.toUtf8() + '>', 250))
            return false;
    }
    return command("DATA", 354) && command(message + '.', 250);
}

bool Smtp::readLine(QByteArray* line, const QDeadlineTimer& deadline)
{
    const auto canRead = [this] { return m_sock.canReadLine() || m_sock.bytesAvailable() >= kMaxLineBytes; };
    while (!canRead()) {
        const qint64 bytes = m_sock.bytesAvailable();
        const QDeadlineTimer next(std::min<qint64>(kSilenceMs, deadline.remainingTime()));
        const QString reason = waitUntil([&] { return canRead() || m_sock.bytesAvailable() > bytes; }, next);
        if (!reason.isEmpty()) {
            m_error = reason == kInterrupted ? reason : u"mail server stopped answering"_s;
            return false;
        }
    }
    *line = m_sock.readLine(kMaxLineBytes + 1);
    return true;
}

bool Smtp::expect(int code, QList<QByteArray>* reply)
{
    if (reply)
        reply->clear();
    const QDeadlineTimer deadline(kTotalMs);
    qint64 left = kMaxReplyBytes;
    bool complete = false;
    bool last = false;
    QByteArray line;
    do {
        if (!readLine(&line, deadline))
            return false;
        left -= line.size();
        complete = line.endsWith('\n');
        line = line.trimmed();
        last = line.size() < 4 || line.at(3) != '-';
        if (reply)
            reply->append(line);
    } while (complete && !last && left > 0);

    if (complete && last && line.first(std::min<qsizetype>(line.size(), 3)).toInt() == code)
        return true;
    m_error = excerpt(withoutCredentials(QString::fromUtf8(line), m_c));
    if (m_error.isEmpty()) // which would mean success
        m_error = u"mail server sent an empty reply"_s;
    return false;
}

bool Smtp::command(const QByteArray& line, int code, QList<QByteArray>* reply)
{
    m_sock.write(line + "\r\n");
    return expect(code, reply);
}

bool Smtp::ehlo(QList<QByteArray>* extensions)
{
    return command("EHLO " + controlsBlanked(QSysInfo::machineHostName()).toUtf8(), 250, extensions);
}

QString mailSettingsProblem(const Config& config)
{
    QStringList addresses = config.mailTo;
    if (!config.mailFrom.isEmpty()) // without a sender it is still a mail, with the empty reverse path
        addresses.prepend(config.mailFrom);
    for (const QString& address : std::as_const(addresses)) {
        if (!isSendable(address))
            return u"\"%1\" is not a plain mail address"_s.arg(excerpt(address));
    }
    // In AUTH PLAIN a NUL ends the user's name and begins the password.
    if (config.smtpUser.contains(QChar::Null) || config.smtpPassword.contains(QChar::Null))
        return u"smtp_user or smtp_password contains a NUL character"_s;
    return {};
}

QString withoutCredentials(const QString& reply, const Config& config)
{
    if (config.smtpUser.isEmpty())
        return reply;
    QString clean = withoutPiecesOf(reply, QString::fromLatin1(credentials(config)));
    if (config.smtpPassword.isEmpty())
        return clean;
    clean = withoutSecret(clean, QString::fromLatin1(config.smtpPassword.toUtf8().toBase64()));
    return withoutSecret(clean, config.smtpPassword);
}

} // namespace tarn::notify
