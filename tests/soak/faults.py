"""What is done to the rig, one function a fault.

A fault gets the soak and a source of random numbers that is its own. It returns when what it did
is over; the soak then waits for the daemon to heal. `weight` is how often the fault stands in each
round of the schedule but the first, which holds every fault once.
"""

import collections
import functools
import signal

from harness.bus_peer import status_request
from harness.frame_server import frame, opcode_binary, opcode_continuation
from harness.raw_server import opcode_close, opcode_ping, opcode_text

import sending_styles
from messages import internal_message

fault_t = collections.namedtuple("fault_t", "name weight inject")

faults = []

piece_bytes = 4096


def fault(name, weight=1):
    def enter(inject):
        faults.append(fault_t(name, weight, inject))
        return inject
    return enter


def drop(soak, how, code=None, cut_exactly=False):
    """Ends the connection that is up."""
    rig = soak.rig
    with rig.sending_down, rig.lock:
        connection = rig.connection
        rig.expect_drop(connection, cut_exactly)
        rig.service.drop(connection, how, code)


@fault("close frame", weight=3)
def close_frame(soak, choices):
    drop(soak, "close", choices.choice((None, 1000, 1001, 1008, 1009, 1011, 1012)))


@fault("FIN", weight=2)
def fin(soak, choices):
    drop(soak, "fin")


@fault("RST", weight=2)
def rst(soak, choices):
    drop(soak, "rst")


@fault("end at rest")
def end_at_rest(soak, choices):
    """Nothing is under way, so nothing may be missing afterwards."""
    with soak.traffic.quiet():
        soak.rig.probe()
        drop(soak, choices.choice(("fin", "rst", "close")))


@fault("end in mid-frame, at any byte", weight=2)
def end_in_mid_frame(soak, choices):
    """How much of the frame the daemon has read is not known."""
    def cut(payload, _):
        return sending_styles.sent_t(
            [frame(opcode_text, payload[:len(payload) // 2], length_bits=16,
                   length=len(payload))], payload[:len(payload) // 2], False)

    with soak.traffic.quiet(up=False):
        soak.rig.send_down(cut, choices.randint(200, 60000))
        drop(soak, choices.choice(("rst", "fin")))


@fault("end in mid-frame, after whole pieces", weight=2)
def end_after_pieces(soak, choices):
    """The library hands a frame on in pieces, so these are what stays in the receive buffer."""
    pieces = choices.randint(1, 4)
    size = pieces * piece_bytes + choices.randint(5000, 9999)
    more = choices.randint(0, piece_bytes - 1)

    def cut(payload, _):
        kept = pieces * piece_bytes
        return sending_styles.sent_t(
            [frame(opcode_binary, payload[:kept + more], length_bits=16, length=len(payload))],
            payload[:kept], False)

    end_when_read(soak, cut, size, size - pieces * piece_bytes, choices)


@fault("end in mid-message, after whole fragments", weight=2)
def end_after_fragments(soak, choices):
    size = choices.randint(10000, 20000)

    def cut(payload, source):
        whole, rest = payload[:5000], payload[5000:]
        wire = sending_styles.in_fragments(sending_styles.cut_up(whole, source), False)
        last = frame(opcode_continuation, rest[:piece_bytes + 5], length_bits=16,
                     length=len(rest))
        return sending_styles.sent_t([*wire, last], payload[:5000 + piece_bytes], False)

    end_when_read(soak, cut, size, size - 5000 - piece_bytes, choices)


def end_when_read(soak, cut, size, remaining, choices):
    """Sends a cut message, and ends the connection when the daemon is seen to wait for the rest."""
    line = b"Get incomplete packet, remaining len %d" % remaining
    with soak.traffic.quiet(up=False):
        read = soak.rig.log.await_line(line)
        soak.rig.send_down(cut, size)
        soak.rig.wait(read.is_set, "the daemon at the end of a cut message")
        drop(soak, choices.choice(("rst", "fin")), cut_exactly=True)


@fault("service refuses for a while")
def refused(soak, choices):
    soak.rig.service.listen(False)
    drop(soak, "rst")
    wait_disconnected(soak, choices)
    soak.rig.service.listen(True)


@fault("HTTP 503 for a while")
def unavailable(soak, choices):
    misbehave(soak, choices, "unavailable")


@fault("HTTP 403 for a while")
def forbidden(soak, choices):
    misbehave(soak, choices, "refuse")


@fault("garbage for an answer for a while")
def garbage(soak, choices):
    misbehave(soak, choices, "garbage")


def misbehave(soak, choices, mode):
    soak.rig.service.behave(mode)
    drop(soak, "rst")
    wait_disconnected(soak, choices)
    soak.rig.service.behave("upgrade")


@fault("silent accept for a while")
def silent(soak, choices):
    soak.rig.service.behave("silent")
    drop(soak, "fin")
    soak.rig.wait(lambda: soak.rig.attempts.get("silent", 0) > 0, "an attempt")
    soak.rig.sleep(choices.uniform(1, 4))
    soak.rig.service.behave("upgrade")


@fault("connections reset as soon as made")
def flapping(soak, choices):
    rig = soak.rig
    made = rig.connections_made
    times = choices.randint(2, 4)
    rig.service.behave("reset")
    drop(soak, "rst")
    rig.wait(lambda: rig.connections_made >= made + times, "connections to be reset")
    rig.service.behave("upgrade")


def wait_disconnected(soak, choices):
    """Some seconds without a service; a status request is then answered accordingly."""
    rig = soak.rig
    rig.sleep(choices.uniform(1, 4))
    with soak.traffic.quiet(down=False):
        if rig.ask_status() != "disconnected":
            rig.violate('the state is not "disconnected" while there is no service')


@fault("service stops reading")
def stops_reading(soak, choices):
    rig = soak.rig
    connection = rig.connection
    rig.service.read(connection, False)
    rig.send_up([choices.randint(1, 2) * 1024 * 1024], one_by_one=True)
    rig.sleep(choices.uniform(3, 8))
    rig.service.read(connection, True)


@fault("service suspended")
def service_suspended(soak, choices):
    soak.rig.service.suspend()
    try:
        soak.rig.sleep(choices.uniform(2, 6))
    finally:
        soak.rig.service.resume()


@fault("daemon suspended")
def daemon_suspended(soak, choices):
    process = soak.rig.daemon.process
    process.send_signal(signal.SIGSTOP)
    try:
        soak.rig.sleep(choices.uniform(3, 8))
    finally:
        process.send_signal(signal.SIGCONT)


@fault("daemon replaced", weight=0)
def daemon_replaced(soak, choices):
    """Once, so that from then on the memory of one daemon is watched."""
    soak.replace_daemon()


@fault("ping flood")
def ping_flood(soak, choices):
    rig = soak.rig
    with rig.sending_down:
        rig.service.write(rig.connection, [b"".join(
            frame(opcode_ping, b"flood %d" % i) for i in range(choices.randint(200, 1000)))])


protocol_errors = {
    "reserved bit": frame(opcode_text, b"reserved", reserved=0x40),
    "unknown opcode": frame(3, b"unknown"),
    "length with the top bit set": frame(opcode_text, b"top", length_bits=64, length=1 << 63 | 3),
    "continuation without a start": frame(opcode_continuation, b"no start"),
    "long control frame": frame(opcode_ping, b"x" * 126),
    "fragmented control frame": frame(opcode_ping, b"x", final=False),
    "long close frame": frame(opcode_close, b"x" * 126),
}


def protocol_error(soak, choices, wire):
    rig = soak.rig
    with rig.sending_down, rig.lock:
        rig.expect_drop(rig.connection)
        rig.service.write(rig.connection, [wire])


for error_name, error_wire in protocol_errors.items():
    fault(f"error: {error_name}")(functools.partial(protocol_error, wire=error_wire))


@fault("error: message in a message")
def message_in_message(soak, choices):
    def begun_twice(payload, _):
        return sending_styles.sent_t(
            [frame(opcode_text, payload, final=False), frame(opcode_text, b"second")], payload,
            False)

    with soak.rig.sending_down:
        soak.rig.send_down(begun_twice, choices.randint(20, 2000))
        soak.rig.expect_drop(soak.rig.connection)


@fault("masked frame")
def masked(soak, choices):
    with soak.traffic.quiet():
        soak.rig.probe()
        soak.rig.send_down(sending_styles.masked_frame, choices.randint(20, 500))
        soak.rig.probe()


@fault("fragments, streams and empty messages")
def odd_messages(soak, choices):
    for _ in range(choices.randint(5, 10)):
        soak.rig.send_down(choices.choice((
            sending_styles.fragments, sending_styles.fragments_with_pings,
            sending_styles.streamed, sending_styles.empty)))


@fault("frames of one byte")
def frames_of_one_byte(soak, choices):
    soak.rig.send_down(sending_styles.many_small_frames, choices.randint(500, 2000))


@fault("segments of one byte")
def segments_of_one_byte(soak, choices):
    for _ in range(3):
        soak.rig.send_down(sending_styles.fragments, choices.randint(100, 1500), bytewise=True)


@fault("burst of tiny messages")
def burst(soak, choices):
    with soak.traffic.quiet(down=False):
        soak.rig.send_up([1] * choices.randint(30, 80))
    for _ in range(choices.randint(100, 300)):
        soak.rig.send_down(size=1)


@fault("large messages")
def large_messages(soak, choices):
    soak.rig.send_up([choices.randint(1, 2) * 1024 * 1024 + choices.randint(0, 9999)],
                        one_by_one=True)
    soak.rig.send_down(choices.choice((sending_styles.one_frame, sending_styles.fragments)),
                          choices.randint(100, 150) * 1024)


@fault("empty message from the bus")
def empty_from_bus(soak, choices):
    with soak.traffic.quiet(down=False):
        soak.rig.probe()
        soak.rig.send_up([0], one_by_one=True)
        soak.rig.probe()


@fault("bus dropped and re-joined")
def rejoin(soak, choices):
    rig = soak.rig
    with soak.unheard():
        rig.bus.rejoin()


@fault("listener restarted")
def listener_restarted(soak, choices):
    rig = soak.rig
    with soak.unheard():
        rig.bus.stop()
        rig.bus.notes.clear()
        rig.bus.readers.clear()
        rig.bus.listen()
        rig.bus.wait_listening()


@fault("status request at rest")
def status_at_rest(soak, choices):
    rig = soak.rig
    with soak.traffic.quiet():
        rig.probe()
        rig.judge_status()
        for _ in range(choices.randint(1, 3)):
            if rig.ask_status() != "connected":
                rig.violate('the state is not "connected" while there is a connection')


@fault("internal messages")
def internal_messages(soak, choices):
    soak.rig.send_up([None] * 3, odd_lines=[internal_message(choices), status_request,
                                               internal_message(choices)])
