#include "analytics/UrlText.h"

#include "analytics/Dice.h"
#include "support/CpuTime.h"

#include <QTest>
#include <QUrl>
#include <QUrlQuery>

#include <limits>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::analytics;
using tarn::tests::Dice;

namespace {

constexpr int kRounds = 20'000;

QString shown(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.toPercentEncoding(" /:;,()+?&=#@[]{}'\"<>|$!*%"));
}

/// A name of @p length characters with the longest labels that it can have.
QByteArray nameOf(qsizetype length)
{
    return (QByteArray(kMaxLabelLength, 'a') + '.').repeated(4).chopped(1).right(length);
}

} // namespace

class tst_UrlText : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void percentDecoding_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("decoded");
        const auto row = [](const char* name, const QByteArray& text, const QString& decoded) {
            QTest::newRow(name) << text << decoded;
        };
        row("empty", "", u""_s);
        row("plain", "/a+b c", u"/a+b c"_s);
        row("letters", "/caf%C3%A9", u"/café"_s);
        row("lower-case-digits", "%c3%a9", u"é"_s);
        row("twice-encoded", "%2541", u"%41"_s);
        row("stray-before-a-letter", "/50%-off", u"/50%-off"_s);
        row("stray-before-escapes", "100%+red%20shoes", u"100%+red shoes"_s);
        row("stray-at-the-end", "100%", u"100%"_s);
        row("one-digit-at-the-end", "100%4", u"100%4"_s);
        row("one-digit", "%4-%41", u"%4-A"_s);
        row("no-digits", "%zz%41", u"%zzA"_s);
        row("second-is-no-digit", "%4g", u"%4g"_s);
        row("percent-before-an-escape", "%%41", u"%A"_s);
        row("neighbours-of-the-digits", "%/0%:0%@0%G0%`0%g0", u"%/0%:0%@0%G0%`0%g0"_s);
        row("no-utf-8", "%FFx%C3", u"\uFFFDx\uFFFD"_s);
        row("half-of-a-letter-raw", "\xc3%A9", u"é"_s);
        row("nul", "a%00b", QString(u"a"_s) + QChar(0) + u'b');
        row("beyond-the-first-plane", "%F0%9F%91%9F", u"👟"_s);
    }
    void percentDecoding()
    {
        QFETCH(QByteArray, text);
        QTEST(percentDecoded(text), "decoded");
    }

    void queryItems_data()
    {
        QTest::addColumn<QByteArray>("query");
        QTest::addColumn<QByteArray>("value");
        const auto row = [](const char* name, const QByteArray& query, const QByteArray& value) {
            QTest::newRow(name) << query << value;
        };
        row("empty", "", "");
        row("alone", "key=1", "1");
        row("first-of-two", "a=0&key=1&key=2", "1");
        row("first-has-no-value", "key&key=2", "");
        row("escaped-name", "%6bey=1", "1");
        row("escaped-end-of-the-name", "ke%79=1", "1");
        row("equals-in-the-value", "key=a=b", "a=b");
        row("value-as-sent", "key=%26+", "%26+");
        row("longer-name", "keys=1&key=2", "2");
        row("shorter-name", "ke=1&key=2", "2");
        row("other-case", "KEY=1", "");
        row("name-cut-by-an-ampersand", "ke&y=1", "");
        row("escaped-equals-is-of-the-name", "key%3D1", "");
        row("stray-in-the-name", "key%=1&key=2", "2");
        row("empty-items", "&&key=1&&", "1");
        row("semicolons-do-not-separate", "a;key=1", "");
    }
    void queryItems()
    {
        QFETCH(QByteArray, query);
        QTEST(queryItem(query, "key").toByteArray(), "value");
    }

    void hostNames_data()
    {
        QTest::addColumn<QByteArray>("host");
        QTest::addColumn<QString>("name");
        const auto row = [](const char* name, const QByteArray& host, const QString& expected) {
            QTest::newRow(name) << host << expected;
        };
        row("plain", "www.Example.ORG", u"www.example.org"_s);
        for (const char* domain : {"de", "com", "eu", "fr", "app", "info", "uk", "nl", "example"}) {
            const QString expected = u"müller."_s + QLatin1StringView(domain);
            row(domain, QByteArray("xn--mller-kva.") + domain, expected);
            QTest::addRow("%s-unicode", domain) << QByteArray("M\xc3\x9cller.") + domain << expected;
            QTest::addRow("%s-escaped", domain) << QByteArray("m%C3%BCller.") + domain << expected;
        }
        row("upper-case-xn", "XN--MLLER-KVA.EU", u"müller.eu"_s);
        row("xn-top-level", "xn--e1afmkfd.xn--p1ai", u"пример.рф"_s);
        // One label that cannot be decoded leaves the others as well.
        row("no-name-behind-xn-beside-one", "m\xc3\xbcller.xn--a.xn--mller-kva.de",
            u"xn--mller-kva.xn--a.xn--mller-kva.de"_s);
        row("sharp-s", "xn--strae-oqa.app", u"straße.app"_s);
        row("no-name-behind-xn", "xn--a.eu", u"xn--a.eu"_s);
        row("last-dot", "example.org.", u"example.org."_s);
        row("address", "192.0.2.7", u"192.0.2.7"_s);
        row("address-in-short", "127.1", u"127.0.0.1"_s);
        row("address-in-brackets", "[2001:DB8::1]", u"2001:db8::1"_s);
        row("empty", "", u""_s);
        row("empty-label", "a..b", u""_s);
        row("blank", "a b", u""_s);
        row("user-again", "b@c", u""_s);
        row("two-ports", "a:b", u""_s);
        row("open-bracket", "[::1", u""_s);
        row("longest-name", nameOf(kMaxNameLength), QString::fromLatin1(nameOf(kMaxNameLength)));
        row("longest-name-plus-one", nameOf(kMaxNameLength + 1), u""_s);
        row("longest-name-and-dot", nameOf(kMaxNameLength) + '.',
            QString::fromLatin1(nameOf(kMaxNameLength)) + u'.');
        row("longest-name-plus-one-and-dot", nameOf(kMaxNameLength + 1) + '.', u""_s);
        row("longest-label", QByteArray(kMaxLabelLength, 'a'), QString(kMaxLabelLength, u'a'));
        row("longest-label-plus-one", QByteArray(kMaxLabelLength + 1, 'a'), u""_s);
        // 36 bytes in ASCII each, seven of them and ".de" 255.
        row("longest-in-ascii", QByteArray("\xc3\xbc\xc3\xb6-aaaaaaaaaaaaaaaaaaaaaaaa.").repeated(6) + "de",
            u"üö-aaaaaaaaaaaaaaaaaaaaaaaa."_s.repeated(6) + u"de"_s);
        row("too-long-in-ascii", QByteArray("\xc3\xbc\xc3\xb6-aaaaaaaaaaaaaaaaaaaaaaaa.").repeated(8) + "de",
            u""_s);
        row("most-marks", "a" + QByteArray("\xcc\x8d").repeated(8) + ".de",
            u'a' + QString(8, QChar(0x30d)) + u".de"_s);
        row("most-marks-plus-one", "a" + QByteArray("\xcc\x8d").repeated(9) + ".de", u""_s);
        row("every-byte-escaped", QByteArray("%61").repeated(63) + ".de", QString(63, u'a') + u".de"_s);
    }
    void hostNames()
    {
        QFETCH(QByteArray, host);
        QTEST(hostName(host), "name");
    }

    void numbers_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<double>("number");
        const auto row = [](const char* name, const QByteArray& text, double number) {
            QTest::newRow(name) << text << number;
        };
        row("ordinary", "12.5", 12.5);
        row("plus", "+12.5", 12.5);
        row("escaped", "%31%32%2E5", 12.5);
        row("exponent", "125e-1", 12.5);
        row("none", "long", 0);
        row("empty", "", 0);
        row("beyond-any", "1e999", std::numeric_limits<double>::infinity());
        for (const qsizetype length : {64, 65, 8000}) {
            const auto longRow = [&](const char* name, const QByteArray& before, char c,
                                     const QByteArray& after, double number) {
                QTest::addRow("%s-%lld", name, static_cast<long long>(length))
                    << before + QByteArray(length - before.size() - after.size(), c) + after << number;
            };
            longRow("zeros-before", "", '0', "12.5", 12.5);
            longRow("zeros-behind", "+12.5", '0', "", 12.5);
            longRow("blanks-before", "", ' ', "12.5", 12.5);
            longRow("letter-behind", "12.5", '0', "x", 0);
            longRow("two-signs", "+-12.5", '0', "", 0);
            longRow("named", "nan(", '1', ")", 0);
            longRow("letters", "", 'x', "", 0);
        }
        row("digits-and-exponent", "125" + QByteArray(8000, '0') + "e-8001", 12.5);
    }
    void numbers()
    {
        QFETCH(QByteArray, text);
        QTEST(queryNumber("p=/&t=" + text, "t"), "number");
    }

    /// By the ratio within one run. Read by Qt they took more than 100 times as long as their text.
    void longNumbersCostLittleMoreThanTheirText_data()
    {
        QTest::addColumn<QByteArray>("unit");
        for (const QByteArray& unit : QList<QByteArray>{"7", "0", "x", ".", "1e", " "})
            QTest::newRow(unit.constData()) << unit;
    }
    void longNumbersCostLittleMoreThanTheirText()
    {
        QFETCH(QByteArray, unit);
        const QByteArray query = "t=" + unit.repeated(65'536 / unit.size());
        const double text = tarn::tests::leastSeconds(5, [&] { percentDecoded(queryItem(query, "t")); });
        const double number = tarn::tests::leastSeconds(5, [&] { queryNumber(query, "t"); });
        QVERIFY2(number < 20 * text, qPrintable(u"%1 us, %2 us"_s.arg(number * 1e6).arg(text * 1e6)));
    }

    void asciiNames_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("ascii");
        QTest::newRow("unicode") << u"müller.eu"_s << u"xn--mller-kva.eu"_s;
        QTest::newRow("ascii") << u"Example.org"_s << u""_s;
        QTest::newRow("ascii-form") << u"xn--mller-kva.eu"_s << u""_s;
        QTest::newRow("no-name") << u"ü b"_s << u""_s;
        QTest::newRow("too-long") << QString(kMaxNameLength + 1, u'ü') << u""_s;
        QTest::newRow("empty") << u""_s << u""_s;
    }
    void asciiNames()
    {
        QFETCH(QString, name);
        QTEST(asciiName(name), "ascii");
    }

    void partsAgreeWithQUrl()
    {
        Dice dice(8);
        for (int round = 0; round < kRounds; ++round) {
            QByteArray url =
                dice.oneOf<QByteArray>({"http://", "HTTPS://", "a+b://", "//", "", "1a://", ":", "http:"});
            for (int more = dice.below(8); more > 0; --more) {
                url += dice.oneOf<QByteArray>(
                    {"a", "b.de",  "www.", ":",   ":80", "@", "/",   "?", "#",        "[",
                     "]", "[::1]", "q=1",  "&",   "%41", "%", "%2F", " ", "\xc3\xbc", "xn--mller-kva.de",
                     "-", ".",     "1",    "0x7f"});
            }
            const QUrl expected(QString::fromUtf8(url), QUrl::TolerantMode);
            const UrlParts parts = splitUrl(url);
            QCOMPARE(QString::fromLatin1(parts.scheme).toLower(), expected.scheme());
            const QString host = unicodeName(expected.host(QUrl::FullyDecoded)).toLower();
            QVERIFY2(hostName(parts.host) == host, qPrintable(shown(url)));
            // Where all escapes are good, QUrl resolves them as we do.
            if (!url.contains('%') || url.count('%') == url.count("%41") + url.count("%2F")) {
                QVERIFY2(percentDecoded(parts.path) == expected.path(QUrl::FullyDecoded),
                         qPrintable(shown(url)));
                QVERIFY2(percentDecoded(queryItem(parts.query, "q"))
                             == QUrlQuery(expected).queryItemValue(u"q"_s, QUrl::FullyDecoded),
                         qPrintable(shown(url)));
            }
        }
    }
};

QTEST_APPLESS_MAIN(tst_UrlText)
#include "tst_UrlText.moc"
