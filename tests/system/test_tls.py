"""A TLS tunnel before the daemon and a TLS proxy before the service, as docs/tls.md has them."""

# Test: 20 s

import collections
import re

import pytest

from harness.healing import outlives_restart
from harness.round_trip import assert_all_kinds_pass, passes_both_ways
from harness.tls import authority, example, service_name, terminator, tunnel
from harness.vemk_daemon import config_text

tunnelled_t = collections.namedtuple("tunnelled_t", "daemon tunnel proxy")


@pytest.fixture
def trusted(place):
    return authority(place.folder, "trusted")


@pytest.fixture
def make_tunnelled(make_daemon, bus, server, place, trusted):
    """Starts both ends of the tunnel and the daemon; both show what the arguments name."""
    made = []

    def make(certificate=None, clients=None, own_certificate=None):
        certificate = certificate or trusted.issue(service_name)
        made.append(terminator(place, server.port, certificate, clients).start())
        made.append(tunnel(place, made[0].port, trusted, own_certificate).start())
        bus.listen()
        daemon = make_daemon().start(config_text(made[1].url, log_level=15))
        return tunnelled_t(daemon, made[1], made[0])

    yield make
    for proxy in made:
        proxy.stop()
        print(f"--- {proxy.program}\n{proxy.log_file.read_text()[-2000:]}")


# Through the tunnel empty, UTF-8 and 200 KiB messages pass unchanged both ways, and pings.
def test_messages_pass_the_tunnel_unchanged(make_tunnelled, bus, server):
    make_tunnelled()
    bus.wait_until_connected()
    assert_all_kinds_pass(bus, server)
    assert server.handshakes[0].path == "/roam"


# The service hears its own name as Host and Origin, where the daemon says 127.0.0.1.
def test_service_behind_the_tunnel_hears_its_own_name(make_tunnelled, bus, server):
    make_tunnelled()
    server.wait_for_connections(1)
    headers = server.handshakes[0].headers
    assert (headers["Host"], headers["Origin"]) == (service_name, f"https://{service_name}")


# Silence ends the tunnel at both ends only after the third ping without an answer, at 90 s.
def test_both_ends_are_more_patient_than_the_daemon():
    assert int(re.search(r"^TIMEOUTidle = (\d+)$", example("stunnel.conf"), re.M)[1]) > 90
    assert int(re.search(r"^ +timeout tunnel (\d+)s$", example("haproxy.cfg"), re.M)[1]) > 90


def refuses_all(daemon, bus, server):
    daemon.wait_for_lines("process_client_connection_error:41", 3)
    bus.wait_for_statuses(1)
    return server.handshakes == [] and set(bus.statuses()) == {"disconnected"}


def wrong_certificate(kind, place, trusted):
    if kind == "of another authority":
        return authority(place.folder, "other").issue(service_name)
    if kind == "of another name":
        return trusted.issue("elsewhere.example")
    return trusted.issue(service_name, expired=True)


# Fault, before the connection: a service whose certificate is of another authority, of another
# name, or expired; later the right one.
# Seen: the tunnel refuses it, no handshake reaches the server, and the daemon tries again with
# "process_client_connection_error:41"; with the right certificate the bus hears "connected".
@pytest.mark.parametrize("kind", ["of another authority", "of another name", "expired"])
def test_wrong_certificate_is_refused(kind, make_tunnelled, bus, server, place, trusted):
    daemon, tunnel, proxy = make_tunnelled(wrong_certificate(kind, place, trusted))
    assert refuses_all(daemon, bus, server)
    assert "certificate verify failed" in tunnel.log_file.read_text()
    proxy.stop()
    proxy.certificate = trusted.issue(service_name)
    proxy.start()
    bus.wait_for_last_status("connected")
    assert passes_both_ways(bus, server, "again")


# Fault, before the connection: an access point without a certificate, or with one of another
# authority, where the service asks for its own; later it has a right one.
# Seen: the proxy refuses it, no handshake reaches the server, and the daemon tries again with
# "process_client_connection_error:41"; with the right certificate the bus hears "connected".
@pytest.mark.parametrize("shown", ["none", "of another authority"])
def test_access_point_without_its_certificate_is_refused(shown, make_tunnelled, bus, server, place,
                                                         trusted):
    clients = authority(place.folder, "access-points")
    certificate = None if shown == "none" else trusted.issue("access-point")
    daemon, tunnel, proxy = make_tunnelled(clients=clients, own_certificate=certificate)
    assert refuses_all(daemon, bus, server)
    tunnel.stop()
    tunnel.certificate = clients.issue("access-point")
    tunnel.start()
    bus.wait_for_last_status("connected")
    assert passes_both_ways(bus, server, "again")


# Fault, while connected: either end of the tunnel is stopped, and started again later.
# Seen: attempts fail with "process_client_connection_error:41" and are tried again; the server
# hears of no other connection; then the bus hears "connected", and messages pass.
@pytest.mark.parametrize("end", ["tunnel", "proxy"])
def test_tunnel_is_connected_through_again(end, make_tunnelled, bus, server):
    tunnelled = make_tunnelled()
    bus.wait_until_connected()
    assert outlives_restart((tunnelled.daemon, bus, server), getattr(tunnelled, end))
