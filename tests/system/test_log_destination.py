"""A log that cannot be written, and standard descriptors that are closed."""

# Test: 11 s, native only
# An emulator does not bear the loss of descriptors.

import os
import subprocess

import pytest

from harness.round_trip import passes_both_ways


@pytest.fixture
def rig_with(make_rig):
    """Starts a daemon that logs everything, with these arguments of its start."""

    def start(**options):
        rig = make_rig(options, log_level=15)
        assert passes_both_ways(rig.bus, rig.server, "connected")
        return rig

    return start


def lives_through_a_reconnect(daemon, bus, server):
    announced = len(bus.statuses())
    server.close(1001)
    bus.wait_for_last_status("connected", after=announced + 2)
    return passes_both_ways(bus, server, "connected again") and daemon.runs()


def full_device():
    return os.open("/dev/full", os.O_WRONLY)


def pipe_without_a_reader():
    reading, writing = os.pipe()
    os.close(reading)
    return writing


# Fault, in the process: standard error or standard output is /dev/full, or a pipe whose reader has
# gone.
# Seen: the lines are lost, and nothing is written to standard output; SIGPIPE does not end the
# daemon, it carries messages and reconnects.
@pytest.mark.parametrize("stream", ["log_to", "output_to"])
@pytest.mark.parametrize("destination", [full_device, pipe_without_a_reader])
def test_standard_stream_that_takes_nothing(rig_with, stream, destination):
    descriptor = destination()
    rig = rig_with(**{stream: descriptor})
    os.close(descriptor)
    assert lives_through_a_reconnect(*rig)


# Fault, in the process: the log file is /dev/full.
# Seen: the lines are lost; the daemon carries messages and reconnects.
def test_log_file_on_a_full_device(rig_with):
    daemon, bus, server = rig_with(environment={"ZANDOR_LOG_FILE": "/dev/full"})
    assert lives_through_a_reconnect(daemon, bus, server)
    assert daemon.log_text() == ""


# Fault, in the process: the file system of the log file is full, later it is not.
# Seen: the daemon carries messages and reconnects; the log file holds each line that was logged
# once there was room.
@pytest.mark.skipif(os.geteuid() != 0, reason="it mounts a file system")
def test_log_file_on_a_full_file_system(rig_with, place):
    folder = place.folder / "log"
    folder.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", folder], check=True)
    try:
        filler = folder / "filler"
        with open(filler, "wb", buffering=0) as file:
            while fills(file):
                pass
        log_file = folder / "vemk.log"
        daemon, bus, server = rig_with(environment={"ZANDOR_LOG_FILE": str(log_file)})
        assert log_file.read_bytes() == b""
        filler.unlink()
        assert lives_through_a_reconnect(daemon, bus, server)
        assert b"reset connection delay" in log_file.read_bytes()
        daemon.stop()
    finally:
        subprocess.run(["umount", "--lazy", folder], check=True)


def fills(file):
    try:
        return file.write(bytes(4096)) > 0
    except OSError:
        return False


# Fault, in the process: standard input, output and error are closed.
# Seen: no socket takes their places; the daemon carries messages and reconnects.
def test_closed_standard_descriptors(rig_with):
    daemon, bus, server = rig_with(runner=["sh", "-c", 'exec "$@" <&- >&- 2>&-', "closed"])
    links = [os.readlink(f"/proc/{daemon.pid}/fd/{number}") for number in range(3)]
    assert links == ["/dev/null"] * 3
    assert lives_through_a_reconnect(daemon, bus, server)
