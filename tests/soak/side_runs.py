"""What takes its time: run once in real time, each with a daemon of its own, beside the soak."""

import collections
import contextlib
import threading
import time

from rig import rig
from sending_styles import large_fragments
from service import always

# `minutes` is what the whole soak must last for the row to be run.
row_t = collections.namedtuple("row_t", "name minutes answers_ping run")

rows = []

megabyte = 1024 * 1024
three_pings_missing = b"There are no 3 pong answer in a row from server"


def row(name, minutes, answers_ping=always):
    def enter(run):
        rows.append(row_t(name, minutes, answers_ping, run))
        return run
    return enter


def never(number):
    return False


def second_of_three(number):
    return number % 3 == 2


@row("keepalive: no ping answered", 2, never)
def no_ping_answered(side):
    """The connection is given up at the first callback after the third ping."""
    wait_for_pings(side, 2)
    expect_given_up(side, three_pings_missing, 88, 95)
    if side.pings != 3:
        side.violate(f"given up after {side.pings} pings")


@row("keepalive: one of three pings answered", 3, second_of_three)
def one_of_three_answered(side):
    """One pong within three pings keeps the connection; the fifth is the third without one."""
    wait_for_pings(side, 3)
    side.sleep(5)
    side.probe()
    wait_for_pings(side, 4)
    expect_given_up(side, three_pings_missing, 148, 157)
    if side.pings != 5:
        side.violate(f"given up after {side.pings} pings")


@row("keepalive: writeable callbacks stop", 2)
def writeable_callbacks_stop(side):
    """A service that does not read: the watchdog ends the connection after 60 seconds."""
    connection = side.connection
    side.service.read(connection, False)
    side.send_up([16 * megabyte], one_by_one=True)
    fired = side.log.await_line(b"websock-roaming->ping_timeout:197")
    side.sleep(50)
    if side.pings:
        side.violate("a ping while nothing could be written")
    expect_given_up(side, fired, 58, 65)


@row("keepalive: every ping answered", 10)
def every_ping_answered(side):
    """The one connection lasts ten minutes."""
    while time.monotonic() < side.began + 600:
        side.sleep(10)
        side.probe()
    if side.connections_made != 1 or not 18 <= side.pings <= 20:
        side.violate(f"{side.connections_made} connections and {side.pings} pings in ten minutes")


@row("10,000 tiny messages each way", 20)
def tiny_messages(side):
    last_up = side.send_up([1] * 10000)[-1]
    last_down = 0
    for _ in range(10000):
        last_down = side.send_down(size=1)
    side.wait(lambda: last_down in side.down.seen, "10,000 messages on the bus", 300)
    side.wait(lambda: last_up in side.up.seen, "10,000 messages at the service", 1500)


@row("16 MiB each way", 20)
def sixteen_megabytes(side):
    """The way down takes seven minutes: pongs must not be stuck behind more than 90 s of it."""
    up = side.send_up([16 * megabyte], one_by_one=True)[0]
    side.wait(lambda: up in side.up.seen, "16 MiB at the service", 120)
    down = side.send_down(large_fragments, 16 * megabyte, piecewise=True)
    side.wait(lambda: down in side.down.seen, "16 MiB on the bus")


def wait_for_pings(side, count):
    side.wait(lambda: side.pings >= count, f"{count} pings", 35 * count)


def expect_given_up(side, line, earliest, latest):
    """The daemon gives the connection up, says why, and makes the next."""
    said = side.log.await_line(line) if isinstance(line, bytes) else line
    with side.lock:
        connection = side.connection
        side.expect_drop(connection)
    side.wait(said.is_set, f"the log line of the end, {line!r}", latest)
    after = time.monotonic() - side.began
    if not earliest <= after <= latest:
        side.violate(f"the connection was given up after {after:.1f} s")
    side.service.drop(connection, "rst")
    side.wait(lambda: side.connections_made == 2, "the next connection")


class side_run(threading.Thread):
    """One row, with a daemon, a service and a bus of its own."""

    def __init__(self, row, folders, seed, interrupt):
        super().__init__(name=row.name, daemon=True)
        self.row = row
        self.seed = f"{row.name} {seed}"
        self.folders = folders
        self.interrupt = interrupt
        self.violations = []
        self.seconds = None

    def run(self):
        side = rig(*self.folders, self.seed, answers_ping=self.row.answers_ping,
                   interrupt=self.interrupt)
        self.name += f" ({side.daemon.name})"
        with contextlib.closing(side), side.judged():
            side.begin()
            side.began = time.monotonic()
            side.probe()
            self.row.run(side)
            side.probe()
            side.judge_status()
            self.seconds = time.monotonic() - side.began
        self.violations = [f"{self.name}: {text}" for text in side.violations]
        if self.violations:
            self.interrupt.set()


class side_runs:
    """Those rows for which there is time; the others are named in the report.

    `interrupt` ends all of them, and is set when one of them fails.
    """

    def __init__(self, build_folder, companion_folder, minutes, seed, interrupt):
        self.left_out = [row for row in rows if row.minutes > minutes]
        self.runs = [side_run(row, (build_folder, companion_folder), seed, interrupt)
                     for row in rows if row.minutes <= minutes]

    def start(self):
        for run in self.runs:
            run.start()

    def wait(self):
        for run in self.runs:
            if run.ident:
                run.join()

    def violations(self):
        return [violation for run in self.runs for violation in run.violations]

    def report_lines(self):
        for run in self.runs:
            outcome = "FAILED" if run.violations else \
                "ended by hand" if run.seconds is None else f"as designed, {run.seconds:.0f} s"
            yield f"beside      {run.name}: {outcome}"
        for row in self.left_out:
            yield f"not run     {row.name}: takes a run of {row.minutes:g} minutes"
