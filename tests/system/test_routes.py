"""No way to the server: when the daemon starts, and for a second while messages go both ways."""

# Test: 26 s, own networks

import time

import pytest

from harness.bus_peer import status_request
from harness.handshake_faults import attempt_seconds
from harness.keepalive import fast_clock
from harness.library_texts import no_route_lines, watches_addresses
from harness.network import far_address
from harness.round_trip import passes_both_ways
from harness.vemk_daemon import config_text
from harness.waiting import wait_until


def start(make_daemon, bus, far_server, networks, **start_options):
    bus.listen()
    config = config_text(far_server.url, log_level=8)
    return make_daemon().start(config, network=networks.near, **start_options)


def heals(bus, server):
    """The next attempt leads to a connection, and only now the bus hears of one."""
    assert set(bus.statuses()) == {"disconnected"}
    bus.wait_until_connected()
    return passes_both_ways(bus, server, "the way is free") and len(server.handshakes) == 1


def worker_lines(daemon):
    return [line.text for line in daemon.log_lines()
            if line.module == "websock-worker" and "libwebsocket-debug" not in line.text]


# Fault, before the connection: no route to the server, as its interface has no address or is down,
# or a route that is a black hole or says "unreachable".
# Seen: each attempt ends at once, without the line "websock-roaming->Connected"; the bus hears
# "disconnected" only, a status request is answered; with a route the next attempt connects.
@pytest.mark.parametrize("outage", [
    "address removed", "interface down", "route a black hole", "route says unreachable"])
def test_no_route_is_tried_again_until_there_is_one(make_daemon, bus, networks, far_server, outage):
    networks.cut(outage)
    daemon = start(make_daemon, bus, far_server, networks)
    daemon.wait_for_lines("Generate delay", 4)
    course = [
        "Generate delay into [0;1) range",
        "Delay before connection: 0 sec",
        "websock-roaming-> _connect: Try to establish connect with server "
        f"{far_address}:{far_server.port}/roam",
        *no_route_lines,
        "websock-roaming->Stopping"]
    assert worker_lines(daemon)[:2 * len(course)] == course * 2
    assert bus.run("status", "--timeout", "20").stdout == b"disconnected\n"
    networks.mend(outage)
    assert heals(bus, far_server)


# Fault, before the connection: every packet is dropped, so that no SYN is ever answered.
# Seen: the attempt ends after 20 seconds with the line
# "websock-roaming->process_client_connection_error:41"; a status request of this time is answered
# "disconnected" after it, and when packets pass the next attempt connects.
def test_dropped_syn_ends_the_attempt_after_twenty_seconds(make_daemon, bus, networks, far_server):
    networks.cut("packets lost")
    daemon = start(make_daemon, bus, far_server, networks, **fast_clock(4))
    daemon.wait_for_lines("websock-roaming->Connected")
    bus.wait_listening()
    bus.send(status_request)
    daemon.wait_for_lines("process_client_connection_error:41")
    assert 19.9 < attempt_seconds(daemon)[0] < 30
    # Two at the end of the attempt, and the answer.
    bus.wait_for_statuses(3)
    networks.mend("packets lost")
    assert heals(bus, far_server)


def send_both_ways(bus, server, words):
    bus.send_lines([word.encode() for word in words])
    server.send_many(words)


# Fault, while connected: for a second all packets are lost, the address of the interface is
# removed, the interface is down, or the route is a black hole.
# Seen: no message that was sent before, in or after that second, either way, is lost, doubled,
# altered or out of order, and the connection stays the same. Since 4.2 the library ends a
# connection whose address is removed, and the next one carries messages.
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
    if outage == "address removed" and watches_addresses:
        bus.wait_for_last_status("connected", after=announced)
        bus.send(b"after the loss")
        wait_until(lambda: server.payloads()[-1] == b"after the loss", "a message")
        assert sorted(set(server.payloads())) == sorted(server.payloads())
        return
    send_both_ways(bus, server, words[2])
    expected = [word.encode() for group in words for word in group]
    assert server.wait_for_payloads(15) == expected
    assert bus.wait_for_payloads(15) == expected
    assert len(server.handshakes) == 1
    assert bus.statuses()[announced:] == []
