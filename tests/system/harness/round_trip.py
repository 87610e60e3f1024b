"""Whether a bridge works."""


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
