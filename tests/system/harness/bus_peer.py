"""The other modules on the bus, through vemkctl."""

import collections
import json
import os
import subprocess
import threading
import time

from harness.waiting import shortened, slowdown, wait_until

received_t = collections.namedtuple("received_t", "time payload")

connected = b'{ "version": "2.0", "service": "internal-ipc", "cmd": "connected" }'
disconnected = b'{ "version": "2.0", "service": "internal-ipc", "cmd": "disconnected" }'
status_request = b'{"service":"internal-ipc","cmd":"status"}'


class bus_peer:
    """Sends to the daemon and records, with arrival times, what the daemon puts onto the bus."""

    def __init__(self, place):
        self.program = [str(place.companion_folder / "vemkctl"), "--bus", str(place.bus_folder)]
        self.inbox_file = place.bus_folder / "2.in"
        self.outlet_file = place.bus_folder / "2.out"
        self.received = []
        self.notes = []
        self.listener = None
        self.readers = []
        self.ask_time = 0.0
        self.asked = 0

    def listen(self):
        """Starts the listener; it may be started before the daemon and then waits for it."""
        self.listener = subprocess.Popen([*self.program, "listen", "--format", "hex"],
                                         stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                         stderr=subprocess.PIPE)
        for target in (self.read_messages, self.read_notes):
            reader = threading.Thread(target=target, daemon=True)
            reader.start()
            self.readers.append(reader)
        return self

    def read_messages(self):
        for line in self.listener.stdout:
            self.received.append(received_t(time.monotonic(), bytes.fromhex(line.decode())))

    def read_notes(self):
        for line in self.listener.stderr:
            self.notes.append(line.decode(errors="replace").rstrip())

    def wait_listening(self):
        wait_until(lambda: any("listening to module 2" in note for note in self.notes),
                   "the listener on the bus", details=lambda: str(self.notes))

    def stop(self):
        if self.listener:
            self.listener.terminate()
            self.listener.wait(20)
            for reader in self.readers:
                reader.join(20)
            self.listener.stdout.close()
            self.listener.stderr.close()

    def run(self, *arguments, data=b""):
        return subprocess.run([*self.program, *arguments], input=data, timeout=60 * slowdown,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def send(self, message):
        result = self.run("send", "-", data=message)
        assert result.returncode == 0, result.stderr.decode(errors="replace")

    def send_lines(self, lines):
        result = self.run("send", "--lines", "-", data=b"".join(line + b"\n" for line in lines))
        assert result.returncode == 0, result.stderr.decode(errors="replace")

    def start_sending(self, *arguments):
        """A sender that the test feeds through its standard input, and ends."""
        return subprocess.Popen([*self.program, "send", *arguments], stdin=subprocess.PIPE,
                                stderr=subprocess.PIPE)

    def rejoin(self):
        """Makes the daemon drop off the bus, and returns when it is back on it."""
        before = os.stat(self.inbox_file)
        result = self.run("rejoin")
        assert result.returncode == 0, result.stderr.decode(errors="replace")

        def joined_again():
            try:
                now = os.stat(self.inbox_file)
            except FileNotFoundError:
                return False
            return (now.st_ino, now.st_ctime_ns) != (before.st_ino, before.st_ctime_ns)

        wait_until(joined_again, "the daemon back on the bus")

    def payloads(self):
        """Everything received but status messages, in order."""
        return [r.payload for r in list(self.received) if not is_status(r.payload)]

    def statuses(self):
        """The cmd words of the status messages received, in order."""
        return [json.loads(r.payload)["cmd"] for r in list(self.received) if is_status(r.payload)]

    def last_status_time(self):
        return [r.time for r in list(self.received) if is_status(r.payload)][-1]

    def wait_for_payloads(self, count, seconds=30.0):
        wait_until(lambda: len(self.payloads()) >= count, f"{count} messages on the bus", seconds,
                   lambda: f"there were {len(self.payloads())}: {shortened(self.payloads())[-5:]}")
        return self.payloads()

    def wait_for_statuses(self, count, seconds=30.0):
        wait_until(lambda: len(self.statuses()) >= count, f"{count} status messages on the bus",
                   seconds, lambda: f"there were {self.statuses()}")
        return self.statuses()

    def wait_until_connected(self):
        """Waits for "connected", and asks when the announcement came before the listener did.

        A module gives listeners 100 ms to come, which is often too little on a loaded machine.
        """
        self.wait_listening()
        first_ask_time = self.ask_time = time.monotonic() + 5

        def connected_or_asked():
            if self.statuses()[-1:] == ["connected"]:
                return True
            if time.monotonic() > self.ask_time:
                self.ask_time = time.monotonic() + 5 * slowdown
                self.send(status_request)
                self.asked += 1
            return False

        wait_until(connected_or_asked, "status connected on the bus",
                   details=lambda: f"there were {self.statuses()}")
        if self.ask_time > first_ask_time:
            # An announcement that was only late is followed by the answer.
            wait_until(lambda: time.monotonic() > self.last_status_time() + 0.5 * slowdown,
                       "a bus without another status message")

    def wait_for_last_status(self, word, after=0, seconds=30.0):
        """Waits until the newest status message, later than the first `after`, has this word."""
        wait_until(lambda: len(self.statuses()) > after and self.statuses()[-1] == word,
                   f"status {word} on the bus", seconds, lambda: f"there were {self.statuses()}")
        return self.statuses()


def is_status(payload):
    return payload in (connected, disconnected)
