"""Holds every shell script of the tree to shellcheck."""

import argparse
import pathlib
import subprocess
import unittest

FOLDERS = [".ci", "debian", "debian/tests", "demo", "packaging", "scripts", "tests/package", "tests/report/browser"]

source = None


def is_shell_script(path):
    if not path.is_file():
        return False
    with path.open("rb") as file:
        return file.readline().rstrip() in (b"#!/bin/sh", b"#!/bin/bash")


class Lint(unittest.TestCase):
    def test_shell_scripts(self):
        scripts = [path for folder in FOLDERS for path in sorted((source / folder).glob("*")) if is_shell_script(path)]
        self.assertGreaterEqual(len(scripts), 10)
        said = subprocess.run(["shellcheck", *scripts], capture_output=True, text=True)
        self.assertEqual((said.returncode, said.stdout + said.stderr), (0, ""))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True, type=pathlib.Path)
    options, rest = parser.parse_known_args()
    source = options.source
    unittest.main(argv=[__file__, *rest])
