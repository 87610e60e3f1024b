"""Messages both ways for as long as something else happens."""

import threading

import websockets

from harness.waiting import wait_until


def is_strictly_in_order(part, whole):
    """Whether `part` is `whole`, of different messages, less some of them."""
    left = iter(whole)
    return all(message in left for message in part)


class bus_traffic:
    """Sends "up 0", "up 1" ... from the bus and "down 0" ... from the server until it is stopped.

    As a context it is stopped at the end. `taken` are the messages from the bus that the daemon is
    known to have taken.
    """

    def __init__(self, bus, server):
        self.bus, self.server = bus, server
        self.taken, self.sent_up, self.sent_down = [], [], []
        self.ended = threading.Event()
        self.threads = [threading.Thread(target=target) for target in (self.go_up, self.go_down)]
        for thread in self.threads:
            thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.ended.set()
        for thread in self.threads:
            thread.join()

    def go_up(self):
        while not self.ended.is_set():
            message = b"up %d" % len(self.sent_up)
            self.sent_up.append(message)
            if self.bus.run("send", "--timeout", "2", "-", data=message).returncode == 0:
                self.taken.append(message)

    def go_down(self):
        while not self.ended.wait(0.02):
            message = b"down %d" % len(self.sent_down)
            self.sent_down.append(message)
            try:
                self.server.send(message.decode())
            except websockets.ConnectionClosed:
                pass

    def arrived(self):
        """Sends a last message each way, and returns what came before them, up and down."""
        self.bus.send(b"last up")
        wait_until(lambda: self.server.payloads()[-1:] == [b"last up"],
                   "the last message at the server")
        self.server.send("last down")
        wait_until(lambda: self.bus.payloads()[-1:] == [b"last down"],
                   "the last message on the bus")
        return self.server.payloads()[:-1], self.bus.payloads()[:-1]
