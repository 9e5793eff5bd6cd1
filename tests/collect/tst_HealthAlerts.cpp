#include "collect/HealthFixture.h"
#include "support/FakeHttp.h"
#include "support/Messages.h"

#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>

#include <utility>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::expectAlert;
using test::expectCleared;
using test::FakeHttp;
using test::HealthFixture;

class tst_HealthAlerts : public QObject
{
    Q_OBJECT

private:
    /// Passes over one condition, the way that a sample makes them.
    static void pass(Health& health, const QString& passes, const QString& text = u"Disk /var is 93% full"_s)
    {
        for (const QChar c : passes)
            health.check(u"disk"_s, u"/var"_s, c == u'b', text, 3);
    }

    /// What has been said since the last time, "status kind subject title" each.
    QStringList said()
    {
        QStringList all;
        for (const FakeHttp::Request& request : m_webhook.takeRequests()) {
            const QJsonObject json = request.json();
            all << QStringList{json[u"status"_s].toString(), json[u"kind"_s].toString(),
                               json[u"subject"_s].toString(), json[u"title"_s].toString()}
                       .join(u' ');
        }
        return all;
    }

    HealthFixture m_fixture;
    FakeHttp m_webhook;

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_fixture.server.start()); }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_fixture.init());
        QVERIFY(m_webhook.start());
        m_fixture.settings[u"notify/webhook_url"_s] = m_webhook.url(u"/hook"_s);
    }

    void cleanup()
    {
        m_webhook.reset();
        m_webhook.close();
        m_fixture.cleanup();
    }

    void opensAtTheThirdBadPassInARow()
    {
        const auto health = m_fixture.makeHealth();
        pass(*health, u"bbgbb"_s);
        QCOMPARE(HealthFixture::alerts(), u""_s);
        QCOMPARE(said(), QStringList());
        expectAlert(u"Disk /var is 93% full"_s);
        pass(*health, u"b"_s);
        QCOMPARE(HealthFixture::alerts(), u"disk|/var|Disk /var is 93% full|open"_s);
        QCOMPARE(said(), QStringList{u"open disk /var [host.example] Disk /var is 93% full"_s});
        pass(*health, u"bbb"_s);
        QCOMPARE(said(), QStringList());
    }

    void clearingTellsTheLastTextAndTheTime()
    {
        const auto health = m_fixture.makeHealth();
        expectAlert(u"Memory 93% used"_s);
        pass(*health, u"bbb"_s, u"Memory 93% used"_s);
        pass(*health, u"b"_s, u"Memory 95% used"_s);
        QCOMPARE(HealthFixture::alerts(), u"disk|/var|Memory 95% used|open"_s);
        HealthFixture::run(u"UPDATE tarn.alerts SET opened_at = opened_at - interval '25 hours'"_s);
        said();

        pass(*health, u"gg"_s, u"Memory 40% used"_s);
        QCOMPARE(HealthFixture::alerts(), u"disk|/var|Memory 95% used|open"_s);
        QCOMPARE(said(), QStringList());
        expectCleared(u"Memory 95% used"_s);
        pass(*health, u"g"_s, u"Memory 40% used"_s);
        QCOMPARE(HealthFixture::alerts(), u"disk|/var|Memory 95% used|closed"_s);
        QCOMPARE(m_webhook.requests().size(), 1);
        const QString body = m_webhook.requests().first().json()[u"message"_s].toString();
        QVERIFY2(body.startsWith(u"Back to normal after 1 days 1 h. The alert was: Memory 95% used."_s),
                 qPrintable(body));
        QCOMPARE(said(), QStringList{u"cleared disk /var [host.example] Cleared: Memory 95% used"_s});
        pass(*health, u"gggg"_s);
        QCOMPARE(said(), QStringList());
    }

    void openSinceBeforeTheStart()
    {
        HealthFixture::run(
            u"INSERT INTO tarn.alerts (kind, subject, message) VALUES ('disk', '/var', 'old')"_s);
        const auto health = m_fixture.makeHealth();
        pass(*health, u"bbb"_s);
        QCOMPARE(HealthFixture::alerts(), u"disk|/var|old|open"_s);
        pass(*health, u"b"_s);
        QCOMPARE(HealthFixture::alerts(), u"disk|/var|Disk /var is 93% full|open"_s);
        QCOMPARE(said(), QStringList());
    }

    void openSinceBeforeTheStartAndGoodNow()
    {
        HealthFixture::run(
            u"INSERT INTO tarn.alerts (kind, subject, message) VALUES ('disk', '/var', 'old')"_s);
        const auto health = m_fixture.makeHealth();
        expectCleared(u"old"_s);
        pass(*health, u"ggg"_s);
        QCOMPARE(HealthFixture::alerts(), u"disk|/var|old|closed"_s);
        QCOMPARE(said(), QStringList{u"cleared disk /var [host.example] Cleared: old"_s});
    }

    void nothingToClear()
    {
        HealthFixture::run(u"INSERT INTO tarn.alerts (kind, subject, message, closed_at) "
                           "VALUES ('disk', '/var', 'past', now()), ('disk', '/', 'other subject', NULL), "
                           "('service', '/var', 'other kind', NULL)"_s);
        const QString before = HealthFixture::alerts();
        const auto health = m_fixture.makeHealth();
        pass(*health, u"gggg"_s);
        QCOMPARE(HealthFixture::alerts(), before);
        QCOMPARE(said(), QStringList());
    }

    void refreshesOnlyTheOpenAlertOfItsKindAndSubject()
    {
        HealthFixture::run(u"INSERT INTO tarn.alerts (kind, subject, message, closed_at) "
                           "VALUES ('disk', '/var', 'past', now()), ('disk', '/', 'other subject', NULL), "
                           "('service', '/var', 'other kind', NULL)"_s);
        const QString before = HealthFixture::alerts();
        const auto health = m_fixture.makeHealth();
        expectAlert(u"first"_s);
        pass(*health, u"bbb"_s, u"first"_s);
        pass(*health, u"b"_s, u"second"_s);
        QCOMPARE(HealthFixture::alerts(), before + u"\ndisk|/var|second|open"_s);
    }

    void eachConditionCountsForItself()
    {
        const auto health = m_fixture.makeHealth();
        const auto bad = [&](const QString& kind, const QString& subject) {
            health->check(kind, subject, true, kind + subject, 2);
        };
        bad(u"disk"_s, u"/"_s);
        bad(u"disk"_s, u"/var"_s);
        bad(u"service"_s, u"/"_s);
        health->check(u"disk"_s, u"/var"_s, false, u"x"_s, 2);
        QCOMPARE(HealthFixture::alerts(), u""_s);
        expectAlert(u"disk/"_s);
        bad(u"disk"_s, u"/"_s);
        bad(u"disk"_s, u"/var"_s);
        expectAlert(u"service/"_s);
        bad(u"service"_s, u"/"_s);
        QCOMPARE(HealthFixture::alerts(), u"disk|/|disk/|open\nservice|/|service/|open"_s);
    }

    void rowThenLogThenMessage()
    {
        static QStringList events;
        events.clear();
        m_webhook.answer([this](const FakeHttp::Request& request) {
            events << request.json()[u"status"_s].toString() + u" row="_s
                          + test::value(m_fixture.session.other(),
                                        u"SELECT closed_at IS NULL FROM tarn.alerts"_s)
                          // One that is left would live on into a session that is opened anew meanwhile.
                          + u" prepared="_s
                          + HealthFixture::scalar(u"SELECT count(*) FROM pg_prepared_statements"_s);
            return FakeHttp::reply("200 OK");
        });
        const auto health = m_fixture.makeHealth();
        const QtMessageHandler before = qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext&, const QString& message) { events << message; });
        pass(*health, u"bbbggg"_s);
        qInstallMessageHandler(before);
        QCOMPARE(events,
                 QStringList({u"alert: Disk /var is 93% full"_s, u"open row=true prepared=0"_s,
                              u"alert cleared: Disk /var is 93% full"_s, u"cleared row=false prepared=0"_s}));
    }

    void failedInsertIsNotRetriedUntilItComesBack()
    {
        const auto health = m_fixture.makeHealth();
        HealthFixture::refuse(u"INSERT"_s, u"alerts"_s);
        HealthFixture::expectRefusal();
        pass(*health, u"bbb"_s);
        HealthFixture::allow(u"alerts"_s);
        pass(*health, u"bbb"_s);
        QCOMPARE(HealthFixture::alerts(), u""_s);
        QCOMPARE(said(), QStringList());
        expectAlert(u"Disk /var is 93% full"_s);
        pass(*health, u"gbbb"_s);
        QCOMPARE(said().size(), 1);
    }

    void failedClosingIsNotRetriedUntilItComesBack()
    {
        const auto health = m_fixture.makeHealth();
        expectAlert(u"Disk /var is 93% full"_s);
        pass(*health, u"bbb"_s);
        said();
        HealthFixture::refuse(u"UPDATE"_s, u"alerts"_s);
        HealthFixture::expectRefusal();
        pass(*health, u"ggg"_s);
        HealthFixture::allow(u"alerts"_s);
        pass(*health, u"ggg"_s);
        QCOMPARE(HealthFixture::alerts(), u"disk|/var|Disk /var is 93% full|open"_s);
        QCOMPARE(said(), QStringList());
        expectCleared(u"Disk /var is 93% full"_s);
        pass(*health, u"bggg"_s);
        QCOMPARE(said().size(), 1);
    }

    void failedRefreshIsTriedAgain()
    {
        const auto health = m_fixture.makeHealth();
        expectAlert(u"first"_s);
        pass(*health, u"bbb"_s, u"first"_s);
        HealthFixture::refuse(u"UPDATE"_s, u"alerts"_s);
        HealthFixture::expectRefusal();
        pass(*health, u"b"_s, u"second"_s);
        HealthFixture::allow(u"alerts"_s);
        pass(*health, u"b"_s, u"third"_s);
        QCOMPARE(HealthFixture::alerts(), u"disk|/var|third|open"_s);
    }

    void deadWebhookKeepsTheAlert()
    {
        m_webhook.close();
        const auto health = m_fixture.makeHealth();
        expectAlert(u"Disk /var is 93% full"_s);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^notify: webhook failed: "_s));
        pass(*health, u"bbbb"_s);
        QCOMPARE(HealthFixture::alerts(), u"disk|/var|Disk /var is 93% full|open"_s);
    }

    void oddTexts_data()
    {
        QTest::addColumn<QString>("subject");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("row");
        QTest::newRow("nul") << u"/mnt/a\0b"_s << u"Disk \0 is full"_s << u"disk|/mnt/ab|Disk  is full"_s;
        QTest::newRow("quotes") << u"/it's"_s << u"it's \"$1\" ? \\ %s %1"_s
                                << u"disk|/it's|it's \"$1\" ? \\ %s %1"_s;
        QTest::newRow("null") << QString() << QString() << u"disk||"_s;
        QTest::newRow("not-ascii") << u"/mnt/größe"_s << u"CPU at 90 °C 🔥"_s
                                   << u"disk|/mnt/größe|CPU at 90 °C 🔥"_s;
    }
    void oddTexts()
    {
        QFETCH(const QString, subject);
        QFETCH(const QString, text);
        QFETCH(const QString, row);
        const auto health = m_fixture.makeHealth();
        const QString shown = QString(text).remove(QChar::Null);
        expectAlert(shown);
        health->check(u"disk"_s, subject, true, text, 1);
        QCOMPARE(HealthFixture::alerts(), row + u"|open"_s);
        health->check(u"disk"_s, subject, true, text + u"!"_s, 1);
        QCOMPARE(HealthFixture::alerts(), row + u"!|open"_s);
        expectCleared(shown + u'!');
        health->check(u"disk"_s, subject, false, text, 1);
        QCOMPARE(HealthFixture::alerts(), row + u"!|closed"_s);
        QCOMPARE(said().size(), 2);
    }

    /// Timers run while a webhook is waited for, and may come to check as well.
    void aServerThatIsAwayIsTriedOnceForAllConditions()
    {
        m_fixture.settings[u"health/memory_alert_pct"_s] = 0;
        m_fixture.settings[u"health/load_alert_per_cpu"_s] = 0;
        m_fixture.settings[u"health/disk_alert_pct"_s] = 0;
        const auto health = m_fixture.makeHealth();
        health->sample();
        health->sample();
        m_fixture.server.stop();
        const QStringList messages = test::messagesOf([&health] { health->sample(); });
        QVERIFY(m_fixture.server.restart());
        QCOMPARE(messages.filter(u"database: reconnect failed: "_s).size(), 1);
        QCOMPARE(messages.filter(u"alert: "_s), QStringList());
    }

    void checkWithinTheWaitOfAnother()
    {
        const auto health = m_fixture.makeHealth();
        bool first = true;
        m_webhook.answer([&](const FakeHttp::Request&) {
            if (std::exchange(first, false)) {
                for (int i = 0; i < 100; ++i) // enough for the table of streaks to move
                    health->check(u"inner"_s, QString::number(i), true, u"x"_s, 2);
                expectAlert(u"inner"_s);
                health->check(u"inner"_s, u"0"_s, true, u"inner"_s, 2);
            }
            return FakeHttp::reply("200 OK");
        });
        expectAlert(u"outer"_s);
        health->check(u"outer"_s, u"1"_s, true, u"outer"_s, 1);
        QCOMPARE(HealthFixture::alerts(), u"outer|1|outer|open\ninner|0|inner|open"_s);
        QTRY_COMPARE(m_webhook.requests().size(), 2);
        health->check(u"outer"_s, u"1"_s, true, u"outer still"_s, 1);
        QCOMPARE(HealthFixture::alerts(), u"outer|1|outer still|open\ninner|0|inner|open"_s);
    }
};

QTEST_GUILESS_MAIN(tst_HealthAlerts)
#include "tst_HealthAlerts.moc"
