-- What a stranger can put into a log, and an administrator into a name: each value of the report's texts tries to
-- become markup, to run, to load something from 127.0.0.1, or to turn the text around it.

CREATE TEMPORARY TABLE hostile (n integer, value text);
INSERT INTO hostile VALUES
    (1, '/<script>window.hacked = 1</script>'),
    (2, '/"><img src=x onerror="window.hacked = 2">'),
    (3, '/''><svg onload=window.hacked=3>'),
    (4, 'javascript:window.hacked=4'),
    (5, '</td></table></main><h1>Hacked</h1><style>body{background:url(http://127.0.0.1:9/style)}</style>'),
    (6, '/' || chr(8238) || 'gpj.exe' || chr(8237)),
    (7, '/' || chr(8294) || 'isolated' || chr(8296) || chr(65279) || chr(8203)),
    (8, '<!--'),
    (9, ']]>--><link rel=stylesheet href=http://127.0.0.1:9/sheet>'),
    (10, '&lt;b&gt;&#60;script&#62;window.hacked=10&#60;/script&#62;'),
    (11, '/' || repeat('long', 490)),
    (12, '/' || chr(27) || '[31mred' || chr(7) || chr(127) || chr(133)),
    (13, '<meta http-equiv=refresh content="0;url=http://127.0.0.1:9/refresh">'),
    (14, '<base href=http://127.0.0.1:9/>'),
    (15, '<iframe srcdoc="<script>parent.hacked = 15</script>"></iframe>'),
    (16, '{{constructor.constructor(''window.hacked=16'')()}}'),
    (17, '/z' || repeat(chr(821) || chr(857), 60) || 'algo'),
    (18, '/שלום/عربى'),
    (19, '/' || repeat('🧑‍🤝‍🧑', 60)),
    (20, '</title><script>window.hacked = 20</script>'),
    (21, '</style><script>window.hacked = 21</script>');

BEGIN;
SET LOCAL session_replication_role = replica;
INSERT INTO tarn.sites (id, host) VALUES (99, 'שלום_x.example');

INSERT INTO tarn.site_days (site_id, day, hits, page_views, visitors, sessions, bounces, bot_hits, bytes, errors_4xx,
                            errors_5xx, engaged_seconds, raw_hits)
VALUES (99, current_date, 9000000000000, 8000000000000, 7000000000000, 6000000000000, 5000000000000, 4000000000000,
        9223372036854775807, 3, 2, 1e300, 1);
INSERT INTO tarn.site_day_values (site_id, day, dimension, value, part_of, hits, visitors)
SELECT 99, current_date, d, value, CASE WHEN d IN ('source', 'campaign') THEN value ELSE '' END, 100 - n, 50 - n
FROM hostile
CROSS JOIN unnest(ARRAY['path', 'entry_path', 'source_kind', 'source', 'campaign', 'campaign_source', 'search_terms',
                        'country', 'device', 'browser', 'os', 'bot', 'status', 'missing_path', 'hour']) d;
INSERT INTO tarn.search_properties VALUES (99, 'google', 'sc-domain:example');
INSERT INTO tarn.search_rows (site_id, engine, day, query, page, clicks, impressions, position)
SELECT 99, 'google', current_date, value, value, 3, 9, 'NaN' FROM hostile;

INSERT INTO tarn.alerts (kind, subject, message, opened_at) SELECT value, value, value, now() FROM hostile;
INSERT INTO tarn.accounts (username, domain, disk_limit_mb, disk_used_bytes)
SELECT n || left(value, 12), value, 1, 9223372036854775807 FROM hostile;
INSERT INTO tarn.log_sources (site_id, path, inode, updated_at)
SELECT 99, '/nowhere/' || replace(value, ' ', ''), 1, now() - interval '1 day' FROM hostile WHERE n NOT IN (11, 12);
INSERT INTO tarn.engine_accounts (engine, last_result, last_sync_at) SELECT 'google', value, now() FROM hostile WHERE n = 1
ON CONFLICT (engine) DO UPDATE SET last_result = excluded.last_result;
COMMIT;
