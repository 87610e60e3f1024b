"""The bus drops the daemon: it joins again, and the connection to the server is not touched."""

# Test: 4 s



# Three rejoins: messages pass both ways after each, over the one connection, no descriptor more.
def test_traffic_goes_on_after_each_rejoin(make_rig):
    daemon, bus, server = make_rig(log_level=15)
    announced = len(bus.statuses())
    descriptors = daemon.descriptor_count()
    for number in range(1, 4):
        bus.rejoin()
        answer = bus.run("status", "--timeout", "20")
        assert answer.stdout == b"connected\n", answer.stderr
        bus.send(b"up %d" % number)
        server.wait_for_payloads(number)
        # The listener is known to be back when it has seen this answer.
        seen = len(bus.statuses())
        bus.send(b'{"service":"internal-ipc","cmd":"status"}')
        bus.wait_for_statuses(seen + 1)
        server.send(f"down {number}")
        bus.wait_for_payloads(number)
    assert server.payloads() == [b"up 1", b"up 2", b"up 3"]
    assert bus.payloads() == [b"down 1", b"down 2", b"down 3"]
    assert set(bus.statuses()[announced:]) == {"connected"}
    assert len(server.handshakes) == 1
    daemon.wait_for_descriptors(descriptors)
