"""Messages from the server reach the bus byte for byte."""

# Test: 2 s

import pytest

messages = [
    "x",
    "a" * 4096,
    "b" * 4097,
    "Größe, 漢字, 🛰",
    "before\0after",
    "%n%s%n %d 100%% %1000000$s %*d",
    '{"service":"internal-ipc","cmd":"status"}',
    bytes(range(256)),
    "line\nline\r\n\ttab",
]


# NUL, "%n", all 256 byte values and a status request: unchanged, and no answer to the server.
@pytest.mark.parametrize("log_level", [0, 15])
def test_messages_arrive_unchanged_and_in_order(make_rig, log_level):
    daemon, bus, server = make_rig(log_level=log_level)
    server.send_many(messages)
    expected = [m.encode() if isinstance(m, str) else m for m in messages]
    assert bus.wait_for_payloads(len(messages)) == expected
    # The look inside a message is for those from the bus: the request above got no answer.
    assert server.payloads() == []
    assert bus.statuses()[-1] == "connected"
    assert bus.statuses().count("connected") == 1
