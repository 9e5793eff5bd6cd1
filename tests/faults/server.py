"""A private PostgreSQL server: its own folder and socket under /tmp, no TCP, no sync. It dies with this process."""

import os
import pathlib
import pwd
import shutil
import signal
import subprocess
import tempfile
import time

SCHEMA = pathlib.Path(__file__).parents[2] / "schema" / "tarn.sql"
START_SECONDS = 60
# One for the write-ahead log, and one for tables that are put there.
SMALL_DISK_MB = 64
# What a fault sets for a database is not for the test's own sessions.
NO_LIMITS = "-c lock_timeout=0 -c statement_timeout=0 -c default_transaction_read_only=off"
SETTINGS = ["listen_addresses=", "fsync=off", "max_connections=15", "shared_buffers=64MB", "logging_collector=on"]
SETTINGS += ["min_wal_size=2MB", "max_wal_size=32MB"]


class Lost(Exception):
    """The session, or the server, is gone."""


def programs():
    """Debian keeps the server's programs out of the search path, in a folder per version."""
    found = sorted(pathlib.Path("/usr/lib/postgresql").glob("*/bin/initdb"))
    return found[-1].parent if found else pathlib.Path(shutil.which("initdb")).parent


# Not the one on the search path, which is Debian's choice among versions and takes its time.
PSQL = str(programs() / "psql")


class Session:
    """A psql that takes one statement after the other."""

    END = "-- that was all --"
    # A psql that has lost its session can say so and go on.
    LOST = ("WARNING:  terminating connection", "server closed the connection", "The connection to the server was lost")

    def __init__(self, folder, database):
        command = [PSQL, "-XAtq", "-F", "\t", "-v", "VERBOSITY=terse", "-h", folder, "-U", "postgres", "-d", database]
        self.psql = subprocess.Popen(
            command,
            env={**os.environ, "PGOPTIONS": NO_LIMITS},
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )

    def run(self, statement):
        """The rows of the answer, each a list of texts. Lost, if there is no session; ValueError, if it fails."""
        try:
            self.psql.stdin.write(f"{statement};\n\\echo {self.END}\n")
            self.psql.stdin.flush()
        except BrokenPipeError:
            raise Lost() from None
        rows, errors = [], []
        for line in self.psql.stdout:
            text = line.rstrip("\n")
            if text == self.END:
                break
            (errors if text.startswith(("ERROR:", "FATAL:", "psql:")) else rows).append(text)
        else:
            raise Lost("\n".join(errors + rows))
        if any(row.startswith(self.LOST) for row in rows + errors):
            raise Lost("\n".join(errors + rows))
        if errors:
            raise ValueError(f"{statement}: {errors}")
        return [row.split("\t") for row in rows]

    def close(self):
        self.psql.kill()
        self.psql.wait()
        self.psql.stdout.close()
        try:
            self.psql.stdin.close()
        except BrokenPipeError:
            pass  # a statement that was not sent any more


class Server:
    def __init__(self):
        # Straight under /tmp: the path of a socket holds 107 bytes.
        self.folder = tempfile.mkdtemp(prefix="tarn-faults-", dir="/tmp")
        os.chmod(self.folder, 0o755)
        # The server refuses to run as root: there it runs as the user that Debian's package has made for it.
        self.user = pwd.getpwnam("postgres") if os.geteuid() == 0 else pwd.getpwuid(os.geteuid())
        os.chown(self.folder, self.user.pw_uid, self.user.pw_gid)
        self.data = f"{self.folder}/data"
        self.tables_disk = f"{self.folder}/tables"
        self.wal_disk = f"{self.folder}/wal"
        self.holder = self.hold_small_disks()
        self.process = None
        self.databases = 0
        self.sessions = {}
        options = ["--no-sync", "--no-instructions", "--auth=trust", "--username=postgres"]
        options += ["--encoding=UTF8", "--locale=C.UTF-8", "--pgdata", self.data]
        options += ["--wal-segsize=1", "--waldir", self.wal_disk]
        subprocess.run(self.as_user([str(programs() / "initdb"), *options]), check=True, stdout=subprocess.DEVNULL)
        self.start()
        self.run("postgres", "CREATE DATABASE tarn_template")
        load = [PSQL, "-Xq", "-v", "ON_ERROR_STOP=1", "-h", self.folder, "-U", "postgres", "-d", "tarn_template"]
        subprocess.run([*load, "-f", SCHEMA], check=True, stdout=subprocess.DEVNULL)

    def hold_small_disks(self):
        """Mounts them where only the processes of as_user() see them; they go with those."""
        owner = f"uid={self.user.pw_uid},gid={self.user.pw_gid},mode=0700"
        mounts = ""
        for disk in [self.tables_disk, self.wal_disk]:
            os.mkdir(disk)
            mounts += f"mount -t tmpfs -o size={SMALL_DISK_MB}m,{owner} tmpfs {disk}; "
        script = f"{mounts} echo mounted; exec sleep infinity"
        # An ordinary user may mount in a namespace where it rules, and where it is still known as itself.
        own_mounts = ["--mount"] if os.geteuid() == 0 else ["--mount", "--user", "--map-current-user", "--keep-caps"]
        holder = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "unshare", *own_mounts, "sh", "-ec", script], stdout=subprocess.PIPE
        )
        if holder.stdout.readline() != b"mounted\n":
            raise OSError("this kernel or container gives a test no mounts of its own; run as root")
        return holder

    def as_user(self, command):
        """`command` as the server's user, with the small disks, and ended with this process."""
        enter = ["nsenter", "--target", str(self.holder.pid), "--mount"]
        drop = []
        if os.geteuid() == 0:
            drop = [f"--reuid={self.user.pw_uid}", f"--regid={self.user.pw_gid}", "--clear-groups"]
        else:
            enter += ["--user", "--preserve-credentials"]
        return [*enter, "setpriv", *drop, "--pdeathsig", "QUIT", *command]

    def start(self):
        command = [str(programs() / "postgres"), "-D", self.data, "-k", self.folder, "-p", "5432"]
        for setting in SETTINGS:
            command += ["-c", setting]
        self.process = subprocess.Popen(self.as_user(command), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.run("postgres", "SELECT 1")

    def fill(self, disk):
        """Takes all that is left of one of the small disks."""
        script = f"cat /dev/zero > {disk}/filler 2>/dev/null || true"
        subprocess.run(self.as_user(["sh", "-c", script]), check=True)

    def make_room(self, disk):
        subprocess.run(self.as_user(["rm", f"{disk}/filler"]), check=True)

    def stop(self, how):
        """SIGINT is an orderly stop, SIGQUIT the immediate one, as after a power cut."""
        self.process.send_signal(how)
        self.process.wait()

    def close(self):
        for session in self.sessions.values():
            session.close()
        if self.process.poll() is None:
            self.stop(signal.SIGINT)
        self.holder.kill()
        self.holder.wait()
        shutil.rmtree(self.folder, ignore_errors=True)

    def create_database(self):
        self.databases += 1
        name = f"tarn_{self.databases}"
        self.forget("tarn_template")
        self.run("postgres", f"CREATE DATABASE {name} TEMPLATE tarn_template")
        return name

    def forget(self, database):
        if database in self.sessions:
            self.sessions.pop(database).close()

    def attempt(self, database, statement):
        """Runs `statement` in the test's session, in a new one if that was lost before. Lost, if there is none."""
        if database not in self.sessions:
            self.sessions[database] = Session(self.folder, database)
        try:
            return self.sessions[database].run(statement)
        except Lost:
            self.forget(database)
            raise

    def run(self, database, statement):
        """The same, as soon as there is a session."""
        end = time.monotonic() + START_SECONDS
        while True:
            try:
                return self.attempt(database, statement)
            except Lost:
                if time.monotonic() > end:
                    raise
                time.sleep(0.05)
