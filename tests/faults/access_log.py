"""An access log with numbered lines, written by a thread of its own as a busy web server writes, and rotated as
logrotate does. It remembers where each line went: the account of a fault is about them."""

import os
import shutil
import threading
import time

PAUSE_SECONDS = 0.01


def numbered_line(number):
    """The number stands twice in it, so that a torn line is known as one."""
    request = f'"GET /{number} HTTP/1.1" 200 {number}'
    return f'192.0.2.{number % 250} - - [10/Oct/2024:13:55:36 +0000] {request} "-" "curl/8.5" 99\n'.encode()


class AccessLog:
    def __init__(self, path):
        self.path = path
        self.lock = threading.Lock()
        self.pending = b""  # the rest of the last line
        self.places = []  # of each line: the file's number, its first byte there, and the byte behind it
        self.number = 0  # of the file
        self.place = 0  # the end of the last line, pending or not
        self.writer = None
        self.ends = threading.Event()
        self.file = self.open()

    def open(self):
        return os.open(self.path, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)

    def __len__(self):
        return len(self.places)

    def write(self, lines_per_second, torn=True):
        """Has lines appended until stop(). Pieces end anywhere in a line if they are `torn`."""

        def work():
            begin, written = time.monotonic(), 0
            while not self.ends.wait(PAUSE_SECONDS):
                due = int((time.monotonic() - begin) * lines_per_second)
                with self.lock:
                    self.add(due - written)
                    self.flush(len(self.pending) - (due % 40 if torn else 0))
                written = due

        self.ends.clear()
        self.writer = threading.Thread(target=work, daemon=True)
        self.writer.start()

    def append(self, lines):
        with self.lock:
            self.add(lines)
            self.flush(len(self.pending))

    def stop(self):
        """Ends write(), with a whole line."""
        self.ends.set()
        if self.writer:
            self.writer.join()
        with self.lock:
            self.flush(len(self.pending))

    def move_to(self, target):
        """Renames the file. The writer goes on in it until reopen(), as a web server does."""
        os.rename(self.path, target)

    def reopen(self):
        with self.lock:
            self.flush(len(self.pending))
            os.close(self.file)
            self.file = self.open()
            self.begin_file()

    def copy_and_cut(self, target):
        shutil.copyfile(self.path, target)
        with self.lock:
            self.flush(len(self.pending))
            os.ftruncate(self.file, 0)
            self.begin_file()

    def state(self):
        """Inode and size, as the collector stores them."""
        status = os.fstat(self.file)
        return [str(status.st_ino), str(status.st_size)]

    def begin_file(self):
        self.number += 1
        self.place = 0

    def add(self, lines):
        for _ in range(lines):
            line = numbered_line(len(self.places) + 1)
            self.places.append((self.number, self.place, self.place + len(line)))
            self.place += len(line)
            self.pending += line

    def flush(self, size):
        if size > 0:
            os.write(self.file, self.pending[:size])
            self.pending = self.pending[size:]
