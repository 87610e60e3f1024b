"""The opening request: where it goes, what it says, when it comes, and answers that connect."""

# Test: 20 s

import socket
import time

import pytest

from harness import library_texts
from harness.bus_peer import connected
from harness.frames import text
from harness.handshake_faults import refused_course
from harness.independent_servers import with_each_server
from harness.keepalive import established, fast_clock
from harness.raw_server import accepts, http_head, silent, upgrade, upgrade_lines
from harness.round_trip import passes_both_ways
from harness.vemk_daemon import config_text


# Host is the bare host, Origin "http://" and that host, without port; version 13, no extensions.
# Three servers see this request, and choose the offered "websock-roaming".
@with_each_server
def test_request_names_host_path_and_subprotocol(make_rig):
    daemon, bus, server = make_rig()
    handshake = server.handshakes[0]
    assert handshake.path == "/roam"
    assert handshake.headers["Host"] == "127.0.0.1"
    assert handshake.headers["Origin"] == "http://127.0.0.1"
    assert handshake.headers["Sec-WebSocket-Protocol"] == "websock-roaming"
    assert handshake.headers["Sec-WebSocket-Version"] == "13"
    assert "Sec-WebSocket-Extensions" not in handshake.headers
    assert handshake.subprotocol == "websock-roaming"


# No scheme, upper case, two URLs, an overlong line and a NUL byte: the last whole URL counts.
@pytest.mark.parametrize("config, path", [
    ("roam_service_url=127.0.0.1:{port}/", "/"),
    ("# a note\n\nROAM_SERVICE_URL=ws://127.0.0.1:{port}/deep/er?q=1\r\nap_location=\r\n",
     "/deep/er?q=1"),
    ("roam_service_url=ws://127.0.0.1:1/no\nroam_service_url=ws://127.0.0.1:{port}/last\n",
     "/last"),
    ("initial_connection_delay=99999999999999999999\ninitial_connection_delay=1\n" + "x" * 5000
     + "\nroam_service_url=ws://127.0.0.1:{port}/after-a-long-line", "/after-a-long-line"),
    ("nul\0byte=1\nroam_service_url=ws://127.0.0.1:{port}/after-a-nul\n", "/after-a-nul"),
], ids=["no-scheme", "letter-case", "last-counts", "long-line", "nul-byte"])
def test_configuration_leads_to_the_path(make_daemon, server, config, path):
    make_daemon().start(config.format(port=server.port))
    server.wait_for_connections(1)
    assert server.handshakes[0].path == path


# -d, -p and -P in front of the -f options do not count, nor does a file that is missing.
def test_options_are_overridden_by_the_file(make_daemon, server, place):
    file = place.folder / "override.conf"
    file.write_text(config_text(server.url))
    make_daemon().start(arguments=["-d", "no-such-host.invalid", "-p", "/other", "-P", "1",
                                   "-f", place.folder / "missing.conf", "-f", file])
    server.wait_for_connections(1)
    assert server.handshakes[0].path == "/roam"


# With six proxy variables set the daemon connects, and the proxy sees nobody.
def test_proxy_variables_are_ignored(make_rig, make_raw_server, server):
    proxy = make_raw_server(silent)
    variables = ("http_proxy", "HTTP_PROXY", "socks_proxy", "SOCKS_PROXY", "all_proxy", "ALL_PROXY")
    make_rig({"environment": dict.fromkeys(variables, f"127.0.0.1:{proxy.port}")}, log_level=15)
    assert len(server.handshakes) == 1
    assert proxy.connections == []


# Fault, before the connection: a port on which nobody listens, with the delays 1 and 3.
# Seen: each attempt is logged "websock-roaming->process_client_connection_error:41"; the bus hears
# "disconnected" only; the delays come from [0;1), [1;3), [1;4) and [1;4); it connects when the
# server listens, and after that the next delay comes from [0;1) again.
def test_delay_grows_with_each_refusal_and_starts_over_when_connected(make_daemon, bus, server):
    server.stop()
    bus.listen()
    config = config_text(server.url, initial_delay=1, max_delay=3, log_level=15)
    daemon = make_daemon().start(config)
    ranges = [line.text for line in daemon.wait_for_lines("Generate delay", 4, seconds=60)]
    assert ranges[:4] == [f"Generate delay into {window} range"
                          for window in ("[0;1)", "[1;3)", "[1;4)", "[1;4)")]
    assert len(daemon.lines_with("process_client_connection_error:41")) >= 3
    assert set(bus.statuses()) == {"disconnected"}
    server.start()
    bus.wait_for_last_status("connected", seconds=60)
    server.wait_for_connections(1)
    assert len(server.handshakes) == 1
    tried = len(daemon.lines_with("Generate delay"))
    server.reset()
    again = daemon.wait_for_lines("Generate delay", tried + 1)
    assert again[tried].text == "Generate delay into [0;1) range"


# After an establishment the window is [1;3) again, and the attempt comes 1 or 2 seconds later.
def test_new_connection_comes_after_the_delay_drawn(make_rig):
    daemon, bus, server = make_rig(initial_delay=2, max_delay=2, log_level=15)
    lost = server.reset()
    server.wait_for_connections(2)
    assert [line.text for line in daemon.lines_with("Generate delay")] == \
        ["Generate delay into [1;3) range"] * 2
    drawn, attempt = daemon.lines_with("Delay before connection")[1], \
        daemon.lines_with("Try to establish connect")[1]
    delay = int(drawn.text.split()[-2])
    assert delay in (1, 2)
    # Whole seconds of the clock: the wait ends on the boundary of the last of them.
    assert delay - 1 <= attempt.time - drawn.time
    assert attempt.time - lost < 1 + 0.3 + delay + 3


@pytest.fixture
def connect_through(start_rig, make_raw_server):
    """Connects a daemon at the first attempt; it hears this and passes a message on either way."""

    def connect(behaviour, heard=(), start_options=None):
        daemon, bus, server = start_rig(make_raw_server(behaviour), start_options, log_level=15)
        assert bus.wait_for_payloads(len(heard)) == [*heard]
        assert passes_both_ways(bus, server, "connected")
        assert len(server.connections) == 1
        return daemon

    return connect


# Fault, before the connection: a handshake answer that arrives in one-byte pieces.
# Seen: it connects at the first attempt, and messages flow both ways.
def test_handshake_in_one_byte_pieces_connects(connect_through):
    def trickle(server, connection, request):
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in http_head(upgrade_lines(request)):
            connection.sendall(bytes([byte]))
            time.sleep(0.002)
        server.read_frames(connection)

    connect_through(trickle)


# Fault, before the connection: a server that answers the handshake after 8 seconds.
# Seen: it connects at the first attempt, and messages flow both ways.
def test_answer_after_eight_seconds_connects(connect_through):
    """The library gave the attempt up after 5 seconds, and the next, for as long as the service
    was that slow."""
    clock = fast_clock(4)

    def hesitate(server, connection, request):
        time.sleep(8 / 4 if clock else 8)
        upgrade(server, connection, request)

    daemon = connect_through(hesitate, start_options=clock)
    began = daemon.lines_with("websock-roaming->Connected")[0].time
    assert established(daemon) - began > 6


# Fault, before the connection: the handshake answer and the first frame in the same segment.
# Seen: the bus hears "connected", then the frame's message, and messages flow both ways.
def test_first_frame_in_the_segment_of_the_handshake_is_received(connect_through, bus):
    def head_and_frame(head):
        bus.wait_listening()
        return head + text(b"first")

    connect_through(accepts(head_and_frame), heard=[b"first"])
    heard = [received.payload for received in bus.received]
    assert heard.index(b"first") > heard.index(connected)


# Fault, before the connection: a handshake answer that names no subprotocol or an empty one, names
# "Upgrade" second in its list, ends its lines without carriage returns, or is of HTTP/1.0.
# Seen: it connects at the first attempt, and messages flow both ways; the last three are refused
# and tried again by a library before 3.0, 4.1 and 4.0. One without extensions, or before 3.0, also
# connects with an extension that was not offered, or with 300 header lines.
@pytest.mark.parametrize("odd, is_accepted", [
    (lambda head: head, True),
    (lambda head: head[:-2] + b"Sec-WebSocket-Protocol: \r\n\r\n", True),
    (lambda head: head.replace(b"Connection: Upgrade", b"connection: keep-alive, Upgrade"),
     library_texts.accepts_connection_list),
    (lambda head: head[:-2] + b"Sec-WebSocket-Extensions: permessage-deflate\r\n\r\n",
     library_texts.ignores_extensions),
    (lambda head: head[:-2] + 300 * b"X-Line: a\r\n" + b"\r\n",
     library_texts.ignores_unknown_lines),
    (lambda head: head.replace(b"\r\n", b"\n"), library_texts.accepts_bare_line_ends),
    (lambda head: head.replace(b"HTTP/1.1", b"HTTP/1.0"), library_texts.accepts_http_1_0),
], ids=["no-subprotocol", "empty-subprotocol", "list", "extension", "300-lines", "bare-line-ends",
        "http-1.0"])
def test_odd_handshake_answer_connects(connect_through, make_trial, odd, is_accepted):
    if is_accepted:
        connect_through(accepts(odd))
    else:
        trial = make_trial([accepts(odd)], **fast_clock(10))
        assert trial.endure().courses == [refused_course(trial.server.port)]
        trial.heal()
