"""Answers to the opening request that do not end in a WebSocket, and answers that do not end."""

# Test: 48 s

import itertools
import random
import time

import pytest

from harness import library_texts
from harness.bus_peer import status_request
from harness.handshake_faults import answers, attempt_seconds, changed_upgrade, refused_course
from harness.keepalive import ending_clock, fast_clock
from harness.raw_server import finish, http_head, reset, silent, upgrade, upgrade_lines
from harness.round_trip import passes_both_ways
from harness.vemk_daemon import config_text


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
    # A library before 3.0 does nothing else for as long as the line goes on.
    for _ in range(1024) if library_texts.keeps_garbage else itertools.count():
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
    if library_texts.ignores_extensions:
        faults.pop()
    trial = make_trial([fault for fault, reason in faults], **ending_clock())
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * len(faults)
    if library_texts.says_handshake_errors:
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
                        thousands_of_header_lines], **ending_clock())
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * len(endured.courses)
    assert library_texts.keeps_garbage or \
        all("2: problems parsing header" in lines for lines in endured.library_lines)
    trial.heal()


# Fault, before the connection: a handshake answer that is right but for its size: a cookie of 4000
# bytes, or 300 short header lines.
# Seen: the attempt is logged "websock-roaming->process_client_connection_error:41" and the
# library's "Ran out of header data space"; the bus hears "disconnected" only, the next attempt
# follows; it connects when the answer is of an ordinary size.
def test_handshake_answer_that_is_too_large_is_tried_again(make_trial):
    short_lines = [b"X-%d: a" % number for number in range(300)]
    faults = [with_line(b"Set-Cookie: " + b"a" * 4000)]
    if not library_texts.ignores_unknown_lines:
        faults.append(changed_upgrade(lambda lines: lines + short_lines))
    trial = make_trial(faults)
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * len(faults)
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
@pytest.mark.parametrize("reads_requests", [False, True])
def test_server_that_hangs_up_is_tried_again(make_trial, reads_requests):
    trial = make_trial([answers(b"", finish), answers(b"", reset)], reads_requests)
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * 2
    trial.heal()


def trickle(beginning, piece):
    """A behaviour that sends a piece now and then, for longer than any answer takes."""

    def behaviour(server, connection, request):
        connection.sendall(b"HTTP/1.1 101 Switching Protocols\r\n" + beginning)
        while True:
            connection.sendall(piece)
            time.sleep(0.5)

    return behaviour


# Fault, before the connection: a server that is no web server, such as "SSH-2.0-x", one that sends
# one byte of its answer every 500 ms for ever, and one that sends a header line every 500 ms.
# Seen: after 20 s, which the bytes do not prolong, the attempt is logged
# "websock-roaming->process_client_connection_error:41"; the bus hears "disconnected" only, the next
# attempt follows; it connects when the server answers as it should.
def test_answer_that_never_ends_is_given_up(make_trial):
    trial = make_trial([trickle(b"X-Slow: ", b"a"), trickle(b"", b"X-Slow: a\r\n"),
                        answers(b"SSH-2.0-x\r\n")], **fast_clock(10))
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * 3
    assert all(19.9 < seconds < 30 for seconds in attempt_seconds(endured.daemon))
    trial.heal()


# Fault, before the connection: a server that accepts and says nothing, or stops within the answer.
# Seen: after 20 s the attempt ends with the line
# "websock-roaming->process_client_connection_error:41", a status request that came meanwhile is
# answered "disconnected" before the next one, and it connects when the server answers as it should.
@pytest.mark.parametrize("behaviour", [
    silent, answers(b"HTTP/1.1 101 Switching Protocols\r\nUpg")], ids=["silent", "half-way"])
def test_silent_attempt_is_given_up(make_daemon, make_raw_server, bus, behaviour):
    """The library ends such an attempt with another reason than a refused one.

    The worker once took no notice of it and waited for ever.
    """
    server = make_raw_server(behaviour)
    bus.listen()
    daemon = make_daemon().start(config_text(server.url, log_level=15), **fast_clock(4))
    server.wait_for_connections(1)
    bus.wait_listening()
    # The request stays queued until the library gives the attempt up.
    bus.send(status_request)
    server.behaviour = upgrade
    server.wait_for_connections(2, seconds=60)
    assert [19.9 < seconds < 30 for seconds in attempt_seconds(daemon)] == [True]
    courses = [line.text for line in daemon.log_lines()
               if "->From queue" in line.text or "Try to establish" in line.text]
    assert "From queue" in courses[1] and "Try to establish" in courses[2]
    # Two at the end of an attempt, and the answer.
    announced = bus.wait_for_last_status("connected", after=3)
    assert set(announced[:-1]) == {"disconnected"}
    assert daemon.own_thread_names() == ["ipc", "main", "websock-roaming"]
    assert passes_both_ways(bus, server, "connected")
