"""The request that opens the connection, and configurations that lead to it."""

# Test: 7 s

import pytest

from harness.raw_server import opcode_text, upgrade
from harness.vemk_daemon import config_text


# Host is the bare host, Origin "http://" and that host, both without the port; version 13, "websock-roaming", and no extensions.
def test_request_names_host_path_and_subprotocol(make_rig):
    daemon, bus, server = make_rig()
    handshake = server.handshakes[0]
    assert handshake.path == "/roam"
    assert handshake.headers["Host"] == "127.0.0.1"
    assert handshake.headers["Origin"] == "http://127.0.0.1"
    assert handshake.headers["Sec-WebSocket-Protocol"] == "websock-roaming"
    assert handshake.headers["Sec-WebSocket-Version"] == "13"
    assert "Sec-WebSocket-Extensions" not in handshake.headers
    assert handshake.subprotocol == "websock-roaming"


# An answer without a subprotocol connects, and messages pass both ways.
def test_server_that_chooses_no_subprotocol_is_accepted(make_daemon, make_raw_server, bus):
    server = make_raw_server(upgrade)
    bus.listen()
    make_daemon().start(config_text(server.url))
    bus.wait_until_connected()
    bus.send(b"up")
    assert server.wait_for_frames(opcode_text, 1)[0].payload == b"up"
    server.send_text_frame(b"down")
    assert bus.wait_for_payloads(1) == [b"down"]


# No scheme, upper case, two URLs, an overlong line and a NUL byte: the last whole URL counts.
@pytest.mark.parametrize("config, path", [
    ("roam_service_url=127.0.0.1:{port}/", "/"),
    ("# a note\n\nROAM_SERVICE_URL=ws://127.0.0.1:{port}/deep/er?q=1\r\nap_location=\r\n",
     "/deep/er?q=1"),
    ("roam_service_url=ws://127.0.0.1:1/no\nroam_service_url=ws://127.0.0.1:{port}/last\n",
     "/last"),
    ("initial_connection_delay=99999999999999999999\ninitial_connection_delay=1\n" + "x" * 5000
     + "\nroam_service_url=ws://127.0.0.1:{port}/after-a-long-line", "/after-a-long-line"),
    ("nul\0byte=1\nroam_service_url=ws://127.0.0.1:{port}/after-a-nul\n", "/after-a-nul"),
], ids=["no-scheme", "letter-case", "last-counts", "long-line", "nul-byte"])
def test_configuration_leads_to_the_path(make_daemon, server, config, path):
    make_daemon().start(config.format(port=server.port))
    server.wait_for_connections(1)
    assert server.handshakes[0].path == path


# -d, -p and -P in front of the -f options do not count, nor does a file that is missing.
def test_options_are_overridden_by_the_file(make_daemon, server, place):
    file = place.folder / "override.conf"
    file.write_text(config_text(server.url))
    make_daemon().start(arguments=["-d", "no-such-host.invalid", "-p", "/other", "-P", "1",
                                   "-f", place.folder / "missing.conf", "-f", file])
    server.wait_for_connections(1)
    assert server.handshakes[0].path == "/roam"
