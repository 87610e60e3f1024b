"""The first ping, in real time: 30 s after the handshake."""

# Test: 32 s, emulated only
# The keepalive takes its time where the daemon's clock cannot be made faster; elsewhere
# test_fault_keepalive.py shows it.

import re

from harness.raw_server import opcode_ping, opcode_pong, opcode_text, upgrade
from harness.vemk_daemon import config_text


# The first ping comes 30 s after the handshake, is empty, and logged as "[5] len [6/0]  to".
def test_ping_after_thirty_seconds_without_payload(make_daemon, make_raw_server, bus):
    server = make_raw_server(upgrade)
    bus.listen()
    daemon = make_daemon().start(config_text(server.url, log_level=15))
    bus.wait_until_connected()
    established = server.accept_times[0]
    ping = server.wait_for_frames(opcode_ping, 1, seconds=60)[0]
    assert (ping.payload, ping.final, ping.masked) == (b"", True, True)
    # Whole seconds of the clock are compared, so up to one second is missing from 30.
    assert 28.9 <= ping.time - established
    due, = daemon.lines_with("It's time to ping")
    assert re.fullmatch(r"websock-roaming->process_client_writeable: It's time to ping websocket "
                        r"server, expired \[3\d\]", due.text)
    sent, = daemon.lines_with("Send msg type [5]")
    assert sent.text == "websock-roaming->lws_send:Send msg type [5] len [6/0]  to websocket"
    server.connections[0].sendall(bytes([0x80 | opcode_pong, 0]))
    daemon.wait_for_lines("process_client_receive_pong:119")
    bus.send(b"still here")
    assert server.wait_for_frames(opcode_text, 1)[0].payload == b"still here"
    assert len(server.connections) == 1
