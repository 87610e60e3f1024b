"""What is done to the rig, one function a fault.

A fault gets the soak, its rig and a source of random numbers that is its own. It returns when what
it did is over; the soak then waits for the daemon to heal. `weight` is how often the fault stands
in each round of the schedule but the first, which holds every fault once.
"""

import collections
import contextlib
import functools
import signal

from harness.bus_peer import status_request
from harness.frames import (frame, opcode_binary, opcode_close, opcode_continuation, opcode_ping,
                            opcode_text)

from messages import internal_message
from sending_styles import (cut_up, empty, fragments, fragments_with_pings, in_fragments,
                            many_small_frames, masked_frame, one_frame, sent_t, streamed)

fault_t = collections.namedtuple("fault_t", "name weight inject")

faults = []

piece_bytes = 4096


def fault(name, weight=1):
    def enter(inject):
        faults.append(fault_t(name, weight, inject))
        return inject
    return enter


def drop(rig, how, code=None, cut_exactly=False):
    """Ends the connection that is up."""
    with rig.sending_down, rig.lock:
        connection = rig.connection
        rig.expect_drop(connection, cut_exactly)
        rig.service.drop(connection, how, code)


@fault("close frame", weight=3)
def close_frame(soak, rig, choices):
    drop(rig, "close", choices.choice((None, 1000, 1001, 1008, 1009, 1011, 1012)))


fault("FIN", weight=2)(lambda soak, rig, choices: drop(rig, "fin"))
fault("RST", weight=2)(lambda soak, rig, choices: drop(rig, "rst"))


@fault("end at rest")
def end_at_rest(soak, rig, choices):
    """Nothing is under way, so nothing may be missing afterwards."""
    with soak.traffic.quiet():
        rig.probe()
        drop(rig, choices.choice(("fin", "rst", "close")))


def cut_frame(opcode, payload, sent_bytes):
    """A frame that announces the whole payload and ends before."""
    return frame(opcode, payload[:sent_bytes], length_bits=16, length=len(payload))


@fault("end in mid-frame, at any byte", weight=2)
def end_in_mid_frame(soak, rig, choices):
    """How much of the frame the daemon has read is not known."""
    def cut(payload, _):
        half = len(payload) // 2
        return sent_t([cut_frame(opcode_text, payload, half)], payload[:half], False)

    with soak.traffic.quiet(up=False):
        rig.send_down(cut, choices.randint(200, 60000))
        drop(rig, choices.choice(("rst", "fin")))


@fault("end in mid-frame, after whole pieces", weight=2)
def end_after_pieces(soak, rig, choices):
    """The library hands a frame on in pieces, so these are what stays in the receive buffer."""
    kept = choices.randint(1, 4) * piece_bytes
    size = kept + choices.randint(5000, 9999)
    more = choices.randint(0, piece_bytes - 1)

    def cut(payload, _):
        return sent_t([cut_frame(opcode_binary, payload, kept + more)], payload[:kept], False)

    end_when_read(soak, rig, cut, size, size - kept, choices)


@fault("end in mid-message, after whole fragments", weight=2)
def end_after_fragments(soak, rig, choices):
    size = choices.randint(10000, 20000)
    whole = 5000

    def cut(payload, source):
        wire = in_fragments(cut_up(payload[:whole], source), False)
        last = cut_frame(opcode_continuation, payload[whole:], piece_bytes + 5)
        return sent_t([*wire, last], payload[:whole + piece_bytes], False)

    end_when_read(soak, rig, cut, size, size - whole - piece_bytes, choices)


def end_when_read(soak, rig, cut, size, remaining, choices):
    """Sends a cut message, and ends the connection when the daemon is seen to wait for the rest."""
    line = b"Get incomplete packet, remaining len %d" % remaining
    with soak.traffic.quiet(up=False):
        read = rig.log.await_line(line)
        rig.send_down(cut, size)
        rig.wait(read.is_set, "the daemon at the end of a cut message")
        drop(rig, choices.choice(("rst", "fin")), cut_exactly=True)


@fault("service refuses for a while")
def refused(soak, rig, choices):
    rig.service.stop()
    drop(rig, "rst")
    wait_disconnected(soak, rig, choices)
    rig.service.start()


@contextlib.contextmanager
def misbehaving(rig, mode, how="rst"):
    rig.service.behave(mode)
    drop(rig, how)
    yield
    rig.service.behave("upgrade")


def misbehave(soak, rig, choices, mode):
    with misbehaving(rig, mode):
        wait_disconnected(soak, rig, choices)


for answer, answer_mode in (("HTTP 503", "unavailable"), ("HTTP 403", "refuse"),
                            ("garbage for an answer", "garbage")):
    fault(f"{answer} for a while")(functools.partial(misbehave, mode=answer_mode))


@fault("silent accept for a while")
def silent(soak, rig, choices):
    with misbehaving(rig, "silent", "fin"):
        rig.wait(lambda: rig.attempts.get("silent", 0) > 0, "an attempt")
        rig.sleep(choices.uniform(1, 4))


@fault("connections reset as soon as made")
def flapping(soak, rig, choices):
    made = rig.connections_made
    times = choices.randint(2, 4)
    with misbehaving(rig, "reset"):
        rig.wait(lambda: rig.connections_made >= made + times, "connections to be reset")


def wait_disconnected(soak, rig, choices):
    """Some seconds without a service; a status request is then answered accordingly."""
    rig.sleep(choices.uniform(1, 4))
    with soak.traffic.quiet(down=False):
        if rig.ask_status() != "disconnected":
            rig.violate('the state is not "disconnected" while there is no service')


@fault("service stops reading")
def stops_reading(soak, rig, choices):
    connection = rig.connection
    rig.service.read(connection, False)
    rig.send_up([choices.randint(1, 2) * 1024 * 1024], one_by_one=True)
    rig.sleep(choices.uniform(3, 8))
    rig.service.read(connection, True)


@fault("service suspended")
def service_suspended(soak, rig, choices):
    with contextlib.ExitStack() as suspended:
        suspended.callback(rig.service.suspend())
        rig.sleep(choices.uniform(2, 6))


@fault("daemon suspended")
def daemon_suspended(soak, rig, choices):
    with contextlib.ExitStack() as suspended:
        suspended.callback(rig.daemon.process.send_signal, signal.SIGCONT)
        rig.daemon.process.send_signal(signal.SIGSTOP)
        rig.sleep(choices.uniform(3, 8))


@fault("daemon replaced", weight=0)
def daemon_replaced(soak, rig, choices):
    """Once, so that from then on the memory of one daemon is watched."""
    soak.replace_daemon()


@fault("ping flood")
def ping_flood(soak, rig, choices):
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


def protocol_error(soak, rig, choices, wire):
    with rig.sending_down, rig.lock:
        rig.expect_drop(rig.connection)
        rig.service.write(rig.connection, [wire])


for error_name, error_wire in protocol_errors.items():
    fault(f"error: {error_name}")(functools.partial(protocol_error, wire=error_wire))


@fault("error: message in a message")
def message_in_message(soak, rig, choices):
    def begun_twice(payload, _):
        return sent_t([frame(opcode_text, payload, final=False), frame(opcode_text, b"second")],
                      payload, False)

    with rig.sending_down, rig.lock:
        rig.send_down(begun_twice, choices.randint(20, 2000))
        rig.expect_drop(rig.connection)


@fault("masked frame")
def masked(soak, rig, choices):
    with soak.traffic.quiet():
        rig.probe()
        rig.send_down(masked_frame, choices.randint(20, 500))
        rig.probe()


@fault("fragments, streams and empty messages")
def odd_messages(soak, rig, choices):
    for _ in range(choices.randint(5, 10)):
        rig.send_down(choices.choice((fragments, fragments_with_pings, streamed, empty)))


@fault("frames of one byte")
def frames_of_one_byte(soak, rig, choices):
    rig.send_down(many_small_frames, choices.randint(500, 2000))


@fault("segments of one byte")
def segments_of_one_byte(soak, rig, choices):
    for _ in range(3):
        rig.send_down(fragments, choices.randint(100, 1500), bytewise=True)


@fault("burst of tiny messages")
def burst(soak, rig, choices):
    with soak.traffic.quiet(down=False):
        rig.send_up([1] * choices.randint(30, 80))
    for _ in range(choices.randint(100, 300)):
        rig.send_down(size=1)


@fault("large messages")
def large_messages(soak, rig, choices):
    rig.send_up([choices.randint(1, 2) * 1024 * 1024 + choices.randint(0, 9999)], one_by_one=True)
    rig.send_down(choices.choice((one_frame, fragments)), choices.randint(100, 150) * 1024)


@fault("empty message from the bus")
def empty_from_bus(soak, rig, choices):
    with soak.traffic.quiet(down=False):
        rig.probe()
        rig.send_up([0], one_by_one=True)
        rig.probe()


@fault("bus dropped and re-joined")
def rejoin(soak, rig, choices):
    with soak.unheard():
        rig.bus.rejoin()


@fault("listener restarted")
def listener_restarted(soak, rig, choices):
    with soak.unheard():
        rig.bus.stop()
        rig.bus.notes.clear()
        rig.bus.readers.clear()
        rig.bus.listen()
        rig.bus.wait_listening()


@fault("status request at rest")
def status_at_rest(soak, rig, choices):
    with soak.traffic.quiet():
        rig.probe()
        rig.judge_status()
        for _ in range(choices.randint(1, 3)):
            if rig.ask_status() != "connected":
                rig.violate('the state is not "connected" while there is a connection')


@fault("internal messages")
def internal_messages(soak, rig, choices):
    rig.send_up([None] * 3, odd_lines=[internal_message(choices), status_request,
                                       internal_message(choices)])
