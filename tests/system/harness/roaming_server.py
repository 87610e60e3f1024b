"""A roaming service of an implementation that is independent of the daemon's library."""

import websockets
from websockets.frames import OP_CONT, OP_TEXT

from harness.recording_server import asyncio_server


class roaming_server(asyncio_server):
    """On the library websockets."""

    def __init__(self):
        super().__init__()
        self.server = None

    def send_fragments(self, pieces):
        """One text message in as many frames as pieces, the last piece in the final frame."""
        self.call(self.write_fragments(pieces, final=True))

    def send_unfinished(self, pieces):
        self.call(self.write_fragments(pieces, final=False))

    def send_streamed(self, pieces):
        """One text message as the server library streams it: with an empty final frame."""
        self.call(self.connection.send(pieces))

    async def open_listener(self):
        self.server = await websockets.serve(
            self.serve, self.host, self.port, subprotocols=["websock-roaming"], compression=None,
            max_size=None, ping_interval=None, close_timeout=5)
        self.port = self.server.sockets[0].getsockname()[1]

    async def close_listener(self):
        if self.server:
            self.server.close()
            await self.server.wait_closed()
            self.server = None

    async def serve(self, connection, path):
        self.connection, self.transport = connection, connection.transport
        number = self.record_handshake(path, connection.request_headers, connection.subprotocol)
        try:
            async for message in connection:
                is_text = isinstance(message, str)
                self.record_message(number, message.encode() if is_text else message, is_text)
        except websockets.ConnectionClosed:
            pass
        finally:
            self.record_end(connection.close_code)

    async def close_connection(self, code, reason):
        await self.connection.close(code, reason)

    async def send_message(self, message):
        await self.connection.send(message)

    async def write_fragments(self, pieces, final):
        for index, piece in enumerate(pieces):
            last = final and index == len(pieces) - 1
            await self.connection.write_frame(last, OP_CONT if index else OP_TEXT, piece)

    async def ping_and_wait(self):
        await (await self.connection.ping())
