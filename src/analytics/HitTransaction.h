// The transaction of one Ingest::ingest(): look-ups, which may fail, and the insertions of hits. Private to
// Ingest.
#pragma once

#include "common/Transaction.h"

#include <QHash>
#include <QList>
#include <QString>

#include <optional>

namespace tarn::analytics {

class HitTransaction
{
public:
    /// Hits to a statement.
    static constexpr qsizetype kRowsPerInsert = 200;

    /// What a hit wants to know: the country of an address, or without one the number of a new session.
    struct LookUp
    {
        std::optional<QString> ip;
    };

    /// Makes all of @p lookUps at once, at most db::kMaxQuestions, for the calls of nextSession() and
    /// country() that follow. When one fails, these calls ask for themselves, one after the other.
    void askAhead(const QList<LookUp>& lookUps);

    /// The number of a new session; nothing when the database gives none, which is logged once for the
    /// transaction: every line of a new visitor would say the same.
    std::optional<qint64> nextSession();

    /// The country of @p ip, see countryOf().
    std::optional<QString> country(const QString& ip);

    /// Stores @p rows hits, whose @p values are those of hitInsertStatement(). False when the database
    /// refuses them (logged): nothing of the transaction can be kept then. Look-ups are over for this batch.
    bool insert(qsizetype rows, const db::Values& values);

    /// True once nothing can be kept: a batch was refused, or the session is lost.
    bool isSpoilt() const { return m_transaction.isSpoilt(); }

    void commit() { m_transaction.commit(); }

private:
    void guard();
    void takeBack();

    db::Transaction m_transaction;
    bool m_written = false;              ///< a batch is stored, which a failed look-up must not take back
    bool m_guarded = false;              ///< the savepoint is set
    QList<qint64> m_sessions;            ///< numbers that were asked for ahead, the last one first
    QHash<QString, QString> m_countries; ///< of addresses that were asked for ahead
    bool m_sessionFailed = false;
};

/// The country that @p answer to kCountryQuery names: empty when the address lies in no range, nothing when
/// the query failed (logged).
std::optional<QString> countryOf(const db::Answer& answer);

/// The values of kCountryQuery.
db::Values countryValues(const QString& ip);

/// The number in @p answer to kNextSessionQuery; nothing when the query failed.
std::optional<qint64> sessionOf(const db::Answer& answer);

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
constexpr qsizetype kValuesPerHit = 21;
QString hitInsertStatement(qsizetype rows);

} // namespace tarn::analytics
