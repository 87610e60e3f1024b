"""Messages of service "internal-ipc" stay inside the daemon; status requests are answered."""

# Test: 8 s, everywhere

import pytest

from harness.bus_peer import connected, disconnected, status_request
from harness.vemk_daemon import config_text

requests = [
    status_request,
    b'{"service":"INTERNAL-IPC","cmd":"Status"}',
    b'{ "cmd": "STATUS", "service": "Internal-Ipc", "version": 7, "more": [1] }',
]
unanswered = [
    b'{"service":"internal-ipc","cmd":"reboot"}',
    b'{"service":"internal-ipc"}',
    b'{"service":"Internal-IPC","cmd":null}',
    b'{"service":"internal-ipc","cmd":5}',
    b'{"service":"internal-ipc","cmd":"connected"}',
]


# Three forms of the request: each gets "connected", whole, and the server none of them.
@pytest.mark.parametrize("log_level", [0, 15])
def test_requests_are_answered_connected_and_not_sent_on(make_rig, log_level):
    daemon, bus, server = make_rig(log_level=log_level)
    announced = len(bus.received)
    for request in requests:
        bus.send(request)
    bus.send(b"marker")
    assert server.wait_for_payloads(1) == [b"marker"]
    bus.wait_for_statuses(announced + len(requests))
    assert [r.payload for r in bus.received[announced:]] == [connected] * len(requests)


# In a wait of minutes each request gets "disconnected", and the server sees no attempt.
def test_requests_are_answered_disconnected_while_waiting(make_daemon, bus, server):
    bus.listen()
    make_daemon().start(config_text(server.url, initial_delay=600, max_delay=600, log_level=15))
    bus.wait_listening()
    for request in requests:
        bus.send(request)
    # The announcement at the start may come before the listener does.
    bus.wait_for_statuses(len(requests))
    assert bus.run("status").stdout == b"disconnected\n"
    assert {r.payload for r in bus.received} == {disconnected}
    assert len(bus.received) <= 1 + len(requests) + 1
    assert server.handshakes == []


# Cmd unknown, missing, null, a number, "connected": no answer, and nothing for the server.
def test_other_internal_messages_are_swallowed(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    announced = len(bus.received)
    for message in unanswered:
        bus.send(message)
    bus.send(b"marker")
    bus.send(status_request)
    assert server.wait_for_payloads(1) == [b"marker"]
    bus.wait_for_statuses(announced + 1)
    assert [r.payload for r in bus.received[announced:]] == [connected]


# A message taken in the wait logs "->From queue" and is lost; one after it arrives.
def test_messages_are_dropped_while_waiting(make_daemon, bus, server):
    daemon = make_daemon().start(
        config_text(server.url, initial_delay=6, max_delay=6, log_level=15))
    bus.listen().wait_listening()
    bus.send(b"lost")
    daemon.wait_for_lines("websock-roaming->From queue")
    assert server.handshakes == []
    bus.wait_until_connected()
    bus.send(b"arrives")
    assert server.wait_for_payloads(1) == [b"arrives"]


# vemkctl status: "connected" and 0, without the server "disconnected" and 1.
def test_status_command_tells_the_state(make_rig):
    daemon, bus, server = make_rig()
    result = bus.run("status", "--timeout", "20")
    assert (result.returncode, result.stdout) == (0, b"connected\n")
    server.stop()
    bus.wait_for_last_status("disconnected")
    result = bus.run("status", "--timeout", "20")
    assert (result.returncode, result.stdout) == (1, b"disconnected\n")
