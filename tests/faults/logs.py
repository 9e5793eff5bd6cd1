"""The log is rotated while it is written at full speed, and cannot be read for a while. What a rotation costs is what
was unread in the file that went, and nothing else."""

import re

# What the collector keeps up with on a busy machine: a backlog would be lost with each rotation.
LINES_PER_SECOND = 2000
# The longest line here has fewer bytes.
MOST_LINE_BYTES = 150


def stretches(log, copies):
    """Of each file its first line, and the first and the last that are stored; then a line between that is missing."""
    files = {}
    for number, (file, _, _) in enumerate(log.places, start=1):
        first_of_file, first, last = files.get(file, (number, None, None))
        if copies[number]:
            if last is not None and last != number - 1:
                return files, number - 1
            first, last = first or number, number
        files[file] = first_of_file, first, last
    return files, None


def account_of_files(walk, account, cut_in_place):
    """The stored lines of each file are one stretch. It begins with the file or, where a cut was not noticed, at the
    old place; and that of the last file ends with it."""
    files, missing = stretches(walk.log, account.copies)
    walk.expect(missing is None, f"line {missing} is missing between others of its file")
    place = 0
    for file, (first_of_file, first, last) in files.items():
        if first is None:
            continue
        start = walk.log.places[first - 1][1]
        at_old_place = cut_in_place and place <= start < place + MOST_LINE_BYTES
        begins_well = first == first_of_file or at_old_place
        walk.expect(begins_well, f"file {file} is stored from byte {start}, the old place was {place}")
        place = walk.log.places[last - 1][2]
    walk.expect(account.copies[-1] == 1, "the end of the last file is missing")
    walk.expect(account.doubled == 0, f"{account.doubled} lines are stored twice")
    return account


def renamed(walk, runs):
    walk.start()
    walk.log.write(LINES_PER_SECOND, torn=False)
    for _ in range(runs):
        walk.pause(1.5, 4)
        walk.log.move_to(f"{walk.folder}/access.log.1")
        walk.pause(0, 0.3)  # until the web server has reloaded
        walk.log.reopen()
    walk.pause(0, 1)
    account = account_of_files(walk, walk.settle(), cut_in_place=False)
    walk.expect_log(account, None)
    return account


def copied_and_cut(walk, runs):
    walk.start()
    walk.log.write(LINES_PER_SECOND, torn=False)
    for _ in range(runs):
        walk.pause(1.5, 4)
        walk.log.copy_and_cut(f"{walk.folder}/access.log.1")
    walk.pause(0, 1)
    account = account_of_files(walk, walk.settle(), cut_in_place=True)
    # The place is in the middle of a line if the log has grown past it before the next look.
    walk.expect_log(account, re.escape(f"collect: {walk.log.path}: 1 lines were not log entries"))
    walk.expect(len(account.log) <= runs, f"{len(account.log)} log lines")
    return account


def withheld(walk, runs, path):
    """Takes all modes from `path` for a while, again and again."""
    mode = path.stat().st_mode
    walk.collector.obey_file_modes()
    walk.start()
    walk.log.write(LINES_PER_SECOND)
    for _ in range(runs):
        walk.pause(0.5, 1.5)
        path.chmod(0)
        walk.pause(1, 4)
        path.chmod(mode)
    account = walk.settle()
    walk.expect(not account.lost and not account.doubled, f"lost: {account.lost[:20]}, doubled: {account.doubled}")
    return account


def folder_withheld(walk, runs):
    account = withheld(walk, runs, walk.folder)
    walk.expect_log(account, None)
    return account


def file_withheld(walk, runs):
    account = withheld(walk, runs, walk.folder / "access.log")
    # Once in each pass.
    walk.expect_log(account, re.escape(f"collect: cannot read {walk.log.path}"))
    walk.expect(account.log_rate <= 40, f"{account.log_rate} log lines a minute")
    return account


FAULTS = [
    ("log renamed", renamed, 2),
    ("log copied and cut", copied_and_cut, 2),
    ("folder unreadable", folder_withheld, 1),
    ("log unreadable", file_withheld, 1),
]
