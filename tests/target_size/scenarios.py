"""What the daemon goes through while it is measured."""

import collections
import contextlib
import time

from rig import connected, disconnected, rig

settling_seconds = 2
messages_each_way = 5000
messages_under_way = 50
message_size = 256
ping_seconds = 30
pings_a_day = 24 * 3600 // ping_seconds

rest_t = collections.namedtuple("rest_t", "at_start when_connected wake_ups_a_minute "
                                "cpu_ms_a_minute")
# Memory when connected, after a tenth (messages) or a twelfth (day) of the load, and at its end.
course_t = collections.namedtuple("course_t", "connected early end note")


def rest(machine, minutes):
    """At start, connected, and what connected idleness costs in `minutes`; in real time."""
    # A first delay of 8 s to 23 s leaves the time to look before the connection.
    with contextlib.closing(rig(machine, initial_delay=16)) as made:
        made.wait_for_status(disconnected)
        made.sleep(settling_seconds)
        assert not made.server.handshakes, "connected before the memory at start was read"
        at_start = made.memory()
        when_connected = memory_at_rest(made)
        before = made.work()
        made.sleep(60 * minutes)
        after = made.work()
    return rest_t(at_start, when_connected, (after.wake_ups - before.wake_ups) / minutes,
                  1000 * (after.cpu_seconds - before.cpu_seconds) / minutes)


def memory_at_rest(made):
    made.wait_for_status(connected)
    made.sleep(settling_seconds)
    return made.memory()


class message_flow:
    """Messages in order, of which a bounded number have not arrived yet."""

    def __init__(self, text, send, arrived):
        self.messages = [f"{text} {number:06d} ".ljust(message_size, ".")
                         for number in range(messages_each_way)]
        self.send = send
        self.arrived = arrived
        self.sent = 0

    def has_brought(self, count):
        """Sends what may be sent."""
        for message in self.messages[self.sent:len(self.arrived()) + messages_under_way]:
            self.send(message)
            self.sent += 1
        return len(self.arrived()) >= count

    def is_whole(self):
        return [message.encode() for message in self.messages] == self.arrived()


def messages(machine, speed):
    """Memory before, during and after 5,000 messages each way, which all arrive in order."""
    with contextlib.closing(rig(machine, speed=speed)) as made:
        before = memory_at_rest(made)
        began = time.monotonic()
        flows = [message_flow("to the service", lambda text: made.bus.send(text.encode()),
                              made.server.payloads),
                 message_flow("to the bus", made.server.send, lambda: made.bus.messages)]

        def bring(count):
            made.wait_for(lambda: all([flow.has_brought(count) for flow in flows]),
                          f"{count} messages each way", seconds=2000)

        bring(messages_each_way // 10)
        early = made.memory()
        bring(messages_each_way)
        took = (time.monotonic() - began) * speed
        assert all(flow.is_whole() for flow in flows), "messages were lost or changed"
        made.sleep(settling_seconds)
        return course_t(before, early, made.memory(), f"{took:.0f} s of the daemon's time")


def day(machine, speed):
    """Memory while idle, up to the ping with which 24 hours of the daemon's time are over.

    The pings are at least 30 s apart, and each one is answered.
    """
    with contextlib.closing(rig(machine, speed=speed)) as made:
        before = memory_at_rest(made)

        def memory_after(count):
            made.wait_for(lambda: made.server.pings >= count, f"{count} pings",
                          seconds=60 + 3 * count * ping_seconds / speed)
            return made.memory()

        early = memory_after(pings_a_day // 12)
        end = memory_after(pings_a_day)
        return course_t(before, early, end, f"{made.server.pings} pings")
