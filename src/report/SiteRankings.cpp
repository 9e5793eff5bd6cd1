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
        html.leaf("p", u"The lists from here on are of the last %1 days, from %2 on: the whole period has too many "
                       u"different values. Clicks and positions of searches are of all of it."_s.arg(
                           count(figures.ranked.days()), isoDate(figures.ranked.first)));
    }
    const auto grid = html.element("div", {
                                              {"class", u"grid two"_s}
    });
    const Column attentionColumn = {
        u"Attention"_s, [](const Ranked& ranked) {
            return duration(ranked.engagedSeconds / static_cast<double>(std::max<qint64>(ranked.hits, 1)));
        }};
    const Column slow = {
        u"95\u202F% within"_s,
        [](const Ranked& ranked) { return ranked.p95Us ? responseTime(*ranked.p95Us) : u"–"_s; }, true};
    ranking(html, figures, u"path"_s,
            {
                u"Top pages"_s, u"Page"_s, {hitsColumn(u"Views"_s), attentionColumn, slow},
                  15, false, {    }
    });
    ranking(html, figures, u"entry_path"_s,
            {u"Entry pages"_s, u"First page of a session"_s, {hitsColumn(u"Sessions"_s)}, 15, false, {}});
}

void sources(Html& html, const SiteFigures& figures)
{
    section(html, u"sources"_s, u"Where visits come from"_s);
    const auto grid = html.element("div", {
                                              {"class", u"grid two"_s}
    });
    ranking(html, figures, u"source_kind"_s,
            {
                u"Kinds of source"_s,
                u"Kind"_s,
                {hitsColumn(u"Views"_s), visitorsColumn()},
                8,
                false,
                {                      },
                sourceKindName
    });
    ranking(html, figures, u"source"_s,
            {
                u"Sources"_s, u"Source"_s, {hitsColumn(u"Views"_s), visitorsColumn()}, 12, true, {}, {}, sourceKindBehind
    });
    ranking(html, figures, u"campaign"_s,
            {
                u"Campaigns"_s, u"Campaign"_s, {hitsColumn(u"Views"_s),        visitorsColumn()},
                  12, true, {                             }
    });
    ranking(html, figures, u"campaign_source"_s,
            {
                u"Sources of campaigns"_s,
                u"Source"_s,
                {hitsColumn(u"Views"_s), visitorsColumn()},
                8,
                false,
                {                      }
    });
}

void audience(Html& html, const SiteFigures& figures)
{
    section(html, u"audience"_s, u"Visitors and what they use"_s);
    const auto grid = html.element("div", {
                                              {"class", u"grid four"_s}
    });
    const QList<Column> columns = {hitsColumn(u"Views"_s), visitorsColumn()};
    ranking(html, figures, u"country"_s, {u"Countries"_s, u"Country"_s, columns, 12, false, {}, countryName});
    ranking(html, figures, u"device"_s, {u"Devices"_s, u"Device"_s, columns, 4, false, {}, deviceName});
    ranking(html, figures, u"browser"_s, {u"Browsers"_s, u"Browser"_s, columns, 10, false, {}});
    ranking(html, figures, u"os"_s, {u"Systems"_s, u"System"_s, columns, 10, false, {}});
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
    const auto grid = html.element("div", {
                                              {"class", u"grid two"_s}
    });
    rankingTable(html, {u"AI crawlers"_s, u"Crawler"_s, {hitsColumn(u"Requests"_s)}, 12, false, {}},
                 botsOf(all, true));
    rankingTable(html, {u"Other bots"_s, u"Bot"_s, {hitsColumn(u"Requests"_s)}, 15, false, {}},
                 botsOf(all, false));
}

void answers(Html& html, const SiteFigures& figures)
{
    section(html, u"answers"_s, u"Answers"_s);
    const auto grid = html.element("div", {
                                              {"class", u"grid two"_s}
    });
    const QList<Column> columns = {hitsColumn(u"Requests"_s)};
    ranking(html, figures, u"status"_s, {u"Statuses"_s, u"Status"_s, columns, 14, false, {}, statusName});
    ranking(html, figures, u"missing_path"_s,
            {u"Broken links"_s, u"Path that is not there"_s, columns, 15, false,
             u"Answered with 404 or 410, people and bots alike. Many are guesses of scanners."_s});
}

} // namespace tarn::report
