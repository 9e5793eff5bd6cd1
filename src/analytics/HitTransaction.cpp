#include "analytics/HitTransaction.h"

#include "common/Db.h"

#include <QSqlError>
#include <QStringList>
#include <QVariant>

#include <utility>

using namespace Qt::Literals::StringLiterals;

namespace tarn::analytics {

namespace {

/// The savepoint's statements say nothing when they fail: the statement behind them fails as well, and does.
bool runInSilence(const QString& statement)
{
    return QSqlQuery().exec(statement);
}

} // namespace

/// Runs @p lookUp, whose failure must not spoil the hits around it, behind a savepoint. The savepoint is set
/// once for all look-ups between two batches. It is released before anything is written, so that rolling back
/// to it costs nothing but the failed look-up.
template <typename LookUp>
auto HitTransaction::guarded(LookUp lookUp)
{
    if (!m_guarded)
        m_guarded = runInSilence(u"SAVEPOINT look_up"_s);
    auto result = lookUp();
    if (!result && !runInSilence(u"ROLLBACK TO SAVEPOINT look_up"_s))
        m_transaction.spoil();
    return result;
}

std::optional<qint64> HitTransaction::nextSession()
{
    QString error;
    const std::optional<qint64> id = guarded([&error] { return nextSessionId(error); });
    if (!id && !std::exchange(m_sessionFailed, true))
        db::logFailure(error);
    return id;
}

std::optional<QString> HitTransaction::country(const QString& ip)
{
    return guarded([&] { return findCountry(m_transaction.prepare(kCountryQuery), ip); });
}

QSqlQuery& HitTransaction::insertion(qsizetype rows)
{
    if (m_guarded)
        m_guarded = !runInSilence(u"RELEASE SAVEPOINT look_up"_s);
    return m_transaction.prepare(hitInsertStatement(rows));
}

std::optional<QString> findCountry(QSqlQuery& query, const QString& ip)
{
    query.addBindValue(db::storable(ip));
    query.addBindValue(db::storable(ip));
    if (!db::exec(query))
        return std::nullopt;
    return query.next() ? query.value(0).toString() : QString();
}

std::optional<qint64> nextSessionId(QString& error)
{
    QSqlQuery query;
    if (!query.exec(kNextSessionQuery) || !query.next()) {
        error = query.lastError().text();
        return std::nullopt;
    }
    return query.value(0).toLongLong();
}

QString hitInsertStatement(qsizetype rows)
{
    const auto group = u"(?, ?, ?, ?, ?, ?, ?, CAST(? AS inet), ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"_s;
    return kHitInsertion + u"VALUES "_s + QStringList(rows, group).join(u", "_s);
}

} // namespace tarn::analytics
