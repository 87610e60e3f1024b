"""No memory at one request of a message's way, and a limit that leaves none for a long message."""

# Test: 10 s, native only, not under a sanitizer
# The sanitizers manage the memory themselves.

import resource

import pytest

from harness.preloaded import failing_memory
from harness.process_memory import address_space_bytes
from harness.round_trip import passes_both_ways
from harness.vemk_daemon import config_text

no_memory = "append:95 Can't alloc memory"
not_sent = "websock-roaming->lws_send:Can't send msg type [0] to websocket"
not_received = "websock-roaming->process_client_receive: can't receive message"
record_head = 13
mebibyte = 1 << 20


@pytest.fixture
def memory(place):
    return failing_memory(place)


@pytest.fixture
def start(make_daemon, bus, server, memory):
    """Starts a daemon and returns it connected."""

    def start_connected():
        bus.received.clear()
        daemon = make_daemon().start(config_text(server.url, log_level=1),
                                     environment=memory.environment, preload=memory.library)
        bus.wait_until_connected()
        return daemon

    bus.listen()
    return start_connected


def error_lines(daemon):
    return [line.text for line in daemon.log_lines()]


def ended_by_exception(daemon, worker):
    return daemon.wait_for_exit() == 255 and \
        daemon.output() == f"Unhandled exception at worker '{worker}'\n"


# Fault, in the process: no memory for the copy of a message from the bus.
# Seen: "append:95 Can't alloc memory", the message is lost, the next one passes.
def test_no_memory_for_a_message_from_the_bus_loses_it(start, bus, server, memory):
    daemon = start()
    memory.fail("ipc", size=5001)
    bus.send(b"m" * 5000)
    daemon.wait_for_lines(no_memory)
    assert passes_both_ways(bus, server, "after the lost message")
    assert server.payloads() == [b"after the lost message, from the bus"]
    assert error_lines(daemon) == [no_memory]


# Fault, in the process: no memory for the frame of a message of 40,000 bytes.
# Seen: "lws_send:Can't send msg type [0] to websocket", the message is lost, the next one passes.
def test_no_memory_for_a_frame_loses_the_message(start, bus, server, memory):
    daemon = start()
    memory.fail("websock-roaming", size=40016)
    bus.send(b"m" * 40000)
    daemon.wait_for_lines(not_sent)
    assert passes_both_ways(bus, server, "after the lost frame")
    assert server.payloads() == [b"after the lost frame, from the bus"]
    assert error_lines(daemon) == [not_sent]


# Fault, in the process: no memory for the first, the middle and the last of three pieces received.
# Seen: the message without the first or the middle one; without the last one nothing but "can't
# receive message". Each time "append:95 Can't alloc memory", and the next message passes.
@pytest.mark.parametrize("refused, heard, lines", [
    (1001, [b"b" * 1000 + b"c" * 1000], [no_memory]),
    (2001, [b"a" * 1000 + b"c" * 1000], [no_memory]),
    (3001, [], [no_memory, not_received]),
], ids=["first", "middle", "last"])
def test_no_memory_for_a_piece_from_the_server(start, bus, server, memory, refused, heard, lines):
    daemon = start()
    memory.fail("websock-roaming", size=refused)
    server.send_fragments([b"a" * 1000, b"b" * 1000, b"c" * 1000])
    memory.wait_refused()
    server.send("after the pieces")
    expected = [*heard, b"after the pieces"]
    assert bus.wait_for_payloads(len(expected)) == expected
    assert error_lines(daemon) == lines


# Fault, in the process: no memory for the object around a message from the bus.
# Seen: "Unhandled exception at worker 'ipc'" on standard output, status 255, and nothing of the
# message at the server; a daemon started again carries messages.
def test_an_exception_of_the_bus_thread_ends_the_process(start, bus, server, memory):
    daemon = start()
    memory.fail("ipc", behind=record_head + 4321)
    # The process may end before the bus has told the sender that the message was taken.
    bus.run("send", "--timeout", "1", "-", data=b"m" * 4321)
    assert ended_by_exception(daemon, "ipc")
    start()
    assert passes_both_ways(bus, server, "after the end")
    assert server.payloads() == [b"after the end, from the bus"]


# Fault, in the process: no memory for the next message's object when one has been received.
# Seen: "Unhandled exception at worker 'websock-roaming'" on standard output, status 255, and the
# message on the bus or not, unaltered; a daemon started again carries messages.
def test_an_exception_of_the_websock_thread_ends_the_process(start, bus, server, memory):
    daemon = start()
    message = b"m" * 2345
    # The first one is for the dump.
    memory.fail("websock-roaming", nth=2, behind=2346)
    server.send(message.decode())
    assert ended_by_exception(daemon, "websock-roaming")
    start()
    assert bus.payloads() in ([], [message])
    assert passes_both_ways(bus, server, "after the end")


# Fault, in the process: no memory for the dump of a received message.
# Seen: the message arrives unaltered, without a dump and without any other line.
def test_no_memory_for_a_dump_leaves_only_the_dump_out(start, bus, server, memory):
    daemon = start()
    memory.fail("websock-roaming", behind=2346)
    server.send("m" * 2345)
    assert bus.wait_for_payloads(1) == [b"m" * 2345]
    assert memory.refused_bytes() > 2345
    assert passes_both_ways(bus, server, "after the message")
    assert error_lines(daemon) == []


# Fault, in the process: an address space that leaves 96 MiB for a message of 64 MiB from the bus.
# Seen: the daemon lives and connection and bus stay; when the limit is lifted the message arrives.
def test_a_message_waits_on_the_bus_for_the_memory_it_needs(start, bus, server):
    daemon = start()
    message = b"%07d\n" * (1 << 20) % tuple(range(1 << 20)) * 8
    resource.prlimit(daemon.pid, resource.RLIMIT_AS,
                     (address_space_bytes(daemon.pid) + 96 * mebibyte, resource.RLIM_INFINITY))
    bus.send(message)
    server.send("meanwhile")
    assert bus.wait_for_payloads(1) == [b"meanwhile"]
    assert server.payloads() == []
    resource.prlimit(daemon.pid, resource.RLIMIT_AS,
                     (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
    assert server.wait_for_payloads(1, seconds=60) == [message]
    assert passes_both_ways(bus, server, "after the long message")
    assert len(server.handshakes) == 1
