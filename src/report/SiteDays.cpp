#include "report/SiteDays.h"

#include "report/Format.h"
#include "report/Page.h"

#include <algorithm>
#include <cmath>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

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

/// A figure of a day, how it is called, how it reads, and which scale suits it.
struct Figure
{
    QString name;
    double (*value)(const Day&);
    QString (*text)(double);
    double (*top)(double);
    bool isMean = false; ///< of several days the mean, otherwise the sum
};

QString whole(double number)
{
    return count(std::llround(number));
}

/// Two at least, so that the middle is a whole number.
double topOfWhole(double most)
{
    return roundTop(std::max(most, 2.0));
}

double topOfShare(double most)
{
    return std::min(100.0, roundTop(std::max(most, 10.0)));
}

const QList<Figure>& dailyFigures()
{
    static const QList<Figure> figures = {
        {u"Visitors"_s,           [](const Day& day) { return static_cast<double>(day.visitors); }, whole,    topOfWhole,
         false                                                                                                                     },
        {u"Page views"_s,         [](const Day& day) { return static_cast<double>(day.views); },    whole,    topOfWhole,
         false                                                                                                                     },
        {u"Sessions"_s,           [](const Day& day) { return static_cast<double>(day.sessions); }, whole,    topOfWhole,
         false                                                                                                                     },
        {u"Bounces"_s,            bounceRate,                                                       percent,  topOfShare,      true},
        {u"Attention per view"_s, attention,                                                        duration, roundTopSeconds, true},
    };
    return figures;
}

/// How @p figure has changed: that of a share in points, since per cent of per cent mislead.
QString changeOf(const Figure& figure, const SiteFigures& figures)
{
    const double now = figure.value(figures.total);
    const double before = figure.value(figures.totalBefore);
    if (!figures.totalBefore.known)
        return u"nothing before"_s;
    return u"%1, was %2"_s.arg(figure.value == bounceRate ? points(now - before) : change(now, before),
                               figure.text(before));
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
    LineChart chart;
    chart.top = figure.top(std::max(greatest(now), greatest(before)));
    chart.topLabel = scaleLabel(figure.text(chart.top));
    chart.middleLabel = scaleLabel(figure.text(chart.top / 2));
    chart.description = u"%1 per day, %2 to %3: %4 %5, at most %6 on a day; %7 in the period before"_s.arg(
        figure.name, isoDate(figures.period.first), isoDate(figures.period.last),
        figure.text(figure.value(figures.total)), figure.isMean ? u"on average"_s : u"in all"_s,
        figure.text(greatest(now)), figure.text(figure.value(figures.totalBefore)));
    chart.ticks = dayTicks(figures.period.first, figures.days.size());
    chart.series = {
        {Curve::Before, before},
        {Curve::Main,   now   }
    };
    chart.titles = titlesOf(figures, figure);
    const auto card = html.element("figure", "card");
    caption(html, figure.name,
            {
                {u"c1"_s, u"this period"_s},
                {u"c0"_s, u"before"_s     }
    });
    lineChart(html, chart);
}

void dailyRow(Html& html, QDate date, const Day& day)
{
    const auto row = html.element("tr");
    rowHead(html, isoDate(date), "l");
    for (const Figure& figure : dailyFigures())
        html.leaf("td", figure.text(figure.value(day)));
    for (const qint64 number : {day.requests, day.botRequests, day.clientErrors, day.serverErrors})
        html.leaf("td", count(number));
}

void dailyTable(Html& html, const SiteFigures& figures)
{
    const auto whole = html.element("details");
    html.leaf("summary", u"The same by the day as a table");
    const auto scroll = scrolling(html, u"Figures by the day"_s);
    const auto table = html.element("table");
    QList<Heading> headings = {
        {u"Day"_s, u"l"_s}
    };
    for (const Figure& figure : dailyFigures())
        headings.append({figure.name, u"n"_s});
    for (const QString& name : {u"Requests"_s, u"Of bots"_s, u"4xx"_s, u"5xx"_s})
        headings.append({name, u"n"_s});
    tableHead(html, headings);
    const auto body = html.element("tbody");
    for (qsizetype i = figures.days.size() - 1; i >= 0; --i)
        dailyRow(html, figures.period.first.addDays(i), figures.days.at(i));
}

} // namespace

void tiles(Html& html, const SiteFigures& figures, const Now& now)
{
    const auto list = html.element("dl", "tiles");
    for (const Figure& figure : dailyFigures())
        tile(html, figure.name, figure.text(figure.value(figures.total)), changeOf(figure, figures));
    // The page may be read long after it was written.
    constexpr qsizetype clock = 5;
    tile(html, u"Live at "_s + now.minute.last(clock), count(figures.liveVisitors),
         u"visitors in the 5 minutes before"_s);
    const Day& total = figures.total;
    tile(html, u"Response time"_s, total.medianUs ? responseTime(*total.medianUs) : u"–"_s,
         total.p95Us ? u"95\u202F% within "_s + responseTime(*total.p95Us) : u"not logged"_s);
    tile(html, u"Sent"_s, bytes(static_cast<double>(total.bytes)),
         u"in %1 requests"_s.arg(count(total.requests)));
}

void days(Html& html, const SiteFigures& figures)
{
    section(html, u"days"_s, u"By the day"_s);
    {
        const auto grid = html.element("div", "grid three wide-first");
        for (const Figure& figure : dailyFigures())
            dailyChart(html, figures, figure);
    }
    note(html,
         u"The last day is today so far. Nobody is recognised on another day: visitors of several days are "
         u"those of each day added up. A bounce is a session of one page that had at most 10 seconds of "
         u"attention; the charts show their share of the sessions.");
    dailyTable(html, figures);
}

} // namespace tarn::report
