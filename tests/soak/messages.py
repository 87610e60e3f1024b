"""The soak's messages: numbered, so that a repeated, an altered or a strange one is recognised."""

import json
import random
import re

marker = re.compile(rb"soak (up|down) (\d+) ")

# What a log that takes a message for a format would stumble over, and bytes of every length.
odd_text = "%s %n 100%% äß€𝄞 \\ \" {} \t"

# Around the places where the length field of a frame changes its form, and a piece its number.
odd_sizes = (125, 126, 127, 4095, 4096, 4097, 8192)


class message_maker:
    """Makes the messages of one direction from a seed; the number is the order of making."""

    def __init__(self, direction, seed):
        self.direction = direction
        self.random = random.Random(f"{direction} {seed}")
        self.number = 0

    def make(self, size=None, one_line=True):
        """A number and a message, of some size or of `size` bytes; perhaps without line feeds."""
        self.number += 1
        if size == 0:
            return self.number, b""
        start = b"soak %s %d " % (self.direction.encode(), self.number)
        size = max(len(start), size or self.some_size())
        kind = self.random.choice(("text", "json") if one_line else ("text", "json", "binary"))
        if kind == "json" and size >= 100:
            return self.number, self.json_text(start, size)
        if kind == "binary":
            return self.number, start + self.random.randbytes(size - len(start))
        return self.number, start + self.some_text(size - len(start))

    def some_size(self):
        if self.random.random() < 0.1:
            return self.random.choice(odd_sizes)
        return self.random.randint(10, 400)

    def some_text(self, size):
        """Exactly `size` bytes of UTF-8."""
        letters = self.random.choices("abcdefghijklmnopqrstuvwxyz ", k=min(size, 64))
        text = (odd_text + "".join(letters)).encode()
        text = (text * (size // len(text) + 1))[:size]
        whole = text.decode(errors="ignore").encode()
        return whole + b"." * (size - len(whole))

    def json_text(self, start, size):
        frame = json.dumps({"version": "2.0", "service": "roaming", "id": start.decode(),
                            "data": ""}).encode()
        data = b"d" * max(0, size - len(frame))
        return frame[:-2] + data + frame[-2:]


def number_in(payload, direction):
    """The number of the last message of this direction that stands in the payload, or None."""
    found = [int(number) for way, number in marker.findall(payload) if way == direction.encode()]
    return found[-1] if found else None


def internal_message(random_source):
    """A message of the daemon's own service that it keeps to itself and does not answer."""
    service = random_source.choice(("internal-ipc", "Internal-IPC"))
    return random_source.choice((
        b'{"service":"%s","cmd":"connected"}', b'{"service":"%s"}', b'{"cmd":"x","service":"%s"}',
        b'{"service":"%s","cmd":"statuses"}')) % service.encode()
