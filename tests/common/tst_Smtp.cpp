#include "common/Notify.h"
#include "common/Smtp.h"
#include "support/CpuTime.h"
#include "support/FakeSmtp.h"
#include "support/HostileTexts.h"
#include "support/MailTools.h"
#include "support/TestAuthority.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QHostAddress>
#include <QJsonArray>
#include <QNetworkProxy>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <QUuid>

#include <ctime>
#include <memory>
#include <vector>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using notify::Config;
using notify::Smtp;

namespace {

const auto kSubject = u"[web1] Memory 93% used"_s;
const auto kText = u"Memory 93% used on web1.\n\nTime: 2024-06-15 09:30 UTC"_s;
const auto kStopped = u"mail server stopped answering"_s;

/// Longer than anything takes that does not wait out the client's 10 seconds.
constexpr qint64 kPromptMs = 9'500;
constexpr qint64 kWaitMs = 10'000;

Config mailConfig()
{
    Config config;
    config.host = u"web1"_s;
    config.smtpHost = u"127.0.0.1"_s;
    config.smtpSecurity = u"none"_s;
    config.mailFrom = u"tarn@example.org"_s;
    config.mailTo = QStringList{u"admin@example.org"_s};
    return config;
}

enum class Trust : quint8 { Known, UnknownAuthority, OtherName };

/// A session: what the client is to do, what the server does, and how it is to end.
struct Dialogue
{
    QByteArray name;
    Config config = mailConfig();
    QString result = {}; ///< with <port> for the port, and at the end <any> for any text
    QList<QByteArray> script = {};
    qint64 leastMs = 0;
    qint64 mostMs = kPromptMs;
    Trust trust = Trust::Known;
};

struct Outcome
{
    QString result;
    qint64 ms = 0;
    quint16 port = 0;
    QList<QByteArray> commands;
    QList<QByteArray> mails;
    QStringList complaints;
    qint64 floodedBytes = 0;
};

/// The sections of a file of dialogues: "[name]", settings, steps.
QList<Dialogue> readDialogues(const QString& name)
{
    QFile file(QStringLiteral(TARN_TEST_DATA) + u"/smtp/"_s + name);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(file.fileName()));
    QList<Dialogue> all;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray& line : lines) {
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        if (line.startsWith('[')) {
            all.append({.name = line.mid(1, line.size() - 2)});
            continue;
        }
        Dialogue& dialogue = all.last();
        const QString value = QString::fromUtf8(line.mid(line.indexOf(": ") + 2));
        if (line.startsWith("security: ")) {
            dialogue.config.smtpSecurity = value;
        } else if (line.startsWith("user: ")) {
            dialogue.config.smtpUser = value;
        } else if (line.startsWith("password: ")) {
            dialogue.config.smtpPassword = value;
        } else if (line.startsWith("from: ")) {
            dialogue.config.mailFrom = value;
        } else if (line.startsWith("to: ")) {
            dialogue.config.mailTo = value.split(u' ');
        } else if (line.startsWith("result: ")) {
            dialogue.result = value;
        } else {
            dialogue.script.append(line);
        }
    }
    return all;
}

Dialogue named(const QList<Dialogue>& all, const QByteArray& name)
{
    for (const Dialogue& dialogue : all) {
        if (dialogue.name == name)
            return dialogue;
    }
    qFatal("no dialogue %s", name.constData());
}

/// The dialogue @p whole, ended by @p end in place of each of the server's moves in turn.
QList<Dialogue> endedEverywhere(const Dialogue& whole, const QByteArray& prefix, const QByteArray& end)
{
    QList<Dialogue> all;
    QByteArray before = "connecting";
    for (qsizetype i = 0; i < whole.script.size(); ++i) {
        const QByteArray& step = whole.script.at(i);
        if (step.startsWith('C')) {
            before = QByteArray::number(i) + '-' + step.mid(3).split(' ').first().toLower();
            continue;
        }
        if (i > 0 && step.startsWith('S') && whole.script.at(i - 1).startsWith('S'))
            continue; // another line of the same reply
        Dialogue cut = whole;
        cut.name = prefix + before + (step == "TLS" ? "-tls" : "");
        cut.script = whole.script.first(i) + QList<QByteArray>{end};
        cut.result = kStopped;
        if (step == "TLS") {
            cut.result = i == 0 ? u"cannot connect to 127.0.0.1:<port>: "_s : u"STARTTLS failed: "_s;
            cut.result += end == "SILENCE" ? u"Network operation timed out"_s : u"<any>"_s;
        } else if (before.endsWith("auth")) {
            cut.result = u"sign-in refused: "_s + kStopped;
        } else if (before.endsWith("quit")) {
            cut.result = u""_s;
        }
        all.append(cut);
    }
    return all;
}

QList<Dialogue> withWait(QList<Dialogue> all, qint64 leastMs)
{
    for (Dialogue& dialogue : all) {
        dialogue.leastMs = leastMs;
        dialogue.mostMs = leastMs + kPromptMs;
    }
    return all;
}

Dialogue greetedWith(const QByteArray& name, const QList<QByteArray>& script, const QString& result)
{
    return {.name = name, .result = result, .script = script};
}

/// Replies that no honest server gives.
QList<Dialogue> oddReplies()
{
    const QByteArray nul(1, '\0');
    QList<Dialogue> all = {
        // An empty text would mean success.
        greetedWith("reply-empty", {"S: "}, u"mail server sent an empty reply"_s),
        greetedWith("reply-of-blanks", {"S:     \t "}, u"mail server sent an empty reply"_s),
        greetedWith("reply-with-controls", {"S: 554 one\atwo \tthree" + nul + "four\x1b[0m"},
                    u"554 one two  three four [0m"_s),
        greetedWith("reply-300-characters", {"S: 554 " + QByteArray(296, 'x')},
                    u"554 "_s + QString(296, u'x')),
        greetedWith("reply-301-characters", {"S: 554 " + QByteArray(297, 'x')},
                    u"554 "_s + QString(296, u'x')),
        greetedWith("reply-cut-in-a-character",
                    {"S: 554 " + QByteArray(295, 'x') + QByteArray("\xf0\x9f\x94\x94 bell")},
                    u"554 "_s + QString(295, u'x')),
        greetedWith("reply-two-bytes-a-character", {"S: 554 " + QByteArray("\xc3\xbc").repeated(400)},
                    u"554 "_s + QString(296, u'ü')),
        greetedWith("reply-not-utf-8", {QByteArray("S: 554 f\xfcr")}, u"554 f\ufffdr"_s),
        greetedWith("line-within-bounds", {"S: 554 " + QByteArray(4'000, 'x')},
                    u"554 "_s + QString(296, u'x')),
        greetedWith("line-too-long", {"S: 220 " + QByteArray(5'000, 'x'), "SILENCE"},
                    u"220 "_s + QString(296, u'x')),
        greetedWith("line-without-end", {"FLOOD 220 "}, u"220 "_s.repeated(75)),
        greetedWith("lines-without-end", {"FLOOD 220-more\\n"}, u"220-more"_s),
        greetedWith("empty-lines-without-end", {"FLOOD \\n"}, u"mail server sent an empty reply"_s),
        greetedWith("cut-after-the-greeting", {"S: 220 mail.test ready", "CLOSE"}, kStopped),
        greetedWith("line-cut", {"S-part: 220 mail", "CLOSE"}, kStopped),
        greetedWith("continuation-cut", {"S: 220-mail", "CLOSE"}, kStopped),
    };
    all += withWait(
        {
            greetedWith("line-silent", {"S-part: 220 mail", "SILENCE"}, kStopped),
            greetedWith("continuation-silent", {"S: 220-mail", "SILENCE"}, kStopped),
        },
        kWaitMs);
    all += withWait(
        {
            greetedWith("line-trickles", {"TRICKLE 2"}, kStopped),
            greetedWith("lines-trickle", {"TRICKLE 220-more\\n"}, kStopped),
        },
        3 * kWaitMs);
    return all;
}

/// Handshakes that come to nothing.
QList<Dialogue> failedHandshakes(const Dialogue& starttls, const Dialogue& implicit)
{
    const qsizetype tls = starttls.script.indexOf("TLS");
    QList<Dialogue> all;
    for (const Trust trust : {Trust::UnknownAuthority, Trust::OtherName}) {
        const QByteArray name = trust == Trust::OtherName ? "certificate-of-other-name" : "unknown-authority";
        Dialogue one = implicit;
        one.name = name;
        one.result = u"cannot connect to 127.0.0.1:<port>: <any>"_s;
        one.trust = trust;
        one.script = {"TLS"};
        all.append(one);
        Dialogue two = starttls;
        two.name = name + "-starttls";
        two.result = u"STARTTLS failed: <any>"_s;
        two.trust = trust;
        two.script = starttls.script.first(tls + 1);
        all.append(two);
    }
    Dialogue plain = implicit;
    plain.name = "implicit-tls-with-a-plain-server";
    plain.script = {"S: 220 mail.test ready", "SILENCE"};
    plain.result = u"cannot connect to 127.0.0.1:<port>: <any>"_s;
    all.append(plain);
    Dialogue garbage = starttls;
    garbage.name = "words-in-the-handshake";
    garbage.script =
        starttls.script.first(tls) + QList<QByteArray>{"PAUSE 500", "S: 250 mail.test", "SILENCE"};
    garbage.result = u"STARTTLS failed: <any>"_s;
    all.append(garbage);
    return all;
}

/// Many sessions at once, each with its own server and in its own thread, since many wait for nothing.
class Sessions
{
public:
    Sessions(const QList<Dialogue>& dialogues, const test::TestAuthority& known,
             const test::TestAuthority& unknown, const test::TestAuthority& otherName)
    {
        for (const Dialogue& dialogue : dialogues) {
            const test::TestAuthority& authority = dialogue.trust == Trust::Known       ? known
                                                   : dialogue.trust == Trust::OtherName ? otherName
                                                                                        : unknown;
            auto session = std::make_unique<Session>();
            if (!session->server.play(dialogue.script, &authority))
                qFatal("no port for %s", dialogue.name.constData());
            session->config = dialogue.config;
            session->config.smtpPort = session->server.port();
            session->name = dialogue.name;
            m_sessions.push_back(std::move(session));
        }
        for (const auto& session : m_sessions) {
            session->client.reset(QThread::create([session = session.get()] {
                QElapsedTimer timer;
                timer.start();
                session->result = Smtp(session->config).send(kSubject, kText);
                session->ms = timer.elapsed();
            }));
            session->client->start();
        }
    }

    QHash<QByteArray, Outcome> outcomes()
    {
        QHash<QByteArray, Outcome> all;
        for (const auto& session : m_sessions) {
            session->client->wait();
            session->server.stop();
            all.insert(session->name, {session->result, session->ms, session->server.port(),
                                       session->server.commands(), session->server.mails(),
                                       session->server.complaints(), session->server.floodedBytes()});
        }
        return all;
    }

private:
    struct Session
    {
        QByteArray name;
        Config config;
        test::FakeSmtp server;
        std::unique_ptr<QThread> client;
        QString result;
        qint64 ms = 0;
    };

    std::vector<std::unique_ptr<Session>> m_sessions;
};

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

/// This process's time zone while it lives.
class Zone
{
public:
    explicit Zone(const char* name) { set(name); }
    ~Zone() { set("UTC"); }
    Zone(const Zone&) = delete;
    Zone& operator=(const Zone&) = delete;

private:
    static void set(const char* name)
    {
        qputenv("TZ", name);
        tzset();
    }
};

} // namespace

class tst_Smtp : public QObject
{
    Q_OBJECT

private:
    QList<Dialogue> allDialogues() const
    {
        const QList<Dialogue> taken = readDialogues(u"taken.txt"_s);
        const Dialogue longest = named(taken, "starttls-and-sign-in");
        const Dialogue implicit = named(taken, "implicit-tls");
        QList<Dialogue> all = oddReplies() + failedHandshakes(longest, implicit);
        for (Dialogue dialogue : taken) {
            dialogue.name.prepend("taken-");
            all.append(dialogue);
        }
        const QList<Dialogue> refused = readDialogues(u"refused.txt"_s);
        for (Dialogue dialogue : refused) {
            dialogue.name.prepend("refused-");
            all.append(dialogue);
        }
        all += withWait(endedEverywhere(longest, "silent-after-", "SILENCE"), kWaitMs);
        all += endedEverywhere(longest, "cut-after-", "CLOSE");
        Dialogue handshake = endedEverywhere(implicit, "silent-in-", "SILENCE").first();
        all += withWait({handshake}, kWaitMs);
        handshake = endedEverywhere(implicit, "cut-in-", "CLOSE").first();
        all.append(handshake);

        // Each piece in time, all together later than the 10 seconds of one wait.
        Dialogue pieces = named(taken, "plain");
        pieces.name = "taken-in-slow-pieces";
        pieces.script.first() = "S-part: 220 ";
        pieces.script.insert(1, {"PAUSE 6000"});
        pieces.script.insert(2, {"S-part: mail"});
        pieces.script.insert(3, {"PAUSE 6000"});
        pieces.script.insert(4, {"S: .test ready"});
        all += withWait({pieces}, 12'000);
        return all;
    }

    static QByteArray mailOf(const Config& config, const QString& subject)
    {
        return notify::mailMessage(config, subject, kText, QDateTime::currentDateTime(), QUuid::createUuid());
    }

    static qsizetype longestLine(const QByteArray& mail)
    {
        qsizetype longest = 0;
        for (const QByteArray& line : mail.split('\n'))
            longest = std::max(longest, line.size() - 1); // the CR
        return longest;
    }

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

    test::TestAuthority m_authority;
    test::TestAuthority m_otherName; ///< mail.test
    QHash<QByteArray, Outcome> m_outcomes;

private Q_SLOTS:
    void initTestCase()
    {
        test::TestAuthority unknown;
        QVERIFY(m_authority.make({u"127.0.0.1"_s, u"localhost"_s}));
        QVERIFY(unknown.make({u"127.0.0.1"_s}));
        QVERIFY(m_otherName.make({u"mail.test"_s}));
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.setCaCertificates(QSslCertificate::fromPath(m_authority.file())
                                        + QSslCertificate::fromPath(m_otherName.file()));
        QSslConfiguration::setDefaultConfiguration(configuration);
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_outcomes = Sessions(allDialogues(), m_authority, unknown, m_otherName).outcomes();
    }
    void cleanupTestCase() { test::TestAuthority::trustSystem(); }

    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void dialogue_data()
    {
        QTest::addColumn<Dialogue>("dialogue");
        const QList<Dialogue> all = allDialogues();
        for (const Dialogue& dialogue : all)
            QTest::newRow(dialogue.name.constData()) << dialogue;
    }
    void dialogue()
    {
        QFETCH(const Dialogue, dialogue);
        const Outcome outcome = m_outcomes.value(dialogue.name);
        QCOMPARE(outcome.complaints, QStringList());
        QString expected = dialogue.result;
        expected.replace(u"<port>"_s, QString::number(outcome.port));
        if (expected.endsWith(u"<any>")) {
            expected.chop(5);
            QVERIFY2(outcome.result.startsWith(expected) && outcome.result.size() > expected.size() + 5,
                     qPrintable(outcome.result));
            QVERIFY2(!outcome.result.contains(u"Unknown error"), qPrintable(outcome.result));
        } else {
            QCOMPARE(outcome.result, expected);
        }
        const QByteArray took = QByteArray::number(outcome.ms) + " ms";
        QVERIFY2(outcome.ms >= dialogue.leastMs - 50 && outcome.ms <= dialogue.mostMs, took.constData());
        const bool mailSent = dialogue.script.contains("C-mail");
        QCOMPARE(outcome.mails.size(), mailSent ? 1 : 0);
        if (mailSent) {
            QVERIFY(outcome.mails.first().startsWith(
                "From: Tarnhold <" + dialogue.config.mailFrom.toUtf8()
                + ">\r\nTo: " + dialogue.config.mailTo.join(u", "_s).toUtf8() + "\r\nSubject: =?UTF-8?B?"));
        }
        // What the sockets on both sides hold is a few megabytes.
        QVERIFY2(outcome.floodedBytes < 16'777'216, qPrintable(QString::number(outcome.floodedBytes)));
    }

    void nothingIsSaidInClearAfterAFailedHandshake()
    {
        int looked = 0;
        for (auto it = m_outcomes.cbegin(); it != m_outcomes.cend(); ++it) {
            if (!it->result.startsWith(u"STARTTLS failed: "))
                continue;
            ++looked;
            QVERIFY2(it->commands.size() == 2, it.key().constData());
            QCOMPARE(it->commands.last(), QByteArray("STARTTLS"));
        }
        QCOMPARE(looked, 7);
    }

    void mailText()
    {
        Config config = mailConfig();
        config.mailTo = QStringList{u"one@example.org"_s, u"two@example.org"_s};
        const QDateTime now(QDate(2024, 6, 5), QTime(9, 30, 7));
        const QUuid id(u"{67c8770b-44f1-410a-ab9a-f9b5446f13ee}"_s);
        QCOMPARE(notify::mailMessage(config, u"[web1] Größe"_s, u"1234567890"_s, now, id),
                 QByteArray("From: Tarnhold <tarn@example.org>\r\n"
                            "To: one@example.org, two@example.org\r\n"
                            "Subject: =?UTF-8?B?W3dlYjFdIEdyw7bDn2U=?=\r\n"
                            "Date: Wed, 05 Jun 2024 09:30:07 +0000\r\n"
                            "Message-ID: <67c8770b-44f1-410a-ab9a-f9b5446f13ee@example.org>\r\n"
                            "MIME-Version: 1.0\r\n"
                            "Content-Type: text/plain; charset=utf-8\r\n"
                            "Content-Transfer-Encoding: base64\r\n"
                            "\r\n"
                            "MTIzNDU2Nzg5MA==\r\n"));
    }

    void textLines_data()
    {
        QTest::addColumn<int>("bytes");
        QTest::addColumn<QList<qsizetype>>("lengths");
        QTest::newRow("empty") << 0 << QList<qsizetype>{};
        QTest::newRow("one-byte") << 1 << QList<qsizetype>{4};
        QTest::newRow("a-full-line") << 57 << QList<qsizetype>{76};
        QTest::newRow("a-full-line-plus-one") << 58 << QList<qsizetype>{76, 4};
        QTest::newRow("two-full-lines") << 114 << QList<qsizetype>{76, 76};
        QTest::newRow("three-lines") << 120 << QList<qsizetype>{76, 76, 8};
    }
    void textLines()
    {
        QFETCH(const int, bytes);
        const QByteArray mail = notify::mailMessage(mailConfig(), kSubject, QString(bytes, u'x'),
                                                    QDateTime::currentDateTime(), QUuid::createUuid());
        const QByteArray content = mail.sliced(mail.indexOf("\r\n\r\n") + 4);
        QVERIFY(content.isEmpty() || content.endsWith("\r\n"));
        QList<qsizetype> lengths;
        for (qsizetype start = 0; start < content.size(); start = content.indexOf('\n', start) + 1)
            lengths.append(content.indexOf("\r\n", start) - start);
        QTEST(lengths, "lengths");
        QCOMPARE(QByteArray::fromBase64(content), QByteArray(bytes, 'x'));
    }

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

    void messageIdDomain_data()
    {
        QTest::addColumn<QString>("from");
        QTest::addColumn<QByteArray>("end");
        QTest::newRow("usual") << u"tarn@example.org"_s << QByteArray("@example.org>");
        QTest::newRow("behind-the-first-at") << u"a@b@example.org"_s << QByteArray("@b@example.org>");
        QTest::newRow("no-domain") << u"root"_s << QByteArray("@root>");
    }
    void messageIdDomain()
    {
        QFETCH(const QString, from);
        QFETCH(const QByteArray, end);
        Config config = mailConfig();
        config.mailFrom = from;
        const QUuid id = QUuid::createUuid();
        QVERIFY(notify::mailMessage(config, kSubject, kText, QDateTime::currentDateTime(), id)
                    .contains("\r\nMessage-ID: <" + id.toByteArray(QUuid::WithoutBraces) + end + "\r\n"));
    }

    void readBackByAnotherParser_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::addColumn<QString>("subject");
        QTest::addColumn<QString>("text");
        QTest::newRow("plain") << QByteArray("UTC") << kSubject << kText;
        QTest::newRow("east") << QByteArray("Europe/Berlin") << kSubject << kText;
        QTest::newRow("half-an-hour-east") << QByteArray("Asia/Kolkata") << kSubject << kText;
        QTest::newRow("three-quarters") << QByteArray("Asia/Kathmandu") << kSubject << kText;
        QTest::newRow("half-an-hour-west") << QByteArray("America/St_Johns") << kSubject << kText;
        QTest::newRow("west-less-than-an-hour") << QByteArray("XXX0:30") << kSubject << kText;
        QTest::newRow("far-west") << QByteArray("Pacific/Pago_Pago") << kSubject << kText;
        QTest::newRow("far-east") << QByteArray("Pacific/Kiritimati") << kSubject << kText;
        QTest::newRow("beyond-ascii")
            << QByteArray("UTC") << u"[wéb1] Größe – 磁盘 🔔"_s << u"Größe\n– 磁盘 🔔"_s.repeated(20);
        QTest::newRow("long-subject")
            << QByteArray("UTC") << u"Service x is not running. "_s.repeated(40).trimmed() << kText;
        QTest::newRow("dots-and-froms") << QByteArray("UTC") << kSubject << u".\n..\nFrom here\n.\n"_s;
        QTest::newRow("looks-encoded") << QByteArray("UTC") << u"=?UTF-8?B?eA==?= ?="_s << u"=20=\n"_s;
    }
    void readBackByAnotherParser()
    {
        QFETCH(const QByteArray, zone);
        QFETCH(const QString, subject);
        QFETCH(const QString, text);
        const Zone local(zone.constData());
        // Neither the language nor the digits of the place may show.
        QLocale::setDefault(QLocale(u"ar_EG"_s));
        Config config = mailConfig();
        config.mailTo = QStringList{u"one@example.org"_s, u"two@example.org"_s};
        const QDateTime now(QDate(2024, 3, 5), QTime(9, 5, 7));
        const QJsonObject mail =
            test::parsedMail(notify::mailMessage(config, subject, text, now, QUuid::createUuid()));
        QLocale::setDefault(QLocale::c());
        QCOMPARE(mail[u"defects"].toArray(), QJsonArray());
        QCOMPARE(mail[u"from"].toString(), u"Tarnhold <tarn@example.org>"_s);
        QCOMPARE(mail[u"to"].toArray(), QJsonArray({u"one@example.org"_s, u"two@example.org"_s}));
        QCOMPARE(mail[u"subject"].toString(), subject);
        QCOMPARE(mail[u"text"].toString(), text);
        QCOMPARE(mail[u"at"].toInteger(), now.toSecsSinceEpoch());
        QCOMPARE(mail[u"offset"].toInt(), now.offsetFromUtc());
        QCOMPARE(mail[u"headers"].toArray().size(), 8);
    }

    void longRecipients_data()
    {
        QTest::addColumn<int>("bytes");
        QTest::addColumn<bool>("folded");
        QTest::newRow("longest-line") << 998 << false;
        QTest::newRow("longest-line-plus-one") << 999 << true;
        QTest::newRow("hundreds") << 20'000 << true;
    }
    void longRecipients()
    {
        QFETCH(const int, bytes);
        QFETCH(const bool, folded);
        Config config = mailConfig();
        config.mailTo.clear();
        QString line = u"To: first@example.org"_s;
        while (line.size() < bytes) {
            const qsizetype left = bytes - line.size() - 2;
            config.mailTo.append(QString(left > 60 ? 14 : left - 12, u'x') + u"@example.org"_s);
            line += u", "_s + config.mailTo.last();
        }
        config.mailTo.prepend(u"first@example.org"_s);
        QCOMPARE(line.size(), bytes);
        const QByteArray mail = mailOf(config, kSubject);
        QCOMPARE(mail.contains("\r\n" + line.toUtf8() + "\r\n"), !folded);
        QVERIFY2(longestLine(mail) <= (folded ? 78 : 998), qPrintable(QString::number(longestLine(mail))));
        const QJsonObject read = test::parsedMail(mail);
        QCOMPARE(read[u"defects"].toArray(), QJsonArray());
        QCOMPARE(read[u"to"].toArray(), QJsonArray::fromStringList(config.mailTo));
        QCOMPARE(read[u"headers"].toArray().size(), 8);
    }

    void longSubjects_data()
    {
        QTest::addColumn<QString>("subject");
        QTest::addColumn<bool>("folded");
        // "Subject: =?UTF-8?B?" and "?=" leave 977 bytes, and base64 makes 4 of 3.
        QTest::newRow("longest-line") << QString(732, u'x') << false;
        QTest::newRow("longest-line-plus-one") << QString(733, u'x') << true;
        QTest::newRow("longest-line-of-two-bytes") << QString(366, u'ü') << false;
        QTest::newRow("two-bytes-a-character") << QString(367, u'ü') << true;
        QTest::newRow("three-bytes-a-character") << u"x"_s + QString(400, u'磁') << true;
        QTest::newRow("four-bytes-a-character") << u"xy🔔"_s.repeated(200) << true;
        QTest::newRow("blanks-at-the-borders") << u" x  "_s.repeated(500).trimmed() << true;
    }
    void longSubjects()
    {
        QFETCH(const QString, subject);
        QFETCH(const bool, folded);
        const QByteArray mail = mailOf(mailConfig(), subject);
        QCOMPARE(mail.contains("\r\nSubject: =?UTF-8?B?" + subject.toUtf8().toBase64() + "?=\r\n"), !folded);
        QVERIFY2(longestLine(mail) <= (folded ? 76 : 998), qPrintable(QString::number(longestLine(mail))));
        const QJsonObject read = test::parsedMail(mail);
        QCOMPARE(read[u"defects"].toArray(), QJsonArray());
        QCOMPARE(read[u"subject"].toString(), subject);
        QCOMPARE(read[u"headers"].toArray().size(), 8);
        static const QRegularExpression words(u"=\\?UTF-8\\?B\\?([^?]*)\\?="_s);
        for (const auto& word : words.globalMatch(QString::fromLatin1(mail))) {
            const QByteArray bytes = QByteArray::fromBase64(word.captured(1).toLatin1());
            QCOMPARE(QString::fromUtf8(bytes).toUtf8(), bytes); // no character is cut
        }
    }

    void subjectsStayInTheirHeader()
    {
        const QString subject = u"one\r\nBcc: other@example.org\r\n\r\nx\0y"_s;
        const QJsonObject mail = test::parsedMail(
            notify::mailMessage(mailConfig(), subject, kText, QDateTime::currentDateTime(), QUuid()));
        QCOMPARE(mail[u"subject"].toString(), u"one  Bcc: other@example.org    x y"_s);
        QCOMPARE(mail[u"text"].toString(), kText);
        QCOMPARE(mail[u"headers"].toArray().size(), 8);
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

    void longSignIn()
    {
        test::FakeSmtp server;
        QVERIFY(server.takeMail());
        Config config = mailConfig();
        config.smtpPort = server.port();
        config.smtpUser = u"alerts"_s;
        config.smtpPassword = QString(3'000, u'p');
        QCOMPARE(Smtp(config).send(kSubject, kText), QString());
        server.stop();
        const QByteArray line = server.commands().value(1);
        QVERIFY(line.startsWith("AUTH PLAIN "));
        QCOMPARE(QByteArray::fromBase64(line.sliced(11)),
                 QByteArray("\0alerts\0", 8) + QByteArray(3'000, 'p'));
    }

    void credentialsInReplies_data()
    {
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QString>("shown");
        // AUTH PLAIN AGFsZXJ0cwBjb3JyZWN0IGhvcnNl
        const auto same = [](const char* name, const QString& reply) {
            QTest::newRow(name) << reply << reply;
        };
        same("nothing-of-it", u"535 5.7.8 Authentication credentials invalid"_s);
        same("user", u"535 no user alerts"_s);
        same("short-words", u"535 AGFsZXJ bm9uZQ=="_s);
        same("unrelated-long-word", u"535 AAAABBBBCCCCDDDD"_s);
        QTest::newRow("whole-line") << u"500 AUTH PLAIN AGFsZXJ0cwBjb3JyZWN0IGhvcnNl?"_s
                                    << u"500 AUTH PLAIN ***?"_s;
        QTest::newRow("cut") << u"500 AUTH PLAIN AGFsZXJ0cwBjb3JyZW..."_s << u"500 AUTH PLAIN ***..."_s;
        QTest::newRow("end-only") << u"500 ...3QgaG9yc2U IGhvcnNl b3JyZWN0IGhvcnNl"_s
                                  << u"500 ...3QgaG9yc2U *** ***"_s;
        QTest::newRow("piece-within-a-word")
            << u"500 xxAGFsZXJ0yy, xxAGFsZXJyy"_s << u"500 ***, xxAGFsZXJyy"_s;
        QTest::newRow("part-of-a-word") << u"500 xAGFsZXJ0cwBjb3JyZWN0IGhvcnNly"_s << u"500 ***"_s;
        QTest::newRow("twice") << u"500 AGFsZXJ0cwBjb3JyZWN0IGhvcnNl AGFsZXJ0cwBjb3JyZWN0IGhvcnNl"_s
                               << u"500 *** ***"_s;
        QTest::newRow("decoded") << u"535 no (alerts, correct horse)"_s << u"535 no (alerts, ***)"_s;
        QTest::newRow("password-encoded") << u"535 Y29ycmVjdCBob3JzZQ=="_s << u"535 ***"_s;
    }
    void credentialsInReplies()
    {
        QFETCH(const QString, reply);
        Config config = mailConfig();
        config.smtpUser = u"alerts"_s;
        config.smtpPassword = u"correct horse"_s;
        QTEST(notify::withoutCredentials(reply, config), "shown");
        config.smtpUser.clear();
        QCOMPARE(notify::withoutCredentials(reply, config), reply);
    }

    /// By the ratio within one run, in processor time. Each piece of the sign-in was looked for in the whole
    /// reply: some hundreds of different ones cost a hundred times what plain text does.
    void repliesFullOfCredentialsCostLittleMoreThanPlainOnes_data()
    {
        QTest::addColumn<QString>("reply");
        constexpr qsizetype kBytes = 65'536;
        const auto row = [](const char* name, const QString& unit) {
            QTest::newRow(name) << unit.repeated(kBytes / unit.size());
        };
        row("whole", u"AGFsZXJ0cwBjb3JyZWN0IGhvcnNl "_s);
        row("cut", u"AGFsZXJ0cwBj "_s);
        row("password", u"correct horse"_s);
        row("nearly", u"AGFsZXJ.correct hors."_s);
        QString pieces;
        const QString line = u"AGFsZXJ0cwBjb3JyZWN0IGhvcnNl"_s;
        for (qsizetype size = 8; size <= line.size(); ++size) {
            for (qsizetype at = 0; at + size <= line.size(); ++at)
                pieces += line.sliced(at, size) + u' ';
        }
        row("every-piece", pieces);
        QString longer;
        while (longer.size() < kBytes)
            longer += u"%1AGFsZXJ0cwBjb3JyZWN0IGhvcnNl "_s.arg(longer.size(), 6, 16, QLatin1Char('0'));
        row("within-different-words", longer);
    }
    void repliesFullOfCredentialsCostLittleMoreThanPlainOnes()
    {
        QFETCH(const QString, reply);
        Config config = mailConfig();
        config.smtpUser = u"alerts"_s;
        config.smtpPassword = u"correct horse"_s;
        const auto secondsFor = [&config](const QString& text) {
            return tarn::tests::leastSeconds(5, [&] { notify::withoutCredentials(text, config); });
        };
        const double plain = secondsFor(QString(reply.size(), u'x'));
        const double hostile = secondsFor(reply);
        QVERIFY2(hostile < tarn::tests::kMostTimes * plain,
                 qPrintable(u"%1 us, %2 us"_s.arg(hostile * 1e6).arg(plain * 1e6)));
    }

    void credentialsWithoutPassword()
    {
        Config config = mailConfig();
        config.smtpUser = u"alerts"_s;
        QCOMPARE(notify::withoutCredentials(u"500 AGFsZXJ0cwA= no"_s, config), u"500 *** no"_s);
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
