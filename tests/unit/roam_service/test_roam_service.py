"""roam-service as its users see it: a real process, and WebSocket clients of another make."""
import asyncio
import contextlib
import os
import signal
import socket
import time

import pytest
import websockets

from raw_client import RawClient, exchange, upgrade_bytes
from service_process import LIMIT, Service, owns_its_memory, run_to_its_end, within_limit

MIB = 1024 * 1024


def wait_until_accepted(port):
    """Connects until the service lets the connection in."""
    deadline = time.monotonic() + LIMIT
    while time.monotonic() < deadline:
        with contextlib.suppress(ConnectionError):
            if exchange(port, upgrade_bytes(port))[0] == 101:
                return
        time.sleep(0.05)
    raise AssertionError("no connection was let in")


# With the console another server is at work than without.
@pytest.fixture(params=[(), ("--console",)], ids=["plain", "console"])
def server_options(request):
    return request.param


@pytest.fixture
def service(server_options):
    running = Service("--port", "0", *server_options)
    yield running
    running.stop()


@pytest.fixture
def echo_service(server_options):
    running = Service("--port", "0", "--echo", *server_options)
    yield running
    running.stop()


# Control bytes come out as \n, \r, \t or \xNN; an empty message is an empty line.
def test_prints_a_message_as_one_line_and_leaves_high_bytes_and_backslashes(service):
    async def work():
        async with service.connect() as client:
            await client.send("a\\b\nc\rd\te\x00f\x7f grün {}%s")
            assert await service.next_line() == \
                "a\\b\\nc\\rd\\te\\x00f\\x7f grün {}%s\n".encode()
            await client.send("")
            assert await service.next_line() == b"\n"
    within_limit(work())


# U+009B in UTF-8 and 0x9b alone come out as \xNN; letters with such bytes inside stay.
def test_prints_c1_control_characters_escaped(service):
    async def work():
        async with service.connect() as client:
            await client.send("\u009b2J À€😀\u00a0")
            assert await service.next_line() == "\\xc2\\x9b2J À€😀\u00a0\n".encode()
            await client.send(b"\x9b2J \xc3\x80 \xff")
            assert await service.next_line() == b"\\x9b2J \xc3\x80 \xff\n"
    within_limit(work())


# Three fragments and an empty last one are one line, and the next message another.
def test_joins_fragments_with_an_empty_last_one(service):
    async def work():
        async with service.connect() as client:
            await client.send(part for part in ("one ", "two ", "three"))
            assert await service.next_line() == b"one two three\n"
            await client.send("next")
            assert await service.next_line() == b"next\n"
    within_limit(work())


# Two clients get "one", "" and "two\r" in this order.
def test_sends_each_input_line_to_every_client_in_order(service):
    async def work():
        async with service.connect() as first, service.connect() as second:
            service.wait_for_note("daemon connected from 127.0.0.1", count=2)
            service.type(b"one\n\ntwo\r\n")
            for client in (first, second):
                assert [await client.recv() for _ in range(3)] == ["one", "", "two\r"]
    within_limit(work())


# The end of standard input sends "last" and leaves the service running.
def test_the_last_input_line_needs_no_line_end_and_serving_goes_on(service):
    async def work():
        async with service.connect() as client:
            service.wait_for_note("daemon connected")
            service.type(b"last")
            service.process.stdin.close()
            assert await client.recv() == "last"
            await client.send("still there")
            assert await service.next_line() == b"still there\n"
    within_limit(work())


# A line typed while no daemon is connected brings a note with "went nowhere".
def test_notes_a_line_that_went_nowhere(service):
    service.type(b"anybody?\n")
    service.wait_for_note("went nowhere")


# Notes say "daemon connected" and "daemon gone".
def test_notes_that_a_daemon_is_gone(service):
    async def work():
        async with service.connect():
            service.wait_for_note("daemon connected")
        service.wait_for_note("daemon gone")
    within_limit(work())


# NUL, high bytes, nothing at all and 70,000 bytes come back as text or binary as they came.
def test_echo_sends_text_and_binary_back_as_they_came(echo_service):
    async def work():
        async with echo_service.connect() as client:
            for message in ("text\0 with NUL", b"\x00\xff\n", "", "x" * 70000):
                await client.send(message)
                await echo_service.next_line()
                assert await client.recv() == message
    within_limit(work())


# The first thing that a client gets is the line typed after its message.
def test_without_echo_nothing_comes_back(service):
    async def work():
        async with service.connect() as client:
            await client.send("hello")
            await service.next_line()
            service.type(b"first to arrive\n")
            assert await client.recv() == "first to arrive"
    within_limit(work())


# 64 MiB are printed as one line and echoed unchanged.
def test_passes_64_mib_both_ways(echo_service):
    async def work():
        message = "0123456789abcdef" * (4 * MIB)
        async with echo_service.connect() as client:
            await client.send(message)
            assert len(await echo_service.next_line()) == 64 * MIB + 1
            assert await client.recv() == message
    within_limit(work())


# A ping with a payload gets its pong.
def test_answers_pings(service):
    async def work():
        async with service.connect() as client:
            await asyncio.wait_for(await client.ping(b"mark"), LIMIT)
    within_limit(work())


# "/", "/roam/", "/roaming" and "/Roam" are refused with 404.
@pytest.mark.parametrize("path", ["/", "/roam/", "/roaming", "/Roam"])
def test_refuses_another_path(service, path):
    async def work():
        with pytest.raises(websockets.InvalidStatusCode) as refusal:
            async with service.connect(path=path):
                pass
        assert refusal.value.status_code == 404
    within_limit(work())


# None, another one and a longer one are refused with 400.
@pytest.mark.parametrize("offered", [None, ["other"], ["websock-roaming2"]])
def test_refuses_another_subprotocol(service, offered):
    async def work():
        with pytest.raises(websockets.InvalidStatusCode) as refusal:
            async with service.connect(subprotocols=offered):
                pass
        assert refusal.value.status_code == 400
    within_limit(work())


# Of "other" and "websock-roaming" the second is chosen.
def test_picks_its_subprotocol_from_a_list(service):
    async def work():
        async with service.connect(subprotocols=["other", "websock-roaming"]) as client:
            assert client.subprotocol == "websock-roaming"
    within_limit(work())


# Another host, "null", an empty, doubled or malformed Origin, and one without a Host: 403.
#
# Browsers let a page of any site open a WebSocket to anywhere, and such a page got what is sent to
# the daemons. It cannot leave its Origin out, though.
@pytest.mark.parametrize("host, origins", [
    ("127.0.0.1:{port}", ["https://evil.example"]), ("127.0.0.1:{port}", ["http://localhost:{port}"]),
    ("127.0.0.1:{port}", ["http://127.0.0.1.evil.example"]), ("127.0.0.1", ["http://127.0.0.11"]),
    ("127.0.0.1", ["http://evil.example:127"]), ("127.0.0.1", ["http://evil.example/127.0.0.1"]),
    ("127.0.0.1", ["http://127.0.0.1@evil.example"]), ("127.0.0.1", ["http://127.0.0.1/"]),
    ("127.0.0.1", ["http://127.0.0.1:port"]), ("127.0.0.1", ["127.0.0.1"]),
    ("127.0.0.1", ["://127.0.0.1"]), ("127.0.0.1", ["null"]), ("null", ["null"]), ("127.0.0.1", [""]),
    ("127.0.0.1", ["http://127.0.0.1", "https://evil.example"]),
    ("127.0.0.1", ["https://evil.example", "http://127.0.0.1"]), ("127.0.0.1", ["", "https://evil.example"]),
    ("127.0.0.1", ["http://127.0.0.1 https://evil.example"]),
    ("[::1]:{port}", ["http://[::2]"]), ("[::1]", ["http://::1"]), ("[::1", ["http://[::1"]),
    ("[roam]", ["http://[roam]"]), ("", ["http://"]), ("a, b", ["http://a, b"])])
def test_a_page_of_another_host_is_refused(service, host, origins):
    lines = [f"Origin: {origin}".format(port=service.port) for origin in origins]
    request = upgrade_bytes(service.port, *lines).replace(
        f"127.0.0.1:{service.port}".encode(), host.format(port=service.port).encode(), 1)
    assert exchange(service.port, request)[0] == 403
    service.wait_for_note("refused a connection: its Origin is of another host")


# As the daemon sends it, without ports, and in any case, port, scheme or spelling of an IPv6 address.
@pytest.mark.parametrize("host, origin", [
    ("127.0.0.1", "http://127.0.0.1"), ("127.0.0.1:{port}", "http://127.0.0.1:{port}"),
    ("127.0.0.1:{port}", "http://127.0.0.1"), ("127.0.0.1:{port}", "https://127.0.0.1:1"),
    ("Roam.example", "HTTP://rOAM.EXAMPLE:80"), ("my_roam-1", "http://my_roam-1"),
    ("[::1]:{port}", "http://[::1]:{port}"), ("[2001:DB8::A]", "http://[2001:db8:0:0::a]:80")])
def test_an_origin_of_the_own_host_is_accepted(service, host, origin):
    request = upgrade_bytes(service.port, f"Origin: {origin}".format(port=service.port)).replace(
        f"127.0.0.1:{service.port}".encode(), host.format(port=service.port).encode(), 1)
    assert exchange(service.port, request)[0] == 101


# Of 33 connections from one address the last is closed; another address, and one in place, pass.
#
# 200 connections from one address, which need not say a word, shut everybody else out.
def test_one_address_cannot_take_all_connections(service):
    with contextlib.ExitStack() as open_ones:
        silent = [open_ones.enter_context(socket.create_connection(("127.0.0.1", service.port)))
                  for _ in range(31)]
        open_ones.enter_context(RawClient(service.port))
        with socket.create_connection(("127.0.0.1", service.port), LIMIT) as one_too_many:
            assert one_too_many.recv(1) == b""
        service.wait_for_note("refused a connection: 127.0.0.1 has 32 already")
        with RawClient(service.port, from_address="127.0.0.2") as other:
            assert b" 101 " in other.head
        silent.pop().close()
        wait_until_accepted(service.port)


# A request head of 20,000 bytes opens no connection, in one piece or in two.
#
# The limit was looked at only while the head's end had not arrived.
@pytest.mark.parametrize("first_piece", [20000, 10000])
def test_a_request_head_that_is_too_long_is_refused(service, first_piece):
    request = upgrade_bytes(service.port, "X-Long: " + "x" * 20000)
    with socket.create_connection(("127.0.0.1", service.port), LIMIT) as link:
        answer = b""
        with contextlib.suppress(ConnectionError):
            link.sendall(request[:first_piece])
            link.sendall(request[first_piece:])
            answer = link.recv(65536)
    assert b" 101 " not in answer


# Up to 4,000,000 empty lines that a daemon does not read: it is dropped by 256 MiB of memory.
#
# The limit counted payload, and an empty message takes some 100 bytes to keep.
@pytest.mark.skipif(not owns_its_memory(), reason="an emulator's or a sanitizer's memory")
def test_unread_messages_count_by_the_memory_that_they_take(service):
    with RawClient(service.port):
        service.wait_for_note("daemon connected")
        before = service.peak_mib()
        service.type(b"\n" * 4000000)
        service.wait_for_note("does not read")
        assert service.peak_mib() - before < 256 + 32


# With --path /elsewhere that path is served and printed, and /roam refused.
def test_serves_the_path_that_is_asked_for():
    running = Service("--port", "0", "--path", "/elsewhere")
    try:
        assert running.url == f"ws://127.0.0.1:{running.port}/elsewhere"

        async def work():
            async with running.connect(path="/elsewhere"):
                pass
            with pytest.raises(websockets.InvalidStatusCode):
                async with running.connect(path="/roam"):
                    pass
        within_limit(work())
    finally:
        running.stop()


# http_proxy and socks_proxy in the environment change nothing.
def test_proxy_variables_do_not_matter():
    running = Service("--port", "0", env={**os.environ, "http_proxy": "http://192.0.2.1:9",
                                          "socks_proxy": "192.0.2.1:9"})

    async def work():
        async with running.connect() as client:
            await client.send("direct")
            assert await running.next_line() == b"direct\n"
    try:
        within_limit(work())
    finally:
        assert running.stop() == 0


# SIGTERM and SIGINT close with code 1001.
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_closes_the_connections_and_ends_with_status_0(number):
    running = Service("--port", "0")

    async def work():
        async with running.connect() as client:
            running.process.send_signal(number)
            with pytest.raises(websockets.ConnectionClosed):
                await client.recv()
            assert client.close_code == 1001
    try:
        within_limit(work())
        assert running.process.wait(LIMIT) == 0
    finally:
        running.stop()


# By 352 MiB it is noted "does not read" and dropped; another client gets every line.
def test_a_daemon_that_stops_reading_is_dropped_and_the_others_are_served(service):
    async def work():
        idle = socket.create_connection(("127.0.0.1", service.port))
        with idle:
            idle.sendall(b"GET /roam HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\n"
                         b"Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                         b"Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n"
                         b"Sec-WebSocket-Protocol: websock-roaming\r\n\r\n")
            service.wait_for_note("daemon connected")
            async with service.connect() as reading:
                service.wait_for_note("daemon connected", count=2)
                line = b"x" * (32 * MIB)
                loop = asyncio.get_running_loop()
                for number in range(11):
                    await loop.run_in_executor(None, service.type, line + b"\n")
                    assert len(await reading.recv()) == len(line), number
                await loop.run_in_executor(None, service.wait_for_note, "does not read")
                await loop.run_in_executor(None, service.wait_for_note, "daemon gone")
                service.type(b"still here\n")
                assert await reading.recv() == "still here"
    within_limit(work())


# "cannot listen on 127.0.0.1:PORT", the advice "--port 0" and status 1.
def test_a_port_in_use_is_a_clear_error(service):
    result = run_to_its_end("--port", str(service.port))
    assert result.returncode == 1
    assert result.stdout == ""
    assert f"cannot listen on 127.0.0.1:{service.port}" in result.stderr
    assert "--port 0" in result.stderr


# "cannot listen on 192.0.2.7:0", the option --bind and status 1.
def test_a_foreign_address_is_a_clear_error():
    result = run_to_its_end("--port", "0", "--bind", "192.0.2.7")
    assert result.returncode == 1
    assert "cannot listen on 192.0.2.7:0" in result.stderr
    assert "--bind" in result.stderr


# A name for --bind, a path without "/", port 65536 and an unknown option are named.
@pytest.mark.parametrize("options, advice", [
    (["--bind", "localhost"], "127.0.0.1"), (["--path", "roam"], "/roam"),
    (["--port", "65536"], "65535"), (["--nonsense"], "--nonsense")])
def test_wrong_usage_says_what_to_do(options, advice):
    result = run_to_its_end(*options)
    assert result.returncode != 0
    assert advice in result.stderr


# --port, --bind, --path and --echo; status 0.
def test_help_names_every_option():
    result = run_to_its_end("--help")
    assert result.returncode == 0
    for option in ("--port", "--bind", "--path", "--echo"):
        assert option in result.stdout


# "cannot write to standard output" and status 1.
def test_output_that_nobody_reads_ends_the_service():
    running = Service("--port", "0")

    async def work():
        async with running.connect() as client:
            running.process.stdout.close()
            await client.send("into the void")
            await client.wait_closed()
    try:
        within_limit(work())
        assert running.process.wait(LIMIT) == 1
        running.wait_for_note("cannot write to standard output")
    finally:
        running.stop()
