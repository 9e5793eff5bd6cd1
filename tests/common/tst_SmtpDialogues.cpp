#include "common/Smtp.h"
#include "common/SmtpTest.h"
#include "support/FakeSmtp.h"

#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QRegularExpression>
#include <QThread>

#include <memory>
#include <vector>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;
using notify::Smtp;

namespace {

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

} // namespace

/// What both sides say, session by session, in all that a server can say or leave unsaid.
class tst_SmtpDialogues : public SmtpTest
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

    QHash<QByteArray, Outcome> m_outcomes;

private Q_SLOTS:
    void initTestCase()
    {
        makeAuthorities();
        test::TestAuthority unknown;
        QVERIFY(unknown.make({u"127.0.0.1"_s}));
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
};

QTEST_GUILESS_MAIN(tst_SmtpDialogues)
#include "tst_SmtpDialogues.moc"
