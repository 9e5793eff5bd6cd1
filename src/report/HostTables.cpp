#include "report/HostTables.h"

#include "report/AlertNames.h"
#include "report/Format.h"
#include "report/Page.h"

#include <algorithm>
#include <cmath>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

void alertRow(Html& html, const Alert& alert, qint64 now)
{
    const auto row = html.element("tr");
    rowHead(html, alert.opened, "l");
    html.leaf("td", duration(static_cast<double>(alert.closedSeconds.value_or(now) - alert.openedSeconds)));
    {
        const auto kind = html.element("td", "t wide");
        html.foreign(alertName(alert.kind));
    }
    const auto message = html.element("td", "t");
    html.foreign(alert.message);
    if (!alert.closedSeconds) {
        html.text(u" ");
        html.leaf("span", u"open", "up");
    }
}

} // namespace

void alertHistory(Html& html, const HostFigures& figures)
{
    section(html, u"alerts"_s, u"Alert history"_s);
    const auto box = card(html);
    if (figures.alerts.isEmpty()) {
        nothing(html, u"No alerts in this period.");
        return;
    }
    {
        const auto scroll = scrolling(html, u"Alert history"_s);
        const auto table = html.element("table", "alerts");
        tableHead(html, {
                            {u"Opened"_s,  u"l"_s     },
                            {u"Lasted"_s,  u"n"_s     },
                            {u"Kind"_s,    u"t wide"_s},
                            {u"Message"_s, u"t"_s     }
        });
        const auto body = html.element("tbody");
        for (const Alert& alert :
             figures.alerts.first(std::min<qsizetype>(figures.alerts.size(), kListedAlerts)))
            alertRow(html, alert, figures.now.seconds);
    }
    if (figures.alerts.size() > kListedAlerts) {
        note(html, u"%1 older ones are not listed."_s.arg(count(figures.alerts.size() - kListedAlerts)));
    }
}

namespace {

QString growthOf(const std::optional<double>& now, const std::optional<double>& before)
{
    return now && before ? growth(*now - *before) : u"–"_s;
}

/// What is used, of how much, and how it has grown; below each other on a phone.
void useCells(Html& html, const std::optional<double>& used, double limit,
              const std::optional<double>& before)
{
    {
        const auto cell = html.element("td", "use");
        html.text(used ? bytes(*used) : u"–"_s);
        if (limit > 0 && used) {
            html.leaf("span", u" of "_s + bytes(limit), "dim");
            meter(html, *used / limit, percent(100 * *used / limit) + u" of the limit"_s);
        }
        if (used && before)
            html.leaf("div", growth(*used - *before), "narrow of-kind");
    }
    html.leaf("td", growthOf(used, before), "wide");
}

void accountRow(Html& html, const Account& account)
{
    const auto row = html.element("tr");
    {
        const auto name = rowHead(html, "l");
        html.foreign(account.domain);
        html.text(u" ");
        const auto user = html.element("span", "of-kind");
        html.foreign(account.username);
        if (account.readOnly)
            html.leaf("span", u" read-only", "up");
    }
    useCells(html, account.disk, account.diskLimit, account.diskBefore);
    useCells(html, account.database, account.databaseLimit, account.databaseBefore);
}

} // namespace

void accounts(Html& html, const HostFigures& figures)
{
    const Accounts& all = figures.accounts;
    section(html, u"accounts"_s, u"Accounts"_s);
    const auto box = card(html);
    if (all.listed.isEmpty()) {
        nothing(html, u"No hosting accounts.");
        return;
    }
    {
        const auto scroll = scrolling(html, u"Accounts by use"_s);
        const auto table = html.element("table");
        tableHead(html, {
                            {u"Account"_s,  u"l"_s     },
                            {u"Disk"_s,     u"n"_s     },
                            {u"Growth"_s,   u"n wide"_s},
                            {u"Database"_s, u"n"_s     },
                            {u"Growth"_s,   u"n wide"_s}
        });
        const auto body = html.element("tbody");
        for (const Account& account : all.listed)
            accountRow(html, account);
    }
    note(html,
         u"%1 accounts use %2 of disk and %3 of databases. Growth is since the first measurement of the "
         u"period. "
         u"Those that are nearest to a limit come first%4."_s.arg(
             count(all.count), bytes(all.disk), bytes(all.database),
             all.count > all.listed.size()
                 ? u"; %1 are not listed"_s.arg(count(all.count - all.listed.size()))
                 : QString()));
}

namespace {

void siteRow(Html& html, const SiteRow& site, qint64 most)
{
    const auto row = html.element("tr");
    {
        const auto name = rowHead(html, "l bars");
        bar(html, most > 0 ? static_cast<double>(site.visitors) / static_cast<double>(most) : 0);
        const auto link = html.element("a", {
                                                {"href", siteFileName(site.site.host)}
        });
        html.foreign(site.site.host);
    }
    {
        const auto trend = html.element("td");
        const auto least = std::minmax_element(site.trend.cbegin(), site.trend.cend());
        sparkline(html, site.trend,
                  site.trend.isEmpty() ? QString()
                                       : u"%1 to %2 a day"_s.arg(count(std::llround(*least.first)),
                                                                 count(std::llround(*least.second))));
    }
    html.leaf("td", count(site.visitors));
    html.leaf("td", change(static_cast<double>(site.visitors), static_cast<double>(site.visitorsBefore)),
              "wide");
    html.leaf("td", count(site.views), "wide");
    html.leaf("td", percent(100 * site.botShare), "wide");
}

void siteSums(Html& html, const Sites& sites)
{
    qint64 visitors = sites.visitors;
    qint64 views = sites.views;
    qint64 before = sites.visitorsBefore;
    for (const SiteRow& site : sites.listed) {
        visitors -= site.visitors;
        views -= site.views;
        before -= site.visitorsBefore;
    }
    const auto row = html.element("tr", "sum");
    rowHead(html, u"%1 other sites"_s.arg(count(sites.count - sites.listed.size())), "l bars");
    html.leaf("td", u"");
    html.leaf("td", count(visitors));
    html.leaf("td", change(static_cast<double>(visitors), static_cast<double>(before)), "wide");
    html.leaf("td", count(views), "wide");
    html.leaf("td", u"", "wide");
}

} // namespace

void sites(Html& html, const HostFigures& figures)
{
    const Sites& all = figures.sites;
    section(html, u"sites"_s, u"Sites"_s);
    const auto box = card(html);
    if (all.listed.isEmpty()) {
        nothing(html, u"No sites.");
        return;
    }
    {
        const auto scroll = scrolling(html, u"Sites by visitors"_s);
        const auto table = html.element("table", "sites");
        tableHead(html, {
                            {u"Site"_s,     u"l bars"_s},
                            {u"Trend"_s,    u"n"_s     },
                            {u"Visitors"_s, u"n"_s     },
                            {u"Change"_s,   u"n wide"_s},
                            {u"Views"_s,    u"n wide"_s},
                            {u"Bots"_s,     u"n wide"_s}
        });
        const auto body = html.element("tbody");
        for (const SiteRow& site : all.listed)
            siteRow(html, site, all.listed.first().visitors);
        if (all.count > all.listed.size())
            siteSums(html, all);
    }
    note(html,
         u"%1 visitors and %2 views in all. Change is against the %3 days before; bots is their share of the "
         u"requests."_s.arg(count(all.visitors), count(all.views), count(figures.period.days())));
}

} // namespace tarn::report
