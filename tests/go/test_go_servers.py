"""Go's two WebSocket libraries as the service: their JSON messages end with an empty fragment.

`make test-go` builds the services into the folder that VEMK_GO_DIR names.
"""

import json
import os
import pathlib

import pytest

from harness.asked_services import padded
from harness.proxies import listening_program

folder = pathlib.Path(os.environ["VEMK_GO_DIR"]).absolute()


class go_service(listening_program):
    def command(self, config_file):
        return [str(folder / self.program), f"127.0.0.1:{self.port}"]


class gorilla(go_service):
    program = "gorilla"
    # The sizes of JSON that come as one frame, and the smallest that does not.
    in_one_frame = (1, 8000)
    in_fragments = 9000


class nhooyr(go_service):
    program = "nhooyr"
    in_one_frame = ()
    in_fragments = 1


def as_json(size):
    """What Go's encoder makes of a text of that size."""
    return json.dumps(padded(size)).encode() + b"\n"


both = pytest.mark.parametrize("library", [gorilla, nhooyr], ids=lambda kind: kind.program)


# gorilla's WriteJSON of 9,000 bytes and nhooyr's wsjson.Write of any size join the next messages.
@both
def test_json_is_joined_to_the_next_message(make_asked_rig, library):
    daemon, bus, service = make_asked_rig(library)
    for size in (*library.in_one_frame, library.in_fragments, 40000):
        bus.send(b"json %d" % size)
    bus.send(b"text 100")
    joined = as_json(library.in_fragments) + as_json(40000) + padded(100).encode()
    expected = [*map(as_json, library.in_one_frame), joined]
    assert bus.wait_for_payloads(len(expected)) == expected


# With whole_messages=1 JSON and texts of 1 to 40,000 bytes arrive before the next is asked for.
@both
def test_every_message_arrives_whole(make_asked_rig, library):
    daemon, bus, service = make_asked_rig(library, more="whole_messages=1\n")
    expected = []
    for size in (1, 100, 4096, 8000, 9000, 40000, 1):
        for form, message in ((b"json", as_json(size)), (b"text", padded(size).encode())):
            bus.send(b"%s %d" % (form, size))
            expected.append(message)
            assert bus.wait_for_payloads(len(expected)) == expected
