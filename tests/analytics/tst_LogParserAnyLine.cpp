#include "analytics/Dice.h"
#include "analytics/LogLines.h"
#include "analytics/LogParserReference.h"
#include "support/CpuTime.h"
#include "support/HostileTexts.h"

#include <QRegularExpression>
#include <QTest>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::analytics;
using namespace tarn::test;
using tarn::tests::Dice;

namespace {

constexpr qsizetype kMegabyte = 1'048'576;
constexpr int kRoundTrips = 5000;
constexpr int kMutations = 20000;

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

} // namespace

/// Lines of any content: cut, huge, random, damaged, hostile.
class tst_LogParserAnyLine : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void everyPrefixOfALine();

    void fieldsOfAMegabyte_data();
    void fieldsOfAMegabyte();

    void writtenLinesReadBackEqual();

    void damagedLinesAgreeWithTheReference();

    void furtherFieldsCostLittleMoreThanOne_data();
    void furtherFieldsCostLittleMoreThanOne();
};

void tst_LogParserAnyLine::everyPrefixOfALine()
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

void tst_LogParserAnyLine::fieldsOfAMegabyte_data()
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

void tst_LogParserAnyLine::fieldsOfAMegabyte()
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

void tst_LogParserAnyLine::writtenLinesReadBackEqual()
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

void tst_LogParserAnyLine::damagedLinesAgreeWithTheReference()
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

void tst_LogParserAnyLine::furtherFieldsCostLittleMoreThanOne_data()
{
    QTest::addColumn<QByteArray>("unit");
    for (const tarn::tests::Shape& shape : tarn::tests::hostileShapes())
        QTest::newRow(shape.name) << shape.unit;
}

/// By the ratio within one run; thousands of fields of one letter took 100 times as long as one of that
/// length.
void tst_LogParserAnyLine::furtherFieldsCostLittleMoreThanOne()
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

QTEST_APPLESS_MAIN(tst_LogParserAnyLine)
#include "tst_LogParserAnyLine.moc"
