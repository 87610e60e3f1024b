"""A WebSocket client on a plain socket, which sees each frame and each byte that the service sends."""
import socket
import struct

from service_process import LIMIT

OP_CONTINUATION, OP_TEXT, OP_CLOSE, OP_PING, OP_PONG = 0, 1, 8, 9, 10


def request_bytes(path, headers):
    lines = [f"GET {path} HTTP/1.1"] + [f"{name}: {value}" for name, value in headers.items()]
    return ("\r\n".join(lines) + "\r\n\r\n").encode()


def upgrade_bytes(port, *lines):
    """The request that opens a daemon's WebSocket, with more header lines at its end."""
    request = request_bytes("/roam", upgrade_headers(port))
    return request[:-2] + b"".join(line.encode() + b"\r\n" for line in lines) + b"\r\n"


def upgrade_headers(port, subprotocol="websock-roaming", **more):
    headers = {"Host": f"127.0.0.1:{port}", "Upgrade": "websocket", "Connection": "Upgrade",
               "Sec-WebSocket-Version": "13", "Sec-WebSocket-Key": "AAAAAAAAAAAAAAAAAAAAAA==",
               "Sec-WebSocket-Protocol": subprotocol}
    headers.update(more)
    return {name: value for name, value in headers.items() if value is not None}


def exchange(port, request):
    """Sends a request and returns the status code, the header lines and the body.

    Raises ConnectionError when there is no answer, however the connection ends.
    """
    with socket.create_connection(("127.0.0.1", port), LIMIT) as link:
        link.sendall(request)
        answer = b""
        while piece := link.recv(65536):
            answer += piece
            if answer.startswith(b"HTTP/1.1 101"):
                break
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
        self.file = self.link.makefile("rb")
        self.head = b""
        while not self.head.endswith(b"\r\n\r\n"):
            self.head += self.file.readline()

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.file.close()
        self.link.close()

    def send_frame(self, opcode, payload=b"", final=True, masked=True):
        assert len(payload) < 126
        mask = b"\x11\x22\x33\x44"
        body = bytes(byte ^ mask[index % 4] for index, byte in enumerate(payload))
        first = (0x80 if final else 0) | opcode
        self.link.sendall(bytes([first, 0x80 | len(payload)]) + mask + body if masked
                          else bytes([first, len(payload)]) + payload)

    def frame(self):
        """(final, opcode, payload) of the next frame, or None at the end of the connection."""
        head = self.file.read(2)
        if len(head) < 2:
            return None
        length = head[1] & 0x7f
        if length == 126:
            length = struct.unpack("!H", self.file.read(2))[0]
        elif length == 127:
            length = struct.unpack("!Q", self.file.read(8))[0]
        return bool(head[0] & 0x80), head[0] & 0x0f, self.file.read(length)
