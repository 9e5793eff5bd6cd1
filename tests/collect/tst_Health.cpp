#include "collect/HealthFixture.h"
#include "collect/HostFiles.h"
#include "common/System.h"
#include "support/FakeHttp.h"
#include "support/Messages.h"
#include "support/ProcessMemory.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStorageInfo>
#include <QTest>

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::FakeHttp;
using test::HealthFixture;
using test::memoryMb;

namespace {

const auto kRates =
    u"cpu_pct iowait_pct net_rx_bps net_tx_bps disk_read_bps disk_write_bps pg_tps apache_rps "
    "apache_bps"_s;
const auto kSensor = u"cpu_temp_c"_s;
const auto kApache = u"apache_rps apache_bps apache_busy apache_slots"_s;

/// A status page as Apache writes it.
QByteArray statusPage(int requests, int kBytes, int busy, int slots_)
{
    return "127.0.0.1\nServerVersion: Apache/2.4.57 (Debian)\nServerMPM: event\nTotal Accesses: "
           + QByteArray::number(requests) + "\nTotal kBytes: " + QByteArray::number(kBytes)
           + "\nTotal Duration: 17\nCPULoad: .0134\nReqPerSec: .03\nBusyWorkers: " + QByteArray::number(busy)
           + "\nIdleWorkers: 47\nScoreboard: " + QByteArray(busy, 'W') + QByteArray(slots_ - busy, '.')
           + "\n";
}

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

    void secondSampleHasThem()
    {
        m_apache.answer([this](const auto&) {
            const auto count = static_cast<int>(m_apache.requests().size());
            return ok(statusPage(100 * count, 200 * count, 3, 400));
        });
        useApache();
        const auto health = m_fixture.makeHealth();
        health->sample();
        QTest::qWait(2); // the clock of the counters has milliseconds
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
        QTest::qWait(2);
        health->sample();
        QVERIFY(nullColumns().contains(u"pg_tps"_s));
        HealthFixture::run(u"UPDATE fake.pg_stat_database SET xact_commit = 1000"_s);
        QTest::qWait(2);
        health->sample();
        QVERIFY(!nullColumns().contains(u"pg_tps"_s));
    }

    void missingStatistics()
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
            QTest::qWait(2);
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

    void noStatusPage_data()
    {
        QTest::addColumn<QByteArray>("answer");
        const QByteArray page = statusPage(100, 200, 1, 150);
        QTest::newRow("not-found") << FakeHttp::reply("404 Not Found", page).bytes;
        QTest::newRow("another-success") << FakeHttp::reply("203 Non-Authoritative Information", page).bytes;
        QTest::newRow("redirect-with-page")
            << FakeHttp::reply("302 Found", page, "Location: /elsewhere\r\n").bytes;
        QTest::newRow("another-page") << ok("<html>It works!</html>").bytes;
        QTest::newRow("empty") << ok({}).bytes;
        QTest::newRow("no-http") << QByteArray("SSH-2.0-OpenSSH_9.2\r\n\r\n");
        QTest::newRow("one-byte-too-much") << ok(page + QByteArray(1'048'576 - page.size() + 1, '\n')).bytes;
    }
    void noStatusPage()
    {
        QFETCH(const QByteArray, answer);
        useApache({answer, FakeHttp::Then::CloseLate});
        QVERIFY(!m_fixture.makeHealth()->read().apache);
        for (const FakeHttp::Request& request : m_apache.requests())
            QCOMPARE(request.target, QByteArray("/server-status?auto")); // no redirect is followed
    }

    /// How the end of the connection is noticed is a matter of luck: hence several times.
    void statusPageThatIsCutShort()
    {
        useApache({ok(statusPage(100, 200, 1, 150)).bytes.chopped(1), FakeHttp::Then::CloseLate});
        const auto health = m_fixture.makeHealth();
        for (int i = 0; i < 20; ++i)
            QVERIFY(!health->read().apache);
    }

    void longestStatusPage()
    {
        const QByteArray page = statusPage(100, 200, 1, 150);
        useApache(ok(page + QByteArray(1'048'576 - page.size(), '\n')));
        QVERIFY(m_fixture.makeHealth()->read().apache);
    }

    void compressedStatusPageIsNotAskedFor()
    {
        useApache();
        m_fixture.makeHealth()->read();
        QCOMPARE(m_apache.requests().first().header("Accept-Encoding"), QByteArray("identity"));
    }

    void oddStatusAddresses_data()
    {
        QTest::addColumn<QString>("url");
        QTest::newRow("refused") << u"http://127.0.0.1:1/"_s;
        QTest::newRow("no-scheme") << u"127.0.0.1/server-status?auto"_s;
        QTest::newRow("scheme-relative") << u"//127.0.0.1/server-status?auto"_s;
        QTest::newRow("no-host") << u"http://"_s;
        QTest::newRow("bad-port") << u"http://127.0.0.1:99999/"_s;
        QTest::newRow("blank") << u" "_s;
        QTest::newRow("words") << u"not an address"_s;
        QTest::newRow("other-scheme") << u"gopher://127.0.0.1/"_s;
        QTest::newRow("endless-file") << u"file:///dev/zero"_s;
        QTest::newRow("data") << u"data:text/plain,Total Accesses: 5"_s;
        QTest::newRow("nul") << u"http://127.0.0.1\0/"_s;
    }
    void oddStatusAddresses()
    {
        QFETCH(const QString, url);
        m_fixture.settings[u"health/apache_status_url"_s] = url;
        QVERIFY(!m_fixture.makeHealth()->read().apache);
    }

    /// Silence ends the wait after three seconds, drops after ten; a flood at once.
    void apacheThatKeepsTheSampleWaiting()
    {
        useApache({QByteArray()});
        const auto health = m_fixture.makeHealth();
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!health->read().apache);
        QVERIFY2(timer.elapsed() > 2500 && timer.elapsed() < 6000,
                 qPrintable(QString::number(timer.elapsed())));

        const QByteArray endless = "HTTP/1.1 200 OK\r\n\r\n" + statusPage(1, 1, 1, 1);
        m_apache.setReply({endless, FakeHttp::Then::Trickle});
        timer.start();
        QVERIFY(!health->read().apache);
        QVERIFY2(timer.elapsed() > 9000 && timer.elapsed() < 13'000,
                 qPrintable(QString::number(timer.elapsed())));

        m_apache.setReply({endless, FakeHttp::Then::Flood});
        test::resetMemoryPeak();
        const double before = memoryMb("VmHWM");
        timer.start();
        QVERIFY(!health->read().apache);
        QVERIFY2(timer.elapsed() < 2500, qPrintable(QString::number(timer.elapsed())));
        QVERIFY2(memoryMb("VmHWM") - before < 50, qPrintable(QString::number(memoryMb("VmHWM") - before)));
    }

    void realApache()
    {
        QTemporaryDir folder(u"/tmp/tarn-test-XXXXXX"_s);
        QFile configuration(folder.filePath(u"apache.conf"_s));
        QProcess apache;
        apache.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGTERM); });
        apache.setProcessChannelMode(QProcess::MergedChannels);
        const QString ready = folder.filePath(u"ready.pid"_s);
        // Whether a port is free is known for sure only once the server has it.
        QString url;
        for (int i = 0; i < 20 && !QFile::exists(ready); ++i) {
            const int port = QRandomGenerator::global()->bounded(10'000, 30'000);
            QVERIFY(configuration.open(QIODevice::WriteOnly | QIODevice::Truncate));
            configuration.write(
                "ServerRoot " + folder.path().toUtf8() + "\nServerName status.example\nPidFile "
                + ready.toUtf8() + "\nDefaultRuntimeDir " + folder.path().toUtf8() + "\nErrorLog "
                + folder.path().toUtf8() + "/error.log\nListen 127.0.0.1:" + QByteArray::number(port) + '\n');
            for (const QByteArrayView module : {"mpm_event", "authz_core", "authz_host", "status"}) {
                configuration.write("LoadModule " + module.toByteArray()
                                    + "_module /usr/lib/apache2/modules/mod_" + module.toByteArray()
                                    + ".so\n");
            }
            if (geteuid() == 0)
                configuration.write("User www-data\nGroup www-data\n");
            configuration.write("StartServers 1\nServerLimit 1\nThreadsPerChild 8\nMaxRequestWorkers 8\n"
                                "MinSpareThreads 1\nMaxSpareThreads 8\nExtendedStatus On\n"
                                "<Location /server-status>\nSetHandler server-status\nRequire local\n"
                                "</Location>\n");
            configuration.close();
            apache.start(u"/usr/sbin/apache2"_s, {u"-f"_s, configuration.fileName(), u"-DFOREGROUND"_s});
            QVERIFY(apache.waitForStarted());
            url = u"http://127.0.0.1:%1/server-status?auto"_s.arg(port);
            QVERIFY(QTest::qWaitFor(
                [&] { return QFile::exists(ready) || apache.state() == QProcess::NotRunning; }, 30'000));
        }
        QVERIFY2(QFile::exists(ready), apache.readAll().constData());

        m_fixture.settings[u"health/apache_status_url"_s] = url;
        const auto health = m_fixture.makeHealth();
        const Health::Counters first = health->read();
        QVERIFY(first.apache);
        QCOMPARE(first.apacheSlots, 8);
        QVERIFY(first.apacheBusy >= 1); // the one that writes the page
        Health::Counters second;
        // Apache counts a request when it is done with it, which can be after the client is.
        QTRY_VERIFY((second = health->read()).apacheRequests > first.apacheRequests);
        QVERIFY(second.apacheBytes >= first.apacheBytes);

        apache.terminate();
        QVERIFY(apache.waitForFinished());
        QVERIFY(!health->read().apache);
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

    void failedInsert()
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
        QTest::qWait(2);
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
            const QString backend = HealthFixture::scalar(u"SELECT pg_backend_pid()"_s);
            test::run(m_fixture.session.other(), u"SELECT pg_terminate_backend(%1, 5000)"_s.arg(backend));
            QTest::ignoreMessage(QtInfoMsg, "database: reconnected");
            [[maybe_unused]] const bool usable = db::ensure(true);
            return ok({});
        });
        health->sample();
        QCOMPARE(samples(), u"2"_s);
    }
};

QTEST_GUILESS_MAIN(tst_Health)
#include "tst_Health.moc"
