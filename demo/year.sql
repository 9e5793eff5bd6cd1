-- A host as it could be, for the demo and the tests of the report: ten sites with a daily and weekly rhythm over 120 days
-- (four of them with their values over 60), 34 small ones, 30 days of samples with a busy afternoon, a full disk and two
-- restarts, a year of daily figures, accounts on their way to their limits. The same on every run but for the days, which
-- end today.

BEGIN;
-- No roll-up and no trigger: the figures themselves are written here.
SET LOCAL session_replication_role = replica;

-- From 0 to 1, the same for the same text.
CREATE FUNCTION pg_temp.noise(seed text) RETURNS double precision LANGUAGE sql IMMUTABLE
RETURN ('x' || substr(md5(seed), 1, 4))::bit(16)::integer / 65535.0;

CREATE TEMPORARY TABLE rhythm ON COMMIT DROP AS
SELECT h AS hour, 0.15 + 0.85 * greatest(0, sin((h - 6) * pi() / 17)) ^ 1.3 AS share
FROM generate_series(0, 23) h;

INSERT INTO tarn.sites (id, host, created_at)
SELECT n, host, now() - interval '300 days'
FROM (VALUES (1, 'www.example.org'), (2, 'shop.example.com'), (3, 'blog.example.net'), (4, 'bäckerei.example'),
             (5, 'docs.example.org'), (6, 'verein.example'), (7, 'api.example.com'), (8, 'kino.example'),
             (9, 'status.example.org'), (10, 'altbau-und-denkmalpflege-genossenschaft.example.org')) s (n, host)
UNION ALL
SELECT n, format('kunde-%s.example', n - 10), now() - interval '200 days' FROM generate_series(11, 44) n;

INSERT INTO tarn.site_days (site_id, day, hits, page_views, visitors, sessions, bounces, bot_hits, bytes, errors_4xx,
                            errors_5xx, engaged_seconds, raw_hits, response_us_median, response_us_p95, zone)
SELECT s, d, views * 3 + bots, views, round(views * 0.38), round(views * 0.43),
       round(views * (0.17 + 0.06 * pg_temp.noise('bounces' || s || d))), bots,
       (views * 3 + bots) * 21000, round(views * 0.06), round(views * 0.002 * pg_temp.noise('5xx' || s || d)),
       round(views * (31 + 9 * pg_temp.noise('engaged' || s || d))), views * 3 + bots,
       round(38000 + 9000 * pg_temp.noise('median' || s || d)), round(210000 + 90000 * pg_temp.noise('p95' || s || d)),
       current_setting('TimeZone')
FROM (
    SELECT s, d::date AS d,
           round(base * (CASE WHEN extract(isodow FROM d) > 5 THEN 0.62 ELSE 1 END)
                 * (1.15 - 0.0025 * (current_date - d::date)) * (0.85 + 0.3 * pg_temp.noise('views' || s || d))
                 * (CASE WHEN s = 1 AND current_date - d::date = 11 THEN 2.4 ELSE 1 END)
                 * (CASE WHEN d::date = current_date THEN 0.55 ELSE 1 END))::bigint AS views,
           round(base * (0.9 + 0.8 * pg_temp.noise('bots' || s || d)))::bigint AS bots
    FROM (SELECT n AS s, CASE WHEN n <= 10 THEN 5200 / n::double precision ELSE 260.0 / (n - 9) END AS base
          FROM generate_series(1, 44) n WHERE n <> 43) sites
    CROSS JOIN generate_series(current_date - 119, current_date, interval '1 day') d
) f;

CREATE TEMPORARY TABLE shares (dimension text, value text, part_of text, share double precision) ON COMMIT DROP;
INSERT INTO shares VALUES
    ('path', '/', '', 0.21), ('path', '/products', '', 0.11), ('path', '/products/walking-boots', '', 0.062),
    ('path', '/blog/how-we-measure-without-cookies', '', 0.058), ('path', '/about', '', 0.049),
    ('path', '/contact', '', 0.041), ('path', '/products/rain-jackets', '', 0.038), ('path', '/blog', '', 0.034),
    ('path', '/delivery', '', 0.031), ('path', '/products/tents/four-seasons-expedition-tent-for-three', '', 0.028),
    ('path', '/öffnungszeiten', '', 0.026), ('path', '/jobs', '', 0.02), ('path', '/press', '', 0.016),
    ('path', '/imprint', '', 0.014), ('path', '/blog/2026/a-winter-in-the-workshop', '', 0.013),
    ('path', '/products/socks', '', 0.011), ('path', '', '', 0.12),
    ('entry_path', '/', '', 0.16), ('entry_path', '/blog/how-we-measure-without-cookies', '', 0.055),
    ('entry_path', '/products/walking-boots', '', 0.05), ('entry_path', '/products', '', 0.04),
    ('entry_path', '/blog', '', 0.02), ('entry_path', '/öffnungszeiten', '', 0.019),
    ('entry_path', '/contact', '', 0.012), ('entry_path', '/delivery', '', 0.008),
    ('source_kind', 'internal', '', 0.5), ('source_kind', 'search', '', 0.21), ('source_kind', 'direct', '', 0.14),
    ('source_kind', 'campaign', '', 0.05), ('source_kind', 'social', '', 0.04), ('source_kind', 'ai', '', 0.03),
    ('source_kind', 'referral', '', 0.02), ('source_kind', 'email', '', 0.01),
    ('source', 'Google', 'search', 0.16), ('source', 'Bing', 'search', 0.03), ('source', 'DuckDuckGo', 'search', 0.02),
    ('source', 'Mastodon', 'social', 0.022), ('source', 'Reddit', 'social', 0.012),
    ('source', 'ChatGPT', 'ai', 0.018), ('source', 'Perplexity', 'ai', 0.009),
    ('source', 'wanderverein.example', 'referral', 0.012), ('source', 'outdoor-test.example', 'referral', 0.006),
    ('source', 'Gmail', 'email', 0.008),
    ('campaign', 'autumn-2026', 'newsletter', 0.028), ('campaign', 'autumn-2026', 'Google', 0.011),
    ('campaign', 'boots-launch', 'Instagram', 0.008), ('campaign', 'fair', 'poster', 0.003),
    ('campaign_source', 'newsletter', '', 0.028), ('campaign_source', 'Google', '', 0.011),
    ('campaign_source', 'Instagram', '', 0.008), ('campaign_source', 'poster', '', 0.003),
    ('search_terms', 'walking boots', '', 0.004), ('search_terms', 'wandern im regen', '', 0.002),
    ('search_terms', 'tent repair', '', 0.001),
    ('country', 'DE', '', 0.52), ('country', 'AT', '', 0.11), ('country', 'CH', '', 0.09), ('country', 'US', '', 0.07),
    ('country', 'NL', '', 0.05), ('country', 'FR', '', 0.04), ('country', 'GB', '', 0.03), ('country', 'IT', '', 0.02),
    ('country', 'PL', '', 0.02), ('country', 'DK', '', 0.01), ('country', 'SE', '', 0.01),
    ('device', 'mobile', '', 0.55), ('device', 'desktop', '', 0.41), ('device', 'tablet', '', 0.04),
    ('browser', 'Chrome', '', 0.46), ('browser', 'Safari', '', 0.27), ('browser', 'Firefox', '', 0.12),
    ('browser', 'Edge', '', 0.08), ('browser', 'Samsung Internet', '', 0.04), ('browser', 'Other', '', 0.03),
    ('os', 'Android', '', 0.34), ('os', 'Windows', '', 0.26), ('os', 'iOS', '', 0.24), ('os', 'macOS', '', 0.1),
    ('os', 'Linux', '', 0.06),
    ('bot', 'Googlebot', '', 0.31), ('bot', 'Bingbot', '', 0.14), ('bot', 'GPTBot (OpenAI)', '', 0.17),
    ('bot', 'ClaudeBot', '', 0.11), ('bot', 'AhrefsBot', '', 0.09), ('bot', 'PerplexityBot', '', 0.05),
    ('bot', 'UptimeRobot', '', 0.05), ('bot', 'Bytespider (ByteDance)', '', 0.04), ('bot', 'curl', '', 0.02),
    ('bot', 'CCBot (Common Crawl)', '', 0.02),
    ('status', '200', '', 2.9), ('status', '304', '', 0.6), ('status', '301', '', 0.2), ('status', '404', '', 0.05),
    ('status', '403', '', 0.008), ('status', '500', '', 0.002), ('status', '410', '', 0.001),
    ('missing_path', '/wp-login.php', '', 0.021), ('missing_path', '/.env', '', 0.008),
    ('missing_path', '/old-catalogue.pdf', '', 0.007), ('missing_path', '/apple-touch-icon.png', '', 0.006),
    ('missing_path', '/xmlrpc.php', '', 0.004), ('missing_path', '/blog/2019/moving-house', '', 0.003);
INSERT INTO shares
SELECT 'hour', to_char(hour, 'FM00'), '', share / sum(share) OVER () FROM rhythm;

INSERT INTO tarn.site_day_values (site_id, day, dimension, value, part_of, hits, visitors, engaged_seconds,
                                  response_us_p95)
SELECT d.site_id, d.day, s.dimension, s.value, s.part_of, v.hits, ceil(v.hits * 0.55),
       CASE WHEN s.dimension = 'path' THEN v.hits * (12 + 50 * pg_temp.noise('engaged' || s.value)) END,
       CASE WHEN s.dimension = 'path' THEN 90000 + 400000 * pg_temp.noise('p95' || s.value) ^ 3 END
FROM tarn.site_days d
CROSS JOIN shares s
CROSS JOIN LATERAL (
    SELECT round(CASE WHEN s.dimension = 'bot' THEN d.bot_hits ELSE d.page_views END * s.share
                 * (0.8 + 0.4 * pg_temp.noise(d.site_id || s.dimension || s.value || d.day))
                 * CASE WHEN s.dimension = 'hour' AND extract(isodow FROM d.day) > 5 AND s.value < '10' THEN 0.35
                        ELSE 1 END)::bigint AS hits
) v
WHERE v.hits > 0 AND d.site_id <= 4 AND d.day > current_date - 60
  AND (s.dimension <> 'hour' OR d.day < current_date OR s.value::integer <= extract(hour FROM now()));

-- Eight visitors of the last five minutes on the first site, and a bot.
INSERT INTO tarn.hits (site_id, at, method, path, status, bytes, is_page, visitor, session_id, bot, ip)
SELECT 1, now() - n * interval '20 seconds', 'GET', '/', 200, 5000, true,
       substr(sha256(convert_to('visitor' || n % 8, 'UTF8')), 1, 8), n % 8 + 1,
       CASE WHEN n = 9 THEN 'Googlebot' END, '192.0.2.77'
FROM generate_series(0, 12) n;

INSERT INTO tarn.engine_accounts (engine, account_email, refresh_token, connected_at, last_sync_at, last_result)
VALUES ('google', 'admin@example.org', 'demo-refresh-token', now() - interval '90 days', now() - interval '9 hours',
        '3 sites, 0 failed');
INSERT INTO tarn.search_properties (site_id, engine, property)
VALUES (1, 'google', 'sc-domain:example.org'), (3, 'google', 'https://blog.example.net/');
INSERT INTO tarn.search_rows (site_id, engine, day, query, page, country, device, clicks, impressions, position)
SELECT site, 'google', d, q.query, q.page, 'DE', device, round(q.clicks * n.f), round(q.clicks * n.f * q.seen),
       greatest(1, q.position + 2 * n.f - 1.4)
FROM (VALUES ('walking boots', '/products/walking-boots', 14, 12, 3.1),
             ('example outdoor', '/', 11, 2, 1.1),
             ('rain jacket test', '/products/rain-jackets', 6, 31, 6.4),
             ('analytics without cookies', '/blog/how-we-measure-without-cookies', 5, 18, 4.2),
             ('wandern im regen', '/blog', 3, 24, 5.8),
             ('four season tent', '/products/tents/four-seasons-expedition-tent-for-three', 2, 70, 11.9),
             ('öffnungszeiten example', '/öffnungszeiten', 2, 3, 1.6),
             ('winter workshop', '/blog/2026/a-winter-in-the-workshop', 1, 44, 14.3)
     ) q (query, page, clicks, seen, position)
CROSS JOIN (VALUES (1), (3)) s (site)
CROSS JOIN (VALUES ('mobile'), ('desktop')) v (device)
CROSS JOIN generate_series(current_date - 62, current_date - 2, interval '1 day') d
CROSS JOIN LATERAL (SELECT 0.5 + pg_temp.noise(q.query || d || device) AS f) n;

-- A sample every five minutes; the collector was restarted twice, and was away for five hours.
INSERT INTO tarn.host_samples (at, load1, load5, load15, mem_total_kb, mem_avail_kb, disk_total_bytes,
                               disk_avail_bytes, cpu_pct, iowait_pct, swap_total_kb, swap_free_kb, net_rx_bps,
                               net_tx_bps, disk_read_bps, disk_write_bps, cpu_temp_c, pg_connections, pg_tps,
                               apache_rps, apache_bps, apache_busy, apache_slots)
SELECT at, 0.3 + 2.1 * r + 6.5 * rush, 0.3 + 2 * r + 6 * rush, 0.3 + 1.9 * r + 5 * rush, 16318028,
       (16318028 * (0.62 - 0.2 * r - 0.0045 * age - 0.12 * rush))::bigint, 512e9::bigint,
       (512e9 * (0.115 + 0.011 * age))::bigint, 6 + 42 * r + 48 * rush, 1 + 5 * r * k + 11 * rush, 2097148,
       (2097148 * (0.97 - 0.3 * rush))::bigint, rate * 9e4 * (1 + r * 9), rate * 7e5 * (1 + r * 9 + rush * 7),
       rate * 2e6 * k, rate * 5e6 * (0.3 + r), 46 + 14 * r + 15 * rush, (9 + 14 * r)::integer, rate * 40 * (1 + r * 5),
       rate * 8 * (0.5 + 4 * r + 9 * rush), rate * 6e5 * (1 + r * 5), least(150, 4 + 50 * r + 130 * rush)::integer, 150
FROM (
    SELECT at, extract(epoch FROM now() - at) / 86400 AS age, k,
           share * (0.75 + 0.5 * k) * CASE WHEN extract(isodow FROM at) > 5 THEN 0.6 ELSE 1 END AS r,
           CASE WHEN at BETWEEN now() - interval '11 days 3 hours' AND now() - interval '10 days 22 hours'
                THEN 0.7 + 0.3 * k ELSE 0 END AS rush,
           CASE WHEN n % 3777 = 5 THEN NULL ELSE 1 END AS rate
    FROM generate_series(0, 8639) n
    CROSS JOIN LATERAL (SELECT now() - n * interval '5 minutes' AS at, pg_temp.noise('sample' || n) AS k) t
    JOIN rhythm ON hour = extract(hour FROM at)
) x
WHERE age NOT BETWEEN 19.3 AND 19.5;

INSERT INTO tarn.host_days (day, samples, load1_avg, load1_max, cpu_pct_avg, cpu_pct_max, mem_used_pct_max,
                            disk_used_pct_last, net_rx_bytes, net_tx_bytes, apache_requests, zone, load1_samples,
                            cpu_pct_samples)
SELECT d, 2880, 1.1 + 0.5 * k - 0.001 * age, 2.4 + 5 * k ^ 6, 22 + 9 * k - 0.02 * age, 55 + 40 * k ^ 4,
       48 + 8 * k - 0.03 * age, 88.5 - 0.115 * age - 0.9 * (age % 30) / 30, 25e9 * (0.6 + k), 260e9 * (0.6 + k), 1.9e6 * (0.6 + k),
       current_setting('TimeZone'), 2880, 2880
FROM (SELECT d::date AS d, (current_date - d::date)::double precision::numeric AS age,
             pg_temp.noise('host' || d) AS k
      FROM generate_series(current_date - 400, current_date, interval '1 day') d) x;

INSERT INTO tarn.alerts (kind, subject, message, opened_at, closed_at)
SELECT kind, subject, message, now() - opened, now() - closed
FROM (VALUES
    ('load', 'CPU', 'Load 9.1 on 4 CPUs', interval '11 days 3 hours', interval '10 days 22 hours'),
    ('apache', 'workers', 'Apache is using 147 of 150 workers; new visitors wait in line',
     interval '11 days 2 hours 40 minutes', interval '10 days 23 hours'),
    ('service', 'postgresql', 'Service postgresql is not running (dead)', interval '19 days 12 hours',
     interval '19 days 7 hours'),
    ('temperature', 'CPU', 'CPU at 86 °C', interval '10 days 23 hours 50 minutes', interval '10 days 23 hours 20 minutes'),
    ('quota', 'shop', 'Account shop.example.com uses 10.2 of 10 GB', interval '26 days', interval '24 days 3 hours'),
    ('disk', '/', 'Disk / is 90% full', interval '5 days 20 hours', interval '5 days 14 hours'),
    ('disk', '/srv', 'Disk /srv is 93% full', interval '2 days 6 hours', NULL),
    ('dbquota', 'kino', 'The database of kino.example uses 1.1 of 1 GB and is read-only', interval '7 hours', NULL)
) a (kind, subject, message, opened, closed);

INSERT INTO tarn.accounts (username, domain, disk_limit_mb, db_limit_mb, disk_used_bytes, disk_checked_at,
                           db_used_bytes, db_readonly, created_at)
SELECT username, domain, disk_limit, db_limit, disk * 1048576::bigint, now() - interval '9 minutes', db * 1048576::bigint, readonly,
       now() - interval '300 days'
FROM (VALUES
    ('kino', 'kino.example', 5120, 1024, 1911, 1131, true), ('shop', 'shop.example.com', 10240, 2048, 9672, 1480, false),
    ('verein', 'verein.example', 2048, 512, 1310, 61, false), ('blog', 'blog.example.net', 5120, 1024, 2260, 214, false),
    ('baecker', 'bäckerei.example', 1024, 256, 388, 12, false), ('docs', 'docs.example.org', 0, 0, 8123, NULL, false),
    ('www', 'www.example.org', 20480, 4096, 6114, 903, false), ('api', 'api.example.com', 2048, 4096, 96, 2210, false)
) a (username, domain, disk_limit, db_limit, disk, db, readonly);
INSERT INTO tarn.accounts (username, domain, disk_limit_mb, db_limit_mb, disk_used_bytes, disk_checked_at, created_at)
SELECT 'kunde' || n, format('kunde-%s.example', n), 2048, 512, 1048576 * round(60 + 700 * pg_temp.noise('account' || n)),
       now() - interval '9 minutes', now() - interval '200 days'
FROM generate_series(1, 34) n WHERE n <> 33;
INSERT INTO tarn.account_days (username, day, disk_used_bytes, db_used_bytes)
SELECT username, d, disk_used_bytes * (1 - g * (current_date - d::date) / 120.0),
       db_used_bytes * (1 - g * (current_date - d::date) / 240.0)
FROM tarn.accounts
CROSS JOIN generate_series(current_date - 90, current_date, interval '1 day') d
CROSS JOIN LATERAL (SELECT 0.7 * pg_temp.noise('growth' || username) AS g) x;

-- A log that is read, and one that was there once.
INSERT INTO tarn.log_sources (site_id, path, inode, read_offset, updated_at)
VALUES (8, '/var/log/apache2/kino.example.log', 1234, 5678, now() - interval '4 hours');

COMMIT;
ANALYZE;
