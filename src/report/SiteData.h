// The figures of one site, read from tarn.site_days, tarn.site_day_values and tarn.search_rows. What each of
// them counts is told in schema/README.md.
#pragma once

#include "report/Query.h"

#include <QList>
#include <QMap>

#include <array>

namespace tarn::report {

/// Values of a dimension that a page can show; all others are in Ranking::others.
inline constexpr int kRankedValues = 40;
/// Rows that rankings are made of, with those of the day that reaches it left out: more would take longer
/// than half a second. An ordinary site has some 200 a day; the most that a day can have is 13,000.
inline constexpr int kRankedRows = 120'000;
/// Search terms that a page can show.
inline constexpr int kSearchTerms = 25;

struct Site
{
    int id = 0;
    QString host;
};

/// A site's day, or several days summed.
struct Day
{
    qint64 requests = 0;
    qint64 views = 0;
    qint64 visitors = 0; ///< of several days: the sum, since nobody is recognised on another day
    qint64 sessions = 0;
    qint64 bounces = 0;
    qint64 botRequests = 0;
    qint64 bytes = 0;
    qint64 clientErrors = 0;
    qint64 serverErrors = 0;
    double engagedSeconds = 0;
    std::optional<double>
        medianUs; ///< of the response times; of several days: the mean of theirs by requests
    std::optional<double> p95Us;
    bool known = false; ///< there is a row for the day, or for one of them
};

/// A value of a dimension with its figures of the period.
struct Ranked
{
    QString value;
    QString partOf;
    qint64 hits = 0;
    qint64 visitors = 0;
    double engagedSeconds = 0;
    std::optional<double> p95Us;
};

/// The values with the most hits, the greatest first.
struct Ranking
{
    QList<Ranked> values;
    qint64 hits = 0; ///< of all values, those included that are not listed

    qint64 others() const;
};

/// What was searched for: visits that told of it beside what a search engine counted.
struct SearchTerm
{
    QString term;
    qint64 views = 0;
    qint64 clicks = 0;
    qint64 impressions = 0;
    std::optional<double> position; ///< mean by impressions; nothing without figures of an engine
};

/// Views by day of the week (0: Monday) and hour.
using Week = std::array<std::array<qint64, 24>, 7>;

struct SiteFigures
{
    Site site;
    Period period;
    QList<Day> days;   ///< one for each of the period
    QList<Day> before; ///< the same of the period before
    Day total;
    Day totalBefore;
    Period ranked;                   ///< that rankings are of: the period, or its last days
    QMap<QString, Ranking> rankings; ///< by dimension; those without values are missing
    Week week = {};
    QList<SearchTerm> searchTerms;
    bool searchConnected = false; ///< the site has a property at a search engine
    qint64 liveVisitors = 0;      ///< of the last five minutes
};

/// All sites by host; or those of @p hosts, in their order. A host that is no site's fails the whole
/// (logged).
std::optional<QList<Site>> readSites(const QStringList& hosts);

std::optional<SiteFigures> readSite(const Site& site, const Period& period);

/// @p days as one.
Day sumOf(const QList<Day>& days);

} // namespace tarn::report
