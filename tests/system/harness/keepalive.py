"""The daemon's keepalive at a faster clock, where minutes of it pass in seconds, and its lines."""

import collections
import os
import re

from harness import library_texts

event_t = collections.namedtuple("event_t", "time what")

# A ping is a second or more late when the machine is busy.
patterns = {
    "ping": re.compile(r"websock-roaming->process_client_writeable: "
                       r"It's time to ping websocket server, expired \[3\d\]"),
    "pong": re.compile(r"websock-roaming->process_client_receive_pong:119"),
    "given up": re.compile(r"websock-roaming->There are no 3 pong answer in a row from server"),
    "watchdog": re.compile(r"websock-roaming->ping_timeout:197"),
}


def fast_clock(speed):
    """What to start a daemon with; its log's time stamps are of its own clock.

    Nothing under an emulator, which does not bear what is preloaded: the time passes as it does.
    """
    if os.environ.get("VEMK_RUNNER"):
        return {}
    return {"preload": "preload/fast_clock.so", "environment": {"FAST_CLOCK": str(speed)}}


def ending_clock():
    """A faster clock where the library takes its time over an end; what to start a daemon with."""
    return fast_clock(10) if library_texts.ends_slowly else {}


def start_fast(make_frame_rig, answers_pings, speed, **server_options):
    """A rig whose log tells of its keepalive."""
    # The first delay is half a second of the test's time or more, time for the bus to listen.
    return make_frame_rig(fast_clock(speed), {"answers_pings": answers_pings, **server_options},
                         log_level=12, initial_delay=speed, max_delay=speed)


def established(daemon):
    """When it was connected first."""
    return daemon.lines_with("websock-roaming->process_client_established:58")[0].time


def keepalive_events(daemon):
    return [event_t(line.time, what) for line in daemon.log_lines()
            for what, pattern in patterns.items() if pattern.fullmatch(line.text)]


def words(events):
    return [event.what for event in events]


def since_last(what, events):
    """What follows the last event of this kind, or everything where there is none."""
    found = words(events)
    return found[len(found) - found[::-1].index(what):] if what in found else found
