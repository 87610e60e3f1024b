"""What the daemon goes through while it is measured."""

import asyncio
import collections

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


async def with_rig(steps, *arguments, **options):
    """Runs the steps with a started rig and stops it whatever happens."""
    made = rig(*arguments, **options)
    try:
        await made.start()
        return await steps(made)
    finally:
        await made.stop()


def rest(machine, minutes):
    """At start, connected, and what connected idleness costs in `minutes`; in real time."""

    async def steps(made):
        await made.wait_for_status(disconnected)
        await made.sleep(settling_seconds)
        assert not made.connections, "connected before the memory at start was read"
        at_start = made.memory()
        await made.wait_for_status(connected)
        await made.sleep(settling_seconds)
        when_connected = made.memory()
        before = made.work()
        await made.sleep(60 * minutes)
        after = made.work()
        return rest_t(at_start, when_connected, (after.wake_ups - before.wake_ups) / minutes,
                      1000 * (after.cpu_seconds - before.cpu_seconds) / minutes)

    # A first delay of 8 s to 23 s leaves the time to look before the connection.
    return asyncio.run(with_rig(steps, machine, initial_delay=16))


def numbered(text):
    return [f"{text} {number:06d} ".encode().ljust(message_size, b".")
            for number in range(messages_each_way)]


async def send_all(messages, send, arrived):
    """Sends in order, with a bounded number of messages that have not arrived yet."""
    for number, message in enumerate(messages):
        while number - len(arrived) >= messages_under_way:
            await asyncio.sleep(0.002)
        await send(message)


def messages(machine, speed):
    """Memory before, during and after 5,000 messages each way, which all arrive in order."""
    up = numbered("to the service")
    down = numbered("to the bus")

    async def arrived(made, count):
        await made.wait_for(lambda: min(len(made.at_server), len(made.on_bus)) >= count,
                            f"{count} messages each way", seconds=2000)

    async def steps(made):
        await made.wait_for_status(connected)
        await made.sleep(settling_seconds)
        before = made.memory()
        began = made.loop.time()
        senders = asyncio.gather(send_all(up, made.send_to_daemon, made.at_server),
                                 send_all(down, made.send_to_bus, made.on_bus))
        await arrived(made, messages_each_way // 10)
        early = made.memory()
        await arrived(made, messages_each_way)
        took = (made.loop.time() - began) * speed
        await senders
        assert made.at_server == up and made.on_bus == down, "messages were lost or changed"
        await made.sleep(settling_seconds)
        return course_t(before, early, made.memory(), f"{took:.0f} s of the daemon's time")

    return asyncio.run(with_rig(steps, machine, speed=speed))


def day(machine, speed):
    """Memory while idle, up to the ping with which 24 hours of the daemon's time are over.

    The pings are at least 30 s apart, and each one is answered.
    """

    async def steps(made):
        async def pinged(count):
            await made.wait_for(lambda: made.pings() >= count, f"{count} pings",
                                seconds=60 + 3 * count * ping_seconds / speed)

        await made.wait_for_status(connected)
        await made.sleep(settling_seconds)
        before = made.memory()
        await pinged(pings_a_day // 12)
        early = made.memory()
        await pinged(pings_a_day)
        return course_t(before, early, made.memory(), f"{made.pings()} pings")

    return asyncio.run(with_rig(steps, machine, speed=speed))
