#include "collect/HostFiles.h"
#include "collect/HostTexts.h"

#include <QRegularExpression>
#include <QTest>

#include <functional>
#include <limits>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;
using test::captured;

namespace {

constexpr qint64 kLargest = std::numeric_limits<qint64>::max();
const QByteArray kLargestText = "9223372036854775807";

/// A line of /proc/diskstats.
QByteArray diskLine(const QByteArray& device, const QByteArray& read = "10", const QByteArray& written = "20")
{
    return "   8       0 " + device + " 7 7 " + read + " 7 7 7 " + written + " 7 0 7 7\n";
}

/// A line of /proc/net/dev.
QByteArray netLine(const QByteArray& name, const QByteArray& received, const QByteArray& sent)
{
    return "  " + name + ": " + received + "  7 0 0 0 0  0 0 " + sent + " 7 0 0 0 0 0 0\n";
}

} // namespace

class tst_HostFiles : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    /// A text cut anywhere is still read, and says no more than the whole one.
    void cutTextsSayNoMore()
    {
        const QByteArray stat = captured(u"proc/xen-guest/stat"_s);
        const QByteArray net = captured(u"proc/network-host/net/dev"_s);
        const QByteArray disks = captured(u"proc/kvm-guest/diskstats"_s);
        const QByteArray memory = captured(u"proc/container/meminfo"_s);
        for (qsizetype size = 0; size <= stat.size(); ++size)
            QVERIFY(parseStat(stat.first(size)).total <= parseStat(stat).total);
        for (qsizetype size = 0; size <= net.size(); ++size)
            QVERIFY(parseNetDev(net.first(size)).in <= parseNetDev(net).in);
        for (qsizetype size = 0; size <= disks.size(); ++size)
            QVERIFY(parseDiskStats(disks.first(size)).out <= parseDiskStats(disks).out);
        for (qsizetype size = 0; size <= memory.size(); ++size)
            QVERIFY(meminfo(memory.first(size), "MemAvailable") <= 1'999'999);
    }

    void spoiltTextsAreZero_data() { test::addSpoiltTexts(); }
    void spoiltTextsAreZero()
    {
        QFETCH(const QByteArray, text);
        const CpuTimes cpu = parseStat(text);
        QCOMPARE(cpu.busy, 0);
        QCOMPARE(cpu.total, 0);
        QCOMPARE(cpu.iowait, 0);
        for (const Traffic& traffic : {parseNetDev(text), parseDiskStats(text)}) {
            QCOMPARE(traffic.in, 0);
            QCOMPARE(traffic.out, 0);
        }
        const LoadAverage load = parseLoadAverage(text);
        QCOMPARE(load.one, 0.0);
        QCOMPARE(load.five, 0.0);
        QCOMPARE(load.fifteen, 0.0);
        QCOMPARE(meminfo(text, "MemTotal"), 0);
    }

    void cpuColumns_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<qint64>("busy");
        QTest::addColumn<qint64>("total");
        QTest::addColumn<qint64>("iowait");
        QTest::newRow("three-columns") << QByteArray("cpu 1 2 3\n") << 6LL << 6LL << 0LL;
        QTest::newRow("four-columns") << QByteArray("cpu 1 2 3 100\n") << 6LL << 106LL << 0LL;
        QTest::newRow("five-columns") << QByteArray("cpu 1 2 3 100 50") << 6LL << 156LL << 50LL;
        QTest::newRow("eight-columns") << QByteArray("cpu 1 2 3 100 50 4 5 6") << 21LL << 171LL << 50LL;
        QTest::newRow("ten-columns") << QByteArray("cpu 1 2 3 100 50 4 5 6 70 80\n") << 21LL << 171LL << 50LL;
        QTest::newRow("tabs-and-blanks") << QByteArray(" cpu\t1  2 \t3   100 50\n") << 6LL << 156LL << 50LL;
        QTest::newRow("only-the-first-line")
            << QByteArray("cpu 1 2 3 4\ncpu0 1000 1000 1000 1000\n") << 6LL << 10LL << 0LL;
        QTest::newRow("empty-first-line") << QByteArray("\ncpu 1 2 3 4\n") << 0LL << 0LL << 0LL;
        QTest::newRow("words-among-them") << QByteArray("cpu 1 x 3 100 y 4\n") << 8LL << 108LL << 0LL;
        QTest::newRow("hexadecimal") << QByteArray("cpu 0x10 1\n") << 1LL << 1LL << 0LL;
        QTest::newRow("fraction") << QByteArray("cpu 1.5 1\n") << 1LL << 1LL << 0LL;
        QTest::newRow("negative") << QByteArray("cpu 5 -3 1 -100 -1\n") << 6LL << 6LL << 0LL;
        QTest::newRow("largest") << QByteArray("cpu " + kLargestText) << kLargest << kLargest << 0LL;
        QTest::newRow("sum-too-large") << QByteArray("cpu 1 " + kLargestText) << kLargest << kLargest << 0LL;
        QTest::newRow("all-too-large")
            << QByteArray("cpu" + QByteArray(" " + kLargestText).repeated(8)) << 0LL << kLargest << kLargest;
        QTest::newRow("beyond-2^63") << QByteArray("cpu 9223372036854775808 18446744073709551615 7") << 7LL
                                     << 7LL << 0LL;
        QTest::newRow("beyond-2^64") << QByteArray("cpu " + QByteArray(400, '9') + " 7") << 7LL << 7LL << 0LL;
    }
    void cpuColumns()
    {
        QFETCH(const QByteArray, text);
        QFETCH(const qint64, busy);
        QFETCH(const qint64, total);
        QFETCH(const qint64, iowait);
        const CpuTimes cpu = parseStat(text);
        QCOMPARE(cpu.busy, busy);
        QCOMPARE(cpu.total, total);
        QCOMPARE(cpu.iowait, iowait);
    }

    void interfaces_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<qint64>("in");
        QTest::addColumn<qint64>("out");
        QTest::newRow("loopback-left-out")
            << netLine("lo", "1000", "1000") + netLine("eth0", "10", "20") + netLine("docker0", "1", "2")
            << 11LL << 22LL;
        QTest::newRow("loopback-longer")
            << netLine("lo0", "10", "20") + netLine("slo", "1", "2") << 11LL << 22LL;
        QTest::newRow("loopback-in-capitals") << netLine("LO", "10", "20") << 10LL << 20LL;
        QTest::newRow("no-blank-behind-the-colon")
            << QByteArray("eth0:10 0 0 0 0 0 0 0 20 0\nlo:5 0 0 0 0 0 0 0 5 0\n") << 10LL << 20LL;
        QTest::newRow("vlan") << netLine("eth0.100", "10", "20") << 10LL << 20LL;
        QTest::newRow("same-name-twice") << netLine("eth0", "10", "20").repeated(2) << 20LL << 40LL;
        QTest::newRow("no-name") << netLine("", "10", "20") << 10LL << 20LL;
        QTest::newRow("second-colon") << QByteArray("eth0:1: 10 0 0 0 0 0 0 20\n") << 0LL << 20LL;
        QTest::newRow("received-only") << QByteArray("eth0: 10\n") << 10LL << 0LL;
        QTest::newRow("one-column-short") << QByteArray("eth0: 10 0 0 0 0 0 0 0\n") << 10LL << 0LL;
        QTest::newRow("just-enough-columns") << QByteArray("eth0: 10 0 0 0 0 0 0 0 20") << 10LL << 20LL;
        QTest::newRow("no-columns") << QByteArray("eth0:\n") << 0LL << 0LL;
        QTest::newRow("words") << netLine("eth0", "x", "20") + netLine("eth1", "10", "y") << 10LL << 20LL;
        QTest::newRow("negative") << netLine("eth0", "-5", "-5") + netLine("eth1", "10", "20") << 10LL
                                  << 20LL;
        QTest::newRow("sum-too-large")
            << netLine("eth0", kLargestText, "1") + netLine("eth1", "1", kLargestText) << kLargest
            << kLargest;
        QTest::newRow("sum-largest") << netLine("eth0", "9223372036854775806", "1")
                                            + netLine("eth1", "1", "1")
                                     << kLargest << 2LL;
        QTest::newRow("beyond-2^63") << netLine("eth0", "9223372036854775808", "20") << 0LL << 20LL;
    }
    void interfaces()
    {
        QFETCH(const QByteArray, text);
        QFETCH(const qint64, in);
        QFETCH(const qint64, out);
        const Traffic traffic = parseNetDev(text);
        QCOMPARE(traffic.in, in);
        QCOMPARE(traffic.out, out);
    }

    void diskNames_data()
    {
        QTest::addColumn<bool>("counted");
        for (const char* name : {"sda", "sdz", "sdaa", "sdzzz", "vda", "vdab", "xvda", "xvdaz", "nvme0n1",
                                 "nvme12n34", "mmcblk0", "mmcblk12"})
            QTest::newRow(name) << true;
        for (const char* name :
             {"sda1",  "sdaa12",    "sd",        "sd1",       "vda1",         "vd",        "xvda1", "xvd",
              "nvme0", "nvme0n1p1", "nvme0c0n1", "mmcblk0p1", "mmcblk0boot0", "mmcblk",    "loop0", "dm-0",
              "md0",   "md127",     "sr0",       "fd0",       "ram0",         "zram0",     "nbd0",  "hda",
              "SDA",   "asda",      "sda\xe9",   "sd\xe4",    "cciss/c0d0",   "nvme\xb2n1"})
            QTest::newRow(name) << false;
    }
    void diskNames()
    {
        QFETCH(const bool, counted);
        const Traffic traffic = parseDiskStats(diskLine(QTest::currentDataTag()));
        QCOMPARE(traffic.in, counted ? 10 * 512 : 0);
        QCOMPARE(traffic.out, counted ? 20 * 512 : 0);
    }

    void diskLines_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<qint64>("in");
        QTest::addColumn<qint64>("out");
        QTest::newRow("disks-and-what-is-made-of-them")
            << diskLine("sda") + diskLine("sda1") + diskLine("nvme0n1") + diskLine("nvme0n1p1")
                   + diskLine("dm-0") + diskLine("loop0")
            << 10'240LL << 20'480LL;
        QTest::newRow("ten-columns") << QByteArray("8 0 sda 1 2 3 4 5 6 7\n") << 3 * 512LL << 7 * 512LL;
        QTest::newRow("nine-columns") << QByteArray("8 0 sda 1 2 3 4 5 6\n") << 0LL << 0LL;
        QTest::newRow("columns-of-an-old-partition") << QByteArray("8 1 sda 1 2 3 4\n") << 0LL << 0LL;
        QTest::newRow("tabs") << QByteArray("8\t0\tsda\t1\t2\t3\t4\t5\t6\t7") << 3 * 512LL << 7 * 512LL;
        QTest::newRow("words") << diskLine("sda", "x", "20") + diskLine("sdb", "10", "y") << 10 * 512LL
                               << 20 * 512LL;
        QTest::newRow("negative") << diskLine("sda", "-10", "-20") << 0LL << 0LL;
        QTest::newRow("most-sectors")
            << diskLine("sda", "18014398509481983", "1") << 9'223'372'036'854'775'296LL << 512LL;
        QTest::newRow("most-sectors-plus-one")
            << diskLine("sda", "1", "18014398509481984") << 512LL << kLargest;
        QTest::newRow("largest") << diskLine("sda", kLargestText, kLargestText) << kLargest << kLargest;
        QTest::newRow("sum-too-large")
            << diskLine("sda", "18014398509481983", "1") + diskLine("sdb", "2", "2") << kLargest << 3 * 512LL;
        QTest::newRow("beyond-2^63") << diskLine("sda", "9223372036854775808", "20") << 0LL << 20 * 512LL;
    }
    void diskLines()
    {
        QFETCH(const QByteArray, text);
        QFETCH(const qint64, in);
        QFETCH(const qint64, out);
        const Traffic traffic = parseDiskStats(text);
        QCOMPARE(traffic.in, in);
        QCOMPARE(traffic.out, out);
    }

    void loads_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QList<double>>("load");
        QTest::newRow("line") << QByteArray("1.43 0.98 12.05 3/1187 2841775\n")
                              << QList<double>{1.43, 0.98, 12.05};
        QTest::newRow("cut-to-three") << QByteArray("1.43 0.98 12.05\n") << QList<double>{1.43, 0.98, 12.05};
        QTest::newRow("cut-to-two") << QByteArray("1.43 0.98") << QList<double>{1.43, 0.98, 0};
        QTest::newRow("cut-to-one") << QByteArray("1.43") << QList<double>{1.43, 0, 0};
        QTest::newRow("large") << QByteArray("10240.00 9999.99 1e3 1/1 1")
                               << QList<double>{10240, 9999.99, 1000};
        QTest::newRow("two-blanks") << QByteArray("1.43  0.98 12.05") << QList<double>{1.43, 0, 0.98};
        QTest::newRow("words") << QByteArray("a 0.98 b") << QList<double>{0, 0.98, 0};
        QTest::newRow("decimal-comma") << QByteArray("1,43 0.98 1") << QList<double>{0, 0.98, 1};
        QTest::newRow("not-finite") << QByteArray("nan inf -inf 1/1 1") << QList<double>{0, 0, 0};
        QTest::newRow("beyond-a-double") << QByteArray("1e999 -1e999 1e-999") << QList<double>{0, 0, 0};
    }
    void loads()
    {
        QFETCH(const QByteArray, text);
        QFETCH(const QList<double>, load);
        const LoadAverage average = parseLoadAverage(text);
        QCOMPARE((QList<double>{average.one, average.five, average.fifteen}), load);
    }

    void memoryFields_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<qint64>("value");
        QTest::newRow("line") << QByteArray("MemTotal:       24684092 kB\n") << 24'684'092LL;
        QTest::newRow("second-line") << QByteArray("MemFree: 1 kB\nMemTotal: 2 kB\n") << 2LL;
        QTest::newRow("first-of-two") << QByteArray("MemTotal: 1 kB\nMemTotal: 2 kB\n") << 1LL;
        QTest::newRow("first-of-two-is-no-number") << QByteArray("MemTotal: x kB\nMemTotal: 2 kB\n") << 0LL;
        QTest::newRow("no-unit") << QByteArray("MemTotal: 7") << 7LL;
        QTest::newRow("no-blank") << QByteArray("MemTotal:7 kB") << 7LL;
        QTest::newRow("tab") << QByteArray("MemTotal:\t7 kB\r\n") << 7LL;
        QTest::newRow("carriage-return") << QByteArray("MemTotal: 7\r\n") << 7LL;
        QTest::newRow("unit-sticks") << QByteArray("MemTotal: 7kB\n") << 0LL;
        QTest::newRow("no-value") << QByteArray("MemTotal:\nMemFree: 3 kB\n") << 0LL;
        QTest::newRow("longer-key") << QByteArray("MemTotal(x): 7 kB\nMemTotalX: 7 kB\n") << 0LL;
        QTest::newRow("blank-before-the-key") << QByteArray(" MemTotal: 7 kB\n") << 0LL;
        QTest::newRow("key-without-colon") << QByteArray("MemTotal 7 kB\n") << 0LL;
        QTest::newRow("other-case") << QByteArray("memtotal: 7 kB\n") << 0LL;
        QTest::newRow("largest") << QByteArray("MemTotal: 9223372036854775807 kB\n") << kLargest;
        QTest::newRow("beyond-2^63") << QByteArray("MemTotal: 9223372036854775808 kB\n") << 0LL;
        QTest::newRow("negative") << QByteArray("MemTotal: -7 kB\n") << 0LL;
    }
    void memoryFields()
    {
        QFETCH(const QByteArray, text);
        QFETCH(const qint64, value);
        QCOMPARE(meminfo(text, "MemTotal"), value);
    }

    void longestNumbers()
    {
        const QByteArray zeros(62, '0');
        QCOMPARE(meminfo("MemTotal:" + zeros + "17", "MemTotal"), 17);
        QCOMPARE(meminfo("MemTotal:0" + zeros + "17", "MemTotal"), 0);
        QCOMPARE(parseLoadAverage("1." + zeros + " 1." + zeros + "0 2").one, 1.0);
        QCOMPARE(parseLoadAverage("1." + zeros + " 1." + zeros + "0 2").five, 0.0);
        QCOMPARE(parseLoadAverage("1." + zeros + " 1." + zeros + "0 2").fifteen, 2.0);
    }

    void longestDeviceName()
    {
        QCOMPARE(parseDiskStats(diskLine("sd" + QByteArray(62, 'a'))).in, 10 * 512);
        QCOMPARE(parseDiskStats(diskLine("sd" + QByteArray(63, 'a'))).in, 0);
    }

    void hostileTextsCostLittleMoreThanPlainOnes_data()
    {
        QTest::addColumn<QByteArray>("before");
        QTest::addColumn<std::function<void(const QByteArray&)>>("parse");
        const auto row = [](const char* name, const char* before, void (*parse)(const QByteArray&)) {
            QTest::newRow(name) << QByteArray(before) << std::function<void(const QByteArray&)>(parse);
        };
        row("stat", "cpu ", [](const QByteArray& t) { parseStat(t); });
        row("net", "eth0:", [](const QByteArray& t) { parseNetDev(t); });
        row("disk", " 8 0 ", [](const QByteArray& t) { parseDiskStats(t); });
        row("disk-sectors", " 8 0 sda 1 1 ", [](const QByteArray& t) { parseDiskStats(t); });
        row("load", "", [](const QByteArray& t) { parseLoadAverage(t); });
        row("memory", "MemTotal: ", [](const QByteArray& t) { meminfo(t, "MemTotal"); });
    }
    void hostileTextsCostLittleMoreThanPlainOnes()
    {
        QFETCH(const QByteArray, before);
        QFETCH(const std::function<void(const QByteArray&)>, parse);
        QCOMPARE(test::textsThatCostTooMuch(before, parse), QString());
    }
};

QTEST_GUILESS_MAIN(tst_HostFiles)
#include "tst_HostFiles.moc"
