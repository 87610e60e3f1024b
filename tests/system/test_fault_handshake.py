"""Answers to the opening request that begin well and do not end in a WebSocket, and odd ones that
do."""

# Test: 42 s

import random
import socket
import time

import pytest

from harness.bus_peer import connected
from harness.handshake_faults import (answers, changed_upgrade, courses_of, failing_server, finish,
                                      hanging_up_server, refused_course, reset)
from harness.keepalive import established, fast_clock
from harness.raw_server import http_head, opcode_text, upgrade, upgrade_lines
from harness.vemk_daemon import config_text
from harness.waiting import wait_until


def without(name):
    return changed_upgrade(lambda lines: [line for line in lines if not line.startswith(name)])


def with_line(line):
    """The upgrade with this line in place of the one of the same name, or added to it."""
    name = line.split(b":")[0]
    return changed_upgrade(
        lambda lines: [other for other in lines if not other.startswith(name)] + [line])


def cut_at(length, end):
    """The upgrade up to a place, counted from the end when negative; then FIN or RST."""
    return answers(lambda request: http_head(upgrade_lines(request))[:length], end)


def header_line_without_end(server, connection, request):
    connection.sendall(b"HTTP/1.1 101 Switching Protocols\r\nX-Long: ")
    while True:
        connection.sendall(b"a" * 1024)


def thousands_of_header_lines(server, connection, request):
    connection.sendall(http_head([b"HTTP/1.1 101 Switching Protocols",
                                  *(b"X-Number-%d: %d" % (i, i) for i in range(5000))]))


# Fault, before the connection: a handshake answer with a wrong accept key or none, with another
# subprotocol than the one offered, without "Upgrade" or "Connection", with others than "websocket"
# and "upgrade" in them, or with an extension that was not offered.
# Seen: the attempt is logged "websock-roaming->process_client_connection_error:41" and the
# library's reason; the bus hears "disconnected" only, the next attempt follows; it connects when
# the server answers as it should.
def test_wrong_handshake_answer_is_tried_again(make_trial):
    faults = [(with_line(b"Sec-WebSocket-Accept: " + b"A" * 27 + b"="), "Accept hash wrong"),
              (without(b"Sec-WebSocket-Accept"), "ACCEPT missing"),
              (with_line(b"Sec-WebSocket-Protocol: chat"), "PROTOCOL malformed"),
              (without(b"Upgrade"), "UPGRADE missing"),
              (without(b"Connection"), "UPGRADE malformed"),
              (with_line(b"Upgrade: h2c"), "Upgrade to something other than"),
              (with_line(b"Connection: close"), "UPGRADE malformed"),
              (with_line(b"Sec-WebSocket-Extensions: permessage-deflate"), "unknown ext")]
    trial = make_trial([fault for fault, reason in faults])
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * len(faults)
    for lines, (fault, reason) in zip(endured.library_lines, faults):
        assert any("due to bail2 connection error: HS: " in line and reason in line
                   for line in lines), reason
    trial.heal()


# Fault, before the connection: garbage in place of the handshake answer: random bytes, NUL bytes,
# bytes 0xFF, a header line without end, 5000 header lines.
# Seen: the attempt is logged "websock-roaming->process_client_connection_error:41" and the
# library's "problems parsing header"; the bus hears "disconnected" only, the next attempt follows.
def test_garbage_in_place_of_the_answer_is_tried_again(make_trial):
    random_bytes = random.Random(1).randbytes(8192)
    trial = make_trial([answers(random_bytes), answers(random_bytes, reset), answers(bytes(8192)),
                        answers(b"\xff" * 8192), header_line_without_end,
                        thousands_of_header_lines])
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * len(endured.courses)
    assert all("2: problems parsing header" in lines for lines in endured.library_lines)
    trial.heal()


# Fault, before the connection: a handshake answer that is right but for its size: a cookie of 4000
# bytes, or 300 short header lines.
# Seen: the attempt is logged "websock-roaming->process_client_connection_error:41" and the
# library's "Ran out of header data space"; the bus hears "disconnected" only, the next attempt
# follows; it connects when the answer is of an ordinary size.
def test_handshake_answer_that_is_too_large_is_tried_again(make_trial):
    short_lines = [b"X-%d: a" % number for number in range(300)]
    trial = make_trial([with_line(b"Set-Cookie: " + b"a" * 4000),
                        changed_upgrade(lambda lines: lines + short_lines)])
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * 2
    assert all("1: Ran out of header data space" in lines for lines in endured.library_lines)
    trial.heal()


# Fault, before the connection: a handshake cut at eight places, from its first byte to the last
# but one, by FIN and by RST.
# Seen: the attempt is logged "websock-roaming->process_client_connection_error:41"; the bus hears
# "disconnected" only, the next attempt follows.
def test_handshake_cut_in_the_middle_is_tried_again(make_trial):
    places = [1, 9, 12, 34, 60, -10, -2, -1]
    trial = make_trial([cut_at(place, end) for place in places for end in (finish, reset)])
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * (2 * len(places))
    trial.heal()


# Fault, before the connection: a server that hangs up by FIN or by RST, as soon as it has accepted
# or when it has read the request.
# Seen: the attempt is logged "websock-roaming->process_client_connection_error:41"; the bus hears
# "disconnected" only, the next attempt follows.
@pytest.mark.parametrize("server_type", [hanging_up_server, failing_server])
def test_server_that_hangs_up_is_tried_again(make_trial, server_type):
    trial = make_trial([answers(b"", finish), answers(b"", reset)], server_type)
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * 2
    trial.heal()


def connect_through(behaviour, make_daemon, make_raw_server, bus, **start_options):
    """The server of a daemon that is connected by it and passes a message on either way."""
    server = make_raw_server(behaviour)
    bus.listen()
    daemon = make_daemon().start(config_text(server.url, log_level=15), **start_options)
    bus.wait_until_connected()
    bus.send(b"up")
    assert server.wait_for_frames(opcode_text, 1)[0].payload == b"up"
    server.send_text_frame(b"down")
    wait_until(lambda: bus.payloads()[-1:] == [b"down"], "the server's message on the bus")
    assert len(server.connections) == 1
    return daemon


# Fault, before the connection: a handshake answer that arrives in one-byte pieces.
# Seen: it connects at the first attempt, and messages flow both ways.
def test_handshake_in_one_byte_pieces_connects(make_daemon, make_raw_server, bus):
    def trickle(server, connection, request):
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in http_head(upgrade_lines(request)):
            connection.sendall(bytes([byte]))
            time.sleep(0.002)
        server.read_frames(connection)

    connect_through(trickle, make_daemon, make_raw_server, bus)
    assert bus.payloads() == [b"down"]


# Fault, before the connection: a server that answers the handshake after 8 seconds.
# Seen: it connects at the first attempt, and messages flow both ways.
def test_answer_after_eight_seconds_connects(make_daemon, make_raw_server, bus):
    """The library gave the attempt up after 5 seconds, and the next, for as long as the service
    was that slow."""
    clock = fast_clock(4)

    def hesitate(server, connection, request):
        time.sleep(8 / 4 if clock else 8)
        upgrade(server, connection, request)

    daemon = connect_through(hesitate, make_daemon, make_raw_server, bus, **clock)
    began = daemon.lines_with("websock-roaming->Connected")[0].time
    assert established(daemon) - began > 6


# Fault, before the connection: the handshake answer and the first frame in the same segment.
# Seen: the bus hears "connected", then the frame's message, and messages flow both ways.
def test_first_frame_in_the_segment_of_the_handshake_is_received(make_daemon, make_raw_server, bus):
    def hurry(server, connection, request):
        connection.sendall(http_head(upgrade_lines(request)) + b"\x81\x05first")
        server.read_frames(connection)

    connect_through(hurry, make_daemon, make_raw_server, bus)
    assert bus.payloads() == [b"first", b"down"]
    heard = [received.payload for received in bus.received]
    assert heard.index(b"first") > heard.index(connected)


# Fault, before the connection: a handshake answer that names no subprotocol or an empty one, names
# "Upgrade" second in its list, ends its lines without carriage returns, or is of HTTP/1.0.
# Seen: it connects at the first attempt, and messages flow both ways.
@pytest.mark.parametrize("odd", [
    lambda head: head,
    lambda head: head[:-2] + b"Sec-WebSocket-Protocol: \r\n\r\n",
    lambda head: head.replace(b"Connection: Upgrade", b"connection: keep-alive, Upgrade"),
    lambda head: head.replace(b"\r\n", b"\n"),
    lambda head: head.replace(b"HTTP/1.1", b"HTTP/1.0"),
], ids=["no-subprotocol", "empty-subprotocol", "list", "bare-line-ends", "http-1.0"])
def test_odd_handshake_answer_connects(make_daemon, make_raw_server, bus, odd):
    def accept(server, connection, request):
        connection.sendall(odd(http_head(upgrade_lines(request))))
        server.read_frames(connection)

    connect_through(accept, make_daemon, make_raw_server, bus)


# Fault, before the connection: a port on which nobody listens.
# Seen: each attempt is logged "websock-roaming->process_client_connection_error:41"; the bus hears
# "disconnected" only, as does "vemkctl status"; it connects when the server listens again.
def test_refused_port_is_tried_again(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    announced, descriptors = len(bus.statuses()), daemon.descriptor_count()
    server.stop()
    daemon.wait_for_lines("Try to establish connect with server", 5)
    courses, library_lines = courses_of(daemon)
    assert courses[1:4] == [refused_course(server.port)] * 3
    assert bus.run("status", "--timeout", "20").stdout == b"disconnected\n"
    assert set(bus.wait_for_statuses(announced + 8)[announced:]) == {"disconnected"}
    server.start()
    bus.wait_for_last_status("connected", after=announced)
    bus.send(b"up again")
    assert server.wait_for_payloads(1) == [b"up again"]
    server.send("down again")
    assert bus.wait_for_payloads(1) == [b"down again"]
    daemon.wait_for_descriptors(descriptors)
