"""Fixtures of the system tests.

Environment: VEMK_BUILD_DIR, the folder with vemk; VEMK_COMPANION_DIR, the folder with vemkctl and
roam-service when it is another one; VEMK_RUNNER, words to put in front of the daemon's command
line; VEMK_RUNNER_DIR, a folder that they need and that may lie under /tmp; VEMK_SLOWDOWN, a factor
for every limit; VEMK_PACING, "event" for tests of the daemon with pacing=event.
"""

import collections
import functools
import os
import pathlib
import signal
import subprocess

import pytest

from harness.bus_peer import bus_peer
from harness.frame_server import frame_server
from harness.handshake_faults import failing_server, handshake_trial
from harness.network import far_address, wired_networks
from harness.raw_server import raw_server
from harness.reference_service import reference_service
from harness.roaming_server import roaming_server
from harness.sandbox import sandbox
from harness.vemk_daemon import config_text, vemk_daemon

# What a test has started is stopped and removed when the test program is told to end, too.
signal.signal(signal.SIGTERM, signal.default_int_handler)

rig_t = collections.namedtuple("rig_t", "daemon bus server")


def folder_with(variable, default, *programs):
    folder = pathlib.Path(os.environ.get(variable) or default).absolute()
    for program in programs:
        if not (folder / program).exists():
            pytest.fail(f"{folder} holds no {program}: build it, or name its folder in {variable}")
    return folder


@pytest.fixture
def build_folder():
    return folder_with("VEMK_BUILD_DIR", "build", "vemk")


@pytest.fixture
def companion_folder(build_folder):
    return folder_with("VEMK_COMPANION_DIR", build_folder, "vemkctl", "roam-service")


@pytest.fixture
def place(build_folder, companion_folder):
    made = sandbox(build_folder, companion_folder, os.environ.get("VEMK_RUNNER_DIR"))
    yield made
    made.remove()


@pytest.fixture
def make_daemon(place):
    """Makes daemons, and fails the test when one ended by itself or reported a memory error."""
    made = []

    def make():
        made.append(vemk_daemon(place, f"daemon-{len(made) + 1}"))
        return made[-1]

    yield make
    problems = [problem for daemon in made for problem in daemon.problems()]
    for daemon in made:
        daemon.stop()
        if daemon.process:
            print(f"--- end of the log of {daemon.name}\n{daemon.log_text()[-4000:]}")
    assert not problems, "\n".join(problems)


@pytest.fixture
def bystander():
    """A process that is no daemon."""
    process = subprocess.Popen(["sleep", "600"])
    yield process
    process.kill()
    process.wait()


@pytest.fixture
def bus(place):
    made = bus_peer(place)
    yield made
    made.stop()


@pytest.fixture
def server(request):
    """The service that most tests use; `with_servers` has them run with others too."""
    made = getattr(request, "param", roaming_server)()
    made.start()
    yield made
    made.shut_down()


@pytest.fixture
def service(companion_folder):
    """roam-service, the service that comes with the daemon."""
    made = reference_service(companion_folder)
    yield made
    made.end()


@pytest.fixture
def make_raw_server():
    made = []

    def make(behaviour):
        made.append(raw_server(behaviour))
        return made[-1]

    yield make
    for one in made:
        one.shut_down()


@pytest.fixture
def make_trial(start_rig):
    """Starts a daemon with a server that accepts it once and then shows it the faults."""
    made = []

    def make(faults, reads_requests=True, **start_options):
        made.append(failing_server(faults, reads_requests))
        return handshake_trial(start_rig(made[-1], start_options, log_level=15))

    yield make
    for server in made:
        server.shut_down()


@pytest.fixture
def start_rig(make_daemon, bus):
    """Starts a daemon between the bus and a server; returns when "connected" was announced."""

    def start(server, start_options=None, **settings):
        bus.listen()
        daemon = make_daemon().start(config_text(server.url, **settings), **(start_options or {}))
        bus.wait_until_connected()
        return rig_t(daemon, bus, server)

    return start


@pytest.fixture
def make_rig(start_rig, server):
    """The same with a server that keeps to the protocol."""
    return functools.partial(start_rig, server)


@pytest.fixture
def make_frame_rig(start_rig):
    """The same with a server that sends what the test tells it, frame by frame."""
    servers = []

    def make(start_options=None, server_options=None, **settings):
        servers.append(frame_server(**(server_options or {})))
        return start_rig(servers[-1], start_options, **settings)

    yield make
    for made in servers:
        made.shut_down()


@pytest.fixture
def make_asked_rig(start_rig, place):
    """The same with a service that sends what a message from the bus asks it for."""
    services = []

    def make(service_type, **settings):
        services.append(service_type(place).start())
        return start_rig(services[-1], **settings)

    yield make
    for made in services:
        made.stop()


@pytest.fixture
def networks():
    made = wired_networks()
    yield made
    made.close()


@pytest.fixture
def far_server(networks):
    """A server at the far end of the wire."""
    made = roaming_server()
    made.host = far_address

    async def move():
        networks.far.enter()

    made.call(move())
    made.start()
    yield made
    made.shut_down()


@pytest.fixture
def make_wired_rig(start_rig, networks, far_server):
    """The same as make_rig with the wire between daemon and server."""

    def make(start_options=None, **settings):
        wired = {"network": networks.near, **(start_options or {})}
        return start_rig(far_server, wired, **settings)

    return make
