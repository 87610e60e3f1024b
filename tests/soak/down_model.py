"""What must arrive on the bus of what the service sent."""

import collections

from message_model import message_model
from messages import number_in

# What the daemon adds to its receive buffer. `completes`: the buffer is then delivered.
unit_t = collections.namedtuple("unit_t", "number payload completes")

# Bytes of which the first `least` at least, and perhaps more, are in the receive buffer.
left_over_t = collections.namedtuple("left_over_t", "bytes least")

nothing_left = left_over_t(b"", 0)


class sent_connection:
    """What was sent on one connection and is not delivered yet."""

    def __init__(self, number):
        self.number = number
        self.units = collections.deque()
        self.dropped = False
        self.forgotten = False
        self.cut_exactly = False

    def left_over(self):
        """What may be in the receive buffer when this connection is gone.

        Anything from nothing to the next message but its last byte, with which it would have been
        delivered; or, when the cut was watched, exactly what was sent after the last delivery.
        """
        if self.forgotten:
            return nothing_left
        held = b""
        for unit in self.units:
            if unit.completes:
                return left_over_t(held + unit.payload[:-1], 0)
            held += unit.payload
        return left_over_t(held, len(held) if self.cut_exactly else 0)


class down_model(message_model):
    """Judges every message that the daemon puts onto the bus.

    The daemon reads a connection from the beginning without a gap, so what it delivers from one is
    what was sent first on it. When the connection goes down, the rest may be lost, and the bytes
    of a message that was cut short stay in the receive buffer and stand before the next message.
    A streamed message whose last frame is empty stays in the buffer in the same way. While the
    daemon leaves and joins the bus, and while nobody listens, what it sends may go unheard.
    """

    direction, place = "down", "the bus"

    def __init__(self, report):
        super().__init__(report)
        self.connections = []
        self.unheard = set()
        self.unheard_now = False

    def established(self, connection):
        self.connections.append(sent_connection(connection))

    def of(self, connection):
        return next(c for c in self.connections if c.number == connection)

    def sending(self, connection, number, payload, completes=True):
        """To be called before the first byte goes out, in the order of sending.

        An empty message, and one that is cut short or ends with an empty frame, does not complete.
        """
        here = self.of(connection)
        here.units.append(unit_t(number, payload, completes))
        if completes:
            self.sent += 1
            if self.unheard_now:
                self.unheard.add(number)
            if self.unheard_now or here.dropped:
                self.exposed.add(number)

    def dropped(self, connection, cut_exactly=False):
        """The connection is about to go down, or is down.

        With `cut_exactly` the daemon was seen to hold all that was sent after the last delivery.
        """
        here = self.of(connection)
        if not here.dropped:
            here.dropped = True
            here.cut_exactly = cut_exactly
            self.exposed.update(messages_in(here))

    def forget(self):
        """The daemon is about to end, and its receive buffer with it."""
        for connection in self.connections:
            connection.forgotten = True

    def go_unheard(self, now):
        """Until this is called with False, what the daemon delivers may find no listener."""
        self.unheard_now = now
        if now:
            for connection in self.connections:
                self.unheard.update(messages_in(connection))
            self.exposed |= self.unheard

    def came(self, payload):
        """A listener on the bus heard a message of the daemon."""
        left_overs = []
        for connection in self.connections:
            position = self.position_of(payload, connection, left_overs)
            if position is not None:
                self.deliver(connection, position, payload)
                return
            if not connection.dropped:
                break
            left_overs = [*left_overs, connection.left_over()]
        self.judge_stranger(payload)

    def position_of(self, payload, connection, left_overs):
        """Where the message stands that the connection delivers as this payload."""
        held = b""
        for position, unit in enumerate(connection.units):
            held += unit.payload
            if not unit.completes:
                continue
            if payload.endswith(held) and \
                    is_made_of(payload[:len(payload) - len(held)], left_overs):
                return position
            if unit.number not in self.unheard:
                return None
            held, left_overs = b"", []
        return None

    def deliver(self, connection, position, payload):
        while self.connections[0] is not connection:
            self.give_up(self.connections.pop(0).units)
        self.give_up([connection.units.popleft() for _ in range(position)])
        self.arrive(connection.units.popleft().number, payload)

    def give_up(self, units):
        numbers = [unit.number for unit in units if unit.completes]
        self.given_up.update(numbers)
        self.lost += len(numbers)

    def judge_stranger(self, payload):
        later = next(((c, i) for c in self.connections for i, unit in enumerate(c.units)
                      if unit.completes and unit.payload == payload), None)
        if not later:
            self.report_stranger(payload)
            return
        connection, position = later
        numbers = [u.number for u in list(connection.units)[:position] if u.completes]
        self.report_loss(numbers, number_in(payload, self.direction))
        self.deliver(connection, position, payload)

    def bytes_waiting(self):
        return sum(len(u.payload) for c in self.connections if not c.dropped for u in c.units)


def messages_in(connection):
    return [unit.number for unit in connection.units if unit.completes]


def is_made_of(head, left_overs):
    """Whether `head` is a piece from the beginning of each left-over, one after the other."""
    if not left_overs:
        return not head
    kept, *others = left_overs
    longest = min(len(head), len(kept.bytes))
    while longest and head[:longest] != kept.bytes[:longest]:
        longest -= 1
    return any(is_made_of(head[size:], others) for size in range(longest, kept.least - 1, -1))
