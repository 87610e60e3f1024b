"""One daemon at a time: a start ends the process that the PID file names."""

# Test: 5 s

import os
import pathlib
import signal
import subprocess

import pytest

from harness.vemk_daemon import config_text
from harness.waiting import wait_until


def wait_for_pid_file(place, daemon):
    wait_until(lambda: place.pid_file.exists() and place.pid_file.read_text() == f"{daemon.pid}\n",
               f"process ID {daemon.pid} in the PID file")


def ended_process():
    process = subprocess.Popen(["true"])
    process.wait()
    return process.pid


# The first ends by SIGTERM, the PID file names the second, which connects and passes messages.
def test_second_daemon_replaces_the_first(place, make_rig, make_daemon):
    first, bus, server = make_rig(log_level=15)
    wait_for_pid_file(place, first)
    second = make_daemon().start(config_text(server.url, log_level=15))
    assert first.wait_for_exit() == -signal.SIGTERM
    wait_for_pid_file(place, second)
    server.wait_for_connections(2)
    bus.wait_for_last_status("connected", after=2)
    bus.send(b"to the second")
    server.send("from the second")
    assert server.wait_for_payloads(1) == [b"to the second"]
    assert server.frames[0].connection == 2
    assert bus.wait_for_payloads(1) == [b"from the second"]
    assert second.runs()


# Empty, blank, a word or a PID that is gone: the daemon starts and writes its own.
@pytest.mark.parametrize("content", ["", "\n", "none\n", f"{ended_process()}\n"],
                         ids=["empty", "blank", "word", "stale"])
def test_pid_file_without_a_living_process_does_no_harm(place, make_rig, content):
    place.pid_file.write_text(content)
    daemon, bus, server = make_rig()
    wait_for_pid_file(place, daemon)


# A process that is no daemon gets SIGTERM as well.
def test_whatever_process_the_pid_file_names_is_ended(place, make_rig):
    bystander = subprocess.Popen(["sleep", "600"])
    try:
        place.pid_file.write_text(f"{bystander.pid}\n")
        daemon, bus, server = make_rig()
        assert bystander.wait(20) == -signal.SIGTERM
        wait_for_pid_file(place, daemon)
    finally:
        bystander.kill()
        bystander.wait()


# SIGTERM ends the daemon as a signal does, and its PID file is left.
def test_pid_file_stays_when_the_daemon_is_ended(place, make_rig):
    daemon, bus, server = make_rig()
    daemon.process.terminate()
    assert daemon.wait_for_exit() == -signal.SIGTERM
    assert place.pid_file.read_text() == f"{daemon.pid}\n"


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
