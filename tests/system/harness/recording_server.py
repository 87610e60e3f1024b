"""What all roaming services of the tests have in common: they record, and can be waited for."""

import asyncio
import collections
import socket
import threading
import time

from harness.raw_server import reset_on_close
from harness.waiting import shortened, wait_until

frame_t = collections.namedtuple("frame_t", "time connection payload is_text")
handshake_t = collections.namedtuple("handshake_t", "time path headers subprotocol")


def abort(transport):
    """Ends an asyncio connection with a TCP reset."""
    tcp_socket = transport.get_extra_info("socket")
    tcp_socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, reset_on_close)
    transport.abort()


class recording_server:
    """On a free port of `host`, the same one after a restart.

    Every operation may be called from the test's thread; the recorded lists only ever grow.
    Operations that concern a connection mean the newest one.
    """

    host = "127.0.0.1"

    def __init__(self):
        self.frames = []
        self.handshakes = []
        self.ends = []
        self.port = 0

    @property
    def url(self):
        return f"ws://{self.host}:{self.port}/roam"

    def record_handshake(self, path, headers, subprotocol):
        """Returns the connection's number, counted from 1."""
        self.handshakes.append(handshake_t(time.monotonic(), path, headers, subprotocol))
        return len(self.handshakes)

    def record_message(self, number, payload, is_text):
        self.frames.append(frame_t(time.monotonic(), number, payload, is_text))

    def record_end(self, code):
        self.ends.append((time.monotonic(), code))

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


class asyncio_server(recording_server):
    """Runs in an event loop and thread of its own.

    The library's part is open_listener, close_listener, close_connection, send_message and
    ping_and_wait, and `connection` and `transport` of the newest connection.
    """

    def __init__(self):
        super().__init__()
        self.connection = None
        self.transport = None
        self.loop = asyncio.new_event_loop()
        self.thread = threading.Thread(target=self.loop.run_forever, daemon=True)
        self.thread.start()

    def start(self):
        """Listens; again on the same port after `stop`."""
        self.call(self.open_listener())
        return self

    def stop(self):
        """Closes the connections with a close frame and listens no more."""
        self.call(self.close_listener())

    def shut_down(self):
        self.call(self.close_all())
        self.loop.call_soon_threadsafe(self.loop.stop)
        self.thread.join(20)
        self.loop.close()

    def close(self, code=1000, reason=""):
        """Starts the closing handshake and returns the wall-clock time at which it did."""
        began = time.time()
        asyncio.run_coroutine_threadsafe(self.close_connection(code, reason), self.loop)
        return began

    def reset(self):
        """Ends the connection with a TCP reset and returns the wall-clock time."""
        began = time.time()
        self.call(self.abort_connection())
        return began

    def send(self, message):
        """A string as a text message, bytes as a binary one."""
        self.call(self.send_message(message))

    def send_many(self, messages):
        self.call(self.send_in_order(messages))

    def ping(self):
        """Pings the daemon and returns when its pong has arrived."""
        self.call(self.ping_and_wait())

    def call(self, coroutine, seconds=60):
        return asyncio.run_coroutine_threadsafe(coroutine, self.loop).result(seconds)

    async def abort_connection(self):
        if not self.transport.is_closing():
            abort(self.transport)

    async def send_in_order(self, messages):
        for message in messages:
            await self.send_message(message)

    async def close_all(self):
        await self.close_listener()
        others = [task for task in asyncio.all_tasks() if task is not asyncio.current_task()]
        for task in others:
            task.cancel()
        await asyncio.gather(*others, return_exceptions=True)
