"""What the models of both ways let pass, and what they report."""

import pytest

from down_model import down_model
from up_model import up_model


class judged_model:
    """Messages 1 to 3 are under way on connection 1, the newest one."""

    def __init__(self, model_type):
        self.reports = []
        self.model = model_type(self.reports.append)
        self.connection = 0
        self.connect()
        self.send(1, 2, 3)

    def reconnect(self, *numbers, **more):
        """The connection goes down, and these messages are sent on the next."""
        self.drop(**more)
        self.connect()
        self.send(*numbers)

    def text(self, number):
        return b"soak %s %d and what it says" % (self.model.direction.encode(), number)

    def payloads(self, messages):
        return [m if isinstance(m, bytes) else self.text(m) for m in messages]


class judged_up(judged_model):
    def __init__(self):
        super().__init__(up_model)

    def connect(self):
        self.connection += 1
        self.model.established()

    def drop(self):
        self.model.dropped()

    def send(self, *numbers, uncertain=False):
        for number in numbers:
            self.model.begun(number, self.text(number), uncertain)

    def come(self, *messages):
        for payload in self.payloads(messages):
            self.model.came(self.connection, payload)


class judged_down(judged_model):
    def __init__(self):
        super().__init__(down_model)

    def connect(self):
        self.connection += 1
        self.model.established(self.connection)

    def drop(self, cut_exactly=False):
        self.model.dropped(self.connection, cut_exactly)

    def send(self, *numbers, completes=True):
        for number in numbers:
            self.model.sending(self.connection, number, self.text(number), completes)

    def come(self, *messages):
        for payload in self.payloads(messages):
            self.model.came(payload)


@pytest.fixture
def up():
    return judged_up()


@pytest.fixture
def down():
    return judged_down()


@pytest.fixture(params=[judged_up, judged_down], ids=["up", "down"])
def judged(request):
    return request.param()


def loss(judged, missing, later):
    return [f"lost: messages {missing} to {judged.model.place} never came, and message {later} "
            "after them did"]


# Messages 1, 2 and 3 that come in this order are three arrivals and no report.
def test_messages_in_order_are_right(judged):
    judged.come(1, 2, 3)
    assert (judged.reports, judged.model.arrived, judged.model.lost) == ([], 3, 0)


# Message 3 that comes after 1, on one connection, is the loss of 2.
def test_lost_message_is_reported(judged):
    judged.come(1, 3)
    assert judged.reports == loss(judged, [2], 3)


# Message 2 that comes after 3 is reported as lost first, then as out of order.
def test_reordered_message_is_reported(judged):
    judged.come(1, 3, 2)
    assert judged.reports[1:] == [
        f"reordered: message 2 came to {judged.model.place} after later ones"]


# Message 2 that comes twice is reported, on the same connection and on the next.
@pytest.mark.parametrize("connection", [1, 2])
def test_repeated_message_is_reported(judged, connection):
    judged.come(1, 2)
    if connection == 2:
        judged.reconnect()
    judged.come(2)
    assert judged.reports == [f"duplicated: message 2 came to {judged.model.place} again"]


# One changed bit, a missing last byte and a byte too many are each reported as alterations.
@pytest.mark.parametrize("change", [
    lambda payload: payload[:-1] + bytes([payload[-1] ^ 1]), lambda payload: payload[:-1],
    lambda payload: payload + b"\0"], ids=["bit", "shorter", "longer"])
def test_altered_message_is_reported(judged, change):
    judged.come(change(judged.text(1)))
    assert judged.reports[0].startswith(f"altered: message 1 came to {judged.model.place} as ")


# What nobody sent, an internal message that was let through for one, is reported.
def test_strange_message_is_reported(judged):
    judged.come(b'{"service":"internal-ipc"}')
    assert judged.reports == \
        [f"unexpected: {judged.model.place} got b'{{\"service\":\"internal-ipc\"}}'"]


# Messages 2 and 3, under way when the connection went down, may be missing before 4 on the next.
def test_messages_under_way_at_a_drop_may_be_lost(judged):
    judged.come(1)
    judged.reconnect(4)
    judged.come(4)
    assert (judged.reports, judged.model.arrived, judged.model.lost) == ([], 2, 2)


# Messages 2 and 3, under way when the connection went down, may come after that, and 4 then too.
def test_messages_under_way_at_a_drop_may_come_afterwards(judged):
    judged.come(1)
    judged.reconnect(4)
    judged.come(2, 3, 4)
    assert (judged.reports, judged.model.lost) == ([], 0)


# Message 4 to the service, sent without a connection, may be taken from the queue before the next.
def test_message_sent_while_disconnected_may_be_lost(up):
    up.come(1, 2, 3)
    up.drop()
    up.send(4)
    up.connect()
    up.send(5)
    up.come(5)
    assert (up.reports, up.model.lost) == ([], 1)


# Message 4 to the service, sent on connection 2, must come on it: 5 before it is a report.
def test_message_sent_while_connected_must_come(up):
    up.come(1, 2, 3)
    up.reconnect(4, 5)
    up.come(5)
    assert up.reports == loss(up, [4], 5)


# After 2 came on connection 2, message 3 of before the drop may not be missing before 4 either.
def test_what_is_lost_at_a_drop_is_the_beginning_of_the_queue(up):
    up.come(1)
    up.reconnect(4)
    up.come(2, 4)
    assert up.reports == loss(up, [3], 4)


# A message that the bus did not confirm may be missing; once it is confirmed, it must come.
@pytest.mark.parametrize("confirmed", [False, True])
def test_message_that_the_module_did_not_take_may_be_missing(up, confirmed):
    up.send(4, uncertain=True)
    if confirmed:
        up.model.taken(4)
    up.send(5)
    up.come(1, 2, 3, 5)
    assert (up.reports, up.model.lost) == ((loss(up, [4], 5), 0) if confirmed else ([], 1))


# Message 3 to the bus must not be delivered after 4 of the next connection has been.
def test_message_of_an_earlier_connection_may_not_come_later(down):
    down.come(1, 2)
    down.reconnect(4)
    down.come(4, 3)
    assert down.reports == ["reordered: message 3 came to the bus after later ones"]


# The first bytes of message 2, which the drop cut short, may stand before message 4.
@pytest.mark.parametrize("kept", [0, 1, 20])
def test_bytes_of_a_cut_message_may_stand_before_the_next(down, kept):
    down.come(1)
    down.reconnect(4)
    down.come(down.text(2)[:kept] + down.text(4))
    assert down.reports == []


# Neither all bytes of message 2, which is then a loss, nor some of 3 may stand before message 4.
@pytest.mark.parametrize("number, size", [(2, None), (3, 5)])
def test_other_bytes_before_the_next_message_are_reported(down, number, size):
    down.come(1)
    down.reconnect(4)
    down.come(down.text(number)[:size] + (b"!" if size else b"") + down.text(4))
    assert down.reports[0].startswith("altered: message 4 came to the bus as ")


# Of a cut that was watched all bytes must stand before the next message, of another any may.
@pytest.mark.parametrize("kept, watched, reports", [
    (None, True, 0), (-1, True, 1), (-10, True, 1), (0, False, 0), (1, False, 0), (10, False, 0)])
def test_bytes_of_a_cut_stand_before_the_next_message(down, kept, watched, reports):
    down.come(1, 2, 3)
    down.send(4, completes=False)
    down.reconnect(5, cut_exactly=watched)
    down.come(down.text(4)[:kept] + down.text(5))
    assert len(down.reports) == reports


# A message of connection 2 that comes while connection 1 is up and owes messages is reported.
def test_no_message_of_a_later_connection_comes_before_a_drop(down):
    down.connect()
    down.send(4)
    down.come(4)
    assert down.reports[0].startswith("lost: ")


# A streamed message whose last frame is empty stands before the next message, and never alone.
@pytest.mark.parametrize("joined, reports", [(True, 0), (False, 2)])
def test_streamed_message_must_stand_before_the_next(down, joined, reports):
    down.come(1, 2, 3)
    down.send(4, completes=False)
    down.send(5)
    down.come(*([down.text(4) + down.text(5)] if joined else [4, 5]))
    assert len(down.reports) == reports


# A streamed message and the beginning of a cut one stand before the next connection's first.
def test_bytes_of_two_messages_may_stand_before_the_next(down):
    down.come(1, 2, 3)
    down.send(4, completes=False)
    down.send(5)
    down.reconnect(6)
    down.come(down.text(4) + down.text(5)[:7] + down.text(6))
    assert down.reports == []


# A connection that delivers nothing adds its own bytes to those of the one before it.
def test_bytes_of_two_cut_connections_may_stand_before_the_next(down):
    down.come(1, 2)
    down.reconnect(4)
    down.reconnect(5)
    down.come(down.text(3)[:4] + down.text(4)[:9] + down.text(5))
    assert down.reports == []


# A new daemon holds nothing of a message that its predecessor had begun to read.
def test_no_bytes_of_a_cut_message_outlive_the_daemon(down):
    down.come(1)
    down.model.forget()
    down.reconnect(4)
    down.come(down.text(2)[:4] + down.text(4))
    assert down.reports[0].startswith("altered: message 4 came to the bus as ")


# What was sent while nobody may have listened may be missing; what was sent afterwards may not.
def test_messages_while_nobody_listens_may_be_missing(down):
    down.come(1)
    down.model.go_unheard(True)
    down.send(4)
    down.model.go_unheard(False)
    down.send(5, 6, 7)
    down.come(5)
    assert (down.reports, down.model.lost, down.model.exposed) == ([], 3, {2, 3, 4})
    down.come(7)
    assert down.reports == loss(down, [6], 7)
