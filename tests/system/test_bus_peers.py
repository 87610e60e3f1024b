"""Dropped off the bus again and again, and other modules that stop or die."""

# Test: 25 s

import signal
import time

import pytest

from harness.bus_peer import bus_peer, status_request
from harness.frame_server import pattern
from harness.round_trip import passes_both_ways
from harness.traffic import bus_traffic, is_strictly_in_order
from harness.waiting import wait_until


@pytest.fixture
def second(place):
    """One more listener."""
    made = bus_peer(place)
    made.listen()
    yield made
    made.listener.send_signal(signal.SIGCONT)
    made.stop()


# Three rejoins: messages pass both ways after each, over the one connection, no descriptor more.
def test_traffic_goes_on_after_each_rejoin(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    announced = len(bus.statuses())
    descriptors = daemon.descriptor_count()
    for number in range(1, 4):
        bus.rejoin()
        answer = bus.run("status", "--timeout", "20")
        assert answer.stdout == b"connected\n", answer.stderr
        bus.send(b"up %d" % number)
        server.wait_for_payloads(number)
        # The listener is known to be back when it has seen this answer.
        seen = len(bus.statuses())
        bus.send(status_request)
        bus.wait_for_statuses(seen + 1)
        server.send(f"down {number}")
        bus.wait_for_payloads(number)
    assert server.payloads() == [b"up 1", b"up 2", b"up 3"]
    assert bus.payloads() == [b"down 1", b"down 2", b"down 3"]
    assert set(bus.statuses()[announced:]) == {"connected"}
    assert len(server.handshakes) == 1
    daemon.wait_for_descriptors(descriptors)


# Fault, on the bus: dropped and re-joined 20 times in a row while messages flow both ways.
# Seen: each message that the daemon took from the bus arrives once, unaltered and in order; what
# it gives to the bus comes in order and once, less what the bus loses while nobody is on it: at
# least one for each time.
def test_twenty_rejoins_with_messages_both_ways(make_rig):
    daemon, bus, server = make_rig()
    descriptors = daemon.descriptor_count()
    announced = len(bus.statuses())
    with bus_traffic(bus, server) as traffic:
        for _ in range(20):
            bus.rejoin()
    assert bus.run("status", "--timeout", "20").stdout == b"connected\n"
    up, down = traffic.arrived()
    assert is_strictly_in_order(up, traffic.sent_up)
    assert is_strictly_in_order(traffic.taken, up)
    assert is_strictly_in_order(down, traffic.sent_down)
    assert len(down) >= 20
    assert set(bus.statuses()[announced:]) <= {"connected"}
    assert len(server.handshakes) == 1
    daemon.wait_for_descriptors(descriptors)


# Fault, on the bus: two listeners, one of which is killed.
# Seen: both hear every message; the other one goes on hearing every message.
def test_both_listeners_hear_everything_and_one_may_die(make_rig, second):
    daemon, bus, server = make_rig()
    second.wait_listening()
    messages = [b"to both %d" % i for i in range(20)]
    server.send_many([message.decode() for message in messages])
    assert bus.wait_for_payloads(20) == messages
    assert second.wait_for_payloads(20) == messages
    second.listener.kill()
    second.listener.wait()
    server.send_many(["to one %d" % i for i in range(20)])
    assert bus.wait_for_payloads(40)[20:] == [b"to one %d" % i for i in range(20)]
    assert passes_both_ways(bus, server, "after the listener's death")


# Fault, on the bus: a listener that is stopped for 200 messages and then goes on.
# Seen: the daemon and the other listener are not held up; it then hears all of them, in order.
def test_a_stopped_listener_holds_nobody_up(make_rig, second):
    daemon, bus, server = make_rig()
    second.wait_listening()
    second.listener.send_signal(signal.SIGSTOP)
    messages = [b"%03d " % i + b"z" * 200 for i in range(200)]
    server.send_many([message.decode() for message in messages])
    assert bus.wait_for_payloads(200) == messages
    assert passes_both_ways(bus, server, "beside a stopped listener")
    second.listener.send_signal(signal.SIGCONT)
    assert second.wait_for_payloads(201)[:200] == messages


# Fault, on the bus: a sender that is killed 0, 5 and 20 ms after it was given 40 lines and a half.
# Seen: the server gets the first of its lines, each whole and once, and none of half a line.
def test_a_sender_killed_in_a_stream_leaves_whole_messages(make_rig):
    daemon, bus, server = make_rig()
    expected = []
    for stream, wait in enumerate((0, 0.005, 0.02)):
        lines = [b"line %d of stream %d" % (i, stream) for i in range(40)]
        sender = bus.start_sending("--lines", "-")
        sender.stdin.write(b"".join(line + b"\n" for line in lines) + b"half a line")
        sender.stdin.flush()
        time.sleep(wait)
        sender.kill()
        sender.communicate()
        behind = b"behind stream %d" % stream
        bus.send(behind)
        wait_until(lambda behind=behind: behind in server.payloads(), "the message behind a stream")
        expected += [*lines, behind]
    # Nothing orders the messages of two senders: the one behind may arrive in front.
    received = server.payloads()
    for stream in range(3):
        lines = [payload for payload in received if payload.endswith(b"of stream %d" % stream)]
        assert lines == expected[stream * 41:][:len(lines)]
    assert len(received) == len(set(received)) and set(received) <= set(expected)


# Fault, on the bus: a sender that is killed 0 to 200 ms after it was given a message of 8 MiB.
# Seen: the message arrives whole or not at all, and the next one is not touched.
def test_a_sender_killed_over_a_large_message_leaves_no_half_of_it(make_rig):
    daemon, bus, server = make_rig()
    descriptors = daemon.descriptor_count()
    message = pattern(8 << 20)
    behind = []
    for wait in (0, 0.01, 0.02, 0.05, 0.2):
        sender = bus.start_sending("-")
        sender.stdin.write(message)
        sender.stdin.close()
        time.sleep(wait)
        sender.kill()
        sender.wait()
        sender.stderr.close()
        behind.append(b"behind %g" % wait)
        bus.send(behind[-1])
    wait_until(lambda: server.payloads()[-1:] == behind[-1:], "the last message at the server", 60)
    assert {len(payload) for payload in server.payloads()} <= {len(message), *map(len, behind)}
    assert [payload for payload in server.payloads() if len(payload) < 100] == behind
    assert all(payload == message for payload in server.payloads() if len(payload) > 100)
    assert passes_both_ways(bus, server, "after the killed senders")
    daemon.wait_for_descriptors(descriptors)
