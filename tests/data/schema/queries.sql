-- What the questions of docs/queries.md are asked about: few enough hits to count by hand.
\set ON_ERROR_STOP on
SET TimeZone = 'Europe/Berlin';

INSERT INTO tarn.sites (id, host) VALUES
    (1, 'example.org'), (2, 'shop.example.org'), (3, 'quiet.example.org'), (4, 'live.example.org');
INSERT INTO tarn.log_sources (site_id, path, inode, read_offset, updated_at) VALUES
    (1, '/var/log/apache2/example.log', 11, 4096, now()),
    (2, '/var/log/apache2/shop.log', 12, 4096, now() - interval '5 hours 30 minutes'),
    (3, '/var/log/apache2/quiet.log', NULL, 0, NULL),
    (4, '/var/log/apache2/live.log', 14, 4096, now() - interval '30 minutes');
INSERT INTO tarn.settings VALUES ('raw_hit_days', '90');

-- People on pages: visitor and session are the same number. A beacon follows where seconds are given.
CREATE TEMPORARY TABLE views (
    at timestamptz, visitor integer, path text, kind text, source text, terms text, country text, client text,
    response_us integer, seconds double precision);
INSERT INTO views VALUES
    ('2023-05-06 10:00', 90, '/', 'direct', NULL, NULL, 'DE', 'desktop Firefox Linux', 10000, NULL),
    ('2023-05-06 11:00', 91, '/', 'direct', NULL, NULL, 'DE', 'desktop Firefox Linux', 10000, NULL),
    ('2024-04-20 12:00', 80, '/', 'direct', NULL, NULL, 'AT', 'desktop Firefox Linux', 12000, 30),
    -- Monday
    ('2024-05-06 09:00', 1, '/', 'search', 'Google', NULL, 'DE', 'desktop Firefox Linux', 20000, 12),
    ('2024-05-06 09:01', 1, '/docs', 'internal', NULL, NULL, 'DE', 'desktop Firefox Linux', 30000, 40),
    ('2024-05-06 09:10', 2, '/', 'search', 'DuckDuckGo', 'Tarn collector', 'DE', 'mobile Safari iOS', 25000, NULL),
    ('2024-05-06 14:00', 3, '/docs', 'campaign', 'newsletter', 'spring', 'US', 'desktop Chrome Windows', 35000, 90),
    ('2024-05-06 14:02', 3, '/download', 'internal', NULL, NULL, 'US', 'desktop Chrome Windows', 900000, NULL),
    ('2024-05-06 14:20', 4, '/', 'campaign', 'Mastodon', 'spring', 'US', 'mobile Chrome Android', 15000, 4),
    ('2024-05-06 14:30', 5, '/docs', 'referral', 'blog.example.net', NULL, 'FR', 'tablet Safari iOS', 32000, NULL),
    ('2024-05-06 23:30', 6, '/', 'direct', NULL, NULL, NULL, 'desktop Firefox Windows', 18000, NULL),
    -- Tuesday
    ('2024-05-07 10:00', 7, '/docs', 'search', 'Bing', 'log analyzer', 'GB', 'desktop Edge Windows', 31000, 60),
    ('2024-05-07 10:05', 7, '/download', 'internal', NULL, NULL, 'GB', 'desktop Edge Windows', 700000, NULL),
    ('2024-05-07 10:30', 8, '/', 'campaign', 'newsletter', 'spring', 'DE', 'mobile Safari iOS', 21000, 11),
    ('2024-05-07 11:00', 9, '/', 'campaign', 'newsletter', 'summer', 'DE', 'desktop Firefox Linux', 22000, NULL),
    ('2024-05-07 11:30', 10, '/docs', 'ai', 'ChatGPT', NULL, 'US', 'desktop Chrome macOS', 33000, NULL),
    ('2024-05-07 12:00', 11, '/docs', 'search', 'Google', NULL, 'DE', 'desktop Firefox Linux', 28000, NULL);
INSERT INTO tarn.hits (site_id, at, method, path, status, bytes, is_page, ip, visitor, session_id, country, source_kind,
                       source, search_terms, device, browser, os, engaged_secs, response_us)
SELECT 1, at, 'GET', path, 200, 10000, true, inet '198.51.100.0' + visitor, int8send(visitor), visitor, country, kind,
       source, terms, split_part(client, ' ', 1), split_part(client, ' ', 2), split_part(client, ' ', 3), NULL, response_us
FROM views
UNION ALL
SELECT 1, at + interval '50 s', 'BEACON', path, 204, 0, false, inet '198.51.100.0' + visitor, int8send(visitor), visitor,
       country, 'direct', NULL, NULL, split_part(client, ' ', 1), split_part(client, ' ', 2),
       split_part(client, ' ', 3), seconds, NULL
FROM views WHERE seconds IS NOT NULL;

-- Whatever is no view: bots, errors, a HEAD request and a file. The visitors above 100 are bots.
INSERT INTO tarn.hits (site_id, at, method, path, status, bytes, is_page, ip, visitor, session_id, country, source_kind,
                       browser, bot, response_us)
SELECT 1, at::timestamptz, method, path, status, bytes, is_page, inet '198.51.100.0' + visitor, int8send(visitor),
       CASE WHEN bot IS NULL THEN visitor ELSE 0 END, 'US', 'direct', CASE WHEN bot IS NULL THEN 'Firefox' END, bot, 5000
FROM (VALUES
    ('2024-05-06 02:00', 101, 'GET', '/robots.txt', 200, 100, false, 'Googlebot'),
    ('2024-05-06 02:01', 101, 'GET', '/', 200, 10000, true, 'Googlebot'),
    ('2024-05-06 02:02', 101, 'GET', '/old-page', 404, 500, true, 'Googlebot'),
    ('2024-05-06 03:00', 102, 'GET', '/docs', 200, 10000, true, 'GPTBot (OpenAI)'),
    ('2024-05-06 03:01', 102, 'GET', '/docs', 200, 10000, true, 'GPTBot (OpenAI)'),
    ('2024-05-07 03:02', 102, 'GET', '/', 200, 10000, true, 'GPTBot (OpenAI)'),
    ('2024-05-07 04:00', 103, 'GET', '/', 200, 10000, true, 'ClaudeBot'),
    ('2024-05-07 05:00', 104, 'HEAD', '/', 200, 0, true, 'UptimeRobot'),
    ('2024-05-06 09:11', 2, 'GET', '/old-page', 404, 500, true, NULL),
    ('2024-05-06 14:31', 5, 'GET', '/old-page', 404, 500, true, NULL),
    ('2024-05-07 10:31', 8, 'GET', '/2019/news', 410, 500, true, NULL),
    ('2024-05-07 10:32', 8, 'GET', '/search', 500, 700, true, NULL),
    ('2024-05-07 10:33', 8, 'HEAD', '/', 200, 0, true, NULL),
    ('2024-05-07 10:34', 8, 'GET', '/style.css', 304, 0, false, NULL)
) v (at, visitor, method, path, status, bytes, is_page, bot);

-- A shop: 200 requests on Monday, 100 on Tuesday, each tenth of which fails; each fourth is a bot's.
INSERT INTO tarn.hits (site_id, at, method, path, status, bytes, is_page, visitor, session_id, source_kind, bot)
SELECT 2, timestamptz '2024-05-06 00:00' + n * interval '432 s', 'GET', '/item', CASE WHEN n % 10 = 9 THEN 500 ELSE 200 END,
       100000, true, int8send(1000 + n % 40), 1000 + n % 40, 'direct', CASE WHEN n % 4 = 0 THEN 'Googlebot' END
FROM generate_series(0, 199) n;
INSERT INTO tarn.hits (site_id, at, method, path, status, bytes, is_page, ip, visitor, session_id, source_kind, bot)
SELECT 2, timestamptz '2024-05-07 00:00' + n * interval '864 s', 'GET', '/item', CASE WHEN n % 10 = 9 THEN 500 ELSE 200 END,
       100000, true, CASE WHEN n < 50 THEN inet '198.51.100.4' END, int8send(1000 + n % 40), 1000 + n % 40, 'direct',
       CASE WHEN n % 4 = 0 THEN 'Googlebot' END
FROM generate_series(0, 99) n;

-- Three people within the last five minutes, one of them only through a beacon; one who has gone, and a bot.
INSERT INTO tarn.hits (site_id, at, method, path, status, bytes, is_page, visitor, session_id, source_kind, bot,
                       engaged_secs)
SELECT 4, now() - age, method, path, status, 100, method = 'GET', int8send(visitor), visitor, 'direct', bot, seconds
FROM (VALUES
    (interval '20 s', 201, 'GET', '/start', 200, NULL, NULL::double precision),
    (interval '10 s', 201, 'GET', '/news', 200, NULL, NULL),
    (interval '10 s', 202, 'GET', '/news', 304, NULL, NULL),
    (interval '10 s', 203, 'BEACON', '/start', 204, NULL, 500),
    (interval '10 s', 204, 'GET', '/news', 200, 'Bingbot', NULL),
    (interval '10 s', 205, 'GET', '/gone', 404, NULL, NULL),
    (interval '20 minutes', 206, 'GET', '/news', 200, NULL, NULL)
) v (age, visitor, method, path, status, bot, seconds);

SELECT tarn.rollup_day(site_id, day) FROM tarn.rollup_due ORDER BY site_id, day;

-- Retention has been at the first year; then a late line comes in for the shop.
DELETE FROM tarn.hits WHERE at < '2024-01-01';
INSERT INTO tarn.hits (site_id, at, method, path, status, bytes, is_page, visitor, session_id, source_kind)
VALUES (2, '2024-05-07 23:59', 'GET', '/item', 200, 100000, true, int8send(1), 1, 'direct');

-- Search figures
INSERT INTO tarn.engine_accounts VALUES
    ('google', 'owner@example.org', 'secret', '2024-01-01', '2024-05-07 04:00', 'example.org: 3 days');
INSERT INTO tarn.search_properties VALUES (1, 'google', 'sc-domain:example.org');
INSERT INTO tarn.search_days VALUES
    (1, 'google', '2024-05-05', 4, 60, 6.5), (1, 'google', '2024-05-06', 3, 50, 7), (1, 'google', '2024-05-07', 1, 30, 8);
INSERT INTO tarn.search_rows VALUES
    (1, 'google', '2024-05-05', 'tarn collector', '/', 'DE', 'desktop', 3, 20, 2),
    (1, 'google', '2024-05-06', 'tarn collector', '/docs', 'US', 'mobile', 2, 10, 5),
    (1, 'google', '2024-05-06', 'web statistics', '/', 'DE', 'desktop', 0, 40, 18.5);

-- The host: load 1, then 3; the disk grows by a tenth of a percent a day.
INSERT INTO tarn.host_samples (at, load1, cpu_pct, mem_total_kb, mem_avail_kb, disk_total_bytes, disk_avail_bytes,
                               net_rx_bps, net_tx_bps, apache_rps)
SELECT timestamptz '2024-04-20 12:00' + n * interval '1 day' + late * interval '30 min', 1 + 2 * late, 20 + 40 * late,
       1000, 600 - 100 * late, 1000, 300 - n, CASE late WHEN 1 THEN 1000 END, CASE late WHEN 1 THEN 3000 END,
       CASE late WHEN 1 THEN 2 END
FROM generate_series(0, 17) n, generate_series(0, 1) late ORDER BY 1;
INSERT INTO tarn.alerts (kind, subject, message, opened_at, closed_at) VALUES
    ('disk', '/', 'Disk / is 96 % full', '2024-05-06 10:00', NULL),
    ('service', 'apache2', 'apache2 is not running', '2024-05-07 08:30', NULL),
    ('load', 'CPU', 'Load is 3.1 for each processor', '2024-05-01 10:00', '2024-05-01 10:05'),
    ('load', 'CPU', 'Load is 2.9 for each processor', '2024-05-02 10:00', '2024-05-02 10:20'),
    ('memory', 'RAM', 'Memory is 97 % used', '2024-03-01 10:00', '2024-03-01 10:10');

-- Accounts: bob's name was given away on the 1st of May; carol was never measured.
INSERT INTO tarn.accounts (username, domain, disk_limit_mb, db_limit_mb, disk_used_bytes, db_used_bytes, created_at)
VALUES ('alice', 'alice.example', 100, 10, 94371840, 11534336, '2020-01-01'),
       ('bob', 'bob.example', 1000, 0, 209715200, 1048576, '2024-05-01'),
       ('carol', 'carol.example', 100, 10, NULL, NULL, '2020-01-01');
INSERT INTO tarn.account_days VALUES
    ('alice', '2024-04-20', 73400320, 10485760), ('alice', '2024-05-07', 94371840, 11534336),
    ('bob', '2024-04-20', 1073741824, NULL), ('bob', '2024-05-02', 104857600, NULL), ('bob', '2024-05-03', NULL, 1048576),
    ('bob', '2024-05-07', 209715200, 1048576), ('dave', '2024-05-07', 1, 1);

ANALYZE;
