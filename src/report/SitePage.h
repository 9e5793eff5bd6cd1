// The page of one site: records in, HTML out.
#pragma once

#include "report/SiteData.h"

#include <QByteArray>

namespace tarn::report {

QByteArray sitePage(const SiteFigures& figures, const Now& now);

} // namespace tarn::report
