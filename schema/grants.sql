-- What the roles of the suite may do in the database, and nothing beyond:
--
--     createuser tarn_collect
--     psql -v collector=tarn_collect -d DATABASE -f schema/grants.sql
--
--     collector=ROLE  the collector: what its statements need
--     panel=ROLE      the suite's web panel: reads everything but the visitor secret, sets what people set
--     reader=ROLE     reports: figures, without addresses, visitor ids and secrets
--
-- At least one; the roles have to exist. To be run by a superuser (it grants membership in a role of the server), after
-- tarn.sql and again after each upgrade. Each role that is named has afterwards what stands here, whatever it had in
-- schema tarn before; a role that is not named is left alone. None of them owns anything: none can change the schema.
--
-- Connecting to the database is taken from everybody else: whoever may connect can have the collector measure accounts
-- and ask search engines (NOTIFY tarn_usage, tarn_sync). Superusers, the database's owner and the schema's still can.

\set ON_ERROR_STOP on
\if :{?collector} \else \set collector '' \endif
\if :{?panel} \else \set panel '' \endif
\if :{?reader} \else \set reader '' \endif
SELECT :'collector' <> '' AS has_collector, :'panel' <> '' AS has_panel, :'reader' <> '' AS has_reader,
       :'collector' || :'panel' || :'reader' = '' AS has_none \gset
\if :has_none
    DO $$
    BEGIN
        RAISE EXCEPTION 'no role was named'
            USING HINT = 'psql -v collector=ROLE [-v panel=ROLE] [-v reader=ROLE] -d DATABASE -f schema/grants.sql';
    END
    $$;
\endif

BEGIN;

-- The owner's rights are the owner's own, and taking them away would be felt by the next dump.
SELECT DISTINCT format('DO $do$ BEGIN RAISE EXCEPTION %L USING HINT = %L; END $do$',
                       format('role "%s" owns schema tarn or what is in it', r.name),
                       'Name a role of its own for each of collector, panel and reader.')
FROM unnest(ARRAY[:'collector', :'panel', :'reader']) r (name)
WHERE r.name IN (SELECT pg_get_userbyid(nspowner) FROM pg_namespace WHERE nspname = 'tarn'
                 UNION ALL
                 SELECT pg_get_userbyid(relowner) FROM pg_class WHERE relnamespace = 'tarn'::regnamespace)
\gexec

REVOKE CONNECT, TEMPORARY ON DATABASE :"DBNAME" FROM PUBLIC;
SELECT format('GRANT CONNECT, TEMPORARY ON DATABASE %I TO %I', current_database(), pg_get_userbyid(nspowner))
FROM pg_namespace WHERE nspname = 'tarn'
\gexec

-- What an earlier version of this file gave and this one does not.
SELECT format(statement, r.name)
FROM (SELECT DISTINCT name FROM unnest(ARRAY[:'collector', :'panel', :'reader']) u (name) WHERE name <> '') r
CROSS JOIN (VALUES
    (1, 'REVOKE ALL ON ALL TABLES IN SCHEMA tarn FROM %I'),
    (2, 'REVOKE ALL ON ALL SEQUENCES IN SCHEMA tarn FROM %I'),
    (3, 'REVOKE ALL ON ALL ROUTINES IN SCHEMA tarn FROM %I'),
    (4, 'REVOKE ALL ON SCHEMA tarn FROM %I'),
    (5, format('REVOKE ALL ON DATABASE %I FROM %%I', current_database())),
    (6, 'REVOKE pg_read_all_stats FROM %I')
) s (place, statement)
-- Revoking a membership that is none is a warning.
WHERE place < 6 OR EXISTS (SELECT FROM pg_auth_members
                           WHERE roleid = 'pg_read_all_stats'::regrole AND pg_get_userbyid(member) = r.name)
ORDER BY r.name, place
\gexec

\if :has_collector
    GRANT CONNECT ON DATABASE :"DBNAME" TO :"collector";
    GRANT USAGE ON SCHEMA tarn TO :"collector";

    -- The policies of the table leave it the month of the country data to set.
    GRANT SELECT, INSERT, UPDATE (value) ON tarn.settings TO :"collector";
    GRANT SELECT (version) ON tarn.schema_migrations TO :"collector";
    GRANT SELECT (id, host) ON tarn.sites TO :"collector";
    GRANT SELECT (id, site_id, path, inode, read_offset), UPDATE (inode, read_offset, updated_at)
        ON tarn.log_sources TO :"collector";

    -- The addresses and referrers that it has stored it cannot read.
    GRANT SELECT (site_id, at, method, path, status, bytes, is_page, visitor, session_id, country, source_kind, source,
                  search_terms, device, browser, os, bot, engaged_secs, response_us),
          INSERT, DELETE ON tarn.hits TO :"collector";
    GRANT USAGE ON SEQUENCE tarn.session_seq TO :"collector";
    GRANT SELECT, INSERT, TRUNCATE ON tarn.geo_country TO :"collector";

    -- Inserts mark days and roll-ups fill tables in the collector's own name: no function here runs with more rights
    -- than its caller has.
    GRANT SELECT, INSERT, UPDATE, DELETE ON tarn.rollup_due TO :"collector";
    GRANT SELECT, INSERT, UPDATE ON tarn.site_days TO :"collector";
    GRANT SELECT, INSERT, DELETE ON tarn.site_day_values TO :"collector";
    GRANT EXECUTE ON FUNCTION tarn.day_start(date), tarn.day_start(date, text), tarn.hits_of_day(integer, date),
                              tarn.read_day(integer, date, text[]), tarn.figures_of_day(integer, date, boolean),
                              tarn.count_day(integer, date), tarn.rollup_day(integer, date) TO :"collector";

    -- Connecting and disconnecting are the panel's.
    GRANT SELECT (engine, refresh_token), UPDATE (last_sync_at, last_result)
        ON tarn.engine_accounts TO :"collector";
    GRANT SELECT, INSERT, UPDATE (property) ON tarn.search_properties TO :"collector";
    GRANT SELECT (site_id, engine, day), INSERT, DELETE ON tarn.search_days, tarn.search_rows TO :"collector";
    GRANT SELECT ON tarn.country_codes TO :"collector";

    -- The time of a sample is the server's.
    GRANT SELECT (at),
          INSERT (load1, load5, load15, mem_total_kb, mem_avail_kb, disk_total_bytes, disk_avail_bytes, cpu_pct,
                  iowait_pct, swap_total_kb, swap_free_kb, net_rx_bps, net_tx_bps, disk_read_bps, disk_write_bps,
                  cpu_temp_c, pg_connections, pg_tps, apache_rps, apache_bps, apache_busy, apache_slots),
          DELETE ON tarn.host_samples TO :"collector";
    GRANT SELECT, INSERT,
          UPDATE (samples, load1_avg, load1_max, cpu_pct_avg, cpu_pct_max, mem_used_pct_max, disk_used_pct_last,
                  net_rx_bytes, net_tx_bytes, apache_requests, zone, load1_samples, cpu_pct_samples)
        ON tarn.host_days TO :"collector";
    GRANT SELECT (kind, subject, message, opened_at, closed_at), INSERT (kind, subject, message),
          UPDATE (message, closed_at) ON tarn.alerts TO :"collector";
    GRANT SELECT (username, domain, disk_limit_mb, db_limit_mb, disk_used_bytes, disk_checked_at, db_readonly),
          UPDATE (disk_used_bytes, disk_checked_at, db_used_bytes, db_readonly) ON tarn.accounts TO :"collector";
    GRANT SELECT, INSERT, UPDATE (disk_used_bytes, db_used_bytes) ON tarn.account_days TO :"collector";

    -- Which of the server's sessions are clients, and the sizes of databases that it may not connect to.
    GRANT pg_read_all_stats TO :"collector";
\endif

\if :has_panel
    GRANT CONNECT ON DATABASE :"DBNAME" TO :"panel";
    GRANT USAGE ON SCHEMA tarn TO :"panel";

    -- The policies of tarn.settings keep the visitor secret back. Storing a refresh token in the place of another asks
    -- for the right to read it.
    GRANT SELECT ON ALL TABLES IN SCHEMA tarn TO :"panel";
    GRANT EXECUTE ON FUNCTION tarn.day_start(date), tarn.day_start(date, text), tarn.hits_of_day(integer, date)
        TO :"panel";

    GRANT INSERT, UPDATE, DELETE ON tarn.settings TO :"panel";
    GRANT INSERT (host), UPDATE (host), DELETE ON tarn.sites TO :"panel";
    -- The inode is for having a log read again.
    GRANT INSERT (site_id, path), UPDATE (path, inode), DELETE ON tarn.log_sources TO :"panel";
    GRANT EXECUTE ON FUNCTION tarn.add_site(text, text) TO :"panel";
    GRANT INSERT (engine, account_email, refresh_token),
          UPDATE (account_email, refresh_token, connected_at, last_result), DELETE ON tarn.engine_accounts TO :"panel";
    GRANT INSERT, UPDATE (property), DELETE ON tarn.search_properties TO :"panel";
    GRANT UPDATE (disk_limit_mb, db_limit_mb) ON tarn.accounts TO :"panel";
\endif

\if :has_reader
    GRANT CONNECT ON DATABASE :"DBNAME" TO :"reader";
    GRANT USAGE ON SCHEMA tarn TO :"reader";
    -- Of tarn.settings the policies show geoip_month and raw_hit_days alone.
    GRANT SELECT ON tarn.schema_migrations, tarn.settings, tarn.sites, tarn.log_sources, tarn.rollup_due,
                    tarn.site_days, tarn.site_day_values, tarn.live_visitors, tarn.collector_state,
                    tarn.country_codes, tarn.search_properties, tarn.search_days, tarn.search_rows,
                    tarn.host_samples, tarn.host_days, tarn.alerts, tarn.accounts, tarn.account_days TO :"reader";
    GRANT SELECT (engine, account_email, connected_at, last_sync_at, last_result) ON tarn.engine_accounts
        TO :"reader";
\endif

COMMIT;
