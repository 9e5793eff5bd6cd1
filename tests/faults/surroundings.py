"""What is around the collector and its server misbehaves: the clock, the name service, and every peer. The log is
followed as if nothing was."""

import glob
import os
import pathlib
import random
import re
import socket

from hostile import WAYS, Hostile, make_certificate
from walk import WAIT_SECONDS

LINES_PER_SECOND = 200
# Seconds without a pass over the logs that are no stall, on a machine that has much else to do.
MOST_PASS_GAP = 30
MAINTENANCE_SECONDS = 30
DAY = 86400

# What the collector says of peers, and of what it has noticed of the host.
COUNTRIES = "collect: (geoip|loading countries from)"
ABOUT_PEERS = rf"(alert|alert cleared|notify|collect: account disk use|collect: google): |{COUNTRIES}"
ALARMING = {"memory_alert_pct": "1", "load_alert_per_cpu": "0.01"}
# What a country file (256 MiB), an answer of Google (128) and one of the agent (64) may take at once, each with a copy
# while its buffer grows.
MOST_MB_FOR_ANSWERS = 1000


def in_mounts_of_its_own(mounts):
    """A command that becomes another, for which each file of `mounts` stands in another's place."""
    binds = "".join(f"mount --bind {source} {target}; " for source, target in mounts.items())
    user = [] if os.geteuid() == 0 else ["--user", "--map-current-user", "--keep-caps"]
    return ["unshare", "--mount", *user, "sh", "-ec", f'{binds}exec "$0" "$@"']


def settle_followed(walk, allowed, **limits):
    """Nothing is lost, and the log was never left alone for long."""
    account = walk.settle(**limits)
    walk.expect(not account.lost, f"lost: {account.lost[:20]}")
    walk.expect(account.pass_gap < MOST_PASS_GAP, f"{account.pass_gap} s without a pass")
    walk.expect_log(account, allowed)
    return account


def clock_stepped(walk, runs):
    clock = pathlib.Path(walk.parent.name, "clock")
    clock.write_text("+0\n")
    walk.collector.environment = {
        "LD_PRELOAD": glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")[0],
        "FAKETIME_TIMESTAMP_FILE": str(clock),
        "FAKETIME_NO_CACHE": "1",
        "FAKETIME_DONT_FAKE_MONOTONIC": "1",  # no step of the clock moves it
        "NO_FAKE_STAT": "1",
        "ASAN_OPTIONS": "verify_asan_link_order=0",
    }
    walk.run("INSERT INTO tarn.settings VALUES ('raw_hit_days', '99999')")
    # Said once for each new day: the step was seen.
    tidied = "collect: removed 0 raw hits older than 99999 days"
    days = lambda: walk.collector.log().count(tidied)
    walk.start()
    walk.expect(walk.wait_for(lambda: days() == 1), "the daily work is missing")
    walk.log.write(LINES_PER_SECOND)
    for run in range(1, runs + 1):
        for _ in range(3):
            clock.write_text(f"{walk.dice.randrange(-3600, 3600):+d}\n")
            walk.pause(0.2, 1)
        direction = 1 if run % 2 else -1
        clock.write_text(f"{direction * DAY * walk.dice.randrange(40, 400):+d}\n")
        before = days()
        walk.expect(walk.wait_for(lambda: days() > before, 2 * MAINTENANCE_SECONDS), "the new day was not noticed")
    account = settle_followed(walk, f"{tidied}|{COUNTRIES}")
    walk.expect(not account.doubled, f"doubled: {account.doubled}")
    for left in glob.glob(f"/dev/shm/*faketime*{walk.collector.process.pid}"):
        os.unlink(left)
    return account


def begin_anew(walk):
    """Starts the collector with every alert still to be told of, and a load of countries due."""
    walk.collector.kill()
    walk.run("DELETE FROM tarn.alerts")
    walk.run("UPDATE tarn.settings SET value = '2024-01' WHERE key = 'geoip_month'")
    walk.start()


def silent_name_service():
    """The port of a name service is 53 and root's; the address is one of loopback's sixteen million."""
    service = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    service.bind((f"127.{random.randrange(1, 255)}.{random.randrange(256)}.{random.randrange(1, 255)}", 53))
    return service


def name_service_silent(walk, runs):
    service = silent_name_service()
    resolvers = pathlib.Path(walk.parent.name, "resolv.conf")
    resolvers.write_text(f"nameserver {service.getsockname()[0]}\n")
    walk.collector.wrapper = in_mounts_of_its_own({resolvers: "/etc/resolv.conf"})
    walk.collector.environment = {"https_proxy": "", "http_proxy": ""}
    walk.collector.settings["health"].update(ALARMING)
    walk.collector.settings["notify"] = {
        "webhook_url": "https://hooks.example.org/secret",
        "smtp_host": "mail.example.org",
        "mail_from": "a@example.org",
        "mail_to": "b@example.org",
    }
    walk.log.write(LINES_PER_SECOND)
    for run in range(1, runs + 1):
        begin_anew(walk)
        for reason in ["notify: webhook failed: ", "notify: email failed: "]:
            told = lambda: sum(line.startswith(reason) for line in walk.collector.log()) >= run
            walk.expect(walk.wait_for(told), f"nothing was said as {reason}")
    account = settle_followed(walk, ABOUT_PEERS)
    service.settimeout(0)
    walk.expect(service.recvfrom(512)[0], "no name was asked for")
    service.close()
    return account


def peers_hostile(walk, runs):
    folder = walk.parent.name
    certificate = make_certificate(folder)
    agent = f"{walk.collector.folder.name}/hostile.sock"
    web, mail, hosts = Hostile(), Hostile(talks_first=True), Hostile(certificate=certificate)
    servers = [web, mail, hosts, Hostile(path=agent)]
    walk.collector.wrapper = in_mounts_of_its_own({f"{folder}/ca": "/etc/ssl/certs"})
    walk.collector.environment = {"https_proxy": hosts.url(""), "no_proxy": ""}
    settings = walk.collector.settings
    settings["agent"]["socket"] = agent
    settings["health"].update(ALARMING, apache_status_url=web.url("/server-status?auto"))
    settings["google"] = {"client_id": "id", "client_secret": "hidden"}
    settings["notify"] = {
        "webhook_url": web.url("/secret"),
        "smtp_host": "127.0.0.1",
        "smtp_port": str(mail.port),
        "smtp_security": "none",
        "mail_from": "a@example.org",
        "mail_to": "b@example.org",
    }
    walk.run("INSERT INTO tarn.engine_accounts (engine, refresh_token) VALUES ('google', 'kept')")
    walk.run("INSERT INTO tarn.accounts (username, domain, disk_limit_mb) VALUES ('alice', 'alice.example', 1)")
    walk.log.write(LINES_PER_SECOND)
    ways = list(WAYS)
    walk.dice.shuffle(ways)
    for run in range(runs):
        for server in servers:
            server.way = ways[run % len(ways)]
            server.clients = 0
        begin_anew(walk)
        # A synchronisation begins when no sample is under way; messages on slow channels keep one for a minute.
        met = walk.wait_for(lambda: all(server.clients for server in servers), 3 * WAIT_SECONDS)
        walk.expect(met, f"not every peer that {ways[run % len(ways)]} was asked: {[s.clients for s in servers]}")
        walk.pause(3, 8)
    account = settle_followed(walk, ABOUT_PEERS, most_mb=MOST_MB_FOR_ANSWERS)
    for server in servers:
        server.close()
    walk.expect(not re.search("secret|hidden", "\n".join(account.log)), "a secret was logged")
    return account


FAULTS = [
    ("clock stepped", clock_stepped, 1),
    ("name service silent", name_service_silent, 1),
    ("peers hostile", peers_hostile, 1),
]
