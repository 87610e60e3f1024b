"""Messages that the server sends in several frames."""


# "one, ", "two, " and "three" are one message on the bus, and the next stands alone.
def test_three_fragments_arrive_as_one_message(make_bridge):
    daemon, bus, server = make_bridge(log_level=15)
    server.send_fragments([b"one, ", b"two, ", b"three"])
    server.send("after")
    assert bus.wait_for_payloads(2) == [b"one, two, three", b"after"]


# Fragments of 5000, 4096 and 9000 bytes are one message of 18,096.
def test_fragments_larger_than_a_piece_are_joined(make_bridge):
    daemon, bus, server = make_bridge()
    pieces = [b"a" * 5000, b"b" * 4096, b"c" * 9000]
    server.send_fragments(pieces)
    assert bus.wait_for_payloads(1) == [b"".join(pieces)]


# After an empty last fragment nothing comes until the next message, which it leads.
def test_message_with_an_empty_last_fragment_is_joined_to_the_next(make_bridge):
    daemon, bus, server = make_bridge(log_level=15)
    server.send_streamed(["held ", "back, "])
    # The pong shows that the daemon is past the empty frame.
    server.ping()
    assert bus.payloads() == []
    server.send("then joined")
    server.send("after")
    assert bus.wait_for_payloads(2) == [b"held back, then joined", b"after"]
    assert len(server.handshakes) == 1


# Of "before", "" and "after" the first and the last reach the bus; the connection stays.
def test_empty_message_is_not_delivered(make_bridge):
    daemon, bus, server = make_bridge()
    server.send_many(["before", "", "after"])
    assert bus.wait_for_payloads(2) == [b"before", b"after"]
    assert len(server.handshakes) == 1


# Fault, while connected: a RST of an independent server library between two fragments of a message.
# Seen: healed; both fragments received come out in front of the next connection's first message.
def test_cut_off_message_is_joined_to_the_next_of_the_next_connection(make_bridge):
    daemon, bus, server = make_bridge()
    server.send_unfinished([b"cut ", b"off, "])
    server.ping()
    server.reset()
    server.wait_for_connections(2)
    bus.wait_for_last_status("connected", after=2)
    server.send("then continued")
    assert bus.wait_for_payloads(1) == [b"cut off, then continued"]
