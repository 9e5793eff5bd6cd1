"""Holds scripts/mutants to the changes that it finds in a text, and to what it says of a project of two files."""

import argparse
import importlib.machinery
import importlib.util
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

options = None


def changed(text):
    """The text after each change."""
    loader = importlib.machinery.SourceFileLoader("mutants", str(options.source / "scripts/mutants"))
    mutants = importlib.util.module_from_spec(importlib.util.spec_from_loader("mutants", loader))
    loader.exec_module(mutants)
    return [text[: m.start] + m.text + text[m.end :] for m in mutants.mutants_of(text)]


class Changes(unittest.TestCase):
    def test_each_kind(self):
        for text, expected in [
            ("x = a == b;", ["x = a != b;"]),
            ("x = a <= b;", ["x = a < b;"]),
            ("x = a\n    && b;", ["x = a\n    || b;"]),
            ("x = a + b;", ["x = a - b;"]),
            ("x = 0;", ["x = 1;"]),
            ("x = 1'024;", ["x = 1025;", "x = 1023;"]),
            ("x = true;", ["x = false;"]),
            ("x = a ? f(b, c) : d;", ["x = a ? d : f(b, c);"]),
            ("f(a ? b : c);", ["f(a ? c : b);"]),
            ("if (a)", ["if (!(a))"]),
            ("if (T a = b; f(a))", ["if (T a = b; !(f(a)))"]),
            ("if (!a)", ["if (a)"]),
            ("if (a == b)", ["if (a != b)"]),
            ('if (a("&") < b)', ['if (!(a("&") < b))', 'if (a("&") <= b)']),
            ("{\n    f(a,\n      b);\n}", ["{\n    ;\n}"]),
            ("{\n    a.b = c;\n}", ["{\n    ;\n}"]),
            ("{\n    continue;\n}", ["{\n    ;\n}"]),
        ]:
            with self.subTest(text):
                self.assertEqual(sorted(changed(text)), sorted(expected))

    def test_what_is_left_alone(self):
        for text in [
            "// a == b",
            "/* 1\n 2 */",
            'f("a == 1 \\" 2");',
            "x = '1';",
            "#if 1 == 2",
            "static_assert(1 == 2);",
            "std::vector<int> v;",
            "T&& x;",
            "int8_t x;",
            "{\n    T a(b);\n}",
            "{\n    return f(a);\n}",
        ]:
            with self.subTest(text):
                self.assertEqual(changed(text), [])


UNIT = """void step(int& i)
{
    i += 2;
}
int upTo(int n)
{
    int i = 0;
    while (i < n) {
        step(i);
    }
    return i;
}
"""

TEST = """int upTo(int);
int main() { return upTo(1) == 2 && upTo(3) == 4 ? 0 : 1; }
"""

PROJECT = """cmake_minimum_required(VERSION 3.25)
project(small LANGUAGES CXX)
if(TARN_BUILD_TESTS)
    add_executable(tst_Unit src/Unit.cpp tests/tst_Unit.cpp)
endif()
"""


class SmallProject(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="tarn-mutants-")
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        self.write("src/Unit.cpp", UNIT)
        self.write("tests/tst_Unit.cpp", TEST)
        self.write("CMakeLists.txt", PROJECT)
        (self.root / "scripts").mkdir()
        shutil.copy(options.source / "scripts/mutants", self.root / "scripts/mutants")

    def write(self, name, text):
        (self.root / name).parent.mkdir(exist_ok=True)
        (self.root / name).write_text(text)

    def run_it(self, *arguments):
        path = f"{options.cmake.parent}:{os.environ['PATH']}"
        return subprocess.run(
            [sys.executable, "-B", self.root / "scripts/mutants", "src/Unit.cpp", *arguments],
            cwd=self.root, env={**os.environ, "PATH": path}, capture_output=True, text=True,
        )

    def test_survivors_are_shown(self):
        listed = self.run_it("--list", "--lines", "7-9").stdout
        self.assertIn("src/Unit.cpp:8:14: < -> <=\n       while (i < n) {", listed)
        # "i <= n" differs at even numbers only, which the test does not try; the loop without its step does not end.
        ended = self.run_it("--lines", "8-9", "--jobs", "2")
        self.assertEqual(ended.returncode, 0, ended.stderr)
        self.assertIn("src/Unit.cpp:8:14: < -> <=", ended.stdout)
        self.assertNotIn("step(i)", ended.stdout)
        self.assertTrue(ended.stdout.endswith("\n1 hung, 1 survived\n"), ended.stdout)
        self.assertEqual((self.root / "src/Unit.cpp").read_text(), UNIT)

    def test_all_programs_of_the_unit_are_run(self):
        # What the first does not notice. The last is another unit's, and fails.
        self.write("tests/tst_UnitEven.cpp", TEST.replace("upTo(3) == 4", "upTo(2) == 2"))
        self.write("src/UnitOther.cpp", "")
        self.write("tests/tst_UnitOther.cpp", "int main() { return 1; }\n")
        self.write("CMakeLists.txt", PROJECT.replace("endif()", "".join(
            f"    add_executable(tst_{name} src/Unit.cpp tests/tst_{name}.cpp)\n" for name in ["UnitEven", "UnitOther"]
        ) + "endif()"))
        ended = self.run_it("--lines", "8-8")
        self.assertTrue(ended.stdout.endswith("\n1 killed\n"), ended.stdout + ended.stderr)
        ended = self.run_it("--lines", "8-8", "--test", "tst_Unit")
        self.assertTrue(ended.stdout.endswith("\n1 survived\n"), ended.stdout + ended.stderr)

    def test_a_test_that_fails_anyway_says_nothing(self):
        self.write("tests/tst_Unit.cpp", "int main() { return 1; }\n")
        ended = self.run_it("--lines", "8-9")
        self.assertNotEqual(ended.returncode, 0)
        self.assertIn("tst_Unit fails without any change", ended.stderr)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for name in ["cmake", "source"]:
        parser.add_argument(f"--{name}", required=True, type=pathlib.Path)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
