"""The soak's roaming service, which misbehaves on command."""

import asyncio
import functools
import socket
import struct
import threading

from harness.frames import (frame, frame_parser, opcode_close, opcode_ping, opcode_pong,
                            opcode_text)
from harness.raw_server import http_head, upgrade_lines
from harness.recording_server import abort, asyncio_server

# Small, so that a service that does not read closes its window soon.
receive_buffer_bytes = 65536

answers = {
    "unavailable": b"HTTP/1.1 503 Service Unavailable\r\nContent-Length: 4\r\n\r\nbusy",
    "garbage": bytes(range(256)) * 4,
    "refuse": b"HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
}


def always(number):
    return True


class service(asyncio_server):
    """Judges the form of the daemon's frames, and tells what happens from its own thread.

    `on_event` is called with a word and details: "attempt", mode; "upgraded", connection, mode;
    "message", connection, payload; "ping", connection, payload; "pong", connection; "ended",
    connection; and "broken" with what should not have been. Connections are numbered from 1 in the
    order of their upgrades. `answers_ping` tells of the n-th ping of a connection.
    """

    def __init__(self, on_event, answers_ping=always):
        super().__init__()
        self.on_event = on_event
        self.answers_ping = answers_ping
        self.mode = "upgrade"
        self.made = 0
        self.upgraded = {}
        self.silent = []
        self.listener = None
        self.loop.set_exception_handler(lambda _, context: on_event("broken", str(context)))

    async def open_listener(self):
        listener = socket.socket()
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer_bytes)
        listener.bind((self.host, self.port))
        self.port = listener.getsockname()[1]
        self.listener = await self.loop.create_server(lambda: peer(self), sock=listener)

    async def close_listener(self):
        """Connections stay."""
        self.listener.close()

    def behave(self, mode):
        """What new connections meet: "upgrade", "reset" after it, "silent" or one of `answers`.

        Connections that were left unanswered are closed.
        """
        self.loop.call_soon_threadsafe(self.change_mode, mode)

    def change_mode(self, mode):
        self.mode = mode
        for transport in self.silent:
            transport.abort()
        self.silent.clear()

    def suspend(self):
        """Neither reads nor sends nor accepts anything; returns what makes it go on."""
        resumed = threading.Event()
        self.loop.call_soon_threadsafe(resumed.wait)
        return resumed.set

    def tell(self, operation, connection, *arguments):
        """Does nothing when the connection is gone."""
        def call():
            if connection in self.upgraded:
                getattr(self.upgraded[connection], operation)(*arguments)
        self.loop.call_soon_threadsafe(call)

    # The operations of a connection, whose number comes first.
    write = functools.partialmethod(tell, "write")
    read = functools.partialmethod(tell, "read")
    drop = functools.partialmethod(tell, "drop")


class peer(asyncio.Protocol):
    """One connection; it has a number from its upgrade on."""

    def __init__(self, owner):
        self.owner = owner
        self.request = b""
        self.number = 0
        self.close_sent = False
        self.fin_sent = False
        self.pings = 0
        self.parser = frame_parser()

    def connection_made(self, transport):
        self.transport = transport
        transport.get_extra_info("socket").setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def data_received(self, data):
        if not self.number:
            self.request += data
            head, end, data = self.request.partition(b"\r\n\r\n")
            if end:
                self.answer(head + end)
        if self.number:
            for got in self.parser.feed(data):
                self.take(got)

    def answer(self, request):
        mode = self.owner.mode
        self.owner.on_event("attempt", mode)
        if mode == "silent":
            self.owner.silent.append(self.transport)
        elif mode in answers:
            self.transport.write(answers[mode])
            self.transport.close()
        else:
            self.owner.made += 1
            self.number = self.owner.made
            self.owner.upgraded[self.number] = self
            self.owner.on_event("upgraded", self.number, mode)
            self.transport.write(http_head(upgrade_lines(request)))
            if mode == "reset":
                self.drop("rst")

    def take(self, got):
        is_control = got.opcode in (opcode_close, opcode_ping, opcode_pong)
        if not got.masked or not got.final or got.reserved or (
                len(got.payload) > 125 if is_control else got.opcode != opcode_text):
            shown = got._replace(payload=got.payload[:80])
            self.owner.on_event("broken", f"connection {self.number} brought {shown}")
            self.transport.abort()
        elif got.opcode == opcode_text:
            self.owner.on_event("message", self.number, got.payload)
        elif got.opcode == opcode_pong:
            self.owner.on_event("pong", self.number)
        elif got.opcode == opcode_ping:
            self.pings += 1
            self.owner.on_event("ping", self.number, got.payload)
            if self.owner.answers_ping(self.pings):
                self.send(frame(opcode_pong, got.payload))
        else:
            if not self.close_sent:
                self.send(frame(opcode_close, got.payload[:2]))
            self.transport.close()

    def connection_lost(self, error):
        if self.number:
            self.owner.upgraded.pop(self.number, None)
            self.owner.on_event("ended", self.number)

    def send(self, data):
        if not self.fin_sent:
            self.transport.write(data)

    def write(self, pieces, bytewise=False):
        for piece in pieces:
            # Without a delay in the socket each write is a segment of its own.
            for part in (piece[i:i + 1] for i in range(len(piece))) if bytewise else [piece]:
                self.send(part)

    def read(self, wanted):
        (self.transport.resume_reading if wanted else self.transport.pause_reading)()

    def drop(self, how, code=None):
        """`how`: "close" with an optional code, "fin" or "rst"."""
        if how == "close":
            self.close_sent = True
            self.send(frame(opcode_close, b"" if code is None else struct.pack("!H", code)))
        elif how == "fin":
            self.fin_sent = True
            self.transport.write_eof()
        else:
            abort(self.transport)
