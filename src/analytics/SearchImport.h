// Stores what a search engine says of one site: daily totals (tarn.search_days) and detail rows
// (tarn.search_rows). Fetches nothing and knows no engine: its caller hands the answer over.
// Uses the default database session. Main thread only.
#pragma once

#include <QString>

class QJsonObject;

namespace tarn::analytics {

/// Replaces what is stored of a site and an engine, from the first to the last day of the totals, by @p
/// document:
///
///     {"totals": [{"keys": ["2024-10-10"],
///                  "clicks": 3, "impressions": 120, "position": 7.4}, ...],
///      "rows":   [{"keys": ["2024-10-10", "red shoes", "https://example.org/a?b=c", "deu", "MOBILE"],
///                  "clicks": 1, "impressions": 20, "position": 2.5}, ...]}
///
/// The keys of a detail row are day, query, URL of the page, country as ISO 3166-1 alpha-3 and device; stored
/// are the URL's path, decoded, and the alpha-2 code, NULL for an unknown country. A missing value, or one of
/// another type, counts as 0 or as an empty text. Detail rows of days outside the range are stored, and
/// nothing is deleted for them.
///
/// All or nothing, in one transaction. Returns a line that says what was stored ("3 days (2024-10-10 to
/// 2024-10-12), 1201 detail rows") or why nothing was; @p ok tells the two apart.
QString importSearchData(int siteId, const QString& engine, const QJsonObject& document, bool* ok);

/// The deletions of a range: values are site, engine, first and last day.
inline const QString kSearchDayDeletion =
    QStringLiteral("DELETE FROM tarn.search_days WHERE site_id = ? AND engine = ? AND day BETWEEN "
                   "CAST(? AS date) AND CAST(? AS date)");
inline const QString kSearchRowDeletion =
    QStringLiteral("DELETE FROM tarn.search_rows WHERE site_id = ? AND engine = ? AND day BETWEEN "
                   "CAST(? AS date) AND CAST(? AS date)");

/// Stores one day: values are site, engine, day, clicks, impressions and position.
inline const QString kSearchDayInsertion =
    QStringLiteral("INSERT INTO tarn.search_days VALUES (?, ?, CAST(? AS date), ?, ?, ?)");

/// The statement that stores @p rows detail rows at once, for 10 positional values a row.
QString searchRowInsertStatement(qsizetype rows);

} // namespace tarn::analytics
