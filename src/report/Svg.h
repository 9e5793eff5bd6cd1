// Charts as SVG inside a page: records in, markup out, nothing else read or kept.
// A chart takes whatever width its place has: its curves are stretched, its labels are not. Colours and
// strokes come from the page's style sheet by class, so that they follow the reader's light or dark scheme.
#pragma once

#include "report/Html.h"

#include <QList>
#include <QString>

#include <optional>

namespace tarn::report {

/// Values at equal distances, the first at the left; nothing where nothing is known, which leaves a gap.
using Values = QList<std::optional<double>>;

/// How a curve is drawn.
enum class Curve {
    Main,   ///< the figure that the chart is about, with its area filled
    Second, ///< another one on the same axis
    Before  ///< the period before, for comparison
};

struct Series
{
    Curve curve = Curve::Main;
    Values values;
};

/// A label under the time axis; @p at is from 0 (left) to 1 (right).
struct Tick
{
    double at = 0;
    QString label;
};

/// A part of the time axis, both ends from 0 to 1.
struct Span
{
    double from = 0;
    double to = 0;
    QString title; ///< shown when it is pointed at
};

struct LineChart
{
    QString description; ///< what a reader hears who cannot see the chart
    double top = 1;      ///< value at the upper edge, above 0; the lower edge is 0
    QString topLabel;
    QString middleLabel;
    QList<Tick> ticks;
    QList<Series> series;
    QList<Span> spans; ///< drawn behind the curves: when something was wrong
    QStringList
        titles; ///< one for each value, shown when its part of the chart is pointed at; or none at all
};

/// The next value not below @p greatest out of 1, 2, 4, 6, 8 times a power of ten; 1 for nothing or less.
/// From 2 on its half, which the middle of the scale is labelled with, is a whole number.
double roundTop(double greatest);
/// The same in seconds, where minutes and hours are what is round.
double roundTopSeconds(double greatest);
/// The same out of the powers of two, for sizes in bytes.
double roundTopBinary(double greatest);

void lineChart(Html& html, const LineChart& chart);

/// The labels of a time axis alone, for what stands above it.
void timeAxis(Html& html, const QList<Tick>& ticks);

/// A curve of the size of a word, without axes; @p description as above.
void sparkline(Html& html, const QList<double>& values, const QString& description);

/// A bar behind the text of a cell, @p share of its width; decoration of a number that stands in the row as
/// well.
void bar(Html& html, double share);

/// A bar of its own for how much of a limit is used, @p share from 0 on; full and marked from 1 on.
void meter(Html& html, double share, const QString& description);

/// Spans on the time axis of the line charts, one line of them.
void spanLine(Html& html, const QList<Span>& spans, const QString& description);

} // namespace tarn::report
