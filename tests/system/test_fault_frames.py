"""Frames that break the protocol, strange ones that do not, and frames in pieces."""

# Test: 24 s

from harness.frame_server import close_frame, frame, opcode_binary, opcode_continuation, text
from harness.healing import expect_refused, fault_watch
from harness.raw_server import opcode_close, opcode_ping, opcode_pong

mask = bytes([0x11, 0x22, 0x33, 0x44])


# Fault, while connected: a ping, a pong and a close frame with 126 bytes of payload, a ping of 5
# bytes whose length field has 16 bits, and a ping, a pong and a close frame that are not final.
# Seen: dropped without a close frame and healed, and nothing of it reaches the bus; a long one
# leaves the library's line "Control frame asking for extended length is illegal" in the log.
def test_long_and_fragmented_control_frames_are_refused(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    control = (opcode_ping, opcode_pong, opcode_close)
    expect_refused(rig, [*(frame(opcode, b"p" * 126) for opcode in control),
                            frame(opcode_ping, b"short", length_bits=16),
                            *(frame(opcode, b"", final=False) for opcode in control)])
    long_frame = "2: Control frame asking for extended length is illegal"
    assert len(rig.daemon.lines_with(long_frame)) == 4


# Fault, while connected: a continuation frame, final or not, where no message has begun.
# Seen: dropped without a close frame and healed, and nothing of it reaches the bus.
def test_continuation_without_a_start_is_refused(make_frame_rig):
    expect_refused(make_frame_rig(log_level=15),
                   [frame(opcode_continuation, b"lonely", final=final) for final in (True, False)])


# Fault, while connected: a new text frame where a fragmented message goes on.
# Seen: dropped and healed; the new message never reaches the bus, and the fragment before it is
# joined to the next connection's first message, as that of any message that was cut off.
def test_new_message_inside_a_fragmented_one_is_refused(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    watch = fault_watch(rig)
    rig.server.send(text(b"begun, ", final=False), text(b"intruder"))
    watch.expect_healed(joined=b"begun, ")


# Fault, while connected: a length field of 64 bits whose top bit is set.
# Seen: dropped without a close frame and healed, with the library's line "b63 of length must be
# zero".
def test_length_with_the_top_bit_is_refused(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    expect_refused(rig, [text(b"x" * 200, length_bits=64, length=(1 << 63) + size)
                            for size in (0, 200)])
    assert len(rig.daemon.lines_with("2: b63 of length must be zero")) == 2


# Fault, while connected: a length field that says 2^40, or 2^32 and 5, followed by 10,000 bytes and
# the end of the connection.
# Seen: no message of 5 bytes or any other; healed, and the two whole pieces of 4096 bytes that came
# are joined to the next connection's first message, as those of any message that was cut off. A
# library of 32 bits knows only a length's lower half: there the message is the 0 or 5 bytes that it
# says, and what follows them is no frame and costs the connection.
def test_length_far_beyond_what_comes_is_healed(make_frame_rig, build_folder):
    has_32_bits = (build_folder / "vemk").read_bytes()[4] == 1
    rig = make_frame_rig(log_level=15)
    payload = bytes(0x61 + i % 26 for i in range(10000))
    for length in (1 << 40, (1 << 32) + 5):
        watch = fault_watch(rig)
        pieces = len(rig.daemon.lines_with("Get incomplete packet"))
        rig.server.send(text(payload, length_bits=64, length=length))
        if has_32_bits:
            known = payload[:length & 0xFFFFFFFF]
            watch.expect_healed(heard=[known] if known else [])
            continue
        # A RST makes the library forget what it has not read yet.
        rig.daemon.wait_for_lines("Get incomplete packet", pieces + 2)
        rig.server.reset()
        watch.expect_healed(joined=payload[:8192])


# Fault, while connected: masked text frames, which only a client may send, alone, fragmented and
# with 5000 bytes.
# Seen: the library lets them pass but takes the mask off wrongly: each comes out as one message of
# its length with other bytes, and no server may send such frames. The connection stays, and all
# messages that are not masked pass unchanged.
def test_masked_frames_disturb_no_other_message(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    rig.server.send(text(b"masked!!", mask=mask), text(b"plain"),
                       text(b"half ", final=False),
                       frame(opcode_continuation, b"masked", mask=mask),
                       text(b"m" * 5000, mask=mask))
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
