"""What must arrive at the service of what was sent on the bus."""

import dataclasses
import itertools

from message_model import message_model
from messages import number_in


@dataclasses.dataclass
class sent_up_t:
    number: int
    payload: bytes
    exposed: bool
    uncertain: bool


class up_model(message_model):
    """Judges every message that the service gets.

    The daemon takes the messages from the bus in the order of sending, holds them in one queue and
    sends the front one each time. So on one connection they come one after the other without a
    gap. What was not seen yet when a connection went down is exposed: the connection may have had
    it already, or the daemon may take it from its queue while it waits. Exposed messages may be
    missing between the last message of one connection and the first of a later one, nowhere else.
    A message that the bus itself may not have handed over is uncertain: it may be missing
    anywhere. Everything else must arrive: once, unaltered and in order.
    """

    direction, place = "up", "the service"

    def __init__(self, report):
        super().__init__(report)
        self.waiting = {}
        self.connected = False
        self.last_connection = 0

    def begun(self, number, payload, uncertain=False):
        """The sending begins; to be called in the order of sending, and before it."""
        message = sent_up_t(number, payload, uncertain or not self.connected, uncertain)
        self.waiting[number] = message
        self.sent += 1
        if message.exposed:
            self.exposed.add(number)

    def taken(self, number):
        """The module has confirmed that it took an uncertain message."""
        if number in self.waiting:
            self.waiting[number].uncertain = False

    def established(self):
        """A connection is there, and the daemon has ended its wait before it."""
        self.connected = True

    def dropped(self):
        """The connection is about to go down, or is down."""
        self.connected = False
        for message in self.waiting.values():
            self.exposed.add(message.number)
            message.exposed = True

    def came(self, connection, payload):
        """The service got a message on a connection."""
        message = self.find(payload)
        if message is None:
            self.report_stranger(payload)
            return
        first = connection != self.last_connection
        self.last_connection = connection
        self.skip_to(message, first)
        del self.waiting[message.number]
        self.arrive(message.number, payload)

    def find(self, payload):
        if payload:
            message = self.waiting.get(number_in(payload, self.direction))
            return message if message and message.payload == payload else None
        return next((m for m in self.waiting.values() if not m.payload), None)

    def skip_to(self, message, first):
        skipped = list(itertools.takewhile(lambda m: m is not message, self.waiting.values()))
        for earlier in skipped:
            del self.waiting[earlier.number]
            self.given_up.add(earlier.number)
        missing = [m.number for m in skipped if not (m.uncertain or (first and m.exposed))]
        self.lost += len(skipped) - len(missing)
        if missing:
            self.report_loss(missing, message.number)
