#include "analytics/SearchImport.h"

#include "analytics/UrlText.h"
#include "common/Db.h"
#include "common/Transaction.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QStringList>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace tarn::analytics {

namespace {

constexpr qsizetype kRowsPerInsert = 500;

/// A site at an engine and the days that are replaced.
struct Target
{
    int siteId;
    QString engine;
    QString first;
    QString last;
};

/// Member @p index of "keys"; empty when there is none, for whatever reason.
QString keyOf(const QJsonObject& row, int index)
{
    return db::storable(row.value(u"keys"_s).toArray().at(index).toString());
}

/// The path of a page's URL: the page is the same under each scheme, host name and query string.
QString pathOf(const QString& page)
{
    return db::storable(percentDecoded(splitUrl(page.toUtf8()).path));
}

void bindFigures(QSqlQuery& query, const QJsonObject& row)
{
    query.addBindValue(row.value(u"clicks"_s).toInt());
    query.addBindValue(row.value(u"impressions"_s).toInt());
    query.addBindValue(row.value(u"position"_s).toDouble());
}

/// False when the session is lost. Another failure of a deletion spoils the transaction, and the next
/// insertion says so.
bool deleteDays(db::Transaction& transaction, const Target& target)
{
    for (const QString& statement : {kSearchDayDeletion, kSearchRowDeletion}) {
        QSqlQuery& query = transaction.prepare(statement);
        query.addBindValue(target.siteId);
        query.addBindValue(target.engine);
        query.addBindValue(target.first);
        query.addBindValue(target.last);
        if (!db::exec(query) && !db::session().isOpen())
            return false;
    }
    return true;
}

bool insertDays(db::Transaction& transaction, const Target& target, const QJsonArray& totals)
{
    QSqlQuery& query = transaction.prepare(kSearchDayInsertion);
    return std::all_of(totals.begin(), totals.end(), [&](const QJsonValue& value) {
        const QJsonObject day = value.toObject();
        query.addBindValue(target.siteId);
        query.addBindValue(target.engine);
        query.addBindValue(keyOf(day, 0));
        bindFigures(query, day);
        return db::exec(query);
    });
}

bool insertRows(db::Transaction& transaction, const Target& target, const QJsonArray& rows)
{
    for (qsizetype start = 0; start < rows.size(); start += kRowsPerInsert) {
        const qsizetype count = std::min(kRowsPerInsert, rows.size() - start);
        QSqlQuery& query = transaction.prepare(searchRowInsertStatement(count));
        for (qsizetype i = start; i < start + count; ++i) {
            const QJsonObject row = rows.at(i).toObject();
            query.addBindValue(target.siteId);
            query.addBindValue(target.engine);
            query.addBindValue(keyOf(row, 0));
            query.addBindValue(keyOf(row, 1));
            query.addBindValue(pathOf(keyOf(row, 2)));
            query.addBindValue(keyOf(row, 3).toLower());
            query.addBindValue(keyOf(row, 4).toLower());
            bindFigures(query, row);
        }
        if (!db::exec(query))
            return false;
    }
    return true;
}

bool store(const Target& target, const QJsonArray& totals, const QJsonArray& rows)
{
    db::Transaction transaction;
    // Without one each statement would stand on its own, the deletions first of all.
    return transaction.begun() && deleteDays(transaction, target) && insertDays(transaction, target, totals)
           && insertRows(transaction, target, rows) && transaction.commit();
}

} // namespace

QString importSearchData(int siteId, const QString& engine, const QJsonObject& document, bool* ok)
{
    *ok = false;
    const QJsonArray totals = document.value(u"totals"_s).toArray();
    const QJsonArray rows = document.value(u"rows"_s).toArray();
    if (totals.isEmpty())
        return u"no daily totals in the data"_s;

    // As texts days are in the order of time, and "9999" is behind them all.
    Target target{.siteId = siteId, .engine = db::storable(engine), .first = u"9999"_s, .last = u""_s};
    for (const QJsonValue value : totals) {
        const QString day = keyOf(value.toObject(), 0);
        target.first = std::min(target.first, day);
        target.last = std::max(target.last, day);
    }
    if (!store(target, totals, rows))
        return u"database error while storing"_s;
    *ok = true;
    return u"%1 days (%2 to %3), %4 detail rows"_s.arg(QString::number(totals.size()), target.first,
                                                       target.last, QString::number(rows.size()));
}

QString searchRowInsertStatement(qsizetype rows)
{
    const auto tuple =
        u"(?, ?, CAST(? AS date), ?, ?, (SELECT alpha2 FROM tarn.country_codes WHERE alpha3 = ?), "
        u"?, ?, ?, ?)"_s;
    return u"INSERT INTO tarn.search_rows VALUES "_s + QStringList(rows, tuple).join(u", "_s);
}

} // namespace tarn::analytics
