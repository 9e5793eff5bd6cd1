#include "report/HostPage.h"

#include "report/Format.h"
#include "report/Page.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

constexpr qint64 kDaySeconds = 86'400;
/// A line of alerts for each kind; those that the collector knows are eight.
constexpr qsizetype kAlertLines = 10;
/// From so many days on the long curves tell more than those of the samples.
constexpr qsizetype kLongFrom = kSampleDays + 1;
/// Accounts that are told of as near their limit; the others are in the table.
constexpr qsizetype kAttentionAccounts = 20;

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

QString percentScale(double number)
{
    return percent(number).replace(u".0"_s, QString());
}

const QList<Picture>& pictures()
{
    static const QList<Picture> all = {
        {u"Load"_s,                u"load"_s,        Load,           u"mean"_s,     LoadMax,     u"greatest"_s,          1,    short1,       false},
        {u"Processors"_s,          u"temperature"_s, Processors,     u"in use"_s,   IoWait,      u"waiting for disks"_s, 100,
         percentScale,                                                                                                                       false},
        {u"Memory"_s,              u"memory"_s,      Memory,         u"in use"_s,   Swap,        u"swap in use"_s,       100,  percentScale, false},
        {u"Apache's workers"_s,    u"apache"_s,      BusyWorkers,    u"busy"_s,     Workers,     u"all"_s,               1,    short1,       false},
        {u"Requests per second"_s, u"apache"_s,      ApacheRequests, u"requests"_s, MetricCount, u""_s,                  1,    short1,
         false                                                                                                                                    },
        {u"Network"_s,             u""_s,            NetOut,         u"sent"_s,     NetIn,       u"received"_s,          1024, rate,         true },
        {u"Disk space of /"_s,     u"disk"_s,        DiskUsed,       u"in use"_s,   MetricCount, u""_s,                  100,  percentScale,
         false                                                                                                                                    },
        {u"Disk traffic"_s,        u""_s,            DiskWritten,    u"written"_s,  DiskRead,    u"read"_s,              1024, rate,         true },
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

QString kindName(const QString& kind)
{
    static const QMap<QString, QString> names = {
        {u"memory"_s,      u"Memory"_s     },
        {u"apache"_s,      u"Apache"_s     },
        {u"load"_s,        u"Load"_s       },
        {u"temperature"_s, u"Temperature"_s},
        {u"disk"_s,        u"Disk"_s       },
        {u"service"_s,     u"Service"_s    },
        {u"quota"_s,       u"Disk limit"_s },
        {u"dbquota"_s,     u"Database"_s   },
    };
    return names.value(kind, kind);
}

/// A word for the line of a kind's spans, which has room for eight letters.
QString shortKindName(const QString& kind)
{
    static const QMap<QString, QString> names = {
        {u"temperature"_s, u"Temp."_s},
        {u"quota"_s,       u"Quota"_s},
        {u"dbquota"_s,     u"DB"_s   },
    };
    return names.value(kind, kindName(kind));
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
        constexpr qint64 sixHours = 6 * 3600;
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

void picture(Html& html, const HostFigures& figures, const Picture& picture, const QList<Tick>& ticks)
{
    const Values& main = valuesOf(figures.samples, picture.main);
    const Values second =
        picture.second == MetricCount ? Values() : valuesOf(figures.samples, picture.second);
    const Extremes of = extremesOf(main);
    const Extremes ofSecond = extremesOf(second);
    const double most = std::max({of.most, ofSecond.most, picture.least});
    LineChart chart;
    chart.top = picture.binary ? roundTopBinary(most) : roundTop(most);
    chart.topLabel = picture.text(chart.top);
    chart.middleLabel = picture.text(chart.top / 2);
    chart.ticks = ticks;
    chart.series = {
        {Curve::Second, second},
        {Curve::Main,   main  }
    };
    chart.spans = picture.alertKind.isEmpty() ? QList<Span>() : spansOf(figures, picture.alertKind);
    chart.description =
        of.known ? u"%1, %2: %3 on average, at most %4; %5 alerts"_s
                       .arg(picture.title, picture.mainName, picture.text(of.mean), picture.text(of.most))
                       .arg(chart.spans.size())
                 : picture.title + u": not measured"_s;
    QList<Key> keys = {
        {u"c1"_s, picture.mainName}
    };
    if (ofSecond.known)
        keys.append({u"c2"_s, picture.secondName});
    if (!chart.spans.isEmpty())
        keys.append({u"s"_s, u"alert"_s});
    const auto card = html.element("figure", {
                                                 {"class", u"card"_s}
    });
    caption(html, picture.title, keys);
    if (of.known || ofSecond.known) {
        lineChart(html, chart);
    } else {
        html.leaf("p", u"Not measured in this period.",
                  {
                      {"class", u"dim"_s}
        });
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
    const auto list = html.element("dl", {
                                             {"class", u"tiles"_s}
    });
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

/// A point of the list at the top.
void point(Html& html, bool bad, const QString& what, const QString& text, const QString& more)
{
    const auto item = html.element("li", {
                                             {"class", bad ? u"bad"_s : u"near"_s}
    });
    html.leaf("b", what);
    const auto said = html.element("span");
    html.leaf("bdi", shortened(text, kTitleCharacters));
    if (!more.isEmpty())
        html.leaf("span", u" · "_s + more,
                  {
                      {"class", u"dim"_s}
        });
}

QString useOf(const Account& account)
{
    QStringList uses;
    if (account.diskLimit > 0 && account.disk.value_or(0) >= kNearLimit * account.diskLimit)
        uses.append(u"disk %1 of %2"_s.arg(bytes(*account.disk), bytes(account.diskLimit)));
    if (account.databaseLimit > 0 && account.database.value_or(0) >= kNearLimit * account.databaseLimit)
        uses.append(u"database %1 of %2"_s.arg(bytes(*account.database), bytes(account.databaseLimit)));
    return uses.join(u", "_s);
}

/// Alerts that are open, beginning with what stops everything else from being known.
void openAlerts(Html& html, const HostFigures& figures)
{
    const auto secondsAgo = [&figures](qint64 seconds) {
        return duration(static_cast<double>(figures.now.seconds - seconds));
    };
    if (!figures.latest) {
        point(html, true, u"Collector"_s, u"There is no sample of the host's health"_s,
              u"is tarn-collect running?"_s);
    } else if (figures.now.seconds - figures.latest->seconds >= kBehindSeconds) {
        point(html, true, u"Collector"_s, u"No sample for "_s + secondsAgo(figures.latest->seconds),
              u"is tarn-collect running? The latest is of "_s + figures.latest->minute);
    }
    for (const Alert& alert : figures.open)
        point(html, true, kindName(alert.kind), alert.message,
              u"for %1, since %2"_s.arg(secondsAgo(alert.openedSeconds), alert.opened));
}

void nearLimits(Html& html, const HostFigures& figures)
{
    qsizetype told = 0;
    for (const Account& account : figures.accounts.listed) {
        if (account.share() < kNearLimit || told++ >= kAttentionAccounts)
            break;
        point(html, account.share() >= 1, account.share() >= 1 ? u"Over limit"_s : u"Near limit"_s,
              account.domain, useOf(account));
    }
}

void behind(Html& html, const HostFigures& figures)
{
    for (const Behind& log : figures.sources.listed) {
        point(html, true, log.missing ? u"Log missing"_s : u"Log behind"_s, log.path,
              u"%1, %2"_s.arg(log.missing ? u"the file is not there"_s
                                          : bytes(static_cast<double>(log.unreadBytes)) + u" unread"_s,
                              log.since.isEmpty() ? u"never read"_s : u"last read "_s + log.since));
    }
    if (figures.sources.behind > figures.sources.listed.size()) {
        point(html, true, u"Logs behind"_s,
              u"%1 more"_s.arg(count(figures.sources.behind - figures.sources.listed.size())), {});
    }
}

bool needsAttention(const HostFigures& figures)
{
    return !figures.latest || figures.now.seconds - figures.latest->seconds >= kBehindSeconds
           || !figures.open.isEmpty() || figures.sources.behind > 0 || figures.searchLate
           || (!figures.accounts.listed.isEmpty() && figures.accounts.listed.first().share() >= kNearLimit);
}

void attention(Html& html, const HostFigures& figures)
{
    section(html, u"attention"_s, u"Needs attention"_s);
    if (!needsAttention(figures)) {
        html.leaf("p", u"Nothing. No alert is open, no account is near its limits, every log is read.",
                  {
                      {"class", u"fine"_s}
        });
    } else {
        const auto list = html.element("ul", {
                                                 {"class", u"attention"_s}
        });
        openAlerts(html, figures);
        nearLimits(html, figures);
        behind(html, figures);
        if (figures.searchLate)
            point(html, false, u"Search"_s, u"No search figures were fetched for two days"_s,
                  figures.searchResult);
    }
    if (figures.sources.unseen > 0) {
        html.leaf(
            "p",
            u"%1 of %2 logs may not be looked at by whoever wrote this page; whether they are read to their "
            u"end is not known."_s.arg(count(figures.sources.unseen), count(figures.sources.count)),
            {
                {"class", u"note"_s}
        });
    }
}

/// One line of spans for each kind of alert, on the axis of the charts below.
void alertLines(Html& html, const HostFigures& figures, const QList<Tick>& ticks)
{
    QStringList kinds;
    for (const Alert& alert : figures.alerts) {
        if (!kinds.contains(alert.kind) && kinds.size() < kAlertLines)
            kinds.append(alert.kind);
    }
    const auto card = html.element("figure", {
                                                 {"class", u"card"_s}
    });
    caption(html, u"Alerts"_s);
    if (kinds.isEmpty()) {
        html.leaf("p", u"None in this period.",
                  {
                      {"class", u"dim"_s}
        });
        return;
    }
    const auto lines = html.element("div", {
                                               {"class", u"lanes"_s}
    });
    for (const QString& kind : kinds) {
        const QList<Span> spans = spansOf(figures, kind);
        {
            const auto name = html.element("span", {
                                                       {"class", u"name"_s     },
                                                       {"title", kindName(kind)}
            });
            html.leaf("bdi", shortened(shortKindName(kind), kShownCharacters));
        }
        spanLine(html, spans, u"%1: %2 alerts"_s.arg(kindName(kind)).arg(spans.size()));
    }
    html.leaf("span", u"");
    timeAxis(html, ticks);
}

void curves(Html& html, const HostFigures& figures)
{
    const qint64 days = (figures.samples.to - figures.samples.from) / kDaySeconds;
    section(html, u"health"_s,
            days == 1 ? u"Health, the last day"_s : u"Health, the last %1 days"_s.arg(days));
    if (figures.latest)
        latest(html, *figures.latest);
    const auto grid = html.element("div", {
                                              {"class", u"grid three below"_s}
    });
    const QList<Tick> ticks = timeTicks(figures);
    alertLines(html, figures, ticks);
    for (const Picture& each : pictures())
        picture(html, figures, each, ticks);
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
    const double most = std::max({of.most, extremesOf(others).most, names.least});
    LineChart chart;
    chart.top = names.binary ? roundTopBinary(most) : roundTop(most);
    chart.topLabel = names.text(chart.top);
    chart.middleLabel = names.text(chart.top / 2);
    chart.ticks = dayTicks(figures.days.first().day, figures.days.size());
    chart.series = {
        {Curve::Second, others},
        {Curve::Main,   values}
    };
    chart.description = u"%1 by the day since %2: %3 on average, at most %4"_s.arg(
        names.title, isoDate(figures.days.first().day), names.text(of.mean), names.text(of.most));
    QList<Key> keys = {
        {u"c1"_s, names.mainName}
    };
    if (second)
        keys.append({u"c2"_s, names.secondName});
    const auto card = html.element("figure", {
                                                 {"class", u"card"_s}
    });
    caption(html, names.title, keys);
    lineChart(html, chart);
}

void longCurves(Html& html, const HostFigures& figures)
{
    section(html, u"year"_s, u"The long run"_s);
    const auto grid = html.element("div", {
                                              {"class", u"grid two"_s}
    });
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
         percentScale},
        [](const HostDay& day) { return day.disk; }, [](const HostDay& day) { return day.memory; });
    longChart(
        html, figures, {u"Processors"_s, {}, Processors, u"in use"_s, MetricCount, {}, 100, percentScale},
        [](const HostDay& day) { return day.processors; }, nullptr);
    longChart(
        html, figures,
        {u"Network by the day"_s, {}, NetOut, u"sent"_s, NetIn, u"received"_s, 1024, bytes, true},
        [](const HostDay& day) { return Figure(day.sent); },
        [](const HostDay& day) { return Figure(day.received); });
}

void alertRow(Html& html, const Alert& alert, qint64 now)
{
    const auto row = html.element("tr");
    html.leaf("th", alert.opened,
              {
                  {"class", u"l"_s  },
                  {"scope", u"row"_s}
    });
    html.leaf("td", duration(static_cast<double>(alert.closedSeconds.value_or(now) - alert.openedSeconds)));
    {
        const auto kind = html.element("td", {
                                                 {"class", u"t"_s}
        });
        html.foreign(kindName(alert.kind));
    }
    const auto message = html.element("td", {
                                                {"class", u"t"_s}
    });
    html.foreign(alert.message);
    if (!alert.closedSeconds) {
        html.text(u" ");
        html.leaf("span", u"open",
                  {
                      {"class", u"up"_s}
        });
    }
}

/// A table's heading; @p left of its columns hold texts.
void tableHead(Html& html, const QStringList& names, qsizetype left)
{
    const auto head = html.element("thead");
    const auto row = html.element("tr");
    for (qsizetype i = 0; i < names.size(); ++i)
        html.leaf("th", names.at(i),
                  {
                      {"class", i == 0 ? u"l"_s : (i >= names.size() - left ? u"t"_s : u"n"_s)},
                      {"scope", u"col"_s                                                      }
        });
}

void alertHistory(Html& html, const HostFigures& figures)
{
    section(html, u"alerts"_s, u"Alert history"_s);
    const auto card = html.element("section", {
                                                  {"class", u"card"_s}
    });
    if (figures.alerts.isEmpty()) {
        html.leaf("p", u"No alerts in this period.",
                  {
                      {"class", u"dim"_s}
        });
        return;
    }
    {
        const auto scroll = html.element("div", {
                                                    {"class",      u"scroll"_s       },
                                                    {"tabindex",   u"0"_s            },
                                                    {"role",       u"region"_s       },
                                                    {"aria-label", u"Alert history"_s}
        });
        const auto table = html.element("table");
        tableHead(html, {u"Opened"_s, u"Lasted"_s, u"Kind"_s, u"Message"_s}, 2);
        const auto body = html.element("tbody");
        for (const Alert& alert :
             figures.alerts.first(std::min<qsizetype>(figures.alerts.size(), kListedAlerts)))
            alertRow(html, alert, figures.now.seconds);
    }
    if (figures.alerts.size() > kListedAlerts) {
        html.leaf("p", u"%1 older ones are not listed."_s.arg(count(figures.alerts.size() - kListedAlerts)),
                  {
                      {"class", u"note"_s}
        });
    }
}

void useCell(Html& html, const std::optional<double>& used, double limit)
{
    const auto cell = html.element("td");
    html.text(known(used, bytes));
    if (limit > 0 && used) {
        html.leaf("span", u" of "_s + bytes(limit),
                  {
                      {"class", u"dim"_s}
        });
        meter(html, *used / limit, percent(100 * *used / limit) + u" of the limit"_s);
    }
}

QString growthOf(const std::optional<double>& now, const std::optional<double>& before)
{
    return now && before ? growth(*now - *before) : u"–"_s;
}

void accountRow(Html& html, const Account& account)
{
    const auto row = html.element("tr");
    {
        const auto name = html.element("th", {
                                                 {"class", u"l"_s  },
                                                 {"scope", u"row"_s}
        });
        html.foreign(account.domain);
        html.text(u" ");
        const auto user = html.element("span", {
                                                   {"class", u"of-kind"_s}
        });
        html.foreign(account.username);
        if (account.readOnly)
            html.leaf("span", u" read-only",
                      {
                          {"class", u"up"_s}
            });
    }
    useCell(html, account.disk, account.diskLimit);
    html.leaf("td", growthOf(account.disk, account.diskBefore));
    useCell(html, account.database, account.databaseLimit);
    html.leaf("td", growthOf(account.database, account.databaseBefore));
}

void accounts(Html& html, const HostFigures& figures)
{
    const Accounts& all = figures.accounts;
    section(html, u"accounts"_s, u"Accounts"_s);
    const auto card = html.element("section", {
                                                  {"class", u"card"_s}
    });
    if (all.listed.isEmpty()) {
        html.leaf("p", u"No hosting accounts.",
                  {
                      {"class", u"dim"_s}
        });
        return;
    }
    {
        const auto scroll = html.element("div", {
                                                    {"class",      u"scroll"_s         },
                                                    {"tabindex",   u"0"_s              },
                                                    {"role",       u"region"_s         },
                                                    {"aria-label", u"Accounts by use"_s}
        });
        const auto table = html.element("table");
        tableHead(html, {u"Account"_s, u"Disk"_s, u"Growth"_s, u"Database"_s, u"Growth"_s}, 0);
        const auto body = html.element("tbody");
        for (const Account& account : all.listed)
            accountRow(html, account);
    }
    html.leaf("p",
              u"%1 accounts use %2 of disk and %3 of databases. Growth is since the first measurement of the "
              u"period. "
              u"Those that are nearest to a limit come first%4."_s.arg(
                  count(all.count), bytes(all.disk), bytes(all.database),
                  all.count > all.listed.size()
                      ? u"; %1 are not listed"_s.arg(count(all.count - all.listed.size()))
                      : QString()),
              {
                  {"class", u"note"_s}
    });
}

void siteRow(Html& html, const SiteRow& site, qint64 most)
{
    const auto row = html.element("tr");
    {
        const auto name = html.element("th", {
                                                 {"class", u"l bars"_s},
                                                 {"scope", u"row"_s   }
        });
        bar(html, most > 0 ? static_cast<double>(site.visitors) / static_cast<double>(most) : 0);
        const auto link = html.element("a", {
                                                {"href", siteFileName(site.site.host)}
        });
        html.foreign(site.site.host);
    }
    {
        const auto trend = html.element("td");
        const auto least = std::minmax_element(site.trend.cbegin(), site.trend.cend());
        sparkline(html, site.trend,
                  site.trend.isEmpty() ? QString()
                                       : u"%1 to %2 a day"_s.arg(count(std::llround(*least.first)),
                                                                 count(std::llround(*least.second))));
    }
    html.leaf("td", count(site.visitors));
    html.leaf("td", change(static_cast<double>(site.visitors), static_cast<double>(site.visitorsBefore)));
    html.leaf("td", count(site.views));
    html.leaf("td", percent(100 * site.botShare));
}

void siteSums(Html& html, const Sites& sites)
{
    qint64 visitors = sites.visitors;
    qint64 views = sites.views;
    qint64 before = sites.visitorsBefore;
    for (const SiteRow& site : sites.listed) {
        visitors -= site.visitors;
        views -= site.views;
        before -= site.visitorsBefore;
    }
    const auto row = html.element("tr", {
                                            {"class", u"sum"_s}
    });
    html.leaf("th", u"%1 other sites"_s.arg(count(sites.count - sites.listed.size())),
              {
                  {"class", u"l bars"_s},
                  {"scope", u"row"_s   }
    });
    html.leaf("td", u"");
    html.leaf("td", count(visitors));
    html.leaf("td", change(static_cast<double>(visitors), static_cast<double>(before)));
    html.leaf("td", count(views));
    html.leaf("td", u"");
}

void sites(Html& html, const HostFigures& figures)
{
    const Sites& all = figures.sites;
    section(html, u"sites"_s, u"Sites"_s);
    const auto card = html.element("section", {
                                                  {"class", u"card"_s}
    });
    if (all.listed.isEmpty()) {
        html.leaf("p", u"No sites.",
                  {
                      {"class", u"dim"_s}
        });
        return;
    }
    {
        const auto scroll = html.element("div", {
                                                    {"class",      u"scroll"_s           },
                                                    {"tabindex",   u"0"_s                },
                                                    {"role",       u"region"_s           },
                                                    {"aria-label", u"Sites by visitors"_s}
        });
        const auto table = html.element("table", {
                                                     {"class", u"sites"_s}
        });
        tableHead(html, {u"Site"_s, u"Trend"_s, u"Visitors"_s, u"Change"_s, u"Views"_s, u"Bots"_s}, 0);
        const auto body = html.element("tbody");
        for (const SiteRow& site : all.listed)
            siteRow(html, site, all.listed.first().visitors);
        if (all.count > all.listed.size())
            siteSums(html, all);
    }
    html.leaf(
        "p",
        u"%1 visitors and %2 views in all. Change is against the %3 days before; bots is their share of the "
        u"requests."_s.arg(count(all.visitors), count(all.views), count(figures.period.days())),
        {
            {"class", u"note"_s}
    });
}

} // namespace

QByteArray hostPage(const HostFigures& figures)
{
    const bool isLong = figures.days.size() >= kLongFrom;
    Frame frame{figures.name, figures.now, figures.period, false, {}, {}};
    frame.sections = {
        {u"attention"_s, u"Attention"_s},
        {u"health"_s,    u"Health"_s   },
        {u"alerts"_s,    u"Alerts"_s   },
        {u"accounts"_s,  u"Accounts"_s },
        {u"sites"_s,     u"Sites"_s    },
    };
    if (isLong)
        frame.sections.insert(2, {u"year"_s, u"Long run"_s});
    if (!figures.searchAt.isEmpty())
        frame.intro = u"Search figures: %1, %2"_s.arg(figures.searchAt,
                                                      shortened(figures.searchResult, kShownCharacters));
    return page(frame, [&figures, isLong](Html& html) {
        attention(html, figures);
        curves(html, figures);
        if (isLong)
            longCurves(html, figures);
        alertHistory(html, figures);
        accounts(html, figures);
        sites(html, figures);
    });
}

} // namespace tarn::report
