#include "common/MailMessage.h"
#include "common/SmtpTest.h"
#include "support/MailTools.h"
#include "support/Zone.h"

#include <QDateTime>
#include <QJsonArray>
#include <QRegularExpression>
#include <QUuid>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

/// The text of a mail, from its header to its last line.
class tst_MailMessage : public QObject
{
    Q_OBJECT

private:
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

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

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
};

QTEST_GUILESS_MAIN(tst_MailMessage)
#include "tst_MailMessage.moc"
