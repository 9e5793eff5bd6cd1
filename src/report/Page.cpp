#include "report/Page.h"

#include "report/Format.h"
#include "report/Style.h"

#include <QCryptographicHash>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace tarn::report {

namespace {

/// Longer names are cut and told apart by a hash: file systems stop at 255 bytes.
constexpr qsizetype kLongestName = 180;

void head(Html& html, const Frame& frame)
{
    const auto head = html.element("head");
    html.lone("meta", {
                          {"charset", u"utf-8"_s}
    });
    // Before anything that it is to hold for.
    html.lone("meta",
              {
                  {"http-equiv", u"Content-Security-Policy"_s},
                  {"content",    contentSecurityPolicy()     }
    });
    html.lone("meta", {
                          {"name",    u"viewport"_s                           },
                          {"content", u"width=device-width, initial-scale=1"_s}
    });
    html.lone("meta", {
                          {"name",    u"color-scheme"_s},
                          {"content", u"light dark"_s  }
    });
    html.lone("meta", {
                          {"name",    u"referrer"_s   },
                          {"content", u"no-referrer"_s}
    });
    html.lone("meta", {
                          {"name",    u"robots"_s           },
                          {"content", u"noindex, nofollow"_s}
    });
    // An empty picture, or browsers ask the server for one.
    html.lone("link", {
                          {"rel",  u"icon"_s  },
                          {"href", u"data:,"_s}
    });
    html.leaf("title", frame.title);
    html.styleSheet(kStyleSheet);
}

void top(Html& html, const Frame& frame)
{
    const auto header = html.element("header");
    if (frame.toHost) {
        const auto back = html.element("p");
        html.leaf("a", u"← All sites and the host",
                  {
                      {"href", u"index.html"_s}
        });
    }
    {
        const auto title = html.element("h1");
        html.foreign(frame.title);
    }
    html.leaf("p", u"%1 to %2, %3 · written %4 (%5)"_s.arg(
                       isoDate(frame.period.first), isoDate(frame.period.last),
                       frame.period.days() == 1 ? u"1 day"_s : count(frame.period.days()) + u" days"_s,
                       frame.now.minute, frame.now.zone));
    if (!frame.intro.isEmpty())
        html.leaf("p", frame.intro);
    const auto nav = html.element("nav", {
                                             {"aria-label", u"Sections of this page"_s}
    });
    const auto list = html.element("ul");
    for (const auto& [id, name] : frame.sections) {
        const auto item = html.element("li");
        html.leaf("a", name,
                  {
                      {"href", u'#' + id}
        });
    }
}

QString classOf(const Column& column)
{
    return column.wide ? u"n wide"_s : u"n"_s;
}

void rankingRow(Html& html, const RankingTable& table, const Ranked& ranked, qint64 greatest)
{
    const auto row = html.element("tr");
    {
        const auto cell = rowHead(html, "l bars");
        bar(html, greatest > 0 ? static_cast<double>(ranked.hits) / static_cast<double>(greatest) : 0);
        html.foreign(table.label ? table.label(ranked.value) : ranked.value);
        if (table.withPart && !ranked.partOf.isEmpty()) {
            html.text(u" ");
            const auto part = html.element("span", "of-kind");
            html.foreign(table.partLabel ? table.partLabel(ranked.partOf) : ranked.partOf);
        }
    }
    for (const Column& column : table.columns) {
        html.leaf("td", column.figure(ranked),
                  {
                      {"class", classOf(column)}
        });
    }
}

void rankingHead(Html& html, const RankingTable& table)
{
    QList<Heading> headings = {
        {table.valueName, u"l bars"_s}
    };
    for (const Column& column : table.columns)
        headings.append({column.name, classOf(column)});
    tableHead(html, headings);
}

/// What the values that are not shown have together.
void rankingRest(Html& html, const RankingTable& table, qint64 rest)
{
    const auto row = html.element("tr", "sum");
    rowHead(html, u"All others", "l bars");
    html.leaf("td", count(rest));
    for (qsizetype i = 1; i < table.columns.size(); ++i) {
        html.leaf("td", u"",
                  {
                      {"class", classOf(table.columns.at(i))}
        });
    }
}

} // namespace

QString siteFileName(const QString& host)
{
    QByteArray name;
    const QByteArray utf8 = host.toUtf8();
    for (const char c : utf8) {
        if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.') {
            name += c;
        } else {
            name += '_' + QByteArray::number(static_cast<unsigned char>(c), 16).rightJustified(2, '0');
        }
    }
    if (name.size() > kLongestName) {
        const QByteArray hash = QCryptographicHash::hash(utf8, QCryptographicHash::Sha256).toHex();
        // An underscore without two digits behind: no shorter name can look like this one.
        name = name.first(kLongestName) + "__" + hash.first(32);
    }
    return u"site-"_s + QString::fromLatin1(name) + u".html"_s;
}

QByteArray page(const Frame& frame, const std::function<void(Html&)>& body)
{
    Html html;
    html.documentType();
    {
        const auto root = html.element("html", {
                                                   {"lang", u"en"_s}
        });
        head(html, frame);
        const auto whole = html.element("body");
        const auto wrap = html.element("div", "wrap");
        html.leaf("a", u"To the figures",
                  {
                      {"class", u"skip"_s    },
                      {"href",  u"#figures"_s}
        });
        top(html, frame);
        {
            const auto main = html.element("main", {
                                                       {"id", u"figures"_s}
            });
            body(html);
        }
        html.leaf("footer",
                  u"Written by tarn-report from the figures of tarn-collect. No addresses and no visitor "
                  u"ids are in here. Times and days are those of %1."_s.arg(frame.now.zone));
    }
    return html.bytes();
}

void section(Html& html, const QString& id, const QString& name)
{
    html.leaf("h2", name,
              {
                  {"id", id}
    });
}

void tile(Html& html, const QString& name, const QString& figure, const QString& below)
{
    const auto whole = html.element("div");
    html.leaf("dt", name);
    html.leaf("dd", figure, "big");
    html.leaf("dd", below.isEmpty() ? QString(QChar::Nbsp) : below, "sub");
}

void caption(Html& html, const QString& title, const QList<Key>& keys)
{
    const auto whole = html.element("figcaption");
    html.leaf("h3", title);
    if (keys.isEmpty())
        return;
    const auto legend = html.element("div", "key");
    for (const Key& key : keys) {
        html.leaf("span", key.name,
                  {
                      {"class", key.cssClass}
        });
    }
}

Html::Element card(Html& html)
{
    return html.element("section", "card");
}

void nothing(Html& html, QStringView text)
{
    html.leaf("p", text, "dim");
}

void note(Html& html, QStringView text)
{
    html.leaf("p", text, "note");
}

Html::Element scrolling(Html& html, const QString& name)
{
    return html.element(
        "div",
        {
            {"class",      u"scroll"_s},
            {"tabindex",   u"0"_s     },
            {"role",       u"region"_s},
            {"aria-label", name       }
    });
}

void tableHead(Html& html, const QList<Heading>& headings)
{
    const auto head = html.element("thead");
    const auto row = html.element("tr");
    for (const Heading& heading : headings) {
        html.leaf("th", heading.name,
                  {
                      {"class", heading.cssClass},
                      {"scope", u"col"_s        }
        });
    }
}

Html::Element rowHead(Html& html, CssClass cssClass)
{
    return html.element("th", {
                                  {"class", cssClass.text()},
                                  {"scope", u"row"_s       }
    });
}

void rowHead(Html& html, QStringView text, CssClass cssClass)
{
    const auto head = rowHead(html, cssClass);
    html.text(text);
}

QList<Tick> dayTicks(QDate first, qsizetype count)
{
    constexpr qsizetype daysWithYear = 100;
    const bool withYear = count > daysWithYear;
    // "2026-11" is wider than "11-21", and a chart on a phone has some 250 pixels.
    const qsizetype most = withYear ? 4 : 5;
    const qsizetype step = std::max<qsizetype>((count + most - 1) / most, 1);
    QList<Tick> ticks;
    for (qsizetype i = step / 2; i < count; i += step) {
        ticks.append({(static_cast<double>(i) + 0.5) / static_cast<double>(count),
                      first.addDays(i).toString(withYear ? u"yyyy-MM"_s : u"MM-dd"_s)});
    }
    return ticks;
}

void rankingTable(Html& html, const RankingTable& table, const Ranking& ranking)
{
    const auto box = card(html);
    html.leaf("h3", table.title);
    if (ranking.values.isEmpty()) {
        nothing(html, u"None in this period.");
    } else {
        const qsizetype shown = std::min<qsizetype>(ranking.values.size(), table.rows);
        qint64 rest = ranking.hits;
        const auto whole = html.element("table");
        rankingHead(html, table);
        const auto body = html.element("tbody");
        for (qsizetype i = 0; i < shown; ++i) {
            rankingRow(html, table, ranking.values.at(i), ranking.values.first().hits);
            rest -= ranking.values.at(i).hits;
        }
        if (rest > 0)
            rankingRest(html, table, rest);
    }
    if (!table.note.isEmpty())
        note(html, table.note);
}

Column hitsColumn(const QString& name)
{
    return {name, [](const Ranked& ranked) { return count(ranked.hits); }, false};
}

Column visitorsColumn()
{
    return {u"Visitors"_s, [](const Ranked& ranked) { return count(ranked.visitors); }, false};
}

} // namespace tarn::report
