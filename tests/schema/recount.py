#!/usr/bin/env python3
"""Counts raw hits into the figures that schema/README.md defines, without the database.

Usage: recount.py ZONE <HITS

HITS are rows of tarn.hits as COPY writes them: site_id, microseconds since 1970, method, path, status, bytes, is_page,
visitor, session_id, country, source_kind, source, search_terms, device, browser, os, bot, engaged_secs, response_us.
Prints the rows of tarn.site_days and tarn.site_day_values that belong to them, as the test asks the database for them.
"""
import math
import sys
from collections import Counter, defaultdict
from datetime import datetime, timedelta, timezone
from zoneinfo import ZoneInfo

KEPT = 1000
COLUMNS = ("site_id at method path status bytes is_page visitor session_id country source_kind source search_terms "
           "device browser os bot engaged_secs response_us").split()
NUMBERS = {"site_id", "at", "status", "bytes", "session_id", "response_us"}


def unescape(text):
    return text.encode().decode("unicode_escape").encode("latin-1").decode() if "\\" in text else text


def read(line, zone):
    hit = {}
    for name, text in zip(COLUMNS, line.rstrip("\n").split("\t"), strict=True):
        value = None if text == "\\N" else unescape(text)
        if value is not None and name in NUMBERS:
            value = int(value)
        hit[name] = value
    moment = datetime(1970, 1, 1, tzinfo=timezone.utc) + timedelta(microseconds=hit["at"])
    local = moment.astimezone(zone)
    hit["day"], hit["hour"] = local.strftime("%Y-%m-%d"), local.strftime("%H")
    hit["beacon"] = hit["method"] == "BEACON" and hit["engaged_secs"] is not None
    status = hit["status"]
    hit["view"] = (hit["is_page"] == "t" and hit["method"] == "GET" and hit["bot"] is None and status is not None
                   and (200 <= status <= 299 or status == 304))
    return hit


def attention(hit):
    seconds = float(hit["engaged_secs"])
    return 0.0 if math.isnan(seconds) else min(max(seconds, 0.0), 21600.0)


def percentile(times, hundredths):
    """The smallest time that so many of a hundred do not exceed."""
    times = sorted(time for time in times if time is not None and time > 0)
    return times[(len(times) * hundredths + 99) // 100 - 1] if times else None


def text(value):
    if value is None:
        return "-"
    if isinstance(value, float):
        return str(int(value)) if value == int(value) else repr(value)
    return str(value)


def day_figures(hits):
    requests = [h for h in hits if not h["beacon"]]
    views = [h for h in hits if h["view"]]
    beacons = [h for h in hits if h["beacon"] and h["bot"] is None]
    people = views + beacons
    views_of = Counter(h["session_id"] for h in views if h["session_id"])
    stayed = {h["session_id"] for h in hits if h["beacon"] and attention(h) > 10}
    return [
        len(requests), len(views),
        len({h["visitor"] for h in people} - {None}),
        len({h["session_id"] for h in people} - {None, 0}),
        sum(1 for session, count in views_of.items() if count == 1 and session not in stayed),
        sum(1 for h in requests if h["bot"] is not None),
        min(sum(max(h["bytes"] or 0, 0) for h in requests), 2**63 - 1),
        sum(1 for h in requests if h["status"] is not None and 400 <= h["status"] <= 499),
        sum(1 for h in requests if h["status"] is not None and 500 <= h["status"] <= 599),
        float(sum(attention(h) for h in beacons)),
        percentile([h["response_us"] for h in requests], 50),
        percentile([h["response_us"] for h in requests], 95),
        len(hits),
    ]


def entries(views):
    first = {}
    for hit in views:
        if not hit["session_id"]:
            continue
        path = hit["path"]
        order = (hit["at"], path is None, (path or "").encode())
        if hit["session_id"] not in first or order < first[hit["session_id"]][0]:
            first[hit["session_id"]] = (order, hit)
    return [hit for _, hit in first.values()]


def values_of(hits):
    """Yields dimension, value, part_of and the hit that counts there."""
    for hit in hits:
        kind = hit["source_kind"]
        if hit["view"]:
            for name in ("path", "source_kind", "country", "device", "browser", "os", "hour"):
                yield name, hit[name], "", hit
            if kind == "campaign":
                yield "campaign", hit["search_terms"], hit["source"] or "", hit
                yield "campaign_source", hit["source"], "", hit
            else:
                yield "source", hit["source"], kind or "", hit
            if kind == "search":
                yield "search_terms", hit["search_terms"], "", hit
        if not hit["beacon"]:
            yield "bot", hit["bot"], "", hit
            yield "status", None if hit["status"] is None else str(hit["status"]), "", hit
            if hit["status"] in (404, 410):
                yield "missing_path", hit["path"], "", hit
    for hit in entries([h for h in hits if h["view"]]):
        yield "entry_path", hit["path"], "", hit


def value_rows(hits):
    counted = defaultdict(lambda: defaultdict(list))
    for dimension, value, part_of, hit in values_of(hits):
        if value:
            counted[dimension][value, part_of].append(hit)
    seconds = Counter()
    for hit in hits:
        if hit["beacon"] and hit["bot"] is None and hit["path"]:
            seconds[hit["path"]] += attention(hit)

    for dimension, found in counted.items():
        def order(item):
            (value, part_of), members = item
            visitors = {h["visitor"] for h in members} - {None}
            return -len(members), -len(visitors), value.encode(), part_of.encode()

        ranked = sorted(found.items(), key=order)
        rows = [(value, part_of, members, [value]) for (value, part_of), members in ranked[:KEPT]]
        if ranked[KEPT:]:
            rows.append(("", "", [h for _, members in ranked[KEPT:] for h in members],
                         [value for (value, _), _ in ranked[KEPT:]]))
        for value, part_of, members, paths in rows:
            is_path = dimension == "path"
            yield [dimension, value, part_of, len(members), len({h["visitor"] for h in members} - {None}),
                   float(sum(seconds[path] for path in paths)) if is_path else None,
                   percentile([h["response_us"] for h in members], 95) if is_path else None]


def main():
    zone = ZoneInfo(sys.argv[1])
    days = defaultdict(list)
    for line in sys.stdin:
        hit = read(line, zone)
        days[hit["site_id"], hit["day"]].append(hit)
    for (site, day), hits in days.items():
        print("|".join(text(field) for field in ["day", site, day, *day_figures(hits), sys.argv[1]]))
        for row in value_rows(hits):
            print("|".join(text(field) for field in ["value", site, day, *row]))


main()
