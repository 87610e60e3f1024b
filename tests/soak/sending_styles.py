"""The ways in which a service may send one message."""

import collections

from harness.frames import (frame, opcode_binary, opcode_continuation, opcode_ping,
                            opcode_text)

# `wire` goes out; `kept` of it gets into the daemon's receive buffer, which is then delivered if
# the message `completes`.
sent_t = collections.namedtuple("sent_t", "wire kept completes")


def one_frame(payload, random_source):
    opcode = random_source.choice((opcode_text, opcode_binary))
    return sent_t([frame(opcode, payload)], payload, True)


def masked_frame(payload, random_source):
    """Only a client should mask; the daemon's library takes it all the same.

    It takes the bytes of the mask in some order, so all four are the same here; and what it sends
    meanwhile gets into the rest of the frame, so the frame has to be short and alone.
    """
    mask = random_source.randbytes(1) * 4
    return sent_t([frame(opcode_text, payload, mask=mask)], payload, True)


def cut_up(payload, random_source):
    """Two to six pieces, none of them empty."""
    cuts = sorted(random_source.sample(range(1, len(payload)), random_source.randint(1, 5)))
    return [payload[a:b] for a, b in zip([0, *cuts], [*cuts, len(payload)])]


def in_fragments(pieces, final):
    opcodes = [opcode_text] + [opcode_continuation] * (len(pieces) - 1)
    last = len(pieces) - 1
    return [frame(opcode, piece, final=final and i == last)
            for i, (opcode, piece) in enumerate(zip(opcodes, pieces))]


def fragments(payload, random_source):
    return sent_t(in_fragments(cut_up(payload, random_source), True), payload, True)


def fragments_with_pings(payload, random_source):
    wire = []
    for piece in in_fragments(cut_up(payload, random_source), True):
        wire += [piece, frame(opcode_ping, b"between")]
    return sent_t(wire[:-1], payload, True)


def streamed(payload, random_source):
    """The last frame is empty: the message stays in the receive buffer, before the next one."""
    wire = in_fragments(cut_up(payload, random_source), False)
    return sent_t([*wire, frame(opcode_continuation, b"")], payload, False)


def empty(payload, random_source):
    return sent_t([frame(opcode_text, b"")], b"", False)


def many_small_frames(payload, random_source):
    """Every byte in a frame of its own, and empty frames between them."""
    pieces = [payload[i:i + 1] for i in range(len(payload))]
    wire = in_fragments([p for piece in pieces for p in (b"", piece)], True)
    return sent_t([b"".join(wire)], payload, True)


def large_fragments(payload, random_source):
    size = 256 * 1024
    pieces = [payload[i:i + size] for i in range(0, len(payload), size)]
    return sent_t(in_fragments(pieces, True), payload, True)


everyday_styles = (one_frame,) * 6 + (fragments, fragments_with_pings, streamed, empty)
