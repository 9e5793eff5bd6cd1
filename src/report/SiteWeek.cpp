#include "report/SiteWeek.h"

#include "report/Format.h"
#include "report/Page.h"

#include <algorithm>
#include <array>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

void heatRow(Html& html, const QString& name, const std::array<qint64, 24>& hours, qint64 most)
{
    constexpr qint64 steps = 8;
    const auto row = html.element("tr");
    rowHead(html, name, "l");
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
        html.leaf("span", count(views), "vh");
    }
}

void hours(Html& html)
{
    const auto head = html.element("thead");
    const auto row = html.element("tr");
    html.leaf("td", u"", "l");
    for (int hour = 0; hour < 24; ++hour) {
        const auto cell = html.element("th", {
                                                 {"scope", u"col"_s}
        });
        // Every third is shown; all of them are there to be heard.
        html.leaf("span", u"%1"_s.arg(hour, 2, 10, QLatin1Char('0')),
                  hour % 3 == 0 ? CssClass("shown") : CssClass("vh"));
    }
}

const std::array<QString, 7>& dayNames()
{
    static const std::array<QString, 7> names = {u"Mon"_s, u"Tue"_s, u"Wed"_s, u"Thu"_s,
                                                 u"Fri"_s, u"Sat"_s, u"Sun"_s};
    return names;
}

/// What the strongest colour stands for.
QString busiestHour(const Week& week, qint64 most)
{
    for (std::size_t day = 0; day < week.size(); ++day) {
        const auto hour = std::find(week.at(day).begin(), week.at(day).end(), most);
        if (hour != week.at(day).end()) {
            return u"Page views. The strongest colour is %1 %2:00 with %3."_s.arg(dayNames().at(day))
                .arg(hour - week.at(day).begin(), 2, 10, QLatin1Char('0'))
                .arg(count(most));
        }
    }
    return {};
}

} // namespace

void week(Html& html, const SiteFigures& figures)
{
    section(html, u"week"_s, u"Hours of the week"_s);
    qint64 most = 0;
    for (const auto& day : figures.week)
        most = std::max(most, *std::max_element(day.begin(), day.end()));
    const auto box = card(html);
    if (most == 0) {
        nothing(html, u"No views in this period.");
        return;
    }
    {
        const auto table = html.element("table", "heat");
        html.leaf("caption", u"Page views by day of the week and hour", "vh");
        hours(html);
        const auto body = html.element("tbody");
        for (std::size_t day = 0; day < figures.week.size(); ++day)
            heatRow(html, dayNames().at(day), figures.week.at(day), most);
    }
    note(html, busiestHour(figures.week, most));
}

} // namespace tarn::report
