"""The connection ends in the middle of a message: what was received of it comes out later, once.

With whole_messages=1 it is forgotten.
"""

# Test: 24 s

from harness.frame_server import pattern
from harness.frames import close_frame, frame, opcode_continuation, text
from harness.healing import fault_watch

# What the library hands over of a frame that is not there as a whole.
piece_size = 4096


def ways_to_end(server):
    return (server.half_close, server.reset, lambda: server.send(close_frame(1001)))


# Fault, while connected: a FIN, a RST and a close frame between two fragments of a message.
# Seen: healed; the fragments received come out in front of the next connection's first message,
# which reaches the bus as one with them, and the message after that stands alone again.
def test_fragments_before_the_end_are_joined_to_the_next_message(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    server = rig.server
    for end in ways_to_end(server):
        watch = fault_watch(rig)
        server.send(text(b"first, ", final=False),
                    frame(opcode_continuation, b"second, ", final=False))
        end()
        watch.expect_healed(joined=b"first, second, ")


# Fault, while connected: a FIN and a RST after 9000 of a frame's 10,000 bytes.
# Seen: healed; the log tells of two pieces, with 5904 and 1808 bytes remaining, and their 8192
# bytes come out in front of the next connection's first message; the last 808 bytes, which the
# library had not handed over, are gone.
def test_whole_pieces_of_a_cut_frame_are_joined_to_the_next_message(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    server = rig.server
    payload = pattern(10000)
    for number, end in enumerate((server.half_close, server.reset), 1):
        watch = fault_watch(rig)
        server.send(text(payload)[:-1000])
        end()
        watch.expect_healed(joined=payload[:2 * piece_size])
        pieces = [line.text for line in rig.daemon.lines_with("Get incomplete packet")]
        assert pieces == ["websock-roaming->process_client_receive: Get incomplete packet, "
                          f"remaining len {left}" for left in (5904, 1808)] * number


# Fault, while connected: a FIN and a RST in the head of a frame, and after 60 of 100 bytes of its
# payload.
# Seen: healed; a frame of which less than 4096 bytes had come leaves nothing behind, and the next
# message stands alone.
def test_cut_frame_of_less_than_a_piece_leaves_nothing(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    server = rig.server
    one = text(pattern(104)[:100])
    for end in (server.half_close, server.reset):
        for sent in (one[:1], text(pattern(200))[:3], one[:-40]):
            watch = fault_watch(rig)
            server.send(sent)
            end()
            watch.expect_healed()


# Fault, while connected: a RST in the middle of a fragment that follows a whole one.
# Seen: healed; the whole fragment is joined to the next message, the cut one leaves nothing.
def test_cut_fragment_leaves_the_whole_ones_before_it(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    watch = fault_watch(rig)
    rig.server.send(text(b"whole, ", final=False),
                       frame(opcode_continuation, b"never seen", final=False)[:-4])
    rig.server.reset()
    watch.expect_healed(joined=b"whole, ")


# Fault, while connected: two connections in a row that end between two fragments, with a status
# request from the bus between them.
# Seen: what both had brought comes out in front of the third connection's first message, once, and
# the status messages are what they always are.
def test_fragments_of_two_connections_add_up(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    daemon, bus, server = rig
    watch = fault_watch(rig)
    server.send(text(b"from the first, ", final=False))
    server.reset()
    server.wait_for_connections(2)
    bus.wait_for_statuses(watch.announced + 3)
    assert bus.run("status", "--timeout", "20").stdout == b"connected\n"
    watch.announced += 4
    watch.connections += 1
    server.send(text(b"from the second, ", final=False))
    server.half_close()
    watch.expect_healed(joined=b"from the first, from the second, ")


# Fault, while connected: with whole_messages=1, a RST, a FIN and a new message where a fragmented
# one goes on.
# Seen: healed each time; the fragments received are forgotten, and the next connection's first
# message comes out alone.
def test_cut_off_message_is_forgotten_with_its_connection(make_frame_rig):
    rig = make_frame_rig(log_level=15, more="whole_messages=1\n")
    server = rig.server
    watch = fault_watch(rig)
    for cut_off in (server.reset, server.half_close, lambda: server.send(text(b"intruder"))):
        server.send(text(pattern(8192), final=False),
                    frame(opcode_continuation, b"cut", final=False))
        server.synchronise()
        cut_off()
        watch.expect_healed()
