"""A reverse proxy stands between the daemon and the roaming service."""

# Test: 34 s

import collections

import pytest

from harness.healing import lost_and_found, outlives_restart
from harness.library_texts import bad_response
from harness.proxies import haproxy, nginx
from harness.round_trip import assert_all_kinds_pass, passes_both_ways

proxied_t = collections.namedtuple("proxied_t", "daemon bus server proxy")


@pytest.fixture(params=[haproxy, nginx], ids=lambda kind: kind.program)
def make_proxied(request, start_rig, server, place):
    """Starts a proxy in front of the server and a daemon that connects through it."""
    made = []

    def make(**settings):
        made.append(request.param(place, server.port, **settings).start())
        daemon, bus, _ = start_rig(made[-1], log_level=15)
        return proxied_t(daemon, bus, server, made[-1])

    yield make
    for proxy in made:
        proxy.stop()


# Through haproxy and nginx, empty, UTF-8 and 200 KiB messages pass unchanged both ways, and pings.
def test_messages_pass_a_proxy_unchanged(make_proxied):
    daemon, bus, server, proxy = make_proxied()
    assert_all_kinds_pass(bus, server)
    assert server.handshakes[0].path == "/roam"
    assert server.handshakes[0].subprotocol == "websock-roaming"


# Fault, while connected: the server behind a proxy is gone; the proxy answers 503 or 502.
# Seen: attempts fail with the library's "got bad HTTP response '503'" and are tried again,
# "vemkctl status" says "disconnected"; once the server is back the bus hears "connected", and
# messages pass.
def test_server_gone_behind_a_proxy_is_tried_again(make_proxied):
    daemon, bus, server, proxy = make_proxied()
    announced = len(bus.statuses())
    server.stop()
    daemon.wait_for_lines(bad_response(proxy.backend_gone), 2)
    assert bus.run("status", "--timeout", "20").stdout == b"disconnected\n"
    assert set(bus.statuses()[announced:]) == {"disconnected"}
    server.start()
    bus.wait_for_last_status("connected", after=announced)
    server.wait_for_connections(2)
    assert len(server.handshakes) == 2
    assert passes_both_ways(bus, server, "again")


# Fault, while connected: the proxy is stopped, and started again later.
# Seen: attempts are refused and tried again, the server hears of no other connection; once the
# proxy is back the bus hears "connected", and messages pass.
def test_restarted_proxy_is_connected_to_again(make_proxied):
    *rig, proxy = make_proxied()
    assert outlives_restart(rig, proxy)


# Fault, while connected: a proxy that ends each connection after 2 s without traffic.
# Seen: each time the bus hears "disconnected" twice and "connected"; no descriptor is leaked; with
# a more patient proxy the connection stays, and messages pass.
def test_connection_cut_by_an_idle_proxy_is_made_again(make_proxied):
    daemon, bus, server, proxy = make_proxied(idle_seconds=2)
    descriptors = daemon.descriptor_count()
    announced = len(bus.statuses())
    server.wait_for_connections(3)
    assert bus.wait_for_statuses(announced + 6)[announced:announced + 6] == 2 * lost_and_found
    proxy.stop()
    proxy.idle_seconds = 60
    daemon.wait_for_lines("process_client_connection_error:41")
    announced = len(bus.statuses())
    proxy.start()
    bus.wait_for_last_status("connected", after=announced)
    assert passes_both_ways(bus, server, "again")
    daemon.wait_for_descriptors(descriptors)
