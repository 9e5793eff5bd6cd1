#include "analytics/ClassifierReference.h"
#include "analytics/ClassifierTexts.h"
#include "support/CpuTime.h"

#include <QRegularExpression>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::analytics;
using namespace tarn::test;

namespace {

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

} // namespace

/// Where a visitor came from.
class tst_ClassifierSources : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void source_data();
    void source();

    void everyService_data();
    void everyService();

    void termsAreCut_data();
    void termsAreCut();

    void realReferrers();

    void randomReferrersAgreeWithTheReference();
};

void tst_ClassifierSources::source_data()
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

void tst_ClassifierSources::source()
{
    QFETCH(QByteArray, referrer);
    QFETCH(QByteArray, target);
    QTEST(shown(classifySource(referrer, target, u"www.example.org"_s)), "verdict");
}

void tst_ClassifierSources::everyService_data()
{
    QTest::addColumn<QString>("domain");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("termsKey");
    QCOMPARE(reference::services().size(), 35);
    for (const reference::Service& row : reference::services())
        QTest::newRow(qPrintable(row.domain)) << row.domain << row.kind << row.name << row.termsKey;
}

void tst_ClassifierSources::everyService()
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

void tst_ClassifierSources::termsAreCut_data()
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

void tst_ClassifierSources::termsAreCut()
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

void tst_ClassifierSources::realReferrers()
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

void tst_ClassifierSources::randomReferrersAgreeWithTheReference()
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

QTEST_APPLESS_MAIN(tst_ClassifierSources)
#include "tst_ClassifierSources.moc"
