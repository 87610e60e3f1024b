"""roam-service as its users see it: a real process, and WebSocket clients of another make."""
import asyncio
import contextlib
import os
import signal
import socket
import time

import pytest
import websockets

from harness.waiting import wait_until

from raw_client import RawClient, exchange, request_bytes, upgrade_bytes, upgrade_headers
from service_process import LIMIT, owns_its_memory, run_to_its_end

MIB = 1024 * 1024


def status_of(service, path="/roam"):
    with contextlib.suppress(ConnectionError):
        return exchange(service.port, request_bytes(path, upgrade_headers(service.port)))[0]
    return None


# Control bytes, U+0080 to U+009F too, come out as \n, \r, \t or \xNN; an empty message as a line.
@pytest.mark.parametrize("message, line", [
    ("a\\b\nc\rd\te\x00f\x7f grün {}%s", "a\\b\\nc\\rd\\te\\x00f\\x7f grün {}%s\n".encode()),
    ("", b"\n"), ("\u009b2J À€😀\u00a0", "\\xc2\\x9b2J À€😀\u00a0\n".encode()),
    (b"\x9b2J \xc3\x80 \xff", b"\\x9b2J \xc3\x80 \xff\n")])
async def test_prints_a_message_as_one_line_and_leaves_other_bytes(service, message, line):
    async with service.connect() as client:
        await client.send(message)
        assert await service.next_line() == line


# Three fragments and an empty last one are one line, and the next message another.
async def test_joins_fragments_with_an_empty_last_one(service):
    async with service.connect() as client:
        await client.send(part for part in ("one ", "two ", "three"))
        assert await service.next_line() == b"one two three\n"
        await client.send("next")
        assert await service.next_line() == b"next\n"


# Two clients get "one", "" and "two\r" in this order.
async def test_sends_each_input_line_to_every_client_in_order(service):
    async with service.connect() as first, service.connect() as second:
        service.wait_for_note("daemon connected from 127.0.0.1", count=2)
        service.type(b"one\n\ntwo\r\n")
        for client in (first, second):
            assert [await client.recv() for _ in range(3)] == ["one", "", "two\r"]


# The end of standard input sends "last" and leaves the service running.
async def test_the_last_input_line_needs_no_line_end_and_serving_goes_on(service):
    async with service.connect() as client:
        service.wait_for_note("daemon connected")
        service.type(b"last")
        service.process.stdin.close()
        assert await client.recv() == "last"
        await client.send("still there")
        assert await service.next_line() == b"still there\n"


# Notes say "daemon connected", "daemon gone", and that a line typed then "went nowhere".
async def test_notes_daemons_and_a_line_that_went_nowhere(service):
    async with service.connect():
        service.wait_for_note("daemon connected")
    service.wait_for_note("daemon gone")
    service.type(b"anybody?\n")
    service.wait_for_note("went nowhere")


# NUL, high bytes, nothing at all and 70,000 bytes come back as text or binary as they came.
async def test_echo_sends_text_and_binary_back_as_they_came(start):
    service = start("--echo")
    async with service.connect() as client:
        for message in ("text\0 with NUL", b"\x00\xff\n", "", "x" * 70000):
            await client.send(message)
            await service.next_line()
            assert await client.recv() == message


# The first thing that a client gets is the line typed after its message.
async def test_without_echo_nothing_comes_back(service):
    async with service.connect() as client:
        await client.send("hello")
        await service.next_line()
        service.type(b"first to arrive\n")
        assert await client.recv() == "first to arrive"


# 64 MiB are printed as one line and echoed unchanged.
async def test_passes_64_mib_both_ways(start):
    service = start("--echo")
    message = "0123456789abcdef" * (4 * MIB)
    async with service.connect() as client:
        await client.send(message)
        assert len(await service.next_line()) == 64 * MIB + 1
        assert await client.recv() == message


# "/", "/roam/", "/roaming" and "/Roam" are refused with 404.
@pytest.mark.parametrize("path", ["/", "/roam/", "/roaming", "/Roam"])
def test_refuses_another_path(service, path):
    assert status_of(service, path) == 404


# None, another one and a longer one are refused with 400.
@pytest.mark.parametrize("offered", [None, "other", "websock-roaming2"])
def test_refuses_another_subprotocol(service, offered):
    assert exchange(service.port, upgrade_bytes(service.port, subprotocol=offered))[0] == 400


# Of "other" and "websock-roaming" the second is chosen.
async def test_picks_its_subprotocol_from_a_list(service):
    async with service.connect(subprotocols=["other", "websock-roaming"]) as client:
        assert client.subprotocol == "websock-roaming"


def status_with_origins(service, host, origins):
    lines = [f"Origin: {origin}".format(port=service.port) for origin in origins]
    return exchange(service.port, upgrade_bytes(service.port, *lines,
                                                Host=host.format(port=service.port)))[0]


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
    assert status_with_origins(service, host, origins) == 403
    service.wait_for_note("refused a connection: its Origin is of another host")


# As the daemon sends it, without ports, and in any case, port, scheme or spelling of an IPv6 address.
@pytest.mark.parametrize("host, origin", [
    ("127.0.0.1", "http://127.0.0.1"), ("127.0.0.1:{port}", "http://127.0.0.1:{port}"),
    ("127.0.0.1:{port}", "http://127.0.0.1"), ("127.0.0.1:{port}", "https://127.0.0.1:1"),
    ("Roam.example", "HTTP://rOAM.EXAMPLE:80"), ("my_roam-1", "http://my_roam-1"),
    ("[::1]:{port}", "http://[::1]:{port}"), ("[2001:DB8::A]", "http://[2001:db8:0:0::a]:80")])
def test_an_origin_of_the_own_host_is_accepted(service, host, origin):
    assert status_with_origins(service, host, [origin]) == 101


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
        wait_until(lambda: status_of(service) == 101, "a connection that is let in")


# A request head of 16,384 bytes is served, one of 16,385 or 20,000 gets 431, in one piece or two.
#
# The limit was looked at only while the head's end had not arrived.
@pytest.mark.parametrize("length, status", [(16384, 101), (16385, 431), (20000, 431)])
@pytest.mark.parametrize("first_piece", [20000, 17000, 16384, 16381, 10000, 100])
def test_the_limit_of_a_request_head_counts_its_bytes_however_they_arrive(service, first_piece,
                                                                          length, status):
    filler = length - len(upgrade_bytes(service.port, "X-Long: "))
    request = upgrade_bytes(service.port, "X-Long: " + "x" * filler)
    with socket.create_connection(("127.0.0.1", service.port), LIMIT) as link:
        answer = b""
        with contextlib.suppress(ConnectionError):
            link.sendall(request[:first_piece])
            time.sleep(0.1)
            link.sendall(request[first_piece:])
            answer = link.recv(100)
    assert b" %d " % status in answer
    if status == 431:
        service.wait_for_note("refused a connection: its request is longer than 16384 bytes")


# Up to 4,000,000 empty lines that a daemon does not read: it is dropped by 256 MiB of memory.
#
# The limit counted payload, and an empty message takes some 100 bytes to keep.
@pytest.mark.skipif(not owns_its_memory(), reason="an emulator's or a sanitizer's memory")
def test_unread_messages_count_by_the_memory_that_they_take(connect):
    service, _ = connect()
    before = service.peak_mib()
    service.type(b"\n" * 4000000)
    service.wait_for_note("does not read")
    assert service.peak_mib() - before < 256 + 32


# With --path /elsewhere that path is served, a query aside, and printed; /roam is refused.
def test_serves_the_path_that_is_asked_for(start):
    service = start("--path", "/elsewhere")
    assert service.url == f"ws://127.0.0.1:{service.port}/elsewhere"
    for path, status in (("/elsewhere", 101), ("/elsewhere?key=1", 101), ("/roam", 404)):
        assert status_of(service, path) == status


# http_proxy and socks_proxy in the environment change nothing.
async def test_proxy_variables_do_not_matter(start):
    service = start(env={**os.environ, "http_proxy": "http://192.0.2.1:9",
                         "socks_proxy": "192.0.2.1:9"})
    async with service.connect() as client:
        await client.send("direct")
        assert await service.next_line() == b"direct\n"


# SIGTERM and SIGINT close with code 1001.
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
async def test_a_signal_closes_the_connections_and_ends_with_status_0(service, number):
    async with service.connect() as client:
        service.process.send_signal(number)
        with pytest.raises(websockets.ConnectionClosed):
            await client.recv()
        assert client.close_code == 1001
    assert service.process.wait(LIMIT) == 0


# By 352 MiB it is noted "does not read" and dropped; another client gets every line.
async def test_a_daemon_that_stops_reading_is_dropped_and_the_others_are_served(connect):
    in_thread = asyncio.get_running_loop().run_in_executor
    service, _ = connect()
    async with service.connect() as reading:
        service.wait_for_note("daemon connected", count=2)
        line = b"x" * (32 * MIB)
        for number in range(11):
            await in_thread(None, service.type, line + b"\n")
            assert len(await reading.recv()) == len(line), number
        await in_thread(None, service.wait_for_note, "does not read")
        await in_thread(None, service.wait_for_note, "daemon gone")
        service.type(b"still here\n")
        assert await reading.recv() == "still here"


# "cannot listen on" the address, the advice "--port 0" or "--bind", and status 1.
@pytest.mark.parametrize("options, address, advice", [
    (["--port", "{port}"], "127.0.0.1:{port}", "--port 0"),
    (["--port", "0", "--bind", "192.0.2.7"], "192.0.2.7:0", "--bind")], ids=["in use", "foreign"])
def test_an_address_that_cannot_be_had_is_a_clear_error(service, options, address, advice):
    result = run_to_its_end(*(option.format(port=service.port) for option in options))
    assert result.returncode == 1
    assert result.stdout == ""
    assert "cannot listen on " + address.format(port=service.port) in result.stderr
    assert advice in result.stderr


# Wrong values and unknown or excluding options bring the limit, example or option that matters.
@pytest.mark.parametrize("options, advice", [
    (["--bind", "localhost"], "127.0.0.1"), (["--path", "roam"], "/roam"),
    (["--port", "65536"], "65535"), (["--nonsense"], "--nonsense"),
    (["--fragments", "0"], "1"), (["--delay", "-1"], "600000"), (["--close-with", "999"], "4999"),
    (["--away", "0"], "86400"), (["--reset", "--away", "3"], "--away"),
    (["--console", "--bind", "0.0.0.0"], "127.0.0.1 with --bind"),
    (["--console", "--bind", "::"], "loopback")])
def test_wrong_usage_says_what_to_do(options, advice):
    result = run_to_its_end(*options)
    assert result.returncode not in (0, -6)
    assert advice in result.stderr


# All 13 options from --port to --after; status 0.
def test_help_names_every_option():
    result = run_to_its_end("--help")
    assert result.returncode == 0
    for option in ("--port", "--bind", "--path", "--echo", "--console", "--no-pongs",
                   "--stop-reading", "--fragments", "--delay", "--close-with", "--reset", "--away",
                   "--after"):
        assert option in result.stdout


# "cannot write to standard output" and status 1.
async def test_output_that_nobody_reads_ends_the_service(service):
    service.expected_status = 1
    async with service.connect() as client:
        service.process.stdout.close()
        await client.send("into the void")
        await client.wait_closed()
    assert service.process.wait(LIMIT) == 1
    service.wait_for_note("cannot write to standard output")
