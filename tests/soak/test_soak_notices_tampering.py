"""The soak with the real daemon fails when something between daemon and service tampers."""

import contextlib
import os
import pathlib
import socket
import threading

import pytest

from faults import faults
from harness.frames import frame, frame_parser, opcode_binary, opcode_text
from soak_run import soak_run

# Among the first messages of the warm-up; only frames that are whole messages, so that what is
# done to them is done to a message.
tampered_frame = 5
mask = b"mask"


class tampering_relay:
    """Passes bytes between the daemon and the service, and frames in one direction to `tamper`.

    `tamper` gets one frame and returns the frames that are passed on in its place.
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
            while line := stream.readline():
                sink.sendall(line)
                if line == b"\r\n":
                    break
            parser = frame_parser()
            whole = 0
            while data := stream.read1():
                for got in parser.feed(data):
                    is_whole = bool(got.payload) and got.final and \
                        got.opcode in (opcode_text, opcode_binary)
                    whole += is_whole
                    chosen = is_whole and whole == tampered_frame and direction == self.direction
                    for one in self.tamper(got) if chosen else [got]:
                        sink.sendall(frame(one.opcode, one.payload, one.final, one.reserved,
                                           mask if one.masked else None))


def lose(got):
    return []


def repeat(got):
    return [got, got]


def alter(got):
    return [got._replace(payload=got.payload[:-1] + bytes([got.payload[-1] ^ 1]))]


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
