"""Installs the build below a temporary DESTDIR, and holds what is there to files.txt, README.md and the units."""

import argparse
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

options = None
HERE = pathlib.Path(__file__).parent
# What systemd-analyze calls it: from 0, which can do nothing, to 10.
MOST_EXPOSURE = 2.0


def install(folder, prefix):
    """Installs below the DESTDIR `folder`; returns what `prefix` became there."""
    subprocess.run(
        [options.cmake, "--install", options.build, "--prefix", prefix],
        env={**os.environ, "DESTDIR": str(folder)},
        umask=0o077,  # the files' modes are said, not inherited
        check=True,
        stdout=subprocess.DEVNULL,
    )
    return folder / prefix.lstrip("/")


def listing(folder):
    """A line "644 share/man/man8/tarn-collect.8" for each file, sorted by path."""
    files = sorted(path for path in folder.rglob("*") if not path.is_dir())
    return [f"{path.lstat().st_mode & 0o7777:o} {path.relative_to(folder)}" for path in files]


class Install(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="tarn-install-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def test_files_and_modes(self):
        install(self.folder, "/usr")
        expected = (HERE / "files.txt").read_text().splitlines()
        self.assertEqual(listing(self.folder), [line.replace(" ", " usr/", 1) for line in expected])

    def test_the_units_follow_the_prefix(self):
        for prefix in ["/usr", "/usr/local", "/opt/tarn-0.1+1"]:
            for program in ["tarn-collect", "tarn-report"]:
                with self.subTest(f"{prefix} {program}"):
                    source = (options.source / f"packaging/{program}.service").read_text()
                    unit = install(self.folder, prefix) / f"lib/systemd/system/{program}.service"
                    expected = source.replace(f"=/usr/bin/{program}", f"={prefix}/bin/{program}")
                    self.assertEqual(unit.read_text(), expected)

    def test_the_units_expose_little(self):
        units = install(self.folder, "/usr") / "lib/systemd/system"
        for unit in sorted(units.glob("*.service")):
            with self.subTest(unit.name):
                said = subprocess.run(
                    ["systemd-analyze", "security", "--offline=yes", "--no-pager", unit], capture_output=True, text=True
                )
                level = re.search(r"Overall exposure level for \S+: ([\d.]+)", said.stdout)
                self.assertIsNotNone(level, said.stdout + said.stderr)
                self.assertLessEqual(float(level[1]), MOST_EXPOSURE)

    def test_the_units_are_understood(self):
        units = install(self.folder, "/usr") / "lib/systemd/system"
        for unit in sorted(units.iterdir()):
            # It looks for the programs, too.
            unit.write_text(unit.read_text().replace("=/usr/bin/", f"={self.folder}/usr/bin/"))
        said = subprocess.run(
            ["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", *sorted(units.iterdir())],
            capture_output=True,
            text=True,
        )
        self.assertEqual((said.returncode, said.stderr), (0, ""))

    def test_a_collector_that_cannot_start_is_tried_again_calmly_and_for_ever(self):
        unit = (install(self.folder, "/usr") / "lib/systemd/system/tarn-collect.service").read_text()
        for line in ["Restart=always", "RestartSec=30", "StartLimitIntervalSec=0"]:
            self.assertIn(f"\n{line}\n", unit)
        self.assertRegex(unit, r"\nAfter=.*\bpostgresql\.service\b")

    def test_users_are_made_as_the_units_want_them(self):
        users = install(self.folder, "/usr") / "lib/sysusers.d"
        root = self.folder / "root"
        (root / "etc").mkdir(parents=True)
        (root / "etc/group").write_text("adm:x:4:\n")
        subprocess.run(["systemd-sysusers", f"--root={root}", *sorted(users.iterdir())], check=True, capture_output=True)
        entries = [line.split(":") for line in (root / "etc/passwd").read_text().splitlines()]
        self.assertEqual(
            {entry[0]: entry[5:] for entry in entries},
            {name: ["/nonexistent", "/usr/sbin/nologin"] for name in ["tarn-collect", "tarn-report"]},
        )
        self.assertIn("adm:x:4:tarn-collect,tarn-report", (root / "etc/group").read_text())

    def test_the_program_runs_from_there(self):
        program = install(self.folder, "/usr") / "bin/tarn-collect"
        ended = subprocess.run([program, "--help"], capture_output=True, text=True, timeout=30)
        self.assertEqual(ended.returncode, 0, ended.stderr)
        self.assertIn("--config", ended.stdout)

    def test_the_documents_name_what_is_there(self):
        install(self.folder, "/usr")
        documents = [options.source / "README.md", *(options.source / "docs").glob("*.md")]
        texts = "".join(document.read_text() for document in documents)
        named = {path for path in re.findall(r"/usr/(?:s?bin|lib|share)/[\w./-]*\w", texts) if "tarn" in path}
        self.assertGreaterEqual(len(named), 2)
        for path in sorted(named):
            self.assertTrue((self.folder / path.lstrip("/")).exists(), path)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for name in ["cmake", "build", "source"]:
        parser.add_argument(f"--{name}", required=True, type=pathlib.Path)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
