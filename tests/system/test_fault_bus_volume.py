"""Floods from the bus and from the server, with the pauses between the workers' steps divided.

As designed a message leaves for the server every 100 ms; a hundred thousand would take three hours.
"""

# Test: 27 s, native only, not under a sanitizer
# The sanitizers keep the memory that was given back.

import contextlib
import socket
import struct

import pytest

from harness.preloaded import short_pauses
from harness.process_memory import peak_kib, pss_kib
from harness.round_trip import passes_both_ways
from harness.vemk_daemon import config_text
from harness.waiting import wait_until


@pytest.fixture
def pauses(place):
    return short_pauses(place)


@pytest.fixture
def start(make_daemon, server, pauses):

    def start_between():
        return make_daemon().start(config_text(server.url), environment=pauses.environment,
                                   preload=pauses.library)

    return start_between


def wait_for_pss_below(daemon, limit_kib):
    wait_until(lambda: pss_kib(daemon.pid) < limit_kib, f"PSS below {limit_kib} KiB",
               details=lambda: f"it is {pss_kib(daemon.pid)} KiB")


# Fault, on the bus: a flood of 100,000 messages, 30 MB, faster than the connection takes them.
# Seen: all wait in the daemon and arrive once, in order and unaltered; the next flood finds the
# memory of this one, which the C library keeps between blocks that are still in use.
def test_a_hundred_thousand_messages_from_the_bus_arrive_in_order(start, bus, server, pauses):
    bus.listen()
    daemon = start()
    bus.wait_until_connected()
    before = pss_kib(daemon.pid)
    messages = [b"%06d %s" % (i, b"x" * (i % 600)) for i in range(100000)]

    def flood(count):
        """Returns the memory at its end, when most of it still waits in the daemon."""
        server.frames.clear()
        pauses.divide(bus=pauses.short)
        bus.send_lines(messages[:count])
        at_its_end = pss_kib(daemon.pid)
        pauses.divide(bus=pauses.short, websock=pauses.short)
        assert server.wait_for_payloads(count, seconds=90) == messages[:count]
        return at_its_end

    highest = flood(100000)
    assert highest > before + 20000
    assert flood(50000) < highest + 2000
    pauses.divide()
    server.frames.clear()
    assert passes_both_ways(bus, server, "after the floods")
    assert len(server.handshakes) == 1


# Fault, on the bus: no listener at all while 20,000 messages of 1,000 bytes come from the server.
# Seen: the daemon gives them to the bus, takes no more memory for it, and answers on the bus.
def test_messages_without_a_listener_cost_no_memory(start, bus, server, pauses):
    pauses.divide(bus=pauses.short, websock=pauses.short)
    daemon = start()
    server.wait_for_connections(1)
    message = "y" * 1000
    server.send_many([message] * 1000)
    server.ping()
    before = pss_kib(daemon.pid)
    server.send_many([message] * 20000)
    server.ping()
    # The answer comes behind the messages.
    assert bus.run("status", "--timeout", "20").stdout == b"connected\n"
    wait_for_pss_below(daemon, before + 2000)
    pauses.divide()
    bus.listen()
    bus.wait_until_connected()
    assert bus.payloads() == []
    assert passes_both_ways(bus, server, "with a listener")


# Fault, on the bus: a message of 64 MiB, the longest that the bus carries.
# Seen: it arrives byte for byte as one text frame, and its memory is given back at once.
def test_a_message_of_64_mebibytes_arrives_and_leaves_no_memory_behind(start, bus, server):
    bus.listen()
    daemon = start()
    bus.wait_until_connected()
    before = pss_kib(daemon.pid)
    message = b"%07d\n" * (1 << 20) % tuple(range(1 << 20)) * 8
    bus.send(message)
    assert server.wait_for_payloads(1, seconds=90) == [message]
    wait_for_pss_below(daemon, before + 2000)
    assert passes_both_ways(bus, server, "after the long message")
    assert len(server.handshakes) == 1


# Fault, on the bus: 1 MiB of JSON for the service, "[{},{},...]", which takes 280 MB when parsed.
# Seen: it arrives byte for byte, and the daemon's peak is not 32 MiB above what it was before.
def test_json_that_is_not_the_daemons_own_takes_no_memory(start, bus, server):
    # Every message was parsed to see whether it is a status request, and a device has less memory.
    bus.listen()
    daemon = start()
    bus.wait_until_connected()
    before = peak_kib(daemon.pid)
    message = b"[" + b"{}," * ((1 << 20) // 3 - 1) + b"{}]"
    bus.send(message)
    assert server.wait_for_payloads(1, seconds=60) == [message]
    assert peak_kib(daemon.pid) < before + (32 << 10)
    assert len(server.handshakes) == 1


# What a peer says first, by hand: the greeting of ZMTP 3 and its command READY.
greeting = b"\xff" + bytes(8) + b"\x7f\x03\0NULL" + bytes(48)
ready = b"\x05READY\x0bSocket-Type\0\0\0"
gibibyte = 1 << 30


def peer_that_sends(socket_type, blocks):
    """A function that sends them to a socket file until it is stopped, and returns the bytes."""

    def send_to(path):
        kind = ready + bytes([len(socket_type)]) + socket_type
        sent = 0
        with socket.socket(socket.AF_UNIX) as peer:
            peer.settimeout(60)
            peer.connect(str(path))
            peer.sendall(greeting + bytes([4, len(kind)]) + kind)
            # A message that overtakes the other side's READY ends the connection.
            answer = peer.makefile("rb")
            answer.read(len(greeting))
            answer.read(answer.read(2)[1])
            with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                for block in blocks():
                    peer.sendall(block)
                    sent += len(block)
        return sent

    return send_to


def one_frame():
    yield b"\x02" + struct.pack(">Q", gibibyte)
    for _ in range(gibibyte >> 20):
        yield bytes(1 << 20)


def three_million_parts():
    for _ in range(30):
        yield b"\x01\x01D" * 100000


def parts_of_32_mebibytes():
    for _ in range(10):
        yield b"\x03" + struct.pack(">Q", 32 << 20) + bytes(32 << 20)


def subscriptions():
    for i in range(100000):
        yield b"\0\xdd\x01" + b"%020d" % i + bytes(200)


# Fault, on the bus: a peer's frame of 1 GiB, 3 million parts, 320 MiB in parts, or subscriptions.
# Seen: the peer is cut off, the daemon's memory never grows by 16 MiB, and the others are served.
@pytest.mark.parametrize("peer, at_inbox", [
    pytest.param(peer_that_sends(b"DEALER", one_frame), True, id="frame"),
    pytest.param(peer_that_sends(b"DEALER", three_million_parts), True, id="parts"),
    pytest.param(peer_that_sends(b"DEALER", parts_of_32_mebibytes), True, id="large_parts"),
    pytest.param(peer_that_sends(b"SUB", one_frame), False, id="frame_of_a_listener"),
    pytest.param(peer_that_sends(b"SUB", three_million_parts), False, id="parts_of_a_listener"),
    pytest.param(peer_that_sends(b"SUB", subscriptions), False, id="subscriptions"),
])
def test_a_peer_without_measure_costs_no_memory(make_rig, peer, at_inbox):
    daemon, bus, server = make_rig()
    assert passes_both_ways(bus, server, "before")
    before = peak_kib(daemon.pid)
    sent = peer(bus.inbox_file if at_inbox else bus.outlet_file)
    assert passes_both_ways(bus, server, "after the peer")
    assert peak_kib(daemon.pid) < before + 16 * 1024, f"{sent} bytes were sent"
    assert len(server.handshakes) == 1
