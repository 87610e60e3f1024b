"""The soak's service reports frames that the daemon must not send."""

import types
from unittest import mock

import pytest

from harness.frames import frame, opcode_binary, opcode_ping, opcode_text
from service import peer

mask = b"mask"


# A frame that no client may send, a fragment and a binary message are reported and end it all.
@pytest.mark.parametrize("wrong", [
    frame(opcode_text, b"x"), frame(opcode_text, b"x", reserved=0x40, mask=mask),
    frame(opcode_text, b"x", final=False, mask=mask), frame(opcode_binary, b"x", mask=mask),
    frame(3, b"x", mask=mask), frame(opcode_ping, b"x" * 126, mask=mask)],
    ids=["unmasked", "reserved", "fragment", "binary", "unknown", "long ping"])
def test_wrong_frame_is_reported(wrong):
    events = []
    connection = peer(types.SimpleNamespace(on_event=lambda *event: events.append(event)))
    connection.connection_made(mock.Mock())
    connection.number = 1
    connection.data_received(frame(opcode_text, b"right", mask=mask) + wrong)
    assert events[0] == ("message", 1, b"right")
    assert events[1][0] == "broken"
    connection.transport.abort.assert_called_once()
