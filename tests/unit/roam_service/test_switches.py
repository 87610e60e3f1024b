"""Each switch and incident of roam-service does what its help says."""
import contextlib
import socket
import struct
import time

import pytest
import websockets

from harness.frames import (frame, opcode_close, opcode_continuation, opcode_ping, opcode_pong,
                            opcode_text)

from raw_client import RawClient
from service_process import owns_its_memory

SHORT = 0.4


def assert_silent(client):
    client.link.settimeout(SHORT)
    with pytest.raises(socket.timeout):
        client.link.recv(1)


# A message behind an unanswered ping is echoed.
async def test_no_pongs_reads_pings_and_messages_but_answers_no_ping(start):
    service = start("--no-pongs", "--echo")
    async with service.connect() as client:
        pong = await client.ping(b"mark")
        await client.send("after the ping")
        assert await client.recv() == "after the ping"
        assert not pong.done()


# No echo and no pong for 0.4 s, but a line typed arrives.
def test_stop_reading_takes_nothing_but_still_sends(connect):
    service, client = connect("--stop-reading", "--echo")
    client.send_frame(opcode_text, b"unread")
    client.send_frame(opcode_ping, b"unseen")
    assert_silent(client)
    client.link.settimeout(10)
    service.type(b"sent all the same\n")
    assert client.frame() == (True, opcode_text, b"sent all the same")


# 9 bytes in 3, 4 and 12 frames of nearly equal size, the last ones empty; a pong is one frame.
@pytest.mark.parametrize("count, pieces", [
    (3, [b"hel", b"lo ", b"you"]), (4, [b"hel", b"lo", b" y", b"ou"]),
    (12, [b"h", b"e", b"l", b"l", b"o", b" ", b"y", b"o", b"u", b"", b"", b""])])
def test_fragments_sends_a_message_in_so_many_frames(connect, count, pieces):
    service, client = connect("--fragments", str(count))
    service.type(b"hello you\n")
    for index, piece in enumerate(pieces):
        kind = opcode_continuation if index else opcode_text
        assert client.frame() == (index == count - 1, kind, piece)
    client.send_frame(opcode_ping, b"mark")
    assert client.frame() == (True, opcode_pong, b"mark")


# 4,000,000 pings whose pongs a daemon does not read: it is dropped by 256 MiB of memory.
#
# A pong counted as its 2 bytes and took some 100, so that 50 MB of pings made 800 MB of pongs.
@pytest.mark.skipif(not owns_its_memory(), reason="an emulator's or a sanitizer's memory")
def test_unread_pongs_count_by_the_memory_that_they_take(connect):
    service, client = connect()
    before = service.peak_mib()
    pings = frame(opcode_ping, mask=bytes(4)) * 10000
    with contextlib.suppress(ConnectionError):
        for _ in range(400):
            client.link.sendall(pings)
    service.wait_for_note("does not read")
    assert service.peak_mib() - before < 256 + 32


# With --delay 300 an echo comes after 0.3 s and the pong behind it.
def test_delay_holds_messages_and_pongs_back_in_order(connect):
    _, client = connect("--delay", "300", "--echo")
    begin = time.monotonic()
    client.send_frame(opcode_text, b"first")
    client.send_frame(opcode_ping, b"second")
    assert client.frame() == (True, opcode_text, b"first")
    assert time.monotonic() - begin >= 0.3
    assert client.frame() == (True, opcode_pong, b"second")
    assert time.monotonic() - begin < 5


# Codes 1000, 1011 and 4999, on two connections one after the other.
@pytest.mark.parametrize("code", [1000, 1011, 4999])
async def test_close_with_closes_every_connection_with_the_code(start, code):
    service = start("--close-with", str(code), "--after", "0")
    for _ in range(2):
        async with service.connect() as client:
            with pytest.raises(websockets.ConnectionClosed):
                await client.recv()
            assert client.close_code == code


# With --after 1 the close comes 1 s after the connection, which ends behind it, unanswered.
def test_an_incident_waits_for_the_time_after_connecting(connect):
    _, client = connect("--close-with", "1000", "--after", "1")
    assert client.frame() == (True, opcode_close, struct.pack("!H", 1000))
    assert 0.9 < time.monotonic() - client.opened_at < 5
    assert client.frame() is None


# The client sees a reset and no frame.
def test_reset_ends_the_connection_without_a_close_frame(connect):
    _, client = connect("--reset", "--after", "0")
    with pytest.raises(ConnectionResetError):
        client.frame()


# Close 1001, about 1 s of refused connections, "back on", then the same port.
def test_away_closes_refuses_and_comes_back_on_the_same_port(connect):
    service, client = connect("--away", "1", "--after", "0")
    assert client.frame() == (True, opcode_close, struct.pack("!H", 1001))
    begin = time.monotonic()
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("127.0.0.1", service.port), 5).close()
    service.wait_for_note("back on")
    assert 0.5 < time.monotonic() - begin < 5
    with RawClient(service.port) as client:
        assert client.head.startswith(b"HTTP/1.1 101")


# Unmasked, unknown opcode, lone continuation and fragmented ping get close 1002 and the end.
@pytest.mark.parametrize("broken", [
    {"opcode": opcode_text, "payload": b"x", "mask": None}, {"opcode": 3},
    {"opcode": opcode_continuation}, {"opcode": opcode_ping, "final": False}])
def test_a_daemon_that_breaks_the_protocol_is_dropped_with_1002(connect, broken):
    service, client = connect()
    client.send_frame(**broken)
    assert client.frame() == (True, opcode_close, struct.pack("!H", 1002))
    assert client.frame() is None
    service.wait_for_note("broke the WebSocket protocol")


# A ping between two fragments gets its pong, and the message is whole.
def test_a_control_frame_between_fragments_does_not_disturb_the_message(connect):
    service, client = connect()
    client.send_frame(opcode_text, b"one ", final=False)
    client.send_frame(opcode_ping, b"between")
    client.send_frame(opcode_continuation, b"two")
    assert client.frame() == (True, opcode_pong, b"between")
    assert service.process.stdout.readline() == b"one two\n"
