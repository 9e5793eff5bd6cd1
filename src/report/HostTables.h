// The tables of the host's page.
#pragma once

#include "report/HostData.h"
#include "report/Html.h"

namespace tarn::report {

void alertHistory(Html& html, const HostFigures& figures);
/// By use of their limits and growth.
void accounts(Html& html, const HostFigures& figures);
/// By visitors, with a sparkline each.
void sites(Html& html, const HostFigures& figures);

} // namespace tarn::report
