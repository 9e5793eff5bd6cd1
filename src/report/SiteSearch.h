// What a site was searched for: its visits' terms beside what a search engine counted.
#pragma once

#include "report/Html.h"
#include "report/SiteData.h"

namespace tarn::report {

void search(Html& html, const SiteFigures& figures);

} // namespace tarn::report
