"""Each switch and incident of roam-service does what its help says."""
import asyncio
import contextlib
import socket
import struct
import time

import pytest
import websockets

from raw_client import (OP_CLOSE, OP_CONTINUATION, OP_PING, OP_PONG, OP_TEXT, RawClient, upgrade_bytes)
from service_process import Service, owns_its_memory, run_to_its_end, within_limit

SHORT = 0.4


@pytest.fixture
def start():
    running = []

    def started(*options):
        running.append(Service("--port", "0", *options))
        return running[-1]
    yield started
    for service in running:
        assert service.stop() == 0


def assert_silent(client):
    client.link.settimeout(SHORT)
    with pytest.raises(socket.timeout):
        client.link.recv(1)


# A message behind an unanswered ping is echoed.
def test_no_pongs_reads_pings_and_messages_but_answers_no_ping(start):
    service = start("--no-pongs", "--echo")

    async def work():
        async with service.connect() as client:
            pong = await client.ping(b"mark")
            await client.send("after the ping")
            assert await client.recv() == "after the ping"
            assert not pong.done()
    within_limit(work())


# No echo and no pong for 0.4 s, but a line typed arrives.
def test_stop_reading_takes_nothing_but_still_sends(start):
    service = start("--stop-reading", "--echo")
    with RawClient(service.port) as client:
        service.wait_for_note("daemon connected")
        client.send_frame(OP_TEXT, b"unread")
        client.send_frame(OP_PING, b"unseen")
        assert_silent(client)
        client.link.settimeout(10)
        service.type(b"sent all the same\n")
        assert client.frame() == (True, OP_TEXT, b"sent all the same")


# 9 bytes in 3, 4 and 12 frames of nearly equal size, the last ones empty, the last one final.
@pytest.mark.parametrize("count, pieces", [
    (3, [b"hel", b"lo ", b"you"]), (4, [b"hel", b"lo", b" y", b"ou"]),
    (12, [b"h", b"e", b"l", b"l", b"o", b" ", b"y", b"o", b"u", b"", b"", b""])])
def test_fragments_sends_a_message_in_so_many_frames(start, count, pieces):
    service = start("--fragments", str(count))
    with RawClient(service.port) as client:
        service.wait_for_note("daemon connected")
        service.type(b"hello you\n")
        for index, piece in enumerate(pieces):
            kind = OP_CONTINUATION if index else OP_TEXT
            assert client.frame() == (index == count - 1, kind, piece)


# 4,000,000 pings whose pongs a daemon does not read: it is dropped by 256 MiB of memory.
#
# A pong counted as its 2 bytes and took some 100, so that 50 MB of pings made 800 MB of pongs.
@pytest.mark.skipif(not owns_its_memory(), reason="an emulator's or a sanitizer's memory")
def test_unread_pongs_count_by_the_memory_that_they_take(start):
    service = start("--console")
    with RawClient(service.port) as client:
        before = service.peak_mib()
        pings = bytes([0x80 | OP_PING, 0x80, 0, 0, 0, 0]) * 10000
        with contextlib.suppress(ConnectionError):
            for _ in range(400):
                client.link.sendall(pings)
        service.wait_for_note("does not read")
        assert service.peak_mib() - before < 256 + 32


# A request head of 16,384 bytes is served, in one piece or in two; one byte more is answered 431.
@pytest.mark.parametrize("first_piece", [16385, 16381, 100])
def test_the_limit_of_a_request_head_counts_its_bytes_however_they_arrive(start, first_piece):
    service = start("--console")
    filler = 16384 - len(upgrade_bytes(service.port, "X-Long: "))
    for too_much, status in ((0, b" 101 "), (1, b" 431 ")):
        request = upgrade_bytes(service.port, "X-Long: " + "x" * (filler + too_much))
        with socket.create_connection(("127.0.0.1", service.port), 10) as link:
            link.sendall(request[:first_piece])
            time.sleep(0.1)
            link.sendall(request[first_piece:])
            assert status in link.recv(100)
    service.wait_for_note("refused a connection: its request is longer than 16384 bytes")


# With --fragments 3 a pong is one frame.
def test_fragments_leave_control_frames_whole(start):
    service = start("--fragments", "3")
    with RawClient(service.port) as client:
        client.send_frame(OP_PING, b"mark")
        assert client.frame() == (True, OP_PONG, b"mark")


# With --delay 300 an echo comes after 0.3 s and the pong behind it.
def test_delay_holds_messages_and_pongs_back_in_order(start):
    service = start("--delay", "300", "--echo")
    with RawClient(service.port) as client:
        begin = time.monotonic()
        client.send_frame(OP_TEXT, b"first")
        client.send_frame(OP_PING, b"second")
        assert client.frame() == (True, OP_TEXT, b"first")
        assert time.monotonic() - begin >= 0.3
        assert client.frame() == (True, OP_PONG, b"second")
        assert time.monotonic() - begin < 5


# Codes 1000, 1011 and 4999, on two connections one after the other.
@pytest.mark.parametrize("code", [1000, 1011, 4999])
def test_close_with_closes_every_connection_with_the_code(start, code):
    service = start("--close-with", str(code), "--after", "0")

    async def work():
        for _ in range(2):
            async with service.connect() as client:
                with pytest.raises(websockets.ConnectionClosed):
                    await client.recv()
                assert client.close_code == code
    within_limit(work())


# With --after 1 the close comes 1 s after the connection.
def test_an_incident_waits_for_the_time_after_connecting(start):
    service = start("--close-with", "1000", "--after", "1")
    with RawClient(service.port) as client:
        begin = time.monotonic()
        assert client.frame() == (True, OP_CLOSE, struct.pack("!H", 1000))
        assert 0.9 < time.monotonic() - begin < 5


# The connection ends behind the unanswered close frame.
def test_close_with_ends_the_connection_of_a_daemon_that_does_not_answer_the_close(start):
    service = start("--close-with", "1000", "--after", "0")
    with RawClient(service.port) as client:
        assert client.frame() == (True, OP_CLOSE, struct.pack("!H", 1000))
        assert client.frame() is None


# The client sees a reset and no frame.
def test_reset_ends_the_connection_without_a_close_frame(start):
    service = start("--reset", "--after", "0")
    with RawClient(service.port) as client:
        with pytest.raises(ConnectionResetError):
            client.frame()


# Close 1001, about 1 s of refused connections, "back on", then the same port.
def test_away_closes_refuses_and_comes_back_on_the_same_port(start):
    service = start("--away", "1", "--after", "0")
    with RawClient(service.port) as client:
        assert client.frame() == (True, OP_CLOSE, struct.pack("!H", 1001))
        begin = time.monotonic()
        with pytest.raises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", service.port), 5).close()
    service.wait_for_note("back on")
    assert 0.5 < time.monotonic() - begin < 5
    with RawClient(service.port) as client:
        assert client.head.startswith(b"HTTP/1.1 101")


# Unmasked, unknown opcode, lone continuation and fragmented ping get close 1002 and the end.
# A plain service leaves the protocol to the library; these are for the one that speaks it itself.
@pytest.mark.parametrize("frame", [
    {"opcode": OP_TEXT, "payload": b"x", "masked": False}, {"opcode": 3}, {"opcode": OP_CONTINUATION},
    {"opcode": OP_PING, "final": False}])
def test_a_daemon_that_breaks_the_protocol_is_dropped_with_1002(start, frame):
    service = start("--console")
    with RawClient(service.port) as client:
        client.send_frame(**frame)
        assert client.frame() == (True, OP_CLOSE, struct.pack("!H", 1002))
        assert client.frame() is None
    service.wait_for_note("broke the WebSocket protocol")


# A ping between two fragments gets its pong, and the message is whole.
def test_a_control_frame_between_fragments_does_not_disturb_the_message(start):
    service = start("--console")
    with RawClient(service.port) as client:
        client.send_frame(OP_TEXT, b"one ", final=False)
        client.send_frame(OP_PING, b"between")
        client.send_frame(OP_CONTINUATION, b"two")
        assert client.frame() == (True, OP_PONG, b"between")
        assert asyncio.run(service.next_line()) == b"one two\n"


# Each value out of range is answered with the limit or option that matters.
@pytest.mark.parametrize("options, advice", [
    (["--fragments", "0"], "1"), (["--delay", "-1"], "600000"), (["--close-with", "999"], "4999"),
    (["--away", "0"], "86400"), (["--reset", "--away", "3"], "--away"),
    (["--console", "--bind", "0.0.0.0"], "127.0.0.1 with --bind"),
    (["--console", "--bind", "::"], "loopback")])
def test_wrong_switches_say_what_to_do(options, advice):
    result = run_to_its_end(*options)
    assert result.returncode not in (0, -6)
    assert advice in result.stderr


# All nine switches from --console to --after.
def test_help_names_every_switch():
    text = run_to_its_end("--help").stdout
    for option in ("--console", "--no-pongs", "--stop-reading", "--fragments", "--delay",
                   "--close-with", "--reset", "--away", "--after"):
        assert option in text
