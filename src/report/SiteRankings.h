// The lists of a site's page: the values of each dimension with the most hits.
#pragma once

#include "report/Html.h"
#include "report/SiteData.h"

namespace tarn::report {

void pages(Html& html, const SiteFigures& figures);
void sources(Html& html, const SiteFigures& figures);
void audience(Html& html, const SiteFigures& figures);
/// AI crawlers apart from the others.
void bots(Html& html, const SiteFigures& figures);
void answers(Html& html, const SiteFigures& figures);

} // namespace tarn::report
