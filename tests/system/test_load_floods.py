"""Many messages at once, and more pings and pongs than the daemon asked for."""

# Test: 50 s

import pytest

from harness.bus_peer import status_request
from harness.frames import frame, opcode_ping, opcode_pong, text
from harness.healing import fault_watch
from harness.keepalive import fast_clock
from harness.library_texts import ping_payload
from harness.round_trip import assert_all_arrive
from harness.traffic import is_strictly_in_order

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


# Fault, while connected: 50 messages of 6 bytes each way, and 10,000 at forty times the daemon's
# pace, all at once.
# Seen: each arrives once, unchanged and in order, on the one connection; from the bus one in a
# step, so that the last of 10,000 leaves after more than 1000 s of the daemon's clock.
@pytest.mark.parametrize("each_way, start_options", [
    pytest.param(50, {}, id="few"),
    pytest.param(10000, fast_clock(40), id="many", marks=pytest.mark.skipif(
        not fast_clock(40), reason="they take 17 minutes where no clock can be made faster")),
])
def test_many_messages_each_way_arrive_in_order(make_rig, each_way, start_options):
    daemon, bus, server = make_rig(start_options)
    descriptors = daemon.descriptor_count()
    up_messages = [b"u%05d" % number for number in range(each_way)]
    down_messages = [b"d%05d" % number for number in range(each_way)]
    assert_all_arrive(bus, server, up_messages, down_messages, seconds=90)
    assert len(server.handshakes) == 1
    assert bus.run("status", "--timeout", "20").stdout == b"connected\n"
    daemon.wait_for_descriptors(descriptors)


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
    assert server.wait_for_payloads(len(up)) == up
    server.synchronise()
    pongs = [pong.payload for pong in server.frames_of(opcode_pong)][:-1]
    assert len(pongs) > 20
    assert is_strictly_in_order(pongs, map(control_payload, range(count)))
    watch.remember()
    watch.expect_kept()


# Fault, while connected: 2016 pongs that answer no ping, with payloads of 0 to 125 bytes, a message
# after every 126 of them, and ten messages and a status request from the bus at the same time.
# Seen: "process_client_receive_pong:119" for each (from 2.4 to 3.0.0 the library reports none
# without payload), nothing is sent in return; all messages arrive unchanged and in order, the
# request is answered "connected", and the connection is kept.
def test_pong_flood_disturbs_nothing(make_frame_rig):
    rig = make_frame_rig(log_level=8)
    daemon, bus, server = rig
    watch = fault_watch(rig)
    server.send(*flood(opcode_pong))
    bus.send_lines([*up, status_request])
    assert bus.wait_for_payloads(len(down)) == down
    assert server.wait_for_payloads(len(up)) == up
    bus.wait_for_statuses(watch.announced + 1)
    assert bus.statuses()[watch.announced:] == ["connected"]
    reported = count - (count // 126 if ping_payload else 0)
    daemon.wait_for_lines("process_client_receive_pong:119", reported)
    assert len(daemon.lines_with("process_client_receive_pong:119")) == reported
    watch.remember()
    watch.expect_kept()
    # A slow machine takes longer than the 30 seconds after which the daemon pings.
    own_pings = len(server.frames_of(opcode_ping))
    assert len(server.frames) - own_pings == len(server.payloads())
