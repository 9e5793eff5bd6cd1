#include "analytics/LogLines.h"

#include <QRegularExpression>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::analytics;
using namespace tarn::test;

namespace {

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

/// The time of a line.
class tst_LogParserTime : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QTest::failOnWarning(QRegularExpression(u".?"_s)); }

    void time_data();
    void time();

    void timeDoesNotDependOnTheLocalZone_data();
    void timeDoesNotDependOnTheLocalZone();
};

void tst_LogParserTime::time_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("at"); // empty: the line is rejected
    addZoneRows();
    addPositionRows();
    addMonthRows();
    addDayRows();
    addYearRows();
}

void tst_LogParserTime::time()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, at);
    const std::optional<LogLine> log = parse(Written{.time = '[' + text + ']'}.line());
    QCOMPARE(log ? shown(log->at) : QString(), at);
}

void tst_LogParserTime::timeDoesNotDependOnTheLocalZone_data()
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

void tst_LogParserTime::timeDoesNotDependOnTheLocalZone()
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

QTEST_APPLESS_MAIN(tst_LogParserTime)
#include "tst_LogParserTime.moc"
