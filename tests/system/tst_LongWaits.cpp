// The running binary while Google or DB-IP say nothing: samples, alerts, logs and roll-ups go on, and what is
// asked for meanwhile waits for its turn.

#include "support/Collector.h"
#include "support/FakeHosts.h"
#include "support/FakeHttp.h"
#include "support/LocalTime.h"
#include "support/PostgresServer.h"

#include <QDir>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QTest>

#include <algorithm>
#include <memory>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::FakeHosts;
using test::FakeHttp;

namespace {

constexpr int kWaitMs = 20'000;
/// The longest time between two samples, asked for each second, that is no stall: Apache's three seconds and
/// what a loaded machine adds to them.
constexpr int kGapMs = 8'000;

FakeHosts::Reply stalled(const FakeHosts::Request&)
{
    return {.delivery = FakeHosts::Delivery::Stalled};
}

/// What Apache says of itself, with @p busy of ten workers busy.
FakeHttp::Reply statusPage(int busy)
{
    return FakeHttp::reply("200 OK",
                           "Total Accesses: 1\nTotal kBytes: 2\nBusyWorkers: " + QByteArray::number(busy)
                               + "\nScoreboard: " + QByteArray(busy, 'W').leftJustified(10, '_') + '\n');
}

} // namespace

class tst_LongWaits : public QObject
{
    Q_OBJECT

private:
    QString value(const QString& statement) { return test::value(m_database, statement); }
    void run(const QString& statement) { test::run(m_database, statement); }

    int samples() { return value(u"SELECT count(*) FROM tarn.host_samples"_s).toInt(); }
    bool waitForSamples(int more)
    {
        const int wanted = samples() + more;
        return QTest::qWaitFor([&] { return samples() >= wanted; }, kWaitMs);
    }
    /// The longest time without a sample while @p more of them are taken, in milliseconds; -1 when they are
    /// not.
    qint64 longestGap(int more)
    {
        qint64 longest = 0;
        QElapsedTimer timer;
        for (int i = 0; i < more; ++i) {
            timer.start();
            if (!waitForSamples(1))
                return -1;
            longest = std::max(longest, timer.elapsed());
        }
        return longest;
    }

    /// Gives the collector a connection to Google.
    void connectGoogle()
    {
        run(u"INSERT INTO tarn.engine_accounts (engine, refresh_token) VALUES ('google', 'kept')"_s);
        m_collector->settings[u"google/client_id"_s] = u"id"_s;
        m_collector->settings[u"google/client_secret"_s] = u"hidden"_s;
    }

    qsizetype entriesOf(const QString& folder) const
    {
        return QDir(u"/proc/%1/%2"_s.arg(m_collector->processId()).arg(folder))
            .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
            .size();
    }

    test::PostgresServer m_server;
    FakeHosts m_hosts;
    FakeHttp m_apache;
    QSqlDatabase m_database;
    std::unique_ptr<test::Collector> m_collector;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_server.start());
        QVERIFY(
            m_hosts.start({u"oauth2.googleapis.com"_s, u"www.googleapis.com"_s, u"download.db-ip.com"_s}));
        QVERIFY(m_apache.start());
    }

    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_collector = std::make_unique<test::Collector>();
        m_database = m_server.connect(m_collector->useNewDatabase(m_server), u"test"_s);
        run(u"INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')"_s);
        m_collector->settings[u"collect/interval_seconds"_s] = u"1"_s;
        m_collector->trust(m_hosts);
        m_hosts.answer(stalled);
    }

    void cleanup()
    {
        m_collector.reset();
        QCOMPARE(m_hosts.complaints(), QStringList());
        m_hosts.reset();
        m_apache.reset();
    }

    void askedForWhileASampleWaitsForApache_data()
    {
        QTest::addColumn<QString>("seconds");
        QTest::newRow("each-second") << u"1"_s;
        QTest::newRow("on-every-pass-of-the-loop") << u"0"_s;
    }
    void askedForWhileASampleWaitsForApache()
    {
        QFETCH(const QString, seconds);
        m_collector->settings[u"collect/interval_seconds"_s] = seconds;
        m_collector->settings[u"health/apache_status_url"_s] = m_apache.url(u"/server-status?auto"_s);
        m_apache.setReply({}); // not a word
        connectGoogle();
        m_hosts.answer(
            [](const FakeHosts::Request&) { return FakeHosts::Reply{.status = 400, .body = "{}"}; });
        m_collector->start();
        QVERIFY(m_collector->waitForLog(u"collect: google: "_s));
        m_hosts.answer(stalled);
        const qsizetype asked = m_apache.requests().size();
        QTRY_VERIFY_WITH_TIMEOUT(m_apache.requests().size() > asked, kWaitMs);
        const qsizetype before = m_hosts.requests().size();
        run(u"NOTIFY tarn_sync"_s);
        QTRY_COMPARE_WITH_TIMEOUT(m_hosts.requests().size(), before + 1, kWaitMs);
        const qint64 gap = longestGap(3);
        qInfo("longest time without a sample: %lld ms", gap);
        QVERIFY2(gap >= 0 && gap < kGapMs, qPrintable(QString::number(gap)));
        QCOMPARE(m_collector->log().filter(u"collect: google: "_s).size(), 1); // the other is under way
    }

    void manyRequestsDuringOneAnswerAreOneMore()
    {
        connectGoogle();
        m_collector->start();
        QTRY_COMPARE_WITH_TIMEOUT(m_hosts.requests().size(), 1, kWaitMs);
        QVERIFY(waitForSamples(1));
        const qsizetype threads = entriesOf(u"task"_s);
        const qsizetype descriptors = entriesOf(u"fd"_s);
        for (int i = 0; i < 640; ++i)
            run(u"NOTIFY tarn_sync"_s);
        QVERIFY(waitForSamples(3));
        qInfo("threads %lld -> %lld, descriptors %lld -> %lld", qint64(threads), qint64(entriesOf(u"task"_s)),
              qint64(descriptors), qint64(entriesOf(u"fd"_s)));
        QVERIFY(entriesOf(u"task"_s) <= threads + 2);
        QVERIFY(entriesOf(u"fd"_s) <= descriptors + 4);
        QCOMPARE(m_hosts.requests().size(), 1);

        m_hosts.reset(); // which ends the first
        m_hosts.answer(
            [](const FakeHosts::Request&) { return FakeHosts::Reply{.status = 400, .body = "{}"}; });
        QVERIFY(m_collector->waitForLog(u"collect: google: "_s, 2));
        QVERIFY(waitForSamples(3));
        QCOMPARE(m_collector->log().filter(u"collect: google: "_s).size(), 2);
    }

    void aCountryFileThatNeverComesStopsNothingElse_data()
    {
        QTest::addColumn<bool>("apacheAnswers");
        QTest::newRow("begun-by-the-maintenance-timer") << true;
        QTest::newRow("begun-while-a-sample-waits") << false;
    }
    void aCountryFileThatNeverComesStopsNothingElse()
    {
        QFETCH(const bool, apacheAnswers);
        run(u"CREATE TABLE public.passes (at timestamptz DEFAULT clock_timestamp())"_s);
        run(u"CREATE OR REPLACE FUNCTION tarn.rollup_day(site_id integer, day date) RETURNS void "
            "LANGUAGE sql AS 'INSERT INTO public.passes DEFAULT VALUES'"_s);
        m_collector->environment[u"TZ"_s] = test::zoneWhereItIs(QTime(23, 59, 40));
        m_collector->settings[u"health/apache_status_url"_s] = m_apache.url(u"/server-status?auto"_s);
        m_apache.setReply(apacheAnswers ? statusPage(1) : FakeHttp::Reply());
        m_hosts.answer([](const FakeHosts::Request&) { return FakeHosts::Reply{.status = 404}; });
        m_collector->start();
        QVERIFY(waitForSamples(2));
        const qsizetype before = m_hosts.requests().size();

        // The next pass of the maintenance, half a minute after the first, is the first of a new day.
        run(u"UPDATE tarn.settings SET value = '2024-01' WHERE key = 'geoip_month'"_s);
        m_hosts.answer(stalled);
        QTRY_COMPARE_WITH_TIMEOUT(m_hosts.requests().size(), before + 1, 60'000);
        m_apache.setReply(apacheAnswers ? statusPage(10) : FakeHttp::Reply());
        const qint64 gap = longestGap(3);
        qInfo("longest time without a sample: %lld ms", gap);
        QVERIFY2(gap >= 0 && gap < kGapMs, qPrintable(QString::number(gap)));
        if (apacheAnswers)
            QVERIFY(m_collector->waitForLog(u"alert: Apache is using 10 of 10 workers"_s));
        const QString passes = value(u"SELECT count(*) FROM public.passes"_s);
        QTRY_VERIFY_WITH_TIMEOUT(value(u"SELECT count(*) FROM public.passes"_s) != passes, 60'000);
        QCOMPARE(m_hosts.requests().size(), before + 1);
    }
};

QTEST_GUILESS_MAIN(tst_LongWaits)
#include "tst_LongWaits.moc"
