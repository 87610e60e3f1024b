"""A roaming service that misbehaves on command, in a process of its own so that it can be stopped.

Commands come, and what happens is told, through one pipe, as tuples that begin with a word.
"""

import asyncio
import socket
import struct

from harness.frame_server import frame
from harness.raw_server import opcode_close, opcode_ping, opcode_pong, opcode_text
from websockets.exceptions import ProtocolError
from websockets.frames import Frame
from websockets.streams import StreamReader
from websockets.utils import accept_key

# Small, so that a service that does not read closes its window soon.
receive_buffer_bytes = 65536
reset_on_close = struct.pack("ii", 1, 0)

answers = {
    "unavailable": b"HTTP/1.1 503 Service Unavailable\r\nContent-Length: 4\r\n\r\nbusy",
    "garbage": bytes(range(256)) * 4,
    "refuse": b"HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
}


def run_service(pipe, pong_rule):
    """`pong_rule` tells how many of how many pings are answered, or is None for all of them."""
    asyncio.run(service(pipe, pong_rule).run())


class service:
    def __init__(self, pipe, pong_rule):
        self.pipe = pipe
        self.answers_ping = pong_rule
        self.mode = "upgrade"
        self.made = 0
        self.upgraded = {}
        self.silent = []
        self.listener = None
        self.port = 0
        self.ended = asyncio.Event()

    async def run(self):
        self.loop = asyncio.get_running_loop()
        await self.listen(True)
        self.tell("port", self.port)
        self.loop.add_reader(self.pipe.fileno(), self.take_commands)
        await self.ended.wait()

    def tell(self, *event):
        self.pipe.send(event)

    def take_commands(self):
        try:
            while self.pipe.poll():
                word, *arguments = self.pipe.recv()
                result = getattr(self, word)(*arguments)
                if asyncio.iscoroutine(result):
                    self.loop.create_task(result)
        except EOFError:
            self.ended.set()

    async def listen(self, wanted):
        if not wanted:
            self.listener.close()
            return
        listener = socket.socket()
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer_bytes)
        listener.bind(("127.0.0.1", self.port))
        self.port = listener.getsockname()[1]
        self.listener = await self.loop.create_server(lambda: peer(self), sock=listener)

    def behave(self, mode):
        """What new connections meet; what was left unanswered is closed."""
        self.mode = mode
        for transport in self.silent:
            transport.abort()
        self.silent.clear()

    def write(self, connection, pieces, bytewise=False):
        if connection not in self.upgraded:
            return
        transport = self.upgraded[connection].transport
        for piece in pieces:
            # Without a delay in the socket each write is a segment of its own.
            for part in (piece[i:i + 1] for i in range(len(piece))) if bytewise else [piece]:
                transport.write(part)

    def read(self, connection, wanted):
        if connection in self.upgraded:
            transport = self.upgraded[connection].transport
            transport.resume_reading() if wanted else transport.pause_reading()

    def drop(self, connection, how, code=None):
        if connection not in self.upgraded:
            return
        transport = self.upgraded[connection].transport
        if how == "close":
            self.upgraded[connection].close_sent = True
            transport.write(frame(opcode_close, b"" if code is None else struct.pack("!H", code)))
        elif how == "fin":
            transport.write_eof()
        else:
            reset(transport)


def reset(transport):
    transport.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                                  reset_on_close)
    transport.abort()


class peer(asyncio.Protocol):
    """One connection; it has a number from its upgrade on."""

    def __init__(self, owner):
        self.owner = owner
        self.request = b""
        self.number = 0
        self.close_sent = False
        self.pings = 0
        self.reader = StreamReader()
        self.steps = None

    def connection_made(self, transport):
        self.transport = transport
        transport.get_extra_info("socket").setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def data_received(self, data):
        if self.number:
            self.read_frames(data)
            return
        self.request += data
        head, end, rest = self.request.partition(b"\r\n\r\n")
        if end:
            self.answer(head)
            if self.number and rest:
                self.read_frames(rest)

    def answer(self, head):
        mode = self.owner.mode
        self.owner.tell("attempt", mode)
        if mode == "silent":
            self.owner.silent.append(self.transport)
        elif mode in answers:
            self.transport.write(answers[mode])
            self.transport.close()
        else:
            self.upgrade(head)
            if mode == "reset":
                reset(self.transport)

    def upgrade(self, head):
        key = head.split(b"Sec-WebSocket-Key: ")[1].split(b"\r\n")[0]
        self.owner.made += 1
        self.number = self.owner.made
        self.owner.upgraded[self.number] = self
        self.steps = self.frames()
        next(self.steps)
        self.owner.tell("upgraded", self.number, self.owner.mode)
        self.transport.write(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                             b"Connection: Upgrade\r\nSec-WebSocket-Accept: "
                             + accept_key(key.decode()).encode() + b"\r\n\r\n")

    def read_frames(self, data):
        self.reader.feed_data(data)
        next(self.steps)

    def frames(self):
        while True:
            try:
                got = yield from Frame.parse(self.reader.read_exact, mask=True)
            except ProtocolError as error:
                self.owner.tell("broken", self.number, str(error))
                self.transport.abort()
                while True:
                    yield
            self.take(got)

    def take(self, got):
        if got.opcode == opcode_text and got.fin:
            self.owner.tell("message", self.number, bytes(got.data))
        elif got.opcode == opcode_ping:
            self.pings += 1
            self.owner.tell("ping", self.number, bytes(got.data))
            if self.owner.answers_ping is None or self.owner.answers_ping(self.pings):
                self.transport.write(frame(opcode_pong, bytes(got.data)))
        elif got.opcode == opcode_close:
            if not self.close_sent:
                self.transport.write(frame(opcode_close, bytes(got.data[:2])))
            self.transport.close()
        elif got.opcode == opcode_pong:
            self.owner.tell("pong", self.number)
        else:
            self.owner.tell("broken", self.number, f"a frame with opcode {got.opcode}, final "
                                                   f"{got.fin}")

    def connection_lost(self, error):
        if self.number:
            self.owner.upgraded.pop(self.number, None)
            self.owner.tell("ended", self.number)
