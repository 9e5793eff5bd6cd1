// What all pages are made of: their frame, cards, tables with bars, curves by the day.
#pragma once

#include "report/Html.h"
#include "report/Query.h"
#include "report/SiteData.h"
#include "report/Svg.h"

#include <functional>

namespace tarn::report {

/// Name of the file with the page of @p host; safe in every file system and URL, another one for each host.
QString siteFileName(const QString& host);

struct Frame
{
    QString title;
    const Now& now;
    const Period& period;
    bool toHost = false;                         ///< with a link to the host's page
    QString intro;                               ///< a line below the title, if any
    QList<std::pair<QString, QString>> sections; ///< id and name, linked to at the top
};

/// A whole page with @p body in its main part.
QByteArray page(const Frame& frame, const std::function<void(Html&)>& body);

/// A heading with the id that the page's top links to.
void section(Html& html, const QString& id, const QString& name);

/// A number in words of its own size, for a list of them (dl.tiles).
void tile(Html& html, const QString& name, const QString& figure, const QString& below);

/// The line of a legend.
struct Key
{
    QString cssClass; ///< c1, c2, c0 or s
    QString name;
};
void caption(Html& html, const QString& title, const QList<Key>& keys = {});

/// A box with a title, and paragraphs in it or below: one that says there is nothing, one that explains.
[[nodiscard]] Html::Element card(Html& html);
void nothing(Html& html, QStringView text);
void note(Html& html, QStringView text);

/// A place for a table that may be too wide: it can be scrolled, by keyboard as well.
[[nodiscard]] Html::Element scrolling(Html& html, const QString& name);

/// The head of a column: l for the texts on the left, t for other texts, n for numbers; with "wide" behind if
/// the column is left out where the page is as narrow as a phone.
struct Heading
{
    QString name;
    QString cssClass;
};
void tableHead(Html& html, const QList<Heading>& headings);

/// The cell that names its row, of one text or open for several.
void rowHead(Html& html, QStringView text, CssClass cssClass);
[[nodiscard]] Html::Element rowHead(Html& html, CssClass cssClass);

/// Labels for @p count days from @p first on, at most five.
QList<Tick> dayTicks(QDate first, qsizetype count);

/// How a column of figures reads.
struct Column
{
    QString name;
    std::function<QString(const Ranked&)> figure;
    bool wide = false; ///< left out where the page is as narrow as a phone
};

/// A card with a table of a dimension's values, the greatest first, each with a bar for its share of the
/// whole.
struct RankingTable
{
    QString title;
    QString valueName; ///< heading of the values
    QList<Column> columns;
    int rows = 12;
    bool withPart = false;                                 ///< tell what a value is part of
    QString note = {};                                     ///< below, if any
    std::function<QString(const QString&)> label = {};     ///< another text for a value, if given
    std::function<QString(const QString&)> partLabel = {}; ///< the same for what it is part of
};
void rankingTable(Html& html, const RankingTable& table, const Ranking& ranking);

/// The column of every such table.
Column hitsColumn(const QString& name);
Column visitorsColumn();

} // namespace tarn::report
