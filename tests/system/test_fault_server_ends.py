"""Three servers of independent implementations end the connection, each in its own ways."""

# Test: 29 s

from harness.independent_servers import server
from harness.round_trip import passes_both_ways

lost_and_found = ["disconnected", "disconnected", "connected"]
endings = [(1000, ""), (1001, "going away"), (1011, "r" * 123), (3000, "")]


# Fault, while connected: three servers' own close frames with the codes 1000, 1001, 1011 and 3000,
# with a reason, with the longest of 123 bytes and without one.
# Seen: the server gets its code back; the bus hears "disconnected" twice and "connected"; messages
# pass again on the new connection.
def test_close_frames_of_the_server_lead_to_a_new_connection(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    for count, (code, reason) in enumerate(endings, start=1):
        announced = len(bus.statuses())
        server.close(code, reason)
        server.wait_for_connections(count + 1)
        assert bus.wait_for_statuses(announced + 3)[announced:] == lost_and_found
        assert passes_both_ways(bus, server, "again")
    assert [code for time, code in server.ends] == [code for code, reason in endings]
    assert len(daemon.lines_with("process_closed:76")) == len(endings)


# Fault, while connected: a TCP reset by each of three servers.
# Seen: the bus hears "disconnected" twice and "connected"; messages pass on the new connection.
def test_reset_by_the_server_leads_to_a_new_connection(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    announced = len(bus.statuses())
    server.reset()
    server.wait_for_connections(2)
    assert bus.wait_for_statuses(announced + 3)[announced:] == lost_and_found
    assert passes_both_ways(bus, server, "again")


# Fault, while connected: each of three servers is stopped, and started again later.
# Seen: "vemkctl status" says "disconnected" meanwhile, attempts are refused and tried again; once
# the server is back the bus hears "connected" and messages pass.
def test_restart_of_the_server_heals(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    descriptors = daemon.descriptor_count()
    announced = len(bus.statuses())
    server.stop()
    daemon.wait_for_lines("process_client_connection_error:41", 2)
    assert bus.run("status", "--timeout", "20").stdout == b"disconnected\n"
    server.start()
    heard = bus.wait_for_last_status("connected", after=announced)[announced:]
    assert set(heard[:-1]) == {"disconnected"}
    assert len(server.handshakes) == 2
    assert passes_both_ways(bus, server, "again")
    daemon.wait_for_descriptors(descriptors)


# Fault, while connected: a message from the bus that is no UTF-8, which servers may not take.
# Seen: each of three servers closes the connection, which is made again; the next message passes.
def test_message_that_is_no_utf_8_costs_the_connection(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    announced = len(bus.statuses())
    bus.send(b"high \xff\xfe bytes")
    server.wait_for_connections(2)
    assert bus.wait_for_statuses(announced + 3)[announced:] == lost_and_found
    assert server.payloads() == []
    assert passes_both_ways(bus, server, "again")
