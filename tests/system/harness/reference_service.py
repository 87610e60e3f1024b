"""The roaming service of this repository as a process."""

import signal
import subprocess
import threading

from harness.waiting import wait_until


class reference_service:
    """Starts roam-service on a free port."""

    def __init__(self, folder):
        self.process = subprocess.Popen([folder / "roam-service", "--port", "0"],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL)
        self.url = self.process.stdout.readline().decode().split()[-1]
        self.lines = []
        self.reader = threading.Thread(target=self.read_lines, daemon=True)
        self.reader.start()

    def read_lines(self):
        self.lines.extend(line.rstrip(b"\n") for line in self.process.stdout)

    def payloads(self):
        return list(self.lines)

    def wait_for_payloads(self, count, seconds=30.0):
        wait_until(lambda: len(self.lines) >= count, f"{count} messages at the service", seconds,
                   lambda: f"there were {self.lines}")
        return self.payloads()

    def send(self, message):
        """Sends one line to every daemon that is connected."""
        self.process.stdin.write(message.encode() + b"\n")
        self.process.stdin.flush()

    def suspend(self):
        self.process.send_signal(signal.SIGSTOP)

    def resume(self):
        self.process.send_signal(signal.SIGCONT)

    def end(self):
        """Stops it, unless it has ended, and returns its exit status."""
        self.resume()
        self.process.terminate()
        status = self.process.wait(20)
        self.reader.join(20)
        for stream in (self.process.stdin, self.process.stdout):
            stream.close()
        return status
