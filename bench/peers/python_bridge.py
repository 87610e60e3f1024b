#!/usr/bin/python3
"""A bridge of Debian's Python packages: one thread, pyzmq and websockets without its I/O.

Usage: python_bridge.py PORT
"""

import os
import pathlib
import select
import socket
import struct
import sys
import time

import zmq
from websockets.client import ClientConnection
from websockets.connection import State
from websockets.frames import OP_CONT, OP_TEXT
from websockets.uri import parse_uri

module_id = 2
piece_bytes = 1024
block_bytes = 256 * 1024
ping_seconds = 30
# Messages taken from the bus at once, and the bytes that may wait for the socket.
batch = 64
most_waiting = 1024 * 1024


class bus_module:
    """The sockets of a module, and the protocol that its peers speak."""

    def __init__(self, folder):
        context = zmq.Context()
        self.inbox = context.socket(zmq.ROUTER)
        self.outlet = context.socket(zmq.XPUB)
        self.outlet.sndhwm = 200000
        self.outlet.setsockopt(zmq.XPUB_VERBOSE, 1)
        self.inbox.bind(f"ipc://{folder}/{module_id}.in")
        self.outlet.bind(f"ipc://{folder}/{module_id}.out")
        self.session = os.getpid()
        self.number = 0

    def greet_listeners(self):
        while self.outlet.poll(0):
            if self.outlet.recv()[:1] == b"\x01":
                self.send_frame(b"H", 0, 0, b"")

    def take(self):
        """The next message, or nothing."""
        try:
            sender, message = self.inbox.recv_multipart(zmq.NOBLOCK)
        except zmq.Again:
            return None
        self.inbox.send_multipart((sender, b"A"))
        return message[1:]

    def send_frame(self, kind, size, offset, piece):
        head = struct.pack("<cIQII", kind, self.session, self.number, size, offset)
        self.outlet.send(head + piece)

    def publish(self, message):
        size = len(message)
        for offset in range(0, size, piece_bytes):
            self.send_frame(b"P", size, offset, message[offset:offset + piece_bytes])
        self.number += 1


class bridge:
    def __init__(self, port):
        self.bus = bus_module(pathlib.Path(os.environ["MODULE_BUS_DIR"]))
        self.protocol = ClientConnection(parse_uri(f"ws://127.0.0.1:{port}/roam"),
                                         subprotocols=["websock-roaming"], max_size=None)
        self.socket = socket.create_connection(("127.0.0.1", port))
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.protocol.send_request(self.protocol.connect())
        self.waiting = b""
        self.pieces = []
        self.next_ping = time.monotonic() + ping_seconds
        self.flush()
        while self.protocol.state is State.CONNECTING:
            self.pass_down()
        self.socket.setblocking(False)

    def flush(self):
        self.waiting += b"".join(self.protocol.data_to_send())
        while self.waiting:
            try:
                self.waiting = self.waiting[self.socket.send(self.waiting):]
            except BlockingIOError:
                return

    def pass_down(self):
        """False at the end of the connection."""
        try:
            received = self.socket.recv(block_bytes)
        except BlockingIOError:
            return True
        if not received:
            return False
        self.protocol.receive_data(received)
        for event in self.protocol.events_received():
            if getattr(event, "opcode", None) in (OP_TEXT, OP_CONT):
                self.pieces.append(event.data)
                if event.fin:
                    self.bus.publish(b"".join(self.pieces))
                    self.pieces = []
        return True

    def pass_up(self):
        """False when the bus has no more messages."""
        for _ in range(batch):
            message = self.bus.take()
            if message is None:
                return False
            self.protocol.send_text(message)
        return True

    def run(self):
        poller = select.poll()
        for descriptor in (self.bus.inbox.fileno(), self.bus.outlet.fileno()):
            poller.register(descriptor, select.POLLIN)
        is_open = True
        while is_open:
            self.bus.greet_listeners()
            more = len(self.waiting) < most_waiting and self.pass_up()
            self.flush()
            events = select.POLLIN | (select.POLLOUT if self.waiting else 0)
            poller.register(self.socket, events)
            left = self.next_ping - time.monotonic()
            ready = dict(poller.poll(0 if more else max(0, left * 1000)))
            if self.socket.fileno() in ready:
                is_open = self.pass_down()
            if left <= 0:
                self.protocol.send_ping(b"")
                self.next_ping += ping_seconds


if __name__ == "__main__":
    bridge(int(sys.argv[1])).run()
