"""Pings without an answer, a pong without a ping, and the watchdog.

All times are of the daemon's log, which its faster clock stamps.
"""

# Test: 27 s, native only

import re

from harness.frames import frame, opcode_ping, opcode_pong
from harness.healing import fault_watch, lost_and_found
from harness.keepalive import established, keepalive_events, start_fast, words
from harness.library_texts import ping_payload

ping_lines = [
    "websock-roaming->process_client_writeable: It's time to ping websocket server, expired [30]",
    "websock-roaming->lws_send:Send msg type [5] "
    f"len [{6 + len(ping_payload)}/{len(ping_payload)}]  to websocket"]
dropping_lines = [
    "websock-roaming->There are no 3 pong answer in a row from server",
    "websock-roaming->Stopping"]


def lines_from_first_ping(daemon):
    """What the worker itself logged, as if every ping had been sent in its second."""
    lines = [line.text for line in daemon.log_lines()
             if line.module == "websock-worker" and "libwebsocket-debug" not in line.text]
    lines = [re.sub(r"expired \[3\d\]", "expired [30]", line) for line in lines]
    return lines[lines.index(ping_lines[0]):]


# Fault, keepalive: no ping is answered.
# Seen: three pings, and at the first callback after the third, about 90 s after the handshake, the
# line "websock-roaming->There are no 3 pong answer in a row from server", then "Stopping";
# "disconnected" twice, "connected", and the next connection, whose pings are answered, stays.
def test_third_unanswered_ping_drops_the_connection(make_frame_rig):
    rig = start_fast(make_frame_rig, lambda number: number > 3, speed=40)
    watch = fault_watch(rig)
    watch.expect_healed()
    rig.server.wait_for_frames(opcode_ping, 6)
    watch.expect_kept()
    assert lines_from_first_ping(rig.daemon)[:8] == ping_lines * 3 + dropping_lines
    events = keepalive_events(rig.daemon)
    assert words(events)[:6] == ["ping", "ping", "ping", "given up", "ping", "pong"]
    assert 88 <= events[3].time - established(rig.daemon) < 110


# Fault, keepalive: one ping of three is answered, the third.
# Seen: the answer comes too late: the first callback after the third ping drops the connection,
# even if it is the one that brings the pong.
def test_answer_to_the_third_ping_is_too_late(make_frame_rig):
    rig = start_fast(make_frame_rig, lambda number: number % 3 == 0, speed=40)
    watch = fault_watch(rig)
    watch.expect_healed()
    assert words(keepalive_events(rig.daemon))[:4] == ["ping", "ping", "ping", "given up"]


# Fault, keepalive: no ping is answered, but after the second a pong comes that answers none.
# Seen: it sets the count of missing answers to 0, so that the connection is given up after the
# fifth ping.
def test_pong_that_nobody_asked_for_counts(make_frame_rig):
    rig = start_fast(make_frame_rig, False, speed=20)
    watch = fault_watch(rig)
    rig.server.wait_for_frames(opcode_ping, 2)
    rig.server.send(frame(opcode_pong, b"nobody asked"))
    watch.expect_healed()
    assert words(keepalive_events(rig.daemon))[:7] == \
        ["ping", "ping", "pong", "ping", "ping", "ping", "given up"]


# Fault, keepalive: after an answered ping the server reads nothing more, and the bus keeps sending.
# Seen: writeable callbacks stop, and with them the pings; 60 s after the last ping the line
# "websock-roaming->ping_timeout:197", then "Stopping", "disconnected" twice and "connected".
def test_watchdog_fires_a_minute_after_the_last_ping(make_frame_rig):
    daemon, bus, server = start_fast(make_frame_rig, True, speed=20, receive_buffer=4096)
    announced = len(bus.statuses())
    server.wait_for_frames(opcode_ping, 1)
    server.stop_reading()
    for _ in range(20):
        bus.send(b"m" * (1 << 18))
    # On a busy machine the next connection may miss three pongs, so fast is the clock.
    assert bus.wait_for_statuses(announced + 3)[announced:announced + 3] == lost_and_found
    lines = lines_from_first_ping(daemon)
    fired = lines.index("websock-roaming->ping_timeout:197")
    assert lines[fired + 1] == "websock-roaming->Stopping"
    events = keepalive_events(daemon)
    assert "given up" not in words(events)
    position = words(events).index("watchdog")
    last_ping = max(event.time for event in events[:position] if event.what == "ping")
    assert 59 <= events[position].time - last_ping < 70
    fault_watch((daemon, bus, server)).expect_kept()
