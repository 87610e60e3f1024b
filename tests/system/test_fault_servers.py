"""The daemon connects to servers of three independent implementations and carries messages."""

# Test: 26 s

import pytest

from harness.independent_servers import server
from harness.node_server import node_server
from harness.roaming_server import roaming_server
from harness.round_trip import passes_both_ways


# The request's path, host, subprotocol and version are as configured, and "websock-roaming" chosen.
def test_server_sees_the_designed_request(make_rig):
    daemon, bus, server = make_rig()
    handshake = server.handshakes[0]
    assert handshake.path == "/roam"
    assert handshake.headers["Host"] == "127.0.0.1"
    assert handshake.headers["Sec-WebSocket-Protocol"] == "websock-roaming"
    assert handshake.headers["Sec-WebSocket-Version"] == "13"
    assert handshake.subprotocol == "websock-roaming"


# Empty, UTF-8 and 200 KiB messages from the bus arrive as text, byte for byte and in order.
def test_messages_from_the_bus_arrive_unchanged(make_rig):
    daemon, bus, server = make_rig()
    messages = [b"", "Größe, 漢字, 🛰".encode(), bytes(0x20 + i % 95 for i in range(200 * 1024)),
                b"before\0after", b"after"]
    for message in messages:
        bus.send(message)
    assert server.wait_for_payloads(len(messages)) == messages
    assert all(frame.is_text for frame in server.frames)


# Text and binary messages of the server, all 256 bytes and 200 KiB, arrive unchanged and in order.
def test_messages_from_the_server_arrive_unchanged(make_rig):
    daemon, bus, server = make_rig()
    messages = ["Größe, 漢字, 🛰", bytes(range(256)), "x" * 200 * 1024, "", "before\0after"]
    server.send_many(messages)
    expected = [message.encode() if isinstance(message, str) else message
                for message in messages if message]
    assert bus.wait_for_payloads(len(expected)) == expected


# Three fragments arrive as one message; one that ends with an empty frame is joined to the next.
@pytest.mark.parametrize("server", [roaming_server, node_server], indirect=True,
                         ids=lambda kind: kind.__name__)
def test_fragments_are_joined(make_rig):
    daemon, bus, server = make_rig()
    server.send_fragments([b"one, ", b"t" * 9000, b", three"])
    server.send_streamed(["held ", "back, "])
    # The pong shows that the daemon is past the empty frame.
    server.ping()
    assert bus.wait_for_payloads(1) == [b"one, " + b"t" * 9000 + b", three"]
    server.send("then joined")
    assert bus.wait_for_payloads(2)[1:] == [b"held back, then joined"]


# Three pings of the server's library get their pongs while the connection is used.
def test_pings_of_the_server_are_answered(make_rig):
    daemon, bus, server = make_rig()
    for _ in range(3):
        server.ping()
        assert passes_both_ways(bus, server, "again")
    assert len(server.handshakes) == 1
