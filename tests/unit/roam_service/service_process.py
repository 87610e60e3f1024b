"""roam-service as a child process of a test."""
import asyncio
import contextlib
import os
import shlex
import subprocess
import threading

import websockets
from harness.waiting import slowdown

# VEMK_RUNNER holds words to put in front of the program, an emulator for example.
PROGRAM = [*shlex.split(os.environ.get("VEMK_RUNNER", "")),
           os.environ.get("ROAM_SERVICE", "build/roam-service")]
LIMIT = 30 * slowdown


def owns_its_memory():
    """Whether the process's memory is the program's own: not an emulator's or a sanitizer's."""
    with open(PROGRAM[-1], "rb") as file:
        program = file.read()
    return len(PROGRAM) == 1 and b"libasan" not in program and b"libtsan" not in program


class Service:
    """A running roam-service whose output lines are taken one by one."""

    def __init__(self, *options, **popen_options):
        self.process = subprocess.Popen(
            [*PROGRAM, *options], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, **popen_options)
        first = self.process.stdout.readline().decode()
        assert first.startswith("roam-service: listening on ws://"), \
            first + self.process.stderr.read().decode()
        self.url = first.split()[-1]
        self.port = int(self.url.split(":")[-1].split("/")[0])
        if "--console" in options:
            line = self.process.stdout.readline().decode()
            assert line == f"roam-service: console at http://127.0.0.1:{self.port}/\n"
        self.expected_status = 0
        self.notes = []
        self.note_came = threading.Condition()
        self.note_reader = threading.Thread(target=self.read_notes)
        self.note_reader.start()

    def read_notes(self):
        for line in self.process.stderr:
            with self.note_came:
                self.notes.append(line.decode())
                self.note_came.notify_all()

    def wait_for_note(self, text, count=1):
        def seen():
            return sum(text in note for note in self.notes) >= count
        with self.note_came:
            assert self.note_came.wait_for(seen, LIMIT), (text, self.notes)

    def peak_mib(self):
        """The most memory that the process has held so far."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as file:
            return next(int(line.split()[1]) for line in file if line.startswith("VmHWM")) // 1024

    def type(self, data):
        self.process.stdin.write(data)
        self.process.stdin.flush()

    async def next_line(self):
        reading = asyncio.get_running_loop().run_in_executor(None, self.process.stdout.readline)
        return await asyncio.wait_for(reading, LIMIT)

    def connect(self, subprotocols=("websock-roaming",)):
        return websockets.connect(self.url, subprotocols=subprotocols, max_size=None,
                                  compression=None, ping_interval=None)

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        status = self.process.wait(LIMIT)
        self.note_reader.join(LIMIT)
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            with contextlib.suppress(BrokenPipeError):
                stream.close()
        return status


def run_to_its_end(*options):
    return subprocess.run([*PROGRAM, *options], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=LIMIT, check=False)
