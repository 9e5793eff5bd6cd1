-- What the suite's panel would do: a site, its log, and how long raw hits are kept.
-- Variables: host, log (absolute path), keep_days (0: for ever).
INSERT INTO tarn.sites (host) VALUES (:'host');
INSERT INTO tarn.log_sources (site_id, path) SELECT id, :'log' FROM tarn.sites WHERE host = :'host';
INSERT INTO tarn.settings (key, value) VALUES ('raw_hit_days', :'keep_days');
