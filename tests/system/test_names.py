"""Names of the service: looked up, unknown, and asked of a slow or silent name server."""

# Test: 26 s, own networks

import socket

import pytest

from harness import library_texts
from harness.name_server import name_server
from harness.network import far_address
from harness.round_trip import passes_both_ways
from harness.vemk_daemon import config_text
from harness.waiting import wait_until


# "localhost" connects, and the Host header has the name.
def test_name_of_the_loopback_address_is_resolved(make_daemon, bus, server):
    assert socket.gethostbyname("localhost") == "127.0.0.1"
    bus.listen()
    make_daemon().start(config_text(f"localhost:{server.port}/roam"))
    bus.wait_until_connected()
    assert server.handshakes[0].headers["Host"] == "localhost"


# Fault, before the connection: the server's name is unknown.
# Seen: each attempt begins with the line "websock-roaming-> _connect: Try to establish connect with
# server no-such-host.invalid:8080/roam", and the next follows; the bus hears "disconnected" only, a
# status request is answered, and no thread is left over.
def test_name_that_does_not_resolve_is_tried_again(make_daemon, bus):
    bus.listen()
    # Where a resolver is silent rather than negative, it must not hold the test up.
    daemon = make_daemon().start(config_text("ws://no-such-host.invalid:8080/roam", log_level=15),
                                 environment={"RES_OPTIONS": "timeout:1 attempts:1"})
    attempts = daemon.wait_for_lines("Try to establish connect with server", 3)
    assert attempts[0].text.endswith(
        "_connect: Try to establish connect with server no-such-host.invalid:8080/roam")
    assert bus.run("status", "--timeout", "20").stdout == b"disconnected\n"
    assert set(bus.statuses()) == {"disconnected"}
    assert daemon.own_thread_names() == ["ipc", "main", "websock-roaming"]


@pytest.fixture
def names(networks):
    made = name_server(networks.near, far_address)
    yield made
    made.close()


@pytest.fixture
def start_daemon(place, make_daemon, bus, networks, far_server):
    """Starts a daemon that asks the name server of its own network, with these options."""
    resolver_file = place.folder / "resolv.conf"
    place.binds.append((resolver_file, "/etc/resolv.conf"))
    bus.listen()

    def start(options):
        resolver_file.write_text(f"nameserver 127.0.0.1\noptions {options}\n")
        config = config_text(f"ws://roaming.example:{far_server.port}/roam", log_level=8)
        return make_daemon().start(config, network=networks.near)

    return start


def supervise(start, connected):
    """Starts a daemon, and another one whenever it has ended, until there is a connection."""
    daemons = [start()]

    def connected_in_the_end():
        if not daemons[-1].runs():
            daemons[-1].end_expected = True
            daemons.append(start())
        return connected()

    wait_until(connected_in_the_end, "a connection, after restarts", 60)
    return daemons


# Fault, before the connection: the name server is silent for more than 10 seconds (here 12).
# Seen: the look-up blocks the worker, the check of the clock after it ends the daemon with the line
# "time_monotonic: Time error, need restart, expired [NOW] [BEFORE] cnt 10" and status 255, and a
# supervisor starts it again; as the name server answers by then, it connects.
def test_silence_of_more_than_ten_seconds_takes_a_restart(names, start_daemon, bus, far_server):
    delays = iter([None, 0.0])

    def start():
        names.delay = next(delays)
        return start_daemon("timeout:12 attempts:1")

    daemons = supervise(start, lambda: far_server.handshakes)
    assert [daemon.process.returncode for daemon in daemons] == [255, None]
    assert daemons[0].lines_with("Time error")[-1].text.endswith(" cnt 10")
    bus.wait_for_last_status("connected")
    assert passes_both_ways(bus, far_server, "after the restart")


# Fault, before the connection: the name server answers after 6 seconds, after 3 where the library
# asks it twice, before 3.0.
# Seen: the attempt takes that long and connects, without a "Time error" line.
def test_answer_after_six_seconds_is_waited_for(names, start_daemon, bus, far_server):
    names.delay = 6.0 / library_texts.look_ups
    daemon = start_daemon("timeout:12 attempts:1")
    began = daemon.wait_for_lines("Try to establish connect")[0]
    bus.wait_for_last_status("connected")
    done = "process_client_established" if library_texts.look_ups > 1 or \
        library_texts.looks_up_late else "websock-roaming->Connected"
    assert 5.9 <= daemon.lines_with(done)[0].time - began.time < 10
    assert daemon.lines_with("Time error") == []
    assert passes_both_ways(bus, far_server, "after the look-up")


# Fault, before the connection: the name server is silent, and the resolver gives up in a second.
# Seen: each attempt ends after that second without the line "websock-roaming->Connected", the bus
# hears "disconnected" only, and when the name server answers the next attempt connects. Since 4.2
# the library looks the name up after that line.
def test_silence_that_the_resolver_cuts_short_is_tried_again(names, start_daemon, bus, far_server):
    names.delay = None
    daemon = start_daemon("timeout:1 attempts:1")
    attempts = daemon.wait_for_lines("Try to establish connect", 3)
    assert 1 <= attempts[1].time - attempts[0].time
    assert bool(daemon.lines_with("websock-roaming->Connected")) == library_texts.looks_up_late
    assert set(bus.statuses()) == {"disconnected"}
    names.delay = 0.0
    bus.wait_until_connected()
    assert passes_both_ways(bus, far_server, "after the silence")
