"""The daemon and the reference service of this repository understand each other."""

# Test: 1 s

import pytest

from harness.reference_service import reference_service
from harness.vemk_daemon import config_text


@pytest.fixture
def service(companion_folder):
    made = reference_service(companion_folder)
    yield made
    made.end()


# A message each way, and "disconnected" when the service ends.
def test_messages_pass_between_bus_and_reference_service(make_daemon, bus, service):
    bus.listen()
    daemon = make_daemon().start(config_text(service.url))
    bus.wait_until_connected()
    bus.send(b"from the bus")
    assert service.wait_for_payloads(1) == [b"from the bus"]
    service.send("from the service")
    assert bus.wait_for_payloads(1) == [b"from the service"]
    announced = len(bus.statuses())
    assert service.end() == 0
    bus.wait_for_statuses(announced + 1)
    assert bus.statuses()[announced] == "disconnected"
    assert daemon.runs()
