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
SMALL_DISK_MB = 64


class Lost(Exception):
    """The session, or the server, is gone."""


def programs():
    """Debian keeps the server's programs out of the search path, in a folder per version."""
    found = sorted(pathlib.Path("/usr/lib/postgresql").glob("*/bin/initdb"))
    return found[-1].parent if found else pathlib.Path(shutil.which("initdb")).parent


class Session:
    """A psql that takes one statement after the other."""

    END = "-- that was all --"
    # A psql that has lost its session can say so and go on.
    LOST = ("WARNING:  terminating connection", "server closed the connection", "The connection to the server was lost")

    def __init__(self, folder, database):
        command = ["psql", "-XAtq", "-F", "\t", "-v", "VERBOSITY=terse", "-h", folder, "-U", "postgres", "-d", database]
        self.psql = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
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
        self.psql.stdin.close()
        self.psql.wait()
        self.psql.stdout.close()


class Server:
    def __init__(self):
        # Straight under /tmp: the path of a socket holds 107 bytes.
        self.folder = tempfile.mkdtemp(prefix="tarn-faults-", dir="/tmp")
        os.chmod(self.folder, 0o755)
        # The server refuses to run as root: there it runs as the user that Debian's package has made for it.
        self.user = pwd.getpwnam("postgres") if os.geteuid() == 0 else pwd.getpwuid(os.geteuid())
        os.chown(self.folder, self.user.pw_uid, self.user.pw_gid)
        self.data = f"{self.folder}/data"
        self.small_disk = f"{self.folder}/small"
        self.process = None
        self.databases = 0
        self.sessions = {}
        options = ["--no-sync", "--no-instructions", "--auth=trust", "--username=postgres"]
        options += ["--encoding=UTF8", "--locale=C.UTF-8", "--pgdata", self.data]
        subprocess.run(self.as_user([str(programs() / "initdb"), *options]), check=True, stdout=subprocess.DEVNULL)
        self.start()
        self.run("postgres", "CREATE DATABASE tarn_template")
        subprocess.run(
            ["psql", "-Xq", "-v", "ON_ERROR_STOP=1", "-h", self.folder, "-U", "postgres", "-d", "tarn_template", "-f", SCHEMA],
            check=True,
            stdout=subprocess.DEVNULL,
        )

    def as_user(self, command, before=""):
        """`command` as the server's user, behind `before` in mounts of its own, and ended with this process."""
        drop = f"--reuid={self.user.pw_uid} --regid={self.user.pw_gid} --clear-groups" if os.geteuid() == 0 else ""
        own_mounts = "--mount" if os.geteuid() == 0 else "--mount --user --map-current-user --keep-caps"
        script = f'{before} exec setpriv {drop} --pdeathsig QUIT "$0" "$@"'
        return ["unshare", *own_mounts.split(), "sh", "-ec", script, *command]

    def start(self):
        """With a disk of 64 MB that is only the server's, gone with it, and empty each time."""
        os.makedirs(self.small_disk, exist_ok=True)
        owner = f"uid={self.user.pw_uid},gid={self.user.pw_gid},mode=0700"
        mount = f"mount -t tmpfs -o size={SMALL_DISK_MB}m,{owner} tmpfs {self.small_disk};"
        settings = ["listen_addresses=", "fsync=off", "max_connections=50", "shared_buffers=64MB", "logging_collector=on"]
        command = [str(programs() / "postgres"), "-D", self.data, "-k", self.folder, "-p", "5432"]
        for setting in settings:
            command += ["-c", setting]
        self.process = subprocess.Popen(
            self.as_user(command, mount), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL
        )
        self.run("postgres", "SELECT 1")

    def stop(self, how):
        """SIGINT is an orderly stop, SIGQUIT the immediate one, as after a power cut."""
        self.process.send_signal(how)
        self.process.wait()

    def close(self):
        for session in self.sessions.values():
            session.close()
        if self.process.poll() is None:
            self.stop(signal.SIGINT)
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

    def run(self, database, statement):
        """Runs `statement` in the test's session, in a new one if that is lost."""
        end = time.monotonic() + START_SECONDS
        while True:
            if database not in self.sessions:
                self.sessions[database] = Session(self.folder, database)
            try:
                return self.sessions[database].run(statement)
            except Lost:
                self.forget(database)
                if time.monotonic() > end:
                    raise
                time.sleep(0.05)
