#include "report/SitePage.h"

#include "report/Format.h"
#include "report/Page.h"

#include <QLocale>

#include <algorithm>
#include <array>
#include <cmath>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

/// Their names as the collector stores them, sorted.
constexpr std::array<QStringView, 10> kAiCrawlers = {
    u"Amazonbot",
    u"Bytespider (ByteDance)",
    u"CCBot (Common Crawl)",
    u"ChatGPT-User",
    u"Claude-User",
    u"ClaudeBot",
    u"GPTBot (OpenAI)",
    u"Meta crawler",
    u"OAI-SearchBot (OpenAI)",
    u"PerplexityBot",
};
static_assert(std::is_sorted(kAiCrawlers.begin(), kAiCrawlers.end(), [](QStringView left, QStringView right) {
    return std::u16string_view(left.utf16(), static_cast<std::size_t>(left.size()))
           < std::u16string_view(right.utf16(), static_cast<std::size_t>(right.size()));
}));

struct Reason
{
    QStringView status;
    QStringView text;
};
constexpr std::array<Reason, 22> kReasons = {
    {
     {u"200", u"OK"},
     {u"204", u"No content"},
     {u"206", u"Partial content"},
     {u"301", u"Moved permanently"},
     {u"302", u"Found elsewhere"},
     {u"303", u"See other"},
     {u"304", u"Not modified"},
     {u"307", u"Temporary redirect"},
     {u"308", u"Permanent redirect"},
     {u"400", u"Bad request"},
     {u"401", u"Not signed in"},
     {u"403", u"Forbidden"},
     {u"404", u"Not found"},
     {u"405", u"Method not allowed"},
     {u"408", u"Request timeout"},
     {u"410", u"Gone"},
     {u"413", u"Too large"},
     {u"429", u"Too many requests"},
     {u"500", u"Server error"},
     {u"502", u"Bad gateway"},
     {u"503", u"Unavailable"},
     {u"504", u"Gateway timeout"},
     }
};

/// Days for which each chart tells of every day when it is pointed at.
constexpr qsizetype kDaysWithTitles = 92;

double bounceRate(const Day& day)
{
    return day.sessions > 0 ? 100.0 * static_cast<double>(day.bounces) / static_cast<double>(day.sessions)
                            : 0;
}

double attention(const Day& day)
{
    return day.views > 0 ? day.engagedSeconds / static_cast<double>(day.views) : 0;
}

/// A figure of a day, how it is called and how it reads.
struct Figure
{
    QString name;
    double (*value)(const Day&);
    QString (*text)(double);
};

QString whole(double number)
{
    return count(std::llround(number));
}

const QList<Figure>& dailyFigures()
{
    static const QList<Figure> figures = {
        {u"Visitors"_s,           [](const Day& day) { return static_cast<double>(day.visitors); }, whole   },
        {u"Page views"_s,         [](const Day& day) { return static_cast<double>(day.views); },    whole   },
        {u"Sessions"_s,           [](const Day& day) { return static_cast<double>(day.sessions); }, whole   },
        {u"Bounces"_s,            bounceRate,                                                       percent },
        {u"Attention per view"_s, attention,                                                        duration},
    };
    return figures;
}

void tiles(Html& html, const SiteFigures& figures)
{
    const auto list = html.element("dl", {
                                             {"class", u"tiles"_s}
    });
    for (const Figure& figure : dailyFigures()) {
        const double before = figure.value(figures.totalBefore);
        tile(html, figure.name, figure.text(figure.value(figures.total)),
             figures.totalBefore.known
                 ? u"%1, was %2"_s.arg(change(figure.value(figures.total), before), figure.text(before))
                 : u"nothing before"_s);
    }
    tile(html, u"Right now"_s, count(figures.liveVisitors), u"visitors in the last 5 minutes"_s);
    const Day& total = figures.total;
    tile(html, u"Response time"_s, total.medianUs ? responseTime(*total.medianUs) : u"–"_s,
         total.p95Us ? u"95 %% within %1"_s.arg(responseTime(*total.p95Us)).replace(u"%%"_s, u"%"_s)
                     : u"not logged"_s);
    tile(html, u"Sent"_s, bytes(static_cast<double>(total.bytes)),
         u"in %1 requests"_s.arg(count(total.requests)));
}

Values valuesOf(const QList<Day>& days, const Figure& figure)
{
    Values values;
    for (const Day& day : days)
        values.append(figure.value(day));
    return values;
}

double greatest(const Values& values)
{
    double most = 0;
    for (const std::optional<double>& value : values)
        most = std::max(most, value.value_or(0));
    return most;
}

QStringList titlesOf(const SiteFigures& figures, const Figure& figure)
{
    QStringList titles;
    if (figures.days.size() > kDaysWithTitles)
        return titles;
    for (qsizetype i = 0; i < figures.days.size(); ++i) {
        titles.append(u"%1: %2 · before: %3"_s.arg(isoDate(figures.period.first.addDays(i)),
                                                   figure.text(figure.value(figures.days.at(i))),
                                                   figure.text(figure.value(figures.before.at(i)))));
    }
    return titles;
}

void dailyChart(Html& html, const SiteFigures& figures, const Figure& figure)
{
    const Values now = valuesOf(figures.days, figure);
    const Values before = valuesOf(figures.before, figure);
    const double most = std::max(greatest(now), greatest(before));
    LineChart chart;
    chart.top = figure.text == percent ? std::min(100.0, roundTop(most)) : roundTop(std::max(most, 1.0));
    chart.topLabel = figure.text(chart.top);
    chart.middleLabel = figure.text(chart.top / 2).replace(u".0"_s, QString());
    chart.description =
        u"%1 per day, %2 to %3: %4 in all, at most %5 on a day; %6 in the period before"_s.arg(
            figure.name, isoDate(figures.period.first), isoDate(figures.period.last),
            figure.text(figure.value(figures.total)), figure.text(greatest(now)),
            figure.text(figure.value(figures.totalBefore)));
    if (figure.value == bounceRate || figure.value == attention)
        chart.description.replace(u" in all"_s, u" on average"_s);
    chart.ticks = dayTicks(figures.period.first, figures.days.size());
    chart.series = {
        {Curve::Before, before},
        {Curve::Main,   now   }
    };
    chart.titles = titlesOf(figures, figure);
    const auto card = html.element("figure", {
                                                 {"class", u"card"_s}
    });
    caption(html, figure.name,
            {
                {u"c1"_s, u"this period"_s},
                {u"c0"_s, u"before"_s     }
    });
    lineChart(html, chart);
}

void dailyTable(Html& html, const SiteFigures& figures)
{
    const auto whole = html.element("details");
    html.leaf("summary", u"The same by the day as a table");
    const auto scroll = html.element("div", {
                                                {"class",      u"scroll"_s            },
                                                {"tabindex",   u"0"_s                 },
                                                {"role",       u"region"_s            },
                                                {"aria-label", u"Figures by the day"_s}
    });
    const auto table = html.element("table");
    {
        const auto head = html.element("thead");
        const auto row = html.element("tr");
        html.leaf("th", u"Day",
                  {
                      {"class", u"l"_s  },
                      {"scope", u"col"_s}
        });
        for (const Figure& figure : dailyFigures())
            html.leaf("th", figure.name,
                      {
                          {"scope", u"col"_s}
            });
        for (const QString& name : {u"Requests"_s, u"Of bots"_s, u"4xx"_s, u"5xx"_s})
            html.leaf("th", name,
                      {
                          {"scope", u"col"_s}
            });
    }
    const auto body = html.element("tbody");
    for (qsizetype i = figures.days.size() - 1; i >= 0; --i) {
        const Day& day = figures.days.at(i);
        const auto row = html.element("tr");
        html.leaf("th", isoDate(figures.period.first.addDays(i)),
                  {
                      {"class", u"l"_s  },
                      {"scope", u"row"_s}
        });
        for (const Figure& figure : dailyFigures())
            html.leaf("td", figure.text(figure.value(day)));
        for (const qint64 number : {day.requests, day.botRequests, day.clientErrors, day.serverErrors})
            html.leaf("td", count(number));
    }
}

void days(Html& html, const SiteFigures& figures)
{
    section(html, u"days"_s, u"By the day"_s);
    {
        const auto grid = html.element("div", {
                                                  {"class", u"grid three wide-first"_s}
        });
        for (const Figure& figure : dailyFigures())
            dailyChart(html, figures, figure);
    }
    html.leaf(
        "p",
        u"The last day is today so far. Nobody is recognised on another day: visitors of several days are "
        u"those of each day added up. A bounce is a session of one page that had at most 10 seconds of "
        u"attention; the charts show their share of the sessions.",
        {
            {"class", u"note"_s}
    });
    dailyTable(html, figures);
}

void heatRow(Html& html, const QString& name, const std::array<qint64, 24>& hours, qint64 most)
{
    constexpr qint64 steps = 8;
    const auto row = html.element("tr");
    html.leaf("th", name,
              {
                  {"class", u"l"_s  },
                  {"scope", u"row"_s}
    });
    for (std::size_t hour = 0; hour < hours.size(); ++hour) {
        const qint64 views = hours.at(hour);
        const qint64 step = most > 0 ? (views * steps + most - 1) / most : 0;
        const auto cell = html.element(
            "td",
            {
                {"class", u"q%1"_s.arg(step)             },
                { "title",
                 u"%1 %2:00: %3 views"_s.arg(name).arg(hour, 2, 10, QLatin1Char('0')).arg(count(views))}
        });
        html.leaf("span", count(views),
                  {
                      {"class", u"vh"_s}
        });
    }
}

void week(Html& html, const SiteFigures& figures)
{
    static const QStringList names = {u"Mon"_s, u"Tue"_s, u"Wed"_s, u"Thu"_s, u"Fri"_s, u"Sat"_s, u"Sun"_s};
    section(html, u"week"_s, u"Hours of the week"_s);
    qint64 most = 0;
    for (const auto& hours : figures.week)
        most = std::max(most, *std::max_element(hours.begin(), hours.end()));
    const auto card = html.element("section", {
                                                  {"class", u"card"_s}
    });
    if (most == 0) {
        html.leaf("p", u"No views in this period.",
                  {
                      {"class", u"dim"_s}
        });
        return;
    }
    const auto table = html.element("table", {
                                                 {"class", u"heat"_s}
    });
    html.leaf("caption", u"Page views by day of the week and hour",
              {
                  {"class", u"vh"_s}
    });
    {
        const auto head = html.element("thead");
        const auto row = html.element("tr");
        html.leaf("td", u"",
                  {
                      {"class", u"l"_s}
        });
        for (int hour = 0; hour < 24; ++hour) {
            const auto cell = html.element("th", {
                                                     {"scope", u"col"_s}
            });
            // Every third is shown; all of them are there to be heard.
            html.leaf("span", u"%1"_s.arg(hour, 2, 10, QLatin1Char('0')),
                      {
                          {"class", hour % 3 == 0 ? u"shown"_s : u"vh"_s}
            });
        }
    }
    const auto body = html.element("tbody");
    for (std::size_t day = 0; day < figures.week.size(); ++day)
        heatRow(html, names.at(static_cast<qsizetype>(day)), figures.week.at(day), most);
}

void ranking(Html& html, const SiteFigures& figures, const QString& dimension, const RankingTable& table)
{
    rankingTable(html, table, figures.rankings.value(dimension));
}

void pages(Html& html, const SiteFigures& figures)
{
    section(html, u"pages"_s, u"Pages"_s);
    const auto grid = html.element("div", {
                                              {"class", u"grid two"_s}
    });
    const Column attentionColumn = {
        u"Attention"_s, [](const Ranked& ranked) {
            return duration(ranked.engagedSeconds / static_cast<double>(std::max<qint64>(ranked.hits, 1)));
        }};
    const Column slow = {
        u"95 % within"_s,
        [](const Ranked& ranked) { return ranked.p95Us ? responseTime(*ranked.p95Us) : u"–"_s; }, true};
    ranking(html, figures, u"path"_s,
            {
                u"Top pages"_s, u"Page"_s, {hitsColumn(u"Views"_s), attentionColumn, slow},
                  15, false, {    }
    });
    ranking(html, figures, u"entry_path"_s,
            {u"Entry pages"_s, u"First page of a session"_s, {hitsColumn(u"Sessions"_s)}, 15, false, {}});
}

QString kindName(const QString& kind)
{
    static const QMap<QString, QString> names = {
        {u"campaign"_s, u"Campaigns"_s        },
        {u"direct"_s,   u"Direct"_s           },
        {u"internal"_s, u"From page to page"_s},
        {u"search"_s,   u"Search"_s           },
        {u"social"_s,   u"Social media"_s     },
        {u"ai"_s,       u"AI assistants"_s    },
        {u"email"_s,    u"E-mail"_s           },
        {u"referral"_s, u"Other sites"_s      },
    };
    return names.value(kind, kind);
}

void searchTerms(Html& html, const SiteFigures& figures)
{
    const auto card = html.element("section", {
                                                  {"class", u"card"_s}
    });
    html.leaf("h3", u"Search terms");
    if (figures.searchTerms.isEmpty()) {
        html.leaf("p",
                  figures.searchConnected
                      ? u"None in this period."
                      : u"None. The site has no property at a search engine, and hardly any "
                        u"engine tells the terms with a visit.",
                  {
                      {"class", u"dim"_s}
        });
        return;
    }
    const auto table = html.element("table");
    {
        const auto head = html.element("thead");
        const auto row = html.element("tr");
        html.leaf("th", u"Term",
                  {
                      {"class", u"l bars"_s},
                      {"scope", u"col"_s   }
        });
        html.leaf("th", u"Views",
                  {
                      {"scope", u"col"_s}
        });
        html.leaf("th", u"Clicks",
                  {
                      {"scope", u"col"_s}
        });
        html.leaf("th", u"Shown",
                  {
                      {"class", u"wide"_s},
                      {"scope", u"col"_s }
        });
        html.leaf("th", u"Position",
                  {
                      {"scope", u"col"_s}
        });
    }
    const auto body = html.element("tbody");
    const qint64 most = std::max<qint64>(figures.searchTerms.first().clicks, 1);
    for (const SearchTerm& term : figures.searchTerms) {
        const auto row = html.element("tr");
        {
            const auto cell = html.element("th", {
                                                     {"class", u"l bars"_s},
                                                     {"scope", u"row"_s   }
            });
            bar(html, static_cast<double>(term.clicks) / static_cast<double>(most));
            html.foreign(term.term);
        }
        html.leaf("td", count(term.views));
        html.leaf("td", count(term.clicks));
        html.leaf("td", count(term.impressions),
                  {
                      {"class", u"wide"_s}
        });
        html.leaf("td", term.position ? decimal(*term.position, 1) : u"–"_s);
    }
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
                kindName
    });
    ranking(html, figures, u"source"_s,
            {
                u"Sources"_s, u"Source"_s, {hitsColumn(u"Views"_s),        visitorsColumn()},
                  12, true, {                             }
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

void search(Html& html, const SiteFigures& figures)
{
    section(html, u"search"_s, u"Search"_s);
    searchTerms(html, figures);
    html.leaf(
        "p",
        u"Views: visits that told what was searched for. Clicks, how often the site was shown and its mean "
        u"position are Google Search Console's, which counts days in Pacific time and is some two days "
        u"behind.",
        {
            {"class", u"note"_s}
    });
}

/// "Germany" for "DE"; a code that is nobody's stays as it is.
QString countryName(const QString& code)
{
    const QLocale::Territory territory = QLocale::codeToTerritory(code);
    return territory == QLocale::AnyTerritory ? code : QLocale::territoryToString(territory);
}

void audience(Html& html, const SiteFigures& figures)
{
    section(html, u"audience"_s, u"Visitors and what they use"_s);
    const auto grid = html.element("div", {
                                              {"class", u"grid four"_s}
    });
    const QList<Column> columns = {hitsColumn(u"Views"_s), visitorsColumn()};
    ranking(html, figures, u"country"_s, {u"Countries"_s, u"Country"_s, columns, 12, false, {}, countryName});
    ranking(html, figures, u"device"_s, {u"Devices"_s, u"Device"_s, columns, 4, false, {}});
    ranking(html, figures, u"browser"_s, {u"Browsers"_s, u"Browser"_s, columns, 10, false, {}});
    ranking(html, figures, u"os"_s, {u"Systems"_s, u"System"_s, columns, 10, false, {}});
}

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

QString statusName(const QString& status)
{
    const auto found = std::find_if(kReasons.begin(), kReasons.end(),
                                    [&status](const Reason& reason) { return reason.status == status; });
    return found == kReasons.end() ? status : status + u' ' + found->text.toString();
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

} // namespace

bool isAiCrawler(const QString& name)
{
    return std::find(kAiCrawlers.begin(), kAiCrawlers.end(), name) != kAiCrawlers.end();
}

QByteArray sitePage(const SiteFigures& figures, const Now& now)
{
    Frame frame{figures.site.host, now, figures.period, true, {}, {}};
    if (!figures.total.known) {
        frame.intro = u"No visits in this period."_s;
        return page(frame, [&figures](Html& html) {
            html.leaf(
                "p",
                figures.totalBefore.known
                    ? u"There were some in the period before: is the site's log still written and followed?"
                    : u"Figures appear here within a minute of the first request in the site's log.",
                {
                    {"class", u"card"_s}
            });
        });
    }
    frame.sections = {
        {u"days"_s,     u"Days"_s    },
        {u"week"_s,     u"Week"_s    },
        {u"pages"_s,    u"Pages"_s   },
        {u"sources"_s,  u"Sources"_s },
        {u"search"_s,   u"Search"_s  },
        {u"audience"_s, u"Visitors"_s},
        {u"bots"_s,     u"Bots"_s    },
        {u"answers"_s,  u"Answers"_s },
    };
    return page(frame, [&figures](Html& html) {
        tiles(html, figures);
        days(html, figures);
        week(html, figures);
        pages(html, figures);
        sources(html, figures);
        search(html, figures);
        audience(html, figures);
        bots(html, figures);
        answers(html, figures);
    });
}

} // namespace tarn::report
