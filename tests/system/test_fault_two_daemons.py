"""Two daemons started at the same instant, and one that is replaced while messages flow."""

# Test: 13 s

import random
import signal
import time

from harness.round_trip import passes_both_ways
from harness.traffic import bus_traffic, is_strictly_in_order
from harness.vemk_daemon import config_text
from harness.waiting import wait_until

seed = 20240607


def recorded_pid(place):
    text = place.pid_file.read_text() if place.pid_file.exists() else ""
    return int(text) if text.endswith("\n") else 0


def is_past_the_pid_file(daemon):
    try:
        return not daemon.runs() or "ipc" in daemon.thread_names()
    except OSError:
        return False


# Fault, in the process: two daemons started within 0 to 10 ms of each other, 8 times, by a seed.
# Seen: the later one ends the earlier one by SIGTERM; where both have read the PID file before one
# wrote it, both live, one of them on the bus. One is never missing, and every message arrives once.
def test_two_daemons_started_at_the_same_instant(place, make_daemon, bus, server):
    print(f"seed {seed}")
    chance = random.Random(seed)
    bus.listen()
    for number in range(8):
        place.pid_file.write_text("4194305\n" if number % 2 else "")
        bus.received.clear()
        server.frames.clear()
        pair = [make_daemon(), make_daemon()]
        for daemon in pair:
            daemon.end_expected = True
            daemon.start(config_text(server.url))
            time.sleep(chance.random() * 0.01)
        wait_until(lambda: all(map(is_past_the_pid_file, pair)), "both past the PID file")
        bus.wait_until_connected()
        living = [daemon for daemon in pair if daemon.runs()]
        assert recorded_pid(place) in [daemon.pid for daemon in living]
        assert all(daemon.process.returncode == -signal.SIGTERM
                   for daemon in pair if daemon not in living)
        bus.send(b"once")
        bus.send(b"and no more")
        assert server.wait_for_payloads(2) == [b"once", b"and no more"]
        for daemon in living:
            daemon.stop()


# Fault, in the process: a daemon is replaced three times while messages flow both ways.
# Seen: each ends by SIGTERM at once; nothing arrives twice, altered or out of order; what the old
# one held is lost, and everything arrives again once the new one is connected.
def test_replaced_while_messages_flow(make_rig, make_daemon):
    daemon, bus, server = make_rig()
    traffic = bus_traffic(bus, server)
    try:
        for number in range(3):
            connections = len(server.handshakes)
            successor = make_daemon().start(config_text(server.url))
            assert daemon.wait_for_exit() == -signal.SIGTERM
            daemon = successor
            server.wait_for_connections(connections + 1)
            arrived = len(bus.payloads()), len(server.payloads())
            bus.wait_for_payloads(arrived[0] + 5)
            server.wait_for_payloads(arrived[1] + 5)
    finally:
        traffic.stop()
    bus.send(b"last up")
    wait_until(lambda: server.payloads()[-1:] == [b"last up"], "the last message at the server")
    server.send("last down")
    wait_until(lambda: bus.payloads()[-1:] == [b"last down"], "the last message on the bus")
    assert is_strictly_in_order(server.payloads()[:-1], traffic.sent_up)
    assert is_strictly_in_order(bus.payloads()[:-1], traffic.sent_down)
    assert passes_both_ways(bus, server, "after the replacements")
    assert daemon.runs()
