"""pacing=event: the wake-ups of an idle daemon, and the memory that floods take."""

# Test: 30 s, native only, not under a sanitizer
# The sanitizers manage the memory themselves, and have a thread that wakes up.

import concurrent.futures
import pathlib
import time

import pytest

from harness.frames import opcode_ping
from harness.keepalive import fast_clock
from harness.preloaded import slow_bus
from harness.process_memory import peak_kib
from harness.round_trip import passes_both_ways

# A queue holds 1 MiB, and each message some bytes besides; a message that is sent is copied.
flood_limit_kib = 4 * 1024


@pytest.fixture
def make_event_rig(make_frame_rig):
    def make(speed, start_options=None, **server_options):
        clock = fast_clock(speed)
        more = start_options or {"preload": "", "environment": {}}
        return make_frame_rig(
            {"preload": f"{clock['preload']} {more['preload']}".strip(),
             "environment": {**clock["environment"], **more["environment"]}},
            {"answers_pings": True, **server_options}, log_level=4, event_pacing=True)

    return make


def wake_ups(daemon):
    """How often each of the daemon's own threads has slept so far."""
    counts = {}
    for task in pathlib.Path(f"/proc/{daemon.pid}/task").iterdir():
        name = (task / "comm").read_text().strip()
        fields = dict(line.split(":", 1) for line in (task / "status").read_text().splitlines())
        if not name.startswith("ZMQbg/"):
            counts[name] = int(fields["voluntary_ctxt_switches"])
    return counts


def expect_bounded(daemon, before_kib):
    assert peak_kib(daemon.pid) < before_kib + flood_limit_kib


# With answered pings and without messages its threads wake up 100 times at most in ten minutes.
def test_idle_daemon_wakes_up_ten_times_a_minute_at_most(make_event_rig):
    speed = 60
    daemon, bus, server = make_event_rig(speed)
    server.wait_for_frames(opcode_ping, 1)
    before = wake_ups(daemon)
    server.wait_for_frames(opcode_ping, 21)
    after = wake_ups(daemon)
    assert sum(after.values()) - sum(before.values()) <= 100
    assert len(server.connections) == 1


# Fault, while connected: with pacing=event, the server reads nothing for 20 seconds while a module
# sends 28 MB.
# Seen: the messages wait on the bus, and the daemon grows by less than 4 MiB; a message from the
# server reaches the bus meanwhile. When the server reads on, every message arrives once and in
# order, and a status request is answered.
def test_flood_from_the_bus_waits_on_the_bus(make_event_rig):
    speed = 4
    daemon, bus, server = make_event_rig(speed, receive_buffer=4096)
    messages = [b"%06d %s" % (i, b"x" * (i % 1400)) for i in range(40000)]
    go_on = server.stop_reading()
    bus.send(b"the last that is read")
    server.wait_for_payloads(1)
    before = peak_kib(daemon.pid)
    with concurrent.futures.ThreadPoolExecutor() as sending:
        sent = sending.submit(bus.send_lines, messages)
        time.sleep(20 / speed)
        server.send("meanwhile")
        assert bus.wait_for_payloads(1) == [b"meanwhile"]
        assert not sent.done()
        expect_bounded(daemon, before)
        go_on()
        assert server.wait_for_payloads(1 + len(messages), seconds=90)[1:] == messages
        sent.result()
    expect_bounded(daemon, before)
    assert bus.run("status", "--timeout", "20").stdout == b"connected\n"
    server.frames.clear()
    assert passes_both_ways(bus, server, "after the flood")
    assert len(server.connections) == 1


# Fault, on the bus: with pacing=event, it takes 4 ms over a KiB for more than three pings, while the
# server sends 8 MB.
# Seen: the messages wait in the connection, and the daemon grows by less than 4 MiB; the connection
# is kept, though the answers to its pings wait behind them. A message from the bus reaches the
# server meanwhile. Every message reaches the bus once and in order.
def test_flood_from_the_server_waits_in_the_connection(make_event_rig, place):
    slow = slow_bus(place)
    daemon, bus, server = make_event_rig(60, slow.start_options)
    messages = ["%06d %s" % (i, "y" * 8000) for i in range(1000)]
    before = peak_kib(daemon.pid)
    pings = len(server.frames_of(opcode_ping))

    def flood():
        for message in messages:
            server.send(message)
            # The server's answers to pings go between the messages.
            time.sleep(0.0001)

    with concurrent.futures.ThreadPoolExecutor() as sending:
        slow.pause(4000)
        sent = sending.submit(flood)
        bus.wait_for_payloads(1)
        bus.send(b"meanwhile")
        assert server.wait_for_payloads(1) == [b"meanwhile"]
        server.wait_for_frames(opcode_ping, pings + 5)
        assert len(bus.payloads()) < len(messages)
        slow.pause(0)
        heard = bus.wait_for_payloads(len(messages))
        sent.result()
    assert heard == [message.encode() for message in messages]
    expect_bounded(daemon, before)
    server.synchronise()
    assert passes_both_ways(bus, server, "after the flood")
    assert len(server.connections) == 1
