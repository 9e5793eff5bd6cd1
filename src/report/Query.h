// How the report reads: one statement at a time on the process' session (common/Db.h), rows as they come.
#pragma once

#include <QDate>
#include <QSqlQuery>
#include <QString>
#include <QVariantList>

#include <optional>

namespace tarn::report {

/// The days that a page is about, both ends included.
struct Period
{
    QDate first;
    QDate last;

    qsizetype days() const { return first.daysTo(last) + 1; }
    /// As many days, ending just before the first one.
    Period before() const { return {first.addDays(-days()), first.addDays(-1)}; }
};

/// The moment of writing, as the database tells it, in the session's time zone.
struct Now
{
    QDate today;
    qint64 seconds = 0;       ///< since the Unix epoch
    qint64 offsetSeconds = 0; ///< of the time zone from UTC, now
    QString minute;           ///< "2026-11-21 16:05"
    QString zone;             ///< "Europe/Berlin"
};

/// The rows that @p statement yields with @p values in the place of its question marks. They can be read
/// once, from the first to the last. Nothing when the statement fails (logged).
std::optional<QSqlQuery> select(const QString& statement, const QVariantList& values = {});

/// A transaction that sees one state of the database throughout, can change nothing, and has a statement that
/// takes longer than a minute fail. It lasts as long as this object.
class Reading
{
public:
    Reading();
    ~Reading();
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    /// False when it could not be begun (logged).
    bool begun() const { return m_begun; }

private:
    bool m_begun = false;
};

std::optional<Now> readNow();

} // namespace tarn::report
