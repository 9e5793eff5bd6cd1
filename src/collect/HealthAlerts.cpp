#include "collect/HealthAlerts.h"

#include "collect/Alerts.h"
#include "common/Db.h"
#include "common/Notify.h"

#include <QJsonArray>
#include <QSqlQuery>
#include <QVariant>

#include <optional>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

const auto kOpen =
    u"INSERT INTO tarn.alerts (kind, subject, message) VALUES (?, ?, ?) ON CONFLICT DO NOTHING"_s;
const auto kClose =
    u"UPDATE tarn.alerts SET closed_at = now() WHERE kind = ? AND subject = ? AND closed_at IS NULL "
    "RETURNING message, extract(epoch FROM closed_at - opened_at)::bigint"_s;
const auto kRefresh =
    u"UPDATE tarn.alerts SET message = ? WHERE kind = ? AND subject = ? AND closed_at IS NULL"_s;

// Each of these ends its query before it returns. The session can be lost and opened anew while a message is
// delivered, and a prepared query must not live on into the new session.

/// True when the alert was not open already.
bool openAlert(const QString& kind, const QString& subject, const QString& text)
{
    QSqlQuery query;
    query.prepare(kOpen);
    query.addBindValue(kind);
    query.addBindValue(subject);
    query.addBindValue(text);
    return db::exec(query) && query.numRowsAffected() > 0;
}

struct ClosedAlert
{
    QString text;
    qint64 openSeconds = 0;
};

/// Nothing when none was open.
std::optional<ClosedAlert> closeAlert(const QString& kind, const QString& subject)
{
    QSqlQuery query;
    query.prepare(kClose);
    query.addBindValue(kind);
    query.addBindValue(subject);
    if (!db::exec(query) || !query.next())
        return std::nullopt;
    return ClosedAlert{query.value(0).toString(), query.value(1).toLongLong()};
}

void refreshAlert(const QString& kind, const QString& subject, const QString& text)
{
    QSqlQuery query;
    query.prepare(kRefresh);
    query.addBindValue(text);
    query.addBindValue(kind);
    query.addBindValue(subject);
    db::exec(query);
}

} // namespace

HealthAlerts::HealthAlerts(QHash<QString, int>& streaks, const notify::Config& config)
    : m_streaks(streaks)
    , m_config(config)
{
}

void HealthAlerts::note(const Condition& condition, int n)
{
    const QString key = condition.kind + u'/' + condition.subject;
    const Streak streak = nextStreak(m_streaks.value(key), condition.bad, n);
    m_streaks.insert(key, streak.length);
    if (streak.action == AlertAction::None)
        return;

    // The session can have been lost while an earlier alert was delivered. This one is opened or closed in
    // this pass only.
    if (!db::ensure(false))
        return;
    const QString kind = db::storable(condition.kind);
    const QString subject = db::storable(condition.subject);
    const QString text = db::storable(condition.text);
    switch (streak.action) {
    case AlertAction::Open:
        if (openAlert(kind, subject, text)) {
            qWarning("alert: %s", qPrintable(text));
            notify::send(m_config, {kind, subject, text, false, 0});
        }
        break;
    case AlertAction::Refresh:
        refreshAlert(kind, subject, text);
        break;
    case AlertAction::Close:
        if (const std::optional<ClosedAlert> closed = closeAlert(kind, subject)) {
            qInfo("alert cleared: %s", qPrintable(closed->text));
            notify::send(m_config, {kind, subject, closed->text, true, closed->openSeconds});
        }
        break;
    case AlertAction::None:
        break;
    }
}

} // namespace tarn
