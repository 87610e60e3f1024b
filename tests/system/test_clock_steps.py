"""A monotonic clock that steps while the daemon waits to connect, and a wall clock set back."""

# Test: 18 s, native only

import re
import sysconfig
import time

import pytest

from harness.pacing import is_event
from harness.preloaded import stepping_clock
from harness.round_trip import passes_both_ways
from harness.vemk_daemon import config_text

every_reading = -1
time_error = re.compile(
    r"time_monotonic: Time error, need restart, expired \[(\d+)\] \[(\d+)\] cnt (\d+)")
wall_clock_library = \
    f"/usr/lib/{sysconfig.get_config_var('MULTIARCH')}/faketime/libfaketimeMT.so.1"


@pytest.fixture
def start_waiting(place, make_daemon, bus, server):
    """Starts a daemon whose server is down, so that all it does with the clock is to check it."""

    def start(delay=4):
        server.stop()
        bus.listen()
        clock = stepping_clock(place)
        config = config_text(server.url, initial_delay=delay, max_delay=delay, log_level=8)
        daemon = make_daemon().start(config, **clock.start_options)
        daemon.wait_for_lines("Delay before connection")
        return daemon, clock

    return start


def heals(bus, server):
    server.start()
    bus.wait_until_connected()
    return passes_both_ways(bus, server, "after the step")


def time_errors(daemon):
    """How far the clock seemed to have gone at the first complaint, and all their counts."""
    found = [time_error.fullmatch(line.text) for line in daemon.lines_with("Time error")]
    return found and int(found[0][1]) - int(found[0][2]), [int(m[3]) for m in found]


# Fault, in the process: one reading of the monotonic clock is a second behind the one before, or
# ten in a row are behind the last good one.
# Seen: a line "time_monotonic: Time error, need restart, expired [NOW] [BEFORE] cnt 0" for each,
# counted from 0 to 9, no other; the next reading is good, and the daemon connects as soon as the
# server is up.
@pytest.mark.parametrize("seconds, readings", [(-1, 1), (-5, 10)])
def test_ten_readings_behind_are_only_logged(start_waiting, bus, server, seconds, readings):
    daemon, clock = start_waiting()
    clock.step(seconds, readings)
    daemon.wait_for_lines("Time error", readings)
    assert heals(bus, server)
    assert time_errors(daemon) == (seconds, list(range(readings)))


# Fault, in the process: eleven readings of the monotonic clock in a row are behind the last good
# one, or it jumps forward by 11 seconds and stays there.
# Seen: eleven "Time error" lines, counted from 0 to 10, and the end with status 255; started again,
# the daemon connects.
@pytest.mark.parametrize("seconds, readings", [(-5, 11), (11, every_reading)])
def test_eleven_time_errors_end_the_daemon(start_waiting, make_daemon, bus, server, seconds,
                                           readings):
    daemon, clock = start_waiting()
    clock.step(seconds, readings)
    assert daemon.wait_for_exit() == 255
    assert clock.readings_left() == min(readings, 0)
    assert time_errors(daemon) == (seconds, list(range(11)))
    make_daemon().start(config_text(server.url))
    assert heals(bus, server)


# Fault, in the process: the monotonic clock jumps forward by 10 seconds, and stays there.
# Seen: no "Time error" line; the wait ends that much earlier, unless the daemon sleeps through it
# with pacing=event, and the daemon connects.
def test_jump_of_ten_seconds_only_shortens_the_wait(start_waiting, bus, server):
    daemon, clock = start_waiting(delay=10)
    stepped = time.time()
    clock.step(10, every_reading)
    drawn = daemon.lines_with("Delay before connection")[0]
    attempt = daemon.wait_for_lines("Try to establish connect")[0]
    planned_end = drawn.time + int(drawn.text.split()[-2])
    if is_event:
        assert attempt.time > planned_end - 1
    else:
        # On a busy machine the step may come later than the shortened end.
        assert attempt.time < max(planned_end - 10, stepped) + 9
    assert heals(bus, server)
    assert daemon.lines_with("Time error") == []


# Fault, in the process: the wall clock is set back by a year while the daemon is connected.
# Seen: the log's time stamps go back by a year, and nothing else happens: no "Time error" line, no
# lost connection, messages pass both ways.
def test_wall_clock_set_back_a_year_has_no_effect(place, make_rig):
    year = 365 * 24 * 3600
    clock = place.folder / "clock"
    clock.write_text("+0")
    environment = {"FAKETIME_TIMESTAMP_FILE": str(clock), "FAKETIME_NO_CACHE": "1",
                   "FAKETIME_DONT_FAKE_MONOTONIC": "1"}
    daemon, bus, server = make_rig(
        {"preload": wall_clock_library, "environment": environment}, log_level=15)
    announced = len(bus.statuses())
    clock.write_text(f"-{year}")
    before = len(daemon.log_lines())
    assert passes_both_ways(bus, server, "a year ago")
    daemon.wait_for_lines("Send msg type [0]")
    gone_back = daemon.log_lines()[before - 1].time - daemon.log_lines()[-1].time
    assert year - 3600 < gone_back < year
    assert len(server.handshakes) == 1
    assert bus.statuses()[announced:] == []
    assert daemon.lines_with("Time error") == []
