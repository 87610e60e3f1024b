"""Whether the daemon carries messages both ways."""

utf8 = "Größe, 漢字, 🛰"
every_byte = bytes(range(256))
long_text = "".join(chr(0x20 + i % 95) for i in range(200 * 1024))


def passes_both_ways(bus, server, word):
    """Sends one message each way; the last to arrive must be these two, unaltered."""
    up, down = f"{word}, from the bus".encode(), f"{word}, from the server"
    arrived_up, arrived_down = len(server.payloads()), len(bus.payloads())
    bus.send(up)
    server.send(down)
    server.wait_for_payloads(arrived_up + 1)
    bus.wait_for_payloads(arrived_down + 1)
    return server.payloads()[arrived_up:] == [up] and \
        bus.payloads()[arrived_down:] == [down.encode()]


def assert_all_arrive(bus, server, up, down, seconds):
    """Sends all of them at once; each must arrive once, unaltered and in order."""
    bus.send_lines(up)
    server.send_many([message.decode() for message in down])
    assert server.wait_for_payloads(len(up), seconds) == up
    assert bus.wait_for_payloads(len(down), seconds) == down


def assert_all_kinds_pass(bus, server):
    """Empty, UTF-8, 200 KiB and NUL messages up; the same and all bytes down; a ping."""
    up = [b"", utf8.encode(), long_text.encode(), b"before\0after", b"after"]
    for message in up:
        bus.send(message)
    server.send_many([utf8, every_byte, long_text, "", "before\0after", "after"])
    server.ping()
    assert server.wait_for_payloads(len(up)) == up
    assert all(frame.is_text for frame in server.frames)
    # An empty message of the server is not delivered.
    assert bus.wait_for_payloads(5) == [utf8.encode(), every_byte, *up[2:]]
