// The page of one site: records in, HTML out.
#pragma once

#include "report/SiteData.h"

#include <QByteArray>

namespace tarn::report {

QByteArray sitePage(const SiteFigures& figures, const Now& now);

/// Whether the crawler that is called @p name in the figures works for an AI service: collects training data,
/// feeds an assistant's search or fetches what somebody asked an assistant about.
bool isAiCrawler(const QString& name);

} // namespace tarn::report
