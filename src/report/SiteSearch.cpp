#include "report/SiteSearch.h"

#include "report/Format.h"
#include "report/Page.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

void searchRow(Html& html, const SearchTerm& term, qint64 mostClicks)
{
    const auto row = html.element("tr");
    {
        const auto cell = rowHead(html, "l bars");
        bar(html, static_cast<double>(term.clicks) / static_cast<double>(mostClicks));
        html.foreign(term.term);
    }
    html.leaf("td", count(term.views));
    html.leaf("td", count(term.clicks));
    html.leaf("td", count(term.impressions), "wide");
    html.leaf("td", term.position ? decimal(*term.position, 1) : u"–"_s);
}

void searchTerms(Html& html, const SiteFigures& figures)
{
    const auto box = card(html);
    html.leaf("h3", u"Search terms");
    if (figures.searchTerms.isEmpty()) {
        nothing(html, figures.searchConnected
                          ? u"None in this period."
                          : u"None. The site has no property at a search engine, and hardly any "
                            u"engine tells the terms with a visit.");
        return;
    }
    const auto table = html.element("table");
    tableHead(html, {
                        {u"Term"_s,     u"l bars"_s},
                        {u"Views"_s,    u"n"_s     },
                        {u"Clicks"_s,   u"n"_s     },
                        {u"Shown"_s,    u"n wide"_s},
                        {u"Position"_s, u"n"_s     }
    });
    const auto body = html.element("tbody");
    const qint64 most = std::max<qint64>(figures.searchTerms.first().clicks, 1);
    for (const SearchTerm& term : figures.searchTerms)
        searchRow(html, term, most);
}

} // namespace

void search(Html& html, const SiteFigures& figures)
{
    section(html, u"search"_s, u"Search"_s);
    searchTerms(html, figures);
    note(html,
         u"Views: visits that told what was searched for. Clicks, how often the site was shown and its mean "
         u"position are Google Search Console's, which counts days in Pacific time and is some two days "
         u"behind.");
}

} // namespace tarn::report
