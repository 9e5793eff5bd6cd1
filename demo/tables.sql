-- What the demo shows at its end. Visitor ids change every day, so a visitor of two days counts on both.
-- Variables: host.
\set QUIET on
\pset border 2
\pset linestyle unicode
\pset footer off
\pset pager off
\pset null ''

-- At most so many columns of a terminal, without control characters: what a stranger sent is shown here.
CREATE FUNCTION pg_temp.cut(whole text, most integer) RETURNS text LANGUAGE sql IMMUTABLE
RETURN (
    WITH clean AS (
        SELECT regexp_replace(left(whole, most + 1),
                              '[[:cntrl:]\u0080-\u009f\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff]', '?', 'g') AS t
    ), measured AS (
        SELECT c, place, sum(CASE WHEN c ~ '[\u1100-\u115f\u2e80-\ua4cf\uac00-\ud7a3\uf900-\ufaff\uff00-\uff60\U0001f000-\U0003ffff]'
                                  THEN 2 ELSE 1 END) OVER (ORDER BY place) AS width
        FROM clean CROSS JOIN string_to_table(t, NULL) WITH ORDINALITY x (c, place)
    )
    SELECT CASE WHEN max(width) <= most THEN string_agg(c, '' ORDER BY place)
                ELSE string_agg(c, '' ORDER BY place) FILTER (WHERE width < most) || '…' END
    FROM measured
);
CREATE FUNCTION pg_temp.share(part numeric, whole numeric) RETURNS text LANGUAGE sql IMMUTABLE
RETURN coalesce(to_char(100 * part / nullif(whole, 0), 'FM990') || ' %', '');

CREATE TEMPORARY VIEW site AS SELECT id FROM tarn.sites WHERE host = :'host';
CREATE TEMPORARY TABLE shown AS
SELECT d.* FROM tarn.site_days d JOIN site s ON d.site_id = s.id ORDER BY d.hits DESC, d.day DESC LIMIT 5;
CREATE TEMPORARY VIEW values_shown AS
SELECT v.dimension, v.value, sum(v.hits) AS hits, sum(v.visitors) AS visitors
FROM tarn.site_day_values v JOIN shown d USING (site_id, day) GROUP BY 1, 2;
CREATE TEMPORARY TABLE hits_shown AS
SELECT h.*, d.day FROM shown d CROSS JOIN LATERAL tarn.hits_of_day(d.site_id, d.day) h;

SELECT CASE WHEN count(*) <= 1 THEN 'The day (UTC)'
            WHEN count(*) <= 5 THEN 'The days (UTC)'
            ELSE format('The five of %s days with most requests (UTC)', count(*)) END AS title
FROM tarn.site_days d JOIN site s ON d.site_id = s.id \gset
\echo :title
SELECT f.figure AS "figure", to_char(s.day, 'YYYY-MM-DD') AS day, lpad(f.value, 12)
FROM shown s CROSS JOIN LATERAL (VALUES
    (1, 'requests', s.hits::text),
    (2, '  from bots', s.bot_hits::text),
    (3, '  answered 4xx', s.errors_4xx::text),
    (4, '  answered 5xx', s.errors_5xx::text),
    (5, 'megabytes sent', to_char(s.bytes / 1048576.0, 'FM9999999990.0')),
    (6, 'page views of people', s.page_views::text),
    (7, 'visitors', s.visitors::text),
    (8, 'sessions', s.sessions::text),
    (9, 'minutes of attention', to_char(s.engaged_seconds / 60, 'FM9999990.0')),
    (10, 'response ms, median', to_char(nullif(s.response_us_median, 0) / 1000.0, 'FM9999990.0')),
    (11, 'response ms, 95 of 100', to_char(nullif(s.response_us_p95, 0) / 1000.0, 'FM9999990.0'))
) f (line, figure, value)
ORDER BY f.line, s.day
\crosstabview figure day

\echo Pages
SELECT pg_temp.cut(value, 60) AS page, hits AS views, visitors
FROM values_shown WHERE dimension = 'path' ORDER BY hits DESC, visitors DESC, value LIMIT 10;

\echo Where visits come from
SELECT value AS kind, hits AS "page views", visitors,
       pg_temp.share(hits, sum(hits) OVER ()) AS share
FROM values_shown WHERE dimension = 'source_kind' ORDER BY hits DESC, value;

\echo Sources, with the search terms or the campaign that are known
SELECT source_kind AS kind, pg_temp.cut(source, 32) AS source, pg_temp.cut(search_terms, 32) AS "terms, campaign",
       count(*) AS "page views", count(DISTINCT (day, visitor)) AS visitors
FROM hits_shown WHERE is_view AND source <> ''
GROUP BY source_kind, source, search_terms ORDER BY 4 DESC, 1, 2, 3 LIMIT 15;

\echo Countries
SELECT value AS country, hits AS "page views", visitors,
       pg_temp.share(hits, sum(hits) OVER ()) AS share
FROM values_shown WHERE dimension = 'country' ORDER BY hits DESC, value LIMIT 12;

\echo Clients of people
WITH ranked AS (
    SELECT dimension, value, hits,
           row_number() OVER (PARTITION BY dimension ORDER BY hits DESC, value) AS place
    FROM values_shown WHERE dimension IN ('device', 'browser', 'os')
)
SELECT max(value) FILTER (WHERE dimension = 'device') AS device,
       max(hits) FILTER (WHERE dimension = 'device') AS views,
       max(value) FILTER (WHERE dimension = 'browser') AS browser,
       max(hits) FILTER (WHERE dimension = 'browser') AS views,
       max(value) FILTER (WHERE dimension = 'os') AS "operating system",
       max(hits) FILTER (WHERE dimension = 'os') AS views
FROM ranked GROUP BY place ORDER BY place;

\echo Bots
SELECT pg_temp.cut(value, 40) AS bot, hits AS requests
FROM values_shown WHERE dimension = 'bot' ORDER BY hits DESC, value LIMIT 15;

SELECT EXISTS (SELECT FROM hits_shown WHERE is_beacon) AS have_beacons \gset
\if :have_beacons
    \echo Engagement: what the tracking snippet reported
    SELECT pg_temp.cut(path, 60) AS page, count(*) AS reports, round(avg(engaged_secs)::numeric, 1) AS "seconds, mean",
           max(engaged_secs)::numeric AS longest
    FROM hits_shown WHERE is_beacon AND bot IS NULL AND engaged_secs <> 'NaN'
    GROUP BY path ORDER BY sum(engaged_secs) DESC, path LIMIT 10;
\else
    \echo Engagement: no reports of the tracking snippet in this log
    \echo
\endif

\echo Statuses
SELECT value AS status, hits AS requests, pg_temp.share(hits, sum(hits) OVER ()) AS share
FROM values_shown WHERE dimension = 'status' ORDER BY hits DESC, value LIMIT 12;

\echo Requests that failed: broken links and attacks
SELECT coalesce(pg_temp.cut(path, 64), '(none)') AS path, status, count(*) AS requests
FROM hits_shown WHERE status >= 400 AND NOT is_beacon
GROUP BY path, status ORDER BY 3 DESC, 2, path LIMIT 15;
