"""The server ends the connection: the daemon announces it twice, reconnects, announces that."""

# Test: 9 s

import pytest

lost_and_found = ["disconnected", "disconnected", "connected"]


def close(server):
    server.close()


def close_going_away(server):
    server.close(1001)


def reset(server):
    server.reset()


def restart(server):
    server.stop()
    server.start()


# Fault, while connected: a close with code 1000 or 1001 or a RST of an independent server library,
# and the end of that server with a new one in its place.
# Seen: "disconnected" twice, "connected", then messages both ways on the second connection.
@pytest.mark.parametrize("end_connection", [close, close_going_away, reset, restart])
def test_connection_is_announced_lost_and_made_again(make_rig, end_connection):
    daemon, bus, server = make_rig(log_level=15)
    announced = len(bus.statuses())
    end_connection(server)
    server.wait_for_connections(2)
    # A restarting server may refuse an attempt, and each attempt announces itself twice.
    bus.wait_for_last_status("connected", after=announced)
    seen = bus.statuses()[announced:]
    assert seen[-3:] == lost_and_found
    assert end_connection is restart or seen == lost_and_found
    bus.send(b"up again")
    server.send("down again")
    assert server.wait_for_payloads(1) == [b"up again"]
    assert server.frames[0].connection == 2
    assert bus.wait_for_payloads(1) == [b"down again"]


# After an establishment the window is [1;3) again, and the attempt comes 1 or 2 seconds later.
def test_new_connection_comes_after_the_delay_drawn(make_rig):
    daemon, bus, server = make_rig(initial_delay=2, max_delay=2, log_level=15)
    lost = server.reset()
    server.wait_for_connections(2)
    assert [line.text for line in daemon.lines_with("Generate delay")] == \
        ["Generate delay into [1;3) range"] * 2
    drawn, attempt = daemon.lines_with("Delay before connection")[1], \
        daemon.lines_with("Try to establish connect")[1]
    delay = int(drawn.text.split()[-2])
    assert delay in (1, 2)
    # Whole seconds of the clock: the wait ends on the boundary of the last of them.
    assert delay - 1 <= attempt.time - drawn.time
    assert attempt.time - lost < 1 + 0.3 + delay + 3
