"""Messages from the bus that are larger than a thread's stack."""

# Test: 6 s

import pytest

from harness.frame_server import pattern


# Fault, while connected: one message of 10 MiB, with the log on, and of 16 MiB from the bus.
# Seen: it reaches the server unchanged and as one, the next message follows, and the connection is
# kept.
@pytest.mark.parametrize("size, log_level", [(10 << 20, 15), (16 << 20, 0)])
def test_message_larger_than_the_stack_arrives(make_rig, size, log_level):
    daemon, bus, server = make_rig(log_level=log_level)
    message = pattern(size)
    bus.send(message)
    bus.send(b"next")
    received = server.wait_for_payloads(2, seconds=90)
    assert [len(payload) for payload in received] == [size, 4]
    assert received == [message, b"next"]
    assert len(server.handshakes) == 1
