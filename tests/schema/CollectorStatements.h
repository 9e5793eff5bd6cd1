// Every statement with which the collector and its modules touch the database, with values as they bind them.
// Texts come from the unit that sends them, where it shows them.
#pragma once

#include "analytics/GeoIp.h"
#include "analytics/Google.h"
#include "analytics/HitTransaction.h"
#include "analytics/Ingest.h"
#include "analytics/SearchImport.h"
#include "collect/Health.h"
#include "collect/HealthAccounts.h"
#include "collect/HealthAlerts.h"
#include "collect/HostSample.h"
#include "collect/LogSource.h"
#include "collect/Maintenance.h"
#include "common/Db.h"

#include <QDate>
#include <QDateTime>
#include <QString>
#include <QTimeZone>
#include <QVariant>

namespace tarn::test {

using namespace Qt::Literals::StringLiterals;

struct Statement
{
    const char* name;
    QString text;
    QVariantList values; ///< one for each "?"; without any the text is sent as it stands
};

// The layout is by hand: aligned as a table, texts of such different lengths are beyond reading.
// clang-format off

/// In an order in which each finds what it needs: a site, a log source and an account, all of id 1 or named alice.
inline const Statement kStatements[] = {
    // The session
    {"time-zone", db::kTimeZoneSetting, {u"Europe/Berlin"_s}},
    {"is-there", db::kSchemaCheck, {}},
    {"version", db::kSchemaVersionQuery, {}},
    {"listen", u"LISTEN tarn_sync"_s, {}},

    // Logs and hits
    {"secret", analytics::kVisitorSecretQuery, {}},
    {"have-countries", analytics::kHaveCountriesQuery, {}},
    {"sources", kLogSourcesQuery, {}},
    {"session-id", analytics::kNextSessionQuery, {}},
    {"country", analytics::kCountryQuery,
     {u"192.0.2.1"_s, u"192.0.2.1"_s}},
    {"hit", analytics::hitInsertStatement(1),
     {1, QDateTime(QDate(2024, 5, 5), QTime(12, 0), QTimeZone::utc()), u"GET"_s, u"/"_s, 200, 100LL, true,
      u"192.0.2.1"_s, QByteArray("\0\1\2\3\4\5\6\7", 8), 1LL, u"DE"_s, u"direct"_s, QVariant(), QVariant(),
      QVariant(), u"desktop"_s, u"Firefox"_s, u"Linux"_s, QVariant(), 1.5, 1234}},
    {"notify", analytics::kHitsNotification, {u"1"_s}},
    {"offset", kPlaceStorage, {4711LL, 8192LL, 1}},

    // Maintenance
    {"sites", kSiteIdsQuery, {}},
    {"roll-up", analytics::kRollUp, {1, QDate(2024, 5, 5)}},
    {"raw-hit-days", kRetentionQuery, {}},
    {"retention", kOldHitDeletion, {30}},

    // Countries
    {"geoip-month", analytics::kCountryMonthQuery, {}},
    {"empty-countries", analytics::kCountryTruncation, {}},
    {"countries", analytics::rangeInsertStatement(1),
     {u"192.0.2.0"_s, u"192.0.2.255"_s, u"DE"_s}},
    {"set-geoip-month", analytics::kCountryMonthStorage,
     {u"2024-05"_s}},

    // Search engines
    {"token", analytics::google::kRefreshTokenQuery, {}},
    {"record", analytics::google::kResultStorage, {u"fine"_s}},
    {"hosts", analytics::google::kSiteHostsQuery, {}},
    {"property", analytics::google::kPropertyStorage,
     {1, u"sc-domain:example.org"_s}},
    {"properties", analytics::google::kMappedSitesQuery, {}},
    {"clear-search-days", analytics::kSearchDayDeletion,
     {1, u"google"_s, u"2024-05-01"_s, u"2024-05-31"_s}},
    {"clear-search-rows", analytics::kSearchRowDeletion,
     {1, u"google"_s, u"2024-05-01"_s, u"2024-05-31"_s}},
    {"search-day", analytics::kSearchDayInsertion,
     {1, u"google"_s, u"2024-05-05"_s, 7, 70, 3.5}},
    {"search-rows", analytics::searchRowInsertStatement(2),
     {1, u"google"_s, u"2024-05-05"_s, u"mountain lake"_s, u"/"_s, u"deu"_s, u"mobile"_s, 3, 30, 1.5,
      1, u"google"_s, u"2024-05-05"_s, QVariant(), QVariant(), u"zzz"_s, QVariant(), 4, 40, 2.5}},

    // Health of the host
    {"transactions", kTransactionsQuery, {}},
    {"clients", kClientsQuery, {}},
    {"sample", sampleInsertStatement(),
     {0.5, 0.25, 0.125, 16'000'000LL, 8'000'000LL, 1'000'000'000'000LL, 500'000'000'000LL, QVariant(),
      QVariant(), 0LL, 0LL, QVariant(), QVariant(), QVariant(), QVariant(), 71.5, 5, QVariant(), QVariant(),
      QVariant(), 3, 400}},
    {"prune-samples", kSamplePruning, {}},
    {"open-alert", kAlertOpening,
     {u"memory"_s, u"RAM"_s, u"Memory 93% used"_s}},
    {"refresh-alert", kAlertRefresh,
     {u"Memory 95% used"_s, u"memory"_s, u"RAM"_s}},
    {"close-alert", kAlertClosing,
     {u"memory"_s, u"RAM"_s}},

    // Hosting accounts
    {"accounts", kAccountsQuery, {}},
    {"usage", kUsageStorage,
     {1'000'000LL, true, QVariant(), u"alice"_s}},
    {"mirror-readonly", kReadOnlyMirror, {true, u"alice"_s, true}},
    {"readonly", kReadOnlyStorage, {false, u"alice"_s}},
};

/// What the suite's panel does through the same module, when somebody connects or disconnects a search engine.
inline const Statement kConnectionStatements[] = {
    {"connect", analytics::google::kConnectionStorage,
     {QVariant(), u"token"_s}},
    {"token", analytics::google::kRefreshTokenQuery, {}},
    {"hosts", analytics::google::kSiteHostsQuery, {}},
    {"property", analytics::google::kPropertyStorage,
     {1, u"sc-domain:example.org"_s}},
    {"unmap", analytics::google::kMappingDeletion, {}},
    {"disconnect", analytics::google::kConnectionDeletion, {}},
};
// clang-format on

} // namespace tarn::test
