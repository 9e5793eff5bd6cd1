// The transaction of one Ingest::ingest(): look-ups, which may fail, and the insertions of hits. Private to
// Ingest.
#pragma once

#include "common/Transaction.h"

#include <QString>

#include <optional>

namespace tarn::analytics {

class HitTransaction
{
public:
    /// Hits to a statement.
    static constexpr qsizetype kRowsPerInsert = 200;

    /// The number of a new session; nothing when the database gives none, which is logged once for the
    /// transaction: every line of a new visitor would say the same.
    std::optional<qint64> nextSession();

    /// The country of @p ip, see findCountry().
    std::optional<QString> country(const QString& ip);

    /// The statement for @p rows hits, to be bound and run. Look-ups are over for this batch.
    QSqlQuery& insertion(qsizetype rows);

    /// Notes that a batch was refused: nothing of the transaction can be kept.
    void spoil() { m_transaction.spoil(); }
    /// True once nothing can be kept: a batch was refused, or the session is lost.
    bool isSpoilt() const { return m_transaction.isSpoilt(); }

    void commit() { m_transaction.commit(); }

private:
    template <typename LookUp>
    auto guarded(LookUp lookUp);

    db::Transaction m_transaction;
    bool m_guarded = false; ///< the savepoint is set
    bool m_sessionFailed = false;
};

/// The country of @p ip by a query that is prepared for kCountryQuery: empty when the address lies in no
/// range, nothing when the query fails (logged).
std::optional<QString> findCountry(QSqlQuery& query, const QString& ip);

/// A number that no session has had yet; nothing, and the reason in @p error, when the database gives none.
std::optional<qint64> nextSessionId(QString& error);

/// The country of an address, given twice: the range with the greatest start that is not above it, if the
/// address is not past the end of that range.
inline const QString kCountryQuery = QStringLiteral(
    "SELECT country FROM (SELECT country, ip_to FROM tarn.geo_country WHERE ip_from <= CAST(? AS inet) "
    "ORDER BY ip_from DESC LIMIT 1) g WHERE ip_to >= CAST(? AS inet)");

inline const QString kNextSessionQuery = QStringLiteral("SELECT nextval('tarn.session_seq')");

/// The beginning of each insertion of hits: all columns, in the order in which they are bound.
inline const QString kHitInsertion = QStringLiteral(
    "INSERT INTO tarn.hits (site_id, at, method, path, status, bytes, is_page, ip, visitor, session_id, "
    "country, source_kind, source, referrer, search_terms, device, browser, os, bot, engaged_secs, "
    "response_us) ");

/// The statement that stores @p rows hits at once, for 21 positional values a row.
QString hitInsertStatement(qsizetype rows);

} // namespace tarn::analytics
