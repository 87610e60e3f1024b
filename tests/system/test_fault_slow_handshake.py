"""A server that keeps the connection open and never comes to the end of its answer."""

# Test: 9 s

import time

from harness.handshake_faults import answers, attempt_seconds, refused_course
from harness.keepalive import fast_clock


def trickle(server, connection, request):
    """One byte now and then, for longer than any answer takes."""
    connection.sendall(b"HTTP/1.1 101 Switching Protocols\r\nX-Slow: ")
    while True:
        connection.sendall(b"a")
        time.sleep(0.5)


def slow_header_lines(server, connection, request):
    connection.sendall(b"HTTP/1.1 101 Switching Protocols\r\n")
    while True:
        connection.sendall(b"X-Slow: a\r\n")
        time.sleep(0.5)


# Fault, before the connection: a server that is no web server, such as "SSH-2.0-x", one that sends
# one byte of its answer every 500 ms for ever, and one that sends a header line every 500 ms.
# Seen: after 20 s, which the bytes do not prolong, the attempt is logged
# "websock-roaming->process_client_connection_error:41"; the bus hears "disconnected" only, the next
# attempt follows; it connects when the server answers as it should.
def test_answer_that_never_ends_is_given_up(make_trial):
    trial = make_trial([trickle, slow_header_lines, answers(b"SSH-2.0-x\r\n")], **fast_clock(10))
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * 3
    assert all(19.9 < seconds < 30 for seconds in attempt_seconds(endured.daemon))
    trial.heal()
