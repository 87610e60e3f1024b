"""Names of the service that a hosts file of the daemon's own resolves."""

# Test: 4 s, native only

import pytest

from harness import library_texts
from harness.handshake_faults import attempt_seconds
from harness.keepalive import fast_clock
from harness.raw_server import deaf_listener
from harness.round_trip import passes_both_ways
from harness.vemk_daemon import config_text


@pytest.fixture
def start(place, make_daemon, bus):
    """Starts a daemon whose service has this name, port and addresses."""
    hosts_file = place.folder / "hosts"
    place.binds.append((hosts_file, "/etc/hosts"))
    bus.listen()

    def make(name, port, addresses=("127.0.0.1",), **start_options):
        hosts_file.write_text("".join(f"{address} {name}\n" for address in addresses))
        config = config_text(f"ws://{name}:{port}/roam", log_level=15)
        return make_daemon().start(config, **start_options)

    return make


# Fault, before the connection: the service's name has two addresses, and the first is silent.
# Seen: after 20 s the same attempt goes on to the second address; it connects, and messages pass
# both ways. Only libraries 4.1 do; with others each attempt ends after 20 or 40 s.
def test_next_address_is_tried_when_one_is_silent(start, bus, server):
    server.stop()
    server.host = "127.0.0.3"
    server.start()
    with deaf_listener(("127.0.0.2", server.port)):
        daemon = start("roaming.example", server.port, ["127.0.0.2", "127.0.0.3"], **fast_clock(10))
        if library_texts.tries_next_address:
            bus.wait_until_connected()
            assert passes_both_ways(bus, server, "at the second address")
            assert len(daemon.lines_with("Try to establish connect")) == 1
        else:
            daemon.wait_for_lines("process_client_connection_error:41", 2)
            assert 19.9 < attempt_seconds(daemon)[0] < 50
            assert set(bus.statuses()) == {"disconnected"}


# Fault, before the connection: the service's name has 111 bytes, of which a library from 3.0 to 4.1
# makes a request without an "Upgrade" that a server could see.
# Seen: each attempt is logged "websock-roaming->process_client_connection_error:41" and the
# library's "got bad HTTP response '400'"; the bus hears "disconnected" only, and "vemkctl
# check-config" warns; with a name of 110 bytes it connects, without a warning.
def test_name_of_more_than_110_bytes_never_connects(start, bus, server):
    name = (3 * ("a" * 39 + "."))[:111]
    daemon = start(name, server.port)
    if library_texts.longest_host < len(name):
        daemon.wait_for_lines(library_texts.bad_response("400"), 2)
        daemon.wait_for_lines("process_client_connection_error:41", 2)
        assert set(bus.statuses()) == {"disconnected"}
    else:
        bus.wait_until_connected()
    warning = b"warning: the host has 111 bytes"
    assert warning in bus.run("check-config", daemon.config_file).stdout
    daemon.stop()
    daemon = start(name[1:], server.port)
    bus.wait_until_connected()
    assert passes_both_ways(bus, server, "with a long name")
    assert b"the host has" not in bus.run("check-config", daemon.config_file).stdout
