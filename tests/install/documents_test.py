"""Holds the documents to each other and to the tests: what they link to or name is there, and who begins at the start finds
all of them."""

import argparse
import functools
import pathlib
import re
import sys
import unittest

options = None

LINK = re.compile(r"(?<!!)\[[^\]]*\]\(([^)\s]+)\)")
FENCED = re.compile(r"^ *```.*?^ *```$", re.DOTALL | re.MULTILINE)


@functools.cache
def prose(path):
    """The document without its examples."""
    return FENCED.sub("", path.read_text())


def documents():
    folders = [".", "docs", "docs/decisions", "schema"]
    return [path for folder in folders for path in sorted((options.source / folder).glob("*.md"))]


def links(path):
    """(what is linked to, the heading in it or "") for each link that leads to a file of the project."""
    for target in LINK.findall(prose(path)):
        if not re.match(r"\w+:", target):
            name, _, heading = target.partition("#")
            yield (path.parent / name).resolve() if name else path, heading


def anchor(heading):
    """The name that a link uses for a heading."""
    kept = re.sub(r"[^\w\- ]", "", heading.replace("`", "").strip().lower())
    return kept.replace(" ", "-")


def anchors(path):
    return {anchor(line.lstrip("#")) for line in prose(path).splitlines() if re.match(r"#+ ", line)}


class Documents(unittest.TestCase):
    def test_every_link_leads_somewhere(self):
        seen = 0
        for path in documents():
            for target, heading in links(path):
                seen += 1
                with self.subTest(document=path.name, target=target.name, heading=heading):
                    self.assertTrue(target.exists())
                    if heading:
                        self.assertIn(heading, anchors(target))
        self.assertGreater(seen, 40)

    def test_every_test_that_is_named_exists(self):
        seen = 0
        for path in documents():
            for program, function in re.findall(r"`(tst_\w+)(?:::(\w+))?", prose(path)):
                seen += 1
                with self.subTest(document=path.name, program=program, function=function):
                    sources = list((options.source / "tests").glob(f"*/{program}.cpp"))
                    self.assertEqual(len(sources), 1)
                    if function and function != "cleanup":
                        self.assertRegex(sources[0].read_text(), rf"\bvoid (\w+::)?{function}\(")
        self.assertGreater(seen, 20)

    def test_every_document_is_found_from_the_first(self):
        first = options.source / "README.md"
        found, waiting = set(), [first.resolve()]
        while waiting:
            path = waiting.pop()
            if path not in found and path.suffix == ".md":
                found.add(path)
                waiting += [target for target, _ in links(path) if target.is_file()]
        # Decisions are found from the code that they are about.
        wanted = {path.resolve() for path in documents() if path.parent.name != "decisions"}
        self.assertEqual(sorted(p.name for p in wanted - found), [])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True, type=pathlib.Path)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
