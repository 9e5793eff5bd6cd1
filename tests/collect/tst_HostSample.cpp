#include "collect/HostSample.h"
#include "collect/HostTexts.h"

#include <QTest>

#include <limits>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using Counters = HostCounters;

namespace {

constexpr qint64 kMost = std::numeric_limits<qint64>::max();
constexpr qint64 kLeast = std::numeric_limits<qint64>::min();

constexpr auto kColumns =
    "load1, load5, load15, mem_total_kb, mem_avail_kb, disk_total_bytes, disk_avail_bytes, "
    "cpu_pct, iowait_pct, swap_total_kb, swap_free_kb, net_rx_bps, net_tx_bps, disk_read_bps, "
    "disk_write_bps, cpu_temp_c, pg_connections, pg_tps, apache_rps, apache_bps, apache_busy, "
    "apache_slots";

/// A sample, and the one ten seconds before it: each counter has grown by an amount of its own.
const Counters kBefore = {1'000, 10'000, 100, 1'000, 2'000, 3'000,  4'000, 500,
                          60,    7'000,  9,   400,   true,  50'000, true};
const Counters kNow = {1'250, 11'000, 125, 2'000, 4'000, 6'000,  8'000, 1'000,
                       120,   12'000, 3,   401,   true,  60'000, true};

HostFigures figures()
{
    HostFigures host;
    host.load = {0.5, 1.25, 2};
    host.memTotalKb = 1'111;
    host.memAvailableKb = 222;
    host.diskTotalBytes = 33'333;
    host.diskAvailableBytes = 4'444;
    host.swapTotalKb = 555;
    host.swapFreeKb = 66;
    host.cpuTemperatureC = 71.5;
    host.pgConnections = 7;
    return host;
}

/// Values by the name of their column, as text; "NULL" for NULL.
QMap<QString, QString> row(const Counters& previous, const Counters& current,
                           const HostFigures& host = figures())
{
    const QStringList names = QString::fromLatin1(kColumns).split(u", "_s);
    const QVariantList values = sampleValues(previous, current, host);
    QMap<QString, QString> result;
    for (qsizetype i = 0; i < names.size(); ++i)
        result[names.at(i)] = values.value(i).isNull() ? u"NULL"_s : values.value(i).toString();
    return result;
}

/// The columns of @p row that are NULL, in the table's order.
QStringList nulls(const QMap<QString, QString>& row)
{
    QStringList found;
    for (const QString& name : QString::fromLatin1(kColumns).split(u", "_s)) {
        if (row.value(name) == u"NULL"_s)
            found << name;
    }
    return found;
}

const QStringList kRates = {u"cpu_pct"_s,    u"iowait_pct"_s,    u"net_rx_bps"_s,
                            u"net_tx_bps"_s, u"disk_read_bps"_s, u"disk_write_bps"_s,
                            u"pg_tps"_s,     u"apache_rps"_s,    u"apache_bps"_s};

} // namespace

class tst_HostSample : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void statement()
    {
        QCOMPARE(sampleInsertStatement(),
                 u"INSERT INTO tarn.host_samples (%1) VALUES (%2)"_s.arg(
                     QString::fromLatin1(kColumns), QStringList(22, u"?"_s).join(u", "_s)));
    }

    void valuesInTheOrderOfTheColumns()
    {
        const QVariantList expected = {
            0.5,   1.25, 2.0,         qint64(1'111), qint64(222), qint64(33'333), qint64(4'444),
            25.0,  2.5,  qint64(555), qint64(66),    100.0,       200.0,          300.0,
            400.0, 71.5, 7,           50.0,          6.0,         500.0,          3,
            401};
        const QVariantList values = sampleValues(kBefore, kNow, figures());
        QCOMPARE(values.size(), 22);
        for (qsizetype i = 0; i < values.size(); ++i) {
            QCOMPARE(values.at(i).metaType(), expected.at(i).metaType());
            QCOMPARE(values.at(i), expected.at(i));
        }
    }

    void noRatesWithoutASampleBefore_data()
    {
        QTest::addColumn<bool>("valid");
        QTest::addColumn<qint64>("beforeMs");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("first-sample") << false << qint64(0) << kRates;
        QTest::newRow("one-millisecond") << true << kNow.atMs - 1 << QStringList();
        QTest::newRow("clock-stood-still") << true << kNow.atMs << kRates;
        QTest::newRow("clock-went-back") << true << kNow.atMs + 1 << kRates;
    }
    void noRatesWithoutASampleBefore()
    {
        QFETCH(const bool, valid);
        QFETCH(const qint64, beforeMs);
        Counters before = kBefore;
        before.valid = valid;
        before.atMs = beforeMs;
        QTEST(nulls(row(before, kNow)), "expected");
    }

    void counterThatWentDown_data()
    {
        QTest::addColumn<qint64 Counters::*>("counter");
        QTest::addColumn<QString>("column");
        QTest::newRow("net-received") << &Counters::netRx << u"net_rx_bps"_s;
        QTest::newRow("net-sent") << &Counters::netTx << u"net_tx_bps"_s;
        QTest::newRow("disk-read") << &Counters::diskRead << u"disk_read_bps"_s;
        QTest::newRow("disk-written") << &Counters::diskWrite << u"disk_write_bps"_s;
        QTest::newRow("transactions") << &Counters::pgXacts << u"pg_tps"_s;
        QTest::newRow("apache-requests") << &Counters::apacheRequests << u"apache_rps"_s;
        QTest::newRow("apache-bytes") << &Counters::apacheBytes << u"apache_bps"_s;
    }
    void counterThatWentDown()
    {
        QFETCH(qint64 Counters::*const, counter);
        QFETCH(const QString, column);
        Counters reset = kNow;
        reset.*counter = kBefore.*counter - 1;
        QCOMPARE(nulls(row(kBefore, reset)), QStringList{column});
        // The row after has its rate again.
        Counters after = reset;
        after.atMs += 10'000;
        after.*counter += 50;
        QCOMPARE(row(reset, after)[column], u"5"_s);
        // One that has not moved has not gone down.
        after.*counter = reset.*counter;
        QCOMPARE(row(reset, after)[column], u"0"_s);
    }

    void processorTimesHaveNoGuard()
    {
        Counters reset = kNow;
        reset.cpuBusy = 0;
        reset.cpuTotal = 0;
        reset.cpuIowait = 0;
        const auto values = row(kBefore, reset);
        QCOMPARE(values[u"cpu_pct"_s].toDouble(), -100'000.0);
        QCOMPARE(values[u"iowait_pct"_s].toDouble(), -10'000.0);
        // A span of no jiffies counts as one.
        Counters still = kNow;
        still.cpuTotal = kBefore.cpuTotal;
        QCOMPARE(row(kBefore, still)[u"cpu_pct"_s], u"25000"_s);
        still.cpuTotal = kBefore.cpuTotal + 2;
        QCOMPARE(row(kBefore, still)[u"cpu_pct"_s], u"12500"_s);
    }

    void apacheThatDoesNotAnswer()
    {
        Counters downNow = kNow;
        downNow.apache = false;
        Counters downBefore = kBefore;
        downBefore.apache = false;
        const QStringList rates = {u"apache_rps"_s, u"apache_bps"_s};
        const QStringList workers = {u"apache_busy"_s, u"apache_slots"_s};
        QCOMPARE(nulls(row(kBefore, downNow)), rates + workers);
        QCOMPARE(nulls(row(downBefore, downNow)), rates + workers);
        QCOMPARE(nulls(row(downBefore, kNow)), rates);
        QCOMPARE(row(downBefore, kNow)[u"apache_busy"_s], u"3"_s);
        QCOMPARE(row(downBefore, kNow)[u"apache_slots"_s], u"401"_s);
    }

    void noSensor()
    {
        HostFigures host = figures();
        host.cpuTemperatureC.reset();
        QCOMPARE(nulls(row(kBefore, kNow, host)), QStringList{u"cpu_temp_c"_s});
    }

    /// Two machines as one before and after: every figure of the row comes from their files.
    void rowOfACapturedMachine()
    {
        Counters before = readHostCounters(test::capturedPath(u"proc/container"_s));
        before.atMs = 50'000;
        before.valid = true;
        Counters now = readHostCounters(test::capturedPath(u"proc/old-kernel"_s));
        now.atMs = 60'000;
        const HostFigures host = readHostFigures(test::capturedPath(u"proc/old-kernel"_s),
                                                 test::capturedPath(u"proc/no-sensors"_s));
        QMap<QString, QString> values = row(before, now, host);
        QVERIFY(values.take(u"disk_total_bytes"_s).toLongLong() > 0); // this machine's
        QVERIFY(values.take(u"disk_avail_bytes"_s).toLongLong() > 0);
        QCOMPARE(values.take(u"cpu_pct"_s).toDouble(), 570 * 100.0 / 30'570);
        const QMap<QString, QString> expected = {
            {u"load1"_s,          u"0.2"_s        },
            {u"load5"_s,          u"0.18"_s       },
            {u"load15"_s,         u"0.12"_s       },
            {u"mem_total_kb"_s,   u"2075496"_s    },
            {u"mem_avail_kb"_s,   u"0"_s          },
            {u"iowait_pct"_s,     u"0"_s          },
            {u"swap_total_kb"_s,  u"2097144"_s    },
            {u"swap_free_kb"_s,   u"2097000"_s    },
            {u"net_rx_bps"_s,     u"429496615.6"_s},
            {u"net_tx_bps"_s,     u"321098217.6"_s},
            {u"disk_read_bps"_s,  u"3276800"_s    },
            {u"disk_write_bps"_s, u"4915200"_s    },
            {u"cpu_temp_c"_s,     u"NULL"_s       },
            {u"pg_connections"_s, u"0"_s          },
            {u"pg_tps"_s,         u"0"_s          },
            {u"apache_rps"_s,     u"NULL"_s       },
            {u"apache_bps"_s,     u"NULL"_s       },
            {u"apache_busy"_s,    u"NULL"_s       },
            {u"apache_slots"_s,   u"NULL"_s       },
        };
        QCOMPARE(values, expected);
    }

    void rate_data()
    {
        QTest::addColumn<qint64>("current");
        QTest::addColumn<qint64>("previous");
        QTest::addColumn<double>("seconds");
        QTest::addColumn<std::optional<double>>("expected");
        QTest::newRow("grown") << qint64(30) << qint64(10) << 4.0 << std::optional(5.0);
        QTest::newRow("unmoved") << qint64(10) << qint64(10) << 4.0 << std::optional(0.0);
        QTest::newRow("gone-down") << qint64(9) << qint64(10) << 4.0 << std::optional<double>();
        QTest::newRow("millisecond") << qint64(11) << qint64(10) << 0.001 << std::optional(1000.0);
        QTest::newRow("beyond-53-bits") << kMost << kMost - 3 << 1.0 << std::optional(3.0);
        QTest::newRow("whole-range") << kMost << kLeast << 1.0 << std::optional(18446744073709551616.0);
        QTest::newRow("whole-range-down") << kLeast << kMost << 1.0 << std::optional<double>();
    }
    void rate()
    {
        QFETCH(const qint64, current);
        QFETCH(const qint64, previous);
        QFETCH(const double, seconds);
        QTEST(tarn::rate(current, previous, seconds), "expected");
    }

    void hugeCounters()
    {
        Counters low = {kLeast, kLeast, kLeast, kLeast, kLeast, kLeast, kLeast, kLeast,
                        kLeast, kLeast, 0,      0,      true,   kLeast, true};
        Counters high = {kMost, kMost, kMost, kMost, kMost, kMost, kMost, kMost,
                         kMost, kMost, 0,     0,     true,  kMost, true};
        QCOMPARE(nulls(row(low, high)), QStringList());
        QCOMPARE(row(low, high)[u"cpu_pct"_s], u"100"_s);
        high.atMs = 0;
        low.atMs = 1000;
        QCOMPARE(row(high, low)[u"cpu_pct"_s].left(5), u"-1844"_s);
    }
};

QTEST_GUILESS_MAIN(tst_HostSample)
#include "tst_HostSample.moc"
