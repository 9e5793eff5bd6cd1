-- The last table: what became of each line of the log.
-- Variables: lines, stored, not_entries, beacons, blank.
\set QUIET on
\pset border 2
\pset linestyle unicode
\pset footer off
\pset pager off
SELECT what AS "lines of the log", lines AS number
FROM (VALUES
    (1, 'in the log', :lines::bigint),
    (2, '  stored', :stored),
    (3, '  dropped: not a log entry', :not_entries),
    (4, '  dropped: a report without a page, or of no or more than six hours', :beacons),
    (5, '  dropped: blank', :blank),
    (6, '  unaccounted for', :lines::bigint - :stored - :not_entries - :beacons - :blank)
) v (place, what, lines)
WHERE place IN (1, 2, 6) OR lines <> 0
ORDER BY place;
