"""Frames with a reserved bit or opcode set."""

# Test: 18 s

from harness.frame_server import frame, text
from harness.healing import expect_refused
from harness.raw_server import opcode_ping

reserved_bits = (0x40, 0x20, 0x10)


# Fault, while connected: a text frame with any of the three reserved bits set, or a ping with one.
# Seen: the connection is closed without a close frame, nothing of the frame or of what follows it
# reaches the bus; "process_closed:76", "disconnected" twice, "connected", messages pass both ways.
def test_reserved_bits_are_refused(make_frame_rig):
    expect_refused(make_frame_rig(log_level=15),
                   [*(text(b"one bit", reserved=bit) for bit in reserved_bits),
                    text(b"all", reserved=sum(reserved_bits)),
                    frame(opcode_ping, reserved=reserved_bits[0])])


# Fault, while connected: a frame with one of the ten reserved opcodes, 3 to 7 and 11 to 15.
# Seen: the same as for a reserved bit.
def test_reserved_opcodes_are_refused(make_frame_rig):
    expect_refused(make_frame_rig(log_level=15),
                   [frame(opcode, b"unknown") for opcode in (*range(3, 8), *range(11, 16))])
