"""The daemon under measurement between a bus peer and a roaming service, all in one event loop."""

import asyncio
import os
import pathlib
import shutil
import socket
import subprocess
import tempfile

import websockets
from harness.sandbox import namespace_prefix
from harness.vemk_daemon import config_text
from process_cost import memory_of, work_of

connected = b'"connected"'
disconnected = b'"disconnected"'

# A starting daemon ends the process that the PID file in /tmp names, so it gets a /tmp of its own.
enter_private_tmp = 'mount --bind "$1" /tmp && shift && exec "$@"'


def take_priority(urgent):
    """Puts this thread, and what it starts, before all others where that is allowed.

    With a clock that goes 200 times faster, a server that is held up for 450 ms leaves three pings
    without an answer.
    """
    policy, priority = (os.SCHED_FIFO, 1) if urgent else (os.SCHED_OTHER, 0)
    try:
        os.sched_setscheduler(0, policy, os.sched_param(priority))
    except PermissionError:
        pass


class roaming_connection(websockets.WebSocketServerProtocol):
    """Counts the daemon's pings, each of which it answers."""

    answered_pings = 0

    async def pong(self, data=b""):
        self.answered_pings += 1
        await super().pong(data)


class rig:
    """Starts the daemon and stops it with `stop`.

    Its clock goes `speed` times faster than the real one, by means of fast_clock.c.
    """

    def __init__(self, machine, speed=1, initial_delay=1):
        self.machine = machine
        self.speed = speed
        self.initial_delay = initial_delay
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vemk-size-", dir="/var/tmp"))
        self.loop = asyncio.get_running_loop()
        self.process = None
        self.server = None
        self.connections = []
        self.ended = 0
        self.statuses = []
        self.on_bus = []
        self.at_server = []

    async def start(self):
        self.peer = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.peer.setblocking(False)
        self.peer.bind(str(self.folder / "peer"))
        self.loop.add_reader(self.peer, self.read_bus)
        self.server = await websockets.serve(
            self.serve, "127.0.0.1", 0, subprotocols=["websock-roaming"], compression=None,
            ping_interval=None, create_protocol=roaming_connection)
        port = self.server.sockets[0].getsockname()[1]
        config = self.folder / "vemk.conf"
        config.write_text(config_text(f"ws://127.0.0.1:{port}/roam",
                                      initial_delay=self.initial_delay, max_delay=30))
        private_tmp = self.folder / "tmp"
        private_tmp.mkdir()
        take_priority(self.speed > 1)
        command = [*namespace_prefix(), "sh", "-c", enter_private_tmp, "sh",
                   private_tmp, *self.machine.command(self.variables()), "-f", config]
        self.process = subprocess.Popen([str(word) for word in command], cwd="/",
                                        stdin=subprocess.DEVNULL)

    def variables(self):
        variables = {"STUB_BUS_FOLDER": self.folder}
        if self.speed > 1:
            variables["LD_PRELOAD"] = self.machine.fast_clock
            variables["FAST_CLOCK"] = self.speed
        return variables

    async def stop(self):
        if self.server:
            self.server.close()
        if self.process and self.process.poll() is None:
            self.process.terminate()
            self.process.wait(20)
        self.loop.remove_reader(self.peer)
        self.peer.close()
        shutil.rmtree(self.folder)

    def read_bus(self):
        message = self.peer.recv(65536)
        is_status = b'"internal-ipc"' in message
        (self.statuses if is_status else self.on_bus).append(message)

    async def serve(self, connection, _path):
        self.connections.append(connection)
        try:
            async for message in connection:
                self.at_server.append(message.encode())
        except websockets.ConnectionClosedError:
            pass
        self.ended += 1

    async def send_to_daemon(self, message):
        address = str(self.folder / "daemon")
        while True:
            try:
                self.peer.sendto(message, address)
                return
            except BlockingIOError:
                await asyncio.sleep(0.001)

    async def send_to_bus(self, message):
        await self.connections[-1].send(message.decode())

    async def wait_for(self, condition, what, seconds=60):
        deadline = self.loop.time() + seconds
        while not condition():
            status = self.process.poll()
            assert status is None, f"the daemon ended with status {status} before: {what}"
            assert not self.ended, f"the connection was lost before: {what}"
            assert self.loop.time() < deadline, f"not seen within {seconds} s: {what}"
            await asyncio.sleep(0.005)

    async def wait_for_status(self, word):
        await self.wait_for(lambda: any(word in status for status in self.statuses),
                            f"the status {word.decode()}")

    async def sleep(self, seconds):
        """Waits, and fails when the daemon ends or loses its connection meanwhile."""
        end = self.loop.time() + seconds
        while self.loop.time() < end:
            await asyncio.sleep(min(0.5, max(0, end - self.loop.time())))
            status = self.process.poll()
            left = end - self.loop.time()
            assert status is None, f"the daemon ended with status {status}, {left:.0f} s too early"
            assert not self.ended, f"a connection was lost {left:.0f} s too early"

    def pings(self):
        """On all connections so far."""
        return sum(connection.answered_pings for connection in self.connections)

    def memory(self):
        return memory_of(self.process.pid, self.machine.own_addresses)

    def work(self):
        return work_of(self.process.pid)
