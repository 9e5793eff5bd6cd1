"""Holds the manual pages to the sources: each message, each key that is read, and the formatters' own checks."""

import argparse
import functools
import pathlib
import re
import subprocess
import sys
import unittest

options = None

COLLECTOR = ["src/collect", "src/analytics", "src/common"]
REPORT = ["src/report"]
# What a program of src/report can say of its start and of the database.
REPORT_SHARES = ["src/common/Config.cpp", "src/common/Db.cpp"]
REPORT_NEVER = {"database: reconnect failed: %", "database: reconnected"}

# Libraries say these.
FOREIGN = {
    "Unable to free statement: %",
    "FATAL: terminating connection %",
    "QObject::startTimer: Timers cannot have negative intervals",
}

# Texts in which there is no message, by file.
NO_MESSAGES = {
    "Classifier.cpp": "names to show",
    "NotifyText.cpp": "messages to people",
    "Settings.h": "the settings' own table",
}
# Texts of other files that are no message of the log.
OTHER_TEXTS = {
    "Configuration file.": "the help",
    "DEALLOCATE": "a statement",
    ";options='-c client_min_messages=warning'": "an option of the session",
    "tarn-collect (gzip)": "a header",
    "Accept-Encoding: identity": "a header",
    "text/plain; charset=utf-8": "a header",
    "Basic": "a header",
    "Bearer": "a header",
    "To:": "a header of a mail",
    "Subject:": "a header of a mail",
    "From: Tarnhold <": "a header of a mail",
    r"\r\nDate:": "a header of a mail",
    r">\r\nMIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: base64\r\n\r\n": (
        "headers of a mail"
    ),
    "ddd, dd MMM yyyy HH:mm:ss": "a form of time",
    "Total Accesses": "a line of Apache's status page",
    "Total kBytes": "a line of Apache's status page",
    "openid email https://www.googleapis.com/auth/webmasters.readonly": "a part of an address",
    "to % via %:%": "told to the panel",
    "Google did not return a refresh token": "told to the panel, which connects",
    "could not store the connection": "told to the panel, which connects",
    "no daily totals in the data": "of a document that no synchronisation stores",
}

TOKEN = re.compile(
    r"""(?P<comment>//[^\n]*|/\*.*?\*/)
      | (?:u8|u|L)?"(?P<text>(?:[^"\\\n]|\\.)*)"(?:_s|_L1)?
      | (?P<code>\b\d[\w'.]*|'(?:[^'\\\n]|\\.)+'|\w+|[^\s"'\w]|')
      | \s+""",
    re.DOTALL | re.VERBOSE,
)
# The beginnings of SQL and SMTP.
COMMAND = re.compile(
    r"[ (?,]*(SELECT|INSERT|UPDATE|DELETE|WITH|WHERE|FROM|TRUNCATE|EXISTS|ON CONFLICT|VALUES|CAST|count\(|"
    r"(ROLLBACK TO |RELEASE )?SAVEPOINT|EHLO|AUTH|MAIL FROM|RCPT TO)"
)
PROSE = re.compile(r"[A-Za-z]{2}.* .*[A-Za-z]|[A-Za-z]{2,}:? $")


def texts(source):
    """(code before it, text) for each string of a C++ source; strings that stand side by side are one."""
    run, code = None, ""
    for token in TOKEN.finditer(source):
        if token["text"] is not None:
            run = (run or "") + token["text"]
        elif token["code"]:
            if run is not None:
                yield code, run
                run = None
            code = (code + token["code"])[-60:]


def plain(text):
    """A C++ text with % for each place that is filled in."""
    text = re.sub(r"%(?:[1-9]|lld|d|s)", "%", text.replace(r"\"", '"'))
    return " ".join(text.split())


def messages(paths):
    """(what is logged as it stands, what looks like a part of it) of the sources in `paths`."""
    logged, parts = set(), set()
    for path in paths:
        if path.name in NO_MESSAGES:
            continue
        for code, text in texts(path.read_text()):
            if re.search(r"\bq(Debug|Info|Warning|Critical|Fatal)\($", code):
                logged.add(plain(text))
            elif PROSE.search(text) and not COMMAND.match(text):
                parts.add(plain(text))
    return logged, parts


def sources(*names):
    found = []
    for name in names:
        path = options.source / name
        found += sorted(path.glob("*.[ch]*")) if path.is_dir() else [path]
    return found


def unmarked(line):
    """A line of a page without markup, and % for each place that is filled in: what stands in italics."""
    line = re.sub(r"\\fI.*?(?=\\f[BR]|$)", "%", line)
    line = re.sub(r"\\f[BR]", "", line)
    for mark, text in [(r"\-", "-"), (r"\(de", "°"), (r"\(aq", "'"), (r"\e", "\\")]:
        line = line.replace(mark, text)
    return " ".join(line.split())


@functools.cache
def page(name):
    return (options.source / "packaging" / name).read_text()


def entries(name):
    """The tags of the section MESSAGES, each with the first line of what is said about it."""
    section = page(name).split("\n.SH MESSAGES\n")[1].split("\n.SH ")[0]
    lines = section.splitlines()
    found, waiting = {}, []
    for before, line in zip(lines, lines[1:]):
        if before in (".TP", ".TQ"):
            waiting.append(unmarked(line))
        elif line not in (".TP", ".TQ"):
            found.update(dict.fromkeys(waiting, line))
            waiting = []
    return found


def pattern(message):
    return re.compile(".+".join(re.escape(part) for part in message.split("%")))


class Manuals(unittest.TestCase):
    def assert_none(self, found):
        self.assertEqual(sorted(found), [])

    def test_every_message_is_explained(self):
        tags = entries("tarn-collect.8")
        logged, parts = messages(sources(*COLLECTOR))
        self.assertGreater(len(logged), 20)
        self.assertGreater(len(parts), 60)
        self.assert_none(m for m in logged if not any(pattern(m).fullmatch(tag) for tag in tags))
        # A message without a place of its own has an entry of its own, whatever is said of the general one.
        self.assert_none(m for m in logged if "%" not in m and m not in tags)
        self.assert_none(p for p in parts - OTHER_TEXTS.keys() if not any(p in tag for tag in tags))

    def test_every_message_of_the_report_is_explained(self):
        tags = entries("tarn-report.1")
        logged = messages(sources(*REPORT, *REPORT_SHARES))[0] - REPORT_NEVER
        self.assertGreater(len(logged), 8)
        self.assert_none(m for m in logged if not any(pattern(m).fullmatch(tag) for tag in tags))

    def test_every_entry_is_a_message(self):
        for name, folders in [("tarn-collect.8", COLLECTOR), ("tarn-report.1", [*REPORT, *REPORT_SHARES])]:
            logged, parts = messages(sources(*folders))
            # "%" and "sql: %" would cover anything.
            wanted = [pattern(m) for m in logged if m.strip("% ")]
            held = parts | FOREIGN | {"%", "interrupted"}
            for tag in entries(name):
                known = any(w.fullmatch(tag) for w in wanted) or any(p in tag for p in held if p != "%")
                self.assertTrue(known or tag in held, f"{name}: {tag}")

    def test_every_entry_says_something(self):
        for name in ["tarn-collect.8", "tarn-report.1"]:
            self.assert_none(tag for tag, text in entries(name).items() if not re.match(r"\w|\\fB", text))

    def test_texts_that_are_no_messages_are_there(self):
        parts = messages(sources(*COLLECTOR))[1]
        self.assert_none(OTHER_TEXTS.keys() - parts)

    def test_every_key_that_is_read_is_in_the_manual(self):
        keys = set()
        for path in sources(*COLLECTOR, *REPORT):
            keys |= {text for _, text in texts(path.read_text()) if re.fullmatch(r"[a-z]+/[a-z_]+", text)}
        keys -= {"application/json", "text/html", "text/plain"}
        known, section = set(), ""
        for line in page("tarnhold.ini.5").splitlines():
            if match := re.fullmatch(r"\.SS \[(\w+)\]", line):
                section = match[1]
            if match := re.fullmatch(r"\\fB(\w+)\\fR", line):
                known.add(f"{section}/{match[1]}")
        self.assertGreater(len(keys), 25)
        self.assert_none(keys - known)

    def test_the_formatters_find_no_fault(self):
        pages = sorted((options.source / "packaging").glob("*.[1-8]"))
        self.assertGreaterEqual(len(pages), 3)
        for path in pages:
            for command in [
                ["mandoc", "-T", "lint", "-W", "warning", path],
                ["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", path],
            ]:
                with self.subTest(command):
                    ended = subprocess.run(command, capture_output=True, text=True, timeout=60)
                    said = ended.stdout if command[0] == "mandoc" else ""
                    self.assertEqual((ended.returncode, said + ended.stderr), (0, ""))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True, type=pathlib.Path)
    options, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
