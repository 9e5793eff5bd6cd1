// The host over time: the latest sample, curves of samples with alerts drawn behind them, and the long run.
#pragma once

#include "report/HostData.h"
#include "report/Html.h"

namespace tarn::report {

/// The latest sample and the curves of the period, 30 days at most.
void curves(Html& html, const HostFigures& figures);

/// Whether there are more days than those that the curves of samples show.
bool isLong(const HostFigures& figures);
/// The host by the day; of figures that are long only.
void longCurves(Html& html, const HostFigures& figures);

} // namespace tarn::report
