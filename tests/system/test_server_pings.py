"""Pings of the server."""

# Test: 2 s


# Two pings of the server get their pongs on the one connection.
def test_pings_of_the_server_are_answered(make_rig):
    daemon, bus, server = make_rig()
    server.ping()
    server.ping()
    assert len(server.handshakes) == 1
