-- Checks on what people write, and the days of the host and of accounts.
--
--     systemctl stop tarn-collect
--     PGTZ=Europe/Berlin psql -X -d DATABASE -f schema/upgrades/0002-days-and-checks.sql
--     psql -X -v ON_ERROR_STOP=1 -d DATABASE -f schema/functions.sql
--     psql -X -v collector=tarn_collect -d DATABASE -f schema/grants.sql
--     systemctl start tarn-collect
--
-- To be run by the schema's owner with the collector's time zone (database/timezone in the settings file, or the
-- host's). One transaction: all of it or nothing, and refused where it has been run already.

\set ON_ERROR_STOP on

BEGIN;

DO $$
BEGIN
    IF to_regclass('tarn.host_days') IS NOT NULL THEN
        RAISE EXCEPTION 'this upgrade has been done in database "%"; nothing was changed', current_database();
    END IF;
END
$$;

-- What people write is checked from now on. What stands already and would be refused has to be put right first: it is
-- named, and nothing is changed.
DO $$
DECLARE
    wrong text;
BEGIN
    SELECT string_agg(line, E'\n') INTO wrong FROM (
        SELECT 'tarn.settings: ' || key || ' = ' || value AS line FROM tarn.settings WHERE NOT (key <> 'raw_hit_days' OR value ~ '^-?[0-9]{1,6}$')
        UNION ALL
        SELECT 'tarn.sites: ' || host AS line FROM tarn.sites WHERE NOT (host = lower(host) AND length(host) <= 253
        AND host ~ '^[^\u0001-\u002c\u002f\u003a-\u005e\u0060\u007b-\u00a0\u00ad\u1680\u2000-\u200f\u2028-\u202f\u205f-\u206f\u3000\ufeff]+$'
        AND host !~ '(^|\.)(\.|-|$)|-(\.|$)|[^.]{64}')
        UNION ALL
        SELECT 'tarn.log_sources: ' || path AS line FROM tarn.log_sources WHERE NOT (path ~ '^/.*[^/[:space:]]$')
        UNION ALL
        SELECT 'tarn.accounts: ' || username AS line FROM tarn.accounts WHERE NOT (octet_length(username) BETWEEN 1 AND 63)) lines;
    IF wrong IS NOT NULL THEN
        RAISE EXCEPTION E'these rows would be refused by the new checks; nothing was changed:\n%', wrong
            USING HINT = 'A host is a name in lower case, a log path absolute, raw_hit_days an integer.';
    END IF;
END
$$;
ALTER TABLE tarn.settings ADD CONSTRAINT settings_raw_hit_days_is_a_number CHECK (key <> 'raw_hit_days' OR value ~ '^-?[0-9]{1,6}$');
ALTER TABLE tarn.sites ADD CONSTRAINT sites_host_is_a_lower_case_name CHECK (
        host = lower(host) AND length(host) <= 253
        AND host ~ '^[^\u0001-\u002c\u002f\u003a-\u005e\u0060\u007b-\u00a0\u00ad\u1680\u2000-\u200f\u2028-\u202f\u205f-\u206f\u3000\ufeff]+$'
        AND host !~ '(^|\.)(\.|-|$)|-(\.|$)|[^.]{64}');
ALTER TABLE tarn.log_sources ADD CONSTRAINT log_sources_path_is_absolute CHECK (path ~ '^/.*[^/[:space:]]$');
ALTER TABLE tarn.accounts ADD CONSTRAINT accounts_username_fits_a_database CHECK (octet_length(username) BETWEEN 1 AND 63);

COMMENT ON TABLE tarn.settings IS
    'What is set at run time rather than in the settings file. visitor_secret: mixed into every visitor id, read once '
    'at the collector''s start. raw_hit_days: days to keep the rows of tarn.hits; absent or not positive: for ever. '
    'geoip_month: month (yyyy-MM) of what tarn.geo_country holds. Policies decide who sees and sets which key';

CREATE TABLE tarn.host_days (
    day                 date             PRIMARY KEY,
    samples             integer          NOT NULL,
    load1_avg           double precision,
    load1_max           double precision,
    cpu_pct_avg         double precision,
    cpu_pct_max         double precision,
    mem_used_pct_max    double precision,
    disk_used_pct_last  double precision,
    net_rx_bytes        bigint           NOT NULL,
    net_tx_bytes        bigint           NOT NULL,
    apache_requests     bigint           NOT NULL,
    zone                text             NOT NULL,
    load1_samples       integer          NOT NULL,
    cpu_pct_samples     integer          NOT NULL
);
COMMENT ON TABLE tarn.host_days IS
    'The host''s day in figures, one row per calendar day with a sample, kept for ever. Brought up to date by the '
    'insert of each sample. What is NULL, no number, negative or above 10^15 in a sample counts as not measured';
COMMENT ON COLUMN tarn.host_days.day IS 'Calendar day of tarn.host_samples.at in the session''s time zone';
COMMENT ON COLUMN tarn.host_days.samples IS 'Samples of that day';
COMMENT ON COLUMN tarn.host_days.load1_avg IS 'Mean of load1 over the samples that have it; NULL: none has';
COMMENT ON COLUMN tarn.host_days.load1_max IS 'Greatest load1';
COMMENT ON COLUMN tarn.host_days.cpu_pct_avg IS 'Mean of cpu_pct over the samples that have it; NULL: none has';
COMMENT ON COLUMN tarn.host_days.cpu_pct_max IS 'Greatest cpu_pct';
COMMENT ON COLUMN tarn.host_days.mem_used_pct_max IS
    'Greatest share of memory in use, 100 * (mem_total_kb - mem_avail_kb) / mem_total_kb';
COMMENT ON COLUMN tarn.host_days.disk_used_pct_last IS
    'Share of / in use when last measured, 100 * (disk_total_bytes - disk_avail_bytes) / disk_total_bytes';
COMMENT ON COLUMN tarn.host_days.net_rx_bytes IS
    'Bytes received: the sum of net_rx_bps times the seconds since the sample before, whichever day that was of. A '
    'sample without a rate adds nothing';
COMMENT ON COLUMN tarn.host_days.net_tx_bytes IS 'Bytes sent, counted in the same way';
COMMENT ON COLUMN tarn.host_days.apache_requests IS 'Requests to Apache, counted in the same way from apache_rps';
COMMENT ON COLUMN tarn.host_days.zone IS 'Time zone of the session that inserted the day''s last sample';
COMMENT ON COLUMN tarn.host_days.load1_samples IS 'Samples behind load1_avg';
COMMENT ON COLUMN tarn.host_days.cpu_pct_samples IS 'Samples behind cpu_pct_avg';

-- No foreign key: the days outlive the account.
CREATE TABLE tarn.account_days (
    username         text    NOT NULL,
    day              date    NOT NULL,
    disk_used_bytes  bigint,
    db_used_bytes    bigint,
    PRIMARY KEY (username, day)
);
COMMENT ON TABLE tarn.account_days IS
    'What each account used: the last measurement of each day, kept for ever, also when the account is deleted';
COMMENT ON COLUMN tarn.account_days.username IS
    'As in tarn.accounts. Where a name was given away again, the days before accounts.created_at are its first '
    'holder''s';
COMMENT ON COLUMN tarn.account_days.day IS 'Calendar day in the time zone of the session that measured';
COMMENT ON COLUMN tarn.account_days.disk_used_bytes IS
    'Size of the home directory when it was last measured on that day; NULL: not on that day';
COMMENT ON COLUMN tarn.account_days.db_used_bytes IS 'Size of the account''s database then; NULL: there was none';

-- What is known so far: the samples of the last 30 days and the latest measurement of each account.
INSERT INTO tarn.host_days
SELECT at::date, count(*), avg(load1), max(load1), avg(cpu_pct), max(cpu_pct),
       max((mem_total_kb::float8 - mem_avail_kb) * 100 / nullif(mem_total_kb, 0)),
       (array_agg((disk_total_bytes::float8 - disk_avail_bytes) * 100 / nullif(disk_total_bytes, 0) ORDER BY at DESC)
            FILTER (WHERE disk_total_bytes <> 0 AND disk_avail_bytes IS NOT NULL))[1],
       coalesce(sum(round((rx * seconds)::numeric)), 0), coalesce(sum(round((tx * seconds)::numeric)), 0),
       coalesce(sum(round((rps * seconds)::numeric)), 0), current_setting('TimeZone'), count(load1), count(cpu_pct)
FROM (SELECT at, mem_total_kb, mem_avail_kb, disk_total_bytes, disk_avail_bytes,
             CASE WHEN load1 BETWEEN 0 AND 1e15 THEN load1 END AS load1,
             CASE WHEN cpu_pct BETWEEN 0 AND 1e15 THEN cpu_pct END AS cpu_pct,
             CASE WHEN net_rx_bps BETWEEN 0 AND 1e15 THEN net_rx_bps END AS rx,
             CASE WHEN net_tx_bps BETWEEN 0 AND 1e15 THEN net_tx_bps END AS tx,
             CASE WHEN apache_rps BETWEEN 0 AND 1e15 THEN apache_rps END AS rps,
             extract(epoch FROM at - lag(at) OVER (ORDER BY at))::float8 AS seconds
      FROM tarn.host_samples WHERE isfinite(at)) s
GROUP BY 1;
INSERT INTO tarn.account_days
SELECT username, disk_checked_at::date, disk_used_bytes, db_used_bytes
FROM tarn.accounts WHERE disk_checked_at IS NOT NULL;

COMMIT;
