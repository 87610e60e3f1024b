"""The network between daemon and server is lost, for minutes of the daemon's time."""

# Test: 33 s, native only, own networks

import pytest

from harness.keepalive import fast_clock, keepalive_events, since_last
from harness.round_trip import passes_both_ways


# Fault, while connected: all packets are lost from one moment on; the address of the interface is
# removed; the interface goes down; the route becomes a black hole.
# Seen: nothing at first; at the first callback after the third ping the line
# "websock-roaming->There are no 3 pong answer in a row from server", "disconnected" twice, and
# failing attempts; a status request is answered; when the network is back the next attempt
# connects, and no descriptor is left over.
@pytest.mark.parametrize("outage", [
    "packets lost", "address removed", "interface down", "route a black hole"])
def test_three_pings_find_the_network_lost(make_wired_rig, networks, outage):
    # At this speed a delay of half a second to one and a half.
    daemon, bus, server = make_wired_rig(fast_clock(20), log_level=8, initial_delay=20,
                                         max_delay=20)
    assert passes_both_ways(bus, server, "while there is a network")
    announced, descriptors = len(bus.statuses()), daemon.descriptor_count()
    networks.cut(outage)
    # Two when the connection is given up, two for each attempt.
    bus.wait_for_statuses(announced + 4)
    assert since_last("pong", keepalive_events(daemon)) == ["ping"] * 3 + ["given up"]
    assert set(bus.statuses()[announced:]) == {"disconnected"}
    assert bus.run("status", "--timeout", "20").stdout == b"disconnected\n"
    networks.mend(outage)
    bus.wait_for_last_status("connected")
    server.wait_for_connections(2)
    assert len(server.handshakes) == 2
    assert passes_both_ways(bus, server, "with the network back")
    daemon.wait_for_descriptors(descriptors)
