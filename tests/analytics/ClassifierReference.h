// The rules of the classifiers once more, written down one by one in the plainest way, with tables of their
// own and without expressions. Slow. The product must agree with it on whatever can be sent.
#pragma once

#include "analytics/Classifier.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>

namespace tarn::analytics::reference {

using namespace Qt::Literals::StringLiterals;

struct NamedToken
{
    QString token;
    QString name;
};

inline const QList<NamedToken>& bots()
{
    static const QList<NamedToken> rows = {
        {u"googlebot"_s,             u"Googlebot"_s             },
        {u"google-inspectiontool"_s, u"Google Inspection Tool"_s},
        {u"storebot-google"_s,       u"Google StoreBot"_s       },
        {u"googleother"_s,           u"GoogleOther"_s           },
        {u"adsbot-google"_s,         u"Google AdsBot"_s         },
        {u"google-read-aloud"_s,     u"Google Read Aloud"_s     },
        {u"bingbot"_s,               u"Bingbot"_s               },
        {u"bingpreview"_s,           u"Bing Preview"_s          },
        {u"applebot"_s,              u"Applebot"_s              },
        {u"duckduckbot"_s,           u"DuckDuckBot"_s           },
        {u"yandex"_s,                u"YandexBot"_s             },
        {u"baiduspider"_s,           u"Baiduspider"_s           },
        {u"petalbot"_s,              u"PetalBot"_s              },
        {u"seznambot"_s,             u"SeznamBot"_s             },
        {u"gptbot"_s,                u"GPTBot (OpenAI)"_s       },
        {u"oai-searchbot"_s,         u"OAI-SearchBot (OpenAI)"_s},
        {u"chatgpt-user"_s,          u"ChatGPT-User"_s          },
        {u"claudebot"_s,             u"ClaudeBot"_s             },
        {u"claude-user"_s,           u"Claude-User"_s           },
        {u"perplexitybot"_s,         u"PerplexityBot"_s         },
        {u"ccbot"_s,                 u"CCBot (Common Crawl)"_s  },
        {u"bytespider"_s,            u"Bytespider (ByteDance)"_s},
        {u"amazonbot"_s,             u"Amazonbot"_s             },
        {u"meta-externalagent"_s,    u"Meta crawler"_s          },
        {u"facebookexternalhit"_s,   u"Facebook link preview"_s },
        {u"ahrefsbot"_s,             u"AhrefsBot"_s             },
        {u"semrushbot"_s,            u"SemrushBot"_s            },
        {u"mj12bot"_s,               u"MJ12bot"_s               },
        {u"dotbot"_s,                u"DotBot"_s                },
        {u"dataforseobot"_s,         u"DataForSeoBot"_s         },
        {u"barkrowler"_s,            u"Barkrowler"_s            },
        {u"blexbot"_s,               u"BLEXBot"_s               },
        {u"twitterbot"_s,            u"Twitterbot"_s            },
        {u"linkedinbot"_s,           u"LinkedInBot"_s           },
        {u"slackbot"_s,              u"Slackbot"_s              },
        {u"discordbot"_s,            u"Discordbot"_s            },
        {u"whatsapp"_s,              u"WhatsApp preview"_s      },
        {u"telegrambot"_s,           u"TelegramBot"_s           },
        {u"uptimerobot"_s,           u"UptimeRobot"_s           },
        {u"pingdom"_s,               u"Pingdom"_s               },
        {u"wordpress"_s,             u"WordPress"_s             },
        {u"curl/"_s,                 u"curl"_s                  },
        {u"wget/"_s,                 u"Wget"_s                  },
        {u"python-requests"_s,       u"Python"_s                },
        {u"python-urllib"_s,         u"Python"_s                },
        {u"aiohttp"_s,               u"Python"_s                },
        {u"go-http-client"_s,        u"Go client"_s             },
        {u"okhttp"_s,                u"OkHttp"_s                },
        {u"java/"_s,                 u"Java client"_s           },
        {u"libwww-perl"_s,           u"Perl"_s                  },
        {u"headlesschrome"_s,        u"Headless Chrome"_s       },
    };
    return rows;
}

struct Service
{
    QString domain;
    QString kind;
    QString name;
    QString termsKey; ///< the query item with the search terms, if any
};

inline const QList<Service>& services()
{
    static const QList<Service> rows = {
        {u"gemini.google.com"_s,     u"ai"_s,     u"Gemini"_s,      {}        },
        {u"mail.google.com"_s,       u"email"_s,  u"Gmail"_s,       {}        },
        {u"chatgpt.com"_s,           u"ai"_s,     u"ChatGPT"_s,     {}        },
        {u"chat.openai.com"_s,       u"ai"_s,     u"ChatGPT"_s,     {}        },
        {u"perplexity.ai"_s,         u"ai"_s,     u"Perplexity"_s,  {}        },
        {u"claude.ai"_s,             u"ai"_s,     u"Claude"_s,      {}        },
        {u"copilot.microsoft.com"_s, u"ai"_s,     u"Copilot"_s,     {}        },
        {u"bing.com"_s,              u"search"_s, u"Bing"_s,        u"q"_s    },
        {u"duckduckgo.com"_s,        u"search"_s, u"DuckDuckGo"_s,  u"q"_s    },
        {u"search.yahoo.com"_s,      u"search"_s, u"Yahoo"_s,       u"p"_s    },
        {u"search.brave.com"_s,      u"search"_s, u"Brave"_s,       u"q"_s    },
        {u"ecosia.org"_s,            u"search"_s, u"Ecosia"_s,      u"q"_s    },
        {u"startpage.com"_s,         u"search"_s, u"Startpage"_s,   u"query"_s},
        {u"qwant.com"_s,             u"search"_s, u"Qwant"_s,       u"q"_s    },
        {u"baidu.com"_s,             u"search"_s, u"Baidu"_s,       u"wd"_s   },
        {u"naver.com"_s,             u"search"_s, u"Naver"_s,       u"query"_s},
        {u"seznam.cz"_s,             u"search"_s, u"Seznam"_s,      u"q"_s    },
        {u"ask.com"_s,               u"search"_s, u"Ask"_s,         u"q"_s    },
        {u"search.aol.com"_s,        u"search"_s, u"AOL"_s,         u"q"_s    },
        {u"facebook.com"_s,          u"social"_s, u"Facebook"_s,    {}        },
        {u"fb.com"_s,                u"social"_s, u"Facebook"_s,    {}        },
        {u"instagram.com"_s,         u"social"_s, u"Instagram"_s,   {}        },
        {u"t.co"_s,                  u"social"_s, u"X (Twitter)"_s, {}        },
        {u"twitter.com"_s,           u"social"_s, u"X (Twitter)"_s, {}        },
        {u"x.com"_s,                 u"social"_s, u"X (Twitter)"_s, {}        },
        {u"linkedin.com"_s,          u"social"_s, u"LinkedIn"_s,    {}        },
        {u"lnkd.in"_s,               u"social"_s, u"LinkedIn"_s,    {}        },
        {u"reddit.com"_s,            u"social"_s, u"Reddit"_s,      {}        },
        {u"pinterest.com"_s,         u"social"_s, u"Pinterest"_s,   {}        },
        {u"youtube.com"_s,           u"social"_s, u"YouTube"_s,     {}        },
        {u"tiktok.com"_s,            u"social"_s, u"TikTok"_s,      {}        },
        {u"threads.com"_s,           u"social"_s, u"Threads"_s,     {}        },
        {u"bsky.app"_s,              u"social"_s, u"Bluesky"_s,     {}        },
        {u"outlook.live.com"_s,      u"email"_s,  u"Outlook"_s,     {}        },
        {u"mail.yahoo.com"_s,        u"email"_s,  u"Yahoo Mail"_s,  {}        },
    };
    return rows;
}

/// Lower case as a caseless expression sees it: besides the capitals, the long s and the Kelvin sign are
/// ASCII letters.
inline QString foldedForExpression(QString text)
{
    for (QChar& c : text) {
        if (c >= u'A' && c <= u'Z') {
            c = QChar(c.unicode() + ('a' - 'A'));
        } else if (c == QChar(0x17f)) {
            c = u's';
        } else if (c == QChar(0x212a)) {
            c = u'k';
        }
    }
    return text;
}

inline bool hasTellingWord(const QString& agent)
{
    const QString folded = foldedForExpression(agent);
    for (const char* word : {"crawl", "spider", "slurp", "scrapy", "scanner", "fetcher", "preview"}) {
        if (folded.contains(QLatin1StringView(word)))
            return true;
    }
    for (qsizetype at = folded.indexOf(u"bot"_s); at >= 0; at = folded.indexOf(u"bot"_s, at + 1)) {
        // What follows in the text as it was sent: for the end of a word only ASCII letters are letters.
        const QChar next = at + 3 < agent.size() ? agent[at + 3] : QChar(u' ');
        if (!u"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_"_s.contains(next))
            return true;
    }
    return false;
}

inline QString firstNamed(const QString& agent, const QList<NamedToken>& rows, const QString& otherwise)
{
    for (const NamedToken& row : rows) {
        if (agent.contains(row.token))
            return row.name;
    }
    return otherwise;
}

inline Client classifyClient(QByteArrayView userAgent)
{
    const QString agent = QString::fromUtf8(userAgent);
    Client client;
    if (agent.isEmpty()) {
        client.bot = u"No user agent"_s;
    } else {
        const QString otherwise = hasTellingWord(agent) ? u"Other crawler"_s : QString();
        client.bot = firstNamed(agent.toLower(), bots(), otherwise);
    }

    client.device = u"desktop"_s;
    if (agent.contains(u"Mobi"_s) || agent.contains(u"iPhone"_s))
        client.device = u"mobile"_s;
    if (agent.contains(u"Android"_s) && !agent.contains(u"Mobile"_s))
        client.device = u"tablet"_s;
    if (agent.contains(u"iPad"_s) || agent.contains(u"Tablet"_s))
        client.device = u"tablet"_s;

    static const QList<NamedToken> browsers = {
        {u"Edg/"_s,           u"Edge"_s            },
        {u"EdgA/"_s,          u"Edge"_s            },
        {u"EdgiOS/"_s,        u"Edge"_s            },
        {u"OPR/"_s,           u"Opera"_s           },
        {u"Opera"_s,          u"Opera"_s           },
        {u"SamsungBrowser"_s, u"Samsung Internet"_s},
        {u"Firefox/"_s,       u"Firefox"_s         },
        {u"FxiOS/"_s,         u"Firefox"_s         },
        {u"Chrome/"_s,        u"Chrome"_s          },
        {u"CriOS/"_s,         u"Chrome"_s          },
    };
    const bool isSafari = agent.contains(u"Safari/"_s) && agent.contains(u"Version/"_s);
    client.browser = firstNamed(agent, browsers, isSafari ? u"Safari"_s : u"Other"_s);

    static const QList<NamedToken> systems = {
        {u"Windows"_s,   u"Windows"_s },
        {u"iPhone"_s,    u"iOS"_s     },
        {u"iPad"_s,      u"iOS"_s     },
        {u"iPod"_s,      u"iOS"_s     },
        {u"Mac OS X"_s,  u"macOS"_s   },
        {u"Macintosh"_s, u"macOS"_s   },
        {u"Android"_s,   u"Android"_s },
        {u"CrOS"_s,      u"ChromeOS"_s},
        {u"Linux"_s,     u"Linux"_s   },
    };
    client.os = firstNamed(agent, systems, u"Other"_s);
    return client;
}

inline QString withoutWww(const QString& host)
{
    return host.left(4) == "www."_L1 ? host.mid(4) : host;
}

/// Whether @p host is @p domain or within it, label by label from the right.
inline bool isWithin(const QString& host, const QString& domain)
{
    const QStringList labels = host.split(u'.');
    const QStringList wanted = domain.split(u'.');
    return labels.size() >= wanted.size() && labels.mid(labels.size() - wanted.size()) == wanted;
}

/// Whether @p host is @p label and then only letters from a to z and dots, at least one.
inline bool isCountryDomain(const QString& host, const QString& label)
{
    const QString name = withoutWww(host);
    if (!name.startsWith(label + u'.') || name.size() == label.size() + 1)
        return false;
    for (const QChar c : name.mid(label.size() + 1)) {
        if (c != u'.' && (c < u'a' || c > u'z'))
            return false;
    }
    return true;
}

inline Source appSource(const QString& package)
{
    if (package == "com.google.android.googlequicksearchbox"_L1)
        return {u"search"_s, u"Google"_s, {}};
    if (package == "com.google.android.gm"_L1)
        return {u"email"_s, u"Gmail"_s, {}};
    if (package.startsWith(u"com.facebook"_s))
        return {u"social"_s, u"Facebook"_s, {}};
    if (package == "com.linkedin.android"_L1)
        return {u"social"_s, u"LinkedIn"_s, {}};
    return {u"referral"_s, package, {}};
}

/// The text in front of the first @p mark, and what is behind it.
inline QList<QByteArray> cutAt(const QByteArray& text, char mark)
{
    const qsizetype at = text.indexOf(mark);
    return at < 0 ? QList<QByteArray>{text, {}} : QList<QByteArray>{text.left(at), text.mid(at + 1)};
}

/// Each percent sign with two hexadecimal digits is a byte.
inline QByteArray unescaped(const QByteArray& text)
{
    const auto isHex = [](const QByteArray& digits) {
        return digits.size() == 2 && QByteArray::fromHex(digits).toHex() == digits.toLower();
    };
    QByteArray result;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QByteArray digits = text.mid(i + 1, 2);
        if (text[i] == '%' && isHex(digits)) {
            result += QByteArray::fromHex(digits);
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}

inline QString queryValue(const QByteArray& query, const QByteArray& name)
{
    for (const QByteArray& item : query.split('&')) {
        const QList<QByteArray> sides = cutAt(item, '=');
        if (unescaped(sides[0]) == name)
            return QString::fromUtf8(unescaped(sides[1]));
    }
    return {};
}

/// Whether the text between "//" and the next "/" is one that no name can be: a label of more than 63
/// characters, or more than eight marks in a row.
inline bool hasNoName(const QByteArray& url)
{
    QByteArray host = cutAt(cutAt(url.mid(url.indexOf("//") + 2), '?')[0], '#')[0];
    host = cutAt(host, '/')[0];
    host = host.mid(host.indexOf('@') + 1);
    int inLabel = 0;
    int marks = 0;
    for (const uint c : QString::fromUtf8(unescaped(host.left(host.lastIndexOf(':')))).toUcs4()) {
        inLabel = c == '.' || c == 0x3002 || c == 0xff0e || c == 0xff61 ? 0 : inLabel + 1;
        marks = QChar::combiningClass(c) != 0 ? marks + 1 : 0;
        if (inLabel > 63 || marks > 8)
            return true;
    }
    return false;
}

/// The name of the host of @p url, as @p sent, in Unicode and lower case.
inline QString hostOf(const QByteArray& sent, const QUrl& url)
{
    if (hasNoName(sent))
        return {};
    const QString host = url.host(QUrl::FullyDecoded);
    const QString name = QUrl::fromAce(QUrl::toAce(host), QUrl::IgnoreIDNWhitelist);
    const QString shown = name.isEmpty() || host.contains(u':') ? host : name;
    QString ascii = QString::fromLatin1(QUrl::toAce(shown));
    if (ascii.isEmpty())
        ascii = shown;
    return ascii.size() - (ascii.endsWith(u'.') ? 1 : 0) > 253 ? QString() : shown.toLower();
}

inline Source classifySource(const QByteArray& referrer, const QByteArray& target, const QString& site)
{
    const QByteArray asked = cutAt(target, '?')[1];
    if (!queryValue(asked, "utm_source").isEmpty()) {
        return {u"campaign"_s, queryValue(asked, "utm_source").mid(0, 100),
                queryValue(asked, "utm_campaign").mid(0, 200)};
    }
    if (referrer.isEmpty())
        return {u"direct"_s, {}, {}};
    const QUrl url(QString::fromUtf8(referrer), QUrl::TolerantMode);
    if (url.scheme() == "android-app"_L1)
        return appSource(hostOf(referrer, url));
    const QString host = hostOf(referrer, url);
    if (host.isEmpty())
        return {u"direct"_s, {}, {}};
    const QByteArray query = cutAt(cutAt(referrer, '#')[0], '?')[1];
    const QString own = withoutWww(site);
    const QString other = withoutWww(host);
    if (other == own || other.right(own.size() + 1) == u'.' + own || other.left(own.size() + 1) == own + u'.')
        return {u"internal"_s, {}, {}};
    if (isCountryDomain(host, u"google"_s))
        return {u"search"_s, u"Google"_s, queryValue(query, "q")};
    if (isCountryDomain(host, u"yandex"_s))
        return {u"search"_s, u"Yandex"_s, queryValue(query, "text")};
    for (const Service& service : services()) {
        if (!isWithin(host, service.domain))
            continue;
        if (service.termsKey.isEmpty())
            return {service.kind, service.name, {}};
        return {service.kind, service.name, queryValue(query, service.termsKey.toLatin1()).mid(0, 200)};
    }
    return {u"referral"_s, other, {}};
}

inline bool isPage(const QByteArray& method, const QString& path)
{
    if (!QList<QByteArray>{"GET", "HEAD"}.contains(method))
        return false;
    const QStringList never = {u"/wp-admin/"_s,    u"/wp-content/"_s, u"/wp-includes/"_s, u"/wp-json/"_s,
                               u"/wp-login.php"_s, u"/xmlrpc.php"_s,  u"/wp-cron.php"_s,  u"/static/"_s,
                               u"/api/"_s,         u"/feed"_s,        u"/.well-known/"_s, u"/cgi-bin/"_s};
    for (const QString& prefix : never) {
        if (path.left(prefix.size()) == prefix)
            return false;
    }
    if (path.right(6) == "/feed/"_L1)
        return false;
    const QString lastSegment = path.split(u'/').last();
    if (!lastSegment.contains(u'.'))
        return true;
    return QStringList{u"html"_s, u"htm"_s, u"php"_s}.contains(lastSegment.split(u'.').last().toLower());
}

} // namespace tarn::analytics::reference
