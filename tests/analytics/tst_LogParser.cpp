#include "analytics/LogParser.h"

#include "analytics/Dice.h"
#include "analytics/LogParserReference.h"
#include "support/CpuTime.h"
#include "support/HostileTexts.h"

#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <ctime>
#include <limits>
#include <vector>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::analytics;
using tarn::tests::Dice;

namespace {

constexpr qint64 kMost = std::numeric_limits<qint64>::max();
constexpr qsizetype kMegabyte = 1'048'576;
constexpr int kRoundTrips = 5000;
constexpr int kMutations = 20000;

/// The parts of a line as they are written, with their quotes and brackets.
struct Written
{
    QByteArray ip = "127.0.0.1";
    QByteArray identAndUser = "- -";
    QByteArray time = "[10/Oct/2024:13:55:36 +0200]";
    QByteArray request = "\"GET /a?b=1 HTTP/1.1\"";
    QByteArray status = "200";
    QByteArray bytes = "2326";
    QByteArray referrer = "\"-\"";
    QByteArray userAgent = "\"Mozilla/5.0\"";
    QByteArray extra = {};

    QByteArray line() const
    {
        QByteArray text = ip + ' ' + identAndUser + ' ' + time + ' ' + request + ' ' + status + ' ' + bytes
                          + ' ' + referrer + ' ' + userAgent;
        return extra.isEmpty() ? text : text + ' ' + extra;
    }
};

/// The parser is given the line in a block of exactly its size, so that the address sanitizer sees a read
/// past it.
std::optional<LogLine> parse(const QByteArray& line)
{
    const std::vector<char> exact(line.begin(), line.end());
    return parseCombined(QByteArrayView(exact.data(), static_cast<qsizetype>(exact.size())));
}

/// "2024-10-10 11:55:36 UTC"; years before 1 have a minus sign, which Qt's own formats leave out or refuse.
QString shown(const QDateTime& at)
{
    const QDate date = at.date();
    return u"%1-%2-%3 %4%5"_s.arg(date.year())
        .arg(date.month(), 2, 10, QChar(u'0'))
        .arg(date.day(), 2, 10, QChar(u'0'))
        .arg(at.time().toString(u"HH:mm:ss"_s), at.timeSpec() == Qt::UTC ? u" UTC"_s : u" in another zone"_s);
}

/// A literal with the NUL bytes that stand in it.
template <std::size_t size>
QByteArray bytes(const char (&literal)[size])
{
    return QByteArray(literal, static_cast<qsizetype>(size) - 1);
}

/// How Apache writes a quoted field: quotes and backslashes with a backslash before them.
QByteArray escaped(const QByteArray& text)
{
    QByteArray result;
    for (const char c : text) {
        if (c == '"' || c == '\\')
            result += '\\';
        result += c;
    }
    return '"' + result + '"';
}

LogLine randomLogLine(Dice& dice)
{
    const QByteArrayView anyText = "abcXYZ0189 -_/?&=%.,;:+()[]{}<>'\"\\\"\\\t\x80\xa9\xc3\xff";
    const QByteArrayView pathText = "abcXYZ0189-_/?&=%.+[]\"\\\x80\xc3\xff";
    LogLine log;
    log.ip = QString::fromLatin1(
        dice.oneOf<QByteArray>({"192.0.2.7", "2001:db8::1", "host.example.com", "-", "\xe9t\xe9"}));
    // Two centuries of seconds from 1950 on.
    log.at = QDateTime(QDate(1950, 1, 1), QTime(0, 0), Qt::UTC)
                 .addDays(dice.below(73049))
                 .addSecs(dice.below(86400));
    log.method = dice.oneOf<QByteArray>({"GET", "POST", "HEAD", "-", "\x16\x03\x01"});
    log.target = dice.oneIn(8) ? QByteArray() : '/' + dice.text(pathText, 60);
    log.status = 100 + dice.below(500);
    log.bytes = dice.oneIn(4) ? 0 : static_cast<qint64>(dice.below(1'000'000'000)) * dice.below(100'000);
    log.referrer = dice.text(anyText, 80);
    log.userAgent = dice.text(anyText, 200);
    log.responseUs = dice.oneIn(3) ? 0 : dice.below(1'000'000'000);
    // A field that is just this stands for none.
    for (QByteArray* field : {&log.referrer, &log.userAgent}) {
        if (*field == "-")
            field->clear();
    }
    return log;
}

/// @p log as a web server in a random zone would log it.
QByteArray written(const LogLine& log, Dice& dice)
{
    const int offsetMinutes = (dice.below(65) - 32) * 30;
    const QDateTime local = log.at.addSecs(offsetMinutes * 60LL);
    Written parts;
    parts.ip = log.ip.toLatin1();
    parts.identAndUser = dice.oneOf<QByteArray>({"- -", "- frank", "ident [user]", "  -   -  "});
    parts.time =
        QLocale::c().toString(local, u"[dd/MMM/yyyy:HH:mm:ss "_s).toLatin1() + (offsetMinutes < 0 ? '-' : '+')
        + QByteArray::number(qAbs(offsetMinutes) / 60 * 100 + qAbs(offsetMinutes) % 60).rightJustified(4, '0')
        + ']';
    parts.request = escaped(log.target.isEmpty() ? log.method : log.method + ' ' + log.target + " HTTP/1.1");
    parts.status = QByteArray::number(log.status);
    parts.bytes = log.bytes == 0 ? QByteArray("-") : QByteArray::number(log.bytes);
    parts.referrer = escaped(log.referrer.isEmpty() ? "-" : log.referrer);
    parts.userAgent = escaped(log.userAgent.isEmpty() ? "-" : log.userAgent);
    const bool otherFields = dice.oneIn(2);
    if (log.responseUs > 0) {
        parts.extra = (otherFields ? "www.example.org 0 " : "") + QByteArray::number(log.responseUs);
    } else {
        parts.extra = otherFields ? "17 \"quoted 5\"" : "";
    }
    return parts.line();
}

/// @p line after a single small accident.
QByteArray damaged(QByteArray line, Dice& dice)
{
    const QByteArray telling = bytes("\0\t\n\r \"\\[]:/+-0159xDec\x7f\x80\xff");
    const char c = dice.oneIn(4) ? static_cast<char>(dice.below(256)) : telling[dice.below(telling.size())];
    const qsizetype at = line.isEmpty() ? 0 : dice.below(line.size());
    switch (dice.below(6)) {
    case 0:
        return line.insert(at, c);
    case 1:
        return line.remove(at, 1);
    case 2:
        return line.remove(at, dice.below(12));
    case 3:
        return line.insert(at, line.mid(dice.below(line.size() + 1), dice.below(40)));
    case 4:
        return dice.oneIn(3) ? line.left(at) : line;
    default:
        return line.isEmpty() ? line : line.replace(at, 1, QByteArray(1, c));
    }
}

/// A row of the test of times: read as @p at, without the zone.
void timeAccepted(const QByteArray& name, const QByteArray& text, const QString& at)
{
    QTest::newRow(name.constData()) << text << at + u" UTC"_s;
}

void timeRejected(const char* name, const QByteArray& text)
{
    QTest::newRow(name) << text << QString();
}

void addZoneRows()
{
    timeAccepted("utc", "10/Oct/2024:13:55:36 +0000", u"2024-10-10 13:55:36"_s);
    timeAccepted("utc-with-minus", "10/Oct/2024:13:55:36 -0000", u"2024-10-10 13:55:36"_s);
    timeAccepted("east-is-earlier-in-utc", "10/Oct/2024:13:55:36 +0200", u"2024-10-10 11:55:36"_s);
    timeAccepted("west-is-later-in-utc", "10/Oct/2024:13:55:36 -0700", u"2024-10-10 20:55:36"_s);
    timeAccepted("offset-half-hour", "10/Oct/2024:13:55:36 +0530", u"2024-10-10 08:25:36"_s);
    timeAccepted("offset-quarter-hour-west", "10/Oct/2024:13:55:36 -0345", u"2024-10-10 17:40:36"_s);
    timeAccepted("offset-14-hours", "10/Oct/2024:13:55:36 +1400", u"2024-10-09 23:55:36"_s);
    timeAccepted("offset-past-14-hours", "10/Oct/2024:13:55:36 +1401", u"2024-10-09 23:54:36"_s);
    timeAccepted("offset-15-hours", "10/Oct/2024:13:55:36 +1500", u"2024-10-09 22:55:36"_s);
    timeAccepted("offset-15-hours-west", "10/Oct/2024:13:55:36 -1500", u"2024-10-11 04:55:36"_s);
    timeAccepted("offset-16-hours", "10/Oct/2024:13:55:36 +1600", u"2024-10-09 21:55:36"_s);
    timeAccepted("offset-16-hours-west", "10/Oct/2024:13:55:36 -1600", u"2024-10-11 05:55:36"_s);
    timeAccepted("offset-16-hours-as-minutes", "10/Oct/2024:13:55:36 +1560", u"2024-10-09 21:55:36"_s);
    timeAccepted("offset-16-hours-west-as-minutes", "10/Oct/2024:13:55:36 -1560", u"2024-10-11 05:55:36"_s);
    timeAccepted("offset-minutes-over-59", "10/Oct/2024:13:55:36 +0099", u"2024-10-10 12:16:36"_s);
    timeRejected("offset-16-hours-and-a-minute", "10/Oct/2024:13:55:36 +1601");
    timeRejected("offset-16-hours-and-a-minute-west", "10/Oct/2024:13:55:36 -1601");
    timeRejected("offset-past-16-hours-as-minutes", "10/Oct/2024:13:55:36 +1561");
    timeRejected("offset-past-16-hours-west-as-minutes", "10/Oct/2024:13:55:36 -1561");
    timeRejected("offset-17-hours", "10/Oct/2024:13:55:36 +1700");
    timeRejected("offset-17-hours-west", "10/Oct/2024:13:55:36 -1700");
    timeRejected("offset-99-hours", "10/Oct/2024:13:55:36 +9999");
    timeAccepted("offset-is-no-number", "10/Oct/2024:13:55:36 +zzzz", u"2024-10-10 13:55:36"_s);
    timeAccepted("offset-half-a-number", "10/Oct/2024:13:55:36 +01zz", u"2024-10-10 12:55:36"_s);
    timeAccepted("offset-with-colon", "10/Oct/2024:13:55:36 +02:30", u"2024-10-10 11:55:36"_s);
    timeAccepted("offset-without-sign-is-east", "10/Oct/2024:13:55:36  0200", u"2024-10-10 11:55:36"_s);
    timeAccepted("offset-signed-twice", "10/Oct/2024:13:55:36 --100", u"2024-10-10 12:55:36"_s);
}

void addPositionRows()
{
    timeAccepted("separators-are-not-looked-at", "10xOct?2024_13.55~36\xff+0200", u"2024-10-10 11:55:36"_s);
    timeAccepted("separators-are-digits", "109Oct92024913955936900200", u"2024-10-10 11:55:36"_s);
    timeAccepted("separators-are-nul", bytes("10\0Oct\0002024\00013\00055\00036\0+0200"),
                 u"2024-10-10 11:55:36"_s);
    timeAccepted("text-behind-the-zone", "10/Oct/2024:13:55:36 +0200 and more", u"2024-10-10 11:55:36"_s);
    timeAccepted("digits-behind-the-zone", "10/Oct/2024:13:55:36 +020099", u"2024-10-10 11:55:36"_s);
    timeAccepted("opening-bracket-within", "10/Oct/2024[13:55:36 +0200", u"2024-10-10 11:55:36"_s);
    timeRejected("no-zone", "10/Oct/2024:13:55:36");
    timeRejected("one-character-short", "10/Oct/2024:13:55:36 +020");
    timeRejected("empty", "");
    timeRejected("space-first", " 10/Oct/2024:13:55:36 +0200");
    timeRejected("milliseconds", "10/Oct/2024:13:55:36.123 +0200"); // "23" hours and " +" minutes of zone
    timeRejected("iso", "2024-10-10T13:55:36.000000+02:00");
    timeRejected("bracket-cuts-it-short", "10/Oct/2024:13:55:36] +0200");
}

void addMonthRows()
{
    timeRejected("month-lower-case", "10/oct/2024:13:55:36 +0200");
    timeRejected("month-upper-case", "10/OCT/2024:13:55:36 +0200");
    timeRejected("month-unknown", "10/Okt/2024:13:55:36 +0200");
    timeRejected("month-number", "10/010/2024:13:55:36 +0200");
    timeRejected("month-empty", "10/   /2024:13:55:36 +0200");
    const QList<QByteArray> months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    for (int month = 1; month <= 12; ++month) {
        timeAccepted("month-" + months[month - 1].toLower(),
                     "28/" + months[month - 1] + "/2023:00:00:00 +0000",
                     u"2023-%1-28 00:00:00"_s.arg(month, 2, 10, QChar(u'0')));
    }
}

void addDayRows()
{
    timeAccepted("first-day", "01/Jan/2024:00:00:00 +0000", u"2024-01-01 00:00:00"_s);
    timeAccepted("last-second", "31/Dec/2024:23:59:59 +0000", u"2024-12-31 23:59:59"_s);
    timeAccepted("into-the-year-before", "01/Jan/2024:00:30:00 +0100", u"2023-12-31 23:30:00"_s);
    timeAccepted("into-the-next-year", "31/Dec/2024:23:30:00 -0100", u"2025-01-01 00:30:00"_s);
    timeAccepted("into-a-leap-day", "01/Mar/2024:00:30:00 +0100", u"2024-02-29 23:30:00"_s);
    timeAccepted("past-a-missing-leap-day", "28/Feb/2023:23:30:00 -0100", u"2023-03-01 00:30:00"_s);
    timeAccepted("leap-day", "29/Feb/2024:12:00:00 +0000", u"2024-02-29 12:00:00"_s);
    timeRejected("leap-day-in-a-common-year", "29/Feb/2023:12:00:00 +0000");
    timeRejected("leap-day-in-a-common-century", "29/Feb/1900:12:00:00 +0000");
    timeAccepted("leap-day-every-400-years", "29/Feb/2000:12:00:00 +0000", u"2000-02-29 12:00:00"_s);
    timeRejected("february-30", "30/Feb/2024:12:00:00 +0000");
    timeRejected("april-31", "31/Apr/2024:12:00:00 +0000");
    timeRejected("day-0", "00/Oct/2024:12:00:00 +0000");
    timeRejected("day-32", "32/Oct/2024:12:00:00 +0000");
    timeRejected("day-negative", "-1/Oct/2024:12:00:00 +0000");
    timeRejected("day-is-no-number", "xx/Oct/2024:12:00:00 +0000");
    timeAccepted("day-padded-with-a-space", " 1/Oct/2024:12:00:00 +0000", u"2024-10-01 12:00:00"_s);
    timeRejected("hour-24", "10/Oct/2024:24:00:00 +0000");
    timeRejected("hour-negative", "10/Oct/2024:-1:00:00 +0000");
    timeAccepted("hour-is-no-number", "10/Oct/2024:xx:10:00 +0000", u"2024-10-10 00:10:00"_s);
    timeRejected("minute-60", "10/Oct/2024:12:60:00 +0000");
    timeRejected("leap-second", "30/Jun/2015:23:59:60 +0000");
    timeAccepted("second-is-no-number", "10/Oct/2024:12:10:zz +0000", u"2024-10-10 12:10:00"_s);
    timeAccepted("one-hour-hand-signed", "10/Oct/2024:+1:10:00 +0000", u"2024-10-10 01:10:00"_s);
}

void addYearRows()
{
    timeAccepted("before-1970", "31/Dec/1969:23:59:59 +0000", u"1969-12-31 23:59:59"_s);
    timeAccepted("year-1", "01/Jan/0001:00:00:00 +0000", u"1-01-01 00:00:00"_s);
    timeAccepted("year-1-and-a-zone-out-of-it", "01/Jan/0001:00:00:00 +1600", u"-1-12-31 08:00:00"_s);
    timeAccepted("year-9999", "31/Dec/9999:23:59:59 +0000", u"9999-12-31 23:59:59"_s);
    timeAccepted("year-9999-and-a-zone-out-of-it", "31/Dec/9999:23:59:59 -1600", u"10000-01-01 15:59:59"_s);
    timeRejected("year-0", "01/Jan/0000:00:00:00 +0000");
    timeAccepted("year-negative", "01/Jan/-001:00:00:00 +0000", u"-1-01-01 00:00:00"_s);
    timeAccepted("year-negative-and-a-zone-into-year-1", "31/Dec/-001:23:00:00 -0100", u"1-01-01 00:00:00"_s);
    timeAccepted("year-negative-leap-day", "29/Feb/-001:00:00:00 +0000", u"-1-02-29 00:00:00"_s);
    timeRejected("year-is-no-number", "10/Oct/abcd:12:00:00 +0000");
    timeRejected("year-half-a-number", "10/Oct/20xx:12:00:00 +0000");
    timeRejected("all-zero", "00/000/0000:00:00:00 +0000");
    timeRejected("all-spaces", "                          ");
}

} // namespace

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

    void time_data();
    void time();
    void timeDoesNotDependOnTheLocalZone_data();
    void timeDoesNotDependOnTheLocalZone();

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

    void everyPrefixOfALine();
    void fieldsOfAMegabyte_data();
    void fieldsOfAMegabyte();
    void writtenLinesReadBackEqual();
    void damagedLinesAgreeWithTheReference();
    void furtherFieldsCostLittleMoreThanOne_data();
    void furtherFieldsCostLittleMoreThanOne();
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

void tst_LogParser::time_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("at"); // empty: the line is rejected
    addZoneRows();
    addPositionRows();
    addMonthRows();
    addDayRows();
    addYearRows();
}

void tst_LogParser::time()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, at);
    const std::optional<LogLine> log = parse(Written{.time = '[' + text + ']'}.line());
    QCOMPARE(log ? shown(log->at) : QString(), at);
}

void tst_LogParser::timeDoesNotDependOnTheLocalZone_data()
{
    QTest::addColumn<QByteArray>("zone");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("at");

    // Each of these local times is left out by the clocks of its zone.
    QTest::newRow("spring-forward-in-new-york")
        << QByteArray("America/New_York") << QByteArray("10/Mar/2024:02:30:00 +0000")
        << u"2024-03-10 02:30:00 UTC"_s;
    QTest::newRow("spring-forward-in-berlin")
        << QByteArray("Europe/Berlin") << QByteArray("31/Mar/2024:02:30:00 +0200")
        << u"2024-03-31 00:30:00 UTC"_s;
    QTest::newRow("day-left-out-in-samoa")
        << QByteArray("Pacific/Apia") << QByteArray("30/Dec/2011:12:00:00 -1000")
        << u"2011-12-30 22:00:00 UTC"_s;
}

void tst_LogParser::timeDoesNotDependOnTheLocalZone()
{
    QFETCH(QByteArray, zone);
    QFETCH(QByteArray, text);
    const QByteArray before = qgetenv("TZ");
    qputenv("TZ", zone);
    tzset();
    const std::optional<LogLine> log = parse(Written{.time = '[' + text + ']'}.line());
    qputenv("TZ", before);
    tzset();
    QVERIFY(log);
    QTEST(shown(log->at), "at");
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

void tst_LogParser::everyPrefixOfALine()
{
    const QByteArray line = Written{.request = R"("GET /\"a\\b HTTP/1.1")",
                                    .referrer = R"("http://a/?q=\"x\"")",
                                    .userAgent = R"("Mozilla/5.0 \"x\" \\")",
                                    .extra = "0 1234"}
                                .line();
    for (qsizetype length = 0; length <= line.size(); ++length) {
        const QByteArray prefix = line.left(length);
        const QString difference = reference::difference(parse(prefix), reference::parseCombined(prefix));
        QVERIFY2(difference.isEmpty(), qPrintable(u"%1 bytes: %2"_s.arg(length).arg(difference)));
    }
}

void tst_LogParser::fieldsOfAMegabyte_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<qsizetype>("longest"); // text of the record; -1 when the line is rejected
    QTest::addColumn<qint64>("responseUs");
    const auto row = [](const char* name, const QByteArray& line, qsizetype longest, qint64 responseUs = 0) {
        QTest::newRow(name) << line << longest << responseUs;
    };
    const QByteArray plain(kMegabyte, 'a');
    const QByteArray quotes = QByteArray(R"(\")").repeated(kMegabyte);
    const QByteArray backslashes(2 * kMegabyte, '\\');
    const QByteArray spaces(kMegabyte, ' ');
    const QByteArray digits(kMegabyte, '9');
    const QByteArray words = QByteArray("7 ").repeated(kMegabyte);
    const qsizetype agent = QByteArrayView("Mozilla/5.0").size();
    const qsizetype address = QByteArrayView("127.0.0.1").size();

    row("client", Written{.ip = plain}.line(), kMegabyte);
    row("user", Written{.identAndUser = "- " + plain}.line(), agent);
    row("spaces-before-the-time", Written{.identAndUser = "- - " + spaces}.line(), agent);
    row("time", Written{.time = "[10/Oct/2024:13:55:36 +0200" + plain + ']'}.line(), agent);
    row("time-not-closed", "127.0.0.1 - - [" + plain, -1);
    row("target", Written{.request = "\"GET " + plain + " HTTP/1.1\""}.line(), kMegabyte);
    row("method", Written{.request = '"' + plain + '"'}.line(), kMegabyte);
    row("request-of-spaces", Written{.request = '"' + spaces + '"'}.line(), agent);
    row("status", Written{.status = digits}.line(), -1);
    row("size", Written{.bytes = digits}.line(), agent);
    row("referrer", Written{.referrer = '"' + plain + '"'}.line(), kMegabyte);
    row("referrer-without-quotes", Written{.referrer = plain}.line(), address);
    row("escaped-quotes", Written{.userAgent = '"' + quotes + '"'}.line(), kMegabyte);
    row("escaped-backslashes", Written{.userAgent = '"' + backslashes + '"'}.line(), kMegabyte);
    row("user-agent-not-closed", Written{.userAgent = '"' + quotes}.line(), address);
    row("response-time", Written{.extra = digits}.line(), agent, kMost);
    row("many-further-fields", Written{.extra = words}.line(), agent, 7);
    row("spaces-at-the-end", Written{.extra = "7" + spaces}.line(), agent, 7);
}

void tst_LogParser::fieldsOfAMegabyte()
{
    QFETCH(QByteArray, line);
    const std::optional<LogLine> log = parse(line);
    if (!log) {
        QTEST(qsizetype(-1), "longest");
        return;
    }
    QTEST(std::max({log->ip.size(), log->method.size(), log->target.size(), log->referrer.size(),
                    log->userAgent.size()}),
          "longest");
    QTEST(log->responseUs, "responseUs");
}

void tst_LogParser::writtenLinesReadBackEqual()
{
    Dice dice(20241010);
    for (int round = 0; round < kRoundTrips; ++round) {
        const LogLine log = randomLogLine(dice);
        const QByteArray line = written(log, dice);
        const QString difference = reference::difference(parse(line), log);
        QVERIFY2(difference.isEmpty(),
                 qPrintable(u"round %1: %2\n%3"_s.arg(round).arg(
                     difference, QString::fromLatin1(line.toPercentEncoding(" \"[]/:")))));
    }
}

void tst_LogParser::damagedLinesAgreeWithTheReference()
{
    Dice dice(36551310);
    int accepted = 0;
    for (int round = 0; round < kMutations; ++round) {
        QByteArray line =
            round % 4 == 0 ? Written{.extra = "1234"}.line() : written(randomLogLine(dice), dice);
        for (int accidents = 1 + dice.below(4); accidents > 0; --accidents)
            line = damaged(line, dice);
        const std::optional<LogLine> log = parse(line);
        const QString where =
            u"round %1: %2"_s.arg(round).arg(QString::fromLatin1(line.toPercentEncoding(" \"[]/:")));
        const QString difference = reference::difference(log, reference::parseCombined(line));
        QVERIFY2(difference.isEmpty(), qPrintable(difference + u'\n' + where));
        if (!log)
            continue;
        ++accepted;
        QVERIFY2(log->at.isValid() && log->at.timeSpec() == Qt::UTC, qPrintable(where));
        QVERIFY2(log->responseUs >= 0, qPrintable(where));
        QVERIFY2(!log->ip.isEmpty() && !log->ip.contains(u' '), qPrintable(where));
        QVERIFY2(!log->method.contains(' ') && !log->target.contains(' '), qPrintable(where));
        QVERIFY2(log->referrer != "-" && log->userAgent != "-", qPrintable(where));
    }
    // Lines that are all good or all spoilt would show little.
    QVERIFY2(accepted > kMutations / 4 && accepted < kMutations * 3 / 4,
             qPrintable(QString::number(accepted)));
}

void tst_LogParser::furtherFieldsCostLittleMoreThanOne_data()
{
    QTest::addColumn<QByteArray>("unit");
    for (const tarn::tests::Shape& shape : tarn::tests::hostileShapes())
        QTest::newRow(shape.name) << shape.unit;
}

/// By the ratio within one run; thousands of fields of one letter took 100 times as long as one of that
/// length.
void tst_LogParser::furtherFieldsCostLittleMoreThanOne()
{
    constexpr qsizetype kBytes = 65'536;
    QFETCH(QByteArray, unit);
    const auto costOf = [](const QByteArray& fields) {
        const QByteArray line = Written{.extra = fields}.line();
        return tarn::tests::leastSeconds(5, [&line] { parse(line); });
    };
    const double plain = costOf(QByteArray(kBytes, 'x'));
    const double hostile = costOf(tarn::tests::textOf(unit, kBytes));
    QVERIFY2(hostile < tarn::tests::kMostTimes * plain,
             qPrintable(u"%1 us, %2 us"_s.arg(hostile * 1e6).arg(plain * 1e6)));
}

QTEST_APPLESS_MAIN(tst_LogParser)
#include "tst_LogParser.moc"
