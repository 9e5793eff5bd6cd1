#include "report/HostCharts.h"

#include "report/AlertNames.h"
#include "report/Format.h"
#include "report/Page.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

constexpr qint64 kDaySeconds = 86'400;
/// A line of alerts for each kind; those that the collector knows are eight.
constexpr qsizetype kAlertLines = 10;

/// A chart of samples: what it shows, and which alerts belong to it.
struct Picture
{
    QString title;
    QString alertKind;
    Metric main;
    QString mainName;
    Metric second = MetricCount; ///< none
    QString secondName;
    double least = 0; ///< the scale reaches so far at least
    QString (*text)(double) = nullptr;
    bool binary = false; ///< sizes in bytes
};

QString rate(double bytesPerSecond)
{
    return bytes(bytesPerSecond) + u"/s"_s;
}

QString short1(double number)
{
    return decimal(number, number < 10 ? 1 : 0);
}

const QList<Picture>& pictures()
{
    static const QList<Picture> all = {
        {u"Load"_s,                u"load"_s,        Load,           u"mean"_s,     LoadMax,     u"greatest"_s,          1,    short1,  false},
        {u"Processors"_s,          u"temperature"_s, Processors,     u"in use"_s,   IoWait,      u"waiting for disks"_s, 100,
         percent,                                                                                                                       false},
        {u"Memory"_s,              u"memory"_s,      Memory,         u"in use"_s,   Swap,        u"swap in use"_s,       100,  percent, false},
        {u"Apache's workers"_s,    u"apache"_s,      BusyWorkers,    u"busy"_s,     Workers,     u"all"_s,               1,    short1,  false},
        {u"Requests per second"_s, u"apache"_s,      ApacheRequests, u"requests"_s, MetricCount, u""_s,                  1,    short1,
         false                                                                                                                               },
        {u"Network"_s,             u""_s,            NetOut,         u"sent"_s,     NetIn,       u"received"_s,          1024, rate,    true },
        {u"Disk space of /"_s,     u"disk"_s,        DiskUsed,       u"in use"_s,   MetricCount, u""_s,                  100,  percent, false},
        {u"Disk traffic"_s,        u""_s,            DiskWritten,    u"written"_s,  DiskRead,    u"read"_s,              1024, rate,    true },
    };
    return all;
}

const Values& valuesOf(const Samples& samples, Metric metric)
{
    return samples.metrics.at(static_cast<std::size_t>(metric));
}

struct Extremes
{
    double mean = 0;
    double most = 0;
    bool known = false;
};

Extremes extremesOf(const Values& values)
{
    Extremes extremes;
    double sum = 0;
    qsizetype known = 0;
    for (const std::optional<double>& value : values) {
        if (!value)
            continue;
        extremes.most = extremes.known ? std::max(extremes.most, *value) : *value;
        extremes.known = true;
        sum += *value;
        ++known;
    }
    extremes.mean = known > 0 ? sum / static_cast<double>(known) : 0;
    return extremes;
}

Span spanOf(const Alert& alert, const Samples& samples)
{
    const auto length = static_cast<double>(samples.to - samples.from);
    const auto place = [&](qint64 seconds) { return static_cast<double>(seconds - samples.from) / length; };
    return {place(alert.openedSeconds), place(alert.closedSeconds.value_or(samples.to)),
            u"%1, %2 %3"_s.arg(
                alert.message, alert.opened,
                alert.closedSeconds
                    ? u"for "_s + duration(static_cast<double>(*alert.closedSeconds - alert.openedSeconds))
                    : u"until now"_s)};
}

QList<Span> spansOf(const HostFigures& figures, const QString& kind)
{
    QList<Span> spans;
    for (const Alert& alert : figures.alerts) {
        if (alert.kind == kind)
            spans.append(spanOf(alert, figures.samples));
    }
    return spans;
}

/// Labels at midnights of the zone that the page is in.
QList<Tick> timeTicks(const HostFigures& figures)
{
    constexpr qint64 most = 5;
    const Samples& samples = figures.samples;
    const qint64 days = (samples.to - samples.from) / kDaySeconds;
    const qint64 offset = figures.now.offsetSeconds;
    QList<Tick> ticks;
    if (days == 1) {
        constexpr qint64 sixHours = kDaySeconds / 4;
        for (qint64 at = (samples.from + offset) / sixHours * sixHours + sixHours; at < samples.to + offset;
             at += sixHours) {
            ticks.append({static_cast<double>(at - offset - samples.from) / kDaySeconds,
                          QDateTime::fromSecsSinceEpoch(at, Qt::UTC).toString(u"HH:mm"_s)});
        }
        return ticks;
    }
    const qint64 step = std::max<qint64>((days + most - 1) / most, 1) * kDaySeconds;
    const qint64 first = ((samples.from + offset + step / 2) / kDaySeconds + 1) * kDaySeconds;
    for (qint64 at = first; at < samples.to + offset; at += step) {
        ticks.append(
            {static_cast<double>(at - offset - samples.from) / static_cast<double>(samples.to - samples.from),
             QDateTime::fromSecsSinceEpoch(at, Qt::UTC).toString(u"MM-dd"_s)});
    }
    return ticks;
}

/// The scale of @p picture, and what a reader hears who cannot see its curves.
LineChart chartOf(const Picture& picture, const Extremes& main, const Extremes& second)
{
    LineChart chart;
    const double most = std::max({main.most, second.most, picture.least});
    chart.top = picture.binary ? roundTopBinary(most) : roundTop(most);
    chart.topLabel = scaleLabel(picture.text(chart.top));
    chart.middleLabel = scaleLabel(picture.text(chart.top / 2));
    chart.description = main.known ? u"%1, %2: %3 on average, at most %4"_s.arg(
                            picture.title, picture.mainName, picture.text(main.mean), picture.text(main.most))
                                   : picture.title + u": not measured"_s;
    return chart;
}

void picture(Html& html, const HostFigures& figures, const Picture& picture, const QList<Tick>& ticks)
{
    const Values& main = valuesOf(figures.samples, picture.main);
    const Values second =
        picture.second == MetricCount ? Values() : valuesOf(figures.samples, picture.second);
    const Extremes of = extremesOf(main);
    const Extremes ofSecond = extremesOf(second);
    LineChart chart = chartOf(picture, of, ofSecond);
    chart.ticks = ticks;
    chart.series = {
        {Curve::Second, second},
        {Curve::Main,   main  }
    };
    chart.spans = picture.alertKind.isEmpty() ? QList<Span>() : spansOf(figures, picture.alertKind);
    chart.description += u"; %1 alerts"_s.arg(chart.spans.size());
    QList<Key> keys = {
        {u"c1"_s, picture.mainName}
    };
    if (ofSecond.known)
        keys.append({u"c2"_s, picture.secondName});
    if (!chart.spans.isEmpty())
        keys.append({u"s"_s, u"alert"_s});
    const auto box = html.element("figure", "card");
    const bool measured = of.known || ofSecond.known;
    caption(html, picture.title, measured ? keys : QList<Key>());
    if (measured) {
        lineChart(html, chart);
    } else {
        nothing(html, u"Not measured in this period.");
    }
}

QString known(const std::optional<double>& value, QString (*text)(double))
{
    return value ? text(*value) : u"–"_s;
}

void latest(Html& html, const Sample& sample)
{
    const auto metric = [&sample](Metric which) {
        return sample.metrics.at(static_cast<std::size_t>(which));
    };
    const auto list = html.element("dl", "tiles");
    tile(html, u"Load"_s, known(metric(Load), [](double load) { return decimal(load, 2); }),
         u"15 minutes: "_s + known(metric(LoadMax), [](double load) { return decimal(load, 2); }));
    tile(html, u"Processors"_s, known(metric(Processors), percent),
         u"waiting for disks: "_s + known(metric(IoWait), percent));
    tile(html, u"Memory"_s, known(metric(Memory), percent), u"of "_s + known(sample.memoryBytes, bytes));
    tile(html, u"Disk /"_s, known(metric(DiskUsed), percent), u"of "_s + known(sample.diskBytes, bytes));
    tile(html, u"Temperature"_s,
         sample.temperature ? decimal(*sample.temperature, 0) + QChar(0x202F) + u"°C"_s : u"–"_s,
         sample.temperature ? u"hottest processor"_s : u"no sensor"_s);
    tile(html, u"Network out"_s, known(metric(NetOut), rate), u"in: "_s + known(metric(NetIn), rate));
    tile(html, u"Apache's workers"_s,
         metric(BusyWorkers)
             ? u"%1 / %2"_s.arg(known(metric(BusyWorkers), [](double n) { return decimal(n, 0); }),
                                known(metric(Workers), [](double n) { return decimal(n, 0); }))
             : u"–"_s,
         known(metric(ApacheRequests), short1) + u" requests/s"_s);
    tile(html, u"PostgreSQL"_s, known(sample.connections, [](double n) { return decimal(n, 0); }),
         u"clients, "_s + known(sample.transactions, short1) + u" transactions/s"_s);
}

/// One line of spans for each kind of alert, on the axis of the charts below.
void alertLines(Html& html, const HostFigures& figures, const QList<Tick>& ticks)
{
    QStringList kinds;
    for (const Alert& alert : figures.alerts) {
        if (!kinds.contains(alert.kind) && kinds.size() < kAlertLines)
            kinds.append(alert.kind);
    }
    const auto card = html.element("figure", "card");
    caption(html, u"Alerts"_s);
    if (kinds.isEmpty()) {
        nothing(html, u"None in this period.");
        return;
    }
    const auto lines = html.element("div", "lanes");
    for (const QString& kind : kinds) {
        const QList<Span> spans = spansOf(figures, kind);
        {
            const auto name = html.element("span", {
                                                       {"class", u"name"_s      },
                                                       {"title", alertName(kind)}
            });
            html.leaf("bdi", shortened(shortAlertName(kind), kShownCharacters));
        }
        spanLine(html, spans, u"%1: %2 alerts"_s.arg(alertName(kind)).arg(spans.size()));
    }
    html.leaf("span", u"");
    timeAxis(html, ticks);
}

void longChart(Html& html, const HostFigures& figures, const Picture& names,
               std::optional<double> (*main)(const HostDay&), std::optional<double> (*second)(const HostDay&))
{
    Values values;
    Values others;
    for (const HostDay& day : figures.days) {
        values.append(main(day));
        if (second)
            others.append(second(day));
    }
    const Extremes of = extremesOf(values);
    LineChart chart = chartOf(names, of, extremesOf(others));
    chart.ticks = dayTicks(figures.days.first().day, figures.days.size());
    chart.series = {
        {Curve::Second, others},
        {Curve::Main,   values}
    };
    chart.description += u", by the day since "_s + isoDate(figures.days.first().day);
    QList<Key> keys = {
        {u"c1"_s, names.mainName}
    };
    if (second)
        keys.append({u"c2"_s, names.secondName});
    const auto card = html.element("figure", "card");
    caption(html, names.title, keys);
    lineChart(html, chart);
}

} // namespace

void curves(Html& html, const HostFigures& figures)
{
    const qint64 days = (figures.samples.to - figures.samples.from) / kDaySeconds;
    section(html, u"health"_s,
            days == 1 ? u"Health, the last day"_s : u"Health, the last %1 days"_s.arg(days));
    if (figures.latest)
        latest(html, *figures.latest);
    const auto grid = html.element("div", "grid three below");
    const QList<Tick> ticks = timeTicks(figures);
    alertLines(html, figures, ticks);
    for (const Picture& each : pictures())
        picture(html, figures, each, ticks);
}

bool isLong(const HostFigures& figures)
{
    return figures.days.size() > kSampleDays;
}

void longCurves(Html& html, const HostFigures& figures)
{
    section(html, u"year"_s, u"The long run"_s);
    const auto grid = html.element("div", "grid two");
    using Figure = std::optional<double>;
    longChart(
        html, figures, {u"Load"_s, {}, Load, u"mean"_s, LoadMax, u"greatest"_s, 1, short1},
        [](const HostDay& day) { return day.loadAverage; }, [](const HostDay& day) { return day.loadMax; });
    longChart(
        html, figures,
        {u"Disk space of / and memory"_s,
         {},
         DiskUsed,
         u"disk in use"_s,
         Memory,
         u"memory, greatest"_s,
         100,
         percent},
        [](const HostDay& day) { return day.disk; }, [](const HostDay& day) { return day.memory; });
    longChart(
        html, figures, {u"Processors"_s, {}, Processors, u"in use"_s, MetricCount, {}, 100, percent},
        [](const HostDay& day) { return day.processors; }, nullptr);
    longChart(
        html, figures,
        {u"Network, bytes a day"_s, {}, NetOut, u"sent"_s, NetIn, u"received"_s, 1024, bytes, true},
        [](const HostDay& day) { return Figure(day.sent); },
        [](const HostDay& day) { return Figure(day.received); });
}

} // namespace tarn::report
