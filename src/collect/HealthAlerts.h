// The alert book: how long each condition has lasted, its row in tarn.alerts, and the log line and the
// message when it opens and ends. Judges nothing; Alerts does. Health owns the book and what it works on.
// Main thread only. The wait for a webhook or a mail server serves timers, so that other jobs, checks
// included, can run inside note().
#pragma once

#include <QHash>
#include <QString>

namespace tarn {

struct Condition;

namespace notify {
struct Config;
}

class HealthAlerts
{
public:
    /// @p streaks holds the length of each streak (see nextStreak()) by "kind/subject". It and @p config must
    /// outlive this object.
    HealthAlerts(QHash<QString, int>& streaks, const notify::Config& config);
    HealthAlerts(const HealthAlerts&) = delete;
    HealthAlerts& operator=(const HealthAlerts&) = delete;
    ~HealthAlerts() = default;

    /// Counts one pass of @p condition, and does what Health::check() says. @p n is at least 1.
    void note(const Condition& condition, int n);

private:
    QHash<QString, int>& m_streaks;
    const notify::Config& m_config;
};

/// Opens an alert: kind, subject and text. Adds no row when one is open already.
inline const QString kAlertOpening = QStringLiteral(
    "INSERT INTO tarn.alerts (kind, subject, message) VALUES (?, ?, ?) ON CONFLICT DO NOTHING");
/// The text, kind and subject of an open alert.
inline const QString kAlertRefresh =
    QStringLiteral("UPDATE tarn.alerts SET message = ? WHERE kind = ? AND subject = ? AND closed_at IS NULL");
/// Closes the alert of a kind and a subject; answers with its text and its seconds.
inline const QString kAlertClosing = QStringLiteral(
    "UPDATE tarn.alerts SET closed_at = now() WHERE kind = ? AND subject = ? AND closed_at IS NULL "
    "RETURNING message, extract(epoch FROM closed_at - opened_at)::bigint");

} // namespace tarn
