#include "analytics/ClassifierReference.h"
#include "analytics/ClassifierTexts.h"
#include "support/CpuTime.h"
#include "support/HostileTexts.h"

#include <QRegularExpression>
#include <QSet>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::analytics;
using namespace tarn::test;

namespace {

Verdicts userAgents()
{
    return tarn::tests::readVerdicts(QStringLiteral(TARN_TEST_DATA "/useragents"), 4);
}

void pageRow(const char* name, const QString& path)
{
    QTest::newRow(name) << QByteArray("GET") << path << true;
}

void noPageRow(const char* name, const QString& path)
{
    QTest::newRow(name) << QByteArray("GET") << path << false;
}

void addLastSegmentRows()
{
    pageRow("root", u"/"_s);
    pageRow("no-extension", u"/about"_s);
    pageRow("folder", u"/about/"_s);
    pageRow("empty-path", QString());
    pageRow("no-slash", u"about"_s);
    pageRow("star", u"*"_s);
    pageRow("html", u"/index.html"_s);
    pageRow("htm", u"/index.htm"_s);
    pageRow("php", u"/index.php"_s);
    pageRow("upper-case-php", u"/index.PHP"_s);
    pageRow("mixed-case-html", u"/Index.HtMl"_s);
    pageRow("html-without-slash", u"index.html"_s);
    pageRow("name-is-an-extension", u"/.html"_s);
    pageRow("two-extensions", u"/photo.jpg.html"_s);
    pageRow("dot-in-a-folder", u"/v1.2/info"_s);
    pageRow("dot-in-a-folder-and-nothing-behind", u"/style.css/"_s);
    pageRow("php-and-more-path", u"/index.php/style.css/x"_s);
    pageRow("letters-beyond-ascii", u"/über/päge"_s);
    pageRow("space", u"/a page"_s);
    noPageRow("css", u"/style.css"_s);
    noPageRow("image", u"/logo.png"_s);
    noPageRow("upper-case-image", u"/LOGO.PNG"_s);
    noPageRow("text", u"/robots.txt"_s);
    noPageRow("map", u"/sitemap.xml"_s);
    noPageRow("compressed-html", u"/index.html.gz"_s);
    noPageRow("backup-of-php", u"/index.php~"_s);
    noPageRow("longer-than-html", u"/index.html5"_s);
    noPageRow("shorter-than-htm", u"/index.ht"_s);
    noPageRow("xhtml", u"/index.xhtml"_s);
    noPageRow("php-with-number", u"/index.php5"_s);
    noPageRow("dot-at-the-end", u"/index."_s);
    noPageRow("dot-alone", u"/."_s);
    noPageRow("no-slash-and-dot-first", u".htaccess"_s);
    noPageRow("hidden-file", u"/.env"_s);
    noPageRow("version-as-last-segment", u"/v1.2"_s);
    noPageRow("html-and-space", u"/index.html "_s);
    noPageRow("html-and-nul", u"/index.html"_s + QChar(0));
    noPageRow("wide-letters", u"/index.\uff48\uff54\uff4d\uff4c"_s);
}

void addPrefixRows()
{
    noPageRow("wp-admin", u"/wp-admin/index.php"_s);
    noPageRow("wp-admin-folder", u"/wp-admin/"_s);
    pageRow("wp-admin-without-slash", u"/wp-admin"_s);
    pageRow("wp-admin-in-upper-case", u"/WP-ADMIN/"_s);
    pageRow("wp-admin-further-down", u"/blog/wp-admin/"_s);
    pageRow("two-slashes-first", u"//wp-admin/"_s);
    noPageRow("wp-content", u"/wp-content/x"_s);
    noPageRow("wp-includes", u"/wp-includes/x"_s);
    noPageRow("wp-json", u"/wp-json/wp/v2/posts"_s);
    pageRow("wp-json-without-slash", u"/wp-json"_s);
    noPageRow("wp-login", u"/wp-login.php"_s);
    noPageRow("wp-login-and-more", u"/wp-login.php/x"_s);
    pageRow("wp-login-further-down", u"/blog/wp-login.php"_s);
    noPageRow("xmlrpc", u"/xmlrpc.php"_s);
    noPageRow("wp-cron", u"/wp-cron.php"_s);
    noPageRow("static", u"/static/x"_s);
    pageRow("static-without-slash", u"/static"_s);
    pageRow("statically", u"/statics/x"_s);
    noPageRow("api", u"/api/v1"_s);
    pageRow("api-without-slash", u"/api"_s);
    noPageRow("well-known", u"/.well-known/security"_s);
    noPageRow("cgi-bin", u"/cgi-bin/x.php"_s);
    noPageRow("feed", u"/feed"_s);
    noPageRow("feed-folder", u"/feed/"_s);
    noPageRow("feedback-begins-so", u"/feedback"_s);
    noPageRow("feed-of-a-folder", u"/blog/feed/"_s);
    pageRow("feed-of-a-folder-without-slash", u"/blog/feed"_s);
    pageRow("feed-in-upper-case", u"/Feed/"_s);
    pageRow("feed-in-the-middle", u"/blog/feed/x"_s);
    pageRow("newsfeed", u"/newsfeed/"_s);
}

} // namespace

/// Clients and pages, and what hostile texts cost.
class tst_Classifier : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void client_data();
    void client();

    void everyBot_data();
    void everyBot();

    void realUserAgents();

    void everyBotHasAReal();

    void damagedUserAgentsAgreeWithTheReference();

    void page_data();
    void page();

    void randomPathsAgreeWithTheReference();

    void textsOfAMegabyte();

    void lettersThatBecomeTwoCostTheirLength();

    void hostileTextsCostLittleMoreThanPlainOnes_data();
    void hostileTextsCostLittleMoreThanPlainOnes();
};

void tst_Classifier::client_data()
{
    QTest::addColumn<QByteArray>("userAgent");
    QTest::addColumn<QString>("verdict");
    const auto row = [](const char* name, const QByteArray& userAgent, const QString& verdict) {
        QTest::newRow(name) << userAgent << verdict;
    };

    row("empty", "", u"No user agent | desktop | Other | Other"_s);
    row("by-the-table-before-the-telling-words", "Mozilla/5.0 (compatible; Googlebot/2.1; ...)",
        u"Googlebot | desktop | Other | Other"_s);
    row("android-telephone",
        "Mozilla/5.0 (Linux; Android 10; K) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0 Mobile "
        "Safari/537.36",
        u" | mobile | Chrome | Android"_s);
    row("android-without-mobile",
        "Mozilla/5.0 (Linux; Android 10; K) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0 "
        "Safari/537.36",
        u" | tablet | Chrome | Android"_s);
    row("iphone",
        "Mozilla/5.0 (iPhone; CPU iPhone OS 17_0 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) "
        "Version/17.0 "
        "Mobile/15E148 Safari/604.1",
        u" | mobile | Safari | iOS"_s);
    row("edge-names-chrome-and-safari", "Windows NT 10.0 Chrome/120.0 Safari/537.36 Edg/120.0",
        u" | desktop | Edge | Windows"_s);
    row("opera-names-chrome", "X11; Linux x86_64 Chrome/117.0 Safari/537.36 OPR/103.0",
        u" | desktop | Opera | Linux"_s);
    row("safari-without-version", "Safari/605", u" | desktop | Other | Other"_s);
    row("version-without-safari", "Version/17.0", u" | desktop | Other | Other"_s);
    row("fetcher-within-a-word", "SuperFeedFetcher", u"Other crawler | desktop | Other | Other"_s);
    row("bot-ends-a-word", "MyBot/1.0", u"Other crawler | desktop | Other | Other"_s);
    row("bot-ends-the-text", "MyBot", u"Other crawler | desktop | Other | Other"_s);
    row("bot-begins-a-word", "robotics", u" | desktop | Other | Other"_s);
    row("bot-goes-on-in-an-underscore", "bot_1", u" | desktop | Other | Other"_s);
    row("bot-twice-and-once-at-an-end", "robotics bot", u"Other crawler | desktop | Other | Other"_s);
    row("table-in-upper-case", "YANDEX", u"YandexBot | desktop | Other | Other"_s);
    row("first-row-wins", "Twitterbot facebookexternalhit",
        u"Facebook link preview | desktop | Other | Other"_s);
    row("bot-and-person-alike", "iPad Googlebot Chrome/1", u"Googlebot | tablet | Chrome | iOS"_s);
}

void tst_Classifier::client()
{
    QFETCH(QByteArray, userAgent);
    QTEST(shown(classifyClient(userAgent)), "verdict");
}

void tst_Classifier::everyBot_data()
{
    QTest::addColumn<QString>("token");
    QTest::addColumn<QString>("name");
    QCOMPARE(reference::bots().size(), 51);
    for (const reference::NamedToken& row : reference::bots())
        QTest::newRow(qPrintable(row.token)) << row.token << row.name;
}

void tst_Classifier::everyBot()
{
    QFETCH(QString, token);
    QFETCH(QString, name);
    const QByteArray lower = token.toLatin1();
    QCOMPARE(classifyClient(lower).bot, name);
    QCOMPARE(classifyClient(lower.toUpper()).bot, name);
    QCOMPARE(classifyClient("Mozilla/5.0 (compatible; " + lower + "1.0)").bot, name);
    QCOMPARE(classifyClient("glued" + lower + "together").bot, name);
    QCOMPARE(classifyClient("\xd0\xb1" + lower + "\xff").bot, name);
    // A letter less is another text, if perhaps still a telling word.
    for (const QByteArray& shorter : {lower.chopped(1), lower.sliced(1)}) {
        const QString bot = classifyClient('_' + shorter + '_').bot;
        QVERIFY2(bot != name, qPrintable(shown(shorter)));
    }
}

void tst_Classifier::realUserAgents()
{
    const Verdicts verdicts = userAgents();
    QStringList failures = verdicts.problems;
    for (const Verdict& line : verdicts.lines) {
        const QString actual = shown(classifyClient(line.text));
        const QString naive = shown(reference::classifyClient(line.text));
        const QString expected = line.columns.join(u" | "_s);
        if (actual != expected)
            failures += u"%1: [%2], not [%3]: %4"_s.arg(line.where, actual, expected, shown(line.text));
        if (naive != expected)
            failures += u"%1: by the reference [%2], not [%3]"_s.arg(line.where, naive, expected);
    }
    report(failures);
    QVERIFY2(verdicts.lines.size() >= 500, qPrintable(QString::number(verdicts.lines.size())));
}

void tst_Classifier::everyBotHasAReal()
{
    const Verdicts verdicts = userAgents();
    QSet<QString> named;
    for (const Verdict& line : verdicts.lines)
        named += line.columns.first();
    QStringList missing;
    for (const reference::NamedToken& row : reference::bots()) {
        if (!named.contains(row.name))
            missing += row.token;
    }
    report(missing);
}

void tst_Classifier::damagedUserAgentsAgreeWithTheReference()
{
    const QList<QByteArray> texts = textsOf(userAgents());
    QList<QByteArray> insertions = {
        "bot",          "Bot ",     "preview",      "iPad",        "Tablet", "Android", "Mobile", "Mobi",
        "iPhone",       "Windows",  "Mac OS X",     "CrOS",        "Linux",  "Edg/",    "OPR/",   "Opera",
        "Safari/",      "Version/", "Chrome/",      " ",           "_",      "\xff",    "\xc3",   "\xc5\xbf",
        "\xe2\x84\xaa", "\xc4\xb0", "\xef\xbb\xbf", "\xed\xa0\x80"};
    insertions += QByteArray(1, '\0');
    for (const reference::NamedToken& row : reference::bots())
        insertions += row.token.toLatin1();

    Dice dice(51);
    QStringList failures;
    for (int round = 0; round < kRounds; ++round) {
        QByteArray text = dice.oneOf(texts);
        for (int accidents = 1 + dice.below(3); accidents > 0; --accidents)
            text = damaged(text, texts, insertions, dice);
        const QString actual = shown(classifyClient(text));
        const QString expected = shown(reference::classifyClient(text));
        if (actual != expected)
            failures += u"round %1: [%2], not [%3]: %4"_s.arg(round).arg(actual, expected, shown(text));
    }
    report(failures.mid(0, 20));
}

void tst_Classifier::page_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("isPage");
    QTest::newRow("head") << QByteArray("HEAD") << u"/"_s << true;
    for (const QByteArray& method : QList<QByteArray>{"POST", "PUT", "DELETE", "OPTIONS", "PROPFIND", "get",
                                                      "Head", "GETS", "GE", "-", "", "GET "}) {
        QTest::newRow(("method-\"" + method + '"').constData()) << method << u"/"_s << false;
    }
    addLastSegmentRows();
    addPrefixRows();
}

void tst_Classifier::page()
{
    QFETCH(QByteArray, method);
    QFETCH(QString, path);
    QTEST(isPage(method, path), "isPage");
}

void tst_Classifier::randomPathsAgreeWithTheReference()
{
    const QList<QString> pieces = {u"/"_s,        u"/"_s,          u"."_s,           u"."_s,
                                   u"wp-admin"_s, u"wp-content"_s, u"wp-includes"_s, u"wp-json"_s,
                                   u"wp-login"_s, u"xmlrpc"_s,     u"wp-cron"_s,     u"static"_s,
                                   u"api"_s,      u"feed"_s,       u"well-known"_s,  u"cgi-bin"_s,
                                   u"html"_s,     u"HTM"_s,        u"php"_s,         u"PhP"_s,
                                   u"css"_s,      u"a"_s,          u"Feed"_s,        u"é"_s,
                                   u" "_s,        u"%2F"_s,        u"?"_s,           QString(1, QChar(0))};
    Dice dice(12);
    int pages = 0;
    for (int round = 0; round < kRounds; ++round) {
        QString path = dice.oneIn(8) ? QString() : u"/"_s;
        for (int more = dice.below(7); more > 0; --more)
            path += dice.oneOf(pieces);
        const QByteArray method =
            dice.oneOf<QByteArray>({"GET", "GET", "GET", "HEAD", "HEAD", "POST", "get", ""});
        const bool expected = reference::isPage(method, path);
        pages += expected ? 1 : 0;
        QVERIFY2(isPage(method, path) == expected,
                 qPrintable(u"round %1: %2 %3"_s.arg(round).arg(shown(method), path)));
    }
    QVERIFY2(pages > kRounds / 10 && pages < kRounds * 9 / 10, qPrintable(QString::number(pages)));
}

void tst_Classifier::textsOfAMegabyte()
{
    constexpr qsizetype kMegabyte = 1'048'576;
    QCOMPARE(shown(classifyClient(QByteArray(kMegabyte, 'b'))), u" | desktop | Other | Other"_s);
    QCOMPARE(shown(classifyClient(QByteArray("botx").repeated(kMegabyte / 4))),
             u" | desktop | Other | Other"_s);
    QCOMPARE(shown(classifyClient(QByteArray(kMegabyte, 'x') + "googlebot")),
             u"Googlebot | desktop | Other | Other"_s);
    QCOMPARE(classifySource("http://example.com/" + QByteArray(kMegabyte, 'a'), "/", u"example.org"_s).name,
             u"example.com"_s);
    // No name is so long.
    QCOMPARE(classifySource("http://" + QByteArray("a.").repeated(kMegabyte / 2), "/", u"example.org"_s).kind,
             u"direct"_s);
    QCOMPARE(classifySource("http://www.google.com/?" + QByteArray("a&").repeated(kMegabyte / 2) + "q=x", "/",
                            u"example.org"_s)
                 .searchTerms,
             u"x"_s);
    QCOMPARE(classifySource({}, "/?" + QByteArray("%41").repeated(kMegabyte / 3), u"example.org"_s).kind,
             u"direct"_s);
    QVERIFY(!isPage("GET", QString(kMegabyte, u'.')));
}

/// By how the cost grows from one length to four times that: 4 is in proportion, 16 is quadratic.
void tst_Classifier::lettersThatBecomeTwoCostTheirLength()
{
    constexpr qsizetype kBytes = 65'536;
    const auto costOf = [](qsizetype bytes) {
        const QByteArray agent = tarn::tests::textOf("\xc4\xb0", bytes);
        return tarn::tests::leastSeconds(5, [&agent] { classifyClient(agent); });
    };
    const double growth = costOf(4 * kBytes) / costOf(kBytes);
    QVERIFY2(growth < 8, qPrintable(QString::number(growth)));
    QCOMPARE(shown(classifyClient("B\xc4\xb0ngbot")), u"Other crawler | desktop | Other | Other"_s);
    QCOMPARE(shown(classifyClient("Slac\xe2\x84\xaa"
                                  "bot")),
             u"Slackbot | desktop | Other | Other"_s);
}

void tst_Classifier::hostileTextsCostLittleMoreThanPlainOnes_data()
{
    QTest::addColumn<QByteArray>("unit");
    for (const tarn::tests::Shape& shape : tarn::tests::hostileShapes())
        QTest::newRow(shape.name) << shape.unit;
}

/// By the ratio within one run; what is held here took 100 to 100,000 times as long.
void tst_Classifier::hostileTextsCostLittleMoreThanPlainOnes()
{
    constexpr qsizetype kBytes = 65'536;
    QFETCH(QByteArray, unit);
    const auto costOf = [](const QByteArray& text, QByteArrayView before, QByteArrayView field) {
        const QByteArray sent = before.toByteArray() + text;
        return tarn::tests::leastSeconds(5, [&] {
            if (field == "agent")
                classifyClient(sent);
            else if (field == "referrer")
                classifySource(sent, "/", u"example.org"_s);
            else
                classifySource({}, sent, u"example.org"_s);
        });
    };
    for (const auto& [before, field] : QList<QPair<QByteArray, QByteArray>>{
             {"http://",                 "referrer"},
             {"http://a",                "referrer"},
             {"android-app://",          "referrer"},
             {"http://www.google.com/?", "referrer"},
             {"/?",                      "target"  },
             {"/?utm_source=",           "target"  },
             {"",                        "agent"   }
    }) {
        const double plain = costOf(QByteArray(kBytes, 'x'), before, field);
        const double hostile = costOf(tarn::tests::textOf(unit, kBytes), before, field);
        // A host that is none is told by its length at once, in which no ratio can be measured.
        constexpr double kNothing = 100e-6;
        QVERIFY2(hostile < std::max(tarn::tests::kMostTimes * plain, kNothing),
                 qPrintable(u"%1: %2 us, plain %3 us"_s.arg(QString::fromLatin1(before))
                                .arg(hostile * 1e6)
                                .arg(plain * 1e6)));
    }
}

QTEST_APPLESS_MAIN(tst_Classifier)
#include "tst_Classifier.moc"
