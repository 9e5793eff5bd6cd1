// A row of tarn.host_samples, as values: no file, no database, no clock.
#pragma once

#include "collect/HostCounters.h"

#include <QString>
#include <QVariantList>

#include <optional>

namespace tarn {

/// The mean growth per second of a counter over @p seconds, which are above 0. Nothing when it has gone down:
/// it was reset in between, by a restart of what it counts.
std::optional<double> rate(qint64 current, qint64 previous, double seconds);

/// The values of a sample in the order of sampleInsertStatement(). A figure that is not known is NULL: a
/// temperature without a sensor, Apache's without its page. All rates are NULL unless @p previous is valid
/// and older than @p current; one is NULL when its counter has gone down, Apache's also when its page was
/// missing either time. The two CPU percentages have no such guard and can be negative.
QVariantList sampleValues(const HostCounters& previous, const HostCounters& current, const HostFigures& host);

/// The statement that stores a sample; the time is the database's.
QString sampleInsertStatement();

} // namespace tarn
