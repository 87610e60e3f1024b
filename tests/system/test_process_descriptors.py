"""No descriptors left, at the start and while the daemon runs."""

# Test: 11 s, native only, not under a sanitizer
# The sanitizers need descriptors, and an emulator does not bear their loss.

import resource

import pytest

from harness.pacing import steps_only
from harness.round_trip import passes_both_ways
from harness.vemk_daemon import config_text
from harness.waiting import wait_until

enough = 1024
no_context = "websock-roaming->Creating libwebsocket context failed"


def limit_descriptors(daemon, count):
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (count, enough))


# Fault, in the process: a start with 4, 5, 6, 8, 12, 16 or 18 descriptors; later there are enough.
# Seen: "pipe: Too many open files", "cannot join the bus" or "Creating libwebsocket context
# failed"; the daemon lives, tries again, and carries messages once it can.
@pytest.mark.parametrize("descriptors, line", [
    (4, "pipe: Too many open files"),
    (5, no_context),
    (6, "VEMk: cannot join the bus: "),
    (8, "VEMk: cannot join the bus: "),
    (12, "VEMk: cannot join the bus: "),
    (16, "VEMk: cannot join the bus: "),
    (18, "VEMk: cannot join the bus: "),
], ids=str)
def test_too_few_descriptors_at_the_start(make_daemon, bus, server, descriptors, line):
    bus.listen()
    daemon = make_daemon().start(config_text(server.url, log_level=9),
                                 runner=["prlimit", f"--nofile={descriptors}:{enough}"])
    wait_until(lambda: line in daemon.log_text(), line, details=daemon.log_text)
    daemon.wait_for_lines("websock-roaming->Stopping" if descriptors < 7 else "Delay before")
    limit_descriptors(daemon, enough)
    bus.wait_until_connected()
    assert passes_both_ways(bus, server, "with descriptors enough")
    assert daemon.output() == ""


# Fault, in the process: no descriptor is left when the connection is lost; later there are some.
# Seen: "Creating libwebsocket context failed" at each attempt, "disconnected" on the bus, no crash;
# then the daemon connects, and has the descriptors of before.
def test_no_descriptors_for_a_reconnect(make_rig):
    daemon, bus, server = make_rig(log_level=1)
    before = daemon.descriptor_count()
    limit_descriptors(daemon, 4)
    server.stop()
    server.start()
    daemon.wait_for_lines(no_context, count=3)
    assert bus.statuses()[-1] == "disconnected"
    limit_descriptors(daemon, enough)
    bus.wait_for_last_status("connected", after=len(bus.statuses()))
    assert passes_both_ways(bus, server, "with descriptors again")
    daemon.wait_for_descriptors(before)


# Fault, in the process: too few descriptors are left to join again when the bus drops the daemon.
# Seen: "cannot join the bus", once; the connection stays; when the limit is raised it joins again.
@steps_only("the descriptors that the bus library gives back are enough")
def test_too_few_descriptors_for_a_rejoin(make_rig):
    daemon, bus, server = make_rig()
    before = daemon.descriptor_count()
    limit_descriptors(daemon, before + 3)
    assert bus.run("rejoin").returncode == 0
    wait_until(lambda: "cannot join the bus: it takes" in daemon.log_text(), "a failed join",
               details=daemon.log_text)
    server.send("waits for the bus")
    limit_descriptors(daemon, enough)
    assert bus.wait_for_payloads(1) == [b"waits for the bus"]
    assert passes_both_ways(bus, server, "back on the bus")
    assert daemon.log_text().count("cannot join the bus") == 1
    assert len(server.handshakes) == 1
    daemon.wait_for_descriptors(before)
