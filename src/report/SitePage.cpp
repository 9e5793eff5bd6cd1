#include "report/SitePage.h"

#include "report/Page.h"
#include "report/SiteDays.h"
#include "report/SiteRankings.h"
#include "report/SiteSearch.h"
#include "report/SiteWeek.h"

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

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
                "card");
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
    return page(frame, [&figures, &now](Html& html) {
        tiles(html, figures, now);
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
