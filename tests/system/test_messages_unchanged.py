"""Messages of all kinds and lengths reach the other side byte for byte."""

# Test: 60 s
# Under an emulator, where no clock goes faster; elsewhere a third of it.

import pytest

from harness.frame_server import pattern
from harness.frames import opcode_ping, opcode_text
from harness.keepalive import fast_clock
from harness.raw_server import upgrade
from harness.round_trip import passes_both_ways

both_ways = [
    "x",
    "a" * 4096,
    "b" * 4097,
    "Größe, 漢字, 🛰",
    "before\0after",
    "%n%s%n %d 100%% %1000000$s %*d",
    "line\nline\r\n\ttab",
]
to_server = [
    *(message.encode() for message in both_ways),
    bytes(0x20 + i % 95 for i in range(1 << 20)),
    b"not JSON {",
    b'{"service":"roaming","cmd":"status"}',
    b'{"cmd":"status"}',
    b'"internal-ipc"',
]
to_bus = [*both_ways, '{"service":"internal-ipc","cmd":"status"}', bytes(range(256))]


# One byte to 1 MiB, NUL, "%n", UTF-8, half JSON: unchanged, each a text frame.
@pytest.mark.parametrize("log_level", [0, 15])
def test_messages_from_the_bus_arrive_unchanged_and_in_order(make_rig, log_level):
    daemon, bus, server = make_rig(log_level=log_level)
    for message in to_server:
        bus.send(message)
    received = server.wait_for_payloads(len(to_server))
    assert [len(payload) for payload in received] == [len(message) for message in to_server]
    assert received == to_server
    assert all(frame.is_text for frame in server.frames)
    assert bool(daemon.log_text()) == bool(log_level)


# NUL, "%n", all 256 byte values and a status request: unchanged, and no answer to the server.
@pytest.mark.parametrize("log_level", [0, 15])
def test_messages_from_the_server_arrive_unchanged_and_in_order(make_rig, log_level):
    daemon, bus, server = make_rig(log_level=log_level)
    server.send_many(to_bus)
    expected = [m.encode() if isinstance(m, str) else m for m in to_bus]
    assert bus.wait_for_payloads(len(to_bus)) == expected
    # The look inside a message is for those from the bus: the request above got no answer.
    assert server.payloads() == []
    assert bus.statuses()[-1] == "connected"
    assert bus.statuses().count("connected") == 1


# Short, long and not UTF-8: one final, masked frame with opcode 1 each, and no other frame.
def test_each_message_is_one_final_masked_text_frame(start_rig, make_raw_server):
    daemon, bus, server = start_rig(make_raw_server(upgrade), log_level=15)
    # Bytes that are no UTF-8 are sent as they are.
    sent = [b"short", b"m" * 300, bytes(range(256))]
    for message in sent:
        bus.send(message)
    frames = server.wait_for_frames(opcode_text, len(sent))
    assert [frame.payload for frame in frames] == sent
    assert all(frame.final and frame.masked for frame in frames)
    # On a slow machine a ping may be due meanwhile.
    assert [frame for frame in server.frames if frame.opcode != opcode_ping] == frames


# Fault, on the bus: messages of 0 bytes.
# Seen: from the bus an empty text frame; from the server nothing reaches the bus.
def test_empty_messages_go_up_only(make_rig):
    daemon, bus, server = make_rig()
    bus.send(b"")
    server.send("")
    server.send("behind")
    bus.send(b"")
    server.wait_for_payloads(2)
    assert [(frame.payload, frame.is_text) for frame in server.frames] == [(b"", True)] * 2
    assert bus.wait_for_payloads(1) == [b"behind"]
    assert passes_both_ways(bus, server, "after empty messages")


# Fault, while connected: one message of 10 MiB, with the log on, and of 16 MiB from the bus.
# Seen: it reaches the server unchanged and as one, the next message follows, and the connection is
# kept.
@pytest.mark.parametrize("size, log_level", [(10 << 20, 15), (16 << 20, 0)])
def test_message_larger_than_the_stack_arrives(make_rig, size, log_level):
    daemon, bus, server = make_rig(log_level=log_level)
    message = pattern(size)
    bus.send(message)
    bus.send(b"next")
    received = server.wait_for_payloads(2, seconds=90)
    assert [len(payload) for payload in received] == [size, 4]
    assert received == [message, b"next"]
    assert len(server.handshakes) == 1


# 1 MiB from the server reaches the bus whole, in pieces of 4096 bytes, with the log on or off.
@pytest.mark.parametrize("log_level", [0, 15])
def test_one_mebibyte_from_the_server_arrives_unchanged(make_rig, log_level):
    # At one piece in 100 ms it takes 26 s of the daemon's clock.
    daemon, bus, server = make_rig(fast_clock(4), log_level=log_level)
    message = pattern(1 << 20)
    server.send_many([message.decode(), "next"])
    assert bus.wait_for_payloads(2, seconds=90) == [message, b"next"]
    assert bus.statuses()[-1] == "connected"
