"""One walk of the running collector through a fault: a database of its own on a real server, a log that is written all
the while, faults at random moments, and at the end an account of every line."""

import dataclasses
import os
import pathlib
import random
import re
import signal
import tempfile
import time

from access_log import AccessLog
from collector import Collector

WAIT_SECONDS = 60
SETTLE_SECONDS = 300
POLL_SECONDS = 0.02
# Of the collector; it takes some 25.
MOST_MB = 100
# Nobody reads more in a minute, with a sample each second; a flood has thousands.
MOST_LOG_LINES = 300

# What the collector, and the libraries below it, say of a session that is lost; of one that is lost while it is opened,
# the driver says that it does not know the server's version.
LOST_SESSION = (
    r"database: reconnect|sql: (FATAL|server closed|the session|no connection|WARNING|SSL|could not)|"
    r"FATAL:  |DETAIL:  |HINT:  |WARNING:  |server closed the connection|\t|QPSQL: |Unable to free statement: |"
    r"no connection to the server|This version of PostgreSQL is not supported|"
    r"(QPSQLDriver|QSqlQuery)::\w+: [Dd]atabase not open"
)

# The last words of a collector that loses its server while it starts; the unit has it started again.
ENDED_AT_START = r"analytics tables are missing|database schema is not at version|database: (?!reconnect)"


@dataclasses.dataclass
class Account:
    lines: int  # written
    once: int  # lines that are stored once
    doubled: int  # rows too many
    lost: list  # numbers of the lines that are not stored
    copies: list  # how often each line is stored
    strange: int  # rows that no line is
    sample_gap: float  # seconds, the longest between two samples
    pass_gap: float  # the same between two passes over the logs that have stored hits
    peak_mb: float  # the most memory that the collector has had
    log_rate: float  # lines of its log in a minute
    log: list

    def row(self):
        gaps = f"{self.sample_gap:.1f}/{self.pass_gap:.1f}"
        counts = [self.lines, self.once, self.doubled, len(self.lost), gaps, round(self.peak_mb), round(self.log_rate)]
        return [str(count) for count in counts]

    def lost_stretches(self):
        return sum(1 for before, number in zip([-1, *self.lost], self.lost) if number != before + 1)


class Walk:
    def __init__(self, server, binary, seed, memory_factor):
        self.server = server
        self.memory_factor = memory_factor
        self.dice = random.Random(seed)
        self.database = server.create_database()
        # Its own, to be closed at any moment to whom modes bind; /tmp itself can be searched.
        self.parent = tempfile.TemporaryDirectory(prefix="tarn-log-")
        os.chmod(self.parent.name, 0o755)
        self.folder = pathlib.Path(self.parent.name, "logs")
        self.folder.mkdir()
        self.log = AccessLog(f"{self.folder}/access.log")
        self.collector = Collector(binary, server, self.database)
        self.peak = 0
        self.begun = None
        self.complaints = []
        month = time.strftime("%Y-%m")
        self.run(f"INSERT INTO tarn.settings VALUES ('geoip_month', '{month}')")
        # When the pass that has stored a hit was under way.
        self.run("ALTER TABLE tarn.hits ADD COLUMN stored_at timestamptz DEFAULT now()")
        self.run("INSERT INTO tarn.sites (id, host) VALUES (1, 'example.org')")
        self.run(f"INSERT INTO tarn.log_sources (path, site_id) VALUES ('{self.log.path}', 1)")

    def close(self):
        self.log.stop()
        self.collector.close()
        self.server.forget(self.database)
        self.folder.chmod(0o755)
        self.parent.cleanup()

    def run(self, statement):
        return self.server.run(self.database, statement)

    def value(self, statement):
        rows = self.run(statement)
        return rows[0][0] if rows else None

    def start(self):
        self.collector.start()
        self.begun = self.begun or time.monotonic()

    def pause(self, least, most):
        """Lets so many seconds go by, at random, and watches the collector."""
        end = time.monotonic() + self.dice.uniform(least, most)
        while time.monotonic() < end:
            self.watch()
            time.sleep(min(POLL_SECONDS, max(0, end - time.monotonic())))

    def watch(self):
        """Looks at the collector, and starts it again where systemd would."""
        self.peak = max(self.peak, self.collector.peak_mb())
        if self.collector.ended_by_itself():
            last = (self.collector.log() or [""])[-1]
            self.expect(re.match(ENDED_AT_START, last), f"the collector has ended: {last}")
            self.collector.start()

    def wait_for(self, condition, seconds=WAIT_SECONDS):
        """True once `condition` is; False if it is not in time."""
        end = time.monotonic() + seconds
        while not condition():
            self.watch()
            if time.monotonic() > end:
                return False
            time.sleep(POLL_SECONDS)
        return True

    def backend(self):
        """The process id of the collector's session in the server; 0 while there is none."""
        return int(
            self.value(
                "SELECT coalesce(max(pid), 0) FROM pg_stat_activity WHERE application_name = 'tarn-collect' "
                "AND datname = current_database()"
            )
        )

    def expect(self, what, text):
        if not what:
            self.complaints.append(text)

    def settle(self, most_mb=MOST_MB):
        """Ends the writing, waits until the collector has read everything, and makes the account."""
        self.log.stop()
        place = "SELECT inode, read_offset FROM tarn.log_sources"
        everything = self.wait_for(lambda: self.run(place) == [self.log.state()], SETTLE_SECONDS)
        self.expect(everything, f"not all was read: {self.run(place)} of {self.log.state()}")
        self.expect(self.collector.runs(), "the collector has ended")
        minutes = (time.monotonic() - self.begun) / 60
        self.collector.end(signal.SIGTERM)
        account = self.account(minutes)
        self.expect(account.strange == 0, f"{account.strange} rows are no line of the log")
        self.expect(account.peak_mb < most_mb * self.memory_factor, f"{account.peak_mb} MB")
        self.expect(account.log_rate < MOST_LOG_LINES, f"{account.log_rate} log lines a minute: {account.log[:40]}")
        self.expect(self.wait_for(self.is_rolled_up), "the roll-up does not count what is stored")
        return account

    def is_rolled_up(self):
        """Rolls the day up, which waits for no session that still inserts. A slow day waits before the next time."""
        self.run("UPDATE tarn.site_days SET updated_at = updated_at - interval '1 day'")
        self.run("SELECT tarn.rollup_day(1, '2024-10-10')")
        counted = "SELECT coalesce(sum(raw_hits), 0) FROM tarn.site_days"
        return self.value(counted) == self.value("SELECT count(*) FROM tarn.hits")

    def account(self, minutes):
        lines = len(self.log)
        copies, strange = [0] * (lines + 1), 0
        for number, count, torn in self.run(
            "SELECT n, count(*), count(*) FILTER (WHERE bytes IS DISTINCT FROM n) FROM (SELECT CASE WHEN "
            "path ~ '^/[0-9]{1,9}$' THEN substr(path, 2)::int ELSE 0 END AS n, bytes FROM tarn.hits) h GROUP BY n"
        ):
            known = 1 <= int(number) <= lines
            strange += int(torn) if known else int(count)
            if known:
                copies[int(number)] = int(count)
        log = self.collector.log()
        return Account(
            lines=lines,
            once=copies.count(1),
            doubled=sum(count - 1 for count in copies if count > 1),
            lost=[number for number in range(1, lines + 1) if copies[number] == 0],
            copies=copies,
            strange=strange,
            sample_gap=self.longest_gap("SELECT at FROM tarn.host_samples"),
            pass_gap=self.longest_gap("SELECT DISTINCT stored_at FROM tarn.hits"),
            peak_mb=self.peak,
            log_rate=len(log) / minutes,
            log=log,
        )

    def longest_gap(self, moments):
        gaps = f"SELECT at - lag(at) OVER (ORDER BY at) AS gap FROM ({moments}) m (at)"
        return float(self.value(f"SELECT coalesce(max(extract(epoch FROM gap)), 0) FROM ({gaps}) g"))

    def expect_log(self, account, allowed, needed=None):
        """Each line of the log has to begin as `allowed` says, and one as `needed`; both are expressions."""
        others = [line for line in account.log if not allowed or not re.match(allowed, line)]
        self.expect(not others, f"the log says {others[:5]}")
        self.expect(not needed or any(re.match(needed, line) for line in account.log), f"no line says {needed}")
