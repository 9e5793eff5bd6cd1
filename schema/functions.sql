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
    -- A mark that stands already is updated, and so locked: until these hits are committed no roll-up can take the
    -- mark away, and so none can clear it without having seen them.
    INSERT INTO tarn.rollup_due AS d (site_id, day, hits, zone)
    SELECT n.site_id, n.at::date, count(*), current_setting('TimeZone') FROM new_hits n GROUP BY n.site_id, n.at::date
    ON CONFLICT (site_id, day) DO UPDATE SET hits = d.hits + excluded.hits, zone = excluded.zone;
    RETURN NULL;
END
$$;
COMMENT ON FUNCTION tarn.mark_rollup_due() IS 'Notes the days of new hits, and how many there are, in tarn.rollup_due';

CREATE OR REPLACE TRIGGER mark_rollup_due AFTER INSERT ON tarn.hits
    REFERENCING NEW TABLE AS new_hits
    FOR EACH STATEMENT EXECUTE FUNCTION tarn.mark_rollup_due();

CREATE OR REPLACE FUNCTION tarn.day_start(day date) RETURNS timestamptz
LANGUAGE sql STABLE PARALLEL SAFE
RETURN CASE
    WHEN (day_start.day::timestamptz - interval '1 hour')::date = day_start.day
    THEN day_start.day::timestamptz - interval '1 hour'
    ELSE day_start.day::timestamptz
END;
COMMENT ON FUNCTION tarn.day_start(date) IS
    'First moment of a calendar day in the session''s time zone. Not always day::timestamptz: where clocks go back '
    'from one to zero (Azores, Cuba) midnight comes twice, and that is the second';

CREATE OR REPLACE FUNCTION tarn.day_start(day date, zone text) RETURNS timestamptz
LANGUAGE sql STABLE PARALLEL SAFE
RETURN CASE
    WHEN ((day_start.day::timestamp AT TIME ZONE day_start.zone - interval '1 hour')
              AT TIME ZONE day_start.zone)::date = day_start.day
    THEN day_start.day::timestamp AT TIME ZONE day_start.zone - interval '1 hour'
    ELSE day_start.day::timestamp AT TIME ZONE day_start.zone
END;
COMMENT ON FUNCTION tarn.day_start(date, text) IS 'First moment of a calendar day in a time zone';

-- Body parsed here and now and no SET, so that the planner can merge it into the query around it: the index range
-- is then read where it is used.
CREATE OR REPLACE FUNCTION tarn.hits_of_day(site_id integer, day date)
RETURNS TABLE (
    is_beacon     boolean,
    is_view       boolean,
    at            timestamptz,
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
LANGUAGE sql STABLE PARALLEL SAFE
BEGIN ATOMIC
    SELECT h.engaged_secs IS NOT NULL AND h.method IS NOT DISTINCT FROM 'BEACON',
           h.is_page IS TRUE AND h.bot IS NULL AND (h.status BETWEEN 200 AND 299 OR h.status = 304) IS TRUE
               AND h.method IS NOT DISTINCT FROM 'GET',
           h.at, h.path, h.status, h.bytes, h.visitor, h.session_id, h.country, h.source_kind, h.source,
           h.search_terms, h.device, h.browser, h.os, h.bot, h.engaged_secs, h.response_us
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

CREATE OR REPLACE FUNCTION tarn.read_day(site_id integer, day date, readings text[])
RETURNS TABLE (
    dimension        text,
    value            text,
    part_of          text,
    hits             bigint,
    visitors         bigint,
    engaged_seconds  double precision,
    response_us_p95  integer)
-- Dear enough for the planner to give several readings a worker each.
LANGUAGE plpgsql STABLE STRICT PARALLEL SAFE COST 10000000
SET search_path = pg_catalog, pg_temp
-- Statistics lag behind on the very day that is being counted. These keep a wrong guess about it harmless: no scan of
-- a whole table, no join and no grouping but by hash (other joins would compare each value with each, a matter of
-- minutes for a site with tens of thousands of pages), no compiling of a query that takes milliseconds.
SET enable_seqscan = off
SET enable_nestloop = off
SET enable_mergejoin = off
SET enable_sort = off
SET jit = off
-- The readings are spread over processes, not the steps of one.
SET max_parallel_workers_per_gather = 0
-- For each step of the statement; what does not fit goes through files.
SET work_mem = '64MB'
AS $$
#variable_conflict use_column
BEGIN
    -- Three readings: request, visit and page. One that is not asked for has no rows, and what follows from it none.
    -- Hits are summed as double precision, which is exact for whole numbers up to 2^53; the sum of a bigint is a
    -- numeric, which is slow to add up again.
    RETURN QUERY
    WITH request AS MATERIALIZED (
        -- Two groupings in one: by response time, and by status, visitor and bot.
        SELECT r.status, r.visitor, r.bot, r.response_us, GROUPING(r.response_us) = 0 AS by_time,
               count(*)::float8 AS hits, sum(greatest(r.bytes, 0)) AS bytes
        FROM tarn.hits_of_day(read_day.site_id, read_day.day) r
        WHERE 'requests' = ANY (read_day.readings) AND NOT r.is_beacon
        GROUP BY GROUPING SETS ((r.status, r.visitor, r.bot), (r.response_us))
    ), response AS MATERIALIZED (
        SELECT min(response_us) FILTER (WHERE 100 * up_to >= 50 * times) AS median,
               min(response_us) FILTER (WHERE 100 * up_to >= 95 * times) AS p95
        FROM (SELECT response_us, sum(hits) OVER (ORDER BY response_us) AS up_to, sum(hits) OVER () AS times
              FROM request WHERE by_time AND response_us > 0) r
    ), visit AS MATERIALIZED (
        -- A visitor's views mostly agree in all this, so that each dimension has a third of the rows to count.
        SELECT h.visitor, h.country, h.device, h.browser, h.os, h.source_kind, h.source, h.search_terms,
               date_part('hour', h.at) AS hour, count(*)::float8 AS hits
        FROM tarn.hits_of_day(read_day.site_id, read_day.day) h
        WHERE 'visits' = ANY (read_day.readings) AND h.is_view
        GROUP BY h.visitor, h.country, h.device, h.browser, h.os, h.source_kind, h.source, h.search_terms,
                 date_part('hour', h.at)
    ), client AS MATERIALIZED (
        SELECT visitor, country, device, browser, os, sum(hits) AS hits FROM visit
        GROUP BY visitor, country, device, browser, os
    ), page AS MATERIALIZED (
        -- What is neither view nor beacon here is a missing page.
        SELECT h.is_view, h.is_beacon, h.bot IS NULL AS is_person, h.visitor, h.at, h.path,
               nullif(h.session_id, 0) AS session_id,
               CASE WHEN h.response_us > 0 THEN h.response_us END AS response_us,
               -- NaN is greater than every number here; the cap is what the collector lets through
               CASE WHEN h.is_beacon AND h.engaged_secs > 0 AND h.engaged_secs <> 'NaN'
                    THEN least(h.engaged_secs, 21600) END AS engaged_secs
        FROM tarn.hits_of_day(read_day.site_id, read_day.day) h
        WHERE 'pages' = ANY (read_day.readings) AND (h.is_view OR h.is_beacon OR h.status IN (404, 410))
    ), beacon AS MATERIALIZED (
        SELECT is_person, path, count(*) AS beacons, sum(engaged_secs) AS seconds
        FROM page WHERE is_beacon GROUP BY is_person, path
    ), path AS MATERIALIZED (
        SELECT path AS value, visitor, count(*)::float8 AS hits FROM page WHERE is_view AND path <> ''
        GROUP BY path, visitor
    ), session AS MATERIALIZED (
        SELECT session_id, count(*) FILTER (WHERE is_view) AS views, bool_or(is_person) AS is_person,
               coalesce(max(engaged_secs), 0) > 10 AS stayed
        FROM page WHERE session_id IS NOT NULL AND (is_view OR is_beacon) GROUP BY session_id
    ), entry AS MATERIALIZED (
        SELECT path AS value, visitor, count(*)::float8 AS hits
        FROM (SELECT DISTINCT ON (session_id) path, visitor FROM page WHERE is_view AND session_id IS NOT NULL
              ORDER BY session_id, at, path COLLATE "C", visitor) first
        WHERE path <> '' GROUP BY path, visitor
    ), missing AS MATERIALIZED (
        SELECT path AS value, visitor, count(*)::float8 AS hits FROM page
        WHERE NOT is_view AND NOT is_beacon AND path <> '' GROUP BY path, visitor
    ), by_visitor AS NOT MATERIALIZED (
        SELECT 'path' AS dimension, value, '' AS part_of, visitor, hits FROM path
        UNION ALL
        SELECT 'entry_path', value, '', visitor, hits FROM entry
        UNION ALL
        SELECT 'missing_path', value, '', visitor, hits FROM missing
        UNION ALL
        SELECT 'source_kind', source_kind, '', visitor, sum(hits) FROM visit
        WHERE source_kind <> '' GROUP BY 2, 4
        UNION ALL
        SELECT 'source', source, coalesce(source_kind, ''), visitor, sum(hits) FROM visit
        WHERE source <> '' AND source_kind IS DISTINCT FROM 'campaign' GROUP BY 2, 3, 4
        UNION ALL
        SELECT 'campaign', search_terms, coalesce(source, ''), visitor, sum(hits) FROM visit
        WHERE search_terms <> '' AND source_kind = 'campaign' GROUP BY 2, 3, 4
        UNION ALL
        SELECT 'campaign_source', source, '', visitor, sum(hits) FROM visit
        WHERE source <> '' AND source_kind = 'campaign' GROUP BY 2, 4
        UNION ALL
        SELECT 'search_terms', search_terms, '', visitor, sum(hits) FROM visit
        WHERE search_terms <> '' AND source_kind = 'search' GROUP BY 2, 4
        UNION ALL
        SELECT 'country', country, '', visitor, sum(hits) FROM client WHERE country <> '' GROUP BY 2, 4
        UNION ALL
        SELECT 'device', device, '', visitor, sum(hits) FROM client WHERE device <> '' GROUP BY 2, 4
        UNION ALL
        SELECT 'browser', browser, '', visitor, sum(hits) FROM client WHERE browser <> '' GROUP BY 2, 4
        UNION ALL
        SELECT 'os', os, '', visitor, sum(hits) FROM client WHERE os <> '' GROUP BY 2, 4
        UNION ALL
        SELECT 'hour', lpad(hour::text, 2, '0'), '', visitor, hits
        FROM (SELECT hour, visitor, sum(hits) AS hits FROM visit GROUP BY 1, 2) h
        UNION ALL
        SELECT 'bot', bot, '', visitor, sum(hits) FROM request WHERE NOT by_time AND bot <> '' GROUP BY 2, 4
        UNION ALL
        SELECT 'status', status::text, '', visitor, hits
        FROM (SELECT status, visitor, sum(hits) AS hits FROM request WHERE NOT by_time GROUP BY 1, 2) r
        WHERE status IS NOT NULL
    ), total AS MATERIALIZED (
        SELECT dimension, value, part_of, sum(hits)::bigint AS hits, count(visitor) AS visitors
        FROM by_visitor GROUP BY dimension, value, part_of
    ), kept AS MATERIALIZED (
        SELECT t.*, row_number() OVER () AS place
        FROM (SELECT DISTINCT dimension FROM total) d
        CROSS JOIN LATERAL (
            SELECT * FROM total WHERE total.dimension = d.dimension
            ORDER BY total.hits DESC, total.visitors DESC, total.value COLLATE "C", total.part_of COLLATE "C"
            LIMIT 1000) t
    ), rest AS MATERIALIZED (
        SELECT r.dimension, sum(r.hits)::bigint AS hits, count(r.visitor) AS visitors
        FROM (
            -- An array, so that the dimensions that are complete are left out before they are computed once more.
            SELECT b.dimension, b.visitor, sum(b.hits) AS hits
            FROM by_visitor b
            WHERE b.dimension = ANY (ARRAY(SELECT dimension FROM total GROUP BY dimension HAVING count(*) > 1000))
              AND NOT EXISTS (SELECT FROM kept k
                              WHERE k.dimension = b.dimension AND k.value = b.value AND k.part_of = b.part_of)
            GROUP BY b.dimension, b.visitor) r
        GROUP BY r.dimension
    ), path_place AS MATERIALIZED (
        SELECT t.value, coalesce(k.place, 0) AS place
        FROM (SELECT value FROM total WHERE dimension = 'path') t
        LEFT JOIN (SELECT value, place FROM kept WHERE dimension = 'path') k ON k.value = t.value
    ), path_response AS MATERIALIZED (
        SELECT l.place, percentile_disc(0.95) WITHIN GROUP (ORDER BY p.response_us) AS p95
        FROM page p JOIN path_place l ON l.value = p.path
        WHERE p.is_view AND p.response_us IS NOT NULL GROUP BY l.place
    ), path_attention AS MATERIALIZED (
        SELECT l.place, sum(b.seconds) AS seconds
        FROM beacon b JOIN path_place l ON l.value = b.path
        WHERE b.is_person GROUP BY l.place
    )
    SELECT v.dimension, v.value, v.part_of, v.hits, v.visitors,
           CASE WHEN v.dimension = 'path' THEN coalesce(a.seconds, 0) END, r.p95
    FROM (SELECT dimension, value, part_of, hits, visitors, place FROM kept
          UNION ALL
          SELECT dimension, '', '', hits, visitors, CASE WHEN dimension = 'path' THEN 0 END FROM rest) v
    LEFT JOIN path_attention a ON a.place = v.place
    LEFT JOIN path_response r ON r.place = v.place
    UNION ALL
    SELECT '', f.name, '', f.figure, NULL, NULL, NULL
    FROM (VALUES
        ('hits', (SELECT sum(hits)::bigint FROM request WHERE NOT by_time)),
        ('bot_hits', (SELECT sum(hits)::bigint FROM request WHERE NOT by_time AND bot IS NOT NULL)),
        ('errors_4xx', (SELECT sum(hits)::bigint FROM request WHERE NOT by_time AND status BETWEEN 400 AND 499)),
        ('errors_5xx', (SELECT sum(hits)::bigint FROM request WHERE NOT by_time AND status BETWEEN 500 AND 599)),
        ('bytes', (SELECT least(coalesce(sum(bytes), 0), 9223372036854775807)::bigint FROM request WHERE NOT by_time)),
        ('response_us_median', (SELECT median FROM response)),
        ('response_us_p95', (SELECT p95 FROM response)),
        ('page_views', (SELECT sum(hits)::bigint FROM client)),
        ('visitors', (SELECT count(visitor) FROM (SELECT visitor FROM page WHERE is_view OR is_beacon AND is_person
                                                  GROUP BY visitor) p)),
        ('sessions', (SELECT count(*) FROM session WHERE is_person)),
        ('bounces', (SELECT count(*) FROM session WHERE is_person AND views = 1 AND NOT stayed)),
        ('beacons', (SELECT sum(beacons)::bigint FROM beacon))) f (name, figure)
    UNION ALL
    SELECT '', 'engaged_seconds', '', NULL, NULL, sum(seconds), NULL FROM beacon WHERE is_person;
END
$$;
COMMENT ON FUNCTION tarn.read_day(integer, date, text[]) IS
    'Reads a site''s day from tarn.hits, once for each of the readings that are asked for: requests, visits and pages. '
    'Gives the rows of tarn.site_day_values that follow from them, and under the dimension '''' the columns of '
    'tarn.site_days by name: in hits, engaged_seconds in its own. Those of other readings are 0 or NULL';

CREATE OR REPLACE FUNCTION tarn.figures_of_day(site_id integer, day date, is_large boolean)
RETURNS TABLE (
    dimension        text,
    value            text,
    part_of          text,
    hits             bigint,
    visitors         bigint,
    engaged_seconds  double precision,
    response_us_p95  integer)
-- Stable, as tarn.read_day is, so that all readings are of the moment that the statement around them is of. In plpgsql,
-- since a statement that writes uses no workers, but a query that such a function returns to it can.
LANGUAGE plpgsql STABLE STRICT
SET search_path = pg_catalog, pg_temp
AS $$
BEGIN
    IF is_large THEN
        -- The longest first, since the first worker takes it.
        RETURN QUERY
        SELECT * FROM tarn.read_day(figures_of_day.site_id, figures_of_day.day, '{pages}')
        UNION ALL
        SELECT * FROM tarn.read_day(figures_of_day.site_id, figures_of_day.day, '{visits}')
        UNION ALL
        SELECT * FROM tarn.read_day(figures_of_day.site_id, figures_of_day.day, '{requests}');
    ELSE
        RETURN QUERY
        SELECT * FROM tarn.read_day(figures_of_day.site_id, figures_of_day.day, '{requests,visits,pages}');
    END IF;
END
$$;
COMMENT ON FUNCTION tarn.figures_of_day(integer, date, boolean) IS
    'All that tarn.read_day makes of a site''s day. The readings of a large one are done side by side, as far as the '
    'server has parallel workers to spare';

CREATE OR REPLACE FUNCTION tarn.count_day(site_id integer, day date) RETURNS boolean
LANGUAGE plpgsql VOLATILE STRICT
SET search_path = pg_catalog, pg_temp
-- For the comparison with what stands, as in tarn.read_day.
SET enable_seqscan = off
SET enable_nestloop = off
SET enable_mergejoin = off
SET enable_sort = off
SET jit = off
AS $$
DECLARE
    started   CONSTANT timestamptz := clock_timestamp();
    here      CONSTANT text := current_setting('TimeZone');
    this_day  CONSTANT timestamptz := tarn.day_start(count_day.day);
    next_day  CONSTANT timestamptz := tarn.day_start(count_day.day + 1);
    new_hits  bigint;
    is_large  boolean;
    took_ms   integer;
BEGIN
    -- Hits that are on their way hold the mark of their day; it is left to the next call. A roll-up that waited for
    -- them could wait in a circle: they lock their days in the order of the log, it in that of its caller.
    SELECT d.hits INTO new_hits FROM tarn.rollup_due d
    WHERE d.site_id = count_day.site_id AND d.day = count_day.day FOR UPDATE SKIP LOCKED;
    IF NOT FOUND THEN
        RETURN false;
    END IF;
    DELETE FROM tarn.rollup_due d WHERE d.site_id = count_day.site_id AND d.day = count_day.day;

    -- Below that, starting workers costs more than they save.
    SELECT new_hits + coalesce(sum(s.raw_hits), 0) >= 50000 INTO is_large FROM tarn.site_days s
    WHERE s.site_id = count_day.site_id AND s.day = count_day.day;

    -- One statement, so that all figures are of the same moment.
    WITH counted AS MATERIALIZED (
        SELECT * FROM tarn.figures_of_day(count_day.site_id, count_day.day, is_large)
    ), fresh AS MATERIALIZED (
        SELECT * FROM counted WHERE dimension <> ''
    ), figures AS MATERIALIZED (
        SELECT coalesce(sum(hits) FILTER (WHERE value = 'hits'), 0)::bigint AS hits,
               coalesce(sum(hits) FILTER (WHERE value = 'page_views'), 0)::bigint AS page_views,
               coalesce(sum(hits) FILTER (WHERE value = 'visitors'), 0)::bigint AS visitors,
               coalesce(sum(hits) FILTER (WHERE value = 'sessions'), 0)::bigint AS sessions,
               coalesce(sum(hits) FILTER (WHERE value = 'bounces'), 0)::bigint AS bounces,
               coalesce(sum(hits) FILTER (WHERE value = 'bot_hits'), 0)::bigint AS bot_hits,
               coalesce(sum(hits) FILTER (WHERE value = 'bytes'), 0)::bigint AS bytes,
               coalesce(sum(hits) FILTER (WHERE value = 'errors_4xx'), 0)::bigint AS errors_4xx,
               coalesce(sum(hits) FILTER (WHERE value = 'errors_5xx'), 0)::bigint AS errors_5xx,
               coalesce(sum(hits) FILTER (WHERE value = 'beacons'), 0)::bigint AS beacons,
               coalesce(sum(engaged_seconds), 0) AS engaged_seconds,
               max(hits) FILTER (WHERE value = 'response_us_median') AS response_us_median,
               max(hits) FILTER (WHERE value = 'response_us_p95') AS response_us_p95
        FROM counted WHERE dimension = ''
    ), written AS (
        INSERT INTO tarn.site_days AS s
            (site_id, day, hits, page_views, visitors, sessions, bounces, bot_hits, bytes, errors_4xx, errors_5xx,
             engaged_seconds, raw_hits, updated_at, response_us_median, response_us_p95, rollup_ms, zone)
        SELECT count_day.site_id, count_day.day, f.hits, f.page_views, f.visitors, f.sessions, f.bounces, f.bot_hits,
               f.bytes, f.errors_4xx, f.errors_5xx, f.engaged_seconds, f.hits + f.beacons, now(), f.response_us_median,
               f.response_us_p95, 0, here
        FROM figures f
        -- What has no hits any more stands as it is; what never had any gets no row.
        WHERE f.hits + f.beacons > 0
          -- After a change of the zone: days that were counted in the other one and share hours with this one must have
          -- their hits still, and those that have come for this one.
          AND NOT EXISTS (
              SELECT FROM tarn.site_days o,
                   LATERAL (SELECT tarn.day_start(o.day, o.zone) AS first, tarn.day_start(o.day + 1, o.zone) AS next) r
              WHERE o.site_id = count_day.site_id AND o.day BETWEEN count_day.day - 1 AND count_day.day + 1
                AND o.zone <> here AND r.first < next_day AND r.next > this_day
                AND CASE WHEN o.day = count_day.day
                    THEN o.raw_hits + new_hits > (
                        SELECT count(*) FROM tarn.hits h
                        WHERE (h.site_id, h.at) >= (o.site_id, least(r.first, this_day))
                          AND (h.site_id, h.at) < (o.site_id, greatest(r.next, next_day)))
                    ELSE o.raw_hits > (
                        SELECT count(*) FROM tarn.hits h
                        WHERE (h.site_id, h.at) >= (o.site_id, r.first) AND (h.site_id, h.at) < (o.site_id, r.next))
                    END)
        ON CONFLICT ON CONSTRAINT site_days_pkey DO UPDATE SET
            hits = excluded.hits, page_views = excluded.page_views, visitors = excluded.visitors,
            sessions = excluded.sessions, bounces = excluded.bounces, bot_hits = excluded.bot_hits,
            bytes = excluded.bytes, errors_4xx = excluded.errors_4xx, errors_5xx = excluded.errors_5xx,
            engaged_seconds = excluded.engaged_seconds, raw_hits = excluded.raw_hits,
            updated_at = excluded.updated_at, response_us_median = excluded.response_us_median,
            response_us_p95 = excluded.response_us_p95, rollup_ms = excluded.rollup_ms, zone = excluded.zone
        -- What stood behind the figures and all that came since: if some of it is gone, the figures stand.
        WHERE s.zone <> excluded.zone OR excluded.raw_hits >= s.raw_hits + new_hits
        RETURNING s.site_id
    ), stale AS (
        -- Most values have not moved since half a minute ago; only those that have are written.
        DELETE FROM tarn.site_day_values v
        WHERE v.site_id = count_day.site_id AND v.day = count_day.day AND EXISTS (SELECT FROM written)
          AND NOT EXISTS (SELECT FROM fresh f
                          WHERE f.dimension = v.dimension AND f.value = v.value AND f.part_of = v.part_of
                            AND f.hits = v.hits AND f.visitors = v.visitors
                            AND coalesce(f.engaged_seconds, -1) = coalesce(v.engaged_seconds, -1)
                            AND coalesce(f.response_us_p95, -1) = coalesce(v.response_us_p95, -1))
    )
    INSERT INTO tarn.site_day_values
        (site_id, day, dimension, value, part_of, hits, visitors, engaged_seconds, response_us_p95)
    SELECT count_day.site_id, count_day.day, f.dimension, f.value, f.part_of, f.hits, f.visitors, f.engaged_seconds,
           f.response_us_p95
    FROM fresh f
    WHERE EXISTS (SELECT FROM written)
      AND NOT EXISTS (SELECT FROM tarn.site_day_values v
                      WHERE v.site_id = count_day.site_id AND v.day = count_day.day
                        AND v.dimension = f.dimension AND v.value = f.value AND v.part_of = f.part_of
                        AND v.hits = f.hits AND v.visitors = f.visitors
                        AND coalesce(v.engaged_seconds, -1) = coalesce(f.engaged_seconds, -1)
                        AND coalesce(v.response_us_p95, -1) = coalesce(f.response_us_p95, -1));

    took_ms := 1000 * extract(epoch FROM clock_timestamp() - started);
    IF took_ms > 500 THEN
        UPDATE tarn.site_days s SET rollup_ms = took_ms, updated_at = clock_timestamp()
        WHERE s.site_id = count_day.site_id AND s.day = count_day.day;
    END IF;
    RETURN true;
END
$$;
COMMENT ON FUNCTION tarn.count_day(integer, date) IS
    'What tarn.rollup_day does for each day: takes the day''s mark and puts its figures into tarn.site_days and '
    'tarn.site_day_values, unless hits that figures stand for have been deleted since. False without a mark, or if an '
    'insert holds it';

CREATE OR REPLACE FUNCTION tarn.rollup_day(site_id integer, day date) RETURNS void
LANGUAGE plpgsql VOLATILE STRICT
SET search_path = pg_catalog, pg_temp
SET enable_seqscan = off
AS $$
DECLARE
    started  CONSTANT timestamptz := clock_timestamp();
    due      record;
    further  boolean := false;
BEGIN
    FOR due IN
        SELECT d.day, false AS is_further FROM tarn.rollup_due d
        WHERE d.site_id = rollup_day.site_id AND d.day = rollup_day.day
        UNION ALL
        (SELECT d.day, true FROM tarn.rollup_due d
         WHERE d.site_id = rollup_day.site_id AND d.day <> rollup_day.day
         ORDER BY d.site_id DESC, d.day DESC)
    LOOP
        -- Inserts wait for the marks that are taken here until the caller's transaction ends.
        EXIT WHEN further AND clock_timestamp() >= started + interval '100 ms';
        CONTINUE WHEN EXISTS (
            SELECT FROM tarn.site_days s
            WHERE s.site_id = rollup_day.site_id AND s.day = due.day AND s.rollup_ms > 0
              AND s.updated_at + s.rollup_ms * interval '20 ms' > clock_timestamp());
        IF tarn.count_day(rollup_day.site_id, due.day) THEN
            further := further OR due.is_further;
        END IF;
    END LOOP;
END
$$;
COMMENT ON FUNCTION tarn.rollup_day(integer, date) IS
    'Brings tarn.site_days and tarn.site_day_values up to date: the day asked for, then further marked days of the '
    'site, newest first, at least one and as many as 100 ms allow. A day of the session''s time zone. Does nothing '
    'unless tarn.rollup_due holds a day, leaves days that an insert holds, and days whose last count took more than '
    '500 ms until twenty times that has passed';

CREATE OR REPLACE FUNCTION tarn.roll_up_before_delete() RETURNS trigger
LANGUAGE plpgsql
SET search_path = pg_catalog, pg_temp
SET enable_seqscan = off
AS $$
DECLARE
    zone  CONSTANT text := current_setting('TimeZone');
    due   record;
    held  boolean;
BEGIN
    -- Which hits are to go is not known here, so every marked day is counted, each in the zone that it was marked in.
    FOR attempt IN 1 .. 10 LOOP
        held := false;
        FOR due IN SELECT d.site_id, d.day, d.zone FROM tarn.rollup_due d ORDER BY d.site_id, d.day LOOP
            PERFORM set_config('TimeZone', due.zone, true);
            CONTINUE WHEN tarn.count_day(due.site_id, due.day);
            held := true;
            -- An insert of another session has the mark. It is waited for, and what the waiting locks is let go at
            -- once: an insert that waits for this session in turn could otherwise be the one that is given up.
            BEGIN
                PERFORM FROM tarn.rollup_due d WHERE d.site_id = due.site_id AND d.day = due.day FOR UPDATE;
                RAISE EXCEPTION USING ERRCODE = 'TARN1';
            EXCEPTION WHEN SQLSTATE 'TARN1' THEN
            END;
        END LOOP;
        PERFORM set_config('TimeZone', zone, true);
        IF NOT held THEN
            RETURN NULL;
        END IF;
    END LOOP;
    RAISE EXCEPTION 'hits that no roll-up has seen are still being stored; nothing was deleted'
        USING HINT = 'Delete again when the import that goes on is done.';
END
$$;
COMMENT ON FUNCTION tarn.roll_up_before_delete() IS
    'Counts every marked day before hits are deleted, so that none goes that no figure has seen';

CREATE OR REPLACE TRIGGER roll_up_before_delete BEFORE DELETE ON tarn.hits
    FOR EACH STATEMENT EXECUTE FUNCTION tarn.roll_up_before_delete();


-- Figures for those who may not read hits

-- A view reads with its owner's rights. security_barrier keeps a reader's own functions from seeing the rows behind it.
CREATE OR REPLACE VIEW tarn.live_visitors WITH (security_barrier) AS
SELECT h.site_id, count(DISTINCT h.visitor) AS visitors
FROM tarn.hits h
WHERE h.at > now() - interval '5 minutes' AND h.at <= now() AND h.bot IS NULL
  AND (h.is_page AND h.method = 'GET' AND (h.status BETWEEN 200 AND 299 OR h.status = 304)
       OR h.method = 'BEACON' AND h.engaged_secs IS NOT NULL)
GROUP BY h.site_id;
COMMENT ON VIEW tarn.live_visitors IS
    'Visitors of the last five minutes by site: distinct over views and people''s beacons, as in tarn.site_days. A '
    'site without any has no row';
COMMENT ON COLUMN tarn.live_visitors.site_id IS 'tarn.sites.id';
COMMENT ON COLUMN tarn.live_visitors.visitors IS 'How many; which is for those who may read tarn.hits';

-- Reads with its owner's rights: whoever looks after the collector needs no other right than to this row. Each figure
-- has a subquery of its own, so that the row comes also where a table is empty.
CREATE OR REPLACE VIEW tarn.collector_state AS
SELECT (SELECT max(s.at) FROM tarn.host_samples s) AS last_sample_at,
       l.path AS oldest_log, l.since AS oldest_log_since, l.read_offset AS oldest_log_read_bytes,
       (SELECT count(*) FROM tarn.log_sources n WHERE n.updated_at IS NULL) AS logs_never_read,
       w.days AS days_waiting, w.oldest AS oldest_day_waiting,
       e.last_sync_at, e.last_result AS last_sync_result,
       (SELECT c.value FROM tarn.settings c WHERE c.key = 'geoip_month') AS country_month,
       (SELECT count(*) FROM tarn.alerts a WHERE a.closed_at IS NULL) AS open_alerts
FROM (SELECT count(*) AS days, min(r.day) AS oldest
      FROM tarn.rollup_due r JOIN tarn.sites s ON s.id = r.site_id) w
LEFT JOIN (SELECT p.path, p.read_offset, coalesce(p.updated_at, p.created_at) AS since
           FROM tarn.log_sources p ORDER BY since, p.id LIMIT 1) l ON true
LEFT JOIN tarn.engine_accounts e ON e.engine = 'google';
COMMENT ON VIEW tarn.collector_state IS
    'One row about the collector itself, for programs that watch it (docs/monitoring.md)';
COMMENT ON COLUMN tarn.collector_state.last_sample_at IS
    'When it last sampled the host; NULL: never, or not in the last 30 days that samples are kept for';
COMMENT ON COLUMN tarn.collector_state.oldest_log IS
    'Path of the log that has been without a reading for longest; NULL: no log is registered';
COMMENT ON COLUMN tarn.collector_state.oldest_log_since IS
    'When it was last read from, or registered if never. A log is read only when it grows: a site at rest looks like '
    'a log that may not be read';
COMMENT ON COLUMN tarn.collector_state.oldest_log_read_bytes IS
    'Bytes of it that have been read. How many are left is the file''s size less this; the size is not known here';
COMMENT ON COLUMN tarn.collector_state.logs_never_read IS 'Registered logs that nothing has been read of';
COMMENT ON COLUMN tarn.collector_state.days_waiting IS
    'Days of sites with hits that are not in the figures yet; those of removed sites are left out';
COMMENT ON COLUMN tarn.collector_state.oldest_day_waiting IS 'The oldest of them; NULL: there is none';
COMMENT ON COLUMN tarn.collector_state.last_sync_at IS
    'When the search figures were last asked for, with or without success; NULL: never, or nobody has connected';
COMMENT ON COLUMN tarn.collector_state.last_sync_result IS 'What came of it, as in tarn.engine_accounts.last_result';
COMMENT ON COLUMN tarn.collector_state.country_month IS
    'Month (yyyy-MM) of what tarn.geo_country holds; NULL: it has never been loaded';
COMMENT ON COLUMN tarn.collector_state.open_alerts IS 'Alerts of the host that are open';


-- Health of the host

CREATE OR REPLACE FUNCTION tarn.count_sample() RETURNS trigger
LANGUAGE plpgsql
SET search_path = pg_catalog, pg_temp
AS $$
DECLARE
    -- Within bounds in which no sum or quotient below can leave the range of its type: the sample itself would be
    -- lost with the statement. Not a number is greater than any here.
    m CONSTANT double precision[] := ARRAY(
        SELECT CASE WHEN x BETWEEN 1e-9 AND 1e15 THEN x WHEN x BETWEEN 0 AND 1e-9 THEN 0 END
        FROM unnest(ARRAY[NEW.load1, NEW.cpu_pct, NEW.net_rx_bps, NEW.net_tx_bps, NEW.apache_rps])
            WITH ORDINALITY rates (x, place)
        ORDER BY place);
    seconds CONSTANT double precision := (
        SELECT least(extract(epoch FROM NEW.at) - extract(epoch FROM s.at), 1e9)
        FROM tarn.host_samples s WHERE s.at <= NEW.at ORDER BY s.at DESC LIMIT 1);
BEGIN
    INSERT INTO tarn.host_days AS d
        (day, samples, load1_avg, load1_max, cpu_pct_avg, cpu_pct_max, mem_used_pct_max, disk_used_pct_last,
         net_rx_bytes, net_tx_bytes, apache_requests, zone, load1_samples, cpu_pct_samples)
    SELECT NEW.at::date, 1, m[1], m[1], m[2], m[2],
           (NEW.mem_total_kb::double precision - NEW.mem_avail_kb) * 100 / nullif(NEW.mem_total_kb, 0),
           (NEW.disk_total_bytes::double precision - NEW.disk_avail_bytes) * 100 / nullif(NEW.disk_total_bytes, 0),
           least(coalesce(m[3] * seconds, 0)::numeric, 9223372036854775807)::bigint,
           least(coalesce(m[4] * seconds, 0)::numeric, 9223372036854775807)::bigint,
           least(coalesce(m[5] * seconds, 0)::numeric, 9223372036854775807)::bigint,
           current_setting('TimeZone'), (m[1] IS NOT NULL)::integer, (m[2] IS NOT NULL)::integer
    ON CONFLICT (day) DO UPDATE SET
        samples = d.samples + 1,
        load1_avg = coalesce(d.load1_avg + (excluded.load1_avg - d.load1_avg) / (d.load1_samples + 1),
                             excluded.load1_avg, d.load1_avg),
        load1_max = greatest(d.load1_max, excluded.load1_max),
        cpu_pct_avg = coalesce(d.cpu_pct_avg + (excluded.cpu_pct_avg - d.cpu_pct_avg) / (d.cpu_pct_samples + 1),
                               excluded.cpu_pct_avg, d.cpu_pct_avg),
        cpu_pct_max = greatest(d.cpu_pct_max, excluded.cpu_pct_max),
        mem_used_pct_max = greatest(d.mem_used_pct_max, excluded.mem_used_pct_max),
        disk_used_pct_last = coalesce(excluded.disk_used_pct_last, d.disk_used_pct_last),
        net_rx_bytes = least(d.net_rx_bytes::numeric + excluded.net_rx_bytes, 9223372036854775807)::bigint,
        net_tx_bytes = least(d.net_tx_bytes::numeric + excluded.net_tx_bytes, 9223372036854775807)::bigint,
        apache_requests = least(d.apache_requests::numeric + excluded.apache_requests, 9223372036854775807)::bigint,
        zone = excluded.zone,
        load1_samples = d.load1_samples + excluded.load1_samples,
        cpu_pct_samples = d.cpu_pct_samples + excluded.cpu_pct_samples;
    RETURN NEW;
END
$$;
COMMENT ON FUNCTION tarn.count_sample() IS 'Adds a new sample to its day in tarn.host_days';

-- Before the insert, so that the sample before it is the latest row that the function finds.
CREATE OR REPLACE TRIGGER count_sample BEFORE INSERT ON tarn.host_samples
    FOR EACH ROW EXECUTE FUNCTION tarn.count_sample();


-- Hosting accounts

CREATE OR REPLACE FUNCTION tarn.note_account_use() RETURNS trigger
LANGUAGE plpgsql
SET search_path = pg_catalog, pg_temp
AS $$
BEGIN
    -- A measurement without this account's home leaves the old size in place and is none of today's.
    IF (NEW.disk_used_bytes, NEW.disk_checked_at) IS NOT DISTINCT FROM (OLD.disk_used_bytes, OLD.disk_checked_at) THEN
        NEW.disk_used_bytes := NULL;
        IF NEW.db_used_bytes IS NULL AND OLD.db_used_bytes IS NULL THEN
            RETURN NULL;
        END IF;
    END IF;
    INSERT INTO tarn.account_days AS d (username, day, disk_used_bytes, db_used_bytes)
    VALUES (NEW.username, current_date, NEW.disk_used_bytes, NEW.db_used_bytes)
    ON CONFLICT (username, day) DO UPDATE SET
        disk_used_bytes = coalesce(excluded.disk_used_bytes, d.disk_used_bytes),
        db_used_bytes = excluded.db_used_bytes;
    RETURN NULL;
END
$$;
COMMENT ON FUNCTION tarn.note_account_use() IS 'Keeps a measurement of an account in tarn.account_days';

CREATE OR REPLACE TRIGGER note_account_use AFTER UPDATE OF disk_used_bytes, db_used_bytes ON tarn.accounts
    FOR EACH ROW EXECUTE FUNCTION tarn.note_account_use();


-- Sites

CREATE OR REPLACE FUNCTION tarn.add_site(host text, log_path text) RETURNS integer
LANGUAGE plpgsql
SET search_path = pg_catalog, pg_temp
AS $$
#variable_conflict use_column
DECLARE
    folded text := lower(add_site.host);
    site integer;
    refused text;
BEGIN
    IF folded IS NULL OR log_path IS NULL THEN
        RAISE EXCEPTION 'a site wants a host and the path of its log'
            USING ERRCODE = 'null_value_not_allowed',
                  HINT = 'SELECT tarn.add_site(''example.org'', ''/var/log/apache2/example.org.log'')';
    END IF;
    -- Looked for first: an insert that conflicts uses up a number.
    SELECT id INTO site FROM tarn.sites WHERE host = folded;
    IF site IS NULL THEN
        INSERT INTO tarn.sites (host) VALUES (folded) ON CONFLICT (host) DO UPDATE SET host = excluded.host
        RETURNING id INTO site;
    END IF;
    IF NOT EXISTS (SELECT FROM tarn.log_sources WHERE site_id = site AND path = log_path) THEN
        INSERT INTO tarn.log_sources (site_id, path) VALUES (site, log_path) ON CONFLICT (site_id, path) DO NOTHING;
    END IF;
    RETURN site;
EXCEPTION WHEN check_violation THEN
    -- The tables say what is allowed; their own message says it in the words of a pattern.
    GET STACKED DIAGNOSTICS refused = CONSTRAINT_NAME;
    IF refused = 'sites_host_is_a_lower_case_name' THEN
        RAISE EXCEPTION '"%" is no host name', add_site.host
            USING ERRCODE = 'check_violation', HINT = 'The name alone, without scheme, port and path: example.org';
    ELSIF refused = 'log_sources_path_is_absolute' THEN
        RAISE EXCEPTION '"%" is no absolute path of a log file', log_path
            USING ERRCODE = 'check_violation',
                  HINT = 'It begins with a slash and ends in neither slash nor blank: /var/log/apache2/example.org.log';
    END IF;
    RAISE;
END
$$;
COMMENT ON FUNCTION tarn.add_site(text, text) IS
    'Registers a site and a log of it, and returns the site''s id. The host is folded to lower case. What is registered '
    'already stays as it is: a further log of a site is added by calling it again';


-- Who sees and sets which setting, beside the rights on the table

-- By rights rather than by name, so that roles can come and go, and nobody who is granted the table gets the secret
-- with it. It is for whoever writes hits, and set by the owner alone. Managing settings is for whoever may delete them.
SET LOCAL client_min_messages = warning; -- nothing about policies that are not there yet
ALTER TABLE tarn.settings ENABLE ROW LEVEL SECURITY;
DROP POLICY IF EXISTS settings_seen ON tarn.settings;
CREATE POLICY settings_seen ON tarn.settings FOR SELECT USING (
    CASE key WHEN 'geoip_month' THEN true
             WHEN 'raw_hit_days' THEN true
             WHEN 'visitor_secret' THEN has_any_column_privilege('tarn.hits'::regclass, 'INSERT')
             ELSE has_table_privilege('tarn.settings'::regclass, 'DELETE') END);
DROP POLICY IF EXISTS settings_set ON tarn.settings;
CREATE POLICY settings_set ON tarn.settings USING (
    key = 'geoip_month' OR key <> 'visitor_secret' AND has_table_privilege('tarn.settings'::regclass, 'DELETE'));


REVOKE EXECUTE ON ALL FUNCTIONS IN SCHEMA tarn FROM PUBLIC;

COMMIT;
