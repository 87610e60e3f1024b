"""Ten minutes of pings; all times are of the daemon's log, which its faster clock stamps."""

# Test: 36 s, native only

from harness.frames import opcode_ping
from harness.healing import fault_watch
from harness.keepalive import established, keepalive_events, start_fast, words
from harness.library_texts import ping_payload


def intervals(events):
    times = [event.time for event in events if event.what == "ping"]
    return [later - earlier for earlier, later in zip(times, times[1:])]


# Fault, keepalive: none, every ping of 10 minutes is answered.
# Seen: an empty ping 30 s after the handshake and 30 s after each ping (a byte in it with a library
# from 2.4 to 3.0.0), with the line
# "websock-roaming->process_client_writeable: It's time to ping websocket server, expired [30]", and
# after it a pong; the connection stays, and nothing is announced.
def test_answered_pings_keep_the_connection_for_ten_minutes(make_frame_rig):
    rig = start_fast(make_frame_rig, True, speed=60)
    watch = fault_watch(rig)
    pings = rig.server.wait_for_frames(opcode_ping, 20)
    assert {(ping.payload, ping.final, ping.masked) for ping in pings} == \
        {(ping_payload, True, True)}
    watch.expect_kept()
    events = keepalive_events(rig.daemon)
    assert words(events)[:39] == ["ping", "pong"] * 19 + ["ping"]
    # Whole seconds of the clock are compared, so up to one second is missing from 30.
    assert 29 <= events[0].time - established(rig.daemon)
    assert all(29 <= interval for interval in intervals(events))


# Fault, keepalive: one ping of two is answered, for 10 minutes.
# Seen: never are three answers missing, so the connection stays, and nothing is announced.
def test_every_other_answer_keeps_the_connection_for_ten_minutes(make_frame_rig):
    rig = start_fast(make_frame_rig, lambda number: number % 2 == 0, speed=25)
    watch = fault_watch(rig)
    rig.server.wait_for_frames(opcode_ping, 20)
    watch.expect_kept()
    expected = ["ping", "ping", "pong"] * 9 + ["ping", "ping"]
    assert words(keepalive_events(rig.daemon))[:29] == expected
