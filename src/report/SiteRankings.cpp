#include "report/SiteRankings.h"

#include "report/Format.h"
#include "report/Page.h"
#include "report/SiteNames.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

void ranking(Html& html, const SiteFigures& figures, const QString& dimension, const RankingTable& table)
{
    rankingTable(html, table, figures.rankings.value(dimension));
}

} // namespace

void pages(Html& html, const SiteFigures& figures)
{
    section(html, u"pages"_s, u"Pages"_s);
    if (figures.ranked.first > figures.period.first) {
        html.leaf(
            "p", u"The lists from here on are of the last %1 days, from %2 on: the whole period has too many "
                 u"different values. Clicks and positions of searches are of all of it."_s.arg(
                     count(figures.ranked.days()), isoDate(figures.ranked.first)));
    }
    const auto grid = html.element("div", "grid two");
    const auto attentionOf = [](const Ranked& ranked) {
        return duration(ranked.engagedSeconds / static_cast<double>(std::max<qint64>(ranked.hits, 1)));
    };
    const auto slowestOf = [](const Ranked& ranked) {
        return ranked.p95Us ? responseTime(*ranked.p95Us) : u"–"_s;
    };
    const QList<Column> columns = {
        hitsColumn(u"Views"_s), Column{u"Attention"_s,        attentionOf, false},
        Column{u"95\u202F% within"_s, slowestOf,   true }
    };
    ranking(html, figures, u"path"_s,
            {.title = u"Top pages"_s, .valueName = u"Page"_s, .columns = columns, .rows = 15});
    ranking(html, figures, u"entry_path"_s,
            {.title = u"Entry pages"_s,
             .valueName = u"First page of a session"_s,
             .columns = {hitsColumn(u"Sessions"_s)},
             .rows = 15});
}

void sources(Html& html, const SiteFigures& figures)
{
    section(html, u"sources"_s, u"Where visits come from"_s);
    const auto grid = html.element("div", "grid two");
    const QList<Column> columns = {hitsColumn(u"Views"_s), visitorsColumn()};
    ranking(html, figures, u"source_kind"_s,
            {.title = u"Kinds of source"_s,
             .valueName = u"Kind"_s,
             .columns = columns,
             .rows = 8,
             .label = sourceKindName});
    ranking(html, figures, u"source"_s,
            {.title = u"Sources"_s,
             .valueName = u"Source"_s,
             .columns = columns,
             .withPart = true,
             .partLabel = sourceKindBehind});
    ranking(html, figures, u"campaign"_s,
            {.title = u"Campaigns"_s, .valueName = u"Campaign"_s, .columns = columns, .withPart = true});
    ranking(html, figures, u"campaign_source"_s,
            {.title = u"Sources of campaigns"_s, .valueName = u"Source"_s, .columns = columns, .rows = 8});
}

void audience(Html& html, const SiteFigures& figures)
{
    section(html, u"audience"_s, u"Visitors and what they use"_s);
    const auto grid = html.element("div", "grid four");
    const QList<Column> columns = {hitsColumn(u"Views"_s), visitorsColumn()};
    ranking(html, figures, u"country"_s,
            {.title = u"Countries"_s, .valueName = u"Country"_s, .columns = columns, .label = countryName});
    ranking(html, figures, u"device"_s,
            {.title = u"Devices"_s,
             .valueName = u"Device"_s,
             .columns = columns,
             .rows = 4,
             .label = deviceName});
    ranking(html, figures, u"browser"_s,
            {.title = u"Browsers"_s, .valueName = u"Browser"_s, .columns = columns, .rows = 10});
    ranking(html, figures, u"os"_s,
            {.title = u"Systems"_s, .valueName = u"System"_s, .columns = columns, .rows = 10});
}

namespace {

/// Those of @p ranking's values that are AI crawlers, or those that are not; the rest belongs to the latter.
Ranking botsOf(const Ranking& ranking, bool ai)
{
    Ranking part;
    for (const Ranked& ranked : ranking.values) {
        if (isAiCrawler(ranked.value) == ai) {
            part.values.append(ranked);
            part.hits += ranked.hits;
        }
    }
    if (!ai)
        part.hits += ranking.others();
    return part;
}

} // namespace

void bots(Html& html, const SiteFigures& figures)
{
    section(html, u"bots"_s, u"Bots"_s);
    const double share = figures.total.requests > 0 ? 100.0 * static_cast<double>(figures.total.botRequests)
                                                          / static_cast<double>(figures.total.requests)
                                                    : 0;
    html.leaf("p", u"%1 of the requests came from bots. They are in none of the figures above."_s.arg(
                       percent(share)));
    const Ranking all = figures.rankings.value(u"bot"_s);
    const auto grid = html.element("div", "grid two");
    const QList<Column> columns = {hitsColumn(u"Requests"_s)};
    rankingTable(html, {.title = u"AI crawlers"_s, .valueName = u"Crawler"_s, .columns = columns},
                 botsOf(all, true));
    rankingTable(html, {.title = u"Other bots"_s, .valueName = u"Bot"_s, .columns = columns, .rows = 15},
                 botsOf(all, false));
}

void answers(Html& html, const SiteFigures& figures)
{
    section(html, u"answers"_s, u"Answers"_s);
    const auto grid = html.element("div", "grid two");
    const QList<Column> columns = {hitsColumn(u"Requests"_s)};
    ranking(html, figures, u"status"_s,
            {.title = u"Statuses"_s,
             .valueName = u"Status"_s,
             .columns = columns,
             .rows = 14,
             .label = statusName});
    ranking(html, figures, u"missing_path"_s,
            {.title = u"Broken links"_s,
             .valueName = u"Path that is not there"_s,
             .columns = columns,
             .rows = 15,
             .note = u"Answered with 404 or 410, people and bots alike. Many are guesses of scanners."_s});
}

} // namespace tarn::report
