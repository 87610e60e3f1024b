"""The demonstration with a terminal: it stays up, passes typed lines on, and ends with Ctrl-C."""

# Test: 4 s, native only
# It runs the programs of the build folder as they are, without an emulator in front.

import os
import pathlib
import pty
import re
import select
import time

CHECKOUT = pathlib.Path(__file__).resolve().parents[2]
LIMIT = 60


class Terminal:
    """A program with a terminal of its own."""

    def __init__(self, *command):
        self.seen = ""
        self.pid, self.descriptor = pty.fork()
        if self.pid == 0:
            os.execvp(command[0], command)

    def read_until(self, text):
        """Reads until the text is seen, or to the end with None."""
        deadline = time.monotonic() + LIMIT
        while text is None or text not in self.seen:
            left = deadline - time.monotonic()
            assert left > 0, f"{text!r} was not seen in:\n{self.seen}"
            if not select.select([self.descriptor], [], [], left)[0]:
                continue
            try:
                piece = os.read(self.descriptor, 4096)
            except OSError:  # how a terminal tells that the other end is gone
                piece = b""
            if not piece:
                assert text is None, f"{text!r} was not seen in:\n{self.seen}"
                return
            self.seen += piece.decode(errors="replace")

    def type(self, text):
        os.write(self.descriptor, text.encode())

    def exit_status(self):
        self.read_until(None)
        os.close(self.descriptor)
        return os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])


# A typed line is shown on the bus; Ctrl-C gives status 0 and removes the work folder.
# The shell could crash when Ctrl-C came while it waited for a line (1 of 8 tries), and then left
# everything running.
def test_typed_lines_pass_and_ctrl_c_ends_it_without_a_trace():
    terminal = Terminal(str(CHECKOUT / "scripts" / "demo.sh"), os.environ["VEMK_BUILD_DIR"])
    terminal.read_until("A line typed here")
    folder = pathlib.Path(re.search(r"--bus (\S+)/bus send", terminal.seen)[1])
    assert folder.is_dir()
    terminal.type("typed by a person\n")
    terminal.read_until("on the bus:       typed by a person")
    terminal.type("\x03")
    assert terminal.exit_status() == 0
    assert not folder.exists()
