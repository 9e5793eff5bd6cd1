"""The collector's binary as a child process, with settings, an agent and a log of its own."""

import os
import pathlib
import signal
import socket
import subprocess
import tempfile
import threading

END_SECONDS = 60


class Agent(threading.Thread):
    """The suite's agent: knows of no account, and says so."""

    def __init__(self, path):
        super().__init__(daemon=True)
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(path)
        self.listener.listen()
        self.start()

    def run(self):
        while True:
            client, _ = self.listener.accept()
            try:
                with client, client.makefile("rb") as lines:
                    lines.readline()
                    client.sendall(b'{"ok":true}\n')
            except OSError:
                pass  # the collector was killed


class Collector:
    def __init__(self, binary, server, database):
        self.binary = binary
        self.folder = tempfile.TemporaryDirectory(prefix="tarn-collector-")
        self.environment = {}
        self.wrapper = []  # a command that becomes the collector
        self.process = None
        self.was_ended = False
        self.starts = 0
        agent = f"{self.folder.name}/agent.sock"
        Agent(agent)
        # Nothing of the host is to be alarmed about, and nothing leaves this machine.
        self.settings = {
            "database": {"host": server.folder, "name": database, "user": "postgres"},
            "agent": {"socket": agent},
            "collect": {"interval_seconds": "1"},
            "health": {
                "apache_status_url": "",
                "services": "",
                "disk_alert_pct": "1000",
                "memory_alert_pct": "1000",
                "load_alert_per_cpu": "1e9",
                "temperature_alert_c": "1e9",
            },
        }

    def start(self):
        self.kill()
        settings = pathlib.Path(self.folder.name, "tarnhold.ini")
        with settings.open("w") as file:
            for section, keys in self.settings.items():
                file.write(f"[{section}]\n")
                file.writelines(f"{key}={text}\n" for key, text in keys.items())
        self.starts += 1
        self.was_ended = False
        nowhere = "http://127.0.0.1:1"
        environment = {**os.environ, "TZ": "UTC", "LC_ALL": "C.UTF-8", "https_proxy": nowhere, "http_proxy": nowhere}
        with open(self.log_path(self.starts), "wb") as log:
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", *self.wrapper, self.binary, "--config", settings],
                stderr=log,
                env={**environment, **self.environment},
            )

    def obey_file_modes(self):
        """Has it run as somebody whom file modes bind, also where the tests run as root."""
        if os.geteuid() == 0:
            self.wrapper = ["setpriv", "--bounding-set", "-dac_override,-dac_read_search"]

    def log_path(self, start):
        return f"{self.folder.name}/log-{start}"

    def log(self):
        """The lines of all starts so far."""
        paths = [pathlib.Path(self.log_path(start)) for start in range(1, self.starts + 1)]
        return [line for path in paths for line in path.read_text(errors="replace").splitlines()]

    def runs(self):
        return self.process is not None and self.process.poll() is None

    def ended_by_itself(self):
        return self.process is not None and self.process.poll() is not None and not self.was_ended

    def end(self, how):
        if self.runs():
            self.was_ended = True
            self.process.send_signal(how)
            self.process.wait(END_SECONDS)

    def kill(self):
        self.end(signal.SIGKILL)

    def close(self):
        self.kill()
        self.folder.cleanup()

    def peak_mb(self):
        """The most memory that the process has had; 0 once it has ended."""
        try:
            status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        except OSError:
            return 0
        figures = [line.split()[1] for line in status.splitlines() if line.startswith("VmHWM:")]
        return int(figures[0]) / 1024 if figures else 0
