"""Messages from the server that take minutes at the daemon's pace, at forty times that pace."""

# Test: 27 s, native only, not under ThreadSanitizer
# ThreadSanitizer copies a message whenever it grows, here 4096 times.

import pytest

from harness.frame_server import pattern
from harness.frames import frame, opcode_continuation, opcode_ping, opcode_text, text
from harness.healing import fault_watch, lost_and_found
from harness.keepalive import fast_clock
from harness.pacing import steps_only
from harness.waiting import slowdown

large_size = 16 << 20
piece_size = 4096


# Fault, while connected: one message of 16 MiB from the server, in fragments of 64 KiB, each sent
# when the one before it was read, so that the daemon's pings are answered in time.
# Seen: after some 7 minutes of the daemon's clock the message reaches the bus whole and unchanged,
# and the connection is kept.
def test_sixteen_mebibytes_in_fragments_arrive_unchanged(make_frame_rig):
    # A sanitizer makes each piece take longer, and no step may last for three pings.
    rig = make_frame_rig(fast_clock(40 // slowdown), {"answers_pings": True})
    daemon, bus, server = rig
    watch = fault_watch(rig)
    message = pattern(large_size)
    step = 64 << 10
    for start in range(0, large_size, step):
        server.send(frame(opcode_continuation if start else opcode_text,
                          message[start:start + step], final=start + step == large_size))
        server.synchronise()
    received = bus.wait_for_payloads(1)[0]
    assert len(received) == large_size
    assert received == message
    assert server.frames_of(opcode_ping)
    watch.remember()
    watch.expect_kept()


# Fault, while connected: one message of 16 MiB from the server in a single frame.
# Seen: at 40 KiB a second it takes longer than three pings: the answers to them are stuck behind
# it. "There are no 3 pong answer in a row from server", healed; no message on the bus but for the
# next connection's first, with the pieces in front of it that had come, each 4096 bytes.
@steps_only("the message takes seconds")
def test_message_that_takes_longer_than_three_pings_is_cut_off(make_frame_rig):
    rig = make_frame_rig(fast_clock(40), {"answers_pings": True}, log_level=8)
    daemon, bus, server = rig
    message = pattern(large_size)
    watch = fault_watch(rig)
    with pytest.raises(ConnectionError):
        server.send(text(message))
    bus.wait_for_statuses(watch.announced + 3)
    assert bus.statuses()[watch.announced:] == lost_and_found
    assert len(daemon.lines_with("There are no 3 pong answer in a row from server")) == 1
    pieces = len(daemon.lines_with("Get incomplete packet"))
    assert 0 < pieces < large_size // piece_size
    watch.expect_healed(joined=message[:pieces * piece_size])
