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
    html.leaf("th", alert.opened,
              {
                  {"class", u"l"_s  },
                  {"scope", u"row"_s}
    });
    html.leaf("td", duration(static_cast<double>(alert.closedSeconds.value_or(now) - alert.openedSeconds)));
    {
        const auto kind = html.element("td", {
                                                 {"class", u"t wide"_s}
        });
        html.foreign(alertName(alert.kind));
    }
    const auto message = html.element("td", {
                                                {"class", u"t"_s}
    });
    html.foreign(alert.message);
    if (!alert.closedSeconds) {
        html.text(u" ");
        html.leaf("span", u"open",
                  {
                      {"class", u"up"_s}
        });
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
        const auto table = html.element("table", {
                                                     {"class", u"alerts"_s}
        });
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
        html.leaf("p", u"%1 older ones are not listed."_s.arg(count(figures.alerts.size() - kListedAlerts)),
                  {
                      {"class", u"note"_s}
        });
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
        const auto cell = html.element("td", {
                                                 {"class", u"use"_s}
        });
        html.text(used ? bytes(*used) : u"–"_s);
        if (limit > 0 && used) {
            html.leaf("span", u" of "_s + bytes(limit),
                      {
                          {"class", u"dim"_s}
            });
            meter(html, *used / limit, percent(100 * *used / limit) + u" of the limit"_s);
        }
        if (used && before)
            html.leaf("div", growth(*used - *before),
                      {
                          {"class", u"narrow of-kind"_s}
            });
    }
    html.leaf("td", growthOf(used, before),
              {
                  {"class", u"wide"_s}
    });
}

void accountRow(Html& html, const Account& account)
{
    const auto row = html.element("tr");
    {
        const auto name = html.element("th", {
                                                 {"class", u"l"_s  },
                                                 {"scope", u"row"_s}
        });
        html.foreign(account.domain);
        html.text(u" ");
        const auto user = html.element("span", {
                                                   {"class", u"of-kind"_s}
        });
        html.foreign(account.username);
        if (account.readOnly)
            html.leaf("span", u" read-only",
                      {
                          {"class", u"up"_s}
            });
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
    html.leaf("p",
              u"%1 accounts use %2 of disk and %3 of databases. Growth is since the first measurement of the "
              u"period. "
              u"Those that are nearest to a limit come first%4."_s.arg(
                  count(all.count), bytes(all.disk), bytes(all.database),
                  all.count > all.listed.size()
                      ? u"; %1 are not listed"_s.arg(count(all.count - all.listed.size()))
                      : QString()),
              {
                  {"class", u"note"_s}
    });
}

namespace {

void siteRow(Html& html, const SiteRow& site, qint64 most)
{
    const auto row = html.element("tr");
    {
        const auto name = html.element("th", {
                                                 {"class", u"l bars"_s},
                                                 {"scope", u"row"_s   }
        });
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
              {
                  {"class", u"wide"_s}
    });
    html.leaf("td", count(site.views),
              {
                  {"class", u"wide"_s}
    });
    html.leaf("td", percent(100 * site.botShare),
              {
                  {"class", u"wide"_s}
    });
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
    const auto row = html.element("tr", {
                                            {"class", u"sum"_s}
    });
    html.leaf("th", u"%1 other sites"_s.arg(count(sites.count - sites.listed.size())),
              {
                  {"class", u"l bars"_s},
                  {"scope", u"row"_s   }
    });
    html.leaf("td", u"");
    html.leaf("td", count(visitors));
    html.leaf("td", change(static_cast<double>(visitors), static_cast<double>(before)),
              {
                  {"class", u"wide"_s}
    });
    html.leaf("td", count(views),
              {
                  {"class", u"wide"_s}
    });
    html.leaf("td", u"",
              {
                  {"class", u"wide"_s}
    });
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
        const auto table = html.element("table", {
                                                     {"class", u"sites"_s}
        });
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
    html.leaf(
        "p",
        u"%1 visitors and %2 views in all. Change is against the %3 days before; bots is their share of the "
        u"requests."_s.arg(count(all.visitors), count(all.views), count(figures.period.days())),
        {
            {"class", u"note"_s}
    });
}

} // namespace tarn::report
