"""Dropped off the bus again and again, and listeners of all kinds."""

# Test: 20 s

import signal
import time

from harness.bus_peer import bus_peer
from harness.round_trip import passes_both_ways
from harness.traffic import bus_traffic, is_strictly_in_order
from harness.waiting import wait_until


# Fault, on the bus: dropped and re-joined 20 times in a row while messages flow both ways.
# Seen: each message that the daemon took from the bus arrives once, unaltered and in order; what
# it gives to the bus comes in order and once, less what the bus loses while nobody is on it.
def test_twenty_rejoins_with_messages_both_ways(make_rig):
    daemon, bus, server = make_rig()
    descriptors = daemon.descriptor_count()
    announced = len(bus.statuses())
    traffic = bus_traffic(bus, server)
    try:
        for _ in range(20):
            bus.rejoin()
    finally:
        traffic.stop()
    bus.send(b"last up")
    wait_until(lambda: server.payloads()[-1:] == [b"last up"], "the last message at the server")
    *up, _ = server.payloads()
    assert is_strictly_in_order(up, traffic.sent_up)
    assert is_strictly_in_order(traffic.taken, up)
    assert bus.run("status", "--timeout", "20").stdout == b"connected\n"
    server.send("last down")
    wait_until(lambda: bus.payloads()[-1:] == [b"last down"], "the last message on the bus")
    *down, _ = bus.payloads()
    assert is_strictly_in_order(down, traffic.sent_down)
    assert len(down) > len(traffic.sent_down) // 2
    assert set(bus.statuses()[announced:]) <= {"connected"}
    assert len(server.handshakes) == 1
    daemon.wait_for_descriptors(descriptors)


# Fault, on the bus: two listeners, one of which is killed.
# Seen: both hear every message; the other one goes on hearing every message.
def test_both_listeners_hear_everything_and_one_may_die(make_rig, place):
    daemon, bus, server = make_rig()
    second = bus_peer(place)
    second.listen()
    try:
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
    finally:
        second.stop()


# Fault, on the bus: a listener that is stopped for 200 messages and then goes on.
# Seen: the daemon and the other listener are not held up; it then hears all of them, in order.
def test_a_stopped_listener_holds_nobody_up(make_rig, place):
    daemon, bus, server = make_rig()
    second = bus_peer(place)
    second.listen()
    try:
        second.wait_listening()
        second.listener.send_signal(signal.SIGSTOP)
        messages = [b"%03d " % i + b"z" * 200 for i in range(200)]
        server.send_many([message.decode() for message in messages])
        assert bus.wait_for_payloads(200) == messages
        assert passes_both_ways(bus, server, "beside a stopped listener")
        second.listener.send_signal(signal.SIGCONT)
        assert second.wait_for_payloads(201)[:200] == messages
    finally:
        second.listener.send_signal(signal.SIGCONT)
        second.stop()


# Fault, on the bus: messages of 0 bytes.
# Seen: from the bus an empty text frame; from the server nothing reaches the bus.
def test_empty_messages_go_up_only(make_rig):
    daemon, bus, server = make_rig()
    bus.send(b"")
    server.send("")
    server.send("behind")
    bus.send(b"")
    server.wait_for_payloads(2)
    assert [(frame.payload, frame.is_text) for frame in server.frames] == [(b"", True)] * 2
    assert bus.wait_for_payloads(1) == [b"behind"]
    assert passes_both_ways(bus, server, "after empty messages")


# Fault, on the bus: a sender that is killed 0, 5 and 20 ms after it was given 40 lines and a half.
# Seen: the server gets the first of its lines, each whole and once, and none of half a line.
def test_a_sender_killed_in_a_stream_leaves_whole_messages(make_rig):
    daemon, bus, server = make_rig()
    lines = [b"line %d of the stream" % i for i in range(40)]
    for wait in (0, 0.005, 0.02):
        server.frames.clear()
        sender = bus.start_sending("--lines", "-")
        sender.stdin.write(b"".join(line + b"\n" for line in lines) + b"half a line")
        sender.stdin.flush()
        time.sleep(wait)
        sender.kill()
        sender.communicate()
        bus.send(b"behind")
        wait_until(lambda: server.payloads()[-1:] == [b"behind"], "the message behind the stream")
        *received, _ = server.payloads()
        assert received == lines[:len(received)]


# Fault, on the bus: a sender that is killed 0 to 200 ms after it was given a message of 8 MiB.
# Seen: the message arrives whole or not at all, and the next one is not touched.
def test_a_sender_killed_over_a_large_message_leaves_no_half_of_it(make_rig):
    daemon, bus, server = make_rig()
    descriptors = daemon.descriptor_count()
    message = b"%07d\n" * (1 << 20) % tuple(range(1 << 20))
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
