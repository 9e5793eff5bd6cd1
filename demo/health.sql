-- What the demo shows of server health, accounts and alerts.
\set QUIET on
\pset border 2
\pset linestyle unicode
\pset footer off
\pset pager off
\pset null '-'

\echo The last ten samples of this machine
WITH last AS (SELECT * FROM tarn.host_samples ORDER BY at DESC LIMIT 10)
SELECT to_char(at, 'HH24:MI:SS') AS at, load1 AS load, round(cpu_pct::numeric, 1) AS "cpu %",
       round(100 * (1 - mem_avail_kb / nullif(mem_total_kb, 0)::numeric), 1) AS "memory %",
       round(100 * (1 - disk_avail_bytes / nullif(disk_total_bytes, 0)::numeric), 1) AS "disk %",
       round(((disk_read_bps + disk_write_bps) / 1048576)::numeric, 1) AS "disk MB/s",
       round((net_rx_bps + net_tx_bps)::numeric / 1024, 1) AS "net kB/s",
       round(cpu_temp_c::numeric) AS "°C", pg_connections AS "db clients", round(pg_tps::numeric, 1) AS "db tx/s",
       round(apache_rps::numeric, 1) AS "web req/s", apache_busy || ' of ' || apache_slots AS workers
FROM last ORDER BY last.at;

\echo Alerts
SELECT kind, subject, CASE WHEN length(message) <= 72 THEN message ELSE left(message, 71) || '…' END AS message,
       to_char(opened_at, 'HH24:MI:SS') AS opened,
       coalesce(to_char(closed_at, 'HH24:MI:SS'), 'still open') AS cleared
FROM tarn.alerts ORDER BY opened_at, kind;

\echo Hosting accounts
SELECT username AS account, round(disk_used_bytes / 1048576.0, 1) AS "disk MB", disk_limit_mb AS "limit",
       round(db_used_bytes / 1048576.0, 1) AS "database MB", db_limit_mb AS "limit",
       CASE WHEN db_readonly THEN 'read-only' WHEN db_used_bytes IS NOT NULL THEN 'writable' END AS database
FROM tarn.accounts ORDER BY username;
