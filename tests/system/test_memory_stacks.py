"""Threads with 128 KiB of stack each, which is what small C libraries give them."""

# Test: 6 s, not under a sanitizer
# The sanitizers keep tables of their own on every thread's stack.

import pathlib

import pytest

from harness.frame_server import pattern

stack_bytes = 128 * 1024


@pytest.fixture
def rig(make_rig):
    made = make_rig({"stack_bytes": stack_bytes}, log_level=15)
    limits = pathlib.Path(f"/proc/{made.daemon.pid}/limits").read_text()
    assert f"Max stack size            {stack_bytes} " in limits
    return made


# 16 MiB and the message behind it reach the server over one connection.
def test_sixteen_mebibytes_from_the_bus(rig):
    daemon, bus, server = rig
    message = pattern(16 << 20)
    bus.send(message)
    bus.send(b"next")
    assert server.wait_for_payloads(2, seconds=90) == [message, b"next"]
    assert len(server.handshakes) == 1


# 100,000 nested arrays, an unfinished object, a long string and a deep one are sent on unchanged.
@pytest.mark.parametrize("message", [
    b"[" * 100000 + b"]" * 100000,
    b'{"service":' * 50000,
    b'{"service":"' + b"x" * 200000 + b'","cmd":"status"}',
    b'{"service":"other","cmd":' + b'{"a":' * 30 + b"1" + b"}" * 30 + b"}",
], ids=["arrays", "unfinished", "long", "nested"])
def test_json_that_is_deep_or_long(rig, message):
    daemon, bus, server = rig
    bus.send(message)
    bus.send(b"next")
    assert server.wait_for_payloads(2) == [message, b"next"]


# Two dumps of 400 whole lines of high bytes are built and logged.
def test_dumps_in_both_directions(rig):
    daemon, bus, server = rig
    # The listing's lines are as wide as text makes them, and none is left out.
    message = "ü".encode() * (400 * 16)
    bus.send(message)
    server.send(message)
    assert server.wait_for_payloads(1) == [message]
    assert bus.wait_for_payloads(1) == [message]
    daemon.wait_for_lines("Buffer info dump:", count=2)
