#include "report/HostData.h"

#include "ReportFixture.h"

#include <QFile>
#include <QTemporaryDir>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::report;
using tarn::test::run;
using tarn::test::scalar;

class tst_HostData : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_report.start()); }
    void init() { QVERIFY(m_report.openEmpty()); }
    void cleanup() { m_report.session.close(); }

    void emptyDatabase();
    void latestSample();
    void samplesOverTime();
    void samplesOfThePeriodOnly();
    void longCurve();
    void alerts();
    void alertsAreCut();
    void accounts();
    void accountsAreCut();
    void accountNamesGivenAway();
    void unread_data();
    void unread();
    void sources();
    void sourcesAreCut();
    void sites();
    void sitesAreCut();
    void trendsOfLongPeriods();
    void search();
    void demo();

private:
    static HostFigures read(qint64 days = 7)
    {
        const Reading reading;
        const std::optional<Now> now = readNow();
        if (!now)
            return {};
        return readHost(u"host.example"_s, *now, {now->today.addDays(1 - days), now->today})
            .value_or(HostFigures());
    }

    tarn::test::ReportFixture m_report;
};

void tst_HostData::emptyDatabase()
{
    const HostFigures figures = read();
    QCOMPARE(figures.name, u"host.example"_s);
    QVERIFY(!figures.latest);
    QCOMPARE(figures.samples.metrics[Load], Values(kBuckets));
    QVERIFY(figures.days.isEmpty() && figures.alerts.isEmpty() && figures.accounts.listed.isEmpty());
    QCOMPARE(figures.sources.count + figures.sites.count + figures.accounts.count, 0);
    QVERIFY(figures.searchAt.isEmpty());
}

void tst_HostData::latestSample()
{
    run(u"INSERT INTO tarn.host_samples (at, load1) VALUES (now() - interval '1 hour', 9)"_s);
    run(u"INSERT INTO tarn.host_samples (at, load1, load15, cpu_pct, iowait_pct, mem_total_kb, mem_avail_kb, "
        "swap_total_kb, swap_free_kb, disk_total_bytes, disk_avail_bytes, disk_read_bps, disk_write_bps, "
        "net_rx_bps, "
        "net_tx_bps, apache_busy, apache_slots, apache_rps, cpu_temp_c, pg_connections, pg_tps) VALUES "
        "(now(), 1, 2, 3, 4, 100, 95, 0, 0, 1000, 930, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17)"_s);
    const Sample sample = read().latest.value();
    const QList<double> expected = {1, 2, 3, 4, 5, -1, 7, 8, 9, 10, 11, 12, 13, 14};
    for (int metric = 0; metric < MetricCount; ++metric)
        QCOMPARE(sample.metrics.at(static_cast<std::size_t>(metric)).value_or(-1), expected.at(metric));
    QVERIFY(!sample.metrics[Swap]); // none, rather than one that is full
    QCOMPARE(sample.memoryBytes, 102400.0);
    QCOMPARE(sample.diskBytes, 1000.0);
    QCOMPARE(sample.temperature, 15.0);
    QCOMPARE(sample.connections, 16.0);
    QCOMPARE(sample.transactions, 17.0);
}

void tst_HostData::samplesOverTime()
{
    // A part is 6 minutes of a day's curve: the first, two samples in one, and the last.
    run(u"INSERT INTO tarn.host_samples (at, load1, net_rx_bps, mem_total_kb, mem_avail_kb) VALUES "
        "(now() - interval '23 hours 58 minutes', 1, 10, 100, 90), (now() - interval '8 minutes', 2, NULL, "
        "0, 0), "
        "(now() - interval '7 minutes', 4, 30, 100, 40), (now() - interval '1 minute', 8, NULL, NULL, NULL)"_s);
    const Samples samples = read(1).samples;
    QCOMPARE(samples.to - samples.from, 86400);
    QCOMPARE(samples.metrics[Load].size(), kBuckets);
    QCOMPARE(samples.metrics[Load][0], 1.0);
    QCOMPARE(samples.metrics[Load][kBuckets - 2], 3.0);
    QCOMPARE(samples.metrics[LoadMax][kBuckets - 2], 4.0);
    QCOMPARE(samples.metrics[Load][kBuckets - 1], 8.0);
    QVERIFY(!samples.metrics[Load][1]);
    QCOMPARE(samples.metrics[NetIn][kBuckets - 2], 30.0);
    QVERIFY(!samples.metrics[NetIn][kBuckets - 1]);
    QCOMPARE(samples.metrics[Memory][kBuckets - 2], 60.0);
}

void tst_HostData::samplesOfThePeriodOnly()
{
    run(u"INSERT INTO tarn.host_samples (at, load1) VALUES (now() - interval '25 hours', 1), (now() - "
        u"interval '1 minute', 5), "
        "(now() + interval '1 hour', 2)"_s);
    const HostFigures figures = read(1);
    QCOMPARE(figures.samples.metrics[Load].count(std::nullopt), kBuckets - 1);
    QCOMPARE(figures.samples.metrics[Load].last(), 5.0);
    // Samples are kept for so long.
    const Samples longest = read(365).samples;
    QCOMPARE(longest.to - longest.from, kSampleDays * 86400);
}

void tst_HostData::longCurve()
{
    run(u"INSERT INTO tarn.host_days (day, samples, load1_avg, load1_max, cpu_pct_avg, cpu_pct_max, "
        u"mem_used_pct_max, "
        "disk_used_pct_last, net_rx_bytes, net_tx_bytes, apache_requests, zone, load1_samples, "
        "cpu_pct_samples) "
        "SELECT current_date - n, 1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 'UTC', 1, 1 FROM unnest(ARRAY[0, 2, %1, %2]) n"_s
            .arg(kLongDays - 1)
            .arg(kLongDays));
    const QList<HostDay> days = read().days;
    QCOMPARE(days.size(), kLongDays);
    QCOMPARE(days.last().loadAverage, 1.0);
    QCOMPARE(days.last().loadMax, 2.0);
    QCOMPARE(days.last().processors, 3.0);
    QCOMPARE(days.last().memory, 5.0);
    QCOMPARE(days.last().disk, 6.0);
    QCOMPARE(days.last().received, 7.0);
    QCOMPARE(days.last().sent, 8.0);
    QVERIFY(!days[kLongDays - 2].loadAverage);
    QCOMPARE(days[kLongDays - 2].day, days.last().day.addDays(-1));
    QVERIFY(days.first().loadAverage);
}

void tst_HostData::alerts()
{
    run(u"INSERT INTO tarn.alerts (kind, subject, message, opened_at, closed_at) VALUES "
        "('disk', '/', 'old', now() - interval '9 days', now() - interval '8 days'), "
        "('disk', '/', 'reaches in', now() - interval '9 days', now() - interval '6 days'), "
        "('load', 'CPU', 'lasting', now() - interval '60 days', NULL), "
        "('memory', 'RAM', 'latest', now() - interval '2 hours', now() - interval '1 hour')"_s);
    const HostFigures figures = read(7);
    QStringList messages;
    for (const Alert& alert : figures.alerts)
        messages.append(alert.message);
    QCOMPARE(messages, QStringList({u"latest"_s, u"reaches in"_s, u"lasting"_s}));
    QCOMPARE(figures.open.size(), 1);
    QCOMPARE(figures.open.first().message, u"lasting"_s);
    QVERIFY(!figures.open.first().closedSeconds);
    QCOMPARE(figures.alerts.first().closedSeconds.value() - figures.alerts.first().openedSeconds, 3600);
}

void tst_HostData::alertsAreCut()
{
    run(u"INSERT INTO tarn.alerts (kind, subject, message, opened_at, closed_at) "
        "SELECT 'load', 'CPU', 'm', now() - n * interval '1 minute', now() FROM generate_series(1, %1) n"_s
            .arg(kDrawnAlerts));
    QCOMPARE(read().alerts.size(), kDrawnAlerts);
    // The open one stays, however old it is.
    run(u"INSERT INTO tarn.alerts (kind, subject, message, opened_at) "
        "VALUES ('disk', '/', 'open', now() - interval '5 days')"_s);
    const HostFigures figures = read();
    QCOMPARE(figures.alerts.size(), kDrawnAlerts);
    QCOMPARE(figures.open.size(), 1);
}

void tst_HostData::accounts()
{
    run(u"INSERT INTO tarn.accounts (username, domain, disk_limit_mb, db_limit_mb, disk_used_bytes, "
        u"db_used_bytes, "
        "db_readonly, created_at) VALUES "
        "('half', 'half.example', 100, 0, 52428800, 1, false, '2020-01-01'), "
        "('over', 'over.example', 1000, 10, 1048576, 10485760, true, '2020-01-01'), "
        "('free', 'free.example', 0, -5, 999999999, NULL, false, '2020-01-01'), "
        "('huge', 'huge.example', 9223372036854775807, 0, 5, 5, false, '2020-01-01'), "
        "('none', 'none.example', 100, 0, NULL, NULL, false, '2020-01-01')"_s);
    run(u"INSERT INTO tarn.account_days VALUES ('half', current_date - 9, 1, 1), "
        "('half', current_date - 5, 20, 30), ('half', current_date, 99, 99)"_s);
    const Accounts accounts = read(7).accounts;
    QStringList names;
    for (const Account& account : accounts.listed)
        names.append(account.username);
    QCOMPARE(names, QStringList({u"over"_s, u"half"_s, u"huge"_s, u"free"_s, u"none"_s}));
    QCOMPARE(accounts.count, 5);
    QCOMPARE(accounts.disk, 1048576.0 + 52428800 + 999999999 + 5);
    QCOMPARE(accounts.database, 10485760.0 + 1 + 5);
    const Account& over = accounts.listed[0];
    QCOMPARE(over.share(), 1.0);
    QVERIFY(over.readOnly && !over.diskBefore);
    const Account& half = accounts.listed[1];
    QCOMPARE(half.share(), 0.5);
    QCOMPARE(half.diskLimit, 104857600.0);
    QCOMPARE(half.diskBefore, 20.0);
    QCOMPARE(half.databaseBefore, 30.0);
    QCOMPARE(half.since, readNow()->today.addDays(-5));
    QCOMPARE(accounts.listed[3].diskLimit + accounts.listed[3].databaseLimit, 0.0);
}

void tst_HostData::accountsAreCut()
{
    const auto add = [](int from, int to) {
        run(u"INSERT INTO tarn.accounts (username, domain, disk_used_bytes) "
            "SELECT 'u' || n, 'd', n FROM generate_series(%1, %2) n"_s.arg(from)
                .arg(to));
    };
    add(1, kListedAccounts);
    QCOMPARE(read().accounts.listed.size(), kListedAccounts);
    add(kListedAccounts + 1, kListedAccounts + 1);
    const Accounts accounts = read().accounts;
    QCOMPARE(accounts.listed.size(), kListedAccounts);
    QCOMPARE(accounts.count, kListedAccounts + 1);
    QCOMPARE(accounts.listed.last().username, u"u2"_s);
}

void tst_HostData::accountNamesGivenAway()
{
    run(u"INSERT INTO tarn.accounts (username, domain, disk_used_bytes, created_at) "
        "VALUES ('again', 'd', 5, now() - interval '2 days')"_s);
    run(u"INSERT INTO tarn.account_days VALUES ('again', current_date - 4, 1000, 1000), "
        "('again', current_date - 1, 3, NULL)"_s);
    QCOMPARE(read(7).accounts.listed.first().diskBefore, 3.0);
}

void tst_HostData::unread_data()
{
    QTest::addColumn<SourceState>("state");
    QTest::addColumn<qint64>("expected"); // -1: not behind

    constexpr qint64 moved = 10'000 - kBehindSeconds;
    const SourceState read{.inode = 7,
                           .readOffset = 500,
                           .movedSeconds = moved,
                           .exists = true,
                           .fileInode = 7,
                           .fileSize = 500,
                           .fileSeconds = 0};
    const auto with = [&read](auto change) {
        SourceState state = read;
        change(state);
        return state;
    };
    QTest::newRow("read-to-the-end") << read << qint64(-1);
    QTest::newRow("grown") << with([](SourceState& s) { s.fileSize = 600; }) << qint64(100);
    QTest::newRow("grown-but-lately-read") << with([](SourceState& s) {
        s.fileSize = 600;
        s.movedSeconds = moved + 1;
    }) << qint64(-1);
    QTest::newRow("written-just-now") << with([](SourceState& s) {
        s.fileSize = 600;
        s.fileSeconds = 10'000 - kFreshSeconds + 1;
    }) << qint64(-1);
    QTest::newRow("written-a-moment-ago") << with([](SourceState& s) {
        s.fileSize = 600;
        s.fileSeconds = 10'000 - kFreshSeconds;
    }) << qint64(100);
    QTest::newRow("most-written-just-now") << with([](SourceState& s) {
        s.fileSize = 500 + kFreshBytes - 1;
        s.fileSeconds = 10'000;
    }) << qint64(-1);
    QTest::newRow("more-written-just-now") << with([](SourceState& s) {
        s.fileSize = 500 + kFreshBytes;
        s.fileSeconds = 10'000;
    }) << kFreshBytes;
    QTest::newRow("rotated") << with([](SourceState& s) { s.fileInode = 8; }) << qint64(500);
    QTest::newRow("cut-in-place") << with([](SourceState& s) { s.fileSize = 400; }) << qint64(400);
    QTest::newRow("emptied") << with([](SourceState& s) { s.fileSize = 0; }) << qint64(-1);
    QTest::newRow("gone") << with([](SourceState& s) { s.exists = false; }) << qint64(0);
    QTest::newRow("never-there") << with([](SourceState& s) {
        s.exists = false;
        s.inode.reset();
    }) << qint64(-1);
    QTest::newRow("never-read") << with([](SourceState& s) {
        s.inode.reset();
        s.readOffset = 0;
    }) << qint64(500);
}

void tst_HostData::unread()
{
    QFETCH(const SourceState, state);
    QTEST(unreadBytes(state, 10'000).value_or(-1), "expected");
}

void tst_HostData::sources()
{
    QTemporaryDir folder;
    QFile log(folder.filePath(u"access.log"_s));
    QVERIFY(log.open(QIODevice::WriteOnly));
    log.write(QByteArray(static_cast<qsizetype>(kFreshBytes), 'x'));
    log.close();
    QVERIFY(QFile::copy(log.fileName(), folder.filePath(u"read.log"_s)));
    // A folder that is a file cannot be looked into, by whomever.
    const QString unseen = log.fileName() + u"/below.log"_s;

    run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'a.example')"_s);
    run(u"INSERT INTO tarn.log_sources (site_id, path, inode, read_offset, updated_at) VALUES "
        "(1, '%1', 1, 0, now() - interval '1 hour'), (1, '%2/read.log', 1, 0, now()), "
        "(1, '%2/gone.log', 5, 9, now() - interval '1 hour'), (1, '%3', 1, 1, now() - interval '1 hour')"_s
            .arg(log.fileName(), folder.path(), unseen));
    const Sources sources = read().sources;
    QCOMPARE(sources.count, 4);
    QCOMPARE(sources.behind, 2);
    QCOMPARE(sources.unseen, 1);
    QCOMPARE(sources.listed.size(), 2);
    QCOMPARE(sources.listed[0].path, log.fileName());
    QCOMPARE(sources.listed[0].host, u"a.example"_s);
    QCOMPARE(sources.listed[0].unreadBytes, kFreshBytes);
    QVERIFY(!sources.listed[0].missing);
    QVERIFY(sources.listed[1].missing);
    QCOMPARE(sources.listed[1].since.size(), 16);
}

void tst_HostData::sourcesAreCut()
{
    const auto add = [](int from, int to) {
        run(u"INSERT INTO tarn.log_sources (site_id, path, inode, updated_at) SELECT 1, '/nowhere/' || n, 1, "
            "now() - interval '1 hour' FROM generate_series(%1, %2) n"_s.arg(from)
                .arg(to));
    };
    run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'a.example')"_s);
    add(1, kListedSources);
    QCOMPARE(read().sources.listed.size(), kListedSources);
    add(kListedSources + 1, kListedSources + 1);
    QCOMPARE(read().sources.listed.size(), kListedSources);
    QCOMPARE(read().sources.behind, kListedSources + 1);
}

void tst_HostData::sites()
{
    run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'a.example'), (2, 'b.example'), (3, 'quiet.example')"_s);
    run(u"INSERT INTO tarn.site_days (site_id, day, hits, page_views, visitors, sessions, bot_hits, bytes, "
        u"errors_4xx, "
        "errors_5xx, engaged_seconds, raw_hits) SELECT s, current_date - n, 40, 10 * s, v, 1, 10, 1, 0, 0, "
        "0, 1 "
        "FROM (VALUES (1, 0, 5), (1, 6, 2), (2, 1, 50), (1, 7, 3), (1, 13, 1), (1, 14, 1000)) d (s, n, v)"_s);
    const Sites sites = read(7).sites;
    QCOMPARE(sites.count, 3);
    QCOMPARE(sites.visitors, 57);
    QCOMPARE(sites.views, 40);
    QCOMPARE(sites.visitorsBefore, 4);
    QCOMPARE(sites.listed.size(), 3);
    QCOMPARE(sites.listed[0].site.host, u"b.example"_s);
    const SiteRow& row = sites.listed[1];
    QCOMPARE(row.site.id, 1);
    QCOMPARE(row.visitors, 7);
    QCOMPARE(row.views, 20);
    QCOMPARE(row.visitorsBefore, 4);
    QCOMPARE(row.botShare, 0.25);
    QCOMPARE(row.trend, QList<double>({2, 0, 0, 0, 0, 0, 5}));
    QCOMPARE(sites.listed[2].visitors, 0);
}

void tst_HostData::sitesAreCut()
{
    const auto add = [](int from, int to) {
        run(u"INSERT INTO tarn.sites (id, host) SELECT n, 's' || n || '.example' FROM generate_series(%1, %2) n"_s
                .arg(from)
                .arg(to));
    };
    add(1, kListedSites);
    QCOMPARE(read().sites.listed.size(), kListedSites);
    add(kListedSites + 1, kListedSites + 1);
    QCOMPARE(read().sites.listed.size(), kListedSites);
    QCOMPARE(read().sites.count, kListedSites + 1);
}

void tst_HostData::trendsOfLongPeriods()
{
    run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'a.example')"_s);
    run(u"INSERT INTO tarn.site_days (site_id, day, hits, page_views, visitors, sessions, bot_hits, bytes, "
        u"errors_4xx, "
        "errors_5xx, engaged_seconds, raw_hits) SELECT 1, current_date - n, 1, 1, 6, 1, 0, 1, 0, 0, 0, 1 "
        "FROM generate_series(0, %1) n"_s.arg(kSparkPoints));
    QCOMPARE(read(kSparkPoints).sites.listed.first().trend, QList<double>(kSparkPoints, 6));
    // Two days a point, one in the last; each tells the mean of its days.
    QCOMPARE(read(kSparkPoints + 1).sites.listed.first().trend, QList<double>(kSparkPoints / 2 + 1, 6));
}

void tst_HostData::search()
{
    run(u"INSERT INTO tarn.engine_accounts (engine, last_sync_at, last_result) "
        "VALUES ('google', now() - interval '47 hours', '3 sites, 0 failed')"_s);
    QCOMPARE(read().searchResult, u"3 sites, 0 failed"_s);
    QVERIFY(!read().searchLate);
    run(u"UPDATE tarn.engine_accounts SET last_sync_at = now() - interval '49 hours'"_s);
    QVERIFY(read().searchLate);
}

void tst_HostData::demo()
{
    m_report.session.close();
    QVERIFY(m_report.openFilled());
    const HostFigures figures = read(30);
    QCOMPARE(figures.open.size(), 2);
    QCOMPARE(figures.alerts.size(), 8);
    QCOMPARE(figures.days.size(), kLongDays);
    QCOMPARE(figures.sites.count, 44);
    QCOMPARE(figures.sites.listed.first().site.host, u"www.example.org"_s);
    QCOMPARE(figures.accounts.listed.first().username, u"kino"_s);
    QVERIFY(figures.samples.metrics[BusyWorkers].count(std::nullopt) > 0); // the hours without a collector
    QVERIFY(figures.samples.metrics[BusyWorkers].count(std::nullopt) < 10);
}

QTEST_GUILESS_MAIN(tst_HostData)
#include "tst_HostData.moc"
