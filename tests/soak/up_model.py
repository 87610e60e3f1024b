"""What must arrive at the service of what was sent on the bus."""

from messages import number_in


class sent_up_t:
    def __init__(self, number, payload, exposed, uncertain):
        self.number = number
        self.payload = payload
        self.exposed = exposed
        self.uncertain = uncertain


class up_model:
    """Judges every message that the service gets; `report` is called with each violation.

    The daemon takes the messages from the bus in the order of sending, holds them in one queue and
    sends the front one each time. So on one connection they come one after the other without a
    gap. What was not seen yet when a connection went down is exposed: the connection may have had
    it already, or the daemon may take it from its queue while it waits. Exposed messages may be
    missing between the last message of one connection and the first of a later one, nowhere else.
    A message that the bus itself may not have handed over is uncertain: it may be missing
    anywhere. Everything else must arrive: once, unaltered and in order.
    """

    def __init__(self, report):
        self.report = report
        self.waiting = {}
        self.connected = False
        self.last_connection = 0
        self.seen = set()
        self.given_up = set()
        self.exposed = set()
        self.sent = self.arrived = self.lost = 0

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
            self.expose(message)

    def expose(self, message):
        self.exposed.add(message.number)
        message.exposed = True

    def came(self, connection, payload):
        """The service got a message on a connection."""
        message = self.find(payload)
        if message is None:
            self.report(self.describe_stranger(payload))
            return
        first = connection != self.last_connection
        self.last_connection = connection
        self.skip_to(message, first)
        del self.waiting[message.number]
        self.seen.add(message.number)
        self.arrived += 1

    def find(self, payload):
        if payload:
            message = self.waiting.get(number_in(payload, "up"))
            return message if message and message.payload == payload else None
        return next((m for m in self.waiting.values() if not m.payload), None)

    def skip_to(self, message, first):
        skipped = []
        for earlier in self.waiting.values():
            if earlier is message:
                break
            skipped.append(earlier)
        for earlier in skipped:
            del self.waiting[earlier.number]
            self.given_up.add(earlier.number)
            if earlier.uncertain or (first and earlier.exposed):
                self.lost += 1
            else:
                self.report(f"lost: message {earlier.number} to the service never came, and "
                            f"message {message.number} after it did")

    def describe_stranger(self, payload):
        number = number_in(payload, "up")
        if number in self.waiting:
            return f"altered: message {number} came to the service as {payload[:80]!r}"
        if number in self.seen:
            return f"duplicated: message {number} came to the service again"
        if number in self.given_up:
            return f"reordered: message {number} came to the service after later ones"
        return f"unexpected: the service got {payload[:80]!r}"
