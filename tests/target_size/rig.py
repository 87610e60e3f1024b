"""The daemon under measurement between a bus peer and a roaming service."""

import contextlib
import os
import socket
import threading
import time

from harness.roaming_server import roaming_server
from harness.sandbox import sandbox
from harness.vemk_daemon import config_text, vemk_daemon
from harness.waiting import wait_until
from process_cost import memory_of, work_of

connected = b'"connected"'
disconnected = b'"disconnected"'


def take_priority(urgent):
    """Puts this thread, and what it starts, before all others where that is allowed.

    With a clock that goes 200 times faster, a server that is held up for 450 ms leaves three pings
    without an answer.
    """
    policy, priority = (os.SCHED_FIFO, 1) if urgent else (os.SCHED_OTHER, 0)
    with contextlib.suppress(PermissionError):
        os.sched_setscheduler(0, policy, os.sched_param(priority))


class ping_counting_server(roaming_server):
    """Counts the daemon's pings, each of which it answers."""

    def __init__(self):
        super().__init__()
        self.pings = 0

    async def serve(self, connection, path):
        answer = connection.pong

        async def count_and_answer(data=b""):
            self.pings += 1
            await answer(data)

        connection.pong = count_and_answer
        await super().serve(connection, path)


class stub_bus:
    """The other end of stub_bus.c's bus; the recorded lists only ever grow."""

    def __init__(self, folder):
        self.daemon_address = str(folder / "daemon")
        self.statuses = []
        self.messages = []
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(str(folder / "peer"))
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        while message := self.socket.recv(65536):
            (self.statuses if b'"internal-ipc"' in message else self.messages).append(message)

    def send(self, message):
        """Waits while the daemon's socket is full."""
        self.socket.sendto(message, self.daemon_address)

    def close(self):
        self.socket.shutdown(socket.SHUT_RDWR)
        self.socket.close()


class rig:
    """Starts the daemon, and stops it with `close`.

    Its clock goes `speed` times faster than the real one, by means of fast_clock.c.
    """

    def __init__(self, machine, speed=1, initial_delay=1):
        self.machine = machine
        take_priority(speed > 1)
        with contextlib.ExitStack() as started:
            place = sandbox(machine.build_folder, None, machine.runner_folder)
            started.callback(place.remove)
            self.bus = stub_bus(place.bus_folder)
            started.callback(self.bus.close)
            self.server = ping_counting_server()
            started.callback(self.server.shut_down)
            self.daemon = vemk_daemon(place, "vemk")
            started.callback(self.daemon.stop)
            self.server.start()
            preloaded = place.bound_build_folder / machine.fast_clock if speed > 1 else None
            self.daemon.start(
                config_text(self.server.url, initial_delay=initial_delay, max_delay=30),
                environment={"STUB_BUS_FOLDER": str(place.bus_folder), "FAST_CLOCK": str(speed)},
                runner=machine.runner(preloaded))
            self.close = started.pop_all().close

    def wait_for(self, condition, what, seconds=60):
        """Fails when the daemon ends or loses its connection meanwhile."""

        def seen():
            assert self.daemon.runs(), f"the daemon ended before: {what}"
            assert not self.server.ends, f"the connection was lost before: {what}"
            return condition()

        wait_until(seen, what, seconds)

    def wait_for_status(self, word):
        self.wait_for(lambda: any(word in status for status in self.bus.statuses),
                      f"the status {word.decode()}")

    def sleep(self, seconds):
        end = time.monotonic() + seconds
        self.wait_for(lambda: time.monotonic() >= end, f"the end of {seconds:g} s", seconds + 60)

    def memory(self):
        return memory_of(self.daemon.pid, self.machine.own_addresses)

    def work(self):
        return work_of(self.daemon.pid)
