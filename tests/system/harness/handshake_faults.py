"""A server that fails the handshake in one way after another, and then behaves."""

import collections

from harness import library_texts
from harness.library_texts import library_prefix, words_of
from harness.raw_server import finish, http_head, raw_server, upgrade, upgrade_lines
from harness.round_trip import passes_both_ways

endured_t = collections.namedtuple("endured_t", "daemon server courses library_lines")


def answers(data, end=None):
    """A behaviour that sends `data`, or what it returns for the request, and may then end."""

    def behaviour(server, connection, request):
        connection.sendall(data(request) if callable(data) else data)
        if end:
            end(connection)

    return behaviour


def changed_upgrade(change):
    """A behaviour that accepts the WebSocket with the lines that `change` returns."""
    return answers(lambda request: http_head(change(upgrade_lines(request))))


class failing_server(raw_server):
    """Accepts the first WebSocket; then each connection meets the next fault, and the last fault
    goes on until `behave`. A server that reads no requests shows its faults right after accepting.
    """

    def __init__(self, faults, reads_requests=True):
        self.faults = faults
        self.reads_requests = reads_requests
        self.behaves = False
        super().__init__(failing_server.fail_in_turn)

    def behave(self):
        self.behaves = True

    def fault_of(self, connection):
        number = self.connections.index(connection)
        if number == 0 or self.behaves:
            return upgrade
        return self.faults[min(number, len(self.faults)) - 1]

    def fail_in_turn(self, connection, request):
        self.fault_of(connection)(self, connection, request)

    def serve(self, connection):
        fault = self.fault_of(connection)
        if self.reads_requests or fault is upgrade:
            super().serve(connection)
        else:
            fault(self, connection, None)


def refused_course(port):
    """What the worker logs of an attempt that fails, library lines left out."""
    return ["Generate delay into [0;1) range",
            "Delay before connection: 0 sec",
            "websock-roaming-> _connect: Try to establish connect with server "
            f"127.0.0.1:{port}/roam",
            "websock-roaming->Connected",
            "websock-roaming->process_client_connection_error:41",
            "websock-roaming->Stopping",
            "websock-roaming->process_protocol_destroy:31"]


def attempt_seconds(daemon):
    """How long each of the failed attempts took, of those that got under way."""
    began, seconds = 0.0, []
    for line in daemon.log_lines():
        if line.text == "websock-roaming->Connected":
            began = line.time
        elif line.text == "websock-roaming->process_client_connection_error:41":
            seconds.append(line.time - began)
    return seconds


def courses_of(daemon):
    """The worker's own lines and the library's, each as one list per attempt."""
    own, library = [], []
    for line in daemon.log_lines():
        if line.module != "websock-worker":
            continue
        if line.text.startswith("Generate delay"):
            own.append([])
            library.append([])
        if line.text.startswith(library_prefix):
            library[-1].append(words_of(line.text))
        elif not (library_texts.reports_errors_twice and own[-1][-1:] == [line.text]):
            own[-1].append(line.text)
    return own, library


class handshake_trial:
    """A daemon that was connected, meets a failing_server's faults and is connected again."""

    def __init__(self, rig):
        self.daemon, self.bus, self.server = rig
        self.descriptors = self.daemon.descriptor_count()
        self.announced = len(self.bus.statuses())

    def endure(self):
        """Returns the logged courses of the failed attempts, each of which met another fault."""
        faults = len(self.server.faults)
        finish(self.server.connections[0])
        # The first connection, the faults, and the attempt after the last of them.
        each = 80 if library_texts.forgets_redirects else 8
        self.server.wait_for_connections(faults + 2, seconds=30 + each * faults)
        courses, library_lines = courses_of(self.daemon)
        # Two at the end of the first connection, two for every failed attempt.
        announced = self.bus.wait_for_statuses(self.announced + 2 * (faults + 1))
        assert set(announced[self.announced:]) == {"disconnected"}
        assert self.bus.run("status").stdout == b"disconnected\n"
        return endured_t(self.daemon, self.server, courses[1:faults + 1],
                         library_lines[1:faults + 1])

    def heal(self):
        self.server.behave()
        self.bus.wait_for_last_status("connected", after=self.announced)
        assert self.bus.run("status").stdout == b"connected\n"
        assert (self.server.payloads(), self.bus.payloads()) == ([], [])
        assert passes_both_ways(self.bus, self.server, "healed")
        self.daemon.wait_for_descriptors(self.descriptors)
