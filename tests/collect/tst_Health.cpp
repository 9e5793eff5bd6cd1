#include "collect/ApachePage.h"
#include "collect/HealthFixture.h"
#include "common/System.h"
#include "support/FakeHttp.h"
#include "support/Messages.h"

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStorageInfo>
#include <QTest>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::FakeHttp;
using test::HealthFixture;
using test::statusPage;

namespace {

const auto kRates =
    u"cpu_pct iowait_pct net_rx_bps net_tx_bps disk_read_bps disk_write_bps pg_tps apache_rps "
    "apache_bps"_s;
const auto kSensor = u"cpu_temp_c"_s;
const auto kApache = u"apache_rps apache_bps apache_busy apache_slots"_s;

FakeHttp::Reply ok(const QByteArray& page)
{
    return FakeHttp::reply("200 OK", page);
}

} // namespace

class tst_Health : public QObject
{
    Q_OBJECT

private:
    static QString samples() { return HealthFixture::scalar(u"SELECT count(*) FROM tarn.host_samples"_s); }

    /// Columns of the latest sample, joined by blanks; of more than one with "|" between the values.
    static QString latest(const QString& columns)
    {
        return HealthFixture::scalar(
            u"SELECT concat_ws('|', %1) FROM tarn.host_samples ORDER BY at DESC LIMIT 1"_s.arg(columns));
    }

    /// The columns that are NULL in the latest sample.
    static QStringList nullColumns()
    {
        return HealthFixture::scalar(
                   u"SELECT coalesce(string_agg(key, ' '), '') FROM (SELECT j.key FROM (SELECT to_json(s) AS "
                   u"row "
                   "FROM tarn.host_samples s ORDER BY at DESC LIMIT 1) latest, json_each(row) j "
                   "WHERE j.value::text = 'null') n"_s)
            .split(u' ', Qt::SkipEmptyParts);
    }

    /// What nullColumns() should be, whether this machine has a sensor or not.
    static QStringList expectedNulls(const QString& columns)
    {
        QStringList all = columns.split(u' ', Qt::SkipEmptyParts);
        if (!cpuTemperature())
            all.insert(all.indexOf(u"pg_tps"_s) < 0 ? 0 : all.indexOf(u"pg_tps"_s), kSensor);
        return all;
    }

    static QStringList sorted(QStringList list)
    {
        list.sort();
        return list;
    }

    /// Has the server's statistics come from the schema "fake", which the test fills.
    void fakeStatistics() const
    {
        HealthFixture::run(u"CREATE SCHEMA fake"_s);
        HealthFixture::run(u"SET search_path = fake, pg_catalog"_s);
    }

    /// Fills a folder with a program "systemctl" that writes @p output, and puts it first in the search path.
    void fakeSystemctl(const QByteArray& output)
    {
        QFile script(m_fixture.folder.filePath(u"systemctl"_s));
        QVERIFY(script.open(QIODevice::WriteOnly | QIODevice::Truncate));
        script.write("#!/bin/sh\ncat <<'END'\n" + output + "END\n");
        script.close();
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("PATH", m_fixture.folder.path().toLocal8Bit() + ':' + m_path);
    }

    /// Has the samples ask the test's Apache.
    void useApache()
    {
        m_fixture.settings[u"health/apache_status_url"_s] = m_apache.url(u"/server-status?auto"_s);
    }
    /// The same, which gives this answer.
    void useApache(const FakeHttp::Reply& reply)
    {
        m_apache.setReply(reply);
        useApache();
    }

    /// Two samples have rates between them if their times, which are milliseconds, differ.
    static bool nextMillisecond()
    {
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        return QTest::qWaitFor([now] { return QDateTime::currentMSecsSinceEpoch() > now; });
    }

    static void expectAlert(const QString& pattern)
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^alert: "_s + pattern));
    }

    HealthFixture m_fixture;
    FakeHttp m_apache;
    QByteArray m_path = qgetenv("PATH");

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_fixture.server.start());
        QVERIFY(m_apache.start());
    }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        QVERIFY(m_fixture.init());
    }

    void cleanup()
    {
        qputenv("PATH", m_path);
        m_apache.reset();
        m_fixture.cleanup();
    }

    void firstSampleHasNoRates()
    {
        useApache(ok(statusPage(100, 2000, 3, 400)));
        const auto health = m_fixture.makeHealth();
        health->sample();
        QCOMPARE(samples(), u"1"_s);
        QCOMPARE(sorted(nullColumns()), sorted(expectedNulls(kRates)));
        QCOMPARE(latest(u"apache_busy, apache_slots"_s), u"3|400"_s);
        // No header that would ask for another version of HTTP.
        QCOMPARE(m_apache.requests().first().text(), QByteArray("GET /server-status?auto\n\n"));
    }

    void secondSampleHasRates()
    {
        m_apache.answer([this](const auto&) {
            const auto count = static_cast<int>(m_apache.requests().size());
            return ok(statusPage(100 * count, 200 * count, 3, 400));
        });
        useApache();
        const auto health = m_fixture.makeHealth();
        health->sample();
        QVERIFY(nextMillisecond());
        health->sample();
        QCOMPARE(samples(), u"2"_s);
        QCOMPARE(sorted(nullColumns()), sorted(expectedNulls({})));
        QCOMPARE(latest(u"apache_rps > 0, round((apache_bps / apache_rps)::numeric, 3)"_s), u"t|2048.000"_s);
        QCOMPARE(latest(u"pg_tps >= 0, cpu_pct >= 0, iowait_pct >= 0"_s), u"t|t|t"_s);
    }

    void figuresOfTheMachine()
    {
        const QByteArray memory = readFile(u"/proc/meminfo"_s);
        const auto health = m_fixture.makeHealth();
        health->sample();
        QCOMPARE(latest(u"mem_total_kb, swap_total_kb, disk_total_bytes"_s),
                 u"%1|%2|%3"_s.arg(meminfo(memory, "MemTotal"))
                     .arg(meminfo(memory, "SwapTotal"))
                     .arg(QStorageInfo(u"/"_s).bytesTotal()));
        QCOMPARE(
            latest(u"mem_avail_kb BETWEEN 1 AND mem_total_kb, swap_free_kb BETWEEN 0 AND swap_total_kb, "
                   "disk_avail_bytes BETWEEN 0 AND disk_total_bytes, load1 >= 0, load5 >= 0, load15 >= 0"_s),
            u"t|t|t|t|t|t"_s);
        QCOMPARE(latest(u"now() - at < interval '1 minute'"_s), u"t"_s);
    }

    void countersOfTheMachine()
    {
        const auto health = m_fixture.makeHealth();
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        const Health::Counters counters = health->read();
        QVERIFY(counters.valid);
        QVERIFY(!counters.apache);
        QVERIFY(counters.atMs >= before && counters.atMs <= QDateTime::currentMSecsSinceEpoch());
        QVERIFY(counters.cpuTotal > 0);
        QVERIFY(counters.cpuBusy > 0 && counters.cpuBusy + counters.cpuIowait <= counters.cpuTotal);
        QVERIFY(counters.pgXacts > 0);
        const Traffic net = parseNetDev(readFile(u"/proc/net/dev"_s));
        QVERIFY(counters.netRx <= net.in && counters.netTx <= net.out);
        const Traffic disk = parseDiskStats(readFile(u"/proc/diskstats"_s));
        QVERIFY(counters.diskRead <= disk.in && counters.diskWrite <= disk.out);
    }

    void statisticsOfTheServer()
    {
        fakeStatistics();
        HealthFixture::run(
            u"CREATE TABLE fake.pg_stat_database (xact_commit bigint, xact_rollback bigint)"_s);
        HealthFixture::run(u"INSERT INTO fake.pg_stat_database VALUES (100, 20), (3, 4), (NULL, NULL)"_s);
        HealthFixture::run(u"CREATE TABLE fake.pg_stat_activity (backend_type text)"_s);
        HealthFixture::run(u"INSERT INTO fake.pg_stat_activity VALUES ('client backend'), ('checkpointer'), "
                           "('client backend'), ('client backend')"_s);
        const auto health = m_fixture.makeHealth();
        QCOMPARE(health->read().pgXacts, 127);
        health->sample();
        QCOMPARE(latest(u"pg_connections"_s), u"3"_s);
        // A reset of the statistics, as after a crash of the server.
        HealthFixture::run(u"UPDATE fake.pg_stat_database SET xact_commit = 1"_s);
        QVERIFY(nextMillisecond());
        health->sample();
        QVERIFY(nullColumns().contains(u"pg_tps"_s));
        HealthFixture::run(u"UPDATE fake.pg_stat_database SET xact_commit = 1000"_s);
        QVERIFY(nextMillisecond());
        health->sample();
        QVERIFY(!nullColumns().contains(u"pg_tps"_s));
    }

    void missingStatisticsAreZero()
    {
        fakeStatistics();
        HealthFixture::run(u"CREATE TABLE fake.pg_stat_database (nothing int)"_s);
        HealthFixture::run(u"CREATE TABLE fake.pg_stat_activity (nothing int)"_s);
        const auto health = m_fixture.makeHealth();
        QCOMPARE(health->read().pgXacts, 0);
        health->sample();
        QCOMPARE(latest(u"pg_connections"_s), u"0"_s);
        // No row, or a sum over none.
        HealthFixture::run(u"DROP TABLE fake.pg_stat_database"_s);
        HealthFixture::run(
            u"CREATE TABLE fake.pg_stat_database (xact_commit bigint, xact_rollback bigint)"_s);
        QCOMPARE(health->read().pgXacts, 0);
    }

    void apacheGoesAndComes()
    {
        useApache();
        const auto health = m_fixture.makeHealth();
        const auto nullsAfterSample = [&](bool apacheIsUp) {
            m_apache.setReply(apacheIsUp
                                  ? ok(statusPage(100, 200, 1, 150))
                                  : FakeHttp::reply("503 Service Unavailable", statusPage(1, 2, 3, 4)));
            if (!nextMillisecond())
                return QStringList(u"the clock stands still"_s);
            health->sample();
            return sorted(nullColumns());
        };
        nullsAfterSample(true);
        QCOMPARE(nullsAfterSample(true), sorted(expectedNulls({})));
        QCOMPARE(nullsAfterSample(false), sorted(expectedNulls(kApache)));
        QCOMPARE(nullsAfterSample(false), sorted(expectedNulls(kApache)));
        QCOMPARE(nullsAfterSample(true), sorted(expectedNulls(u"apache_rps apache_bps"_s)));
        QCOMPARE(latest(u"apache_busy, apache_slots"_s), u"1|150"_s);
        QCOMPARE(nullsAfterSample(true), sorted(expectedNulls({})));
    }

    void samplesOlderThanThirtyDaysGo()
    {
        HealthFixture::run(
            u"INSERT INTO tarn.host_samples (at, load1) VALUES "
            "(now() - interval '30 days' - interval '1 second', 1), "
            "(now() - interval '30 days' + interval '1 hour', 2), (now() - interval '1 year', 3)"_s);
        m_fixture.makeHealth()->sample();
        QCOMPARE(samples(), u"2"_s);
        QCOMPARE(HealthFixture::scalar(u"SELECT count(*) FROM tarn.host_samples WHERE load1 = 2"_s), u"1"_s);
    }

    void aFailedInsertCostsTheRatesOfOneInterval()
    {
        m_fixture.settings[u"health/memory_alert_pct"_s] = 0;
        const auto health = m_fixture.makeHealth();
        HealthFixture::run(u"INSERT INTO tarn.host_samples (at) VALUES (now() - interval '1 year')"_s);
        HealthFixture::refuse(u"INSERT"_s, u"host_samples"_s);
        for (int i = 0; i < 3; ++i) {
            HealthFixture::expectRefusal();
            if (i == 2)
                expectAlert(u"Memory \\d+% used$"_s);
            health->sample();
        }
        QCOMPARE(samples(), u"0"_s); // the old one is gone
        QVERIFY(HealthFixture::alerts().startsWith(u"memory|RAM|"_s));
        // What was lost is the interval before: the next one has its rates.
        HealthFixture::allow(u"host_samples"_s);
        QVERIFY(nextMillisecond());
        health->sample();
        QCOMPARE(sorted(nullColumns()), sorted(expectedNulls(kApache)));
    }

    void failedPruningIsPassedOver()
    {
        HealthFixture::run(u"INSERT INTO tarn.host_samples (at) VALUES (now() - interval '1 year')"_s);
        HealthFixture::refuse(u"DELETE"_s, u"host_samples"_s);
        m_fixture.makeHealth()->sample();
        QCOMPARE(samples(), u"2"_s);
    }

    void checksInTheirOrder()
    {
        fakeSystemctl("Id=one.service\nLoadState=loaded\nActiveState=failed\nSubState=failed\n\n"
                      "Id=two.service\nLoadState=not-found\nActiveState=inactive\nSubState=dead\n\n"
                      "Id=three.service\nLoadState=loaded\nActiveState=active\nSubState=running\n");
        useApache(ok(statusPage(1, 1, 3, 4)));
        m_fixture.settings[u"health/services"_s] = u"one, two,three"_s;
        m_fixture.settings[u"health/apache_busy_alert_pct"_s] = 75;
        for (const QString& key : {u"disk_alert_pct"_s, u"memory_alert_pct"_s, u"load_alert_per_cpu"_s,
                                   u"temperature_alert_c"_s}) {
            m_fixture.settings[u"health/"_s + key] = 0;
        }
        QStringList expected = {u"memory|RAM"_s, u"apache|workers"_s, u"load|CPU"_s};
        expectAlert(u"Memory \\d+% used$"_s);
        expectAlert(u"Apache is using 3 of 4 workers; new visitors wait in line$"_s);
        expectAlert(u"Load \\d+\\.\\d on %1 CPUs$"_s.arg(sysconf(_SC_NPROCESSORS_ONLN)));
        if (cpuTemperature()) {
            expected << u"temperature|CPU"_s;
            expectAlert(u"CPU at \\d+ °C$"_s);
        }
        QStringList mounts;
        const QJsonArray disks = system::disks();
        for (const auto& disk : disks) {
            const QString mount = disk[u"mount"_s].toString();
            if (mounts.contains(mount))
                continue;
            mounts << mount;
            expectAlert(u"Disk %1 is \\d+% full$"_s.arg(QRegularExpression::escape(mount)));
            expected << u"disk|"_s + mount;
        }
        expected << u"service|one"_s << u"service|two"_s;
        expectAlert(u"Service one is not running \\(failed\\)$"_s);
        expectAlert(u"Service two is not installed$"_s);

        const auto health = m_fixture.makeHealth();
        health->sample();
        health->sample();
        QCOMPARE(HealthFixture::alerts(), u""_s);
        health->sample();
        QCOMPARE(HealthFixture::scalar(
                     u"SELECT string_agg(kind || '|' || subject, E'\\n' ORDER BY id) FROM tarn.alerts"_s),
                 expected.join(u'\n'));
    }

    void healthyMachine()
    {
        fakeSystemctl("LoadState=loaded\nActiveState=active\nSubState=running\n");
        m_fixture.settings[u"health/services"_s] = u"one"_s;
        const auto health = m_fixture.makeHealth();
        for (int i = 0; i < 4; ++i)
            health->sample();
        QCOMPARE(HealthFixture::alerts(), u""_s);
    }

    /// A condition that cannot be looked at keeps its alert.
    void checkThatIsNotMadeKeepsItsAlert()
    {
        useApache();
        const auto health = m_fixture.makeHealth();
        const auto sample = [&](const QByteArray& page, int times) {
            m_apache.setReply(ok(page));
            for (int i = 0; i < times; ++i)
                health->sample();
        };
        const auto open = u"apache|workers|Apache is using 4 of 4 workers; new visitors wait in line|open"_s;
        expectAlert(u"Apache is using"_s);
        sample(statusPage(1, 1, 4, 4), 3);
        sample("no status", 4);
        QCOMPARE(HealthFixture::alerts(), open);
        sample("Total Accesses: 5\nBusyWorkers: 0\nScoreboard: \n", 4); // no slots
        QCOMPARE(HealthFixture::alerts(), open);
        sample(statusPage(1, 1, 1, 4), 2);
        QCOMPARE(HealthFixture::alerts(), open);
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression(u"^alert cleared: Apache is using 4 of 4"_s));
        sample(statusPage(1, 1, 1, 4), 1);
    }

    void defaultThresholds()
    {
        for (const QString& key : {u"disk_alert_pct"_s, u"memory_alert_pct"_s, u"load_alert_per_cpu"_s,
                                   u"temperature_alert_c"_s}) {
            m_fixture.settings.remove(u"health/"_s + key);
        }
        useApache(ok(statusPage(1, 1, 359, 400)));
        const auto health = m_fixture.makeHealth();
        const QStringList messages = test::messagesOf([&] {
            for (const int busy : {359, 359, 359, 360, 360, 360}) {
                m_apache.setReply(ok(statusPage(1, 1, busy, 400)));
                health->sample();
            }
        });
        QCOMPARE(messages.filter(u"Apache"_s),
                 QStringList{u"alert: Apache is using 360 of 400 workers; new visitors wait in line"_s});
        // This machine may be loaded or full itself, but then it has to be as much as that.
        static const QRegularExpression others(
            u"^alert: (?:Load ([\\d.]+) on (\\d+) CPUs|Memory (\\d+)% used|Disk .* is (\\d+)% full|CPU at (\\d+) )"_s);
        for (const QString& message : messages.filter(QRegularExpression(u"^alert: (?!Apache)"_s))) {
            const QRegularExpressionMatch match = others.match(message);
            const double load = match.captured(1).toDouble() + 0.05; // of the rounding
            const int processors = match.captured(2).toInt();
            QVERIFY2((processors > 0 && load >= 2 * processors) || match.captured(3).toInt() >= 90
                         || match.captured(4).toInt() >= 90 || match.captured(5).toInt() >= 85,
                     qPrintable(message));
        }
    }

    /// Typing errors read as 0, which every figure reaches.
    void settingsThatAreNoNumbers()
    {
        m_fixture.settings[u"health/memory_alert_pct"_s] = u"ninety"_s;
        const auto health = m_fixture.makeHealth();
        health->sample();
        health->sample();
        expectAlert(u"Memory \\d+% used$"_s);
        health->sample();
    }

    void noSampleWithinASample()
    {
        FakeHttp webhook;
        QVERIFY(webhook.start());
        useApache();
        m_fixture.settings[u"notify/webhook_url"_s] = webhook.url(u"/"_s);
        m_fixture.settings[u"health/memory_alert_pct"_s] = 0;
        const auto health = m_fixture.makeHealth();
        m_apache.answer([&](const auto&) {
            health->sample();
            return ok(statusPage(1, 1, 1, 4));
        });
        webhook.answer([&](const auto&) {
            health->sample();
            return ok({});
        });
        expectAlert(u"Memory \\d+% used$"_s);
        for (int i = 0; i < 3; ++i)
            health->sample();
        QCOMPARE(webhook.requests().size(), 1);
        QCOMPARE(m_apache.requests().size(), 3);
        QCOMPARE(samples(), u"3"_s);
    }

    void sessionLostDuringTheWaitForApache()
    {
        useApache();
        const auto health = m_fixture.makeHealth();
        health->sample();
        m_apache.answer([this](const auto&) {
            test::ProductSession::endBackend(m_fixture.session.other());
            QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
            [[maybe_unused]] const bool usable = db::ensure(true);
            return ok({});
        });
        health->sample();
        QCOMPARE(samples(), u"2"_s);
    }

    void serverLostDuringTheWaitForApache_data()
    {
        QTest::addColumn<bool>("noticed"); // before the statements of the sample
        QTest::newRow("noticed") << true;
        QTest::newRow("not-yet-noticed") << false;
    }
    /// One line, and none of Qt's own about statements without a session.
    void serverLostDuringTheWaitForApache()
    {
        QFETCH(const bool, noticed);
        useApache();
        m_fixture.settings[u"health/memory_alert_pct"_s] = 0;
        const auto health = m_fixture.makeHealth();
        m_apache.answer([&](const auto&) {
            m_fixture.server.stop();
            if (noticed)
                db::session().close();
            return ok({});
        });
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^database: reconnect failed: "_s));
        health->sample();
        QVERIFY(m_fixture.server.restart());
        QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
        QVERIFY(db::ensure(true));
        QCOMPARE(samples(), u"0"_s);
    }
};

QTEST_GUILESS_MAIN(tst_Health)
#include "tst_Health.moc"
