"""Messages from the bus reach the server byte for byte, each as one text frame."""

# Test: 5 s

import pytest

from harness.raw_server import opcode_ping, opcode_text, upgrade
from harness.vemk_daemon import config_text

messages = [
    b"x",
    b"a" * 4096,
    b"b" * 4097,
    bytes(0x20 + i % 95 for i in range(1 << 20)),
    "Größe, 漢字, 🛰".encode(),
    b"before\0after",
    b"%n%s%n %d 100%% %1000000$s %*d",
    b"not JSON {",
    b'{"service":"roaming","cmd":"status"}',
    b'{"cmd":"status"}',
    b'"internal-ipc"',
    b"line\nline\r\n\ttab",
]


# One byte to 1 MiB, NUL, "%n", UTF-8, half JSON: unchanged, each a text frame.
@pytest.mark.parametrize("log_level", [0, 15])
def test_messages_arrive_unchanged_and_in_order(make_rig, log_level):
    daemon, bus, server = make_rig(log_level=log_level)
    for message in messages:
        bus.send(message)
    received = server.wait_for_payloads(len(messages))
    assert [len(payload) for payload in received] == [len(message) for message in messages]
    assert received == messages
    assert all(frame.is_text for frame in server.frames)
    assert bool(daemon.log_text()) == bool(log_level)


# Short, long and not UTF-8: one final, masked frame with opcode 1 each, and no other frame.
def test_each_message_is_one_final_masked_text_frame(make_daemon, make_raw_server, bus):
    server = make_raw_server(upgrade)
    bus.listen()
    make_daemon().start(config_text(server.url, log_level=15))
    bus.wait_until_connected()
    # Bytes that are no UTF-8 are sent as they are.
    sent = [b"short", b"m" * 300, bytes(range(256))]
    for message in sent:
        bus.send(message)
    frames = server.wait_for_frames(opcode_text, len(sent))
    assert [frame.payload for frame in frames] == sent
    assert all(frame.final and frame.masked for frame in frames)
    # On a slow machine a ping may be due meanwhile.
    assert [frame for frame in server.frames if frame.opcode != opcode_ping] == frames
