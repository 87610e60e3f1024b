"""The daemon is suspended with SIGSTOP while connected, for less and for more than 10 seconds."""

# Test: 25 s

import signal
import time

from harness.round_trip import passes_both_ways
from harness.vemk_daemon import config_text


def suspend(daemon, seconds, meanwhile=lambda: None):
    daemon.process.send_signal(signal.SIGSTOP)
    meanwhile()
    time.sleep(seconds)
    daemon.process.send_signal(signal.SIGCONT)


# Fault, in the process: SIGSTOP, and SIGCONT 8 seconds later.
# Seen: what the server sent meanwhile arrives, on the same connection; nothing is announced and
# there is no "Time error" line.
def test_suspended_for_eight_seconds_goes_on(make_rig):
    daemon, bus, server = make_rig(log_level=8)
    announced = len(bus.statuses())
    suspend(daemon, 8, meanwhile=lambda: server.send("sent to a suspended daemon"))
    assert bus.wait_for_payloads(1) == [b"sent to a suspended daemon"]
    assert passes_both_ways(bus, server, "resumed")
    assert len(server.handshakes) == 1
    assert bus.statuses()[announced:] == []
    assert daemon.lines_with("Time error") == []


# Fault, in the process: SIGSTOP, and SIGCONT 15 seconds later.
# Seen: the line "time_monotonic: Time error, need restart, expired [NOW] [BEFORE] cnt 10" and the
# end with status 255; started again, the daemon connects.
def test_suspended_for_fifteen_seconds_ends(make_rig, make_daemon):
    daemon, bus, server = make_rig(log_level=8)
    announced = len(bus.statuses())
    suspend(daemon, 15)
    assert daemon.wait_for_exit() == 255
    errors = [line.text for line in daemon.lines_with("Time error")]
    assert len(errors) == 11 and errors[10].endswith(" cnt 10")
    make_daemon().start(config_text(server.url))
    bus.wait_for_last_status("connected", after=announced)
    assert passes_both_ways(bus, server, "started again")
