"""Proxy variables of the caller's shell do not divert the connection."""

# Test: 1 s

from harness.raw_server import silent
from harness.vemk_daemon import config_text


# With six proxy variables set the daemon connects, and the proxy sees nobody.
def test_proxy_variables_are_ignored(make_daemon, make_raw_server, bus, server):
    proxy = make_raw_server(silent)
    address = f"127.0.0.1:{proxy.port}"
    bus.listen()
    make_daemon().start(config_text(server.url, log_level=15), environment={
        "http_proxy": address, "HTTP_PROXY": address, "socks_proxy": address,
        "SOCKS_PROXY": address, "all_proxy": address, "ALL_PROXY": address})
    bus.wait_until_connected()
    assert len(server.handshakes) == 1
    assert proxy.connections == []
