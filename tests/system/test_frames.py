"""Frames that the daemon accepts: fragments, strange frames, and frames in pieces."""

# Test: 10 s

import contextlib

from harness.frame_server import pattern
from harness.frames import (close_frame, frame, opcode_binary, opcode_close, opcode_continuation,
                            opcode_ping, opcode_pong, text)
from harness.healing import fault_watch
from harness.independent_servers import with_fragmenting_servers
from harness.library_texts import masked_frames

mask = bytes([0x11, 0x22, 0x33, 0x44])
whole_messages = "whole_messages=1\n"


# Three fragments, short or of 5000, 4096 and 9000 bytes, are one message; the next stands alone.
@with_fragmenting_servers
def test_fragments_are_joined(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    long = [b"a" * 5000, b"b" * 4096, b"c" * 9000]
    server.send_fragments([b"one, ", b"two, ", b"three"])
    server.send_fragments(long)
    server.send("after")
    assert bus.wait_for_payloads(3) == [b"one, two, three", b"".join(long), b"after"]


# After an empty last fragment nothing comes until the next message, which it leads.
@with_fragmenting_servers
def test_message_with_an_empty_last_fragment_is_joined_to_the_next(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    server.send_streamed(["held ", "back, "])
    # The pong shows that the daemon is past the empty frame.
    server.ping()
    assert bus.payloads() == []
    server.send("then joined")
    server.send("after")
    assert bus.wait_for_payloads(2) == [b"held back, then joined", b"after"]
    assert len(server.handshakes) == 1


# With whole_messages=1 each of 8 messages that an empty fragment ends arrives before the next.
# Go's and other libraries end every message so. 60 of such a service came out as none, and then as
# one that held them all.
def test_empty_last_fragment_ends_a_whole_message(make_frame_rig):
    daemon, bus, server = make_frame_rig(more=whole_messages)
    end = frame(opcode_continuation)
    for number in range(8):
        server.send(text(b"message %d" % number, final=False), end)
        assert bus.wait_for_payloads(number + 1)[number] == b"message %d" % number
    assert len(server.connections) == 1


# With whole_messages=1 long, chunked, interrupted and unfragmented messages arrive once each.
def test_whole_messages_arrive_however_they_are_sent(make_frame_rig):
    rig = make_frame_rig(log_level=15, more=whole_messages)
    watch = fault_watch(rig)
    long = pattern(40000)
    end = frame(opcode_continuation)
    rig.server.send(
        text(long, final=False), end,
        text(b"", final=False), frame(opcode_continuation, b"late", final=False), end,
        text(b"one, ", final=False), frame(opcode_ping, b"between"),
        frame(opcode_continuation, b"two", final=False), frame(opcode_ping, b"and"), end,
        text(b"x" * 4096, final=False), end,
        text(b"plain"), text(b"three, ", final=False), frame(opcode_continuation, b"four"))
    watch.expect_kept(heard=[long, b"late", b"one, two", b"x" * 4096, b"plain", b"three, four"])


# With whole_messages=1 an empty message, in one frame or three, is not delivered.
def test_empty_whole_message_is_not_delivered(make_frame_rig):
    daemon, bus, server = make_frame_rig(more=whole_messages)
    server.send(text(b""), text(b"", final=False), frame(opcode_continuation, final=False),
                frame(opcode_continuation), text(b"after"))
    assert bus.wait_for_payloads(1) == [b"after"]


# Fault, while connected: masked text frames, which only a client may send, alone, fragmented and
# with 5000 bytes.
# Seen: the library lets them pass but takes the mask off wrongly: each comes out as one message of
# its length with other bytes, and no server may send such frames. The connection stays, and all
# messages that are not masked pass unchanged. Before 3.0 the library takes what follows for a part
# of the frame, until the connection ends. Since 4.3 it ends the connection.
def test_masked_frames_disturb_no_other_message(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    watch = fault_watch(rig)
    rig.server.send(text(b"masked!!", mask=mask), text(b"plain"),
                       text(b"half ", final=False),
                       frame(opcode_continuation, b"masked", mask=mask),
                       text(b"m" * 5000, mask=mask))
    if masked_frames == "refuse":
        return watch.expect_healed()
    if masked_frames == "swallow":
        assert len(rig.bus.wait_for_payloads(1)[0]) > 8
        # What it takes for the next frame may also end the connection.
        with contextlib.suppress(OSError):
            rig.server.reset()
        return watch.expect_healed(heard=rig.bus.payloads())
    received = rig.bus.wait_for_payloads(4)
    assert [len(payload) for payload in received] == [8, 5, 11, 5000]
    assert received[1] == b"plain"
    assert received[2][:5] == b"half "
    fault_watch(rig).expect_kept()


# Fault, while connected: text frames with bytes that are no UTF-8: 0xFF, a cut sequence, an
# overlong one, a surrogate and a code point beyond the last; and a binary frame.
# Seen: each reaches the bus byte for byte, the connection stays.
def test_text_that_is_not_utf_8_passes_unchanged(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    watch = fault_watch(rig)
    invalid = [b"bad \xff\xfe", b"cut \xc3", b"overlong \xc0\xaf", b"surrogate \xed\xa0\x80",
               b"beyond \xf4\x90\x80\x80"]
    rig.server.send(*map(text, invalid), frame(opcode_binary, bytes(range(256))))
    watch.expect_kept(heard=[*invalid, bytes(range(256))])


# Fault, while connected: lengths that are not written in their shortest form: 5 in 16 bits, 5 and
# 300 in 64 bits; and 0 in both.
# Seen: the messages reach the bus unchanged, the empty ones not at all; the connection stays.
def test_lengths_in_a_long_form_are_accepted(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    watch = fault_watch(rig)
    long = bytes(0x61 + i % 26 for i in range(300))
    rig.server.send(text(b"five!", length_bits=16), text(b"", length_bits=16),
                       text(b"FIVE?", length_bits=64), text(b"", length_bits=64),
                       text(long, length_bits=64))
    watch.expect_kept(heard=[b"five!", b"FIVE?", long])


# Fault, while connected: every byte in a TCP segment of its own: messages with length fields of 7,
# 16 and 64 bits, one in three fragments with a ping of 125 bytes between them, and a close frame.
# Seen: the messages reach the bus unchanged and in order, the ping is answered with its payload,
# the close frame with its code; healed.
def test_frames_in_one_byte_segments_are_understood(make_frame_rig):
    rig = make_frame_rig(log_level=8)
    server = rig.server
    watch = fault_watch(rig)
    middle, long = b"m" * 300, bytes(0x61 + i % 26 for i in range(5000))
    server.send_bytewise(b"".join([
        text(b"short"), text(middle), text(long, length_bits=64),
        text(b"one, ", final=False), frame(opcode_continuation, b"two, ", final=False),
        frame(opcode_ping, b"p" * 125), frame(opcode_continuation, b"three")]))
    assert [pong.payload for pong in server.wait_for_frames(opcode_pong, 1)] == [b"p" * 125]
    watch.expect_kept(heard=[b"short", middle, long, b"one, two, three"])
    server.send_bytewise(close_frame(1001))
    watch.expect_healed()
    assert [close.payload for close in server.frames_of(opcode_close)] == [b"\x03\xe9"]
