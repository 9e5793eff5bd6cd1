#include "report/Svg.h"

#include "Golden.h"

#include <QTest>

#include <cmath>
#include <limits>

using namespace Qt::Literals::StringLiterals;
using namespace tarn::report;
using tarn::test::golden;
using tarn::test::inLines;

class tst_Svg : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tops_data();
    void tops();
    void topsOfSeconds_data();
    void topsOfSeconds();
    void lineChartWithEverything();
    void lineChartWithoutValues();
    void valuesOutsideStayInside();
    void sparklines();
    void bars();
    void spans();
    void textsOfStrangers();
};

void tst_Svg::tops_data()
{
    QTest::addColumn<double>("greatest");
    QTest::addColumn<double>("decimal");
    QTest::addColumn<double>("binary");

    QTest::newRow("nothing") << 0.0 << 1.0 << 1.0;
    QTest::newRow("negative") << -3.0 << 1.0 << 1.0;
    QTest::newRow("no-number") << std::nan("") << 1.0 << 1.0;
    QTest::newRow("infinite") << std::numeric_limits<double>::infinity() << 1.0 << 1.0;
    QTest::newRow("at-a-step") << 2.0 << 2.0 << 2.0;
    QTest::newRow("past-a-step") << 2.01 << 4.0 << 4.0;
    QTest::newRow("below-one") << 0.3 << 0.4 << 1.0;
    QTest::newRow("between-powers") << 5001.0 << 6000.0 << 8192.0;
    QTest::newRow("next-power") << 8001.0 << 10000.0 << 8192.0;
}

void tst_Svg::tops()
{
    QFETCH(const double, greatest);
    QTEST(roundTop(greatest), "decimal");
    QTEST(roundTopBinary(greatest), "binary");
}

void tst_Svg::topsOfSeconds_data()
{
    QTest::addColumn<double>("greatest");
    QTest::addColumn<double>("top");

    QTest::newRow("nothing") << 0.0 << 1.0;
    QTest::newRow("no-number") << std::nan("") << 1.0;
    QTest::newRow("few") << 10.0 << 10.0;
    QTest::newRow("past-ten") << 10.1 << 20.0;
    QTest::newRow("a-minute") << 60.0 << 60.0;
    QTest::newRow("past-a-minute") << 61.0 << 120.0;
    QTest::newRow("past-four-hours") << 4 * 3600.0 + 1 << 10 * 3600.0;
    QTest::newRow("past-ten-hours") << 10 * 3600.0 + 1 << 20 * 3600.0;
}

void tst_Svg::topsOfSeconds()
{
    QFETCH(const double, greatest);
    QTEST(roundTopSeconds(greatest), "top");
}

void tst_Svg::lineChartWithEverything()
{
    LineChart chart;
    chart.description = u"Load: highest 4.0"_s;
    chart.top = 4;
    chart.topLabel = u"4"_s;
    chart.middleLabel = u"2"_s;
    chart.ticks = {
        {0.02, u"11-01"_s},
        {0.5,  u"11-02"_s},
        {0.99, u"11-03"_s}
    };
    chart.series = {
        {Curve::Main,   {1.0, std::nullopt, 4.0, 2.0}                  },
        {Curve::Before, {2.0, 2.0, std::nullopt, std::nullopt}         },
        {Curve::Second, {std::nullopt, std::nullopt, std::nan(""), 1.0}},
    };
    chart.spans = {
        {0.25, 0.5, u"Load 9.0 on 4 CPUs"_s}
    };
    chart.titles = {u"a"_s, u"b"_s, u"c"_s, u"d"_s};
    Html html;
    lineChart(html, chart);
    QCOMPARE(inLines(html.bytes()), golden(u"line-chart.svg"_s, inLines(html.bytes())));
}

void tst_Svg::lineChartWithoutValues()
{
    LineChart chart;
    chart.series = {
        {Curve::Main,   {}            },
        {Curve::Before, {std::nullopt}}
    };
    Html html;
    lineChart(html, chart);
    QVERIFY(!html.bytes().contains("<path"));
    QVERIFY(!html.bytes().contains("nan"));
}

void tst_Svg::valuesOutsideStayInside()
{
    LineChart chart;
    chart.top = 10;
    chart.series = {
        {Curve::Second, {-5.0, 20.0}}
    };
    chart.spans = {
        {-1, 2, u"always"_s}
    };
    Html html;
    lineChart(html, chart);
    QVERIFY(html.bytes().contains("d=\"M250 100L750 0\""));
    QVERIFY(html.bytes().contains("x=\"0%\" width=\"100%\""));
}

void tst_Svg::sparklines()
{
    Html html;
    sparkline(html, {0, 5, 10}, u"rises"_s);
    sparkline(html, {}, u"nothing"_s);
    sparkline(html, {0, 0}, u"flat"_s);
    QCOMPARE(inLines(html.bytes()), golden(u"sparklines.svg"_s, inLines(html.bytes())));
}

void tst_Svg::bars()
{
    Html html;
    bar(html, 0.256);
    bar(html, std::nan(""));
    meter(html, 0.899, u"89.9 % of 10 GiB"_s);
    meter(html, 0.9, u"90 % of 10 GiB"_s);
    meter(html, 1.0, u"all of 10 GiB"_s);
    meter(html, 3.0, u"three times 10 GiB"_s);
    QCOMPARE(inLines(html.bytes()), golden(u"bars.svg"_s, inLines(html.bytes())));
}

void tst_Svg::spans()
{
    Html html;
    spanLine(html,
             {
                 {0.1, 0.2, u"a moment"_s            },
                 {0.5, 0.5, u"too short to be seen"_s}
    },
             u"2 alerts"_s);
    QCOMPARE(inLines(html.bytes()), golden(u"spans.svg"_s, inLines(html.bytes())));
}

void tst_Svg::textsOfStrangers()
{
    const QString hostile = u"\"/><script>alert(1)</script>"_s;
    LineChart chart;
    chart.description = hostile;
    chart.topLabel = hostile;
    chart.ticks = {
        {0.5, hostile}
    };
    chart.spans = {
        {0, 1, hostile}
    };
    chart.titles = {hostile};
    Html html;
    lineChart(html, chart);
    sparkline(html, {}, hostile);
    meter(html, 0, hostile);
    spanLine(html, chart.spans, hostile);
    QVERIFY(!html.bytes().contains("<script"));
    QCOMPARE(html.bytes().count("&lt;script&gt;"), 9);
}

QTEST_GUILESS_MAIN(tst_Svg)
#include "tst_Svg.moc"
