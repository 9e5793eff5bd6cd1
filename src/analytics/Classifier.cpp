#include "analytics/Classifier.h"

#include "analytics/UrlText.h"

#include <QRegularExpression>
#include <QStringList>

#include <algorithm>
#include <array>
#include <string_view>

using namespace Qt::Literals::StringLiterals;

namespace tarn::analytics {

namespace {

/// A known crawler: the lower-case text that its user agent contains, and the name that is shown.
struct Bot
{
    std::string_view token;
    std::string_view name;
};

/// The first row that matches wins.
constexpr auto kBots = std::to_array<Bot>({
    {"googlebot",             "Googlebot"             },
    {"google-inspectiontool", "Google Inspection Tool"},
    {"storebot-google",       "Google StoreBot"       },
    {"googleother",           "GoogleOther"           },
    {"adsbot-google",         "Google AdsBot"         },
    {"google-read-aloud",     "Google Read Aloud"     },
    {"bingbot",               "Bingbot"               },
    {"bingpreview",           "Bing Preview"          },
    {"applebot",              "Applebot"              },
    {"duckduckbot",           "DuckDuckBot"           },
    {"yandex",                "YandexBot"             },
    {"baiduspider",           "Baiduspider"           },
    {"petalbot",              "PetalBot"              },
    {"seznambot",             "SeznamBot"             },
    {"gptbot",                "GPTBot (OpenAI)"       },
    {"oai-searchbot",         "OAI-SearchBot (OpenAI)"},
    {"chatgpt-user",          "ChatGPT-User"          },
    {"claudebot",             "ClaudeBot"             },
    {"claude-user",           "Claude-User"           },
    {"perplexitybot",         "PerplexityBot"         },
    {"ccbot",                 "CCBot (Common Crawl)"  },
    {"bytespider",            "Bytespider (ByteDance)"},
    {"amazonbot",             "Amazonbot"             },
    {"meta-externalagent",    "Meta crawler"          },
    {"facebookexternalhit",   "Facebook link preview" },
    {"ahrefsbot",             "AhrefsBot"             },
    {"semrushbot",            "SemrushBot"            },
    {"mj12bot",               "MJ12bot"               },
    {"dotbot",                "DotBot"                },
    {"dataforseobot",         "DataForSeoBot"         },
    {"barkrowler",            "Barkrowler"            },
    {"blexbot",               "BLEXBot"               },
    {"twitterbot",            "Twitterbot"            },
    {"linkedinbot",           "LinkedInBot"           },
    {"slackbot",              "Slackbot"              },
    {"discordbot",            "Discordbot"            },
    {"whatsapp",              "WhatsApp preview"      },
    {"telegrambot",           "TelegramBot"           },
    {"uptimerobot",           "UptimeRobot"           },
    {"pingdom",               "Pingdom"               },
    {"wordpress",             "WordPress"             },
    {"curl/",                 "curl"                  },
    {"wget/",                 "Wget"                  },
    {"python-requests",       "Python"                },
    {"python-urllib",         "Python"                },
    {"aiohttp",               "Python"                },
    {"go-http-client",        "Go client"             },
    {"okhttp",                "OkHttp"                },
    {"java/",                 "Java client"           },
    {"libwww-perl",           "Perl"                  },
    {"headlesschrome",        "Headless Chrome"       },
});

/// A referring service: @p domain is matched with all its subdomains.
struct Known
{
    std::string_view domain;
    std::string_view kind;
    std::string_view name;
    std::string_view queryParam; ///< the query item that holds the search terms; empty if there is none
};

/// The first row that matches wins. Google's and Yandex's search hosts exist for so many countries that they
/// are matched by expressions of their own.
constexpr auto kKnown = std::to_array<Known>({
    {"gemini.google.com",     "ai",     "Gemini",      ""     },
    {"mail.google.com",       "email",  "Gmail",       ""     },
    {"chatgpt.com",           "ai",     "ChatGPT",     ""     },
    {"chat.openai.com",       "ai",     "ChatGPT",     ""     },
    {"perplexity.ai",         "ai",     "Perplexity",  ""     },
    {"claude.ai",             "ai",     "Claude",      ""     },
    {"copilot.microsoft.com", "ai",     "Copilot",     ""     },
    {"bing.com",              "search", "Bing",        "q"    },
    {"duckduckgo.com",        "search", "DuckDuckGo",  "q"    },
    {"search.yahoo.com",      "search", "Yahoo",       "p"    },
    {"search.brave.com",      "search", "Brave",       "q"    },
    {"ecosia.org",            "search", "Ecosia",      "q"    },
    {"startpage.com",         "search", "Startpage",   "query"},
    {"qwant.com",             "search", "Qwant",       "q"    },
    {"baidu.com",             "search", "Baidu",       "wd"   },
    {"naver.com",             "search", "Naver",       "query"},
    {"seznam.cz",             "search", "Seznam",      "q"    },
    {"ask.com",               "search", "Ask",         "q"    },
    {"search.aol.com",        "search", "AOL",         "q"    },
    {"facebook.com",          "social", "Facebook",    ""     },
    {"fb.com",                "social", "Facebook",    ""     },
    {"instagram.com",         "social", "Instagram",   ""     },
    {"t.co",                  "social", "X (Twitter)", ""     },
    {"twitter.com",           "social", "X (Twitter)", ""     },
    {"x.com",                 "social", "X (Twitter)", ""     },
    {"linkedin.com",          "social", "LinkedIn",    ""     },
    {"lnkd.in",               "social", "LinkedIn",    ""     },
    {"reddit.com",            "social", "Reddit",      ""     },
    {"pinterest.com",         "social", "Pinterest",   ""     },
    {"youtube.com",           "social", "YouTube",     ""     },
    {"tiktok.com",            "social", "TikTok",      ""     },
    {"threads.com",           "social", "Threads",     ""     },
    {"bsky.app",              "social", "Bluesky",     ""     },
    {"outlook.live.com",      "email",  "Outlook",     ""     },
    {"mail.yahoo.com",        "email",  "Yahoo Mail",  ""     },
});

constexpr bool isLowerCase(std::string_view text)
{
    return !text.empty()
           && std::none_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

constexpr bool isDomainOrSubdomain(std::string_view host, std::string_view domain)
{
    if (!host.ends_with(domain))
        return false;
    return host.size() == domain.size() || host[host.size() - domain.size() - 1] == '.';
}

/// True when every row can be reached: no row before it matches all that it matches.
consteval bool everyBotIsReachable()
{
    for (std::size_t row = 1; row < kBots.size(); ++row) {
        for (std::size_t earlier = 0; earlier < row; ++earlier) {
            if (kBots[row].token.find(kBots[earlier].token) != std::string_view::npos)
                return false;
        }
    }
    return true;
}

consteval bool everyServiceIsReachable()
{
    for (std::size_t row = 1; row < kKnown.size(); ++row) {
        for (std::size_t earlier = 0; earlier < row; ++earlier) {
            if (isDomainOrSubdomain(kKnown[row].domain, kKnown[earlier].domain))
                return false;
        }
    }
    return true;
}

static_assert(std::all_of(kBots.begin(), kBots.end(), [](const Bot& bot) { return isLowerCase(bot.token); }));
static_assert(std::all_of(kKnown.begin(), kKnown.end(), [](const Known& known) {
    return isLowerCase(known.domain) && isLowerCase(known.kind) && !known.name.empty();
}));
static_assert(everyBotIsReachable() && everyServiceIsReachable());

QString text(std::string_view latin1)
{
    return QString::fromLatin1(latin1.data(), static_cast<qsizetype>(latin1.size()));
}

/// In lower case as far as ASCII tokens can tell: besides the capitals, the Kelvin sign is one of its
/// letters. Qt's toLower() takes quadratic time where a letter becomes two.
QByteArray asciiLower(QByteArrayView text)
{
    QByteArray lower = text.toByteArray();
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c | 0x20);
    }
    return lower.replace("\xe2\x84\xaa", "k");
}

/// @p userAgent is @p sent, read as UTF-8.
QString findBot(QByteArrayView sent, const QString& userAgent)
{
    if (userAgent.isEmpty())
        return u"No user agent"_s;
    // The tokens are ASCII. A search for their bytes in UTF-8 finds the same as a search for their
    // characters.
    const QByteArray lower = asciiLower(sent);
    const std::string_view haystack(lower.constData(), static_cast<std::size_t>(lower.size()));
    for (const Bot& bot : kBots) {
        if (haystack.find(bot.token) != std::string_view::npos)
            return text(bot.name);
    }
    static const QRegularExpression crawler(u"bot\\b|crawl|spider|slurp|scrapy|scanner|fetcher|preview"_s,
                                            QRegularExpression::CaseInsensitiveOption);
    return crawler.match(userAgent).hasMatch() ? u"Other crawler"_s : QString();
}

QString findDevice(const QString& userAgent)
{
    if (userAgent.contains("iPad"_L1) || userAgent.contains("Tablet"_L1))
        return u"tablet"_s;
    if (userAgent.contains("Android"_L1) && !userAgent.contains("Mobile"_L1))
        return u"tablet"_s;
    if (userAgent.contains("Mobi"_L1) || userAgent.contains("iPhone"_L1))
        return u"mobile"_s;
    return u"desktop"_s;
}

/// The order decides: most browsers also name the browsers that they imitate.
QString findBrowser(const QString& userAgent)
{
    const auto has = [&userAgent](QLatin1StringView part) { return userAgent.contains(part); };
    if (has("Edg/"_L1) || has("EdgA/"_L1) || has("EdgiOS/"_L1))
        return u"Edge"_s;
    if (has("OPR/"_L1) || has("Opera"_L1))
        return u"Opera"_s;
    if (has("SamsungBrowser"_L1))
        return u"Samsung Internet"_s;
    if (has("Firefox/"_L1) || has("FxiOS/"_L1))
        return u"Firefox"_s;
    if (has("Chrome/"_L1) || has("CriOS/"_L1))
        return u"Chrome"_s;
    if (has("Safari/"_L1) && has("Version/"_L1))
        return u"Safari"_s;
    return u"Other"_s;
}

QString findSystem(const QString& userAgent)
{
    const auto has = [&userAgent](QLatin1StringView part) { return userAgent.contains(part); };
    if (has("Windows"_L1))
        return u"Windows"_s;
    if (has("iPhone"_L1) || has("iPad"_L1) || has("iPod"_L1))
        return u"iOS"_s; // before macOS: these agents say "like Mac OS X"
    if (has("Mac OS X"_L1) || has("Macintosh"_L1))
        return u"macOS"_s;
    if (has("Android"_L1))
        return u"Android"_s; // before Linux: these agents name both
    if (has("CrOS"_L1))
        return u"ChromeOS"_s;
    if (has("Linux"_L1))
        return u"Linux"_s;
    return u"Other"_s;
}

QString stripWww(const QString& host)
{
    return host.startsWith("www."_L1) ? host.sliced(4) : host;
}

/// The value of a query item with all of its percent-encoding resolved.
QString queryValue(QByteArrayView query, QByteArrayView key)
{
    return percentDecoded(queryItem(query, key));
}

/// The source that the campaign parameters of the requested page name. Its kind is empty without them.
Source campaignOf(QByteArrayView target)
{
    const qsizetype mark = target.indexOf('?');
    if (mark < 0)
        return {};
    const QByteArrayView query = target.sliced(mark + 1);
    const QString name = queryValue(query, "utm_source");
    if (name.isEmpty())
        return {};
    return {u"campaign"_s, name.left(100), queryValue(query, "utm_campaign").left(200)};
}

/// Android apps name themselves by their package id: "android-app://com.google.android.gm/".
Source androidAppSource(const QString& package)
{
    if (package == "com.google.android.googlequicksearchbox"_L1)
        return {u"search"_s, u"Google"_s, {}};
    if (package == "com.google.android.gm"_L1)
        return {u"email"_s, u"Gmail"_s, {}};
    if (package.startsWith("com.facebook"_L1))
        return {u"social"_s, u"Facebook"_s, {}};
    if (package == "com.linkedin.android"_L1)
        return {u"social"_s, u"LinkedIn"_s, {}};
    return {u"referral"_s, package, {}};
}

/// @p host is the referrer's, in lower case.
bool isInternal(const QString& host, const QString& siteHost)
{
    const QString site = stripWww(siteHost);
    const QString referring = stripWww(host);
    // The last test takes the site's name under another top-level domain for the site. A stranger's host that
    // begins with that name is taken for it as well.
    return referring == site || referring.endsWith(u'.' + site) || referring.startsWith(site + u'.');
}

/// A search engine or another known service; the kind is empty when @p host is none of them.
Source serviceSource(const QString& host, QByteArrayView query)
{
    static const QRegularExpression google(u"\\A(?:www\\.)?google\\.[a-z.]+\\z"_s);
    static const QRegularExpression yandex(u"\\A(?:www\\.)?yandex\\.[a-z.]+\\z"_s);
    if (google.match(host).hasMatch())
        return {u"search"_s, u"Google"_s, queryValue(query, "q")};
    if (yandex.match(host).hasMatch())
        return {u"search"_s, u"Yandex"_s, queryValue(query, "text")};

    const QByteArray hostBytes = host.toUtf8();
    for (const Known& known : kKnown) {
        if (!isDomainOrSubdomain({hostBytes.constData(), static_cast<std::size_t>(hostBytes.size())},
                                 known.domain))
            continue;
        QString terms;
        if (!known.queryParam.empty())
            terms = queryValue(query, QByteArrayView(known.queryParam)).left(200);
        return {text(known.kind), text(known.name), terms};
    }
    return {};
}

} // namespace

Client classifyClient(QByteArrayView userAgent)
{
    const QString agent = QString::fromUtf8(userAgent);
    return {findBot(userAgent, agent), findDevice(agent), findBrowser(agent), findSystem(agent)};
}

Source classifySource(QByteArrayView referrer, QByteArrayView target, const QString& host)
{
    if (Source campaign = campaignOf(target); !campaign.kind.isEmpty())
        return campaign;
    if (referrer.isEmpty())
        return {u"direct"_s, {}, {}};

    const UrlParts url = splitUrl(referrer);
    const QString referringHost = hostName(url.host);
    if (url.scheme.compare("android-app", Qt::CaseInsensitive) == 0)
        return androidAppSource(referringHost);
    if (referringHost.isEmpty())
        return {u"direct"_s, {}, {}};
    if (isInternal(referringHost, host))
        return {u"internal"_s, {}, {}};
    if (Source service = serviceSource(referringHost, url.query); !service.kind.isEmpty())
        return service;
    return {u"referral"_s, stripWww(referringHost), {}};
}

bool isPage(QByteArrayView method, const QString& path)
{
    static const QStringList kNotPages = {
        u"/wp-admin/"_s,    u"/wp-content/"_s, u"/wp-includes/"_s, u"/wp-json/"_s,
        u"/wp-login.php"_s, u"/xmlrpc.php"_s,  u"/wp-cron.php"_s,  u"/static/"_s,
        u"/api/"_s,         u"/feed"_s,        u"/.well-known/"_s, u"/cgi-bin/"_s,
    };

    if (method != "GET" && method != "HEAD")
        return false;
    if (std::any_of(kNotPages.begin(), kNotPages.end(),
                    [&path](const QString& prefix) { return path.startsWith(prefix); }))
        return false;
    if (path.endsWith("/feed/"_L1))
        return false;
    const qsizetype dot = path.lastIndexOf(u'.');
    if (dot <= path.lastIndexOf(u'/'))
        return true;
    const QStringView extension = QStringView(path).sliced(dot + 1);
    const auto is = [extension](QLatin1StringView wanted) {
        return extension.compare(wanted, Qt::CaseInsensitive) == 0;
    };
    return is("html"_L1) || is("htm"_L1) || is("php"_L1);
}

} // namespace tarn::analytics
