-- What the suite's panel would do: two hosting accounts, with limits in MB (0: none).
INSERT INTO tarn.accounts (username, domain, disk_limit_mb, db_limit_mb) VALUES
    ('pottery', 'pottery.example', 5, 12),
    ('glaze', 'glaze.example', 5, 0);
