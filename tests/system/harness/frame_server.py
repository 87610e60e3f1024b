"""A roaming service that sends what its test tells it to, frame by frame or byte by byte."""

import socket
import threading

from harness.frames import frame, opcode_ping, opcode_pong
from harness.raw_server import finish, raw_server, reset, upgrade
from harness.waiting import wait_until


def pattern(size):
    """A payload of which no two parts are the same; `size` in whole eights."""
    return b"".join(b"%07x " % i for i in range(size // 8))


class frame_server(raw_server):
    """Accepts every WebSocket and records the frames it gets; answers none but pings, if told to.

    `answers_pings` holds for all of them, or is a function that tells it of the n-th. In
    `receive_buffer` bytes a connection's socket holds what is not read yet.
    """

    def __init__(self, answers_pings=False, receive_buffer=None):
        self.answers_ping = answers_pings if callable(answers_pings) else lambda _: answers_pings
        self.readers = {}
        self.stopped = {}
        self.synchronisations = 0
        super().__init__(frame_server.upgrade_and_read)
        if receive_buffer:
            self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)

    def upgrade_and_read(self, connection, request):
        self.readers[connection] = threading.current_thread()
        upgrade(self, connection, request)

    def after_frame(self, connection, frame_read):
        is_ping = frame_read.opcode == opcode_ping
        # The daemon has closed earlier connections. An answer would reset one and lose the frames
        # behind the ping.
        if is_ping and connection == self.connection \
                and self.answers_ping(len(self.frames_of(opcode_ping))):
            with self.sending:
                connection.sendall(frame(opcode_pong, frame_read.payload))
        if connection in self.stopped:
            self.stopped[connection].wait()

    def stop_reading(self):
        """One more frame is read, if the reading waits for one. Returns what makes it go on."""
        go_on = self.stopped[self.connection] = threading.Event()
        return go_on.set

    def send_bytewise(self, data):
        """Each byte in a TCP segment of its own."""
        for i in range(len(data)):
            self.connection.sendall(data[i:i + 1])

    def synchronise(self):
        """Returns when the daemon has read all that was sent: its pong has arrived."""
        self.synchronisations += 1
        mark = b"mark %d" % self.synchronisations
        self.send(frame(opcode_ping, mark))
        wait_until(lambda: any(pong.payload == mark for pong in self.frames_of(opcode_pong)),
                   f"the pong with '{mark.decode()}'")

    def half_close(self):
        """FIN; what the daemon sends is still read."""
        finish(self.connection)

    def reset(self):
        """RST, once the reading has ended: it would keep the socket open."""
        connection = self.connection
        connection.shutdown(socket.SHUT_RD)
        self.readers[connection].join(20)
        reset(connection)

    def shut_down(self):
        for go_on in self.stopped.values():
            go_on.set()
        super().shut_down()

    def wait_for_end(self, number):
        """Waits until the daemon has closed the connection with this number, counted from 1."""
        reader = self.readers[self.connections[number - 1]]
        wait_until(lambda: not reader.is_alive(), f"end of connection {number}")
