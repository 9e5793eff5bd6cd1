#include "common/Smtp.h"
#include "common/SmtpTest.h"
#include "support/FakeSmtp.h"
#include "support/MailTools.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QJsonArray>
#include <QNetworkProxy>
#include <QRegularExpression>
#include <QTcpServer>
#include <QThread>
#include <QTimer>

#include <memory>
#include <vector>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;
using notify::Smtp;

namespace {

/// An address that takes no connection and refuses none: its queue is full, so that the kernel drops what
/// comes.
class BlackHole
{
public:
    BlackHole(const char* address, quint16 port)
    {
        sockaddr_in name = {};
        name.sin_family = AF_INET;
        name.sin_port = htons(port);
        inet_pton(AF_INET, address, &name.sin_addr);
        m_sockets.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const auto* generic = reinterpret_cast<const sockaddr*>(&name);
        if (bind(m_sockets.front(), generic, sizeof(name)) != 0 || listen(m_sockets.front(), 0) != 0)
            qFatal("no black hole at %s:%d", address, port);
        for (int i = 0; i < 4; ++i) {
            m_sockets.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            connect(m_sockets.back(), generic, sizeof(name));
        }
    }
    ~BlackHole()
    {
        for (const int one : m_sockets)
            close(one);
    }
    BlackHole(const BlackHole&) = delete;
    BlackHole& operator=(const BlackHole&) = delete;

private:
    std::vector<int> m_sockets;
};

/// The longest time between two turns of this thread's event loop while it lives.
class Pulse
{
public:
    Pulse()
    {
        m_since.start();
        QObject::connect(&m_timer, &QTimer::timeout, &m_timer, [this] { note(); });
        m_timer.start(20);
    }
    qint64 longestGapMs()
    {
        note();
        return m_longestMs;
    }

private:
    void note() { m_longestMs = std::max(m_longestMs, m_since.restart()); }

    QTimer m_timer;
    QElapsedTimer m_since;
    qint64 m_longestMs = 0;
};

} // namespace

/// Settings that cannot be used, addresses, waits, and the sign-in.
class tst_Smtp : public SmtpTest
{
    Q_OBJECT

private:
    /// A server that takes mail at 127.0.0.1 and is called mail.test.
    static Config namedServer(test::FakeSmtp& server, const test::TestAuthority* authority = nullptr)
    {
        if (!server.takeMail(authority))
            qFatal("no port");
        Config config = mailConfig();
        config.smtpHost = u"mail.test"_s;
        config.smtpPort = server.port();
        return config;
    }

private Q_SLOTS:
    void initTestCase() { makeAuthorities(); }
    void cleanupTestCase() { test::TestAuthority::trustSystem(); }
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void messageIdsDiffer()
    {
        test::FakeSmtp server;
        QVERIFY(server.takeMail());
        Config config = mailConfig();
        config.smtpPort = server.port();
        QCOMPARE(Smtp(config).send(kSubject, kText), QString());
        QCOMPARE(Smtp(config).send(kSubject, kText), QString());
        server.stop();
        QCOMPARE(server.sessions(), 2);
        static const QRegularExpression pattern(
            u"\r\nMessage-ID: <([0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12})@example\\.org>\r\n"_s);
        QStringList ids;
        for (const QByteArray& mail : server.mails())
            ids.append(pattern.match(QString::fromUtf8(mail)).captured(1));
        QVERIFY(!ids.first().isEmpty() && !ids.last().isEmpty());
        QVERIFY(ids.first() != ids.last());
    }

    void unusableSettings_data()
    {
        QTest::addColumn<QString>("from");
        QTest::addColumn<QString>("to");
        QTest::addColumn<QString>("user");
        QTest::addColumn<QString>("result");
        const QString good = u"a@example.org"_s;
        const auto bad = [](const QString& address) {
            return u"\"%1\" is not a plain mail address"_s.arg(address);
        };
        QTest::newRow("sender-with-name")
            << u"Tarn <a@example.org>"_s << good << QString() << bad(u"Tarn <a@example.org>"_s);
        QTest::newRow("sender-closes-bracket")
            << u"a@example.org> SIZE=1"_s << good << QString() << bad(u"a@example.org> SIZE=1"_s);
        QTest::newRow("recipient-closes-bracket")
            << good << u"a>b@example.org"_s << QString() << bad(u"a>b@example.org"_s);
        QTest::newRow("recipient-opens-bracket")
            << good << u"a<b@example.org"_s << QString() << bad(u"a<b@example.org"_s);
        QTest::newRow("recipient-with-blank")
            << good << u"a b@example.org"_s << QString() << bad(u"a b@example.org"_s);
        QTest::newRow("recipient-with-other-blank")
            << good << u"a\u00a0b@example.org"_s << QString() << bad(u"a\u00a0b@example.org"_s);
        QTest::newRow("recipient-with-line-feed")
            << good << u"a@example.org\nDATA"_s << QString() << bad(u"a@example.org DATA"_s);
        QTest::newRow("recipient-with-carriage-return")
            << good << u"a@example.org\rDATA"_s << QString() << bad(u"a@example.org DATA"_s);
        QTest::newRow("recipient-with-nul")
            << good << u"a\0b@example.org"_s << QString() << bad(u"a b@example.org"_s);
        QTest::newRow("recipient-with-del")
            << good << u"a\u007fb@example.org"_s << QString() << bad(u"a b@example.org"_s);
        QTest::newRow("recipient-is-half-a-character")
            << good << u"a"_s + QChar(0xd83d) + u"@example.org"_s << QString()
            << bad(u"a"_s + QChar(0xd83d) + u"@example.org"_s);
        QTest::newRow("recipient-empty") << good << u""_s << QString() << bad(u""_s);
        QTest::newRow("nul-in-user") << good << good << u"alerts\0x"_s
                                     << u"smtp_user or smtp_password contains a NUL character"_s;
    }
    void unusableSettings()
    {
        QFETCH(const QString, from);
        QFETCH(const QString, to);
        QFETCH(const QString, user);
        test::FakeSmtp server;
        QVERIFY(server.takeMail());
        Config config = mailConfig();
        config.smtpPort = server.port();
        config.smtpUser = user;
        config.mailFrom = from;
        config.mailTo = QStringList{u"first@example.org"_s, to};
        QTEST(Smtp(config).send(kSubject, kText), "result");
        server.stop();
        QCOMPARE(server.sessions(), 0);
    }

    void unusablePorts_data()
    {
        QTest::addColumn<int>("more");
        QTest::newRow("zero") << 0;
        QTest::newRow("negative") << -1;
        // A port of 16 bits would be the server's.
        QTest::newRow("beyond-16-bits") << 65'536;
        QTest::newRow("greatest") << 0x7fff0000;
    }
    void unusablePorts()
    {
        QFETCH(const int, more);
        test::FakeSmtp server;
        QVERIFY(server.takeMail());
        Config config = mailConfig();
        config.smtpPort = more > 0 ? server.port() + more : more;
        QCOMPARE(Smtp(config).send(kSubject, kText),
                 u"cannot connect to 127.0.0.1:%1: no such port"_s.arg(config.smtpPort));
        server.stop();
        QCOMPARE(server.sessions(), 0);
    }

    void nobodyListens_data()
    {
        QTest::addColumn<QString>("security");
        for (const char* security : {"none", "starttls", "ssl"})
            QTest::newRow(security) << QString::fromLatin1(security);
    }
    void nobodyListens()
    {
        QFETCH(const QString, security);
        Config config = mailConfig();
        config.smtpSecurity = security;
        {
            QTcpServer gone;
            QVERIFY(gone.listen(QHostAddress::LocalHost));
            config.smtpPort = gone.serverPort();
        }
        QCOMPARE(Smtp(config).send(kSubject, kText),
                 u"cannot connect to 127.0.0.1:%1: Connection refused"_s.arg(config.smtpPort));
    }

    void hostsThatAreNone_data()
    {
        QTest::addColumn<QString>("host");
        QTest::newRow("blank") << u"no such"_s;
        QTest::newRow("placeholder") << u"%1 %2 %3"_s;
        QTest::newRow("too-long") << QString(300, u'x');
        QTest::newRow("dots") << u".."_s;
    }
    void hostsThatAreNone()
    {
        QFETCH(const QString, host);
        Config config = mailConfig();
        config.smtpHost = host;
        config.smtpPort = 25;
        const QString result = Smtp(config).send(kSubject, kText);
        const QString start = u"cannot connect to "_s + host + u":25: "_s;
        QVERIFY2(result.startsWith(start) && result.size() > start.size(), qPrintable(result));
    }

    /// A mail that waits holds up neither the timers nor the mail of another alert.
    void othersRunWhileTheServerSaysNothing()
    {
        test::FakeSmtp silent;
        QVERIFY(silent.play({"SILENCE"}));
        Config config = mailConfig();
        config.smtpPort = silent.port();
        test::FakeSmtp other;
        const Config good = namedServer(other);
        QStringList inside;
        QTimer::singleShot(
            500, this, [&] { inside.append(Smtp(good, {QHostAddress::LocalHost}).send(kSubject, kText)); });
        Pulse pulse;
        QCOMPARE(Smtp(config).send(kSubject, kText), kStopped);
        QCOMPARE(inside, QStringList{QString()});
        QCOMPARE(other.mails().size(), 1);
        QVERIFY2(pulse.longestGapMs() < 3'000, qPrintable(QString::number(pulse.longestGapMs())));
    }

    /// The job inside the wait serves the mail's socket as well, and nobody reads what it takes.
    void aFloodWhileAnotherJobRuns()
    {
        test::FakeSmtp server;
        QVERIFY(server.play({"FLOOD 220-more\\n"}));
        Config config = mailConfig();
        config.smtpPort = server.port();
        QTimer::singleShot(0, this, [] { QTest::qWait(2'000); });
        QCOMPARE(Smtp(config).send(kSubject, kText), u"220-more"_s);
        server.stop();
        QCOMPARE(server.complaints(), QStringList());
        QVERIFY2(server.floodedBytes() < 16'777'216, qPrintable(QString::number(server.floodedBytes())));
    }

    void interrupted_data()
    {
        QTest::addColumn<QList<QByteArray>>("script");
        QTest::addColumn<QString>("security");
        QTest::addColumn<QString>("result");
        QTest::newRow("greeting") << QList<QByteArray>{"SILENCE"} << u"none"_s << u"interrupted"_s;
        QTest::newRow("handshake") << QList<QByteArray>{"SILENCE"} << u"ssl"_s
                                   << u"cannot connect to 127.0.0.1:%1: interrupted"_s;
    }
    void interrupted()
    {
        QFETCH(const QList<QByteArray>, script);
        QFETCH(const QString, security);
        QFETCH(QString, result);
        test::FakeSmtp server;
        QVERIFY(server.play(script));
        Config config = mailConfig();
        config.smtpPort = server.port();
        config.smtpSecurity = security;
        QString said;
        const std::unique_ptr<QThread> client(
            QThread::create([&] { said = Smtp(config).send(kSubject, kText); }));
        QElapsedTimer timer;
        timer.start();
        client->start();
        QTRY_COMPARE(server.sessions(), 1);
        client->exit();
        QVERIFY(client->wait(60'000));
        QVERIFY2(timer.elapsed() < kPromptMs, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(said, result.replace(u"%1"_s, QString::number(server.port())));
    }

    void everyAddressIsTried_data()
    {
        QTest::addColumn<QStringList>("addresses");
        const QString dead = u"127.0.0.2"_s;
        const QString refuses = u"127.0.0.3"_s;
        const QString good = u"127.0.0.1"_s;
        QTest::newRow("good") << QStringList{good};
        QTest::newRow("behind-one-that-refuses") << QStringList{refuses, good};
        QTest::newRow("behind-a-black-hole") << QStringList{dead, good};
        QTest::newRow("behind-both") << QStringList{dead, refuses, dead, good};
        QTest::newRow("before-a-black-hole") << QStringList{good, dead};
    }
    void everyAddressIsTried()
    {
        QFETCH(const QStringList, addresses);
        test::FakeSmtp server;
        const Config config = namedServer(server);
        const BlackHole hole("127.0.0.2", server.port());
        QList<QHostAddress> all;
        for (const QString& address : addresses)
            all.append(QHostAddress(address));
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(Smtp(config, all).send(kSubject, kText), QString());
        QCOMPARE(server.mails().size(), 1);
        QVERIFY2(timer.elapsed() < kPromptMs, qPrintable(QString::number(timer.elapsed())));
    }

    void allAddressesShareTheTime_data()
    {
        QTest::addColumn<QString>("security");
        for (const char* security : {"none", "ssl"})
            QTest::newRow(security) << QString::fromLatin1(security);
    }
    void allAddressesShareTheTime()
    {
        QFETCH(const QString, security);
        test::FakeSmtp server;
        Config config = namedServer(server);
        config.smtpSecurity = security;
        const BlackHole hole("127.0.0.2", server.port());
        QElapsedTimer timer;
        timer.start();
        const QHostAddress dead(u"127.0.0.2"_s);
        QCOMPARE(Smtp(config, {dead, dead, dead}).send(kSubject, kText),
                 u"cannot connect to mail.test:%1: Socket operation timed out"_s.arg(config.smtpPort));
        QVERIFY2(timer.elapsed() >= kWaitMs - 50 && timer.elapsed() < kWaitMs + 3'000,
                 qPrintable(QString::number(timer.elapsed())));
    }

    void certificatesNameTheConfiguredHost_data()
    {
        QTest::addColumn<QString>("security");
        QTest::addColumn<bool>("isNamed");
        for (const char* security : {"starttls", "ssl"}) {
            QTest::addRow("%s-name", security) << QString::fromLatin1(security) << true;
            QTest::addRow("%s-address", security) << QString::fromLatin1(security) << false;
        }
    }
    void certificatesNameTheConfiguredHost()
    {
        QFETCH(const QString, security);
        QFETCH(const bool, isNamed);
        const test::TestAuthority& authority = isNamed ? m_otherName : m_authority;
        test::FakeSmtp server;
        Config config = mailConfig();
        if (security == u"ssl") {
            QVERIFY(server.play({"TLS", "S: 554 no mail today", "SILENCE"}, &authority));
        } else {
            QVERIFY(server.takeMail(&authority));
        }
        config.smtpHost = u"mail.test"_s;
        config.smtpPort = server.port();
        config.smtpSecurity = security;
        const QString result = Smtp(config, {QHostAddress::LocalHost}).send(kSubject, kText);
        if (isNamed) {
            QCOMPARE(result, security == u"ssl" ? u"554 no mail today"_s : QString());
        } else {
            QVERIFY2(result.contains(u"host name"_s), qPrintable(result));
            QVERIFY(server.mails().isEmpty());
        }
    }

    void neverThroughAProxy()
    {
        test::FakeSmtp server;
        QVERIFY(server.takeMail());
        QTcpServer proxy;
        QVERIFY(proxy.listen(QHostAddress::LocalHost));
        QNetworkProxy::setApplicationProxy({QNetworkProxy::HttpProxy, u"127.0.0.1"_s, proxy.serverPort()});
        Config config = mailConfig();
        // This machine as well, but for Qt no loopback address, which is never sent to a proxy.
        config.smtpHost = u"0.0.0.0"_s;
        config.smtpPort = server.port();
        const QString result = Smtp(config).send(kSubject, kText);
        QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
        QCOMPARE(result, QString());
        QVERIFY(!proxy.hasPendingConnections());
        QCOMPARE(server.mails().size(), 1);
    }

    void realServer()
    {
        test::MailServer server;
        QVERIFY(server.start(m_authority, u"correct horse"_s));
        Config config = mailConfig();
        config.smtpHost = u"localhost"_s;
        config.smtpPort = server.port();
        config.smtpSecurity = u"starttls"_s;
        config.smtpUser = u"alerts"_s;
        config.smtpPassword = u"correct horse"_s;
        config.mailTo = QStringList{u"admin@example.org"_s, u"jürgen@example.org"_s};
        const QString text = u"Größe\n.\n..\n"_s + QString(5'000, u'x');
        QCOMPARE(Smtp(config).send(u"[wéb1] Größe"_s, text), QString());

        const QJsonObject taken = server.nextMail();
        QCOMPARE(taken[u"user"].toString(), u"alerts"_s);
        QVERIFY(taken[u"tls"].toBool());
        QCOMPARE(taken[u"from"].toString(), u"tarn@example.org"_s);
        QCOMPARE(taken[u"to"].toArray(), QJsonArray({u"admin@example.org"_s, u"jürgen@example.org"_s}));
        const QJsonObject mail =
            test::parsedMail(QByteArray::fromBase64(taken[u"mail"].toString().toLatin1()));
        QCOMPARE(mail[u"subject"].toString(), u"[wéb1] Größe"_s);
        QCOMPARE(mail[u"text"].toString(), text);
        QVERIFY(std::abs(mail[u"at"].toInteger() - QDateTime::currentSecsSinceEpoch()) < 60);

        config.smtpPassword = u"battery staple"_s;
        const QString refusal = Smtp(config).send(kSubject, kText);
        QVERIFY2(refusal.startsWith(u"sign-in refused: 535 "), qPrintable(refusal));
        config.smtpUser.clear();
        QVERIFY(Smtp(config).send(kSubject, kText).startsWith(u"530 "));
        config.smtpSecurity = u"none"_s;
        QVERIFY(Smtp(config).send(kSubject, kText).startsWith(u"530 "));
    }
};

QTEST_GUILESS_MAIN(tst_Smtp)
#include "tst_Smtp.moc"
