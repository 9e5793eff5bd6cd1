#include "collect/HostSample.h"

#include <QLatin1StringView>
#include <QStringList>
#include <QVariant>

#include <algorithm>
#include <array>

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

/// The rates of one sample, all of them nothing when there is no sample before it.
struct Rates
{
    std::optional<double> cpuPercent, iowaitPercent;
    std::optional<double> netRx, netTx, diskRead, diskWrite, pgXacts, apacheRequests, apacheBytes;
};

Rates ratesBetween(const HostCounters& previous, const HostCounters& current)
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

/// The records from which the values of a row are taken.
struct Source
{
    const HostFigures& host;
    const HostCounters& counters;
    const Rates& rates;
};

QVariant orNull(std::optional<double> value)
{
    return value ? QVariant(*value) : QVariant();
}

QVariant ofApache(const HostCounters& counters, qint32 value)
{
    return counters.apache ? QVariant(value) : QVariant();
}

struct Column
{
    QLatin1StringView name;
    QVariant (*value)(const Source&);
};

/// The columns of tarn.host_samples but for its time, in the order of the statement.
constexpr auto kColumns = std::to_array<Column>({
    {"load1"_L1,            [](const Source& s) { return QVariant(s.host.load.one); }                   },
    {"load5"_L1,            [](const Source& s) { return QVariant(s.host.load.five); }                  },
    {"load15"_L1,           [](const Source& s) { return QVariant(s.host.load.fifteen); }               },
    {"mem_total_kb"_L1,     [](const Source& s) { return QVariant(s.host.memTotalKb); }                 },
    {"mem_avail_kb"_L1,     [](const Source& s) { return QVariant(s.host.memAvailableKb); }             },
    {"disk_total_bytes"_L1, [](const Source& s) { return QVariant(s.host.diskTotalBytes); }             },
    {"disk_avail_bytes"_L1, [](const Source& s) { return QVariant(s.host.diskAvailableBytes); }         },
    {"cpu_pct"_L1,          [](const Source& s) { return orNull(s.rates.cpuPercent); }                  },
    {"iowait_pct"_L1,       [](const Source& s) { return orNull(s.rates.iowaitPercent); }               },
    {"swap_total_kb"_L1,    [](const Source& s) { return QVariant(s.host.swapTotalKb); }                },
    {"swap_free_kb"_L1,     [](const Source& s) { return QVariant(s.host.swapFreeKb); }                 },
    {"net_rx_bps"_L1,       [](const Source& s) { return orNull(s.rates.netRx); }                       },
    {"net_tx_bps"_L1,       [](const Source& s) { return orNull(s.rates.netTx); }                       },
    {"disk_read_bps"_L1,    [](const Source& s) { return orNull(s.rates.diskRead); }                    },
    {"disk_write_bps"_L1,   [](const Source& s) { return orNull(s.rates.diskWrite); }                   },
    {"cpu_temp_c"_L1,       [](const Source& s) { return orNull(s.host.cpuTemperatureC); }              },
    {"pg_connections"_L1,   [](const Source& s) { return QVariant(s.host.pgConnections); }              },
    {"pg_tps"_L1,           [](const Source& s) { return orNull(s.rates.pgXacts); }                     },
    {"apache_rps"_L1,       [](const Source& s) { return orNull(s.rates.apacheRequests); }              },
    {"apache_bps"_L1,       [](const Source& s) { return orNull(s.rates.apacheBytes); }                 },
    {"apache_busy"_L1,      [](const Source& s) { return ofApache(s.counters, s.counters.apacheBusy); } },
    {"apache_slots"_L1,     [](const Source& s) { return ofApache(s.counters, s.counters.apacheSlots); }},
});

} // namespace

std::optional<double> rate(qint64 current, qint64 previous, double seconds)
{
    if (current < previous)
        return std::nullopt;
    return difference(current, previous) / seconds;
}

QVariantList sampleValues(const HostCounters& previous, const HostCounters& current, const HostFigures& host)
{
    const Rates rates = ratesBetween(previous, current);
    const Source source{host, current, rates};
    QVariantList values;
    for (const Column& column : kColumns)
        values.append(column.value(source));
    return values;
}

QString sampleInsertStatement()
{
    QStringList names;
    QStringList marks;
    for (const Column& column : kColumns) {
        names.append(column.name);
        marks.append(u"?"_s);
    }
    return u"INSERT INTO tarn.host_samples (%1) VALUES (%2)"_s.arg(names.join(u", "_s), marks.join(u", "_s));
}

} // namespace tarn
