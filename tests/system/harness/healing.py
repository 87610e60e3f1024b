"""What must hold after a fault: the daemon lives, has leaked nothing, and messages pass again."""

from harness.frames import opcode_close, text
from harness.library_texts import library_prefix
from harness.round_trip import passes_both_ways
from harness.vemk_daemon import line_pattern

lost_and_found = ["disconnected", "disconnected", "connected"]


def stray_lines(daemon):
    """The log's lines without time, process and module that do not belong to one that has them."""
    stray = []
    before = ""
    for line in daemon.log_text().split("\n")[:-1]:
        # The rest of a dump stands on lines of its own, which begin with a tab; the library's
        # parser quotes line ends of the handshake as they are.
        if not (line_pattern.fullmatch(line) or line.startswith("\t")
                or library_prefix in before):
            stray.append(line)
        before = line
    return stray


def outlives_restart(rig, program):
    """Whether messages pass again when this program between daemon and server is back."""
    daemon, bus, server = rig
    announced, connections = len(bus.statuses()), len(server.handshakes)
    program.stop()
    daemon.wait_for_lines("process_client_connection_error:41", 2)
    assert set(bus.statuses()[announced:]) == {"disconnected"}
    assert len(server.handshakes) == connections
    program.start()
    bus.wait_for_last_status("connected", after=announced)
    return passes_both_ways(bus, server, "again")


class fault_watch:
    """Knows a rig with a frame_server from before a fault, and judges it after one."""

    def __init__(self, rig):
        self.daemon, self.bus, self.server = rig
        self.descriptors = self.daemon.descriptor_count()
        self.remember()

    def remember(self):
        self.connections = len(self.server.connections)
        self.announced = len(self.bus.statuses())
        self.on_bus = len(self.bus.payloads())
        self.at_server = len(self.server.payloads())

    def expect_healed(self, heard=(), joined=b"", seconds=30.0):
        """The connection was lost, announced so twice, and made again; and all works."""
        self.server.wait_for_connections(self.connections + 1, seconds)
        self.bus.wait_for_statuses(self.announced + 3, seconds)
        self.expect_working(heard, joined, lost_and_found)
        assert len(self.server.connections) == self.connections + 1
        self.remember()

    def expect_kept(self, heard=()):
        """The connection was kept, and all works."""
        self.expect_working(heard, b"", [])
        assert len(self.server.connections) == self.connections
        self.remember()

    def expect_working(self, heard, joined, statuses):
        """Messages pass both ways, each once and unchanged, and the daemon answers.

        `heard` is what the fault itself has brought onto the bus, `joined` what comes out in front
        of the first message after it, and `statuses` what was announced meanwhile.
        """
        self.bus.send(b"up again")
        self.server.send(text(b"down again"), text(b"and again"))
        expected = [*heard, joined + b"down again", b"and again"]
        assert self.bus.wait_for_payloads(self.on_bus + len(expected))[self.on_bus:] == expected
        assert self.server.wait_for_payloads(self.at_server + 1)[self.at_server:] == [b"up again"]
        assert self.bus.statuses()[self.announced:] == statuses
        assert self.bus.run("status", "--timeout", "20").stdout == b"connected\n"
        self.bus.wait_for_statuses(self.announced + len(statuses) + 1)
        self.daemon.wait_for_descriptors(self.descriptors)
        assert stray_lines(self.daemon) == []


def expect_refused(rig, frames):
    """Each of these ends its connection, without an answer, and nothing of it reaches the bus."""
    for refused in frames:
        watch = fault_watch(rig)
        rig.server.send(refused, text(b"behind it"))
        watch.expect_healed()
    assert rig.server.frames_of(opcode_close) == []
    assert len(rig.daemon.lines_with("process_closed:76")) == len(frames)
