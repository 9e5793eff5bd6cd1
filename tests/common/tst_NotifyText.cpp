#include "common/NotifyTest.h"
#include "common/NotifyText.h"
#include "support/Zone.h"

#include <QDateTime>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using namespace tarn::test;

/// Title and text of a message, and the times in them.
class tst_NotifyText : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }
    void cleanup() { QLocale::setDefault(QLocale::c()); }

    void title_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<Message>("message");
        QTest::addColumn<QString>("title");
        QTest::newRow("open") << u"web1"_s << kAlert << u"[web1] Memory 93% used"_s;
        QTest::newRow("cleared") << u"web1"_s
                                 << Message{u"memory"_s, u"RAM"_s, u"Memory 93% used"_s, true, 60}
                                 << u"[web1] Cleared: Memory 93% used"_s;
        QTest::newRow("test") << u"web1"_s << Message{u"test"_s, {}, u"Test message"_s}
                              << u"[web1] Test message"_s;
        QTest::newRow("nothing") << QString() << Message() << u"[] "_s;
        QTest::newRow("placeholders-stay")
            << u"%2"_s << Message{u"disk"_s, u"/%1"_s, u"Disk /%1 is 95% full"_s, true}
            << u"[%2] Cleared: Disk /%1 is 95% full"_s;
    }
    void title()
    {
        QFETCH(const QString, host);
        QFETCH(const Message, message);
        Config config;
        config.host = host;
        QTEST(notify::title(config, message), "title");
    }

    void body_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<QString>("panel");
        QTest::addColumn<Message>("message");
        QTest::addColumn<QString>("body");
        const QString time = u"\n\nTime: 2024-06-05 09:07 UTC"_s;
        const QString panel = u"https://panel.example.org/#/health"_s;
        QTest::newRow("open") << u"web1"_s << QString() << kAlert << u"Memory 93% used on web1."_s + time;
        QTest::newRow("open-and-panel")
            << u"web1"_s << panel << kAlert
            << u"Memory 93% used on web1."_s + time + u"\nServer health: "_s + panel;
        QTest::newRow("cleared") << u"web1"_s << QString()
                                 << Message{u"memory"_s, u"RAM"_s, u"Memory 93% used"_s, true, 5'400}
                                 << u"Back to normal after 1 h 30 min. The alert was: Memory 93% used."_s
                                        + time;
        QTest::newRow("test") << u"web1"_s << panel << Message{u"test"_s, u"s"_s, u"the text"_s}
                              << u"This is a test from Tarnhold on web1. Notifications reach you here."_s
                                     + time + u"\nServer health: "_s + panel;
        QTest::newRow("test-that-is-cleared")
            << u"web1"_s << QString() << Message{u"test"_s, u"s"_s, u"the text"_s, true, 60}
            << u"This is a test from Tarnhold on web1. Notifications reach you here."_s + time;
        QTest::newRow("test-in-upper-case")
            << u"web1"_s << QString() << Message{u"TEST"_s, u"s"_s, u"Text"_s} << u"Text on web1."_s + time;
        QTest::newRow("beyond-ascii") << u"wéb1"_s << QString() << Message{u"disk"_s, u"/ü"_s, u"磁盘 🔔"_s}
                                      << u"磁盘 🔔 on wéb1."_s + time;
        QTest::newRow("placeholders-stay") << u"%1"_s << u"%1%2"_s << Message{u"disk"_s, u"/%1"_s, u"%2 %1"_s}
                                           << u"%2 %1 on %1."_s + time + u"\nServer health: %1%2"_s;
        QTest::newRow("placeholders-stay-in-the-end")
            << u"web1"_s << QString() << Message{u"disk"_s, u"/%1"_s, u"%1%2"_s, true, 60}
            << u"Back to normal after 1 min. The alert was: %1%2."_s + time;
        QTest::newRow("placeholders-stay-in-the-test")
            << u"%1%2"_s << QString() << Message{u"test"_s, {}, {}}
            << u"This is a test from Tarnhold on %1%2. Notifications reach you here."_s + time;
    }
    void body()
    {
        QFETCH(const QString, host);
        QFETCH(const QString, panel);
        QFETCH(const Message, message);
        Config config;
        config.host = host;
        config.panelUrl = panel;
        QTEST(notify::body(config, message, QDateTime(QDate(2024, 6, 5), QTime(9, 7, 59))), "body");
    }

    void bodyHasTheTimeOfNow()
    {
        const QDateTime before = QDateTime::currentDateTime();
        const QString body = notify::body(Config(), kAlert);
        const QDateTime after = QDateTime::currentDateTime();
        QVERIFY2(body == notify::body(Config(), kAlert, before)
                     || body == notify::body(Config(), kAlert, after),
                 qPrintable(body));
    }

    void localTime_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::addColumn<QDateTime>("utc");
        QTest::addColumn<QString>("time");
        const auto utc = [](int month, int hour, int minute) {
            return QDateTime(QDate(2024, month, 15), QTime(hour, minute), Qt::UTC);
        };
        QTest::newRow("utc") << QByteArray("UTC") << utc(6, 9, 7) << u"2024-06-15 09:07 UTC"_s;
        QTest::newRow("summer") << QByteArray("Europe/Berlin") << utc(6, 9, 7) << u"2024-06-15 11:07 CEST"_s;
        QTest::newRow("winter") << QByteArray("Europe/Berlin") << utc(1, 9, 7) << u"2024-01-15 10:07 CET"_s;
        QTest::newRow("half-an-hour")
            << QByteArray("Asia/Kolkata") << utc(6, 9, 7) << u"2024-06-15 14:37 IST"_s;
        QTest::newRow("the-day-before")
            << QByteArray("America/New_York") << utc(6, 3, 30) << u"2024-06-14 23:30 EDT"_s;
        QTest::newRow("zone-without-a-name")
            << QByteArray("Asia/Kathmandu") << utc(6, 9, 7) << u"2024-06-15 14:52 +0545"_s;
        QTest::newRow("after-noon") << QByteArray("UTC") << utc(6, 21, 7) << u"2024-06-15 21:07 UTC"_s;
    }
    void localTime()
    {
        QFETCH(const QByteArray, zone);
        QFETCH(const QDateTime, utc);
        QFETCH(const QString, time);
        const Zone local(zone);
        for (const char* language : {"C", "de_DE", "ar_EG", "fa_IR"}) {
            QLocale::setDefault(QLocale(QString::fromLatin1(language)));
            QCOMPARE(notify::body(Config(), kAlert, utc.toLocalTime()),
                     u"Memory 93% used on .\n\nTime: "_s + time);
        }
    }

    void duration_data()
    {
        QTest::addColumn<qint64>("seconds");
        QTest::addColumn<QString>("text");
        const auto row = [](qint64 seconds, const QString& text) {
            QTest::addRow("%lld", static_cast<long long>(seconds)) << seconds << text;
        };
        row(-86'400, u"1 min"_s); // the clock was set back
        row(-1, u"1 min"_s);
        row(0, u"1 min"_s);
        row(59, u"1 min"_s);
        row(60, u"1 min"_s);
        row(119, u"1 min"_s);
        row(120, u"2 min"_s);
        row(3'599, u"59 min"_s);
        row(3'600, u"1 h 0 min"_s);
        row(3'659, u"1 h 0 min"_s);
        row(3'660, u"1 h 1 min"_s);
        row(7'199, u"1 h 59 min"_s);
        row(86'399, u"23 h 59 min"_s);
        row(86'400, u"1 days 0 h"_s);
        row(89'999, u"1 days 0 h"_s);
        row(90'000, u"1 days 1 h"_s);
        row(172'799, u"1 days 23 h"_s);
        row(172'800, u"2 days 0 h"_s);
        row(std::numeric_limits<qint64>::max(), u"106751991167300 days 15 h"_s);
    }
    void duration()
    {
        QFETCH(const qint64, seconds);
        QFETCH(const QString, text);
        const QString body = notify::body(Config(), {u"memory"_s, u"RAM"_s, u"Text"_s, true, seconds});
        QVERIFY2(body.startsWith(u"Back to normal after "_s + text + u". The alert was: Text.\n\nTime: "_s),
                 qPrintable(body));
    }
};

QTEST_GUILESS_MAIN(tst_NotifyText)
#include "tst_NotifyText.moc"
