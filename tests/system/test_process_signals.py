"""SIGTERM at any moment of a daemon's life, other signals, and suspension."""

# Test: 35 s

import concurrent.futures
import functools
import os
import random
import signal
import subprocess
import time

import pytest

from harness.pacing import steps_only
from harness.raw_server import raw_server, silent, upgrade
from harness.round_trip import passes_both_ways
from harness.sandbox import sandbox
from harness.vemk_daemon import config_text, vemk_daemon
from harness.waiting import slowdown

seed = 20240608
moments = 40
latest_moment = 1.5


def upgrade_and_close(server, connection, request):
    upgrade_and_send(server, connection, request, frames=1)
    connection.close()


def upgrade_and_send(server, connection, request, frames=20000):
    server.read_frames = lambda connection: None
    upgrade(server, connection, request)
    for _ in range(frames):
        connection.sendall(b"\x81\x05hello")


behaviours = {"silent": silent, "upgrade": upgrade, "closes": upgrade_and_close,
              "sends": upgrade_and_send}


def end_one(folders, behaviour, moment):
    """One daemon's life in a sandbox of its own. Returns what was wrong, or nothing."""
    place = sandbox(*folders, os.environ.get("VEMK_RUNNER_DIR"))
    server = raw_server(behaviours[behaviour])
    daemon = vemk_daemon(place, "daemon")
    sender = None
    try:
        began = time.monotonic()
        daemon.start(config_text(server.url, log_level=15))
        sender = subprocess.Popen(
            [place.companion_folder / "vemkctl", "--bus", place.bus_folder, "send", "--lines",
             "--timeout", "3", "-"], stdin=subprocess.PIPE, stderr=subprocess.DEVNULL)
        sender.stdin.write(b"message\n" * 1000)
        sender.stdin.flush()
        time.sleep(max(0, began + moment - time.monotonic()))
        if not daemon.runs():
            return f"{behaviour}: ended by itself with status {daemon.process.returncode}"
        daemon.end_expected = True
        daemon.process.terminate()
        status = daemon.process.wait(slowdown)
        recorded = place.pid_file_text()
        if status != -signal.SIGTERM:
            return f"{behaviour}, after {moment:.3f} s: status {status}"
        if recorded not in ("", f"{daemon.pid}\n"):
            return f"{behaviour}, after {moment:.3f} s: PID file with {recorded!r}"
        return daemon.output() + "".join(daemon.problems())
    finally:
        if sender:
            sender.kill()
            sender.communicate()
        if daemon.runs():
            daemon.process.kill()
            daemon.process.wait()
        server.shut_down()
        place.remove()


# Fault, in the process: SIGTERM at 40 moments of the first 1.5 s, drawn by a seed: at the start,
# waiting, connecting, connected, dropping, with messages both ways.
# Seen: the daemon ends by SIGTERM within a second each time, writes no other line, leaves its PID.
def test_sigterm_at_any_moment(build_folder, companion_folder):
    print(f"seed {seed}")
    chance = random.Random(seed)
    names = list(behaviours)
    plans = [(names[i % len(names)], chance.random() * latest_moment) for i in range(moments)]
    end = functools.partial(end_one, (build_folder, companion_folder))
    with concurrent.futures.ThreadPoolExecutor(max_workers=4) as pool:
        problems = [problem for problem in pool.map(lambda plan: end(*plan), plans) if problem]
    assert problems == []


# Fault, in the process: SIGTERM, SIGINT or SIGHUP while connected.
# Seen: as any process without a handler the daemon ends by it; the PID file stays.
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_signals_without_a_handler_end_the_daemon(make_rig, place, number):
    daemon, bus, server = make_rig()
    daemon.process.send_signal(number)
    assert daemon.wait_for_exit() == -number
    assert place.pid_file.read_text() == f"{daemon.pid}\n"


# Fault, in the process: SIGPIPE, ten times, while it waits and while it is connected.
# Seen: nothing: the daemon carries messages and its connection stays.
def test_sigpipe_never_ends_the_daemon(make_daemon, bus, server):
    server.stop()
    bus.listen()
    daemon = make_daemon().start(config_text(server.url, log_level=8))
    daemon.wait_for_lines("Delay before connection", count=2)
    for _ in range(10):
        daemon.process.send_signal(signal.SIGPIPE)
    server.start()
    bus.wait_until_connected()
    for _ in range(10):
        daemon.process.send_signal(signal.SIGPIPE)
    assert passes_both_ways(bus, server, "after the signals")
    assert len(server.handshakes) == 1


def suspend(daemon, seconds, meanwhile=lambda: None):
    daemon.process.send_signal(signal.SIGSTOP)
    meanwhile()
    time.sleep(seconds)
    daemon.process.send_signal(signal.SIGCONT)


# Fault, in the process: SIGSTOP while connected, and SIGCONT 9 seconds later.
# Seen: what the server sent meanwhile arrives, on the same connection; nothing is announced and
# there is no "Time error" line.
def test_suspended_for_nine_seconds_goes_on(make_rig):
    daemon, bus, server = make_rig(log_level=8)
    announced = len(bus.statuses())
    suspend(daemon, 9, meanwhile=lambda: server.send("sent to a suspended daemon"))
    assert bus.wait_for_payloads(1) == [b"sent to a suspended daemon"]
    assert passes_both_ways(bus, server, "resumed")
    assert len(server.handshakes) == 1
    assert bus.statuses()[announced:] == []
    assert daemon.lines_with("Time error") == []


# Fault, in the process: SIGSTOP while the daemon waits to connect, and SIGCONT 9 seconds later,
# after the wait's end.
# Seen: there is no "Time error" line, and the daemon connects.
def test_suspended_for_nine_seconds_while_it_waits_connects(make_daemon, bus, server):
    bus.listen()
    daemon = make_daemon().start(
        config_text(server.url, initial_delay=4, max_delay=4, log_level=8))
    daemon.wait_for_lines("Delay before connection")
    suspend(daemon, 9)
    bus.wait_until_connected()
    assert passes_both_ways(bus, server, "resumed")
    assert daemon.lines_with("Time error") == []


# Fault, in the process: SIGSTOP, and SIGCONT 15 seconds later.
# Seen: the line "time_monotonic: Time error, need restart, expired [NOW] [BEFORE] cnt 10" and the
# end with status 255; started again, the daemon connects.
@steps_only("between pings the daemon waits for up to 30 s, and allows 10 s more")
def test_suspended_for_fifteen_seconds_ends(make_rig, make_daemon):
    daemon, bus, server = make_rig(log_level=8)
    announced = len(bus.statuses())
    suspend(daemon, 15)
    assert daemon.wait_for_exit() == 255
    errors = [line.text for line in daemon.lines_with("Time error")]
    assert len(errors) == 11 and errors[10].endswith(" cnt 10")
    make_daemon().start(config_text(server.url))
    bus.wait_for_last_status("connected", after=announced)
    assert passes_both_ways(bus, server, "started again")
