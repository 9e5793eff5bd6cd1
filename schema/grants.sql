-- What the collector's role may do, and nothing beyond:
--
--     createuser tarn_collect
--     psql -v collector=tarn_collect -d DATABASE -f schema/grants.sql
--
-- To be run by a superuser (it grants membership in a role of the server), after tarn.sql; running it again does no
-- harm. The role owns nothing: it can neither change the schema nor read anybody else's data.

\set ON_ERROR_STOP on
\if :{?collector}
\else
    DO $$
    BEGIN
        RAISE EXCEPTION 'no role was named'
            USING HINT = 'psql -v collector=ROLE -d DATABASE -f schema/grants.sql';
    END
    $$;
\endif

BEGIN;

-- Both are everybody's by default; said here for servers where that was revoked.
GRANT CONNECT ON DATABASE :"DBNAME" TO :"collector";
GRANT USAGE ON SCHEMA tarn TO :"collector";

-- The month of the country data is all that it sets.
GRANT SELECT, INSERT, UPDATE (value) ON tarn.settings TO :"collector";
GRANT SELECT ON tarn.schema_migrations, tarn.sites, tarn.country_codes TO :"collector";

GRANT SELECT, UPDATE (inode, read_offset, updated_at) ON tarn.log_sources TO :"collector";
GRANT SELECT, INSERT, DELETE ON tarn.hits TO :"collector";
GRANT USAGE ON SEQUENCE tarn.session_seq TO :"collector";
GRANT SELECT, INSERT, TRUNCATE ON tarn.geo_country TO :"collector";

-- Inserts mark days and roll-ups fill tables in the collector's own name: no function here runs with more rights
-- than its caller has.
GRANT SELECT, INSERT, UPDATE, DELETE ON tarn.rollup_due TO :"collector";
GRANT SELECT, INSERT, UPDATE ON tarn.site_days TO :"collector";
GRANT SELECT, INSERT, DELETE ON tarn.site_day_values TO :"collector";
GRANT EXECUTE ON FUNCTION tarn.day_start(date), tarn.day_start(date, text), tarn.hits_of_day(integer, date),
    tarn.count_day(integer, date), tarn.rollup_day(integer, date) TO :"collector";

-- INSERT and DELETE of the first serve connecting and disconnecting, which the same module does for the panel.
GRANT SELECT, INSERT, UPDATE (account_email, refresh_token, connected_at, last_sync_at, last_result), DELETE
    ON tarn.engine_accounts TO :"collector";
GRANT SELECT, INSERT, UPDATE (property), DELETE ON tarn.search_properties TO :"collector";
GRANT SELECT, INSERT, DELETE ON tarn.search_days, tarn.search_rows TO :"collector";

GRANT SELECT, INSERT, DELETE ON tarn.host_samples TO :"collector";
GRANT SELECT, INSERT, UPDATE ON tarn.host_days TO :"collector";
GRANT SELECT, INSERT, UPDATE (message, closed_at) ON tarn.alerts TO :"collector";
GRANT SELECT, UPDATE (disk_used_bytes, disk_checked_at, db_used_bytes, db_readonly) ON tarn.accounts TO :"collector";
GRANT SELECT, INSERT, UPDATE ON tarn.account_days TO :"collector";

-- Which of the server's sessions are clients, and the sizes of databases that it may not connect to.
GRANT pg_read_all_stats TO :"collector";

COMMIT;
