"""Installs the build below a temporary DESTDIR, and holds what is there to files.txt, README.md and the unit."""

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

    def test_the_unit_follows_the_prefix(self):
        source = (options.source / "packaging/tarn-collect.service").read_text()
        for prefix in ["/usr", "/usr/local", "/opt/tarn-0.1+1"]:
            with self.subTest(prefix):
                unit = install(self.folder, prefix) / "lib/systemd/system/tarn-collect.service"
                expected = source.replace("=/usr/bin/tarn-collect\n", f"={prefix}/bin/tarn-collect\n")
                self.assertEqual(unit.read_text(), expected)

    def test_the_program_runs_from_there(self):
        program = install(self.folder, "/usr") / "bin/tarn-collect"
        ended = subprocess.run([program, "--help"], capture_output=True, text=True, timeout=30)
        self.assertEqual(ended.returncode, 0, ended.stderr)
        self.assertIn("--config", ended.stdout)

    def test_the_readme_names_what_is_there(self):
        install(self.folder, "/usr")
        named = set(re.findall(r"/usr/(?:bin|lib|share)/[\w./-]*\w", (options.source / "README.md").read_text()))
        self.assertGreaterEqual(len(named), 3)
        for path in sorted(named):
            self.assertTrue((self.folder / path.lstrip("/")).exists(), path)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for name in ["cmake", "build", "source"]:
        parser.add_argument(f"--{name}", required=True, type=pathlib.Path)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
