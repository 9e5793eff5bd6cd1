#include "report/Svg.h"

#include <algorithm>
#include <array>
#include <cmath>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

/// The plane that curves are drawn in before it is stretched: fine enough for 700 points with a decimal each.
constexpr double kWidth = 1000;
constexpr double kHeight = 100;

/// Of the whole chart, in pixels: room for the upper label, the curves, and the time axis' labels.
constexpr int kMarginTop = 8;
constexpr int kPlotHeight = 120;
constexpr int kChartHeight = kMarginTop + kPlotHeight + 22;

/// A bar narrower than this could not be seen; per cent.
constexpr double kNarrowestSpan = 0.6;

/// A coordinate with one decimal, without it where that is 0.
QString coordinate(double value)
{
    QString digits = QString::number(value, 'f', 1);
    if (digits.endsWith(u".0"_s))
        digits.chop(2);
    return digits == u"-0"_s ? u"0"_s : digits;
}

QString percentage(double share)
{
    return coordinate(std::clamp(share, 0.0, 1.0) * 100) + u'%';
}

struct Point
{
    double x = 0;
    double y = 0;
};

/// Each value stands in the middle of its part of the axis, as the day that it belongs to does.
Point pointOf(qsizetype index, qsizetype count, double value, double top)
{
    const double x = (static_cast<double>(index) + 0.5) * kWidth / static_cast<double>(count);
    return {x, kHeight - std::clamp(value / top, 0.0, 1.0) * kHeight};
}

/// The runs of neighbouring values that are known.
QList<QList<Point>> runsOf(const Values& values, double top)
{
    QList<QList<Point>> runs;
    bool inside = false;
    for (qsizetype i = 0; i < values.size(); ++i) {
        const bool known = values.at(i) && std::isfinite(*values.at(i));
        if (known) {
            if (!inside)
                runs.append(QList<Point>());
            runs.last().append(pointOf(i, values.size(), *values.at(i), top));
        }
        inside = known;
    }
    return runs;
}

QString lineThrough(const QList<Point>& run)
{
    QString path;
    for (const Point& point : run)
        path += (path.isEmpty() ? u'M' : u'L') + coordinate(point.x) + u' ' + coordinate(point.y);
    // A line of no length is drawn as a dot.
    if (run.size() == 1)
        path += u"h.1"_s;
    return path;
}

QString areaUnder(const QList<Point>& run)
{
    return lineThrough(run) + u'L' + coordinate(run.last().x) + u' ' + coordinate(kHeight) + u'L'
           + coordinate(run.first().x) + u' ' + coordinate(kHeight) + u'z';
}

QString classOf(Curve curve)
{
    switch (curve) {
    case Curve::Main:
        return u"c1"_s;
    case Curve::Second:
        return u"c2"_s;
    case Curve::Before:
        break;
    }
    return u"c0"_s;
}

void drawSeries(Html& html, const Series& series, double top)
{
    const QList<QList<Point>> runs = runsOf(series.values, top);
    QString line;
    QString area;
    for (const QList<Point>& run : runs) {
        line += lineThrough(run);
        area += areaUnder(run);
    }
    if (line.isEmpty())
        return;
    if (series.curve == Curve::Main) {
        html.lone("path", {
                              {"class", u"a"_s},
                              {"d",     area  }
        });
    }
    html.lone("path", {
                          {"class", classOf(series.curve)},
                          {"d",     line                 }
    });
}

void drawGrid(Html& html)
{
    for (const double y : {0.0, kHeight / 2, kHeight}) {
        html.lone("line", {
                              {"class", y == kHeight ? u"g z"_s : u"g"_s},
                              {"x2",    coordinate(kWidth)              },
                              {"y1",    coordinate(y)                   },
                              {"y2",    coordinate(y)                   }
        });
    }
}

void drawSpans(Html& html, const QList<Span>& spans)
{
    for (const Span& span : spans) {
        const double from = std::clamp(span.from, 0.0, 1.0);
        const double width = std::max(std::clamp(span.to, 0.0, 1.0) - from, kNarrowestSpan / 100);
        const auto rectangle = html.element("rect", {
                                                        {"class",  u"s"_s           },
                                                        {"x",      percentage(from) },
                                                        {"width",  percentage(width)},
                                                        {"height", u"100%"_s        }
        });
        html.leaf("title", span.title);
    }
}

/// An invisible part of the chart for each value, which tells of it when it is pointed at.
void drawTitles(Html& html, const QStringList& titles)
{
    const double width = kWidth / static_cast<double>(std::max<qsizetype>(titles.size(), 1));
    for (qsizetype i = 0; i < titles.size(); ++i) {
        const auto rectangle = html.element("rect", {
                                                        {"class",  u"h"_s                                    },
                                                        {"x",      coordinate(static_cast<double>(i) * width)},
                                                        {"width",  coordinate(width)                         },
                                                        {"height", coordinate(kHeight)                       }
        });
        html.leaf("title", titles.at(i));
    }
}

void drawCurves(Html& html, const LineChart& chart)
{
    const auto plane = html.element("svg", {
                                               {"y",                   QString::number(kMarginTop)            },
                                               {"width",               u"100%"_s                              },
                                               {"height",              QString::number(kPlotHeight)           },
                                               {"viewBox",             u"0 0 %1 %2"_s.arg(kWidth).arg(kHeight)},
                                               {"preserveAspectRatio", u"none"_s                              }
    });
    drawSpans(html, chart.spans);
    drawGrid(html);
    for (const Series& series : chart.series)
        drawSeries(html, series, chart.top);
    drawTitles(html, chart.titles);
}

/// Labels with their feet @p y pixels below the upper edge.
void drawTicks(Html& html, const QList<Tick>& ticks, int y)
{
    constexpr double nearEdge = 0.06;
    for (const Tick& tick : ticks) {
        QString side = u"m"_s;
        if (tick.at < nearEdge)
            side = u"b"_s;
        if (tick.at > 1 - nearEdge)
            side = u"e"_s;
        html.leaf("text", tick.label,
                  {
                      {"class", side               },
                      {"x",     percentage(tick.at)},
                      {"y",     QString::number(y) }
        });
    }
}

/// The labels of the upright axis, in a picture of their own beside the one that is stretched.
void drawScale(Html& html, const LineChart& chart)
{
    constexpr int textDrop = 4;
    const auto scale = html.element(
        "svg", {
                   {"class",       u"y"_s                       },
                   {"height",      QString::number(kChartHeight)},
                   {"aria-hidden", u"true"_s                    }
    });
    const std::array<std::pair<int, QString>, 3> labels = {
        {{kMarginTop + textDrop, chart.topLabel},
         {kMarginTop + kPlotHeight / 2 + textDrop, chart.middleLabel},
         {kMarginTop + kPlotHeight + textDrop, u"0"_s}}
    };
    for (const auto& [y, label] : labels) {
        html.leaf("text", label,
                  {
                      {"class", u"e"_s            },
                      {"x",     u"100%"_s         },
                      {"y",     QString::number(y)}
        });
    }
}

} // namespace

double roundTop(double greatest)
{
    if (!(greatest > 0) || !std::isfinite(greatest))
        return 1;
    const double power = std::pow(10, std::floor(std::log10(greatest)));
    for (const double step : {1.0, 2.0, 4.0, 6.0, 8.0}) {
        if (greatest <= step * power)
            return step * power;
    }
    return 10 * power;
}

double roundTopSeconds(double greatest)
{
    constexpr double minute = 60;
    constexpr double hour = 3600;
    if (greatest > 10 * hour)
        return roundTop(greatest / hour) * hour;
    for (const double step : {20.0, 40.0, minute, 2 * minute, 4 * minute, 10 * minute, 20 * minute,
                              40 * minute, hour, 2 * hour, 4 * hour}) {
        if (greatest > 10 && greatest <= step)
            return step;
    }
    return greatest > 10 ? 10 * hour : roundTop(greatest);
}

double roundTopBinary(double greatest)
{
    return greatest > 1 && std::isfinite(greatest) ? std::exp2(std::ceil(std::log2(greatest))) : 1;
}

void lineChart(Html& html, const LineChart& chart)
{
    const auto both = html.element("div", "plot");
    drawScale(html, chart);
    const auto picture = html.element("svg", {
                                                 {"class",      u"p"_s                       },
                                                 {"height",     QString::number(kChartHeight)},
                                                 {"role",       u"img"_s                     },
                                                 {"aria-label", chart.description            }
    });
    drawCurves(html, chart);
    drawTicks(html, chart.ticks, kChartHeight - 4);
}

void timeAxis(Html& html, const QList<Tick>& ticks)
{
    constexpr int height = 18;
    const auto picture = html.element(
        "svg", {
                   {"width",       u"100%"_s              },
                   {"height",      QString::number(height)},
                   {"aria-hidden", u"true"_s              }
    });
    drawTicks(html, ticks, height - 4);
}

void sparkline(Html& html, const QList<double>& values, const QString& description)
{
    const double greatest = values.isEmpty() ? 0 : *std::max_element(values.cbegin(), values.cend());
    const double top = greatest > 0 ? greatest : 1;
    // Whole units of a plane that is small already: these lines come in hundreds.
    QString line;
    for (qsizetype i = 0; i < values.size(); ++i) {
        const Point point = pointOf(i, values.size(), values.at(i), top);
        line += (line.isEmpty() ? u'M' : u'L') + QString::number(std::lround(point.x / 10)) + u' '
                + QString::number(std::lround(point.y / 5));
    }
    const auto picture = html.element("svg", {
                                                 {"class",               u"k"_s          },
                                                 {"viewBox",             u"0 -1 100 22"_s},
                                                 {"preserveAspectRatio", u"none"_s       },
                                                 {"role",                u"img"_s        },
                                                 {"aria-label",          description     }
    });
    if (!line.isEmpty()) {
        html.lone("path", {
                              {"class", u"c1"_s},
                              {"d",     line   }
        });
    }
}

void bar(Html& html, double share)
{
    const auto picture = html.element("svg", {
                                                 {"class",       u"bar"_s },
                                                 {"aria-hidden", u"true"_s}
    });
    html.lone("rect", {
                          {"width",  percentage(std::isfinite(share) ? share : 0)},
                          {"height", u"100%"_s                                   }
    });
}

void meter(Html& html, double share, const QString& description)
{
    const double used = std::isfinite(share) ? share : 0;
    const auto picture = html.element(
        "svg", {
                   {"class",      used >= 1 ? u"meter over"_s : (used >= 0.9 ? u"meter near"_s : u"meter"_s)},
                   {"role",       u"img"_s                                                                  },
                   {"aria-label", description                                                               }
    });
    html.lone("rect", {
                          {"class",  u"of"_s  },
                          {"width",  u"100%"_s},
                          {"height", u"100%"_s}
    });
    html.lone("rect", {
                          {"width",  percentage(used)},
                          {"height", u"100%"_s       }
    });
}

void spanLine(Html& html, const QList<Span>& spans, const QString& description)
{
    const auto picture =
        html.element("svg", {
                                {"class",      u"lane"_s  },
                                {"role",       u"img"_s   },
                                {"aria-label", description}
    });
    html.lone("line", {
                          {"class", u"g"_s   },
                          {"x2",    u"100%"_s},
                          {"y1",    u"50%"_s },
                          {"y2",    u"50%"_s }
    });
    drawSpans(html, spans);
}

} // namespace tarn::report
