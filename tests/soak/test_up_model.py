"""What the model of the way to the service lets pass, and what it reports."""

import pytest

from up_model import up_model


class judged_up:
    """Messages 1 to 6 to the service, of which 1 to 3 are under way on connection 1."""

    def __init__(self):
        self.reports = []
        self.model = up_model(self.reports.append)
        self.model.established()
        self.send(1, 2, 3)

    def send(self, *numbers, uncertain=False):
        for number in numbers:
            self.model.begun(number, text(number), uncertain)

    def come(self, *numbers, connection=1):
        for number in numbers:
            self.model.came(connection, text(number))

    def drop_and_connect(self):
        self.model.dropped()
        self.model.established()


def text(number):
    return b"soak up %d and what it says" % number


# Messages 1, 2 and 3 that come to the service in this order are three arrivals and no report.
def test_messages_in_order_to_the_service_are_right():
    judged = judged_up()
    judged.come(1, 2, 3)
    assert (judged.reports, judged.model.arrived, judged.model.lost) == ([], 3, 0)


# Message 3 that comes to the service after 1, on one connection, is the loss of 2.
def test_lost_message_to_the_service_is_reported():
    judged = judged_up()
    judged.come(1, 3)
    assert judged.reports == \
        ["lost: message 2 to the service never came, and message 3 after it did"]


# Message 2 that comes to the service after 3 is reported as lost first, then as out of order.
def test_reordered_message_to_the_service_is_reported():
    judged = judged_up()
    judged.come(1, 3, 2)
    assert judged.reports[1:] == ["reordered: message 2 came to the service after later ones"]


# Message 2 that comes to the service twice is reported, on the same connection and on the next.
@pytest.mark.parametrize("connection", [1, 2])
def test_repeated_message_to_the_service_is_reported(connection):
    judged = judged_up()
    judged.come(1, 2)
    if connection == 2:
        judged.drop_and_connect()
    judged.come(2, connection=connection)
    assert judged.reports == ["duplicated: message 2 came to the service again"]


# One changed bit, a missing last byte and a byte too many are each reported as alterations.
@pytest.mark.parametrize("change", [
    lambda payload: payload[:-1] + bytes([payload[-1] ^ 1]), lambda payload: payload[:-1],
    lambda payload: payload + b"\0"], ids=["bit", "shorter", "longer"])
def test_altered_message_to_the_service_is_reported(change):
    judged = judged_up()
    judged.model.came(1, change(text(1)))
    assert judged.reports[0].startswith("altered: message 1 came to the service as ")


# What nobody sent, an internal message that was let through for one, is reported.
def test_strange_message_to_the_service_is_reported():
    judged = judged_up()
    judged.model.came(1, b'{"service":"internal-ipc"}')
    assert judged.reports == ["unexpected: the service got b'{\"service\":\"internal-ipc\"}'"]


# Messages 2 and 3, unseen when the connection went down, may be missing before 4 on the next.
def test_messages_under_way_at_a_drop_may_be_lost():
    judged = judged_up()
    judged.come(1)
    judged.drop_and_connect()
    judged.send(4)
    judged.come(4, connection=2)
    assert (judged.reports, judged.model.arrived, judged.model.lost) == ([], 2, 2)


# Message 4, sent while there was no connection, may be taken from the queue before the next.
def test_message_sent_while_disconnected_may_be_lost():
    judged = judged_up()
    judged.come(1, 2, 3)
    judged.model.dropped()
    judged.send(4)
    judged.model.established()
    judged.send(5)
    judged.come(5, connection=2)
    assert (judged.reports, judged.model.lost) == ([], 1)


# Messages 2 and 3, still in the daemon's queue when the connection went down, may come on the next.
def test_messages_under_way_at_a_drop_may_come_afterwards():
    judged = judged_up()
    judged.come(1)
    judged.drop_and_connect()
    judged.come(2, 3, connection=2)
    assert (judged.reports, judged.model.lost) == ([], 0)


# Message 4, sent after connection 2 was there, must come on it: 5 before it is a report.
def test_message_sent_while_connected_must_come():
    judged = judged_up()
    judged.come(1, 2, 3)
    judged.drop_and_connect()
    judged.send(4, 5)
    judged.come(5, connection=2)
    assert judged.reports == \
        ["lost: message 4 to the service never came, and message 5 after it did"]


# After 2 came on connection 2, message 3 of before the drop may not be missing before 4 either.
def test_what_is_lost_at_a_drop_is_the_beginning_of_the_queue():
    judged = judged_up()
    judged.come(1)
    judged.drop_and_connect()
    judged.send(4)
    judged.come(2, 4, connection=2)
    assert judged.reports == \
        ["lost: message 3 to the service never came, and message 4 after it did"]


# A message that the bus did not confirm may be missing between two of one connection.
def test_message_that_the_module_did_not_take_may_be_missing():
    judged = judged_up()
    judged.send(4, uncertain=True)
    judged.send(5)
    judged.come(1, 2, 3, 5)
    assert (judged.reports, judged.model.lost) == ([], 1)


# Once the module has confirmed it, the message must come like any other.
def test_message_that_the_module_took_later_must_come():
    judged = judged_up()
    judged.send(4, uncertain=True)
    judged.model.taken(4)
    judged.send(5)
    judged.come(1, 2, 3, 5)
    assert judged.reports == \
        ["lost: message 4 to the service never came, and message 5 after it did"]
