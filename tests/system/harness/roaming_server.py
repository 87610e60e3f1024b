"""A roaming service of an implementation that is independent of the daemon's library."""

import asyncio
import collections
import socket
import struct
import threading
import time

import websockets
from websockets.frames import OP_CONT, OP_TEXT

from harness.waiting import shortened, wait_until

frame_t = collections.namedtuple("frame_t", "time connection payload is_text")
handshake_t = collections.namedtuple("handshake_t", "time path headers subprotocol")


class roaming_server:
    """Listens on a free port of the loopback interface, in an event loop and thread of its own.

    Every operation may be called from the test's thread; the recorded lists only ever grow.
    Operations that concern a connection mean the newest one.
    """

    def __init__(self):
        self.frames = []
        self.handshakes = []
        self.ends = []
        self.pongs = 0
        self.connection = None
        self.server = None
        self.port = 0
        self.loop = asyncio.new_event_loop()
        self.thread = threading.Thread(target=self.loop.run_forever, daemon=True)
        self.thread.start()

    @property
    def url(self):
        return f"ws://127.0.0.1:{self.port}/roam"

    def start(self):
        """Listens; again on the same port after `stop`."""
        self.call(self.open_listener())
        return self

    def stop(self):
        """Closes the connections with a close frame and listens no more."""
        if self.server:
            self.server.close()
            self.call(self.server.wait_closed())
            self.server = None

    def shut_down(self):
        self.call(self.close_all())
        self.loop.call_soon_threadsafe(self.loop.stop)
        self.thread.join(20)
        self.loop.close()

    def close(self, code=1000):
        """Starts the closing handshake and returns the wall-clock time at which it did."""
        began = time.time()
        asyncio.run_coroutine_threadsafe(self.connection.close(code), self.loop)
        return began

    def reset(self):
        """Ends the connection with a TCP reset and returns the wall-clock time."""
        began = time.time()
        self.call(self.abort_connection())
        return began

    def send(self, message):
        self.call(self.connection.send(message))

    def send_many(self, messages):
        self.call(self.send_in_order(messages))

    def send_fragments(self, pieces):
        """One text message in as many frames as pieces, the last piece in the final frame."""
        self.call(self.write_fragments(pieces, final=True))

    def send_unfinished(self, pieces):
        self.call(self.write_fragments(pieces, final=False))

    def send_streamed(self, pieces):
        """One text message as the server library streams it: with an empty final frame."""
        self.call(self.connection.send(pieces))

    def ping(self):
        """Pings the daemon and returns when its pong has arrived."""
        self.call(self.ping_and_wait())

    def payloads(self):
        """The messages received on all connections, in order, as bytes."""
        return [frame.payload for frame in list(self.frames)]

    def wait_for_payloads(self, count, seconds=30.0):
        wait_until(lambda: len(self.frames) >= count, f"{count} messages at the server", seconds,
                   lambda: f"there were {len(self.frames)}: {shortened(self.payloads())[-5:]}")
        return self.payloads()

    def wait_for_connections(self, count, seconds=30.0):
        wait_until(lambda: len(self.handshakes) >= count, f"{count} connections in all", seconds,
                   lambda: f"there were {len(self.handshakes)}")

    def call(self, coroutine, seconds=60):
        return asyncio.run_coroutine_threadsafe(coroutine, self.loop).result(seconds)

    async def open_listener(self):
        self.server = await websockets.serve(
            self.serve, "127.0.0.1", self.port, subprotocols=["websock-roaming"], compression=None,
            max_size=None, ping_interval=None, close_timeout=5)
        self.port = self.server.sockets[0].getsockname()[1]

    async def serve(self, connection, path):
        self.connection = connection
        self.handshakes.append(handshake_t(time.monotonic(), path, connection.request_headers,
                                           connection.subprotocol))
        number = len(self.handshakes)
        try:
            async for message in connection:
                is_text = isinstance(message, str)
                payload = message.encode() if is_text else message
                self.frames.append(frame_t(time.monotonic(), number, payload, is_text))
        except websockets.ConnectionClosed:
            pass
        finally:
            self.ends.append((time.monotonic(), connection.close_code))

    async def abort_connection(self):
        transport = self.connection.transport
        if transport.is_closing():
            return
        no_linger = struct.pack("ii", 1, 0)
        tcp_socket = transport.get_extra_info("socket")
        tcp_socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, no_linger)
        transport.abort()

    async def send_in_order(self, messages):
        for message in messages:
            await self.connection.send(message)

    async def write_fragments(self, pieces, final):
        for index, piece in enumerate(pieces):
            last = final and index == len(pieces) - 1
            await self.connection.write_frame(last, OP_CONT if index else OP_TEXT, piece)

    async def ping_and_wait(self):
        await (await self.connection.ping())

    async def close_all(self):
        if self.server:
            self.server.close()
            await self.server.wait_closed()
        others = [task for task in asyncio.all_tasks() if task is not asyncio.current_task()]
        for task in others:
            task.cancel()
        await asyncio.gather(*others, return_exceptions=True)
