"""websocketd as the service: its messages of 8,193 bytes and more end with an empty fragment."""

# Test: 6 s

from harness.asked_services import padded, websocketd


# A line of 8,193 bytes comes out in front of the next, 8,192 and fewer bytes at once.
def test_long_line_is_joined_to_the_next(make_asked_rig):
    daemon, bus, service = make_asked_rig(websocketd)
    for size in (100, 8192, 8193, 40000, 100):
        bus.send(b"%d" % size)
    expected = [padded(100), padded(8192), padded(8193) + padded(40000) + padded(100)]
    assert bus.wait_for_payloads(3) == [text.encode() for text in expected]


# With whole_messages=1 lines of 100 to 40,000 bytes each arrive before the next is asked for.
def test_every_line_is_a_whole_message(make_asked_rig):
    daemon, bus, service = make_asked_rig(websocketd, more="whole_messages=1\n")
    sizes = (100, 8192, 8193, 9000, 40000, 1)
    for size in sizes:
        bus.send(b"%d" % size)
        bus.wait_for_payloads(sizes.index(size) + 1)
    assert bus.payloads() == [padded(size).encode() for size in sizes]
