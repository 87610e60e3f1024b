"""The daemon and services of several makes understand each other.

Messages of 8,193 bytes and more of websocketd end with an empty fragment.
"""

# Test: 24 s, everywhere

from harness.asked_services import padded, websocketd
from harness.independent_servers import with_each_server
from harness.round_trip import assert_all_kinds_pass, passes_both_ways


# Empty, UTF-8, NUL and 200 KiB messages arrive at three servers as text, unchanged and in order.
# From them text and binary messages, all 256 bytes too, arrive so, and an empty one not at all.
# Their libraries' pings get pongs while the connection is used.
@with_each_server
def test_messages_and_pings_pass_unchanged(make_rig):
    daemon, bus, server = make_rig()
    assert_all_kinds_pass(bus, server)
    for _ in range(3):
        server.ping()
        assert passes_both_ways(bus, server, "again")
    assert len(server.handshakes) == 1


# A message each way, and "disconnected" when the service ends.
def test_messages_pass_between_bus_and_reference_service(start_rig, service):
    daemon, bus, service = start_rig(service)
    assert passes_both_ways(bus, service, "connected")
    announced = len(bus.statuses())
    assert service.end() == 0
    bus.wait_for_statuses(announced + 1)
    assert bus.statuses()[announced] == "disconnected"
    assert daemon.runs()


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
