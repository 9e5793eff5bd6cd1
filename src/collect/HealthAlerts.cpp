#include "collect/Alerts.h"
#include "collect/Health.h"
#include "collect/HostSample.h"
#include "common/Db.h"
#include "common/System.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QVariant>

#include <unistd.h>

#include <algorithm>
#include <optional>

using namespace Qt::Literals::StringLiterals;

namespace tarn {

namespace {

/// Samples in a row that open an alert of the host, and close it.
constexpr int kSamples = 3;

const auto kOpen =
    u"INSERT INTO tarn.alerts (kind, subject, message) VALUES (?, ?, ?) ON CONFLICT DO NOTHING"_s;
const auto kClose =
    u"UPDATE tarn.alerts SET closed_at = now() WHERE kind = ? AND subject = ? AND closed_at IS NULL "
    "RETURNING message, extract(epoch FROM closed_at - opened_at)::bigint"_s;
const auto kRefresh =
    u"UPDATE tarn.alerts SET message = ? WHERE kind = ? AND subject = ? AND closed_at IS NULL"_s;

// Each of these ends its query before it returns: delivering a message can take long enough for the session
// to be lost and opened anew, and a prepared query must not live on into the new one.

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

/// The processors that the load average is over: all that are running, whatever part of them this process may
/// use.
int processors()
{
    return static_cast<int>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
}

} // namespace

void Health::check(const QString& kind, const QString& subject, bool bad, const QString& text, int n)
{
    const QString key = kind + u'/' + subject;
    const Streak streak = nextStreak(m_streak.value(key), bad, n);
    m_streak.insert(key, streak.length);
    if (streak.action == AlertAction::None)
        return;

    // An alert is opened once: a session that was lost while an earlier one was delivered must not cost it.
    db::ensure(false);
    const QString storedKind = db::storable(kind);
    const QString storedSubject = db::storable(subject);
    const QString storedText = db::storable(text);
    switch (streak.action) {
    case AlertAction::Open:
        if (openAlert(storedKind, storedSubject, storedText)) {
            qWarning("alert: %s", qPrintable(storedText));
            notify::send(m_notify, {storedKind, storedSubject, storedText, false, 0});
        }
        break;
    case AlertAction::Refresh:
        refreshAlert(storedKind, storedSubject, storedText);
        break;
    case AlertAction::Close:
        if (const std::optional<ClosedAlert> closed = closeAlert(storedKind, storedSubject)) {
            qInfo("alert cleared: %s", qPrintable(closed->text));
            notify::send(m_notify, {storedKind, storedSubject, closed->text, true, closed->openSeconds});
        }
        break;
    case AlertAction::None:
        break;
    }
}

void Health::checkHost(const Counters& current, const HostFigures& host)
{
    // A server that is away is tried once, not again for each disk and each service.
    bool isAway = false;
    const auto checked = [this, &isAway](const Condition& condition) {
        isAway = isAway || !(db::session().isOpen() || db::ensure(false));
        if (!isAway)
            check(condition.kind, condition.subject, condition.bad, condition.text, kSamples);
    };
    checked(memoryCondition(host.memTotalKb, host.memAvailableKb, m_memPct));
    if (current.apache && current.apacheSlots > 0)
        checked(apacheCondition(current.apacheBusy, current.apacheSlots, m_apacheBusyPct));
    checked(loadCondition(host.load.one, processors(), m_loadPerCpu));
    if (host.cpuTemperatureC)
        checked(temperatureCondition(*host.cpuTemperatureC, m_tempC));
    const QJsonArray disks = system::disks();
    for (const QJsonValueConstRef& disk : disks)
        checked(diskCondition(disk.toObject(), m_diskPct));
    const QJsonArray services = system::serviceStatus(m_services);
    for (const QJsonValueConstRef& service : services)
        checked(serviceCondition(service.toObject()));
}

} // namespace tarn
