"""pacing=event: what the daemon does is the same, and it does not wait for a step."""

# Test: 14 s, everywhere

import re
import statistics
import time

from harness.bus_peer import disconnected, status_request
from harness.library_texts import library_prefix
from harness.vemk_daemon import config_text, line_pattern
from harness.waiting import slowdown, wait_until


def live(make_daemon, bus, server, event_pacing):
    """One daemon's life: refused, connected, messages of all kinds, closed, connected again."""
    announced, at_server = len(bus.statuses()), len(server.payloads())
    on_bus = len(bus.payloads())
    server.stop()
    # A delay of a second or more is time for the server to start before the next attempt.
    daemon = make_daemon().start(config_text(server.url, initial_delay=3, max_delay=3,
                                             log_level=15, event_pacing=event_pacing))
    daemon.wait_for_lines("process_client_connection_error:41")
    server.start()
    bus.wait_for_last_status("connected", after=announced)
    bus.send(b"up")
    server.wait_for_payloads(at_server + 1)
    server.send("down")
    server.send_fragments([b"in ", b"three ", b"fragments"])
    server.ping()
    bus.wait_for_payloads(on_bus + 2)
    for message in (status_request, b'{"service":"internal-ipc","cmd":"reboot"}', b"dump " * 8):
        bus.send(message)
    server.wait_for_payloads(at_server + 2)
    announced = len(bus.statuses())
    server.close(1001)
    bus.wait_for_last_status("connected", after=announced + 2)
    bus.send(b"up again")
    daemon.wait_for_lines("Send msg type [0] len [8/8]")
    daemon.stop()
    return daemon


def said(daemon):
    """The log without times, the library's lines, drawn delays, and lines that are repeated."""
    lines = [f"{m[3]}> {m[4]}" if (m := line_pattern.fullmatch(line)) else line
             for line in daemon.log_text().split("\n")]
    own = [re.sub(r"(Delay before connection:) \d+", r"\1", line)
           for line in lines if library_prefix not in line]
    return [line for before, line in zip([None, *own], own) if line != before]


# It is the same but for times, drawn delays, the library's lines and how often one line is repeated.
def test_log_is_that_of_the_default_pacing(make_daemon, bus, server):
    bus.listen()
    by_steps, by_events = (said(live(make_daemon, bus, server, event_pacing))
                           for event_pacing in (False, True))
    assert len(by_steps) > 40
    assert by_events == by_steps


# Between two attempts, minutes apart, half of eleven requests are answered within 50 ms.
def test_status_request_is_answered_at_once_while_waiting(make_daemon, bus, server):
    bus.listen()
    make_daemon().start(
        config_text(server.url, initial_delay=600, max_delay=600, event_pacing=True))
    bus.wait_listening()
    sender = bus.start_sending("--lines", "-")
    seconds = []
    for _ in range(11):
        heard, began = len(bus.received), time.monotonic()
        sender.stdin.write(status_request + b"\n")
        sender.stdin.flush()
        wait_until(lambda heard=heard: len(bus.received) > heard, "the answer")
        seconds.append(bus.received[heard].time - began)
    sender.communicate()
    assert {one.payload for one in bus.received} == {disconnected}
    assert statistics.median(seconds) < 0.05 * slowdown
    assert server.handshakes == []
