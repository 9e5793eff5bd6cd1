#include "collect/HostFiles.h"
#include "collect/HostTexts.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <limits>
#include <memory>

#include <sys/sysinfo.h>

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

bool writeFile(const QString& path, const QByteArray& contents)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size();
}

/// The sum of a figure over those of the folders in @p root that @p counts.
qint64 sumOver(const QString& root, const std::function<bool(const QString&)>& counts,
               const std::function<qint64(const QString&)>& figure)
{
    qint64 total = 0;
    const QStringList names = QDir(root).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& name : names) {
        if (counts(name))
            total += figure(root + u'/' + name);
    }
    return total;
}

} // namespace

class tst_HostFiles : public QObject
{
    Q_OBJECT

private:
    /// A folder of hwmon devices as the kernel makes it, of links to folders elsewhere.
    QString hwmon() const { return m_folder->filePath(u"class"_s); }

    /// Adds a device with these sensor files.
    void addDevice(const QByteArray& driver, const QMap<QString, QByteArray>& files)
    {
        const QString number = u"hwmon%1"_s.arg(m_devices++);
        const QString folder = m_folder->filePath(u"devices/"_s + number);
        QVERIFY(QDir().mkpath(folder) && QDir().mkpath(hwmon()));
        if (!driver.isNull())
            QVERIFY(writeFile(folder + u"/name"_s, driver));
        for (auto it = files.cbegin(); it != files.cend(); ++it)
            QVERIFY(writeFile(folder + u'/' + it.key(), it.value()));
        QVERIFY(QFile::link(u"../devices/"_s + number, hwmon() + u'/' + number));
    }

    std::unique_ptr<QTemporaryDir> m_folder;
    int m_devices = 0;

private Q_SLOTS:
    void init()
    {
        QTest::failOnWarning(QRegularExpression(u".?"_s));
        m_folder = std::make_unique<QTemporaryDir>();
        m_devices = 0;
    }

    void capturedMachines_data()
    {
        QTest::addColumn<qint64>("busy");
        QTest::addColumn<qint64>("total");
        QTest::addColumn<qint64>("iowait");
        QTest::addColumn<qint64>("netIn");
        QTest::addColumn<qint64>("netOut");
        QTest::addColumn<qint64>("diskIn"); // sectors
        QTest::addColumn<qint64>("diskOut");
        QTest::newRow("bare-metal") << 74'608'520LL + 24'433 + 24'793'202 + 1'854'321
                                    << 74'608'520LL + 24'433 + 24'793'202 + 1'854'321 + 7'654'321'098
                                           + 9'870'123
                                    << 9'870'123LL << 912'873'645'120LL << 345'098'123'456LL
                                    << 83'886'080LL + 80 + 8 + 400'000'000 + 1
                                    << 167'772'160LL + 160 + 8 + 800'000'000 + 2;
        QTest::newRow("kvm-guest") << 354'280LL + 3'085 + 335'259 + 1'234 + 1'252
                                   << 354'280LL + 3'085 + 335'259 + 1'234 + 1'252 + 1'636'640 + 5'336
                                   << 5'336LL << 294'737'562LL + 4'096 << 369'895LL + 8'192
                                   << 22'344'026LL + 3 << 98'091'160LL + 7;
        // Guests' time, the ninth and tenth column, is in the user's already; stolen time is not.
        QTest::newRow("xen-guest") << 1LL + 2 + 3 + 6 + 7 + 8'000 << 1LL + 2 + 3 + 4 + 5 + 6 + 7 + 8'000
                                   << 5LL << 1'000LL << 2'000LL << 1'000LL + 10 + 1 << 2'000LL + 20 + 2;
        QTest::newRow("container") << 750LL << 10'750LL << 0LL << 1'234LL << 5'678LL << 0LL << 0LL;
        QTest::newRow("old-kernel") << 1'320LL << 41'320LL << 0LL << 4'294'967'390LL << 3'210'987'854LL
                                    << 64'000LL << 96'000LL;
        QTest::newRow("network-host") << 0LL << 0LL << 0LL << 6'000'000LL + 10 + 3 + 5 + 7 + 9 + 11 + 13 + 15
                                      << 600'000LL + 20 + 4 + 6 + 8 + 10 + 12 + 14 + 16 << 0LL << 0LL;
    }
    void capturedMachines()
    {
        QFETCH(const qint64, busy);
        QFETCH(const qint64, total);
        QFETCH(const qint64, iowait);
        QFETCH(const qint64, netIn);
        QFETCH(const qint64, netOut);
        QFETCH(const qint64, diskIn);
        QFETCH(const qint64, diskOut);
        const QString machine = u"proc/"_s + QString::fromLatin1(QTest::currentDataTag());
        const CpuTimes cpu = parseStat(captured(machine + u"/stat"_s));
        QCOMPARE(cpu.busy, busy);
        QCOMPARE(cpu.total, total);
        QCOMPARE(cpu.iowait, iowait);
        const Traffic net = parseNetDev(captured(machine + u"/net/dev"_s));
        QCOMPARE(net.in, netIn);
        QCOMPARE(net.out, netOut);
        const Traffic disk = parseDiskStats(captured(machine + u"/diskstats"_s));
        QCOMPARE(disk.in, diskIn * 512);
        QCOMPARE(disk.out, diskOut * 512);
    }

    void capturedMemoryAndLoad_data()
    {
        QTest::addColumn<QList<qint64>>("memory");
        QTest::addColumn<QList<double>>("load");
        QTest::newRow("bare-metal") << QList<qint64>{65'760'252, 48'211'900, 33'554'428, 33'550'080}
                                    << QList<double>{1.43, 0.98, 12.05};
        QTest::newRow("kvm-guest") << QList<qint64>{24'684'092, 24'194'228, 0, 0}
                                   << QList<double>{0.30, 0.23, 0.41};
        QTest::newRow("xen-guest") << QList<qint64>{1'017'000, 700'000, 524'284, 0} << QList<double>{0, 0, 0};
        QTest::newRow("container") << QList<qint64>{2'097'152, 1'999'999, 0, 0}
                                   << QList<double>{0.52, 0.58, 0.59};
        // It does not tell MemAvailable.
        QTest::newRow("old-kernel") << QList<qint64>{2'075'496, 0, 2'097'144, 2'097'000}
                                    << QList<double>{0.20, 0.18, 0.12};
    }
    void capturedMemoryAndLoad()
    {
        QFETCH(const QList<qint64>, memory);
        QFETCH(const QList<double>, load);
        const QString machine = u"proc/"_s + QString::fromLatin1(QTest::currentDataTag());
        const QByteArray text = captured(machine + u"/meminfo"_s);
        QCOMPARE((QList<qint64>{meminfo(text, "MemTotal"), meminfo(text, "MemAvailable"),
                                meminfo(text, "SwapTotal"), meminfo(text, "SwapFree")}),
                 memory);
        const LoadAverage average = parseLoadAverage(captured(machine + u"/loadavg"_s));
        QCOMPARE((QList<double>{average.one, average.five, average.fifteen}), load);
    }

    /// A text cut anywhere is still read, and tells no more than the whole one.
    void cutTexts()
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

    void spoiltTexts_data() { test::addSpoiltTexts(); }
    void spoiltTexts()
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

    void readFileReadsWhatThereIs()
    {
        const QString path = m_folder->filePath(u"file"_s);
        QVERIFY(writeFile(path, QByteArray("a\0b\r\n", 5)));
        QCOMPARE(readFile(path), QByteArray("a\0b\r\n", 5));
        QVERIFY(writeFile(path, QByteArray(3'000'000, 'x')));
        QCOMPARE(readFile(path).size(), 3'000'000);
        // Files of the kernel have no size of their own.
        QVERIFY(readFile(u"/proc/self/status"_s).startsWith("Name:"));
    }

    void readFileOfWhatCannotBeRead_data()
    {
        QTest::addColumn<QString>("path");
        QTest::newRow("missing") << u"/no/such/file"_s;
        QTest::newRow("folder") << u"/proc"_s;
        QTest::newRow("no-name") << QString();
        QTest::newRow("opens-and-fails") << u"/proc/self/mem"_s;
    }
    void readFileOfWhatCannotBeRead()
    {
        QFETCH(const QString, path);
        QCOMPARE(readFile(path), QByteArray());
    }

    void temperatures_data()
    {
        using Device = QMap<QString, QByteArray>;
        QTest::addColumn<QByteArray>("driver");
        QTest::addColumn<Device>("files");
        QTest::addColumn<double>("degrees"); // 0: none
        const auto one = [](const QByteArray& input) {
            return Device{
                {u"temp1_input"_s, input}
            };
        };
        QTest::newRow("intel") << QByteArray("coretemp\n") << one("45000\n") << 45.0;
        QTest::newRow("amd") << QByteArray("k10temp\n") << one("38625\n") << 38.625;
        QTest::newRow("amd-other-driver") << QByteArray("zenpower\n") << one("38625\n") << 38.625;
        QTest::newRow("name-without-line-feed") << QByteArray("coretemp") << one("45000") << 45.0;
        QTest::newRow("disk") << QByteArray("nvme\n") << one("45000\n") << 0.0;
        QTest::newRow("board") << QByteArray("acpitz\n") << one("45000\n") << 0.0;
        QTest::newRow("name-longer") << QByteArray("coretemp2\n") << one("45000\n") << 0.0;
        QTest::newRow("name-in-capitals") << QByteArray("CORETEMP\n") << one("45000\n") << 0.0;
        QTest::newRow("name-empty") << QByteArray("\n") << one("45000\n") << 0.0;
        QTest::newRow("name-missing") << QByteArray() << one("45000\n") << 0.0;
        QTest::newRow("no-sensors") << QByteArray("coretemp\n") << Device() << 0.0;
        QTest::newRow("hottest-of-many")
            << QByteArray("coretemp\n")
            << Device{
                   {u"temp1_input"_s,  "45000\n" },
                   {u"temp2_input"_s,  "47000\n" },
                   {u"temp10_input"_s, "46000\n" },
                   {u"temp1_max"_s,    "100000\n"},
                   {u"temp1_crit"_s,   "110000\n"},
                   {u"fan1_input"_s,   "99000\n" },
                   {u"Temp3_input"_s,  "98000\n" },
                   {u"temp4_inputs"_s, "97000\n" },
               }
            << 47.0;
        QTest::newRow("negative") << QByteArray("coretemp\n") << one("-12000\n") << 0.0;
        QTest::newRow("just-below-zero") << QByteArray("coretemp\n") << one("-500\n") << 0.0;
        QTest::newRow("zero") << QByteArray("coretemp\n") << one("0\n") << 0.0;
        QTest::newRow("just-above-zero") << QByteArray("coretemp\n") << one("1\n") << 0.001;
        QTest::newRow("garbage") << QByteArray("coretemp\n") << one("hot\n") << 0.0;
        QTest::newRow("empty") << QByteArray("coretemp\n") << one("") << 0.0;
        QTest::newRow("not-finite") << QByteArray("coretemp\n")
                                    << Device{
                                           {u"temp1_input"_s, "inf\n"  },
                                           {u"temp2_input"_s, "nan\n"  },
                                           {u"temp3_input"_s, "1e999\n"},
                                           {u"temp4_input"_s, "45000\n"},
        } << 45.0;
        QTest::newRow("garbage-beside-a-reading")
            << QByteArray("coretemp\n")
            << Device{
                   {u"temp1_input"_s, "x\n"    },
                   {u"temp2_input"_s, "45000\n"},
               }
            << 45.0;
    }
    void temperatures()
    {
        using Device = QMap<QString, QByteArray>;
        QFETCH(const QByteArray, driver);
        QFETCH(const Device, files);
        QFETCH(const double, degrees);
        addDevice(driver, files);
        const std::optional<double> hottest = cpuTemperature(hwmon());
        QCOMPARE(hottest.has_value(), degrees != 0.0);
        QCOMPARE(hottest.value_or(0.0), degrees);
    }

    void hottestOfTwoProcessors()
    {
        addDevice("acpitz\n", {
                                  {u"temp1_input"_s, "99000\n"}
        });
        addDevice("coretemp\n", {
                                    {u"temp1_input"_s, "45000\n"}
        });
        addDevice("coretemp\n", {
                                    {u"temp1_input"_s, "71000\n"}
        });
        addDevice("nvme\n", {
                                {u"temp1_input"_s, "98000\n"}
        });
        addDevice("k10temp\n", {
                                   {u"temp1_input"_s, "-1000\n"}
        });
        QCOMPARE(cpuTemperature(hwmon()), std::optional(71.0));
    }

    void deviceThatIsNoLink()
    {
        QVERIFY(QDir().mkpath(hwmon() + u"/hwmon0"_s));
        QVERIFY(writeFile(hwmon() + u"/hwmon0/name"_s, "coretemp\n"));
        QVERIFY(writeFile(hwmon() + u"/hwmon0/temp1_input"_s, "45000\n"));
        QCOMPARE(cpuTemperature(hwmon()), std::optional(45.0));
    }

    void oddTrees()
    {
        QCOMPARE(cpuTemperature(u"/no/such/folder"_s), std::optional<double>());
        QVERIFY(QDir().mkpath(hwmon()));
        QCOMPARE(cpuTemperature(hwmon()), std::optional<double>());
        // A device that has just gone, a file among the folders, and a folder in place of each file.
        QVERIFY(QFile::link(u"../devices/gone"_s, hwmon() + u"/hwmon8"_s));
        QVERIFY(writeFile(hwmon() + u"/name"_s, "coretemp\n"));
        QVERIFY(writeFile(hwmon() + u"/temp1_input"_s, "99000\n"));
        QVERIFY(QDir().mkpath(hwmon() + u"/hwmon9/name"_s));
        addDevice("coretemp\n", {});
        QVERIFY(QDir().mkpath(hwmon() + u"/hwmon0/temp1_input"_s));
        QCOMPARE(cpuTemperature(hwmon()), std::optional<double>());
    }

    void temperatureOfThisMachine()
    {
        const std::optional<double> hottest = cpuTemperature();
        QVERIFY(!hottest || (*hottest > 0 && *hottest < 150));
        QCOMPARE(cpuTemperature(u"/sys/class/hwmon"_s).has_value(), hottest.has_value());
    }

    void cpuOfThisMachine()
    {
        const QByteArray text = readFile(u"/proc/stat"_s);
        const CpuTimes all = parseStat(text);
        // The sum over the processors is rounded for each of them.
        CpuTimes sum;
        int processors = 0;
        const QList<QByteArray> lines = text.split('\n');
        for (const QByteArray& line : lines) {
            if (!line.startsWith("cpu") || line.startsWith("cpu "))
                continue;
            const CpuTimes times = parseStat(line);
            sum.busy += times.busy;
            sum.total += times.total;
            sum.iowait += times.iowait;
            ++processors;
        }
        QVERIFY(processors > 0 && all.total > 0);
        const qint64 rounding = qint64(16) * (processors + 1);
        QVERIFY(qAbs(all.total - sum.total) <= rounding);
        QVERIFY(qAbs(all.busy - sum.busy) <= rounding);
        QVERIFY(qAbs(all.iowait - sum.iowait) <= rounding);
    }

    void networkOfThisMachine()
    {
        const auto figure = [](const QString& file) {
            return sumOver(
                u"/sys/class/net"_s, [](const QString& name) { return name != u"lo"_s; },
                [&](const QString& folder) {
                    return readFile(folder + u"/statistics/"_s + file).trimmed().toLongLong();
                });
        };
        const Traffic before{figure(u"rx_bytes"_s), figure(u"tx_bytes"_s)};
        const Traffic now = parseNetDev(readFile(u"/proc/net/dev"_s));
        QVERIFY(before.in <= now.in && now.in <= figure(u"rx_bytes"_s));
        QVERIFY(before.out <= now.out && now.out <= figure(u"tx_bytes"_s));
    }

    void disksOfThisMachine()
    {
        const auto figure = [](qsizetype column) {
            return sumOver(
                u"/sys/block"_s,
                [](const QString& name) {
                    const bool disk = name.startsWith(u"sd"_s) || name.startsWith(u"vd"_s)
                                      || name.startsWith(u"xvd"_s) || name.startsWith(u"nvme"_s)
                                      || name.startsWith(u"mmcblk"_s);
                    return disk && !name.contains(u"boot"_s);
                },
                [&](const QString& folder) {
                    return readFile(folder + u"/stat"_s).simplified().split(' ').value(column).toLongLong()
                           * 512;
                });
        };
        const Traffic before{figure(2), figure(6)};
        const Traffic now = parseDiskStats(readFile(u"/proc/diskstats"_s));
        QVERIFY(before.in <= now.in && now.in <= figure(2));
        QVERIFY(before.out <= now.out && now.out <= figure(6));
    }

    void memoryAndLoadOfThisMachine()
    {
        struct sysinfo info = {};
        QCOMPARE(sysinfo(&info), 0);
        const QByteArray text = readFile(u"/proc/meminfo"_s);
        const auto kiloBytes = [&](unsigned long count) {
            return static_cast<qint64>(count * info.mem_unit / 1024);
        };
        QCOMPARE(meminfo(text, "MemTotal"), kiloBytes(info.totalram));
        QCOMPARE(meminfo(text, "SwapTotal"), kiloBytes(info.totalswap));
        QVERIFY(meminfo(text, "MemAvailable") > 0);
        QVERIFY(meminfo(text, "MemAvailable") < meminfo(text, "MemTotal"));

        const LoadAverage load = parseLoadAverage(readFile(u"/proc/loadavg"_s));
        const auto fromFixed = [](unsigned long value) { return static_cast<double>(value) / 65'536; };
        QVERIFY(qAbs(load.one - fromFixed(info.loads[0])) < 1);
        QVERIFY(qAbs(load.five - fromFixed(info.loads[1])) < 0.3);
        QVERIFY(qAbs(load.fifteen - fromFixed(info.loads[2])) < 0.2);
    }
};

QTEST_GUILESS_MAIN(tst_HostFiles)
#include "tst_HostFiles.moc"
