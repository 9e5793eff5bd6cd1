#include "common/Smtp.h"
#include "common/SmtpTest.h"
#include "support/CpuTime.h"
#include "support/FakeSmtp.h"
#include "support/HostileTexts.h"

#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;
using notify::Smtp;

/// The sign-in: long, and never shown in an error.
class tst_SmtpCredentials : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

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
};

QTEST_GUILESS_MAIN(tst_SmtpCredentials)
#include "tst_SmtpCredentials.moc"
