// A site's figures by the day, beside those of the period before.
#pragma once

#include "report/Html.h"
#include "report/SiteData.h"

namespace tarn::report {

/// The sums of the period, and who is there at the moment of writing.
void tiles(Html& html, const SiteFigures& figures, const Now& now);
/// A chart for each figure, and all of them as a table.
void days(Html& html, const SiteFigures& figures);

} // namespace tarn::report
