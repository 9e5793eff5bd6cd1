#include "report/Format.h"

#include <QTest>

#include <limits>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::report;

class tst_Format : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void counts_data();
    void counts();
    void figures_data();
    void figures();
    void dates();
};

namespace {

/// The narrow no-break space shown as "_", the ordinary no-break space as "~", so that the rows below can be
/// read.
QString readable(QString text)
{
    return text.replace(QChar(0x202F), u'_').replace(QChar::Nbsp, u'~').replace(QChar(0x2212), u'-');
}

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

} // namespace

void tst_Format::counts_data()
{
    QTest::addColumn<qint64>("number");
    QTest::addColumn<QString>("expected");

    QTest::newRow("zero") << qint64(0) << u"0"_s;
    QTest::newRow("three-digits") << qint64(999) << u"999"_s;
    QTest::newRow("four-digits") << qint64(1000) << u"1_000"_s;
    QTest::newRow("seven-digits") << qint64(1234567) << u"1_234_567"_s;
    QTest::newRow("negative-three-digits") << qint64(-999) << u"-999"_s;
    QTest::newRow("negative-six-digits") << qint64(-123456) << u"-123_456"_s;
    QTest::newRow("greatest") << std::numeric_limits<qint64>::max() << u"9_223_372_036_854_775_807"_s;
    QTest::newRow("smallest") << std::numeric_limits<qint64>::min() << u"-9_223_372_036_854_775_808"_s;
}

void tst_Format::counts()
{
    QFETCH(const qint64, number);
    QTEST(readable(count(number)), "expected");
}

void tst_Format::figures_data()
{
    QTest::addColumn<QString>("actual");
    QTest::addColumn<QString>("expected");

    QTest::newRow("decimal") << decimal(1234.56, 1) << u"1_234.6"_s;
    QTest::newRow("decimal-whole") << decimal(1234.56, 0) << u"1_235"_s;
    QTest::newRow("decimal-negative") << decimal(-1234.56, 2) << u"-1_234.56"_s;
    QTest::newRow("decimal-nan") << decimal(kNaN, 2) << u"–"_s;
    QTest::newRow("bytes") << bytes(1023) << u"1_023_B"_s;
    QTest::newRow("bytes-kib") << bytes(1024) << u"1.0_KiB"_s;
    QTest::newRow("bytes-three-digits") << bytes(200.0 * 1024) << u"200_KiB"_s;
    QTest::newRow("bytes-just-below-a-unit") << bytes(1024.0 * 1024 - 1) << u"1.0_MiB"_s;
    QTest::newRow("bytes-greatest") << bytes(9.2e18) << u"8.0_EiB"_s;
    QTest::newRow("bytes-infinite") << bytes(std::numeric_limits<double>::infinity()) << u"–"_s;
    QTest::newRow("growth") << growth(2048) << u"+2.0_KiB"_s;
    QTest::newRow("growth-none") << growth(0) << u"0_B"_s;
    QTest::newRow("growth-negative") << growth(-2048) << u"-2.0_KiB"_s;
    QTest::newRow("percent") << percent(12.34) << u"12.3_%"_s;
    QTest::newRow("percent-hundred") << percent(99.96) << u"100_%"_s;
    QTest::newRow("percent-nan") << percent(kNaN) << u"–"_s;
    QTest::newRow("seconds") << duration(59.4) << u"59_s"_s;
    QTest::newRow("minutes") << duration(59.5) << u"1_min~00_s"_s;
    QTest::newRow("minutes-most") << duration(3599) << u"59_min~59_s"_s;
    QTest::newRow("hours") << duration(7500) << u"2_h~05_min"_s;
    QTest::newRow("hours-most") << duration(3 * 86400 - 1) << u"71_h~59_min"_s;
    QTest::newRow("days") << duration(3 * 86400 + 4 * 3600) << u"3_d~4_h"_s;
    QTest::newRow("duration-nan") << duration(kNaN) << u"–"_s;
    QTest::newRow("response-short") << responseTime(1234) << u"1.2_ms"_s;
    QTest::newRow("response") << responseTime(123456) << u"123_ms"_s;
    QTest::newRow("response-long") << responseTime(12'340'000) << u"12.3_s"_s;
    QTest::newRow("response-nan") << responseTime(kNaN) << u"–"_s;
    QTest::newRow("change-more") << change(112, 100) << u"+12_%"_s;
    QTest::newRow("change-less") << change(50, 100) << u"-50_%"_s;
    QTest::newRow("change-none") << change(1001, 1000) << u"±0_%"_s;
    QTest::newRow("change-from-nothing") << change(3, 0) << u"new"_s;
    QTest::newRow("points-more") << points(1.04) << u"+1.0 points"_s;
    QTest::newRow("points-less") << points(-12.34) << u"-12.3 points"_s;
    QTest::newRow("points-none") << points(-0.04) << u"±0 points"_s;
    QTest::newRow("scale-decimal") << scaleLabel(decimal(5, 1)) << u"5"_s;
    QTest::newRow("scale-unit") << scaleLabel(bytes(16.0 * 1024)) << u"16_KiB"_s;
    QTest::newRow("scale-needed") << scaleLabel(decimal(1.05, 2)) << u"1.05"_s;
    QTest::newRow("scale-half") << scaleLabel(bytes(1.5 * 1024)) << u"1.5_KiB"_s;
    QTest::newRow("scale-groups") << scaleLabel(count(100'000)) << u"100_000"_s;
    QTest::newRow("scale-minutes") << scaleLabel(duration(120)) << u"2_min"_s;
    QTest::newRow("scale-seconds-needed") << scaleLabel(duration(90)) << u"1_min~30_s"_s;
    QTest::newRow("scale-days") << scaleLabel(duration(10 * 86400)) << u"10_d"_s;
    QTest::newRow("change-nothing-at-all") << change(0, 0) << u"–"_s;
}

void tst_Format::figures()
{
    QFETCH(const QString, actual);
    QTEST(readable(actual), "expected");
}

void tst_Format::dates()
{
    QCOMPARE(isoDate(QDate(2026, 3, 9)), u"2026-03-09"_s);
    QCOMPARE(isoMinute(QDateTime(QDate(2026, 3, 9), QTime(7, 5, 59), Qt::UTC)), u"2026-03-09 07:05"_s);
}

QTEST_GUILESS_MAIN(tst_Format)
#include "tst_Format.moc"
