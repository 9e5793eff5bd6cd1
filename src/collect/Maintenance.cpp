#include "collect/Maintenance.h"

#include "analytics/GeoIp.h"
#include "analytics/Ingest.h"
#include "common/Db.h"

#include <QSqlDatabase>
#include <QSqlQuery>

using namespace Qt::Literals::StringLiterals;
using tarn::analytics::Ingest;

namespace tarn {

namespace {

} // namespace

QSet<QDate> daysToRollUp(QDate today, bool isDailyDue)
{
    QSet<QDate> days = {today};
    if (isDailyDue)
        days.insert(today.addDays(-1));
    return days;
}

bool rollUpSites(const QSet<QDate>& days)
{
    QSqlQuery sites;
    db::exec(sites, kSiteIdsQuery);
    while (sites.next()) {
        if (!db::session().isOpen())
            return false;
        Ingest::rollup(sites.value(0).toInt(), days);
    }
    return db::session().isOpen();
}

void removeOldHits()
{
    QSqlQuery setting;
    if (!db::exec(setting, kRetentionQuery) || !setting.next() || setting.value(0).toInt() <= 0)
        return;
    const int days = setting.value(0).toInt();
    QSqlQuery removal;
    removal.prepare(kOldHitDeletion);
    removal.addBindValue(days);
    db::exec(removal);
    qInfo("collect: removed %d raw hits older than %d days", removal.numRowsAffected(), days);
}

void updateCountries(const Ingest& ingest)
{
    if (!analytics::geoIpIsStale())
        return;
    bool ok = false;
    const QString result = analytics::updateGeoIp({}, &ok);
    qInfo("collect: geoip: %s", qPrintable(result));
    if (ok)
        ingest.noteCountryLoad();
}

} // namespace tarn
