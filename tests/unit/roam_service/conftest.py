"""Fixtures of roam-service's tests; a test that is a coroutine runs in an event loop of its own."""
import asyncio
import contextlib
import inspect
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "system"))

from raw_client import RawClient  # noqa: E402
from service_process import LIMIT, Service  # noqa: E402


@pytest.hookimpl(tryfirst=True)
def pytest_pyfunc_call(pyfuncitem):
    if not inspect.iscoroutinefunction(pyfuncitem.obj):
        return None
    arguments = {name: pyfuncitem.funcargs[name] for name in pyfuncitem._fixtureinfo.argnames}
    asyncio.run(asyncio.wait_for(pyfuncitem.obj(**arguments), 2 * LIMIT))
    return True


@pytest.fixture
def start():
    """Starts roam-service with options; it has to end with its `expected_status`."""
    running = []

    def started(*options, **popen_options):
        running.append(Service("--port", "0", *options, **popen_options))
        return running[-1]
    yield started
    for service in running:
        assert service.stop() == service.expected_status


@pytest.fixture
def service(start):
    return start()


@pytest.fixture
def connect(start):
    """Starts roam-service with options and connects to it."""
    with contextlib.ExitStack() as clients:
        def connected(*options):
            service = start(*options)
            client = clients.enter_context(RawClient(service.port))
            service.wait_for_note("daemon connected")
            return service, client
        yield connected
