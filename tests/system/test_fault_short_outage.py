"""The network between daemon and server is away for a second, while messages go both ways."""

# Test: 10 s, own networks

import time

import pytest


def send_both_ways(bus, server, words):
    bus.send_lines([word.encode() for word in words])
    server.send_many(words)


# Fault, while connected: for a second all packets are lost, the address of the interface is
# removed, the interface is down, or the route is a black hole.
# Seen: no message that was sent before, in or after that second, either way, is lost, doubled,
# altered or out of order, and the connection stays the same.
@pytest.mark.parametrize("outage", [
    "packets lost", "address removed", "interface down", "route a black hole"])
def test_messages_outlive_a_second_without_network(make_wired_rig, networks, outage):
    daemon, bus, server = make_wired_rig()
    announced = len(bus.statuses())
    words = [[f"{when} {number}" for number in range(5)] for when in ("before", "in", "after")]
    send_both_ways(bus, server, words[0])
    networks.cut(outage)
    send_both_ways(bus, server, words[1])
    time.sleep(1)
    # What the server sends still arrives when only the daemon's route is gone.
    assert not any(payload.startswith(b"in ") for payload in server.payloads())
    networks.mend(outage)
    send_both_ways(bus, server, words[2])
    expected = [word.encode() for group in words for word in group]
    assert server.wait_for_payloads(15) == expected
    assert bus.wait_for_payloads(15) == expected
    assert len(server.handshakes) == 1
    assert bus.statuses()[announced:] == []
