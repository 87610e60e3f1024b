"""Frames that break the protocol: reserved bits, lengths, control frames, order."""

# Test: 36 s

from harness.frames import (frame, opcode_close, opcode_continuation, opcode_ping, opcode_pong,
                            text)
from harness.healing import expect_refused, fault_watch
from harness.keepalive import ending_clock
from harness.library_texts import frame_warning, library_lines

reserved_bits = (0x40, 0x20, 0x10)


# Fault, while connected: a text frame with any of the three reserved bits set, or a ping with one.
# Seen: the connection is closed without a close frame, nothing of the frame or of what follows it
# reaches the bus; "process_closed:76", "disconnected" twice, "connected", messages pass both ways.
def test_reserved_bits_are_refused(make_frame_rig):
    expect_refused(make_frame_rig(ending_clock(), log_level=15),
                   [*(text(b"one bit", reserved=bit) for bit in reserved_bits),
                    text(b"all", reserved=sum(reserved_bits)),
                    frame(opcode_ping, reserved=reserved_bits[0])])


# Fault, while connected: a frame with one of the ten reserved opcodes, 3 to 7 and 11 to 15.
# Seen: the same as for a reserved bit.
def test_reserved_opcodes_are_refused(make_frame_rig):
    expect_refused(make_frame_rig(ending_clock(), log_level=15),
                   [frame(opcode, b"unknown") for opcode in (*range(3, 8), *range(11, 16))])


# Fault, while connected: a ping, a pong and a close frame with 126 bytes of payload, a ping of 5
# bytes whose length field has 16 bits, and a ping, a pong and a close frame that are not final.
# Seen: dropped without a close frame and healed, and nothing of it reaches the bus; a long one
# leaves the library's line "Control frame asking for extended length is illegal" in the log.
def test_long_and_fragmented_control_frames_are_refused(make_frame_rig):
    rig = make_frame_rig(ending_clock(), log_level=15)
    control = (opcode_ping, opcode_pong, opcode_close)
    expect_refused(rig, [*(frame(opcode, b"p" * 126) for opcode in control),
                            frame(opcode_ping, b"short", length_bits=16),
                            *(frame(opcode, b"", final=False) for opcode in control)])
    long_frame = frame_warning("Control frame asking for extended length is illegal")
    assert library_lines(rig.daemon).count(long_frame) == 4


# Fault, while connected: a continuation frame, final or not, where no message has begun.
# Seen: dropped without a close frame and healed, and nothing of it reaches the bus.
def test_continuation_without_a_start_is_refused(make_frame_rig):
    expect_refused(make_frame_rig(ending_clock(), log_level=15),
                   [frame(opcode_continuation, b"lonely", final=final) for final in (True, False)])


# Fault, while connected: a new text frame where a fragmented message goes on.
# Seen: dropped and healed; the new message never reaches the bus, and the fragment before it is
# joined to the next connection's first message, as that of any message that was cut off.
def test_new_message_inside_a_fragmented_one_is_refused(make_frame_rig):
    rig = make_frame_rig(ending_clock(), log_level=15)
    watch = fault_watch(rig)
    rig.server.send(text(b"begun, ", final=False), text(b"intruder"))
    watch.expect_healed(joined=b"begun, ")


# Fault, while connected: a length field of 64 bits whose top bit is set.
# Seen: dropped without a close frame and healed, with the library's line "b63 of length must be
# zero".
def test_length_with_the_top_bit_is_refused(make_frame_rig):
    rig = make_frame_rig(ending_clock(), log_level=15)
    expect_refused(rig, [text(b"x" * 200, length_bits=64, length=(1 << 63) + size)
                            for size in (0, 200)])
    warning = frame_warning("b63 of length must be zero")
    assert library_lines(rig.daemon).count(warning) == 2


# Fault, while connected: a length field that says 2^40, or 2^32 and 5, followed by 10,000 bytes and
# the end of the connection.
# Seen: no message of 5 bytes or any other; healed, and the two whole pieces of 4096 bytes that came
# are joined to the next connection's first message, as those of any message that was cut off. A
# library of 32 bits knows only a length's lower half: there the message is the 0 or 5 bytes that it
# says, and what follows them is no frame and costs the connection.
def test_length_far_beyond_what_comes_is_healed(make_frame_rig, build_folder):
    has_32_bits = (build_folder / "vemk").read_bytes()[4] == 1
    rig = make_frame_rig(ending_clock(), log_level=15)
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
