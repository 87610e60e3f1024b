"""A network that loses, delays and reorders packets, while messages go both ways."""

# Test: 32 s, own networks

from harness.round_trip import assert_all_arrive, passes_both_ways

count = 250


def message(way, number):
    """Some are longer than a packet."""
    return b"%s %03d:" % (way, number) + bytes([0x61 + number % 26]) * (number * 31 % 3000)


# Fault, while connected: one packet in five is lost, though no two in a row, and each other takes
# 300 to 600 ms, so that they overtake each other.
# Seen: of 250 messages each way, sent at the same time, none is lost, doubled, altered or out of
# order, and the connection stays the same.
def test_no_message_suffers_from_a_bad_network(make_wired_rig, networks):
    daemon, bus, server = make_wired_rig()
    announced = len(bus.statuses())
    networks.wire.loss, networks.wire.delay, networks.wire.jitter = 0.2, 0.3, 0.3
    up, down = ([message(way, number) for number in range(count)] for way in (b"up", b"down"))
    assert_all_arrive(bus, server, up, down, seconds=120)
    assert networks.wire.lost > networks.wire.taken / 7 and networks.wire.overtaken > 50
    networks.wire.loss, networks.wire.delay, networks.wire.jitter = 0.0, 0.0, 0.0
    assert passes_both_ways(bus, server, "on a good network again")
    assert len(server.handshakes) == 1
    assert bus.statuses()[announced:] == []
