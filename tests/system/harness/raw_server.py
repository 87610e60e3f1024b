"""A server on plain sockets, for what a well-behaved WebSocket library would not do."""

import base64
import collections
import contextlib
import hashlib
import socket
import struct
import threading
import time

from harness.frames import frame_parser, frame_t, opcode_text, text
from harness.waiting import wait_until

reset_on_close = struct.pack("ii", 1, 0)

raw_frame_t = collections.namedtuple("raw_frame_t", ("time", "connection", *frame_t._fields))


def silent(server, connection, request):
    """Answers nothing; the connection stays open."""


def finish(connection):
    """FIN; what the daemon sends can still be read."""
    connection.shutdown(socket.SHUT_WR)


def reset(connection):
    """RST."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, reset_on_close)
    connection.close()


@contextlib.contextmanager
def deaf_listener(address):
    """A listener with a full backlog, which drops every further connection request; its address."""
    with contextlib.ExitStack() as sockets:
        listener = sockets.enter_context(socket.socket())
        listener.bind(address)
        listener.listen(0)
        for _ in range(4):
            waiting = sockets.enter_context(socket.socket())
            waiting.setblocking(False)
            waiting.connect_ex(listener.getsockname())
        yield listener.getsockname()


def upgrade_lines(request):
    """The lines of an answer that accepts the WebSocket and chooses no subprotocol."""
    key = request.split(b"Sec-WebSocket-Key: ")[1].split(b"\r\n")[0]
    digest = hashlib.sha1(key + b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest()
    return [b"HTTP/1.1 101 Switching Protocols", b"Upgrade: websocket", b"Connection: Upgrade",
            b"Sec-WebSocket-Accept: " + base64.b64encode(digest)]


def http_head(lines):
    return b"\r\n".join([*lines, b"", b""])


def accepts(change):
    """A behaviour that answers with `change` of the upgrade's head, and never answers a frame."""

    def behaviour(server, connection, request):
        connection.sendall(change(http_head(upgrade_lines(request))))
        server.read_frames(connection)

    return behaviour


# Accepts the WebSocket without choosing a subprotocol.
upgrade = accepts(lambda head: head)


class raw_server:
    """Accepts connections and hands each, with the request it read, to `behaviour`.

    One thread for accepting and one per connection; the recorded lists only ever grow.
    Operations that concern a connection mean the newest one.
    """

    def __init__(self, behaviour):
        self.behaviour = behaviour
        self.connections = []
        self.accept_times = []
        self.requests = []
        self.frames = []
        self.sending = threading.Lock()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.url = f"ws://127.0.0.1:{self.port}/roam"
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            # The daemon may read each part at once, and the next one is not to wait for that.
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.connections.append(connection)
            self.accept_times.append(time.monotonic())
            threading.Thread(target=self.serve, args=(connection,), daemon=True).start()

    def serve(self, connection):
        try:
            request = b""
            while not request.endswith(b"\r\n\r\n"):
                data = connection.recv(4096)
                if not data:
                    return
                request += data
            self.requests.append(request)
            self.behaviour(self, connection, request)
        except OSError:
            pass

    def read_frames(self, connection):
        number = self.connections.index(connection) + 1
        parser = frame_parser()
        while data := connection.recv(8192):
            for frame in parser.feed(data):
                self.frames.append(raw_frame_t(time.monotonic(), number, *frame))
                self.after_frame(connection, frame)

    def after_frame(self, connection, frame):
        """Runs on the connection's thread, which reads the next frame when this returns."""

    def frames_of(self, opcode):
        return [frame for frame in list(self.frames) if frame.opcode == opcode]

    def wait_for_frames(self, opcode, count, seconds=30.0):
        wait_until(lambda: len(self.frames_of(opcode)) >= count,
                   f"{count} frames with opcode {opcode}", seconds)
        return self.frames_of(opcode)

    def wait_for_connections(self, count, seconds=30.0):
        wait_until(lambda: len(self.connections) >= count, f"{count} connections in all", seconds,
                   lambda: f"there were {len(self.connections)}")

    def payloads(self):
        """What has arrived in text frames on all connections, in order."""
        return [one.payload for one in self.frames_of(opcode_text)]

    def wait_for_payloads(self, count, seconds=30.0):
        self.wait_for_frames(opcode_text, count, seconds)
        return self.payloads()

    @property
    def connection(self):
        return self.connections[-1]

    def send(self, *parts):
        """A string as a text frame, bytes as they are."""
        sent = (text(part.encode()) if isinstance(part, str) else part for part in parts)
        with self.sending:
            self.connection.sendall(b"".join(sent))

    def shut_down(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        for connection in self.connections:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            connection.close()
