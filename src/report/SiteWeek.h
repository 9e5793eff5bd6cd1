// Views by hour of the week, as a table whose cells are coloured.
#pragma once

#include "report/Html.h"
#include "report/SiteData.h"

namespace tarn::report {

void week(Html& html, const SiteFigures& figures);

} // namespace tarn::report
