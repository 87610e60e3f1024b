"""The soak's roaming service, as the program that plays with it sees it."""

import multiprocessing
import os
import signal
import threading

from harness.waiting import slowdown, wait_until
from service_process import run_service


class service:
    """Starts the process and hands on what it tells, event by event, from a thread of its own.

    `on_event` gets tuples: ("attempt", mode), ("upgraded", connection, mode), ("message",
    connection, payload), ("ping", connection, payload), ("pong", connection), ("ended",
    connection), and ("broken", connection, what) for a frame that the daemon should not have sent.
    Connections are numbered from 1 in the order of their upgrades. Commands concern connections by
    number, and do nothing when the connection is gone.
    """

    def __init__(self, on_event, pong_rule=None):
        self.on_event = on_event
        self.port = 0
        fresh = multiprocessing.get_context("spawn")
        self.pipe, other_end = fresh.Pipe()
        self.process = fresh.Process(target=run_service, args=(other_end, pong_rule), daemon=True)
        self.process.start()
        other_end.close()
        self.send_lock = threading.Lock()
        self.reader = threading.Thread(target=self.read_events, daemon=True)
        self.reader.start()
        wait_until(lambda: self.port, "the service's port", 60)

    @property
    def url(self):
        return f"ws://127.0.0.1:{self.port}/roam"

    def read_events(self):
        while True:
            try:
                event = self.pipe.recv()
            except (EOFError, OSError):
                return
            if event[0] == "port":
                self.port = event[1]
            else:
                self.on_event(event)

    def tell(self, *command):
        with self.send_lock:
            self.pipe.send(command)

    def write(self, connection, pieces, bytewise=False):
        self.tell("write", connection, pieces, bytewise)

    def read(self, connection, wanted):
        self.tell("read", connection, wanted)

    def drop(self, connection, how, code=None):
        """`how`: "close" with an optional code, "fin" or "rst"."""
        self.tell("drop", connection, how, code)

    def behave(self, mode):
        """What new connections meet: "upgrade", "unavailable", "refuse", "garbage", "silent" or
        "reset"."""
        self.tell("behave", mode)

    def listen(self, wanted):
        self.tell("listen", wanted)

    def suspend(self):
        os.kill(self.process.pid, signal.SIGSTOP)

    def resume(self):
        os.kill(self.process.pid, signal.SIGCONT)

    def stop(self):
        self.resume()
        self.process.terminate()
        self.process.join(20 * slowdown)
        self.pipe.close()
