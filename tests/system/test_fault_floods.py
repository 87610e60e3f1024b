"""More pings and pongs from the server than the daemon asked for."""

# Test: 11 s

from harness.bus_peer import status_request
from harness.frame_server import frame, text
from harness.healing import fault_watch
from harness.raw_server import opcode_ping, opcode_pong

count = 2016
up = [b"to the server %02d" % number for number in range(10)]
down = [b"to the bus %04d" % number for number in range(0, count, 126)]


def control_payload(number):
    """Every length that a control frame may have, beginning with the number where that fits."""
    return (b"%05d," % number * 21)[:number % 126]


def flood(opcode):
    """A message, then 126 control frames of all lengths, again and again."""
    for number in range(count):
        if number % 126 == 0:
            yield text(b"to the bus %04d" % number)
        yield frame(opcode, control_payload(number))


def is_in_order(some, of_all):
    rest = iter(of_all)
    return all(one in rest for one in some)


# Fault, while connected: 2016 pings with payloads of 0 to 125 bytes, sent as fast as TCP takes
# them, a message after every 126 of them, and ten messages from the bus at the same time.
# Seen: the server's messages reach the bus unchanged and in order; the library answers one ping in
# each step of 100 ms, with that ping's payload and in order, and sends nothing else while pings
# keep coming: the bus's messages arrive once and in order after the last pong. The connection is
# kept.
def test_ping_flood_delays_messages_and_loses_none(make_frame_rig):
    rig = make_frame_rig(log_level=8)
    daemon, bus, server = rig
    watch = fault_watch(rig)
    server.send(*flood(opcode_ping))
    bus.send_lines(up)
    assert bus.wait_for_payloads(len(down)) == down
    assert server.wait_for_texts(len(up)) == up
    server.synchronise()
    pongs = [pong.payload for pong in server.frames_of(opcode_pong)][:-1]
    assert len(pongs) > 20
    assert is_in_order(pongs, map(control_payload, range(count)))
    watch.remember()
    watch.expect_kept()


# Fault, while connected: 2016 pongs that answer no ping, with payloads of 0 to 125 bytes, a message
# after every 126 of them, and ten messages and a status request from the bus at the same time.
# Seen: "process_client_receive_pong:119" for each, nothing is sent in return; all messages arrive
# unchanged and in order, the request is answered "connected", and the connection is kept.
def test_pong_flood_disturbs_nothing(make_frame_rig):
    rig = make_frame_rig(log_level=8)
    daemon, bus, server = rig
    watch = fault_watch(rig)
    server.send(*flood(opcode_pong))
    bus.send_lines([*up, status_request])
    assert bus.wait_for_payloads(len(down)) == down
    assert server.wait_for_texts(len(up)) == up
    bus.wait_for_statuses(watch.announced + 1)
    assert bus.statuses()[watch.announced:] == ["connected"]
    daemon.wait_for_lines("process_client_receive_pong:119", count)
    assert len(daemon.lines_with("process_client_receive_pong:119")) == count
    watch.remember()
    watch.expect_kept()
    # A slow machine takes longer than the 30 seconds after which the daemon pings.
    own_pings = len(server.frames_of(opcode_ping))
    assert len(server.frames) - own_pings == len(server.texts())
