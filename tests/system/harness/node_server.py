"""A roaming service on the library ws of Node.js, in a process of its own."""

import base64
import json
import os
import pathlib
import queue
import subprocess
import threading
import time

from multidict import CIMultiDict

from harness.recording_server import recording_server
from harness.waiting import slowdown

script = pathlib.Path(__file__).with_suffix(".js")
library_folder = "/usr/share/nodejs"


class node_server(recording_server):
    """Drives node_server.js over its standard input and output."""

    def __init__(self):
        super().__init__()
        self.done = queue.Queue()
        self.process = subprocess.Popen(
            ["node", str(script)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            env={**os.environ, "NODE_PATH": library_folder})
        self.reader = threading.Thread(target=self.read_events, daemon=True)
        self.reader.start()

    def start(self):
        self.port = self.command("start", port=self.port)["port"]
        return self

    def stop(self):
        self.command("stop")

    def shut_down(self):
        self.process.stdin.close()
        try:
            self.process.wait(20)
        finally:
            self.process.kill()
            self.process.wait()
            self.reader.join(20)
            self.process.stdout.close()

    def close(self, code=1000, reason=""):
        began = time.time()
        self.command("close", code=code, reason=reason)
        return began

    def reset(self):
        began = time.time()
        self.command("reset")
        return began

    def send(self, message):
        is_text = isinstance(message, str)
        self.send_frame(message.encode() if is_text else message, is_text, is_final=True)

    def send_many(self, messages):
        for message in messages:
            self.send(message)

    def send_fragments(self, pieces):
        for index, piece in enumerate(pieces):
            self.send_frame(piece, is_text=True, is_final=index == len(pieces) - 1)

    def send_streamed(self, pieces):
        self.send_fragments([*(piece.encode() for piece in pieces), b""])

    def ping(self):
        self.command("ping")

    def send_frame(self, payload, is_text, is_final):
        self.command("send", payload=base64.b64encode(payload).decode(), is_text=is_text,
                     is_final=is_final)

    def command(self, name, **more):
        """Returns what the script tells when the command is done."""
        self.process.stdin.write(json.dumps({"command": name, **more}).encode() + b"\n")
        self.process.stdin.flush()
        return self.done.get(timeout=60 * slowdown)

    def read_events(self):
        for line in self.process.stdout:
            event = json.loads(line)
            if event["event"] == "done":
                self.done.put(event)
            elif event["event"] == "open":
                self.record_handshake(event["path"], CIMultiDict(event["headers"]),
                                      event["subprotocol"])
            elif event["event"] == "message":
                self.record_message(len(self.handshakes), base64.b64decode(event["payload"]),
                                    event["is_text"])
            else:
                self.record_end(event["code"])
