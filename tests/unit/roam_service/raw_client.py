"""A WebSocket client on a plain socket, which sees each frame and each byte that the service sends."""
import contextlib
import socket

from harness.frames import frame, frame_parser

from service_process import LIMIT


def request_bytes(path, headers):
    lines = [f"GET {path} HTTP/1.1"] + [f"{name}: {value}" for name, value in headers.items()]
    return ("\r\n".join(lines) + "\r\n\r\n").encode()


def upgrade_headers(port, subprotocol="websock-roaming", **more):
    headers = {"Host": f"127.0.0.1:{port}", "Upgrade": "websocket", "Connection": "Upgrade",
               "Sec-WebSocket-Version": "13", "Sec-WebSocket-Key": "AAAAAAAAAAAAAAAAAAAAAA==",
               "Sec-WebSocket-Protocol": subprotocol, **more}
    return {name: value for name, value in headers.items() if value is not None}


def upgrade_bytes(port, *lines, **more):
    """The request that opens a daemon's WebSocket, with more header lines at its end."""
    request = request_bytes("/roam", upgrade_headers(port, **more))
    return request[:-2] + b"".join(line.encode() + b"\r\n" for line in lines) + b"\r\n"


def exchange(port, *pieces):
    """Sends a request and returns the status code, the header lines and the body.

    Raises ConnectionError when there is no answer, however the connection ends.
    """
    with socket.create_connection(("127.0.0.1", port), LIMIT) as link:
        answer = b""
        with contextlib.suppress(ConnectionError):
            for piece in pieces:
                link.sendall(piece)
            while not answer.startswith(b"HTTP/1.1 101") and (piece := link.recv(65536)):
                answer += piece
    if not answer:
        raise ConnectionError("the connection ended without an answer")
    head, _, body = answer.partition(b"\r\n\r\n")
    lines = head.decode().split("\r\n")
    headers = {name.lower(): value for name, value in (line.split(": ", 1) for line in lines[1:])}
    return int(lines[0].split()[1]), headers, body


class RawClient:
    def __init__(self, port, from_address="127.0.0.1"):
        self.link = socket.create_connection(("127.0.0.1", port), LIMIT, (from_address, 0))
        self.link.sendall(upgrade_bytes(port))
        self.head = b""
        while not self.head.endswith(b"\r\n\r\n"):
            self.head += self.link.recv(1)
        self.parser = frame_parser()
        self.frames = []

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.link.close()

    def send_frame(self, opcode, payload=b"", mask=b"\x11\x22\x33\x44", **more):
        self.link.sendall(frame(opcode, payload, mask=mask, **more))

    def frame(self):
        """(final, opcode, payload) of the next frame, or None at the end of the connection."""
        while not self.frames:
            if not (piece := self.link.recv(65536)):
                return None
            self.frames += self.parser.feed(piece)
        final, reserved, opcode, masked, payload = self.frames.pop(0)
        assert not reserved and not masked
        return final, opcode, payload
