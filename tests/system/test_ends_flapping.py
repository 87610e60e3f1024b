"""A thousand messages from the bus while the server closes and reopens every second."""

# Test: 25 s

import threading
import time

count = 1000


def message(number):
    return b"%04d:" % number + bytes(0x61 + (number + i) % 26 for i in range(number % 200))


def flap(server, stop):
    """Ends the connection and the listener in every way, twenty times and until told to stop."""
    for cycle in range(1000):
        if stop.is_set() and cycle >= 20:
            return
        time.sleep(0.8)
        if cycle % 3 == 0 and server.connection:
            server.reset()
        elif cycle % 3 == 1 and server.connection:
            server.close(1001)
        server.stop()
        time.sleep(0.2)
        server.start()


# Fault, while connected: a server that ends, by RST, close frame or as a whole, and is back every
# second, twenty times, while the bus sends 1000 messages, and 20 more behind it.
# Seen: what arrives is whole, in order, and once; the daemon goes on with the same three threads.
def test_messages_that_arrive_are_intact_and_in_order(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    pushed = threading.Event()
    flapping = threading.Thread(target=flap, args=(server, pushed))
    flapping.start()
    try:
        for first in range(0, count, 20):
            bus.send_lines([message(number) for number in range(first, first + 20)])
            time.sleep(0.2)
    finally:
        pushed.set()
        flapping.join()
    settled = len(server.frames)
    # At the default pacing a queue is left of the others, too.
    bus.send_lines([message(number) for number in range(count, count + 20)])
    server.wait_for_payloads(settled + 10)
    received = server.payloads()
    numbers = [int(payload[:4]) for payload in received]
    assert received == [message(number) for number in numbers]
    assert numbers == sorted(set(numbers))
    assert len(server.handshakes) > 10
    assert daemon.runs()
    assert daemon.own_thread_names() == ["ipc", "main", "websock-roaming"]
