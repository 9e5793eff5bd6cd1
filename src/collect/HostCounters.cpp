#include "collect/HostCounters.h"

#include "common/Mounts.h"

#include <QByteArrayView>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QStringList>

#include <algorithm>
#include <cmath>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

/// True for the drivers of the sensors in Intel's and AMD's processors.
bool isCpuSensor(QByteArrayView driver)
{
    return driver == "coretemp" || driver == "k10temp" || driver == "zenpower";
}

} // namespace

QByteArray readFile(const QString& path)
{
    QFile file(path);
    // Qt warns of a file without a name.
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

std::optional<double> cpuTemperature(const QString& root)
{
    constexpr double kPerDegree = 1000;
    double hottest = -1;
    // The kernel's devices are links to folders elsewhere.
    const QStringList devices = QDir(root).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString& device : devices) {
        const QDir folder(root + u'/' + device);
        if (!isCpuSensor(readFile(folder.filePath(u"name"_s)).trimmed()))
            continue;
        const QStringList inputs =
            folder.entryList({u"temp*_input"_s}, QDir::Files | QDir::CaseSensitive, QDir::Unsorted);
        for (const QString& input : inputs) {
            const double degrees = readFile(folder.filePath(input)).trimmed().toDouble() / kPerDegree;
            if (std::isfinite(degrees))
                hottest = std::max(hottest, degrees);
        }
    }
    return hottest > 0 ? std::optional(hottest) : std::nullopt;
}

HostCounters readHostCounters(const QString& procRoot)
{
    HostCounters now;
    now.atMs = QDateTime::currentMSecsSinceEpoch();
    const CpuTimes cpu = parseStat(readFile(procRoot + u"/stat"_s));
    now.cpuBusy = cpu.busy;
    now.cpuTotal = cpu.total;
    now.cpuIowait = cpu.iowait;
    const Traffic net = parseNetDev(readFile(procRoot + u"/net/dev"_s));
    now.netRx = net.in;
    now.netTx = net.out;
    const Traffic disk = parseDiskStats(readFile(procRoot + u"/diskstats"_s));
    now.diskRead = disk.in;
    now.diskWrite = disk.out;
    return now;
}

HostFigures readHostFigures(const QString& procRoot, const QString& hwmonRoot)
{
    HostFigures host;
    host.load = parseLoadAverage(readFile(procRoot + u"/loadavg"_s));
    const QByteArray memory = readFile(procRoot + u"/meminfo"_s);
    host.memTotalKb = meminfo(memory, "MemTotal");
    host.memAvailableKb = meminfo(memory, "MemAvailable");
    host.swapTotalKb = meminfo(memory, "SwapTotal");
    host.swapFreeKb = meminfo(memory, "SwapFree");
    const system::Space root = system::spaceOf("/").value_or(system::Space());
    host.diskTotalBytes = root.totalBytes;
    host.diskAvailableBytes = root.availableBytes;
    host.cpuTemperatureC = cpuTemperature(hwmonRoot);
    return host;
}

} // namespace tarn
