"""The collector, its session and its server end at any moment: no line is lost, and a line is stored twice only where
the place in the log was not yet stored behind it."""

import os
import signal

from walk import ENDED_AT_START, LOST_SESSION

LINES_PER_SECOND = 400
# What comes at once: a slice that takes longer to store than most moments last.
MOST_AT_ONCE = 3000


def write_before(walk, runs, fault):
    """Lets the fault come while lines are written, a bunch of them just before."""
    walk.log.write(LINES_PER_SECOND)
    for _ in range(runs):
        walk.log.append(walk.dice.randrange(MOST_AT_ONCE))
        fault()


def settle_without_loss(walk, allowed, needed=None):
    account = walk.settle()
    walk.expect(not account.lost, f"lost: {account.lost[:20]}")
    walk.expect_log(account, allowed, needed)
    return account


def collector_killed(walk, runs):
    def fault():
        walk.start()
        walk.pause(0, 2.5)
        walk.collector.kill()

    write_before(walk, runs, fault)
    walk.start()
    return settle_without_loss(walk, None)


def killed_before_the_place_is_stored(walk, runs):
    walk.run(
        "CREATE FUNCTION public.wait() RETURNS trigger LANGUAGE plpgsql AS "
        "'BEGIN PERFORM pg_sleep(0.5); RETURN NEW; END'"
    )
    walk.run("CREATE TRIGGER wait BEFORE UPDATE ON tarn.log_sources FOR EACH ROW EXECUTE FUNCTION public.wait()")
    place = "SELECT read_offset FROM tarn.log_sources"
    sleepers = "SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep'"

    def fault():
        walk.run("ALTER TABLE tarn.log_sources ENABLE TRIGGER wait")
        walk.expect(walk.wait_for(lambda: walk.value(sleepers) != "0"), "no place was stored")
        walk.collector.kill()
        # A server that does not know yet that its client is gone would store the place.
        walk.run(f"SELECT pg_terminate_backend({walk.backend()}, 5000)")
        # The next run is about other lines.
        walk.run("ALTER TABLE tarn.log_sources DISABLE TRIGGER wait")
        before = walk.value(place)
        walk.start()
        walk.expect(walk.wait_for(lambda: walk.value(place) != before), "no place was stored again")

    walk.start()
    write_before(walk, runs, fault)
    account = settle_without_loss(walk, None)
    walk.expect(account.doubled >= runs, "what was stored before its place was not stored again")
    return account


def session_ended(walk, runs):
    walk.start()

    def fault():
        walk.pause(0, 2.5)
        walk.expect(walk.wait_for(lambda: walk.backend() != 0), "no session")
        walk.run(f"SELECT pg_terminate_backend({walk.backend()})")

    write_before(walk, runs, fault)
    return settle_without_loss(walk, f"{LOST_SESSION}|{ENDED_AT_START}", "database: reconnected")


def backend_killed(walk, runs):
    walk.start()

    def fault():
        walk.pause(1, 2.5)
        walk.expect(walk.wait_for(lambda: walk.backend() != 0), "no session")
        # The server ends all other sessions then, and recovers.
        os.kill(walk.backend(), signal.SIGKILL)

    write_before(walk, runs, fault)
    return settle_without_loss(walk, f"{LOST_SESSION}|{ENDED_AT_START}", "database: reconnected")


def server_stopped(walk, runs):
    walk.start()

    def fault():
        walk.pause(0, 2.5)
        walk.server.stop(signal.SIGQUIT)
        walk.pause(0, 1.5)
        walk.server.start()

    write_before(walk, runs, fault)
    return settle_without_loss(walk, f"{LOST_SESSION}|{ENDED_AT_START}", "database: reconnected")


# Name, fault, and how often it comes in the short version.
FAULTS = [
    ("collector killed", collector_killed, 4),
    ("killed before the place", killed_before_the_place_is_stored, 1),
    ("session ended", session_ended, 3),
    ("backend killed", backend_killed, 1),
    ("server stopped at once", server_stopped, 2),
]
