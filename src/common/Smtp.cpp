#include "common/Smtp.h"

#include "common/Notify.h"
#include "common/NotifyText.h"

#include <QDateTime>
#include <QLocale>
#include <QRegularExpression>
#include <QSysInfo>
#include <QUuid>

#include <algorithm>
#include <cstdlib>
#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace tarn::notify {

namespace {

constexpr int kWaitMs = 10'000;
/// How long a whole reply may take: a byte now and then starts the other time anew.
constexpr int kReplyMs = 30'000;

/// A line of a reply has 512 bytes at most (RFC 5321, 4.5.3.1.5), as some servers do not know.
constexpr qint64 kMaxLineBytes = 4'096;
constexpr qint64 kMaxReplyBytes = 65'536;

constexpr qsizetype kBase64Columns = 76;

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

/// "Sat, 15 Jun 2024 09:30:00 +0200".
QByteArray mailDate(const QDateTime& now)
{
    const int minutes = std::abs(now.offsetFromUtc()) / 60;
    return QLocale::c().toString(now, u"ddd, dd MMM yyyy HH:mm:ss "_s).toLatin1()
           + (now.offsetFromUtc() < 0 ? '-' : '+')
           + QByteArray::number(minutes / 60 * 100 + minutes % 60).rightJustified(4, '0');
}

QByteArray base64Lines(const QByteArray& bytes)
{
    const QByteArray encoded = bytes.toBase64();
    QByteArray lines;
    for (qsizetype start = 0; start < encoded.size(); start += kBase64Columns)
        lines += encoded.mid(start, kBase64Columns) + "\r\n";
    return lines;
}

} // namespace

Smtp::Smtp(const Config& config)
    : m_c(config)
{
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
    // The server has the message, whatever it says to this.
    command("QUIT", 221);
    return {};
}

bool Smtp::connectToServer()
{
    QString reason = u"no such port"_s;
    if (m_c.smtpPort > 0 && m_c.smtpPort <= 65'535) {
        const auto port = static_cast<quint16>(m_c.smtpPort);
        const bool encrypted = m_c.smtpSecurity == u"ssl";
        encrypted ? m_sock.connectToHostEncrypted(m_c.smtpHost, port)
                  : m_sock.connectToHost(m_c.smtpHost, port);
        if (encrypted ? m_sock.waitForEncrypted(kWaitMs) : m_sock.waitForConnected(kWaitMs))
            return true;
        reason = m_sock.errorString();
    }
    m_error = u"cannot connect to %1:%2: %3"_s.arg(m_c.smtpHost, QString::number(m_c.smtpPort), reason);
    return false;
}

bool Smtp::startTls()
{
    if (!command("STARTTLS", 220))
        return false;
    // Anybody on the way can have added it, and it would pass for the server's own, encrypted words.
    if (m_sock.bytesAvailable() > 0) {
        m_error = u"STARTTLS failed: the mail server did not wait for the encryption"_s;
        return false;
    }
    m_sock.startClientEncryption();
    if (m_sock.waitForEncrypted(kWaitMs))
        return true;
    m_error = u"STARTTLS failed: "_s + m_sock.errorString();
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
    while (!m_sock.canReadLine() && m_sock.bytesAvailable() < kMaxLineBytes) {
        const int waitMs = static_cast<int>(std::min<qint64>(kWaitMs, deadline.remainingTime()));
        if (!m_sock.waitForReadyRead(waitMs)) {
            m_error = u"mail server stopped answering"_s;
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
    const QDeadlineTimer deadline(kReplyMs);
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
    return command("EHLO " + oneLine(QSysInfo::machineHostName()).toUtf8(), 250, extensions);
}

QByteArray mailMessage(const Config& config, const QString& subject, const QString& text,
                       const QDateTime& now, const QUuid& id)
{
    const QByteArray from = config.mailFrom.toUtf8();
    const QByteArray domain = from.mid(from.indexOf('@') + 1);
    return "From: Tarnhold <" + from + ">\r\nTo: " + config.mailTo.join(u", "_s).toUtf8()
           + "\r\nSubject: =?UTF-8?B?" + oneLine(subject).toUtf8().toBase64() + "?=\r\nDate: " + mailDate(now)
           + "\r\nMessage-ID: <" + id.toByteArray(QUuid::WithoutBraces) + '@' + domain
           + ">\r\nMIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\n"
             "Content-Transfer-Encoding: base64\r\n\r\n"
           + base64Lines(text.toUtf8());
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
    // It would end the user's name, or the password.
    if (config.smtpUser.contains(QChar::Null) || config.smtpPassword.contains(QChar::Null))
        return u"smtp_user or smtp_password contains a NUL character"_s;
    return {};
}

QString withoutCredentials(const QString& reply, const Config& config)
{
    if (config.smtpUser.isEmpty())
        return reply;
    // What is repeated may have been cut, so that any longer piece of the encoded line counts.
    static const QRegularExpression encodedWord(u"[A-Za-z0-9+/]{8,}={0,2}"_s);
    const QString encoded = QString::fromLatin1(credentials(config));
    QStringList secrets;
    for (const QRegularExpressionMatch& match : encodedWord.globalMatch(reply)) {
        const QString word = match.captured();
        if (encoded.contains(word) || word.contains(encoded))
            secrets.append(word);
    }
    if (!config.smtpPassword.isEmpty())
        secrets += {QString::fromLatin1(config.smtpPassword.toUtf8().toBase64()), config.smtpPassword};
    // A shorter one can be a part of a longer.
    std::sort(secrets.begin(), secrets.end(),
              [](const QString& one, const QString& other) { return one.size() > other.size(); });
    QString clean = reply;
    for (const QString& secret : std::as_const(secrets))
        clean.replace(secret, u"***"_s);
    return clean;
}

} // namespace tarn::notify
