"""One test, three roaming services that share no code with each other or with the daemon.

Importing `server` into a test file runs each of its tests with every one of them.
"""

import pytest

from harness.aiohttp_server import aiohttp_server
from harness.node_server import node_server
from harness.roaming_server import roaming_server


@pytest.fixture(params=[roaming_server, aiohttp_server, node_server],
                ids=lambda kind: kind.__name__)
def server(request):
    made = request.param()
    made.start()
    yield made
    made.shut_down()
