"""Fifty messages each way at the same time keep their order."""

# Test: 6 s


# Fifty up and fifty down at once arrive in order and once each.
def test_fifty_messages_each_way_stay_in_order(make_rig):
    daemon, bus, server = make_rig()
    up = [b"to the server %02d" % i for i in range(50)]
    down = [b"to the bus %02d" % i for i in range(50)]
    bus.send_lines(up)
    server.send_many([message.decode() for message in down])
    assert server.wait_for_payloads(50, seconds=60) == up
    assert bus.wait_for_payloads(50, seconds=60) == down
