"""One test, several roaming services that share no code with each other or with the daemon."""

import pytest

from harness.aiohttp_server import aiohttp_server
from harness.node_server import node_server
from harness.roaming_server import roaming_server


def with_servers(*kinds):
    """Runs a test once with each of these in place of the fixture `server`."""
    return pytest.mark.parametrize("server", kinds, indirect=True, ids=lambda kind: kind.__name__)


with_each_server = with_servers(roaming_server, aiohttp_server, node_server)
with_fragmenting_servers = with_servers(roaming_server, node_server)
