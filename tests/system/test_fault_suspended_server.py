"""The server's process is suspended with SIGSTOP while connected; its kernel goes on with TCP.

The daemon's clock goes faster, so that its pings follow each other in seconds.
"""

# Test: 22 s, native only

import pytest

from harness.healing import lost_and_found
from harness.keepalive import fast_clock
from harness.reference_service import reference_service
from harness.round_trip import passes_both_ways
from harness.vemk_daemon import config_text

up = [b"sent to a suspended server %d" % number for number in range(5)]
ping = "It's time to ping websocket server"
three_pings_missing = "There are no 3 pong answer in a row from server"


@pytest.fixture
def service(companion_folder):
    made = reference_service(companion_folder)
    yield made
    made.end()


@pytest.fixture
def start(make_daemon, bus, service):
    def make(speed):
        bus.listen()
        daemon = make_daemon().start(config_text(service.url, log_level=12), **fast_clock(speed))
        bus.wait_until_connected()
        return daemon

    return make


# Fault, while connected: the server is suspended while the daemon sends five messages and two
# pings, is sent two messages itself, and goes on before the third ping.
# Seen: nothing is lost in either direction, all arrives in order on the same connection, and
# nothing is announced.
def test_server_suspended_for_two_pings_is_kept(start, bus, service):
    daemon = start(speed=10)
    descriptors = daemon.descriptor_count()
    announced = len(bus.statuses())
    pings = len(daemon.lines_with(ping))
    service.suspend()
    service.send("sent while suspended")
    service.send("and one more")
    bus.send_lines(up)
    daemon.wait_for_lines(ping, pings + 2)
    assert service.payloads() == []
    assert bus.payloads() == []
    service.resume()
    assert service.wait_for_payloads(5) == up
    assert bus.wait_for_payloads(2) == [b"sent while suspended", b"and one more"]
    # Answered, the two are not counted towards the three.
    daemon.wait_for_lines(ping, pings + 4)
    assert daemon.lines_with(three_pings_missing) == []
    assert passes_both_ways(bus, service, "resumed")
    assert bus.statuses()[announced:] == []
    daemon.wait_for_descriptors(descriptors)


# Fault, while connected: the server is suspended for more than three pings, after which its kernel
# still accepts connections but no handshake is answered, and goes on then.
# Seen: "There are no 3 pong answer in a row from server" once, "disconnected" for as long as it is
# suspended, then "connected"; what was sent before the third ping reaches the server once and in
# order, and messages pass both ways.
def test_server_suspended_for_three_pings_is_dropped_and_found_again(start, bus, service):
    daemon = start(speed=20)
    descriptors = daemon.descriptor_count()
    announced = len(bus.statuses())
    service.suspend()
    bus.send_lines(up)
    daemon.wait_for_lines(three_pings_missing, 1)
    # Four are one attempt that failed.
    bus.wait_for_statuses(announced + 4)
    assert bus.run("status", "--timeout", "20").stdout == b"disconnected\n"
    service.resume()
    bus.wait_for_last_status("connected", after=announced)
    seen = bus.statuses()[announced:]
    assert set(seen[:-1]) == {"disconnected"}
    assert seen[-3:] == lost_and_found
    assert service.wait_for_payloads(5) == up
    assert len(daemon.lines_with(three_pings_missing)) == 1
    assert passes_both_ways(bus, service, "resumed")
    daemon.wait_for_descriptors(descriptors)
