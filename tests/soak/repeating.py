"""A thread that does one thing again and again."""

import threading


class repeating(threading.Thread):
    """Calls `step`, with a pause before each call, from `start` until `ended` is set."""

    def __init__(self, step, pause_seconds, ended=None):
        super().__init__(daemon=True)
        self.step = step
        self.pause_seconds = pause_seconds
        self.ended = ended or threading.Event()

    def run(self):
        while not self.ended.wait(self.pause_seconds):
            self.step()

    def stop(self):
        self.ended.set()
        if self.ident:
            self.join()
