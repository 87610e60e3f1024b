"""WebSocket frames as bytes: made for a test, and taken from a stream."""

import collections
import struct

frame_t = collections.namedtuple("frame_t", "final reserved opcode masked payload")

opcode_continuation, opcode_text, opcode_binary = 0, 1, 2
opcode_close, opcode_ping, opcode_pong = 8, 9, 10


def apply_mask(payload, mask):
    size = len(payload)
    repeated = (mask * (size // 4 + 1))[:size]
    return (int.from_bytes(payload, "big") ^ int.from_bytes(repeated, "big")).to_bytes(size, "big")


def frame(opcode, payload=b"", final=True, reserved=0, mask=None, length_bits=None, length=None):
    """One frame; `reserved` holds any of the bits 0x40, 0x20 and 0x10 of its first byte.

    The length field has its shortest form, unless `length_bits` asks for 7, 16 or 64, and holds
    the payload's length, unless `length` is given.
    """
    length = len(payload) if length is None else length
    length_bits = length_bits or (7 if length < 126 else 16 if length < 1 << 16 else 64)
    masked = 0 if mask is None else 0x80
    head = bytes([(0x80 if final else 0) | reserved | opcode])
    if length_bits == 7:
        head += bytes([masked | length])
    elif length_bits == 16:
        head += struct.pack("!BH", masked | 126, length)
    else:
        head += struct.pack("!BQ", masked | 127, length)
    if mask is None:
        return head + payload
    return head + mask + apply_mask(payload, mask)


def text(payload, **more):
    return frame(opcode_text, payload, **more)


def close_frame(code, reason=b""):
    return frame(opcode_close, struct.pack("!H", code) + reason)


class frame_parser:
    """Takes frames from a stream of bytes, in whatever pieces they come."""

    def __init__(self):
        self.rest = bytearray()

    def feed(self, data):
        """The frames that `data` completes, their payloads without the mask.

        What comes behind them is kept for the next call.
        """
        self.rest += data
        return list(iter(self.take, None))

    def take(self):
        """The first frame of the rest; None when it is not there as a whole."""
        if len(self.rest) < 2:
            return None
        first, second = self.rest[:2]
        length, begin = second & 0x7F, 2
        if length > 125:
            begin = 4 if length == 126 else 10
            length = int.from_bytes(self.rest[2:begin], "big")
        masked = bool(second & 0x80)
        begin += 4 * masked
        end = begin + length
        if len(self.rest) < end:
            return None
        payload = bytes(self.rest[begin:end])
        if masked:
            payload = apply_mask(payload, self.rest[begin - 4:begin])
        del self.rest[:end]
        return frame_t(bool(first & 0x80), first & 0x70, first & 0x0F, masked, payload)
