"""What the model of the way to the bus lets pass, and what it reports."""

import pytest

from down_model import down_model


class judged_down:
    """Messages 1 to 3 to the bus are under way on connection 1."""

    def __init__(self):
        self.reports = []
        self.model = down_model(self.reports.append)
        self.model.established(1)
        self.send(1, 1, 2, 3)

    def send(self, connection, *numbers, completes=True):
        for number in numbers:
            self.model.sending(connection, number, text(number), completes)

    def come(self, *payloads):
        for payload in payloads:
            self.model.came(payload if isinstance(payload, bytes) else text(payload))

    def drop_and_connect(self, cut_exactly=False):
        self.model.dropped(1, cut_exactly)
        self.model.established(2)


def text(number):
    return b"soak down %d and what it says" % number


# Messages 1, 2 and 3 that come to the bus in this order are three arrivals and no report.
def test_messages_in_order_to_the_bus_are_right():
    judged = judged_down()
    judged.come(1, 2, 3)
    assert (judged.reports, judged.model.arrived, judged.model.lost) == ([], 3, 0)


# Message 3 that comes to the bus after 1, on one connection, is the loss of 2.
def test_lost_message_to_the_bus_is_reported():
    judged = judged_down()
    judged.come(1, 3)
    assert judged.reports == ["lost: messages [2] to the bus never came, and message 3 after them "
                              "on connection 1 did"]


# Message 2 that comes to the bus after 3 is reported as lost first, then as out of order.
def test_reordered_message_to_the_bus_is_reported():
    judged = judged_down()
    judged.come(1, 3, 2)
    assert judged.reports[1:] == ["reordered: message 2 came to the bus after later ones"]


# Message 2 that comes to the bus twice is reported.
def test_repeated_message_to_the_bus_is_reported():
    judged = judged_down()
    judged.come(1, 2, 2)
    assert judged.reports == ["duplicated: message 2 came to the bus again"]


# One changed bit, a missing last byte and a byte too many are each reported as alterations.
@pytest.mark.parametrize("change", [
    lambda payload: payload[:-1] + bytes([payload[-1] ^ 1]), lambda payload: payload[:-1],
    lambda payload: payload + b"\0"], ids=["bit", "shorter", "longer"])
def test_altered_message_to_the_bus_is_reported(change):
    judged = judged_down()
    judged.come(change(text(1)))
    assert judged.reports[0].startswith("altered: message 1 came to the bus as ")


# Messages 2 and 3, undelivered when the connection went down, may be missing before 4.
def test_messages_to_the_bus_may_be_lost_at_a_drop():
    judged = judged_down()
    judged.come(1)
    judged.drop_and_connect()
    judged.send(2, 4)
    judged.come(4)
    assert (judged.reports, judged.model.lost) == ([], 2)


# Message 2, read before the connection went down, may be delivered after that, and 3 then too.
def test_messages_to_the_bus_may_be_delivered_after_a_drop():
    judged = judged_down()
    judged.come(1)
    judged.drop_and_connect()
    judged.send(2, 4)
    judged.come(2, 3, 4)
    assert (judged.reports, judged.model.lost) == ([], 0)


# Message 3 must not be delivered after 4 of the next connection has been.
def test_message_of_an_earlier_connection_may_not_come_later():
    judged = judged_down()
    judged.come(1, 2)
    judged.drop_and_connect()
    judged.send(2, 4)
    judged.come(4, 3)
    assert judged.reports == ["reordered: message 3 came to the bus after later ones"]


# The first bytes of message 2, which the drop cut short, may stand before message 4.
@pytest.mark.parametrize("kept", [0, 1, 20])
def test_bytes_of_a_cut_message_may_stand_before_the_next(kept):
    judged = judged_down()
    judged.come(1)
    judged.drop_and_connect()
    judged.send(2, 4)
    judged.come(text(2)[:kept] + text(4))
    assert judged.reports == []


# All bytes of message 2 before message 4 are no cut: message 2 was complete, and a loss.
def test_whole_message_before_the_next_is_reported():
    judged = judged_down()
    judged.come(1)
    judged.drop_and_connect()
    judged.send(2, 4)
    judged.come(text(2) + text(4))
    assert judged.reports[0].startswith("altered: message 4 came to the bus as ")


# Bytes of message 3, when message 2 before it was never delivered, are reported.
def test_bytes_of_a_later_cut_message_are_reported():
    judged = judged_down()
    judged.come(1)
    judged.drop_and_connect()
    judged.send(2, 4)
    judged.come(text(3)[:5] + b"!" + text(4))
    assert judged.reports[0].startswith("altered: message 4 came to the bus as ")


# What the daemon was seen to hold of a cut message must stand before the next one, to the byte.
@pytest.mark.parametrize("missing", [0, 1, 10])
def test_bytes_of_a_watched_cut_must_stand_before_the_next(missing):
    judged = judged_down()
    judged.come(1, 2, 3)
    judged.send(1, 4, completes=False)
    judged.drop_and_connect(cut_exactly=True)
    judged.send(2, 5)
    cut = text(4)
    judged.come(cut[:len(cut) - missing] + text(5))
    assert (judged.reports == []) == (missing == 0)


# Of a cut that nobody watched any number of bytes may stand before the next message, or none.
@pytest.mark.parametrize("kept", [0, 1, 10])
def test_bytes_of_an_unwatched_cut_may_stand_before_the_next(kept):
    judged = judged_down()
    judged.come(1, 2, 3)
    judged.send(1, 4, completes=False)
    judged.drop_and_connect()
    judged.send(2, 5)
    judged.come(text(4)[:kept] + text(5))
    assert judged.reports == []


# A message of connection 2 that comes while connection 1 is up and owes messages is reported.
def test_no_message_of_a_later_connection_comes_before_a_drop():
    judged = judged_down()
    judged.model.established(2)
    judged.send(2, 4)
    judged.come(4)
    assert judged.reports[0].startswith("lost: ")


# A streamed message whose last frame is empty stands before the next message, and never alone.
def test_streamed_message_must_stand_before_the_next():
    joined, alone = judged_down(), judged_down()
    for judged in (joined, alone):
        judged.come(1, 2, 3)
        judged.send(1, 4, completes=False)
        judged.send(1, 5)
    joined.come(text(4) + text(5))
    alone.come(4, 5)
    assert joined.reports == []
    assert len(alone.reports) == 2


# A streamed message and the beginning of a cut one stand before the next connection's first.
def test_bytes_of_two_messages_may_stand_before_the_next():
    judged = judged_down()
    judged.come(1, 2, 3)
    judged.send(1, 4, completes=False)
    judged.send(1, 5)
    judged.drop_and_connect()
    judged.send(2, 6)
    judged.come(text(4) + text(5)[:7] + text(6))
    assert judged.reports == []


# A connection that delivers nothing adds its own bytes to those of the one before it.
def test_bytes_of_two_cut_connections_may_stand_before_the_next():
    judged = judged_down()
    judged.come(1, 2)
    judged.drop_and_connect()
    judged.send(2, 4)
    judged.model.dropped(2)
    judged.model.established(3)
    judged.send(3, 5)
    judged.come(text(3)[:4] + text(4)[:9] + text(5))
    assert judged.reports == []


# A new daemon holds nothing of a message that its predecessor had begun to read.
def test_no_bytes_of_a_cut_message_outlive_the_daemon():
    judged = judged_down()
    judged.come(1)
    judged.model.forget()
    judged.drop_and_connect()
    judged.send(2, 4)
    judged.come(text(2)[:4] + text(4))
    assert judged.reports[0].startswith("altered: message 4 came to the bus as ")


# What was sent while nobody may have listened may be missing; what was sent afterwards may not.
def test_messages_while_nobody_listens_may_be_missing():
    judged = judged_down()
    judged.come(1)
    judged.model.go_unheard(True)
    judged.send(1, 4)
    judged.model.go_unheard(False)
    judged.send(1, 5, 6, 7)
    judged.come(5)
    assert (judged.reports, judged.model.lost, judged.model.exposed) == ([], 3, {2, 3, 4})
    judged.come(7)
    assert judged.reports == ["lost: messages [6] to the bus never came, and message 7 after them "
                              "on connection 1 did"]
