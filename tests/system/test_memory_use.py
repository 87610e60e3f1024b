"""What memory floods, long messages and peers without measure take, and what happens without it.

Floods need the pauses between the workers' steps divided: as designed a message leaves for the
server every 100 ms, and a hundred thousand would take three hours.
"""

# Test: 37 s, native only, not under a sanitizer
# The sanitizers manage the memory themselves, and keep what was given back.

import contextlib
import resource
import socket
import struct

import pytest

from harness.frame_server import pattern
from harness.library_texts import keeps_send_buffer
from harness.pacing import steps_only
from harness.preloaded import failing_memory, short_pauses
from harness.process_memory import address_space_bytes, peak_kib, pss_kib
from harness.round_trip import passes_both_ways
from harness.vemk_daemon import config_text
from harness.waiting import wait_until

no_memory = "append:95 Can't alloc memory"
not_sent = "websock-roaming->lws_send:Can't send msg type [0] to websocket"
not_received = "websock-roaming->process_client_receive: can't receive message"
record_head = 13


@pytest.fixture
def pauses(place):
    return short_pauses(place)


@pytest.fixture
def memory(place):
    return failing_memory(place)


@pytest.fixture
def rig(make_rig, memory):
    return make_rig(memory.start_options, log_level=1)


@pytest.fixture
def start_another(make_daemon, bus, server):
    def start():
        bus.received.clear()
        make_daemon().start(config_text(server.url))
        bus.wait_until_connected()

    return start


def wait_for_pss_below(daemon, limit_kib):
    wait_until(lambda: pss_kib(daemon.pid) < limit_kib, f"PSS below {limit_kib} KiB",
               details=lambda: f"it is {pss_kib(daemon.pid)} KiB")


def error_lines(daemon):
    return [line.text for line in daemon.log_lines()]


def ended_by_exception(daemon, worker):
    return daemon.wait_for_exit() == 255 and \
        daemon.output() == f"Unhandled exception at worker '{worker}'\n"


# Fault, on the bus: a flood of 100,000 messages, 30 MB, faster than the connection takes them.
# Seen: all wait in the daemon and arrive once, in order and unaltered; the next flood finds the
# memory of this one, which the C library keeps between blocks that are still in use.
@steps_only("a flood waits on the bus, and test_pacing_floods.py has one")
def test_a_hundred_thousand_messages_from_the_bus_arrive_in_order(make_rig, pauses):
    daemon, bus, server = make_rig(pauses.start_options)
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
def test_messages_without_a_listener_cost_no_memory(make_daemon, bus, server, pauses):
    pauses.divide(bus=pauses.short, websock=pauses.short)
    daemon = make_daemon().start(config_text(server.url), **pauses.start_options)
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
# Seen: it arrives byte for byte as one text frame, and its memory is given back at once; before 3.0
# the library keeps it until the connection ends.
def test_a_message_of_64_mebibytes_arrives_and_leaves_no_memory_behind(make_rig):
    daemon, bus, server = make_rig()
    before = pss_kib(daemon.pid)
    message = pattern(8 << 20) * 8
    bus.send(message)
    assert server.wait_for_payloads(1, seconds=90) == [message]
    if keeps_send_buffer:
        server.reset()
        server.wait_for_connections(2)
    wait_for_pss_below(daemon, before + 2000)
    assert passes_both_ways(bus, server, "after the long message")
    assert len(server.handshakes) == 1 + keeps_send_buffer


# Fault, on the bus: 1 MiB of JSON for the service, "[{},{},...]", which takes 280 MB when parsed.
# Seen: it arrives byte for byte, and the daemon's peak is not 32 MiB above what it was before.
def test_json_that_is_not_the_daemons_own_takes_no_memory(make_rig):
    # Every message was parsed to see whether it is a status request, and a device has less memory.
    daemon, bus, server = make_rig()
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


# Fault, in the process: no memory for the copy of a message from the bus, or for the frame of one
# of 40,000 bytes.
# Seen: "append:95 Can't alloc memory", or "lws_send:Can't send msg type [0] to websocket"; the
# message is lost, the next one passes.
@pytest.mark.parametrize("thread, length, refused, line", [
    pytest.param("ipc", 5000, 5001, no_memory, id="copy"),
    pytest.param("websock-roaming", 40000, 40016, not_sent, id="frame"),
])
def test_no_memory_for_a_message_from_the_bus_loses_it(rig, memory, thread, length, refused, line):
    daemon, bus, server = rig
    memory.fail(thread, size=refused)
    bus.send(b"m" * length)
    daemon.wait_for_lines(line)
    assert passes_both_ways(bus, server, "after the lost message")
    assert server.payloads() == [b"after the lost message, from the bus"]
    assert error_lines(daemon) == [line]


# Fault, in the process: no memory for the first, the middle and the last of three pieces received.
# Seen: the message without the first or the middle one; without the last one nothing but "can't
# receive message". Each time "append:95 Can't alloc memory", and the next message passes.
@pytest.mark.parametrize("refused, heard, lines", [
    (1001, [b"b" * 1000 + b"c" * 1000], [no_memory]),
    (2001, [b"a" * 1000 + b"c" * 1000], [no_memory]),
    (3001, [], [no_memory, not_received]),
], ids=["first", "middle", "last"])
def test_no_memory_for_a_piece_from_the_server(rig, memory, refused, heard, lines):
    daemon, bus, server = rig
    memory.fail("websock-roaming", size=refused)
    server.send_fragments([b"a" * 1000, b"b" * 1000, b"c" * 1000])
    memory.wait_refused()
    server.send("after the pieces")
    expected = [*heard, b"after the pieces"]
    assert bus.wait_for_payloads(len(expected)) == expected
    assert error_lines(daemon) == lines


# Fault, in the process: no memory for the object around a message from the bus.
# Seen: "Unhandled exception at worker 'ipc'" on standard output, status 255, and nothing of the
# message at the server; a daemon started again carries messages.
def test_an_exception_of_the_bus_thread_ends_the_process(rig, memory, start_another):
    daemon, bus, server = rig
    memory.fail("ipc", behind=record_head + 4321)
    # The process may end before the bus has told the sender that the message was taken.
    bus.run("send", "--timeout", "1", "-", data=b"m" * 4321)
    assert ended_by_exception(daemon, "ipc")
    start_another()
    assert passes_both_ways(bus, server, "after the end")
    assert server.payloads() == [b"after the end, from the bus"]


# Fault, in the process: no memory for the next message's object when one has been received.
# Seen: "Unhandled exception at worker 'websock-roaming'" on standard output, status 255, and the
# message on the bus or not, unaltered; a daemon started again carries messages.
def test_an_exception_of_the_websock_thread_ends_the_process(rig, memory, start_another):
    daemon, bus, server = rig
    message = b"m" * 2345
    # The first one is for the dump.
    memory.fail("websock-roaming", nth=2, behind=2346)
    server.send(message.decode())
    assert ended_by_exception(daemon, "websock-roaming")
    heard = bus.payloads()
    start_another()
    assert heard + bus.payloads() in ([], [message])
    assert passes_both_ways(bus, server, "after the end")


# Fault, in the process: no memory for the dump of a received message.
# Seen: the message arrives unaltered, without a dump and without any other line.
@steps_only("no dump is made that the log does not show")
def test_no_memory_for_a_dump_leaves_only_the_dump_out(rig, memory):
    daemon, bus, server = rig
    memory.fail("websock-roaming", behind=2346)
    server.send("m" * 2345)
    assert bus.wait_for_payloads(1) == [b"m" * 2345]
    assert memory.refused_bytes() > 2345
    assert passes_both_ways(bus, server, "after the message")
    assert error_lines(daemon) == []


# Fault, in the process: an address space that leaves 96 MiB for a message of 64 MiB from the bus.
# Seen: the daemon lives and connection and bus stay; when the limit is lifted the message arrives.
def test_a_message_waits_on_the_bus_for_the_memory_it_needs(make_rig):
    daemon, bus, server = make_rig()
    message = pattern(8 << 20) * 8
    resource.prlimit(daemon.pid, resource.RLIMIT_AS,
                     (address_space_bytes(daemon.pid) + (96 << 20), resource.RLIM_INFINITY))
    bus.send(message)
    server.send("meanwhile")
    assert bus.wait_for_payloads(1) == [b"meanwhile"]
    assert server.payloads() == []
    resource.prlimit(daemon.pid, resource.RLIMIT_AS,
                     (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
    assert server.wait_for_payloads(1, seconds=60) == [message]
    assert passes_both_ways(bus, server, "after the long message")
    assert len(server.handshakes) == 1
