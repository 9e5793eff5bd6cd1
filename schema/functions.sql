-- The functions, views and triggers of schema tarn, version 11, for the tables that tables.sql makes.
--
--     psql -v ON_ERROR_STOP=1 -d DATABASE -f schema/functions.sql
--
-- Safe to run again at any time, also while the collector runs: one transaction, and each statement replaces what
-- stands. A trigger's table is locked for a moment; if somebody else holds it for 3 seconds, this gives up and changes
-- nothing. To be run by the schema's owner. Rights that were granted on a function stay.

BEGIN;

SET LOCAL lock_timeout = '3s';


-- Roll-ups

CREATE OR REPLACE FUNCTION tarn.mark_rollup_due() RETURNS trigger
LANGUAGE plpgsql
SET search_path = pg_catalog, pg_temp
AS $$
BEGIN
    -- DO UPDATE, not DO NOTHING, for the lock on a mark that stands already: until these hits are committed no
    -- roll-up can take the mark away, and so none can clear it without having seen them.
    INSERT INTO tarn.rollup_due (site_id, day)
    SELECT DISTINCT n.site_id, n.at::date FROM new_hits n
    ON CONFLICT (site_id, day) DO UPDATE SET day = excluded.day;
    RETURN NULL;
END
$$;
COMMENT ON FUNCTION tarn.mark_rollup_due() IS 'Notes the days of new hits in tarn.rollup_due';

CREATE OR REPLACE TRIGGER mark_rollup_due AFTER INSERT ON tarn.hits
    REFERENCING NEW TABLE AS new_hits
    FOR EACH STATEMENT EXECUTE FUNCTION tarn.mark_rollup_due();

CREATE OR REPLACE FUNCTION tarn.day_start(day date) RETURNS timestamptz
LANGUAGE sql STABLE
RETURN CASE
    WHEN (day_start.day::timestamptz - interval '1 hour')::date = day_start.day
    THEN day_start.day::timestamptz - interval '1 hour'
    ELSE day_start.day::timestamptz
END;
COMMENT ON FUNCTION tarn.day_start(date) IS
    'First moment of a calendar day in the session''s time zone. Not always day::timestamptz: where clocks go back '
    'from one to zero (Azores, Cuba) midnight comes twice, and that is the second';

-- Body parsed here and now and no SET, so that the planner can merge it into the query around it: the index range
-- is then read where it is used.
CREATE OR REPLACE FUNCTION tarn.hits_of_day(site_id integer, day date)
RETURNS TABLE (
    is_beacon     boolean,
    is_view       boolean,
    path          text,
    status        integer,
    bytes         bigint,
    visitor       bytea,
    session_id    bigint,
    country       text,
    source_kind   text,
    source        text,
    search_terms  text,
    device        text,
    browser       text,
    os            text,
    bot           text,
    engaged_secs  double precision,
    response_us   integer)
LANGUAGE sql STABLE
BEGIN ATOMIC
    SELECT h.method = 'BEACON' AND h.engaged_secs IS NOT NULL,
           h.is_page AND h.bot IS NULL AND (h.status BETWEEN 200 AND 299 OR h.status = 304),
           h.path, h.status, h.bytes, h.visitor, h.session_id, h.country, h.source_kind, h.source, h.search_terms,
           h.device, h.browser, h.os, h.bot, h.engaged_secs, h.response_us
    FROM tarn.hits h
    -- Compared as pairs, which only the index on (site_id, at) can serve: of two plain conditions the planner may
    -- take the time to the index on (at) and read what every other site had that day.
    WHERE (h.site_id, h.at) >= (hits_of_day.site_id, tarn.day_start(hits_of_day.day))
      AND (h.site_id, h.at) < (hits_of_day.site_id, tarn.day_start(hits_of_day.day + 1));
END;
COMMENT ON FUNCTION tarn.hits_of_day(integer, date) IS
    'One site''s raw hits of one calendar day of the session''s time zone, each with what it counts as: is_beacon, an '
    'engagement report of the tracking snippet (any client can send the method alone); is_view, a page that a person '
    'was shown';

CREATE OR REPLACE FUNCTION tarn.rollup_day(site_id integer, day date) RETURNS void
LANGUAGE plpgsql VOLATILE STRICT
SET search_path = pg_catalog, pg_temp
-- Statistics lag behind on the very day that is being counted. These keep a wrong guess about it harmless: no scan of
-- a whole table, no join but by hash (the others would compare each value with each, a matter of minutes for a site
-- with tens of thousands of pages), no compiling of a query that takes milliseconds.
SET enable_seqscan = off
SET enable_nestloop = off
SET enable_mergejoin = off
SET jit = off
AS $$
BEGIN
    -- Hits that are on their way hold the mark of their day; it is left to the next call. A roll-up that waited for
    -- them could wait in a circle: they lock their days in the order of the log, it in that of its caller.
    PERFORM FROM tarn.rollup_due d
    WHERE d.site_id = rollup_day.site_id AND d.day = rollup_day.day FOR UPDATE SKIP LOCKED;
    IF NOT FOUND THEN
        RETURN;
    END IF;
    DELETE FROM tarn.rollup_due d WHERE d.site_id = rollup_day.site_id AND d.day = rollup_day.day;

    INSERT INTO tarn.site_days AS s
        (site_id, day, hits, page_views, visitors, sessions, bot_hits, bytes, errors_4xx, errors_5xx,
         engaged_seconds, response_us_median, response_us_p95, raw_hits)
    SELECT rollup_day.site_id, rollup_day.day,
           f.hits, f.page_views, f.visitors, f.sessions, f.bot_hits,
           least(f.bytes, 9223372036854775807)::bigint,
           f.errors_4xx, f.errors_5xx, f.engaged_seconds, f.response_us[1], f.response_us[2], f.raw_hits
    FROM (
        SELECT count(*) FILTER (WHERE NOT h.is_beacon) AS hits,
               count(*) FILTER (WHERE h.is_view) AS page_views,
               count(DISTINCT h.visitor) FILTER (WHERE h.is_view OR h.is_beacon AND h.bot IS NULL) AS visitors,
               count(DISTINCT nullif(h.session_id, 0))
                   FILTER (WHERE h.is_view OR h.is_beacon AND h.bot IS NULL) AS sessions,
               count(*) FILTER (WHERE NOT h.is_beacon AND h.bot IS NOT NULL) AS bot_hits,
               coalesce(sum(greatest(h.bytes, 0)) FILTER (WHERE NOT h.is_beacon), 0) AS bytes,
               count(*) FILTER (WHERE NOT h.is_beacon AND h.status BETWEEN 400 AND 499) AS errors_4xx,
               count(*) FILTER (WHERE NOT h.is_beacon AND h.status BETWEEN 500 AND 599) AS errors_5xx,
               -- NaN is greater than every number here; the cap is what the collector lets through
               coalesce(sum(least(h.engaged_secs, 21600))
                   FILTER (WHERE h.is_beacon AND h.bot IS NULL AND h.engaged_secs > 0
                             AND h.engaged_secs <> 'NaN'), 0) AS engaged_seconds,
               percentile_disc(ARRAY[0.5, 0.95]) WITHIN GROUP (ORDER BY h.response_us)
                   FILTER (WHERE NOT h.is_beacon AND h.response_us > 0) AS response_us,
               count(*) AS raw_hits
        FROM tarn.hits_of_day(rollup_day.site_id, rollup_day.day) h
    ) f
    ON CONFLICT ON CONSTRAINT site_days_pkey DO UPDATE SET
        hits = excluded.hits, page_views = excluded.page_views, visitors = excluded.visitors,
        sessions = excluded.sessions, bot_hits = excluded.bot_hits, bytes = excluded.bytes,
        errors_4xx = excluded.errors_4xx, errors_5xx = excluded.errors_5xx,
        engaged_seconds = excluded.engaged_seconds, response_us_median = excluded.response_us_median,
        response_us_p95 = excluded.response_us_p95, raw_hits = excluded.raw_hits, updated_at = now()
    WHERE excluded.raw_hits >= s.raw_hits;
    IF NOT FOUND THEN
        RETURN;
    END IF;

    -- Most values have not moved since half a minute ago; only those that have are written.
    WITH view AS MATERIALIZED (
        SELECT path, source_kind, source, search_terms, country, device, browser, os, visitor
        FROM tarn.hits_of_day(rollup_day.site_id, rollup_day.day) WHERE is_view
    ), request AS MATERIALIZED (
        SELECT visitor, status, bot, count(*) AS hits
        FROM tarn.hits_of_day(rollup_day.site_id, rollup_day.day) WHERE NOT is_beacon
        GROUP BY visitor, status, bot
    ), by_visitor AS (
        SELECT 'path' AS dimension, path AS value, visitor, count(*) AS hits FROM view GROUP BY 2, 3
        UNION ALL
        SELECT 'source_kind', source_kind, visitor, count(*) FROM view GROUP BY 2, 3
        UNION ALL
        SELECT 'source', source, visitor, count(*) FROM view GROUP BY 2, 3
        UNION ALL
        SELECT 'search_terms', search_terms, visitor, count(*) FROM view GROUP BY 2, 3
        UNION ALL
        SELECT 'country', country, visitor, count(*) FROM view GROUP BY 2, 3
        UNION ALL
        SELECT 'device', device, visitor, count(*) FROM view GROUP BY 2, 3
        UNION ALL
        SELECT 'browser', browser, visitor, count(*) FROM view GROUP BY 2, 3
        UNION ALL
        SELECT 'os', os, visitor, count(*) FROM view GROUP BY 2, 3
        UNION ALL
        SELECT 'bot', bot, visitor, sum(hits) FROM request GROUP BY 2, 3
        UNION ALL
        SELECT 'status', status::text, visitor, sum(hits) FROM request GROUP BY 2, 3
    ), fresh AS MATERIALIZED (
        SELECT dimension, value, sum(hits)::bigint AS hits, count(visitor) AS visitors
        FROM by_visitor WHERE value <> '' GROUP BY dimension, value
    ), stale AS (
        DELETE FROM tarn.site_day_values v
        WHERE v.site_id = rollup_day.site_id AND v.day = rollup_day.day
          AND NOT EXISTS (SELECT FROM fresh f WHERE f.dimension = v.dimension AND f.value = v.value
                             AND f.hits = v.hits AND f.visitors = v.visitors)
    )
    INSERT INTO tarn.site_day_values (site_id, day, dimension, value, hits, visitors)
    SELECT rollup_day.site_id, rollup_day.day, f.dimension, f.value, f.hits, f.visitors
    FROM fresh f
    WHERE NOT EXISTS (SELECT FROM tarn.site_day_values v
                      WHERE v.site_id = rollup_day.site_id AND v.day = rollup_day.day
                        AND v.dimension = f.dimension AND v.value = f.value
                        AND v.hits = f.hits AND v.visitors = f.visitors);
END
$$;
COMMENT ON FUNCTION tarn.rollup_day(integer, date) IS
    'Brings tarn.site_days and tarn.site_day_values up to date for one site''s calendar day in the session''s time '
    'zone. Does nothing, in a fraction of a millisecond, unless tarn.rollup_due holds the day and no insert holds that; keeps the figures that '
    'stand if raw hits behind them have been deleted since';
REVOKE EXECUTE ON ALL FUNCTIONS IN SCHEMA tarn FROM PUBLIC;

COMMIT;
