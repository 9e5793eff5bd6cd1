#include "collect/HostSample.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

/// @p a - @p b, also where that is beyond 64 bits: a file may hold any number.
double difference(qint64 a, qint64 b)
{
    const auto distance = [](qint64 high, qint64 low) {
        return static_cast<double>(static_cast<quint64>(high) - static_cast<quint64>(low));
    };
    return a >= b ? distance(a, b) : -distance(b, a);
}

QVariant orNull(std::optional<double> value)
{
    return value ? QVariant(*value) : QVariant();
}

/// The rates of one sample, all of them nothing when there is no sample before it.
struct Rates
{
    std::optional<double> cpuPercent, iowaitPercent;
    std::optional<double> netRx, netTx, diskRead, diskWrite, pgXacts, apacheRequests, apacheBytes;
};

Rates ratesBetween(const Health::Counters& previous, const Health::Counters& current)
{
    Rates rates;
    if (!previous.valid || current.atMs <= previous.atMs)
        return rates;
    const double seconds = difference(current.atMs, previous.atMs) / 1000;
    const double jiffies = std::max(1.0, difference(current.cpuTotal, previous.cpuTotal));
    rates.cpuPercent = difference(current.cpuBusy, previous.cpuBusy) * 100 / jiffies;
    rates.iowaitPercent = difference(current.cpuIowait, previous.cpuIowait) * 100 / jiffies;
    rates.netRx = rate(current.netRx, previous.netRx, seconds);
    rates.netTx = rate(current.netTx, previous.netTx, seconds);
    rates.diskRead = rate(current.diskRead, previous.diskRead, seconds);
    rates.diskWrite = rate(current.diskWrite, previous.diskWrite, seconds);
    rates.pgXacts = rate(current.pgXacts, previous.pgXacts, seconds);
    if (current.apache && previous.apache) {
        rates.apacheRequests = rate(current.apacheRequests, previous.apacheRequests, seconds);
        rates.apacheBytes = rate(current.apacheBytes, previous.apacheBytes, seconds);
    }
    return rates;
}

} // namespace

std::optional<double> rate(qint64 current, qint64 previous, double seconds)
{
    if (current < previous)
        return std::nullopt;
    return difference(current, previous) / seconds;
}

QVariantList sampleValues(const Health::Counters& previous, const Health::Counters& current,
                          const HostFigures& host)
{
    const Rates rates = ratesBetween(previous, current);
    return {
        host.load.one,
        host.load.five,
        host.load.fifteen,
        host.memTotalKb,
        host.memAvailableKb,
        host.diskTotalBytes,
        host.diskAvailableBytes,
        orNull(rates.cpuPercent),
        orNull(rates.iowaitPercent),
        host.swapTotalKb,
        host.swapFreeKb,
        orNull(rates.netRx),
        orNull(rates.netTx),
        orNull(rates.diskRead),
        orNull(rates.diskWrite),
        orNull(host.cpuTemperatureC),
        host.pgConnections,
        orNull(rates.pgXacts),
        orNull(rates.apacheRequests),
        orNull(rates.apacheBytes),
        current.apache ? QVariant(current.apacheBusy) : QVariant(),
        current.apache ? QVariant(current.apacheSlots) : QVariant(),
    };
}

QString sampleInsertStatement()
{
    return u"INSERT INTO tarn.host_samples (load1, load5, load15, mem_total_kb, mem_avail_kb, "
           u"disk_total_bytes, disk_avail_bytes, cpu_pct, iowait_pct, swap_total_kb, swap_free_kb, "
           u"net_rx_bps, net_tx_bps, disk_read_bps, disk_write_bps, cpu_temp_c, pg_connections, pg_tps, "
           u"apache_rps, apache_bps, apache_busy, apache_slots) "
           u"VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"_s;
}

} // namespace tarn
