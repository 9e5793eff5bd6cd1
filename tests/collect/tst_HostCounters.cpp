#include "collect/HostCounters.h"
#include "collect/HostTexts.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <memory>

#include <sys/sysinfo.h>

using namespace Qt::Literals::StringLiterals;
using namespace tarn;

namespace {

bool writeFile(const QString& path, const QByteArray& contents)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size();
}

/// The /proc of the captured machine that the current row is named after.
QString machine()
{
    return test::capturedPath(u"proc/"_s + QString::fromLatin1(QTest::currentDataTag()));
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

class tst_HostCounters : public QObject
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

    void countersOfCapturedMachines_data()
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
    void countersOfCapturedMachines()
    {
        QFETCH(const qint64, busy);
        QFETCH(const qint64, total);
        QFETCH(const qint64, iowait);
        QFETCH(const qint64, netIn);
        QFETCH(const qint64, netOut);
        QFETCH(const qint64, diskIn);
        QFETCH(const qint64, diskOut);
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        const HostCounters counters = readHostCounters(machine());
        QCOMPARE(counters.cpuBusy, busy);
        QCOMPARE(counters.cpuTotal, total);
        QCOMPARE(counters.cpuIowait, iowait);
        QCOMPARE(counters.netRx, netIn);
        QCOMPARE(counters.netTx, netOut);
        QCOMPARE(counters.diskRead, diskIn * 512);
        QCOMPARE(counters.diskWrite, diskOut * 512);
        QVERIFY(counters.atMs >= before && counters.atMs <= QDateTime::currentMSecsSinceEpoch());
        QVERIFY(!counters.valid && !counters.apache); // the caller's
    }

    void figuresOfCapturedMachines_data()
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
        // It does not know MemAvailable.
        QTest::newRow("old-kernel") << QList<qint64>{2'075'496, 0, 2'097'144, 2'097'000}
                                    << QList<double>{0.20, 0.18, 0.12};
    }
    void figuresOfCapturedMachines()
    {
        QFETCH(const QList<qint64>, memory);
        QFETCH(const QList<double>, load);
        addDevice("coretemp\n", {
                                    {u"temp1_input"_s, "45000\n"}
        });
        const HostFigures host = readHostFigures(machine(), hwmon());
        QCOMPARE((QList<qint64>{host.memTotalKb, host.memAvailableKb, host.swapTotalKb, host.swapFreeKb}),
                 memory);
        QCOMPARE((QList<double>{host.load.one, host.load.five, host.load.fifteen}), load);
        QCOMPARE(host.cpuTemperatureC, std::optional(45.0));
        QCOMPARE(host.diskTotalBytes, QStorageInfo(u"/"_s).bytesTotal());
    }

    void aHostWithoutFilesIsAllZero()
    {
        const QString nowhere = m_folder->filePath(u"nothing"_s);
        const HostCounters counters = readHostCounters(nowhere);
        QCOMPARE(counters.cpuTotal, 0);
        QCOMPARE(counters.netRx, 0);
        QCOMPARE(counters.diskRead, 0);
        const HostFigures host = readHostFigures(nowhere, nowhere);
        QCOMPARE(host.load.one, 0.0);
        QCOMPARE(host.memTotalKb, 0);
        QCOMPARE(host.cpuTemperatureC, std::optional<double>());
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

QTEST_GUILESS_MAIN(tst_HostCounters)
#include "tst_HostCounters.moc"
