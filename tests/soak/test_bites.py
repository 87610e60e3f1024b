"""The soak with the real daemon fails when something between daemon and service tampers."""

import contextlib
import os
import pathlib
import socket
import struct
import threading

import pytest

from faults import faults
from soak_run import soak_run

# Among the first messages of the warm-up; only frames that are whole messages, so that what is
# done to them is done to a message.
tampered_frame = 5
final_text, final_binary = 0x81, 0x82


class tampering_relay:
    """Passes bytes between the daemon and the service, and frames in one direction to `tamper`.

    `tamper` gets one frame, whole, and returns what is passed on in its place.
    """

    def __init__(self, direction, tamper):
        self.direction = direction
        self.tamper = tamper
        self.listener = socket.create_server(("127.0.0.1", 0))

    def stand_before(self, port):
        self.service_port = port
        threading.Thread(target=self.accept, daemon=True).start()
        return self.listener.getsockname()[1]

    def accept(self):
        daemon, _ = self.listener.accept()
        service = socket.create_connection(("127.0.0.1", self.service_port))
        for direction, source, sink in (("up", daemon, service), ("down", service, daemon)):
            threading.Thread(target=self.relay, args=(direction, source, sink),
                             daemon=True).start()

    def relay(self, *way):
        with contextlib.suppress(OSError):
            self.pass_frames(*way)

    def pass_frames(self, direction, source, sink):
        with source.makefile("rb") as stream:
            line = stream.readline()
            while line.strip():
                sink.sendall(line)
                line = stream.readline()
            sink.sendall(line)
            whole = 0
            while frame := read_frame(stream):
                is_whole = frame[0] in (final_text, final_binary) and frame[1] & 0x7F
                whole += bool(is_whole)
                chosen = is_whole and whole == tampered_frame and direction == self.direction
                sink.sendall(self.tamper(frame) if chosen else frame)


def read_frame(stream):
    frame = stream.read(2)
    if len(frame) < 2:
        return b""
    length = frame[1] & 0x7F
    more = {126: 2, 127: 8}.get(length, 0)
    field = stream.read(more)
    if more:
        length = struct.unpack("!H" if more == 2 else "!Q", field)[0]
    return frame + field + stream.read(length + (4 if frame[1] & 0x80 else 0))


def lose(frame):
    return b""


def repeat(frame):
    return frame * 2


def alter(frame):
    return frame[:-1] + bytes([frame[-1] ^ 1])


# A frame that a relay loses, sends twice or changes a bit of ends the soak with just that verdict.
@pytest.mark.parametrize("direction", ["up", "down"])
@pytest.mark.parametrize("tamper, verdicts", [
    (lose, ("lost:",)), (repeat, ("duplicated:",)),
    # A tiny message is its number and nothing else.
    (alter, ("altered:", "unexpected:"))])
def test_tampering_with_one_frame_fails_the_soak(direction, tamper, verdicts):
    folder = pathlib.Path(os.environ.get("VEMK_BUILD_DIR", "build")).absolute()
    harmless = [fault for fault in faults if fault.name == "internal messages"]
    relay = tampering_relay(direction, tamper)
    run = soak_run(folder, folder, 1, 60, harmless, relay.stand_before)
    try:
        run.run()
    finally:
        run.close()
    assert run.rig.violations[0].startswith(verdicts)
