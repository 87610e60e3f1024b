"""Messages that the server sends in several frames."""

# Test: 8 s

from harness.frame_server import frame, opcode_continuation, pattern, text
from harness.healing import fault_watch
from harness.raw_server import opcode_ping

whole_messages = "whole_messages=1\n"


# "one, ", "two, " and "three" are one message on the bus, and the next stands alone.
def test_three_fragments_arrive_as_one_message(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    server.send_fragments([b"one, ", b"two, ", b"three"])
    server.send("after")
    assert bus.wait_for_payloads(2) == [b"one, two, three", b"after"]


# Fragments of 5000, 4096 and 9000 bytes are one message of 18,096.
def test_fragments_larger_than_a_piece_are_joined(make_rig):
    daemon, bus, server = make_rig()
    pieces = [b"a" * 5000, b"b" * 4096, b"c" * 9000]
    server.send_fragments(pieces)
    assert bus.wait_for_payloads(1) == [b"".join(pieces)]


# After an empty last fragment nothing comes until the next message, which it leads.
def test_message_with_an_empty_last_fragment_is_joined_to_the_next(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    server.send_streamed(["held ", "back, "])
    # The pong shows that the daemon is past the empty frame.
    server.ping()
    assert bus.payloads() == []
    server.send("then joined")
    server.send("after")
    assert bus.wait_for_payloads(2) == [b"held back, then joined", b"after"]
    assert len(server.handshakes) == 1


# Of "before", "" and "after" the first and the last reach the bus; the connection stays.
def test_empty_message_is_not_delivered(make_rig):
    daemon, bus, server = make_rig()
    server.send_many(["before", "", "after"])
    assert bus.wait_for_payloads(2) == [b"before", b"after"]
    assert len(server.handshakes) == 1


# Fault, while connected: a RST of an independent server library between two fragments of a message.
# Seen: healed; both fragments received come out in front of the next connection's first message.
def test_cut_off_message_is_joined_to_the_next_of_the_next_connection(make_rig):
    daemon, bus, server = make_rig()
    server.send_unfinished([b"cut ", b"off, "])
    server.ping()
    server.reset()
    server.wait_for_connections(2)
    bus.wait_for_last_status("connected", after=2)
    server.send("then continued")
    assert bus.wait_for_payloads(1) == [b"cut off, then continued"]


# With whole_messages=1 each of 8 messages that an empty fragment ends arrives before the next.
# Go's and other libraries end every message so. 60 of such a service came out as none, and then as
# one that held them all.
def test_empty_last_fragment_ends_a_whole_message(make_frame_rig):
    daemon, bus, server = make_frame_rig(more=whole_messages)
    end = frame(opcode_continuation)
    for number in range(8):
        server.send(text(b"message %d" % number, final=False), end)
        assert bus.wait_for_payloads(number + 1)[number] == b"message %d" % number
    assert len(server.connections) == 1


# With whole_messages=1 long, chunked, interrupted and unfragmented messages arrive once each.
def test_whole_messages_arrive_however_they_are_sent(make_frame_rig):
    rig = make_frame_rig(log_level=15, more=whole_messages)
    watch = fault_watch(rig)
    long = pattern(40000)
    end = frame(opcode_continuation)
    rig.server.send(
        text(long, final=False), end,
        text(b"", final=False), frame(opcode_continuation, b"late", final=False), end,
        text(b"one, ", final=False), frame(opcode_ping, b"between"),
        frame(opcode_continuation, b"two", final=False), frame(opcode_ping, b"and"), end,
        text(b"x" * 4096, final=False), end,
        text(b"plain"), text(b"three, ", final=False), frame(opcode_continuation, b"four"))
    watch.expect_kept(heard=[long, b"late", b"one, two", b"x" * 4096, b"plain", b"three, four"])


# With whole_messages=1 an empty message, in one frame or three, is not delivered.
def test_empty_whole_message_is_not_delivered(make_frame_rig):
    daemon, bus, server = make_frame_rig(more=whole_messages)
    server.send(text(b""), text(b"", final=False), frame(opcode_continuation, final=False),
                frame(opcode_continuation), text(b"after"))
    assert bus.wait_for_payloads(1) == [b"after"]


# Fault, while connected: with whole_messages=1, a RST, a FIN and a new message where a fragmented
# one goes on.
# Seen: healed each time; the fragments received are forgotten, and the next connection's first
# message comes out alone.
def test_cut_off_message_is_forgotten_with_its_connection(make_frame_rig):
    rig = make_frame_rig(log_level=15, more=whole_messages)
    server = rig.server
    watch = fault_watch(rig)
    for cut_off in (server.reset, server.half_close, lambda: server.send(text(b"intruder"))):
        server.send(text(pattern(8192), final=False), frame(opcode_continuation, b"cut", final=False))
        server.synchronise()
        cut_off()
        watch.expect_healed()
