// The list at the top of the host's page: open alerts, accounts near or over their limits, logs that are
// behind.
#pragma once

#include "report/HostData.h"
#include "report/Html.h"

namespace tarn::report {

void attention(Html& html, const HostFigures& figures);

} // namespace tarn::report
