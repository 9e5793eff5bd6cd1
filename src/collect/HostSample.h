// A row of tarn.host_samples, as values: no file, no database, no clock.
#pragma once

#include "collect/Health.h"
#include "collect/HostFiles.h"

#include <QVariantList>

#include <optional>

namespace tarn {

/// What a sample tells of the host that is no counter.
struct HostFigures
{
    LoadAverage load;
    qint64 memTotalKb = 0;
    qint64 memAvailableKb = 0;
    qint64 diskTotalBytes = 0;     ///< of the volume at "/"
    qint64 diskAvailableBytes = 0; ///< for anybody but root
    qint64 swapTotalKb = 0;
    qint64 swapFreeKb = 0;
    std::optional<double> cpuTemperatureC; ///< nothing without a sensor
    int pgConnections = 0;                 ///< client sessions of the database server
};

/// The mean growth per second of a counter over @p seconds, which are above 0. Nothing when it has gone down:
/// it was reset in between, by a restart of what it counts.
std::optional<double> rate(qint64 current, qint64 previous, double seconds);

/// The values of a sample in the order of sampleInsertStatement(). All rates are NULL without a @p previous
/// sample that is older than @p current.
QVariantList sampleValues(const Health::Counters& previous, const Health::Counters& current,
                          const HostFigures& host);

/// The statement that stores a sample; the time is the database's.
QString sampleInsertStatement();

} // namespace tarn
