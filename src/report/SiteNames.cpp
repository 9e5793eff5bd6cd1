#include "report/SiteNames.h"

#include <QLocale>
#include <QMap>

#include <algorithm>
#include <array>
#include <string_view>

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

} // namespace

bool isAiCrawler(const QString& name)
{
    return std::find(kAiCrawlers.begin(), kAiCrawlers.end(), name) != kAiCrawlers.end();
}

QString sourceKindName(const QString& kind)
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

QString sourceKindBehind(const QString& kind)
{
    static const QMap<QString, QString> names = {
        {u"ai"_s,       u"AI assistant"_s},
        {u"email"_s,    u"e-mail"_s      },
        {u"referral"_s, u"other site"_s  },
        {u"social"_s,   u"social media"_s},
    };
    return names.value(kind, kind);
}

QString countryName(const QString& code)
{
    const QLocale::Territory territory = QLocale::codeToTerritory(code);
    return territory == QLocale::AnyTerritory ? code : QLocale::territoryToString(territory);
}

QString deviceName(const QString& device)
{
    return device.isEmpty() ? device : device.first(1).toUpper() + device.sliced(1);
}

QString statusName(const QString& status)
{
    const auto found = std::find_if(kReasons.begin(), kReasons.end(),
                                    [&status](const Reason& reason) { return reason.status == status; });
    return found == kReasons.end() ? status : status + u' ' + found->text.toString();
}

} // namespace tarn::report
