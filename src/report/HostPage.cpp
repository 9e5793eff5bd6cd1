#include "report/HostPage.h"

#include "report/HostAttention.h"
#include "report/HostCharts.h"
#include "report/HostTables.h"
#include "report/Page.h"

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

QByteArray hostPage(const HostFigures& figures)
{
    Frame frame{figures.name, figures.now, figures.period, false, {}, {}};
    frame.sections = {
        {u"attention"_s, u"Attention"_s},
        {u"health"_s,    u"Health"_s   },
        {u"alerts"_s,    u"Alerts"_s   },
        {u"accounts"_s,  u"Accounts"_s },
        {u"sites"_s,     u"Sites"_s    },
    };
    if (isLong(figures))
        frame.sections.insert(2, {u"year"_s, u"Long run"_s});
    if (!figures.searchAt.isEmpty()) {
        frame.intro = u"Search figures: %1, %2"_s.arg(figures.searchAt,
                                                      shortened(figures.searchResult, kShownCharacters));
    }
    return page(frame, [&figures](Html& html) {
        attention(html, figures);
        curves(html, figures);
        if (isLong(figures))
            longCurves(html, figures);
        alertHistory(html, figures);
        accounts(html, figures);
        sites(html, figures);
    });
}

} // namespace tarn::report
