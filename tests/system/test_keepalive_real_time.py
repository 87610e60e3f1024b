"""The keepalive in real time: a ping every 30 s, and the end after three without an answer."""

# Test: 120 s, emulated only
# The keepalive takes its time where the daemon's clock cannot be made faster; elsewhere
# test_keepalive.py shows it.

from harness.frames import opcode_ping
from harness.healing import lost_and_found
from harness.keepalive import keepalive_events, words
from harness.round_trip import passes_both_ways


# The first ping comes 30 s after the handshake, is empty, and logged as "[5] len [6/0]  to".
# It alone is answered. Three about 30 s apart follow, then one missing-pong line, "disconnected"
# twice and "connected".
def test_connection_is_kept_by_an_answer_and_dropped_after_three_without(make_frame_rig):
    daemon, bus, server = make_frame_rig(None, {"answers_pings": lambda number: number == 1},
                                         log_level=15)
    announced = len(bus.statuses())
    established = server.accept_times[0]
    ping = server.wait_for_frames(opcode_ping, 1, seconds=60)[0]
    assert (ping.payload, ping.final, ping.masked) == (b"", True, True)
    # Whole seconds of the clock are compared, so up to one second is missing from 30.
    assert 28.9 <= ping.time - established
    daemon.wait_for_lines("process_client_receive_pong:119")
    assert words(keepalive_events(daemon)) == ["ping", "pong"]
    sent, = daemon.lines_with("Send msg type [5]")
    assert sent.text == "websock-roaming->lws_send:Send msg type [5] len [6/0]  to websocket"
    assert passes_both_ways(bus, server, "still here")
    assert len(server.connections) == 1
    server.wait_for_connections(2, seconds=140)
    pings = [ping.time for ping in server.frames_of(opcode_ping)]
    assert len(pings) == 4
    assert all(28.9 <= later - earlier for earlier, later in zip(pings, pings[1:]))
    assert words(keepalive_events(daemon)) == ["ping", "pong", "ping", "ping", "ping", "given up"]
    assert bus.wait_for_statuses(announced + 3)[announced:] == lost_and_found
