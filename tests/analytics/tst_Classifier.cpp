#include "analytics/Classifier.h"

#include "analytics/ClassifierReference.h"
#include "analytics/Dice.h"
#include "analytics/VerdictFiles.h"
#include "support/CpuTime.h"
#include "support/HostileTexts.h"

#include <QRegularExpression>
#include <QSet>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::analytics;
using tarn::tests::Dice;
using tarn::tests::Verdict;
using tarn::tests::Verdicts;

namespace {

constexpr int kRounds = 20000;

QString shown(const Client& client)
{
    return QStringList{client.bot, client.device, client.browser, client.os}.join(u" | "_s);
}

QString shown(const Source& source)
{
    return QStringList{source.kind, source.name, source.searchTerms}.join(u" | "_s);
}

QString shown(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.toPercentEncoding(" /:;,()+?&=#@[]{}'\"<>|$!*"));
}

Verdicts userAgents()
{
    return tarn::tests::readVerdicts(QStringLiteral(TARN_TEST_DATA "/useragents"), 4);
}

Verdicts referrers()
{
    return tarn::tests::readVerdicts(QStringLiteral(TARN_TEST_DATA "/referrers"), 2,
                                     {u"terms"_s, u"site"_s, u"target"_s});
}

QByteArray targetOf(const Verdict& line)
{
    return line.options.value(u"target"_s, "/");
}

QString siteOf(const Verdict& line)
{
    return QString::fromUtf8(line.options.value(u"site"_s, "www.example.org"));
}

QList<QByteArray> textsOf(const Verdicts& verdicts)
{
    QList<QByteArray> texts;
    for (const Verdict& line : verdicts.lines)
        texts += line.text;
    return texts;
}

QByteArray withLettersFlipped(QByteArray text, Dice& dice, int oneIn)
{
    for (char& c : text) {
        const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (isLetter && dice.oneIn(oneIn))
            c = static_cast<char>(c ^ 0x20);
    }
    return text;
}

/// @p text after an accident, or joined with a part of another of @p texts. Characters may end up cut in two.
QByteArray damaged(QByteArray text, const QList<QByteArray>& texts, const QList<QByteArray>& insertions,
                   Dice& dice)
{
    const qsizetype at = dice.below(text.size() + 1);
    const QByteArray& other = dice.oneOf(texts);
    switch (dice.below(8)) {
    case 0:
        return text.left(at);
    case 1:
        return text.sliced(at);
    case 2:
        return text.left(at) + other.sliced(dice.below(other.size() + 1));
    case 3:
        return withLettersFlipped(text, dice, 1);
    case 4:
        return withLettersFlipped(text, dice, 8);
    case 5:
        return text.remove(at, 1 + dice.below(3));
    default:
        return text.insert(at, dice.oneOf(insertions));
    }
}

QByteArray randomReferrer(const QList<QByteArray>& real, Dice& dice)
{
    static const QList<QByteArray> labels = {
        "www",     "google",        "yandex",        "com",   "de",      "co.uk",    "bing",   "mail",
        "search",  "yahoo",         "gemini",        "t",     "co",      "facebook", "x",      "fb",
        "ask",     "brave",         "example",       "org",   "m",       "chat",     "openai", "WWW",
        "GOOGLE",  "b\303\274cher", "xn--mller-kva", "9",     "",        "-a",       "a_b",    "%67oogle",
        "outlook", "live",          "naver",         "baidu", "twitter", "app"};
    if (dice.oneIn(3))
        return dice.oneOf(real);
    QByteArray host = dice.oneOf(labels);
    for (int more = dice.below(4); more > 0; --more)
        host += '.' + dice.oneOf(labels);
    if (dice.oneIn(3))
        host = dice.oneOf(reference::services()).domain.toLatin1();
    QByteArray text =
        dice.oneOf<QByteArray>({"http://", "https://", "https://", "android-app://", "//", "HTTP://", ""});
    text += dice.oneOf<QByteArray>({"", "", "", "", "user@", "u:p@", "a@b@"});
    text += host + dice.oneOf<QByteArray>({"", "", "", "", ":80", ":", ":0", ":65536", ":x"});
    text += dice.oneOf<QByteArray>({"", "/", "/search", "/a b", "/%zz"});
    for (int items = dice.below(3), first = items; items > 0; --items) {
        text += (items == first ? '?' : '&')
                + dice.oneOf<QByteArray>({"q", "p", "wd", "query", "text", "x", "%71"});
        text += dice.oneOf<QByteArray>({"=", "=", "=", ""})
                + dice.text("ab+%20E9=;?#\xc3\xa9", dice.oneIn(20) ? 400 : 8);
    }
    return text + dice.oneOf<QByteArray>({"", "", "", "#", "#q=y"});
}

QByteArray randomTarget(Dice& dice)
{
    if (dice.oneIn(2))
        return "/";
    QByteArray text = dice.oneOf<QByteArray>({"/?", "/page?", "?", "/", "/?a?"});
    for (int items = dice.below(4); items > 0; --items) {
        text += dice.oneOf<QByteArray>(
            {"utm_source", "utm_campaign", "utm_medium", "UTM_SOURCE", "%75tm_source", "a"});
        text += dice.oneOf<QByteArray>({"=", "=", "=", "", "%3D"});
        text += dice.text("ab+%20E9=;?#\xc3\xa9", dice.oneIn(10) ? 300 : 8)
                + dice.oneOf<QByteArray>({"&", "&", ";"});
    }
    return text;
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

/// All that went wrong at once: one line of a data file seldom comes alone.
void report(const QStringList& failures)
{
    QVERIFY2(failures.isEmpty(), qPrintable(u'\n' + failures.join(u'\n')));
}

} // namespace

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

    void source_data();
    void source();
    void everyService_data();
    void everyService();
    void termsAreCut_data();
    void termsAreCut();
    void realReferrers();
    void randomReferrersAgreeWithTheReference();

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

void tst_Classifier::source_data()
{
    QTest::addColumn<QByteArray>("referrer");
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<QString>("verdict");
    const auto row = [](const char* name, const QByteArray& referrer, const QByteArray& target,
                        const QString& verdict) { QTest::newRow(name) << referrer << target << verdict; };

    row("campaign", "", "/?utm_source=news&utm_campaign=spring", u"campaign | news | spring"_s);
    row("campaign-before-any-referrer", "https://www.google.com/search?q=shoes",
        "/?utm_source=news&utm_campaign=spring", u"campaign | news | spring"_s);
    row("campaign-before-the-own-site", "https://www.example.org/", "/?utm_source=news&utm_campaign=spring",
        u"campaign | news | spring"_s);
    row("campaign-without-a-name", "https://www.google.com/search?q=shoes",
        "/?utm_source=", u"search | Google | shoes"_s);
    row("direct", "", "/", u"direct |  | "_s);
    row("dash", "-", "/", u"direct |  | "_s);
    row("relative-text", "some/page.html", "/", u"direct |  | "_s);
    row("own-name", "https://example.org/", "/", u"internal |  | "_s);
    row("own-name-with-www", "https://www.example.org/", "/", u"internal |  | "_s);
    row("own-subdomain", "https://a.shop.example.org/", "/", u"internal |  | "_s);
    row("begins-with-the-own-name", "https://example.org.attacker.test/", "/", u"internal |  | "_s);
    row("ends-with-the-own-name", "https://notexample.org/", "/", u"referral | notexample.org | "_s);
    row("google-country", "https://www.google.de/search?q=shoes", "/", u"search | Google | shoes"_s);
    row("google-without-terms", "https://www.google.co.uk/", "/", u"search | Google | "_s);
    row("subdomain-of-a-service", "https://cn.bing.com/search?q=a%20b", "/", u"search | Bing | a b"_s);
    row("mail-app", "android-app://com.google.android.gm/", "/", u"email | Gmail | "_s);
    row("unknown-site-with-www", "https://www.unknown.example/page?q=x", "/",
        u"referral | unknown.example | "_s);
}

void tst_Classifier::source()
{
    QFETCH(QByteArray, referrer);
    QFETCH(QByteArray, target);
    QTEST(shown(classifySource(referrer, target, u"www.example.org"_s)), "verdict");
}

void tst_Classifier::everyService_data()
{
    QTest::addColumn<QString>("domain");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("termsKey");
    QCOMPARE(reference::services().size(), 35);
    for (const reference::Service& row : reference::services())
        QTest::newRow(qPrintable(row.domain)) << row.domain << row.kind << row.name << row.termsKey;
}

void tst_Classifier::everyService()
{
    QFETCH(QString, domain);
    QFETCH(QString, kind);
    QFETCH(QString, name);
    QFETCH(QString, termsKey);
    const auto of = [](const QString& url) {
        return shown(classifySource(url.toUtf8(), "/", u"www.example.org"_s));
    };
    const QString verdict = kind + u" | "_s + name + u" | "_s;

    QCOMPARE(of(u"https://"_s + domain), verdict);
    QCOMPARE(of(u"http://www."_s + domain + u"/x"_s), verdict);
    QCOMPARE(of(u"https://a.b."_s + domain + u"/"_s), verdict);
    QCOMPARE(of(u"https://"_s + domain.toUpper() + u":8443/"_s), verdict);
    QCOMPARE(of(u"https://not"_s + domain + u"/"_s), u"referral | not"_s + domain + u" | "_s);
    QCOMPARE(of(u"https://"_s + domain + u".example/"_s), u"referral | "_s + domain + u".example | "_s);
    for (const QString& key : {u"q"_s, u"p"_s, u"wd"_s, u"query"_s, u"text"_s}) {
        const QString terms = key == termsKey ? u"a b"_s : QString();
        QCOMPARE(of(u"https://"_s + domain + u"/search?x=1&"_s + key + u"=a%20b&y=2"_s), verdict + terms);
    }
}

void tst_Classifier::termsAreCut_data()
{
    QTest::addColumn<QByteArray>("referrer"); // what is cut is put behind it
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<int>("most"); // 0: as long as it is

    QTest::newRow("campaign-name") << QByteArray() << QByteArray("/?utm_campaign=x&utm_source=") << 100;
    QTest::newRow("campaign-terms") << QByteArray() << QByteArray("/?utm_source=x&utm_campaign=") << 200;
    QTest::newRow("bing") << QByteArray("https://www.bing.com/search?q=") << QByteArray("/") << 200;
    QTest::newRow("yahoo") << QByteArray("https://search.yahoo.com/search?p=") << QByteArray("/") << 200;
    QTest::newRow("google") << QByteArray("https://www.google.com/search?q=") << QByteArray("/") << 0;
    QTest::newRow("yandex") << QByteArray("https://yandex.ru/search/?text=") << QByteArray("/") << 0;
}

void tst_Classifier::termsAreCut()
{
    QFETCH(QByteArray, referrer);
    QFETCH(QByteArray, target);
    QFETCH(int, most);
    const bool isName = QByteArrayView(QTest::currentDataTag()) == "campaign-name";
    for (const int length : {99, 100, 101, 199, 200, 201, 5000}) {
        // Characters are counted after decoding, and not by their bytes.
        const QByteArray sent = QByteArray("%C3%A9").repeated(length - 1) + 'z';
        const QString meant = QString(length - 1, QChar(0xe9)) + u'z';
        const Source source = referrer.isEmpty() ? classifySource(referrer, target + sent, u"example.org"_s)
                                                 : classifySource(referrer + sent, target, u"example.org"_s);
        QCOMPARE(isName ? source.name : source.searchTerms, most == 0 ? meant : meant.left(most));
    }
}

void tst_Classifier::realReferrers()
{
    const Verdicts verdicts = referrers();
    QStringList failures = verdicts.problems;
    for (const Verdict& line : verdicts.lines) {
        const QString actual = shown(classifySource(line.text, targetOf(line), siteOf(line)));
        const QString naive = shown(reference::classifySource(line.text, targetOf(line), siteOf(line)));
        const QString terms = QString::fromUtf8(line.options.value(u"terms"_s));
        const QString expected = (line.columns + QStringList{terms}).join(u" | "_s);
        if (actual != expected)
            failures += u"%1: [%2], not [%3]: %4"_s.arg(line.where, actual, expected, shown(line.text));
        if (naive != expected)
            failures += u"%1: by the reference [%2], not [%3]"_s.arg(line.where, naive, expected);
    }
    report(failures);
    QVERIFY2(verdicts.lines.size() >= 350, qPrintable(QString::number(verdicts.lines.size())));
}

void tst_Classifier::randomReferrersAgreeWithTheReference()
{
    const QList<QByteArray> texts = textsOf(referrers());
    QList<QByteArray> insertions = {"www.", ".", "/", ":",  "@", "?q=x", "&q=", "%",
                                    "%2E",  "#", " ", "\\", "[", "\xc3", "\xff"};
    insertions += QByteArray(1, '\0');
    Dice dice(35);
    QStringList failures;
    QHash<QString, int> kinds;
    for (int round = 0; round < kRounds; ++round) {
        QByteArray referrer = randomReferrer(texts, dice);
        if (dice.oneIn(3))
            referrer = damaged(referrer, texts, insertions, dice);
        const QByteArray target = randomTarget(dice);
        const QString site = dice.oneOf<QString>({u"www.example.org"_s, u"example.org"_s, u"Example.org"_s,
                                                  u"m.facebook.com"_s, u"bing.com"_s, u"www.com"_s, u"x"_s,
                                                  u"müller.de"_s, u""_s});
        const Source source = classifySource(referrer, target, site);
        const QString expected = shown(reference::classifySource(referrer, target, site));
        ++kinds[source.kind];
        if (shown(source) != expected) {
            failures += u"round %1: [%2], not [%3]: %4 for %5 on %6"_s.arg(round).arg(
                shown(source), expected, shown(referrer), shown(target), site);
        }
    }
    report(failures.mid(0, 20));
    // Each kind must have been met often, or the agreement would say little about it.
    for (const QString& kind : {u"campaign"_s, u"direct"_s, u"internal"_s, u"search"_s, u"social"_s, u"ai"_s,
                                u"email"_s, u"referral"_s})
        QVERIFY2(kinds.value(kind) >= 100, qPrintable(u"%1: %2"_s.arg(kind).arg(kinds.value(kind))));
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
