"""Servers of independent implementations end the connection, each in its own ways."""

# Test: 36 s, everywhere

import statistics

from harness.handshake_faults import courses_of, refused_course
from harness.healing import lost_and_found
from harness.independent_servers import with_each_server
from harness.round_trip import passes_both_ways
from harness.waiting import slowdown

endings = [(1000, ""), (1001, "going away"), (1011, "r" * 123), (3000, "")]
own_threads = ["ipc", "main", "websock-roaming"]


def lose(rig, end, *arguments):
    """The connection is announced lost twice and made again; returns what `end` does."""
    daemon, bus, server = rig
    announced, connections = len(bus.statuses()), len(server.handshakes)
    ended = end(*arguments)
    server.wait_for_connections(connections + 1)
    assert bus.wait_for_statuses(announced + 3)[announced:] == lost_and_found
    return ended


def passes_on_connection(rig, number):
    return passes_both_ways(rig.bus, rig.server, "again") \
        and rig.server.frames[-1].connection == number


# Fault, while connected: three servers' own close frames with the codes 1000, 1001, 1011 and 3000,
# with a reason, with the longest of 123 bytes and without one.
# Seen: the server gets its code back; the bus hears "disconnected" twice and "connected"; messages
# pass again on the new connection.
@with_each_server
def test_close_frames_of_the_server_lead_to_a_new_connection(make_rig):
    rig = make_rig(log_level=15)
    for count, (code, reason) in enumerate(endings, start=1):
        lose(rig, rig.server.close, code, reason)
        assert passes_on_connection(rig, count + 1)
    assert [code for time, code in rig.server.ends] == [code for code, reason in endings]
    assert len(rig.daemon.lines_with("process_closed:76")) == len(endings)


# Fault, while connected: a TCP reset by each of three servers.
# Seen: the bus hears "disconnected" twice and "connected"; messages pass on the new connection.
@with_each_server
def test_reset_by_the_server_leads_to_a_new_connection(make_rig):
    rig = make_rig(log_level=15)
    lose(rig, rig.server.reset)
    assert passes_on_connection(rig, 2)


# Fault, while connected: ten ends of the connection in a row, close frame and RST in turn.
# Seen: "process_closed:76" and "Stopping" come within a second of it, "disconnected" twice and
# "connected" after it; there are no more threads and descriptors than before.
# A busy machine may delay some: the second is that of the median, and all come within ten.
def test_ten_closes_in_a_row_are_noticed_within_a_second(make_rig):
    rig = make_rig(log_level=15)
    daemon, bus, server = rig
    descriptors = daemon.descriptor_count()
    assert daemon.own_thread_names() == own_threads
    delays = []
    for lost in range(1, 11):
        closed = lose(rig, server.close if lost % 2 else server.reset)
        noticed = daemon.wait_for_lines("process_closed:76", lost)[lost - 1]
        torn_down = daemon.wait_for_lines("websock-roaming->Stopping", lost)[lost - 1]
        assert closed - 0.1 < noticed.time <= torn_down.time
        delays.append(torn_down.time - closed)
    assert statistics.median(delays) < slowdown and max(delays) < 10 * slowdown
    assert daemon.own_thread_names() == own_threads
    daemon.wait_for_descriptors(descriptors)


# Fault, while connected: each of three servers is stopped, and started again later; nobody listens
# on its port meanwhile.
# Seen: each attempt is logged "websock-roaming->process_client_connection_error:41"; the bus hears
# "disconnected" only, as does "vemkctl status"; once the server is back the bus hears "connected"
# and messages pass.
@with_each_server
def test_restart_of_the_server_heals(make_rig):
    rig = make_rig(log_level=15)
    daemon, bus, server = rig
    announced, descriptors = len(bus.statuses()), daemon.descriptor_count()
    server.stop()
    daemon.wait_for_lines("Try to establish connect with server", 5)
    courses, library_lines = courses_of(daemon)
    assert courses[1:4] == [refused_course(server.port)] * 3
    assert bus.run("status", "--timeout", "20").stdout == b"disconnected\n"
    assert set(bus.wait_for_statuses(announced + 8)[announced:]) == {"disconnected"}
    server.start()
    heard = bus.wait_for_last_status("connected", after=announced)[announced:]
    assert set(heard[:-1]) == {"disconnected"}
    server.wait_for_connections(2)
    assert len(server.handshakes) == 2
    assert passes_on_connection(rig, 2)
    daemon.wait_for_descriptors(descriptors)


# Fault, while connected: a message from the bus that is no UTF-8, which servers may not take.
# Seen: each of three servers closes the connection, which is made again; the next message passes.
@with_each_server
def test_message_that_is_no_utf_8_costs_the_connection(make_rig):
    rig = make_rig(log_level=15)
    lose(rig, rig.bus.send, b"high \xff\xfe bytes")
    assert rig.server.payloads() == []
    assert passes_on_connection(rig, 2)
