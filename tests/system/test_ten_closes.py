"""A server that closes again and again is noticed at once and costs the daemon nothing."""

# Test: 9 s

from harness.waiting import slowdown

own_threads = ["ipc", "main", "websock-roaming"]


# Fault, while connected: ten ends of the connection in a row, close frame and RST in turn.
# Seen: "process_closed:76" and "Stopping" come within a second of each, "disconnected" twice and
# "connected" after it; there are no more threads and descriptors than before.
def test_ten_closes_in_a_row_are_noticed_within_a_second(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    descriptors = daemon.descriptor_count()
    assert daemon.own_thread_names() == own_threads
    for lost in range(1, 11):
        announced = len(bus.statuses())
        closed = server.close() if lost % 2 else server.reset()
        server.wait_for_connections(lost + 1)
        bus.wait_for_statuses(announced + 3)
        assert bus.statuses()[announced:] == ["disconnected", "disconnected", "connected"]
        noticed = daemon.wait_for_lines("process_closed:76", lost)[lost - 1]
        torn_down = daemon.wait_for_lines("websock-roaming->Stopping", lost)[lost - 1]
        assert closed - 0.1 < noticed.time <= torn_down.time < closed + 1 * slowdown
    assert daemon.own_thread_names() == own_threads
    daemon.wait_for_descriptors(descriptors)
