#include "analytics/LogLines.h"
#include "analytics/LogParserReference.h"

#include <QRegularExpression>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::analytics;
using namespace tarn::test;

/// Each field of a line, and lines that are no entries.
class tst_LogParser : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void everyFieldOfASampleLine();

    void rejects_data();
    void rejects();

    void clientField_data();
    void clientField();

    void request_data();
    void request();

    void status_data();
    void status();

    void size_data();
    void size();

    void referrerAndUserAgent_data();
    void referrerAndUserAgent();

    void responseTime_data();
    void responseTime();

    void spacing_data();
    void spacing();
};

void tst_LogParser::everyFieldOfASampleLine()
{
    const std::optional<LogLine> log = parse("127.0.0.1 - - [10/Oct/2024:13:55:36 +0200] \"GET /a?b=1 "
                                             "HTTP/1.1\" 200 2326 \"-\" \"Mozilla/5.0\" 1234");
    QVERIFY(log);
    QCOMPARE(log->ip, u"127.0.0.1"_s);
    QCOMPARE(shown(log->at), u"2024-10-10 11:55:36 UTC"_s);
    QCOMPARE(log->method, "GET");
    QCOMPARE(log->target, "/a?b=1");
    QCOMPARE(log->status, 200);
    QCOMPARE(log->bytes, 2326);
    QCOMPARE(log->referrer, "");
    QCOMPARE(log->userAgent, "Mozilla/5.0");
    QCOMPARE(log->responseUs, 1234);
}

void tst_LogParser::rejects_data()
{
    QTest::addColumn<QByteArray>("line");
    const QByteArray good = Written().line();

    QTest::newRow("empty") << QByteArray();
    QTest::newRow("one-space") << QByteArray(" ");
    QTest::newRow("spaces") << QByteArray("      ");
    QTest::newRow("one-field") << QByteArray("127.0.0.1");
    QTest::newRow("two-fields") << QByteArray("127.0.0.1 -");
    QTest::newRow("three-fields") << QByteArray("127.0.0.1 - -");
    QTest::newRow("three-fields-and-spaces") << QByteArray("127.0.0.1 - -    ");
    QTest::newRow("two-fields-before-the-time") << Written{.identAndUser = "-"}.line();
    QTest::newRow("four-fields-before-the-time") << Written{.identAndUser = "- frank smith"}.line();
    QTest::newRow("tabs-do-not-separate") << QByteArray(good).replace(' ', '\t');
    QTest::newRow("tab-before-the-time") << Written{.time = "\t[10/Oct/2024:13:55:36 +0200]"}.line();
    QTest::newRow("no-opening-bracket") << Written{.time = "10/Oct/2024:13:55:36 +0200]"}.line();
    QTest::newRow("no-closing-bracket") << Written{.time = "[10/Oct/2024:13:55:36 +0200"}.line();
    QTest::newRow("ends-at-the-opening-bracket") << QByteArray("127.0.0.1 - - [");
    QTest::newRow("ends-at-the-time") << QByteArray("127.0.0.1 - - [10/Oct/2024:13:55:36 +0200]");
    QTest::newRow("ends-at-the-time-and-a-space")
        << QByteArray("127.0.0.1 - - [10/Oct/2024:13:55:36 +0200] ");
    QTest::newRow("request-without-quotes") << Written{.request = "GET / HTTP/1.1"}.line();
    QTest::newRow("request-without-opening-quote") << Written{.request = "GET / HTTP/1.1\""}.line();
    QTest::newRow("request-in-single-quotes") << Written{.request = "'GET / HTTP/1.1'"}.line();
    QTest::newRow("tab-before-the-request") << Written{.request = "\t\"GET / HTTP/1.1\""}.line();
    QTest::newRow("request-not-closed")
        << QByteArray("127.0.0.1 - - [10/Oct/2024:13:55:36 +0200] \"GET / HTTP/1.1");
    QTest::newRow("request-is-an-opening-quote")
        << QByteArray("127.0.0.1 - - [10/Oct/2024:13:55:36 +0200] \"");
    QTest::newRow("request-ends-in-an-escaped-quote")
        << QByteArray(R"(127.0.0.1 - - [10/Oct/2024:13:55:36 +0200] "GET / HTTP/1.1\")");
    QTest::newRow("request-ends-in-a-backslash")
        << QByteArray("127.0.0.1 - - [10/Oct/2024:13:55:36 +0200] \"GET / HTTP/1.1\\");
    QTest::newRow("ends-at-the-request")
        << QByteArray("127.0.0.1 - - [10/Oct/2024:13:55:36 +0200] \"GET /\"");
    QTest::newRow("other-format-host-first") << "www.example.org:443 " + good;
    QTest::newRow("error-log") << QByteArray(
        "[Thu Oct 10 13:55:36.123456 2024] [core:error] [pid 1] AH00126: x");
}

void tst_LogParser::rejects()
{
    QFETCH(QByteArray, line);
    QVERIFY(!parse(line));
}

void tst_LogParser::clientField_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("ip");

    QTest::newRow("v4") << QByteArray("192.0.2.7") << u"192.0.2.7"_s;
    QTest::newRow("v6") << QByteArray("2001:db8::1") << u"2001:db8::1"_s;
    QTest::newRow("host-name") << QByteArray("crawl-66-249-66-1.googlebot.com")
                               << u"crawl-66-249-66-1.googlebot.com"_s;
    QTest::newRow("none") << QByteArray("-") << u"-"_s;
    QTest::newRow("not-validated") << QByteArray("999.1") << u"999.1"_s;
    QTest::newRow("latin-1") << QByteArray("h\xe9\xff") << u"h\u00e9\u00ff"_s;
    QTest::newRow("not-taken-for-utf-8") << QByteArray("\xc3\xa9") << u"\u00c3\u00a9"_s;
    QTest::newRow("nul-byte") << bytes("1\0002") << QString::fromLatin1("1\0002", 3);
    QTest::newRow("tab") << QByteArray("1.2.3.4\t-") << u"1.2.3.4\t-"_s;
    QTest::newRow("quoted") << QByteArray("\"1.2.3.4\"") << u"\"1.2.3.4\""_s;
    QTest::newRow("spaces-before") << QByteArray("   1.2.3.4") << u"1.2.3.4"_s;
    QTest::newRow("bracket-first") << QByteArray("[10/Oct/2024:13:55:36") << u"[10/Oct/2024:13:55:36"_s;
}

void tst_LogParser::clientField()
{
    QFETCH(QByteArray, text);
    const std::optional<LogLine> log = parse(Written{.ip = text}.line());
    QVERIFY(log);
    QTEST(log->ip, "ip");
}

void tst_LogParser::request_data()
{
    QTest::addColumn<QByteArray>("field");
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QByteArray>("target");
    const auto row = [](const char* name, const QByteArray& field, const QByteArray& method,
                        const QByteArray& target) { QTest::newRow(name) << field << method << target; };

    row("usual", R"("GET /a?b=1 HTTP/1.1")", "GET", "/a?b=1");
    row("empty", R"("")", "", "");
    row("dash", R"("-")", "-", "");
    row("method-alone", R"("OPTIONS")", "OPTIONS", "");
    row("method-and-space", R"("GET ")", "GET", "");
    row("no-protocol", R"("GET /")", "GET", "/");
    row("words-behind-the-protocol", R"("GET / HTTP/1.1 x y")", "GET", "/");
    row("two-spaces-leave-no-target", R"("GET  / HTTP/1.1")", "GET", "");
    row("space-first-leaves-no-method", R"(" GET / HTTP/1.1")", "", "GET");
    row("only-spaces", R"("   ")", "", "");
    row("tab-does-not-separate", "\"GET\t/ HTTP/1.1\"", "GET\t/", "HTTP/1.1");
    row("escaped-quotes", R"("GET /\"a\" HTTP/1.1")", "GET", "/\"a\"");
    row("escaped-backslash", R"("GET /a\\b HTTP/1.1")", "GET", R"(/a\b)");
    row("escaped-backslash-before-the-end", R"("GET /\\")", "GET", R"(/\)");
    row("escaped-quote-behind-escaped-backslash", R"("GET /\\\"")", "GET", R"(/\")");
    row("tls-greeting", R"("\x16\x03\x01")", "x16x03x01", "");
    row("escaped-letters-lose-their-backslash", R"("GET /a\tb\nc HTTP/1.1")", "GET", "/atbnc");
    row("escaped-space-separates", R"("GET\ / HTTP/1.1")", "GET", "/");
    row("brackets", R"("GET /[a]?b[]=1 HTTP/1.1")", "GET", "/[a]?b[]=1");
    row("percent-escapes-stay", R"("GET /%00%22 HTTP/1.1")", "GET", "/%00%22");
    row("nul-byte", bytes("\"GET /a\0b HTTP/1.1\""), "GET", bytes("/a\0b"));
    row("escaped-nul-byte", bytes("\"GET /a\\\0b HTTP/1.1\""), "GET", bytes("/a\0b"));
    row("invalid-utf-8", "\"GET /\xff\xc3( HTTP/1.1\"", "GET", "/\xff\xc3(");
    row("line-breaks-within", "\"GET /a\r\nb HTTP/1.1\"", "GET", "/a\r\nb");
}

void tst_LogParser::request()
{
    QFETCH(QByteArray, field);
    const std::optional<LogLine> log = parse(Written{.request = field}.line());
    QVERIFY(log);
    QTEST(log->method, "method");
    QTEST(log->target, "target");
    QCOMPARE(log->status, 200);
}

void tst_LogParser::status_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<qint32>("status");
    const auto accepted = [](const char* name, const QByteArray& text, qint32 status) {
        QTest::newRow(name) << text << true << status;
    };
    const auto rejected = [](const char* name, const QByteArray& text) {
        QTest::newRow(name) << text << false << 0;
    };

    accepted("found", "200", 200);
    accepted("zero", "0", 0);
    accepted("leading-zeros", "00404", 404);
    accepted("negative", "-5", -5);
    accepted("signed", "+200", 200);
    accepted("greatest", "2147483647", 2147483647);
    accepted("least", "-2147483648", std::numeric_limits<qint32>::min());
    accepted("tabs-around", "\t200\t", 200);
    rejected("greatest-plus-one", "2147483648");
    rejected("least-minus-one", "-2147483649");
    rejected("huge", QByteArray(1000, '9'));
    rejected("dash", "-");
    rejected("letters", "abc");
    rejected("trailing-garbage", "200x");
    rejected("leading-garbage", "x200");
    rejected("quoted", "\"200\"");
    rejected("hexadecimal", "0xc8");
    rejected("decimal-point", "200.0");
    rejected("exponent", "2e2");
    rejected("nul-byte-first", bytes("\000200"));
    rejected("invalid-utf-8", "\xff");
    rejected("arabic-digits", "\xd9\xa2\xd9\xa0\xd9\xa0");
}

void tst_LogParser::status()
{
    QFETCH(QByteArray, text);
    const std::optional<LogLine> log = parse(Written{.status = text}.line());
    QTEST(log.has_value(), "accepted");
    if (log)
        QTEST(log->status, "status");
}

void tst_LogParser::size_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<qint64>("size");
    const auto row = [](const char* name, const QByteArray& text, qint64 size) {
        QTest::newRow(name) << text << size;
    };

    row("usual", "2326", 2326);
    row("zero", "0", 0);
    row("dash", "-", 0);
    row("letters", "abc", 0);
    row("trailing-garbage", "12k", 0);
    row("quoted-field-follows-without-a-space", "12\"x\"", 0);
    row("negative", "-5", -5);
    row("over-32-bits", "4294967296", 4294967296);
    row("greatest", "9223372036854775807", kMost);
    row("greatest-plus-one", "9223372036854775808", 0);
    row("huge", QByteArray(1000, '9'), 0);
}

void tst_LogParser::size()
{
    QFETCH(QByteArray, text);
    const std::optional<LogLine> log = parse(Written{.bytes = text}.line());
    QVERIFY(log);
    QTEST(log->bytes, "size");
    QCOMPARE(log->userAgent, "Mozilla/5.0");
}

void tst_LogParser::referrerAndUserAgent_data()
{
    QTest::addColumn<QByteArray>("tail"); // what stands behind the size
    QTest::addColumn<QByteArray>("referrer");
    QTest::addColumn<QByteArray>("userAgent");
    QTest::addColumn<qint64>("responseUs");
    const auto row = [](const char* name, const QByteArray& tail, const QByteArray& referrer,
                        const QByteArray& userAgent, qint64 responseUs = 0) {
        QTest::newRow(name) << tail << referrer << userAgent << responseUs;
    };

    row("both", R"( "http://a/" "Mozilla/5.0")", "http://a/", "Mozilla/5.0");
    row("both-and-time", R"( "http://a/" "Mozilla/5.0" 7)", "http://a/", "Mozilla/5.0", 7);
    row("common-format", "", "", "");
    row("common-format-and-spaces", "   ", "", "");
    row("dashes", R"( "-" "-")", "", "");
    row("empty-fields", R"( "" "")", "", "");
    row("escaped-dash", R"( "\-" "\-")", "", "");
    row("dash-among-spaces-is-kept", R"( " -" "- ")", " -", "- ");
    row("no-user-agent", R"( "http://a/")", "http://a/", "");
    row("no-user-agent-but-time", R"( "http://a/" 7)", "http://a/", "", 7);
    row("referrer-without-quotes", R"( http://a/ "Mozilla/5.0")", "", "");
    row("referrer-is-a-bare-dash", R"( - "Mozilla/5.0")", "", "");
    row("referrer-without-quotes-and-time", R"( http://a/ "Mozilla/5.0" 7)", "", "", 7);
    row("referrer-in-single-quotes", R"( 'http://a/' "Mozilla/5.0")", "", "");
    row("user-agent-without-quotes", R"( "http://a/" Mozilla/5.0 7)", "http://a/", "", 7);
    row("referrer-not-closed-takes-the-rest", R"( "http://a/ 7)", "", "");
    row("referrer-not-closed-meets-the-agent", R"( "http://a/ "Mozilla/5.0" 7)", "http://a/ ", "", 7);
    row("user-agent-not-closed-takes-the-rest", R"( "http://a/" "Mozilla/5.0 7)", "http://a/", "");
    row("user-agent-is-an-opening-quote", R"( "http://a/" ")", "http://a/", "");
    row("referrer-ends-in-a-backslash", R"( "http://a/\)", "", "");
    row("user-agent-ends-in-a-backslash", R"( "http://a/" "Mozilla\)", "http://a/", "");
    row("user-agent-ends-in-an-escaped-quote", R"( "http://a/" "Mozilla\" 7)", "http://a/", "");
    row("user-agent-ends-in-an-escaped-backslash", R"( "http://a/" "Mozilla\\" 7)", "http://a/",
        R"(Mozilla\)", 7);
    row("escaped-quotes", R"( "a\"b" "My \"quoted\" agent" 7)", "a\"b", "My \"quoted\" agent", 7);
    row("escaped-backslashes", R"( "\\\\" "\\\"")", R"(\\)", R"(\")");
    row("escaped-bytes-are-not-decoded", R"( "http://caf\xe9/" "a\tb")", "http://cafxe9/", "atb");
    row("spaces-within-are-kept", R"( "  a  " "b   c" 7)", "  a  ", "b   c", 7);
    row("tabs-within-are-kept", " \"a\tb\" \"\t\" 7", "a\tb", "\t", 7);
    row("tab-between-is-no-space", " \"a\"\t\"b\" 7", "a", "", 7);
    row("nothing-between", R"( "a""b"7)", "a", "b", 7);
    row("nul-bytes", bytes(" \"a\0b\" \"\0\" 7"), bytes("a\0b"), bytes("\0"), 7);
    row("invalid-utf-8", " \"\xff\xfe\" \"\xc3(\x80\" 7", "\xff\xfe", "\xc3(\x80", 7);
    row("digits-in-the-agent", R"( "-" "curl 7" x)", "", "curl 7");
}

void tst_LogParser::referrerAndUserAgent()
{
    QFETCH(QByteArray, tail);
    const std::optional<LogLine> log =
        parse("127.0.0.1 - - [10/Oct/2024:13:55:36 +0200] \"GET /a?b=1 HTTP/1.1\" 200 2326" + tail);
    QVERIFY(log);
    QTEST(log->referrer, "referrer");
    QTEST(log->userAgent, "userAgent");
    QTEST(log->responseUs, "responseUs");
    QCOMPARE(log->bytes, 2326);
}

void tst_LogParser::responseTime_data()
{
    QTest::addColumn<QByteArray>("extra");
    QTest::addColumn<qint64>("responseUs");
    const auto row = [](const char* name, const QByteArray& extra, qint64 responseUs) {
        QTest::newRow(name) << extra << responseUs;
    };

    row("none", "", 0);
    row("alone", "1234", 1234);
    row("zero", "0", 0);
    row("seconds-and-microseconds", "0 1234", 1234);
    row("last-is-no-number", "1234 x", 0);
    row("last-is-a-fraction", "1234 0.123", 0);
    row("last-is-a-dash", "1234 -", 0);
    row("last-is-negative", "-1234", 0);
    row("last-is-signed", "+1234", 0);
    row("last-is-quoted", "\"1234\"", 0);
    row("last-ends-a-quoted-field", "\"a 1234\"", 0);
    row("last-behind-a-quoted-field", "\"a b\" 1234", 1234);
    row("last-within-a-quoted-field-not-closed", "\"a 1234", 1234);
    row("trailing-spaces", "1234   ", 1234);
    row("many-spaces-before", "    1234", 1234);
    row("trailing-tab", "1234\t", 0);
    row("trailing-carriage-return", "1234\r", 0);
    row("tab-joins-two", "12\t34", 0);
    row("leading-zeros", "0001234", 1234);
    row("many-leading-zeros", QByteArray(100, '0') + '7', 7);
    row("nul-byte-behind", bytes("1234\0"), 0);
    row("nul-byte-alone", bytes("\0"), 0);
    row("not-ascii-digits", "\xd9\xa2", 0);
    row("invalid-utf-8", "1\xff", 0);
    row("greatest", "9223372036854775807", kMost);
    row("greatest-plus-one", "9223372036854775808", kMost);
    row("over-64-bits", "18446744073709551617", kMost);
    row("thousand-digits", QByteArray(1000, '9'), kMost);
    row("many-fields", QByteArray("x ").repeated(500) + "55", 55);
}

void tst_LogParser::responseTime()
{
    QFETCH(QByteArray, extra);
    const std::optional<LogLine> log = parse(Written{.extra = extra}.line());
    QVERIFY(log);
    QTEST(log->responseUs, "responseUs");
    QCOMPARE(log->userAgent, "Mozilla/5.0");
}

void tst_LogParser::spacing_data()
{
    QTest::addColumn<QByteArray>("line");

    QTest::newRow("many-spaces") << QByteArray(
        "  127.0.0.1   -   -    [10/Oct/2024:13:55:36 +0200]   \"GET /a?b=1 HTTP/1.1\""
        "    200   2326   \"-\"   \"Mozilla/5.0\"   1234  ");
    QTest::newRow("as-few-as-can-be")
        << QByteArray("127.0.0.1 - - [10/Oct/2024:13:55:36 +0200]\"GET /a?b=1 HTTP/1.1\""
                      "200 2326 \"-\"\"Mozilla/5.0\"1234");
    QTest::newRow("user-in-brackets") << Written{.identAndUser = "[x] [y]", .extra = "1234"}.line();
    QTest::newRow("user-with-a-quote") << Written{.identAndUser = "\"a b\"", .extra = "1234"}.line();
}

void tst_LogParser::spacing()
{
    QFETCH(QByteArray, line);
    const QString difference = reference::difference(parse(line), parse(Written{.extra = "1234"}.line()));
    QVERIFY2(difference.isEmpty(), qPrintable(difference));
}

QTEST_APPLESS_MAIN(tst_LogParser)
#include "tst_LogParser.moc"
