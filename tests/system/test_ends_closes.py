"""The server ends the connection with a close frame, a FIN or a RST."""

# Test: 28 s

import struct

from harness.bus_peer import disconnected
from harness.frames import close_frame, frame, opcode_close, text
from harness.healing import fault_watch
from harness.keepalive import ending_clock
from harness.library_texts import knows_close_code_1012
from harness.pacing import steps_only


def answers_to(server, connection_number):
    return [answer.payload for answer in server.frames_of(opcode_close)
            if answer.connection == connection_number]


def close_and_heal(rig, sent, answer):
    """Sends the close frame and leaves the TCP connection open, which the daemon then closes."""
    watch = fault_watch(rig)
    number = len(rig.server.connections)
    rig.server.send(sent)
    rig.server.wait_for_end(number)
    watch.expect_healed()
    assert answers_to(rig.server, number) == [answer]
    closed = rig.daemon.lines_with("process_closed:76")
    assert len(closed) == number


# Fault, while connected: a close frame with code 1000, 1001, 1008, 1009 or 1011, with and without a
# reason, after which the server leaves the TCP connection open.
# Seen: the daemon answers with the same code and reason, closes the TCP connection itself, logs
# "websock-roaming->process_closed:76", announces "disconnected" twice and then "connected", and
# messages pass both ways on the next connection.
def test_close_frames_are_answered_with_their_code_and_healed(make_frame_rig):
    rig = make_frame_rig(ending_clock(), log_level=15)
    for code in (1000, 1001, 1008, 1009, 1011):
        close_and_heal(rig, close_frame(code), struct.pack("!H", code))
    for reason in ("rebooting, café".encode(), b"r" * 123):
        close_and_heal(rig, close_frame(1001, reason), struct.pack("!H", 1001) + reason)


# Fault, while connected: a close frame without a code, with half of one, with code 1012, which the
# library does not know, or with code 999, 1005 or 1006, which may not be sent.
# Seen: the first two come back as they are, the others are answered with code 1002; then the
# connection is closed and made again as after any other close frame. Library 4.2 knows 1012.
def test_close_frames_without_a_known_code_are_healed(make_frame_rig):
    rig = make_frame_rig(ending_clock(), log_level=15)
    for payload in (b"", b"x"):
        close_and_heal(rig, frame(opcode_close, payload), payload)
    for code in (1012, 999, 1005, 1006):
        is_known = code == 1012 and knows_close_code_1012
        close_and_heal(rig, close_frame(code), struct.pack("!H", code if is_known else 1002))


# Fault, while connected: a close frame with text frames before and behind it in one TCP segment.
# Seen: the message before it reaches the bus, the one behind it never does.
def test_text_behind_a_close_frame_is_not_delivered(make_frame_rig):
    rig = make_frame_rig(ending_clock(), log_level=15)
    watch = fault_watch(rig)
    rig.server.send(text(b"before"), close_frame(1000), text(b"behind"))
    watch.expect_healed(heard=[b"before"])


# Fault, while connected: a FIN, and a RST, without a close frame before them.
# Seen: "websock-roaming->process_closed:76" once, "disconnected" twice and then "connected"; the
# daemon sends no close frame, and messages pass both ways on the next connection.
def test_fin_and_rst_without_a_close_frame_are_healed(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    for number, end in enumerate((rig.server.half_close, rig.server.reset), 1):
        watch = fault_watch(rig)
        end()
        rig.server.wait_for_end(number)
        watch.expect_healed()
        assert len(rig.daemon.lines_with("process_closed:76")) == number
    assert rig.server.frames_of(opcode_close) == []


# Fault, while connected: a FIN, and a RST, right behind 2000 messages, more than ten reads' worth.
# Seen: all 2000 reach the bus in order before the loss is announced.
def test_messages_right_before_the_end_all_arrive(make_frame_rig):
    rig = make_frame_rig()
    messages = [b"%04d" % number for number in range(2000)]
    for end in (rig.server.half_close, rig.server.reset):
        watch = fault_watch(rig)
        before = len(rig.bus.received)
        rig.server.send(*map(text, messages))
        end()
        watch.expect_healed(heard=messages)
        received = [one.payload for one in rig.bus.received[before:]]
        assert received[:2002] == [*messages, disconnected, disconnected]


# Fault, while connected: the server closes its half of the TCP connection and goes on reading,
# while 30 messages from the bus wait to be sent, one in 100 ms.
# Seen: the daemon closes its half too and goes on with the next connection; the server gets every
# message once and in order but for one, the one that the daemon takes and drops while it waits.
@steps_only("no message waits in the daemon while the server reads")
def test_half_closed_connection_costs_one_message_of_a_queue(make_frame_rig):
    rig = make_frame_rig(log_level=15)
    daemon, bus, server = rig
    messages = [b"message %02d" % number for number in range(30)]
    bus.send_lines(messages)
    server.wait_for_payloads(5)
    server.half_close()
    server.wait_for_payloads(29)
    bus.send(b"last")
    received = server.wait_for_payloads(30)
    first = [frame.payload for frame in server.frames if frame.connection == 1]
    assert first == messages[:len(first)]
    assert received == [*first, *messages[len(first) + 1:], b"last"]
    server.wait_for_end(1)
    assert bus.statuses()[-3:] == ["disconnected", "disconnected", "connected"]
    fault_watch(rig).expect_kept()
