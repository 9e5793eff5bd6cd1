// What the collector's short names are called on the page of a site.
#pragma once

#include <QString>

namespace tarn::report {

/// Whether the crawler that is called @p name in the figures works for an AI service: collects training data,
/// feeds an assistant's search or fetches what somebody asked an assistant about.
bool isAiCrawler(const QString& name);

/// "Social media" for "social".
QString sourceKindName(const QString& kind);
/// A source's kind behind its name: "social media".
QString sourceKindBehind(const QString& kind);
/// "Germany" for "DE".
QString countryName(const QString& code);
/// "Mobile" for "mobile".
QString deviceName(const QString& device);
/// "404 Not found" for "404".
QString statusName(const QString& status);

} // namespace tarn::report
