"""A WebSocket client on a plain socket, which sees each frame and byte that the service sends."""
import http.client
import socket
import time

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


def exchange(port, request):
    """Sends a request and returns the status code, the headers and the body.

    Raises ConnectionError when there is no answer, however the connection ends.
    """
    with socket.create_connection(("127.0.0.1", port), LIMIT) as link:
        link.sendall(request)
        answer = http.client.HTTPResponse(link)
        answer.begin()
        body = b"" if answer.status == 101 else answer.fp.read()
        return answer.status, answer.headers, body


class RawClient:
    def __init__(self, port, from_address="127.0.0.1"):
        self.link = socket.create_connection(("127.0.0.1", port), LIMIT, (from_address, 0))
        self.link.sendall(upgrade_bytes(port))
        received = b""
        while b"\r\n\r\n" not in received:
            piece = self.link.recv(65536)
            assert piece, received
            received += piece
        self.opened_at = time.monotonic()
        self.head, _, rest = received.partition(b"\r\n\r\n")
        self.parser = frame_parser()
        self.frames = self.parser.feed(rest)

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.link.close()

    def send_frame(self, opcode, payload=b"", mask=b"\x11\x22\x33\x44", **more):
        self.link.sendall(frame(opcode, payload, mask=mask, **more))

    def frame(self):
        """(final, opcode, payload) of the next frame, or None at the end of the connection."""
        while not self.frames and (piece := self.link.recv(65536)):
            self.frames += self.parser.feed(piece)
        if not self.frames:
            return None
        final, reserved, opcode, masked, payload = self.frames.pop(0)
        assert not reserved and not masked
        return final, opcode, payload
