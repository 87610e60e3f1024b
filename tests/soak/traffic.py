"""Traffic in both directions, for as long as the soak lasts."""

import contextlib
import functools
import random
import threading

from harness.bus_peer import status_request

from messages import internal_message
from repeating import repeating
from sending_styles import everyday_styles

# The daemon sends ten messages a second up and reads forty kilobytes a second down. What waits is
# kept to about a second of either, so that no fault has to wait for long before it is mended.
most_waiting_up = 10
most_waiting_down_bytes = 40000

pause_seconds = 0.3


class traffic:
    """Two threads that send as much as the daemon takes; `quiet` makes them pause."""

    def __init__(self, rig, seed):
        self.rig = rig
        self.random_up = random.Random(f"traffic up {seed}")
        self.random_down = random.Random(f"traffic down {seed}")
        self.gates = {step: threading.Lock() for step in (self.step_up, self.step_down)}
        self.ended = threading.Event()
        self.senders = [repeating(functools.partial(self.send, step), pause_seconds, self.ended)
                        for step in self.gates]

    def start(self):
        for sender in self.senders:
            sender.start()

    def stop(self):
        for sender in self.senders:
            sender.stop()

    def send(self, step):
        with self.gates[step]:
            if not self.ended.is_set():
                step()

    @contextlib.contextmanager
    def quiet(self, up=True, down=True):
        """Nothing new is sent in a direction meanwhile, and what was being sent has left."""
        with contextlib.ExitStack() as held:
            for wanted, gate in zip((up, down), self.gates.values()):
                if wanted:
                    held.enter_context(gate)
            yield

    def step_up(self):
        rig, choices = self.rig, self.random_up
        with rig.lock:
            if rig.is_connected() and len(rig.up.waiting) >= most_waiting_up:
                return
        odd_lines = []
        if choices.random() < 0.2:
            odd_lines.append(internal_message(choices))
        if choices.random() < 0.15 and not rig.bus_away:
            odd_lines.append(status_request)
        rig.send_up([None] * choices.randint(1, 5), choices.random() < 0.2, odd_lines)

    def step_down(self):
        rig, choices = self.rig, self.random_down
        with rig.lock:
            if rig.down.bytes_waiting() >= most_waiting_down_bytes:
                return
        for _ in range(choices.randint(1, 5)):
            rig.send_down(choices.choice(everyday_styles))
