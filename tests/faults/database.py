"""The server goes on and refuses: locks, time limits, no connection left, no space left, read-only, a constraint that
somebody has added. Where it refuses the hits of a slice and takes its place, that slice is lost; one line says so."""

from server import Lost, Session
from walk import ENDED_AT_START, LOST_SESSION

LINES_PER_SECOND = 400
# Seconds that a lock is held; time limits are well below.
LOCK_SECONDS = (0.5, 3)
TIME_LIMIT = "200ms"


class Other:
    """Another session, which disturbs."""

    def __init__(self, walk):
        self.session = Session(walk.server.folder, walk.database)

    def __enter__(self):
        return self.session

    def __exit__(self, *_):
        self.session.close()


def held(walk, table, seconds=LOCK_SECONDS):
    with Other(walk) as other:
        other.run("BEGIN")
        other.run(f"LOCK TABLE {table} IN ACCESS EXCLUSIVE MODE")
        walk.pause(*seconds)
        other.run("COMMIT")


def tables(walk):
    """Those of the schema; first the two that each slice is stored in."""
    rows = walk.run(
        "SELECT relname FROM pg_class WHERE relnamespace = 'tarn'::regnamespace AND relkind IN ('r', 'p') ORDER BY 1"
    )
    first = ["hits", "log_sources"]
    return [f"tarn.{name}" for name in first + [row[0] for row in rows if row[0] not in first]]


def write(walk):
    walk.start()
    walk.log.write(LINES_PER_SECOND)


def settle_without_loss(walk, allowed, needed=None, doubled=False):
    account = walk.settle()
    walk.expect(not account.lost, f"lost: {account.lost[:20]}")
    walk.expect(doubled or not account.doubled, f"doubled: {account.doubled}")
    walk.expect_log(account, allowed, needed)
    return account


def settle_with_refusals(walk, reason):
    """What is lost is whole slices, each with a line that says why."""
    account = walk.settle()
    told = [line for line in account.log if reason in line]
    lost = account.lost_stretches()
    walk.expect(lost <= len(told), f"{lost} slices are lost, and {len(told)} lines say so")
    walk.expect_log(account, f"sql: .*{reason}")
    return account


def locked(walk, runs):
    names = tables(walk)
    write(walk)
    for number in range(max(runs, 2)):
        walk.pause(0, 1)
        held(walk, names[number % len(names)])
    # Nothing fails: the collector waits, and has nothing to say.
    return settle_without_loss(walk, None)


def lock_time_out(walk, runs):
    walk.run(f"ALTER DATABASE {walk.database} SET lock_timeout = '{TIME_LIMIT}'")
    write(walk)
    for _ in range(runs):
        walk.pause(0.5, 2)
        held(walk, "tarn.hits")
    return settle_with_refusals(walk, "canceling statement due to lock timeout")


def lock_time_out_on_places(walk, runs):
    walk.run(f"ALTER DATABASE {walk.database} SET lock_timeout = '{TIME_LIMIT}'")
    write(walk)
    for _ in range(runs):
        walk.pause(0.5, 2)
        held(walk, "tarn.log_sources")
    return settle_without_loss(walk, "sql: .*canceling statement due to lock timeout", doubled=True)


def statement_time_out(walk, runs):
    walk.run(f"ALTER DATABASE {walk.database} SET statement_timeout = '{TIME_LIMIT}'")
    write(walk)
    for _ in range(runs):
        walk.pause(0.5, 2)
        held(walk, "tarn.hits")
    return settle_with_refusals(walk, "canceling statement due to statement timeout")


def no_connection_left(walk, runs):
    write(walk)
    for _ in range(runs):
        walk.pause(0.5, 2)
        with Other(walk) as other:
            taken = []
            backend = walk.backend()
            while backend:
                other.run(f"SELECT pg_terminate_backend({backend}, 5000)")
                take_all(walk, taken)
                backend = walk.backend()
            walk.pause(1, 4)
            for session in taken:
                session.close()
    reasons = f"{LOST_SESSION}|{ENDED_AT_START}|sql: .*too many clients"
    return settle_without_loss(walk, reasons, "database: reconnect failed: .*too many clients already", doubled=True)


def take_all(walk, taken):
    """Adds sessions to `taken` until the server gives no more."""
    while True:
        session = Session(walk.server.folder, walk.database)
        try:
            session.run("SELECT 1")
        except Lost:
            session.close()
            return
        taken.append(session)


def read_only(walk, runs):
    write(walk)
    for _ in range(runs):
        walk.pause(0.5, 2)
        set_for_all(walk, "default_transaction_read_only = on")
        walk.pause(1, 4)
        set_for_all(walk, "default_transaction_read_only = off")
    return settle_with_refusals(walk, "in a read-only transaction")


def set_for_all(walk, setting):
    """For the sessions that there are, from their next statement on. The server's own file stays writable."""
    walk.run(f"ALTER SYSTEM SET {setting}")
    walk.run("SELECT pg_reload_conf()")


def disk_of_tables_full(walk, runs):
    disk = walk.server.tables_disk
    walk.run(f"CREATE TABLESPACE small_{walk.database} LOCATION '{disk}'")
    walk.run(f"ALTER TABLE tarn.hits SET TABLESPACE small_{walk.database}")
    for index in ["hits_site_at", "hits_at"]:
        walk.run(f"ALTER INDEX tarn.{index} SET TABLESPACE small_{walk.database}")
    write(walk)
    for _ in range(runs):
        walk.pause(0.5, 2)
        walk.server.fill(disk)
        walk.pause(2, 5)
        walk.server.make_room(disk)
    account = settle_with_refusals(walk, "No space left on device")
    walk.expect(account.doubled == 0, f"doubled: {account.doubled}")
    return account


def disk_of_the_write_ahead_log_full(walk, runs):
    """The server ends then, and cannot start before there is room."""
    write(walk)
    for _ in range(runs):
        walk.pause(0.5, 2)
        walk.server.fill(walk.server.wal_disk)
        walk.expect(walk.wait_for(lambda: has_ended(walk)), "the server goes on")
        walk.pause(1, 4)
        walk.server.make_room(walk.server.wal_disk)
        walk.server.start()
    reasons = f"{LOST_SESSION}|{ENDED_AT_START}|sql: PANIC"
    return settle_without_loss(walk, reasons, "database: reconnect failed", doubled=True)


def has_ended(walk):
    """Whether the server has; if not, it gets more to write."""
    try:
        walk.server.attempt(walk.database, "SELECT pg_logical_emit_message(false, 'faults', repeat('x', 500000))")
    except (Lost, ValueError):
        pass
    return walk.server.process.poll() is not None


def constraint_added(walk, runs):
    write(walk)
    for _ in range(runs):
        walk.pause(0.5, 2)
        walk.run("ALTER TABLE tarn.hits ADD CONSTRAINT mine CHECK (bytes % 1000 <> 7) NOT VALID")
        walk.pause(2, 5)
        walk.run("ALTER TABLE tarn.hits DROP CONSTRAINT mine")
    return settle_with_refusals(walk, 'violates check constraint "mine"')


FAULTS = [
    ("table locked", locked, 2),
    ("lock_timeout on hits", lock_time_out, 1),
    ("lock_timeout on places", lock_time_out_on_places, 1),
    ("statement_timeout", statement_time_out, 1),
    ("no connection left", no_connection_left, 1),
    ("read-only", read_only, 1),
    ("disk of the tables full", disk_of_tables_full, 1),
    ("disk of the WAL full", disk_of_the_write_ahead_log_full, 1),
    ("constraint added", constraint_added, 1),
]
