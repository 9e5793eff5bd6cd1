-- From the first layout of schema tarn, version 11, to the one with bounces, campaigns, entry pages and time zones,
-- days of the host and of accounts, and with checks on what people write.
--
--     systemctl stop tarn-collect
--     PGTZ=Europe/Berlin psql -X -d DATABASE -f schema/upgrades/0001-figures.sql
--     psql -v collector=tarn_collect -d DATABASE -f schema/grants.sql
--     systemctl start tarn-collect
--
-- To be run by the schema's owner with the collector's time zone (database/timezone in the settings file, or the
-- host's). One transaction: all of it or nothing, and refused where it has been run already. tarn.hits is written
-- anew, so there has to be room for a second one.
--
-- Every day whose raw hits are all there still is marked, and the collector counts it again, newest first. Days whose
-- raw hits are gone keep the figures that they have: bounces and zone are not known there, source and search_terms
-- have campaigns among them. What was granted on these tables has to be granted again: grants.sql does.
--
-- Where it has been run is seen by what it makes (tarn-collect-setup reads the next line):
-- Makes the column tarn.site_days.zone.

\set ON_ERROR_STOP on

BEGIN;

DO $$
BEGIN
    IF to_regclass('tarn.site_days') IS NULL THEN
        RAISE EXCEPTION 'database "%" has no schema tarn', current_database()
            USING HINT = 'schema/tarn.sql makes it.';
    END IF;
    IF EXISTS (SELECT FROM pg_attribute WHERE attrelid = 'tarn.site_days'::regclass AND attname = 'zone') THEN
        RAISE EXCEPTION 'this upgrade has been done in database "%"; nothing was changed', current_database();
    END IF;
END
$$;

-- Their results and their bodies belong to the old tables; functions.sql makes the new ones.
DROP TRIGGER mark_rollup_due ON tarn.hits;
DROP FUNCTION tarn.mark_rollup_due(), tarn.rollup_day(integer, date), tarn.hits_of_day(integer, date);

ALTER TABLE tarn.hits RENAME TO old_hits;
ALTER TABLE tarn.site_days RENAME TO old_site_days;
ALTER TABLE tarn.site_day_values RENAME TO old_site_day_values;
ALTER TABLE tarn.old_site_days RENAME CONSTRAINT site_days_pkey TO old_site_days_pkey;
DROP INDEX tarn.hits_site_at, tarn.hits_at, tarn.site_day_values_day;
DROP TABLE tarn.rollup_due;


-- Hits

-- Columns of fixed width first, then what tells a view from other requests, then what the roll-up reads, then what it
-- does not: without gaps for alignment a row is 7 % smaller, and a scan takes each row apart no further than it needs.
CREATE TABLE tarn.hits (
    at            timestamptz NOT NULL,
    bytes         bigint,
    session_id    bigint,
    site_id       integer     NOT NULL,
    status        integer,
    response_us   integer,
    is_page       boolean,
    engaged_secs  double precision,
    visitor       bytea,
    method        text,
    bot           text,
    path          text,
    country       text,
    source_kind   text,
    source        text,
    search_terms  text,
    device        text,
    browser       text,
    os            text,
    ip            inet,
    referrer      text
) WITH (
    -- Retention deletes one day of many at a time, far less than the fifth that autovacuum waits for by default.
    autovacuum_vacuum_scale_factor = 0.01,
    autovacuum_analyze_scale_factor = 0.02
);
COMMENT ON TABLE tarn.hits IS
    'Raw hits: every request of the access logs and every engagement beacon, one row each, never changed, deleted '
    'after raw_hit_days (tarn.settings). The panel''s figures come from tarn.site_days and tarn.site_day_values';
COMMENT ON COLUMN tarn.hits.site_id IS 'tarn.sites.id, not enforced';
COMMENT ON COLUMN tarn.hits.at IS 'Time of the request as logged';
COMMENT ON COLUMN tarn.hits.method IS
    'Request method, at most 16 characters; BEACON (with engaged_secs) for the report of a page left';
COMMENT ON COLUMN tarn.hits.path IS
    'Request path, percent-decoded, without query, at most 2000 characters; for a beacon that of the page';
COMMENT ON COLUMN tarn.hits.status IS 'HTTP status; whatever integer the log holds';
COMMENT ON COLUMN tarn.hits.bytes IS 'Size of the response body; 0 also where the log has none';
COMMENT ON COLUMN tarn.hits.is_page IS 'The path is a page''s, not that of an asset, an API or a machine endpoint';
COMMENT ON COLUMN tarn.hits.ip IS 'Client address; NULL where the log has something else, a host name for example';
COMMENT ON COLUMN tarn.hits.visitor IS
    'Visitor id, 8 bytes: a keyed hash over site, UTC day, address and user agent, another one every UTC day';
COMMENT ON COLUMN tarn.hits.session_id IS
    'Hits of one visitor without a gap of more than 30 minutes; 0: none was assigned';
COMMENT ON COLUMN tarn.hits.country IS 'ISO 3166-1 alpha-2 of the address; NULL: unknown';
COMMENT ON COLUMN tarn.hits.source_kind IS
    'Where the visit came from: campaign, direct, internal, search, social, ai, email or referral';
COMMENT ON COLUMN tarn.hits.source IS
    'Name of the campaign''s source, of the service or the referring host; NULL for direct and internal';
COMMENT ON COLUMN tarn.hits.referrer IS 'Referrer as sent, at most 1000 bytes';
COMMENT ON COLUMN tarn.hits.search_terms IS 'Search terms that the referrer gave away, or the campaign''s name';
COMMENT ON COLUMN tarn.hits.device IS 'desktop, mobile or tablet';
COMMENT ON COLUMN tarn.hits.browser IS 'Browser family';
COMMENT ON COLUMN tarn.hits.os IS 'Operating system';
COMMENT ON COLUMN tarn.hits.bot IS 'Display name of the crawler; NULL: presumably a person';
COMMENT ON COLUMN tarn.hits.engaged_secs IS
    'Beacons only: seconds that the page had the visitor''s attention, as sent; can be NaN';
COMMENT ON COLUMN tarn.hits.response_us IS
    'Response time in microseconds; 0 where the log has no such field, NULL out of range';

INSERT INTO tarn.hits (
    site_id, at, method, path, status, bytes, is_page, ip, visitor, session_id, country, source_kind, source, referrer,
    search_terms, device, browser, os, bot, engaged_secs, response_us)
SELECT
    site_id, at, method, path, status, bytes, is_page, ip, visitor, session_id, country, source_kind, source, referrer,
    search_terms, device, browser, os, bot, engaged_secs, response_us
FROM tarn.old_hits;
DROP TABLE tarn.old_hits;

CREATE INDEX hits_site_at ON tarn.hits (site_id, at);
CREATE INDEX hits_at ON tarn.hits (at);


-- Roll-ups

CREATE TABLE tarn.rollup_due (
    site_id  integer NOT NULL,
    day      date    NOT NULL,
    hits     bigint  NOT NULL DEFAULT 0,
    zone     text    NOT NULL DEFAULT current_setting('TimeZone'),
    PRIMARY KEY (site_id, day)
) WITH (fillfactor = 50); -- each insert of hits updates its mark
COMMENT ON TABLE tarn.rollup_due IS
    'Days with hits that no roll-up has seen yet: written by every insert into tarn.hits, cleared by tarn.rollup_day';
COMMENT ON COLUMN tarn.rollup_due.zone IS 'Time zone of the session that inserted them last: what the day is a day of';
COMMENT ON COLUMN tarn.rollup_due.hits IS
    'Rows that were inserted into tarn.hits for that day since it was last rolled up';

CREATE TABLE tarn.site_days (
    site_id             integer          NOT NULL,
    day                 date             NOT NULL,
    hits                bigint           NOT NULL,
    page_views          bigint           NOT NULL,
    visitors            bigint           NOT NULL,
    sessions            bigint           NOT NULL,
    bounces             bigint,
    bot_hits            bigint           NOT NULL,
    bytes               bigint           NOT NULL,
    errors_4xx          bigint           NOT NULL,
    errors_5xx          bigint           NOT NULL,
    engaged_seconds     double precision NOT NULL,
    raw_hits            bigint           NOT NULL,
    updated_at          timestamptz      NOT NULL DEFAULT now(),
    response_us_median  integer,
    response_us_p95     integer,
    rollup_ms           integer          NOT NULL DEFAULT 0,
    zone                text,
    PRIMARY KEY (site_id, day)
);
COMMENT ON TABLE tarn.site_days IS
    'The figures of one site''s day, computed by tarn.rollup_day from tarn.hits and kept when the raw hits are gone';
COMMENT ON COLUMN tarn.site_days.day IS 'Calendar day in the time zone that zone names';
COMMENT ON COLUMN tarn.site_days.hits IS
    'Requests, those of bots included: every raw hit but the beacons (method BEACON with engaged_secs)';
COMMENT ON COLUMN tarn.site_days.page_views IS
    'Views: pages that people were shown (is_page, method GET, no bot, status 2xx or 304)';
COMMENT ON COLUMN tarn.site_days.visitors IS
    'Distinct visitor ids of views and of people''s beacons. Ids change at midnight UTC, so in another time zone '
    'somebody who stays across that moment counts twice';
COMMENT ON COLUMN tarn.site_days.sessions IS
    'Distinct session ids of views and of people''s beacons, 0 left out; a session across midnight counts on both days';
COMMENT ON COLUMN tarn.site_days.bounces IS
    'Those of sessions with exactly one view that day and no beacon of more than 10 seconds. NULL: not known, the day '
    'was counted before bounces were';
COMMENT ON COLUMN tarn.site_days.bot_hits IS 'Those of hits that came from bots';
COMMENT ON COLUMN tarn.site_days.bytes IS 'Response bytes of hits';
COMMENT ON COLUMN tarn.site_days.errors_4xx IS 'Those of hits with status 400 to 499';
COMMENT ON COLUMN tarn.site_days.errors_5xx IS 'Those of hits with status 500 to 599';
COMMENT ON COLUMN tarn.site_days.engaged_seconds IS
    'Attention of people in seconds, the sum over their beacons; one that is not a number counts as 0';
COMMENT ON COLUMN tarn.site_days.raw_hits IS
    'Rows of tarn.hits behind these figures. With what came since (tarn.rollup_due.hits) so many have to be there '
    'still, or the figures stay as they are: retention has begun on the day';
COMMENT ON COLUMN tarn.site_days.updated_at IS 'When the day was last counted';
COMMENT ON COLUMN tarn.site_days.response_us_median IS
    'Half of the hits with a known response time took at most so many microseconds; NULL: none is known';
COMMENT ON COLUMN tarn.site_days.response_us_p95 IS 'The same for 95 of 100';
COMMENT ON COLUMN tarn.site_days.rollup_ms IS
    'Milliseconds that counting the day took, if more than 500, else 0. It is not counted again before twenty times '
    'that has passed since updated_at';
COMMENT ON COLUMN tarn.site_days.zone IS
    'Time zone that the day was counted in. NULL: not known, the day was counted before zones were noted';

INSERT INTO tarn.site_days (
    site_id, day, hits, page_views, visitors, sessions, bot_hits, bytes, errors_4xx, errors_5xx, engaged_seconds, raw_hits,
    updated_at, response_us_median, response_us_p95)
SELECT
    site_id, day, hits, page_views, visitors, sessions, bot_hits, bytes, errors_4xx, errors_5xx, engaged_seconds, raw_hits,
    updated_at, response_us_median, response_us_p95
FROM tarn.old_site_days;
DROP TABLE tarn.old_site_days;

-- A day over all sites: the key begins with the site.
CREATE INDEX site_days_day ON tarn.site_days (day, site_id);

CREATE TABLE tarn.site_day_values (
    site_id          integer NOT NULL,
    day              date    NOT NULL,
    dimension        text    NOT NULL,
    value            text    NOT NULL,
    part_of          text    NOT NULL DEFAULT '',
    hits             bigint  NOT NULL,
    visitors         bigint  NOT NULL,
    engaged_seconds  double precision,
    response_us_p95  integer
);
COMMENT ON TABLE tarn.site_day_values IS
    'The day of tarn.site_days by path, source and so on. Of each dimension the 1,000 values with the most hits (ties: '
    'more visitors, then the smaller value by bytes), and one row with the value '''' for all others together. A hit '
    'without a value is in none of that dimension''s rows';
COMMENT ON COLUMN tarn.site_day_values.dimension IS
    'Counting views: path, entry_path, source_kind, source, campaign, campaign_source, search_terms, country, device, '
    'browser, os, hour. Counting requests: bot, status, missing_path';
COMMENT ON COLUMN tarn.site_day_values.value IS
    'As in the column of tarn.hits that the dimension is named after. entry_path: path of the first view of a session '
    'that day; source: all kinds but campaigns; campaign: its name; campaign_source: the source of a campaign; '
    'search_terms: only those of a search; hour: 00 to 23; missing_path: status 404 or 410. '''': all values that have '
    'no row of their own';
COMMENT ON COLUMN tarn.site_day_values.part_of IS
    'For source its source_kind, for campaign its source, '''' where that is not known. '''' for all others';
COMMENT ON COLUMN tarn.site_day_values.hits IS
    'Views (for entry_path the first of each session), or requests for bot, status and missing_path';
COMMENT ON COLUMN tarn.site_day_values.visitors IS 'Distinct visitor ids among them';
COMMENT ON COLUMN tarn.site_day_values.engaged_seconds IS
    'For path: seconds of people''s beacons of that path; otherwise NULL';
COMMENT ON COLUMN tarn.site_day_values.response_us_p95 IS
    'For path: 95 of 100 of its views with a known response time took at most so many microseconds, NULL if none is '
    'known; otherwise NULL';

INSERT INTO tarn.site_day_values (site_id, day, dimension, value, hits, visitors)
SELECT site_id, day, dimension, value, hits, visitors FROM tarn.old_site_day_values;
DROP TABLE tarn.old_site_day_values;

-- Not unique and without the value: a path can be longer than an index entry may be. tarn.rollup_day alone writes here
-- and holds the day's row of tarn.site_days while it does, so a value cannot come twice.
CREATE INDEX site_day_values_day ON tarn.site_day_values (site_id, day, dimension);

-- Days that retention has begun on have fewer raw hits than they were counted from; those stand.
INSERT INTO tarn.rollup_due (site_id, day)
SELECT h.site_id, h.day
FROM (SELECT site_id, at::date AS day, count(*) AS raw_hits FROM tarn.hits GROUP BY 1, 2) h
LEFT JOIN tarn.site_days s ON s.site_id = h.site_id AND s.day = h.day
WHERE h.raw_hits >= coalesce(s.raw_hits, 0);


-- Checks, and the days of the host and of accounts

COMMENT ON COLUMN tarn.sites.host IS
    'Host name in lower case, with www. where that is the main name, and in Unicode: müller.de. Referrers from it '
    'count as internal; with xn--mller-kva.de in its place none would';

-- What people write is checked from now on. What stands already and would be refused has to be put right first: it is
-- named, and nothing is changed.
DO $$
DECLARE
    wrong text;
BEGIN
    SELECT string_agg(line, E'\n') INTO wrong FROM (
        SELECT 'tarn.settings: ' || key || ' = ' || value AS line FROM tarn.settings
        WHERE NOT (key <> 'raw_hit_days' OR value ~ '^-?[0-9]{1,6}$')
        UNION ALL
        SELECT 'tarn.sites: ' || host AS line FROM tarn.sites WHERE NOT (
        host = lower(host) AND length(host) <= 253
        AND host ~ '^[^\u0001-\u002c\u002f\u003a-\u005e\u0060\u007b-\u00a0\u00ad\u1680\u2000-\u200f\u2028-\u202f\u205f-\u206f\u3000\ufeff]+$'
        AND host !~ '(^|\.)(\.|-|$)|-(\.|$)|[^.]{64}')
        UNION ALL
        SELECT 'tarn.log_sources: ' || path AS line FROM tarn.log_sources WHERE NOT (path ~ '^/.*[^/[:space:]]$')
        UNION ALL
        SELECT 'tarn.accounts: ' || username AS line FROM tarn.accounts
        WHERE NOT (octet_length(username) BETWEEN 1 AND 63)) lines;
    IF wrong IS NOT NULL THEN
        RAISE EXCEPTION E'these rows would be refused by the new checks; nothing was changed:\n%', wrong
            USING HINT = 'A host is a name in lower case, a log path absolute, raw_hit_days an integer.';
    END IF;
END
$$;
ALTER TABLE tarn.settings ADD CONSTRAINT settings_raw_hit_days_is_a_number
    CHECK (key <> 'raw_hit_days' OR value ~ '^-?[0-9]{1,6}$');
ALTER TABLE tarn.sites ADD CONSTRAINT sites_host_is_a_lower_case_name CHECK (
        host = lower(host) AND length(host) <= 253
        AND host ~ '^[^\u0001-\u002c\u002f\u003a-\u005e\u0060\u007b-\u00a0\u00ad\u1680\u2000-\u200f\u2028-\u202f\u205f-\u206f\u3000\ufeff]+$'
        AND host !~ '(^|\.)(\.|-|$)|-(\.|$)|[^.]{64}');
ALTER TABLE tarn.log_sources ADD CONSTRAINT log_sources_path_is_absolute CHECK (path ~ '^/.*[^/[:space:]]$');
ALTER TABLE tarn.accounts ADD CONSTRAINT accounts_username_fits_a_database
    CHECK (octet_length(username) BETWEEN 1 AND 63);

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


-- Functions: in the same transaction, so that no hit is stored without its mark. Their file begins one of its own,
-- which the server would warn about, and ends this one.
SET LOCAL client_min_messages = error;
\ir ../functions.sql
