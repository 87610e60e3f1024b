"""A server that stops reading or is suspended, or that keeps the daemon from sending or hearing.

The daemon's clock goes faster, so that the minute of its watchdog and three pings pass in seconds.
"""

# Test: 51 s, native only

import concurrent.futures
import contextlib
import threading

import pytest

from harness.frames import close_frame, frame, opcode_ping, opcode_text, text
from harness.healing import fault_watch, lost_and_found
from harness.keepalive import fast_clock
from harness.round_trip import passes_both_ways
from harness.waiting import wait_until

ping = "It's time to ping websocket server"
three_pings_missing = "There are no 3 pong answer in a row from server"
watchdog_fired = "websock-roaming->ping_timeout:197"
# More in all than the sockets of both sides take.
messages = [b"%02d " % number + b"m" * (1 << 18) for number in range(20)]
queued = [b"sent to a suspended server %d" % number for number in range(5)]


@pytest.fixture
def stalled(make_frame_rig):
    """Starts a rig whose server reads nothing more; with its watch and what makes it read on."""

    def make(speed):
        rig = make_frame_rig(fast_clock(speed),
                             {"answers_pings": True, "receive_buffer": 4096}, log_level=12)
        go_on = rig.server.stop_reading()
        rig.bus.send(b"the last that is read")
        rig.server.wait_for_payloads(1)
        watch = fault_watch(rig)
        sending.submit(rig.bus.send_lines, messages)
        return rig, watch, go_on

    with concurrent.futures.ThreadPoolExecutor() as sending:
        yield make


def texts_on(server, number):
    return [one.payload for one in server.frames_of(opcode_text) if one.connection == number]


def rest_on_next_connection(server):
    """What of the messages arrives on the second connection: the last ones, in order."""
    wait_until(lambda: texts_on(server, 2)[-1:] == messages[-1:], "the last of the messages")
    rest = texts_on(server, 2)
    assert rest == messages[-len(rest):]
    return rest


def wait_until_stuck(daemon):
    """Waits until the daemon has begun to send a message and cannot end it."""
    seen = []

    def no_more_is_sent():
        seen.append(len(daemon.lines_with("Send msg type [0]")))
        return len(seen) > 25 and 1 < seen[-25] == seen[-1]

    wait_until(no_more_is_sent, "the end of sending")
    assert seen[-1] < len(messages)


# Fault, while connected: the server reads nothing for a while, its window closes, and 20 messages
# of 256 KiB wait on the bus's side; then it goes on reading.
# Seen: the daemon stops sending, without an error; when the server reads again, every message
# arrives once, in order and unchanged, and the connection was kept.
def test_messages_pass_when_a_server_reads_again(stalled):
    rig, watch, go_on = stalled(speed=2)
    wait_until_stuck(rig.daemon)
    go_on()
    assert rig.server.wait_for_payloads(1 + len(messages))[1:] == messages
    watch.remember()
    watch.expect_kept()
    assert len(rig.server.connections) == 1


# Fault, while connected: the same, but the server does not read again.
# Seen: writeable callbacks stop, so no ping is sent, and 60 s after the last one the watchdog drops
# the connection: "websock-roaming->ping_timeout:197", "disconnected" twice, "connected". What the
# sockets had taken whole may still be read, in order; a message that was cut off is lost, the next
# one is dropped in the wait, and all others arrive on the next connection, once and in order.
def test_server_that_reads_no_more_is_dropped_by_the_watchdog(stalled):
    rig, watch, go_on = stalled(speed=20)
    daemon, bus, server = rig
    announced = watch.announced
    server.wait_for_connections(2)
    bus.wait_for_statuses(announced + 3)
    assert bus.statuses()[announced:] == lost_and_found
    assert len(daemon.lines_with(watchdog_fired)) == 1
    assert daemon.lines_with(three_pings_missing) == []
    rest = rest_on_next_connection(server)
    go_on()
    server.wait_for_end(1)
    read_late = texts_on(server, 1)[1:]
    assert read_late == messages[:len(read_late)]
    assert len(messages) - len(read_late) - len(rest) in (1, 2)
    watch.remember()
    watch.expect_kept()


# Fault, while connected: a close frame from a server that reads nothing more, with messages queued.
# Seen: the daemon cannot answer it, gives that up and heals without waiting for the watchdog.
def test_close_frame_of_a_server_that_does_not_read_is_healed(stalled):
    rig, watch, _ = stalled(speed=2)
    daemon, bus, server = rig
    wait_until_stuck(daemon)
    announced = watch.announced
    server.send(close_frame(1001))
    server.wait_for_connections(2)
    bus.wait_for_statuses(announced + 3)
    assert bus.statuses()[announced:] == lost_and_found
    assert daemon.lines_with(watchdog_fired) == []
    rest_on_next_connection(server)
    watch.remember()
    watch.expect_kept()


# Fault, while connected: a length field that says 2^40 before 10 bytes, from a server that goes on
# answering pings.
# Seen: whatever it sends is taken for that message, the answers to pings too: after the third ping
# "There are no 3 pong answer in a row from server", healed, and nothing of it reaches the bus.
def test_endless_message_is_given_up_after_three_pings(make_frame_rig):
    rig = make_frame_rig(fast_clock(20), {"answers_pings": True}, log_level=8)
    watch = fault_watch(rig)
    rig.server.send(text(b"0123456789", length_bits=64, length=1 << 40), text(b"never heard"))
    watch.expect_healed()
    assert len(rig.daemon.lines_with(three_pings_missing)) == 1


# Fault, while connected: pings without end, so many that each step of the daemon finds one.
# Seen: the library answers pings and nothing else, so writeable callbacks stop; 60 s after the
# handshake the watchdog drops the connection, and without the flood all works again.
def test_endless_ping_flood_is_ended_by_the_watchdog(make_frame_rig):
    rig = make_frame_rig(fast_clock(20), log_level=12)
    daemon, bus, server = rig
    watch = fault_watch(rig)
    flooded = server.connection

    def flood():
        with contextlib.suppress(OSError):
            while True:
                flooded.sendall(frame(opcode_ping, b"again") * 1000)

    flooding = threading.Thread(target=flood)
    flooding.start()
    server.wait_for_connections(2)
    flooding.join(20)
    watch.expect_healed()
    assert len(daemon.lines_with(watchdog_fired)) == 1


# Fault, while connected: the server is suspended while the daemon sends five messages and two
# pings, is sent two messages itself, and goes on before the third ping.
# Seen: nothing is lost in either direction, all arrives in order on the same connection, and
# nothing is announced.
def test_server_suspended_for_two_pings_is_kept(start_rig, service):
    daemon, bus, _ = start_rig(service, fast_clock(10), log_level=12)
    descriptors = daemon.descriptor_count()
    announced = len(bus.statuses())
    pings = len(daemon.lines_with(ping))
    service.suspend()
    service.send("sent while suspended")
    service.send("and one more")
    bus.send_lines(queued)
    daemon.wait_for_lines(ping, pings + 2)
    assert service.payloads() == []
    assert bus.payloads() == []
    service.resume()
    assert service.wait_for_payloads(5) == queued
    assert bus.wait_for_payloads(2) == [b"sent while suspended", b"and one more"]
    # Answered, the two are not counted towards the three.
    daemon.wait_for_lines(ping, pings + 4)
    assert daemon.lines_with(three_pings_missing) == []
    assert passes_both_ways(bus, service, "resumed")
    assert bus.statuses()[announced:] == []
    daemon.wait_for_descriptors(descriptors)


# Fault, while connected: the server is suspended for more than three pings, after which its kernel
# still accepts connections but no handshake is answered, and goes on then.
# Seen: "There are no 3 pong answer in a row from server" once, "disconnected" for as long as it is
# suspended, then "connected"; what was sent before the third ping reaches the server once and in
# order, and messages pass both ways.
def test_server_suspended_for_three_pings_is_dropped_and_found_again(start_rig, service):
    daemon, bus, _ = start_rig(service, fast_clock(20), log_level=12)
    descriptors = daemon.descriptor_count()
    announced = len(bus.statuses())
    service.suspend()
    bus.send_lines(queued)
    daemon.wait_for_lines(three_pings_missing, 1)
    # Four are one attempt that failed.
    bus.wait_for_statuses(announced + 4)
    assert bus.run("status", "--timeout", "20").stdout == b"disconnected\n"
    service.resume()
    bus.wait_for_last_status("connected", after=announced)
    seen = bus.statuses()[announced:]
    assert set(seen[:-1]) == {"disconnected"}
    assert seen[-3:] == lost_and_found
    assert service.wait_for_payloads(5) == queued
    assert len(daemon.lines_with(three_pings_missing)) == 1
    assert passes_both_ways(bus, service, "resumed")
    daemon.wait_for_descriptors(descriptors)
