"""Reads a daemon's log while it grows."""

import collections
import re
import subprocess
import threading

from harness.vemk_daemon import report_pattern
from repeating import repeating
from status_model import established, stopped

kept_lines = 60
read_step_seconds = 0.05
# What has been read is given back to the file system, so that a night's run fills no disk.
punch_bytes = 64 * 1024 * 1024

line_start = re.compile(rb"\d{4}-\d\d-\d\d ")
event_pattern = re.compile(rb"(Connection established - reset connection delay|->Stopping)$")


class log_tail:
    """Collects the daemon's own events, the sanitizers' reports and the last lines.

    Neither dumps nor lines of the WebSocket library count among the last lines, but what follows
    the beginning of a sanitizer's report does.
    """

    def __init__(self, log_file):
        self.path = log_file
        self.events = []
        self.reports = []
        self.last = collections.deque(maxlen=kept_lines)
        self.awaited = {}
        self.position = 0
        self.punched = 0
        self.rest = b""
        self.reading = repeating(self.read_on, read_step_seconds)
        self.reading.start()

    def read_on(self):
        with open(self.path, "rb") as stream:
            stream.seek(self.position)
            data = stream.read()
        self.position += len(data)
        *lines, self.rest = (self.rest + data).split(b"\n")
        for line in lines:
            self.take(line)
        if self.position - self.punched > punch_bytes:
            self.punched = self.position
            subprocess.run(["fallocate", "--punch-hole", "--offset", "0", "--length",
                            str(self.position), str(self.path)], stderr=subprocess.DEVNULL)

    def take(self, line):
        is_own = line_start.match(line) and b"|websock-worker> portal->" not in line
        if is_own or self.reports:
            self.last.append(line)
        found = event_pattern.search(line)
        if found:
            self.events.append(stopped if found[1].endswith(b"Stopping") else established)
        for text, event in list(self.awaited.items()):
            if line.endswith(text):
                event.set()
        if report_pattern.match(line.decode(errors="replace")):
            self.reports.append(line.decode(errors="replace"))
            self.last.append(line)

    def await_line(self, end):
        """An event that is set when a line that ends in this way is written from now on."""
        return self.awaited.setdefault(end, threading.Event())

    def stop(self):
        self.reading.stop()
        self.read_on()

    def last_lines(self):
        return [line.decode(errors="replace") for line in self.last]
