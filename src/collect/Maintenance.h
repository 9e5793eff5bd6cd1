// The steps of the maintenance pass, and which day has seen its daily work. Uses the product's database
// session. Main thread only.
#pragma once

#include <QDate>
#include <QSet>
#include <QString>

namespace tarn {

namespace analytics {
class Ingest;
}

/// The day of the last daily work. It is in memory only: every start does that work once more.
class DailyMark
{
public:
    /// True unless @p today has been noted.
    bool isDue(QDate today) const { return m_last != today; }
    void note(QDate today) { m_last = today; }

private:
    QDate m_last;
};

/// The days that a pass on @p today rolls up: today and, if the daily work is due, yesterday, whose last hits
/// came after its last pass.
QSet<QDate> daysToRollUp(QDate today, bool isDailyDue);

/// Rolls @p days up for every site. False when the session was lost before the last one; the rest is then
/// left to the next pass.
bool rollUpSites(const QSet<QDate>& days);

/// Deletes hits older than `raw_hit_days` of tarn.settings, and logs how many. They are kept for ever when
/// the setting is missing, is 0 or is negative.
void removeOldHits();

/// Loads the country table if it is not this month's, and logs the result. Logs as well when @p ingest gives
/// hits no countries before a restart. Waits for DB-IP, for six hours at most.
void updateCountries(const analytics::Ingest& ingest);

/// All sites.
inline const QString kSiteIdsQuery = QStringLiteral("SELECT id FROM tarn.sites");
/// The days for which hits are kept.
inline const QString kRetentionQuery =
    QStringLiteral("SELECT value::int FROM tarn.settings WHERE key = 'raw_hit_days'");
/// Deletes the hits that are older than a number of days.
inline const QString kOldHitDeletion =
    QStringLiteral("DELETE FROM tarn.hits WHERE at < now() - make_interval(days => ?)");

} // namespace tarn
