"""Many messages at forty times the daemon's pace."""

# Test: 33 s, native only

from harness.keepalive import fast_clock
from harness.vemk_daemon import config_text


# Fault, while connected: 10,000 messages of 6 bytes from the server and 10,000 from the bus, all at
# once.
# Seen: each arrives once, unchanged and in order, on the one connection; from the bus one in a
# step, so that the last leaves after more than 1000 s of the daemon's clock.
def test_ten_thousand_messages_each_way_arrive_in_order(make_daemon, bus, server):
    bus.listen()
    daemon = make_daemon().start(config_text(server.url), **fast_clock(40))
    bus.wait_until_connected()
    descriptors = daemon.descriptor_count()
    up = [b"u%05d" % number for number in range(10000)]
    down = [b"d%05d" % number for number in range(10000)]
    bus.send_lines(up)
    server.send_many([message.decode() for message in down])
    assert bus.wait_for_payloads(len(down), seconds=90) == down
    assert server.wait_for_payloads(len(up), seconds=90) == up
    assert len(server.handshakes) == 1
    assert bus.run("status", "--timeout", "20").stdout == b"connected\n"
    daemon.wait_for_descriptors(descriptors)
