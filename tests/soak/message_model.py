"""What both models of what must arrive have in common."""

import zlib

from messages import number_in


class message_model:
    """Counts the messages of one direction, and names what is wrong; `report` gets each violation.

    `seen` has the checksums of those that arrived. Those in `exposed` need not have arrived.
    """

    direction = place = ""

    def __init__(self, report):
        self.report = report
        self.seen = {}
        self.given_up = set()
        self.exposed = set()
        self.sent = self.arrived = self.lost = 0

    def arrive(self, number, payload):
        self.seen[number] = zlib.crc32(payload)
        self.arrived += 1

    def report_loss(self, numbers, later):
        self.report(f"lost: messages {numbers} to {self.place} never came, and message {later} "
                    "after them did")

    def report_stranger(self, payload):
        number = number_in(payload, self.direction)
        if self.seen.get(number) == zlib.crc32(payload):
            self.report(f"duplicated: message {number} came to {self.place} again")
        elif number in self.given_up:
            self.report(f"reordered: message {number} came to {self.place} after later ones")
        elif number is not None:
            self.report(f"altered: message {number} came to {self.place} as {payload[:80]!r}")
        else:
            self.report(f"unexpected: {self.place} got {payload[:80]!r}")
