// A mail server on 127.0.0.1, with a thread of its own, since the client blocks: plays a script, or takes any
// mail. What it has seen can be read while it runs.
//
// A script has a step a line:
//
//     S: 250 yes       sends the line; lines in a row travel together
//     S-part: 25       sends this, without the end of a line
//     C: MAIL FROM:<>  the client's next line is to be this; <host> stands for this machine's name
//     C-mail           the client sends a mail, up to the line with a dot
//     TLS              encrypts the connection
//     CLOSE            closes the connection
//     SILENCE          reads nothing and says nothing until the client leaves
//     PAUSE 4000       waits so many milliseconds
//     TRICKLE x        sends this each second until the client leaves
//     FLOOD x          sends this as fast as it is taken, until the client leaves; \n stands for a line's end
//
// After the last step the server is silent until the client leaves. It plays the script to each client anew.
#pragma once

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QStringList>
#include <QThread>

#include <memory>

class QSslSocket;

namespace tarn::test {

class TestAuthority;

class FakeSmtp
{
public:
    FakeSmtp() = default;
    ~FakeSmtp() { stop(); }
    FakeSmtp(const FakeSmtp&) = delete;
    FakeSmtp& operator=(const FakeSmtp&) = delete;

    /// Plays @p script; @p authority has the certificate when that contains a TLS. False when there is no
    /// port to be had.
    bool play(const QList<QByteArray>& script, const TestAuthority* authority = nullptr);
    /// Takes whatever mail comes, unencrypted or after STARTTLS, and whatever sign-in.
    bool takeMail(const TestAuthority* authority = nullptr);
    /// Leaves the client that it has, if any, and listens no longer.
    void stop();

    quint16 port() const { return m_port; }

    /// What clients have said, a line an entry, without the mails.
    QList<QByteArray> commands() const;
    /// The mails, without the dot behind.
    QList<QByteArray> mails() const;
    /// Clients that have come.
    int sessions() const;
    /// Bytes of an endless reply that the client's side has taken.
    qint64 floodedBytes() const;
    /// Where a client did not follow the script. To be compared with an empty list at the end of each test.
    QStringList complaints() const;

private:
    bool start(const TestAuthority* authority);
    void playTo(QSslSocket& socket);
    bool step(QSslSocket& socket, const QByteArray& line);
    void takeFrom(QSslSocket& socket);

    bool readLine(QSslSocket& socket, QByteArray* line);
    bool readMail(QSslSocket& socket);
    bool encrypt(QSslSocket& socket);
    void sendUntilLeft(QSslSocket& socket, const QByteArray& bytes, bool flood);
    void complain(const QString& text);
    bool isStopped() const { return QThread::currentThread()->isInterruptionRequested(); }

    QList<QByteArray> m_script; ///< empty: takes any mail
    const TestAuthority* m_authority = nullptr;
    std::unique_ptr<QThread> m_thread;
    quint16 m_port = 0;

    mutable QMutex m_mutex; ///< for what follows
    QList<QByteArray> m_commands;
    QList<QByteArray> m_mails;
    QStringList m_complaints;
    int m_sessions = 0;
    qint64 m_floodedBytes = 0;
};

} // namespace tarn::test
