"""One daemon at a time: a start ends the process that the PID file names."""

# Test: 18 s

import os
import pathlib
import random
import signal
import subprocess
import time

import pytest

from harness.round_trip import passes_both_ways
from harness.traffic import bus_traffic, is_strictly_in_order
from harness.vemk_daemon import config_text
from harness.waiting import wait_until

seed = 20240607


def wait_for_pid_file(place, daemon):
    wait_until(lambda: place.pid_file_text() == f"{daemon.pid}\n",
               f"process ID {daemon.pid} in the PID file")


def is_past_the_pid_file(daemon):
    try:
        return not daemon.runs() or "ipc" in daemon.thread_names()
    except OSError:
        return False


def ended_process():
    process = subprocess.Popen(["true"])
    process.wait()
    return process.pid


# Empty, blank, a word or a PID that is gone: the daemon starts and writes its own.
@pytest.mark.parametrize("content", ["", "\n", "none\n", f"{ended_process()}\n"],
                         ids=["empty", "blank", "word", "stale"])
def test_pid_file_without_a_living_process_does_no_harm(place, make_rig, content):
    place.pid_file.write_text(content)
    daemon, bus, server = make_rig()
    wait_for_pid_file(place, daemon)


# A process that is no daemon gets SIGTERM as well.
def test_whatever_process_the_pid_file_names_is_ended(place, make_rig, bystander):
    place.pid_file.write_text(f"{bystander.pid}\n")
    daemon, bus, server = make_rig()
    assert bystander.wait(20) == -signal.SIGTERM
    wait_for_pid_file(place, daemon)


def make_link(path):
    target = path.with_name("target")
    target.write_text("some text\n")
    path.symlink_to(target)


# With a folder, a FIFO or a link in the PID file's place the daemon connects and stays.
@pytest.mark.parametrize("put", [pathlib.Path.mkdir, os.mkfifo, make_link],
                         ids=["folder", "fifo", "link"])
def test_pid_file_that_cannot_be_written_is_no_obstacle(place, make_rig, put):
    put(place.pid_file)
    daemon, bus, server = make_rig()
    assert daemon.runs()
    if put == make_link:
        assert place.pid_file.read_text() == "some text\n"


# Fault, in the process: two daemons started within 0 to 10 ms of each other, 8 times, by a seed.
# Seen: the later one ends the earlier one by SIGTERM; where both have read the PID file before one
# wrote it, both live, one of them on the bus. One is never missing, and every message arrives once.
def test_two_daemons_started_at_the_same_instant(place, make_daemon, bus, server):
    print(f"seed {seed}")
    chance = random.Random(seed)
    bus.listen()
    for number in range(8):
        place.pid_file.write_text("4194305\n" if number % 2 else "")
        bus.received.clear()
        server.frames.clear()
        pair = [make_daemon(), make_daemon()]
        for daemon in pair:
            daemon.end_expected = True
            daemon.start(config_text(server.url))
            time.sleep(chance.random() * 0.01)
        wait_until(lambda: all(map(is_past_the_pid_file, pair)), "both past the PID file")
        bus.wait_until_connected()
        living = [daemon for daemon in pair if daemon.runs()]
        assert place.pid_file_text() in [f"{daemon.pid}\n" for daemon in living]
        assert all(daemon.process.returncode == -signal.SIGTERM
                   for daemon in pair if daemon not in living)
        bus.send(b"once")
        bus.send(b"and no more")
        assert server.wait_for_payloads(2) == [b"once", b"and no more"]
        for daemon in living:
            daemon.stop()


# Fault, in the process: a daemon is replaced three times while messages flow both ways.
# Seen: each ends by SIGTERM at once, and the PID file names its successor; nothing arrives twice,
# altered or out of order; what the old one held is lost, and everything arrives again once the new
# one is connected.
def test_replaced_while_messages_flow(place, make_rig, make_daemon):
    daemon, bus, server = make_rig(log_level=15)
    wait_for_pid_file(place, daemon)
    with bus_traffic(bus, server) as traffic:
        for number in range(3):
            successor = make_daemon().start(config_text(server.url, log_level=15))
            assert daemon.wait_for_exit() == -signal.SIGTERM
            daemon = successor
            wait_for_pid_file(place, daemon)
            server.wait_for_connections(number + 2)
            arrived = len(bus.payloads()), len(server.payloads())
            bus.wait_for_payloads(arrived[0] + 5)
            server.wait_for_payloads(arrived[1] + 5)
    up, down = traffic.arrived()
    assert is_strictly_in_order(up, traffic.sent_up)
    assert is_strictly_in_order(down, traffic.sent_down)
    assert bus.statuses()[-1] == "connected"
    assert passes_both_ways(bus, server, "after the replacements")
    assert server.frames[-1].connection == len(server.handshakes) == 4
    assert daemon.runs()
