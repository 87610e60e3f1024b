"""A server that answers no ping is given up after the third, some 90 s after the handshake."""

# Test: 95 s, emulated only
# The keepalive takes its time where the daemon's clock cannot be made faster; elsewhere
# test_fault_keepalive.py shows it.

from harness.raw_server import opcode_ping, upgrade
from harness.vemk_daemon import config_text


# Three pings about 30 s apart, one missing-pong line, "disconnected" twice, "connected".
def test_third_unanswered_ping_drops_the_connection(make_daemon, make_raw_server, bus):
    server = make_raw_server(upgrade)
    bus.listen()
    daemon = make_daemon().start(config_text(server.url, log_level=15))
    bus.wait_until_connected()
    announced = len(bus.statuses())
    server.wait_for_connections(2, seconds=140)
    pings = [ping.time for ping in server.frames_of(opcode_ping)]
    assert len(pings) == 3
    assert all(28.9 <= later - earlier for earlier, later in zip(pings, pings[1:]))
    assert [line.text for line in daemon.lines_with("pong answer in a row")] == \
        ["websock-roaming->There are no 3 pong answer in a row from server"]
    bus.wait_for_statuses(announced + 3)
    assert bus.statuses()[announced:] == ["disconnected", "disconnected", "connected"]
