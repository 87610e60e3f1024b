"""A server that accepts the TCP connection and does not get on with the handshake."""

# Test: 11 s

import pytest

from harness.bus_peer import status_request
from harness.handshake_faults import attempt_seconds
from harness.keepalive import fast_clock
from harness.raw_server import opcode_text, silent, upgrade
from harness.vemk_daemon import config_text


def stop_half_way(server, connection, request):
    connection.sendall(b"HTTP/1.1 101 Switching Protocols\r\nUpg")


# Fault, before the connection: a server that accepts and says nothing, or stops within the answer.
# Seen: after 20 s the attempt ends with the line
# "websock-roaming->process_client_connection_error:41", a status request that came meanwhile is
# answered "disconnected" before the next one, and it connects when the server answers as it should.
@pytest.mark.parametrize("behaviour", [silent, stop_half_way])
def test_daemon_answers_disconnected_and_tries_again(make_daemon, make_raw_server, bus, behaviour):
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
    bus.send(b"up")
    assert server.wait_for_frames(opcode_text, 1)[0].payload == b"up"
    server.send_text_frame(b"down")
    assert bus.wait_for_payloads(1) == [b"down"]
