"""Services that send what a message from the bus asks them for."""

from harness.proxies import listening_program


def padded(size):
    """The size, in decimal, behind as many points as make it this long."""
    return str(size).rjust(size, ".")


class websocketd(listening_program):
    """Runs a command for each connection: a message from the bus is a line that the command reads,
    and a line that it prints is a message to the bus. Asked for a size, it prints a line of it."""

    program = "websocketd"

    def command(self, command_file):
        return ["/usr/bin/websocketd", "--address=127.0.0.1", f"--port={self.port}",
                "/usr/bin/python3", "-u", str(command_file)]

    def config(self):
        return """
import sys
for line in sys.stdin:
    size = int(line)
    print(str(size).rjust(size, "."))
"""
