// Every statement with which the collector and its modules touch the database, with values as they bind them.
// Texts come from the unit that sends them, where it shows them.
#pragma once

#include "analytics/GeoIp.h"
#include "analytics/HitTransaction.h"
#include "analytics/SearchImport.h"

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
    {"time-zone", u"SELECT set_config('TimeZone', ?, false)"_s, {u"Europe/Berlin"_s}},
    {"is-there", u"SELECT to_regclass('tarn.schema_migrations') IS NOT NULL"_s, {}},
    {"version", u"SELECT coalesce(max(version), 0) FROM tarn.schema_migrations"_s, {}},
    {"listen", u"LISTEN tarn_sync"_s, {}},

    // Logs and hits
    {"secret", u"SELECT value FROM tarn.settings WHERE key = 'visitor_secret'"_s, {}},
    {"have-countries", u"SELECT EXISTS (SELECT 1 FROM tarn.geo_country)"_s, {}},
    {"sources",
     u"SELECT l.id, l.path, l.inode, l.read_offset, l.site_id, s.host "
     "FROM tarn.log_sources l JOIN tarn.sites s ON s.id = l.site_id"_s,
     {}},
    {"session-id", analytics::kNextSessionQuery, {}},
    {"country", analytics::kCountryQuery,
     {u"192.0.2.1"_s, u"192.0.2.1"_s}},
    {"hit", analytics::hitInsertStatement(1),
     {1, QDateTime(QDate(2024, 5, 5), QTime(12, 0), QTimeZone::utc()), u"GET"_s, u"/"_s, 200, 100LL, true,
      u"192.0.2.1"_s, QByteArray("\0\1\2\3\4\5\6\7", 8), 1LL, u"DE"_s, u"direct"_s, QVariant(), QVariant(),
      QVariant(), u"desktop"_s, u"Firefox"_s, u"Linux"_s, QVariant(), 1.5, 1234}},
    {"notify", u"SELECT pg_notify('tarn_hits', ?)"_s, {u"1"_s}},
    {"offset",
     u"UPDATE tarn.log_sources SET inode = ?, read_offset = ?, updated_at = now() WHERE id = ?"_s,
     {4711LL, 8192LL, 1}},

    // Maintenance
    {"sites", u"SELECT id FROM tarn.sites"_s, {}},
    {"roll-up", u"SELECT tarn.rollup_day(?, ?)"_s, {1, QDate(2024, 5, 5)}},
    {"raw-hit-days", u"SELECT value::int FROM tarn.settings WHERE key = 'raw_hit_days'"_s, {}},
    {"retention", u"DELETE FROM tarn.hits WHERE at < now() - make_interval(days => ?)"_s, {30}},

    // Countries
    {"geoip-month", analytics::kCountryMonthQuery, {}},
    {"empty-countries", analytics::kCountryTruncation, {}},
    {"countries", analytics::rangeInsertStatement(1),
     {u"192.0.2.0"_s, u"192.0.2.255"_s, u"DE"_s}},
    {"set-geoip-month", analytics::kCountryMonthStorage,
     {u"2024-05"_s}},

    // Search engines
    {"token", u"SELECT refresh_token FROM tarn.engine_accounts WHERE engine = 'google'"_s, {}},
    {"record",
     u"UPDATE tarn.engine_accounts SET last_sync_at = now(), last_result = ? WHERE engine = 'google'"_s,
     {u"fine"_s}},
    {"hosts", u"SELECT id, host FROM tarn.sites"_s, {}},
    {"property",
     u"INSERT INTO tarn.search_properties VALUES (?, 'google', ?) "
     "ON CONFLICT (site_id, engine) DO UPDATE SET property = excluded.property"_s,
     {1, u"sc-domain:example.org"_s}},
    {"properties",
     u"SELECT p.site_id, p.property, s.host, (SELECT max(day) FROM tarn.search_days d  "
     "WHERE d.site_id = p.site_id AND d.engine = 'google') FROM tarn.search_properties p "
     "JOIN tarn.sites s ON s.id = p.site_id WHERE p.engine = 'google' ORDER BY s.host"_s,
     {}},
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
    {"transactions", u"SELECT sum(xact_commit + xact_rollback) FROM pg_stat_database"_s, {}},
    {"clients", u"SELECT count(*) FROM pg_stat_activity WHERE backend_type = 'client backend'"_s, {}},
    {"sample",
     u"INSERT INTO tarn.host_samples (load1, load5, load15, mem_total_kb, mem_avail_kb, disk_total_bytes, "
     "disk_avail_bytes, cpu_pct, iowait_pct, swap_total_kb, swap_free_kb, net_rx_bps, net_tx_bps, disk_read_bps, "
     "disk_write_bps, cpu_temp_c, pg_connections, pg_tps, apache_rps, apache_bps, apache_busy, apache_slots) "
     "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"_s,
     {0.5, 0.25, 0.125, 16'000'000LL, 8'000'000LL, 1'000'000'000'000LL, 500'000'000'000LL, QVariant(),
      QVariant(), 0LL, 0LL, QVariant(), QVariant(), QVariant(), QVariant(), 71.5, 5, QVariant(), QVariant(),
      QVariant(), 3, 400}},
    {"prune-samples", u"DELETE FROM tarn.host_samples WHERE at < now() - interval '30 days'"_s, {}},
    {"open-alert",
     u"INSERT INTO tarn.alerts (kind, subject, message) VALUES (?, ?, ?) ON CONFLICT DO NOTHING"_s,
     {u"memory"_s, u"RAM"_s, u"Memory 93% used"_s}},
    {"refresh-alert",
     u"UPDATE tarn.alerts SET message = ? WHERE kind = ? AND subject = ? AND closed_at IS NULL"_s,
     {u"Memory 95% used"_s, u"memory"_s, u"RAM"_s}},
    {"close-alert",
     u"UPDATE tarn.alerts SET closed_at = now() WHERE kind = ? AND subject = ? AND closed_at IS NULL "
     "RETURNING message, extract(epoch FROM closed_at - opened_at)::bigint"_s,
     {u"memory"_s, u"RAM"_s}},

    // Hosting accounts
    {"accounts",
     u"SELECT a.username, a.domain, a.disk_limit_mb, a.db_limit_mb, EXISTS (SELECT 1 FROM pg_db_role_setting s "
     "JOIN pg_database d ON d.oid = s.setdatabase         WHERE d.datname = a.username AND s.setrole = 0           "
     "AND 'default_transaction_read_only=on' = ANY (s.setconfig)), "
     "(SELECT pg_database_size(d.datname) FROM pg_database d WHERE d.datname = a.username) FROM tarn.accounts a"_s,
     {}},
    {"usage",
     u"UPDATE tarn.accounts SET disk_used_bytes = coalesce(?, disk_used_bytes), "
     "disk_checked_at = CASE WHEN ? THEN now() ELSE disk_checked_at END, db_used_bytes = ? WHERE username = ?"_s,
     {1'000'000LL, true, QVariant(), u"alice"_s}},
    {"mirror-readonly",
     u"UPDATE tarn.accounts SET db_readonly = ? WHERE username = ? AND db_readonly <> ?"_s,
     {true, u"alice"_s, true}},
    {"readonly", u"UPDATE tarn.accounts SET db_readonly = ? WHERE username = ?"_s, {false, u"alice"_s}},
};

/// What the suite's panel does through the same module, when somebody connects or disconnects a search engine.
inline const Statement kConnectionStatements[] = {
    {"connect",
     u"INSERT INTO tarn.engine_accounts (engine, account_email, refresh_token) VALUES ('google', ?, ?) "
     "ON CONFLICT (engine) DO UPDATE SET account_email = excluded.account_email, "
     "refresh_token = excluded.refresh_token, connected_at = now(), last_result = NULL"_s,
     {QVariant(), u"token"_s}},
    {"token", u"SELECT refresh_token FROM tarn.engine_accounts WHERE engine = 'google'"_s, {}},
    {"hosts", u"SELECT id, host FROM tarn.sites"_s, {}},
    {"property",
     u"INSERT INTO tarn.search_properties VALUES (?, 'google', ?) "
     "ON CONFLICT (site_id, engine) DO UPDATE SET property = excluded.property"_s,
     {1, u"sc-domain:example.org"_s}},
    {"unmap", u"DELETE FROM tarn.search_properties WHERE engine = 'google'"_s, {}},
    {"disconnect", u"DELETE FROM tarn.engine_accounts WHERE engine = 'google'"_s, {}},
};
// clang-format on

} // namespace tarn::test
