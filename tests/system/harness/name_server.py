"""A name server for one network, slow or silent when told to be."""

import select
import socket
import struct
import threading
import time

from harness.network import in_a_thread

type_a, response_flags = 1, 0x8180


class name_server:
    """Knows one address, of every name. `delay` is what passes before an answer, None for ever."""

    def __init__(self, network, address, delay=0.0):
        self.address = address
        self.delay = delay
        self.requests = 0

        def open_inside():
            network.enter()
            opened = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            opened.bind(("127.0.0.1", 53))
            return opened

        self.socket = in_a_thread(open_inside)
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        waiting = []
        while not self.ended.is_set():
            if select.select([self.socket], [], [], 0.05)[0]:
                request, asker = self.socket.recvfrom(512)
                self.requests += 1
                waiting.append((time.monotonic(), self.answer_to(request), asker))
            while waiting and self.delay is not None \
                    and waiting[0][0] + self.delay <= time.monotonic():
                _, answer, asker = waiting.pop(0)
                self.socket.sendto(answer, asker)

    def answer_to(self, request):
        """With the address when it was asked for, empty when for anything else."""
        end = request.index(b"\0", 12) + 5
        question = request[12:end]
        answers = b""
        if struct.unpack("!H", question[-4:-2])[0] == type_a:
            name, one_minute = b"\xC0\x0C", 60
            answers = name + question[-4:] + struct.pack("!IH", one_minute, 4) \
                + socket.inet_aton(self.address)
        head = struct.pack("!HHHHHH", 0, response_flags, 1, 1 if answers else 0, 0, 0)
        return request[:2] + head[2:] + question + answers

    def close(self):
        self.ended.set()
        self.thread.join()
        self.socket.close()
