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

// Each of these ends its query before it returns. The session can be lost and opened anew while a message is
// delivered, and a prepared query must not live on into the new session.

/// True when the alert was not open already.
bool openAlert(const QString& kind, const QString& subject, const QString& text)
{
    QSqlQuery query;
    query.prepare(kAlertOpening);
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
    query.prepare(kAlertClosing);
    query.addBindValue(kind);
    query.addBindValue(subject);
    if (!db::exec(query) || !query.next())
        return std::nullopt;
    return ClosedAlert{query.value(0).toString(), query.value(1).toLongLong()};
}

void refreshAlert(const QString& kind, const QString& subject, const QString& text)
{
    QSqlQuery query;
    query.prepare(kAlertRefresh);
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
