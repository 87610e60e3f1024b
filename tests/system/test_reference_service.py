"""The daemon and the reference service of this repository understand each other."""

import subprocess
import threading

import pytest

from harness.vemk_daemon import config_text
from harness.waiting import wait_until


@pytest.fixture
def service(companion_folder):
    process = subprocess.Popen([companion_folder / "roam-service", "--port", "0"], text=True, bufsize=1,
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL)
    process.lines = []
    reader = threading.Thread(
        target=lambda: process.lines.extend(line.rstrip("\n") for line in process.stdout),
        daemon=True)
    url = process.stdout.readline().split()[-1]
    process.url = url
    reader.start()
    yield process
    process.terminate()
    process.wait(20)
    reader.join(20)
    for stream in (process.stdin, process.stdout):
        stream.close()


# A message each way, and "disconnected" when the service ends.
def test_messages_pass_between_bus_and_reference_service(make_daemon, bus, service):
    bus.listen()
    daemon = make_daemon().start(config_text(service.url))
    bus.wait_until_connected()
    bus.send(b"from the bus")
    wait_until(lambda: service.lines == ["from the bus"], "the message at the service",
               details=lambda: str(service.lines))
    service.stdin.write("from the service\n")
    service.stdin.flush()
    assert bus.wait_for_payloads(1) == [b"from the service"]
    announced = len(bus.statuses())
    service.terminate()
    assert service.wait(20) == 0
    bus.wait_for_statuses(announced + 1)
    assert bus.statuses()[announced] == "disconnected"
    assert daemon.runs()
