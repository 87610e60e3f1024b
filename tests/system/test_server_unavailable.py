"""Servers that cannot be reached or refuse: the daemon goes on trying."""

# Test: 12 s

import socket

from harness.handshake_faults import attempt_seconds
from harness.keepalive import fast_clock
from harness.raw_server import deaf_listener, refuse
from harness.vemk_daemon import config_text


def announced_only(bus, word):
    return bus.statuses() and set(bus.statuses()) == {word}


# Three refusals with trace 41 and "disconnected" only, then the first connection.
def test_refused_port_is_tried_again_until_it_answers(make_daemon, bus, server):
    server.stop()
    bus.listen()
    daemon = make_daemon().start(config_text(server.url, log_level=15))
    daemon.wait_for_lines("process_client_connection_error:41", 3)
    assert announced_only(bus, "disconnected")
    server.start()
    bus.wait_until_connected()
    assert len(server.handshakes) == 1


# 1 and 3: windows [0;1), [1;3), [1;4), [1;4), and [0;1) after an establishment.
def test_delay_grows_with_each_refusal_and_starts_over_when_connected(make_daemon, bus, server):
    server.stop()
    bus.listen()
    config = config_text(server.url, initial_delay=1, max_delay=3, log_level=15)
    daemon = make_daemon().start(config)
    ranges = [line.text for line in daemon.wait_for_lines("Generate delay", 4, seconds=60)]
    assert ranges[:4] == [f"Generate delay into {window} range"
                          for window in ("[0;1)", "[1;3)", "[1;4)", "[1;4)")]
    server.start()
    bus.wait_for_last_status("connected", seconds=60)
    tried = len(daemon.lines_with("Generate delay"))
    server.reset()
    again = daemon.wait_for_lines("Generate delay", tried + 1)
    assert again[tried].text == "Generate delay into [0;1) range"


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
    assert announced_only(bus, "disconnected")
    assert daemon.own_thread_names() == ["ipc", "main", "websock-roaming"]


# A 403 is trace 41, "disconnected" only, and another attempt.
def test_server_that_refuses_the_upgrade_is_tried_again(make_daemon, make_raw_server, bus):
    server = make_raw_server(refuse)
    bus.listen()
    daemon = make_daemon().start(config_text(server.url, log_level=15))
    server.wait_for_connections(3)
    daemon.wait_for_lines("process_client_connection_error:41", 2)
    assert announced_only(bus, "disconnected")


# A full backlog drops the SYN: trace 41 after 20 s, and another attempt.
def test_connection_request_without_answer_is_tried_again(make_daemon, bus):
    with deaf_listener(("127.0.0.1", 0)) as (host, port):
        bus.listen()
        config = config_text(f"ws://{host}:{port}/roam", log_level=15)
        daemon = make_daemon().start(config, **fast_clock(10))
        daemon.wait_for_lines("process_client_connection_error:41", 1, seconds=60)
        assert 19.9 < attempt_seconds(daemon)[0] < 30
        daemon.wait_for_lines("Try to establish connect with server", 2)
        assert announced_only(bus, "disconnected")


# "localhost" connects, and the Host header has the name.
def test_name_of_the_loopback_address_is_resolved(make_daemon, bus, server):
    assert socket.gethostbyname("localhost") == "127.0.0.1"
    bus.listen()
    make_daemon().start(config_text(f"localhost:{server.port}/roam"))
    bus.wait_until_connected()
    assert server.handshakes[0].headers["Host"] == "localhost"
