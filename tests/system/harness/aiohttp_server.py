"""A roaming service on the library aiohttp, which does not send fragments."""

import asyncio

from aiohttp import WSMsgType, web

from harness.recording_server import asyncio_server


class aiohttp_server(asyncio_server):
    """A web server that takes every path for a WebSocket's."""

    def __init__(self):
        super().__init__()
        self.runner = None
        self.serving = None
        self.leave = None
        self.pong = None

    async def open_listener(self):
        application = web.Application()
        application.router.add_get("/{path:.*}", self.serve)
        application.on_shutdown.append(self.go_away)
        self.runner = web.AppRunner(application, access_log=None)
        await self.runner.setup()
        await web.TCPSite(self.runner, "127.0.0.1", self.port).start()
        self.port = self.runner.addresses[0][1]

    async def close_listener(self):
        if self.runner:
            await self.runner.cleanup()
            self.runner = None

    async def go_away(self, application):
        if self.serving:
            await self.close_connection(1001, "")
            await asyncio.wait({self.serving})

    async def serve(self, request):
        # Pongs are not told of when the library answers pings by itself.
        connection = web.WebSocketResponse(protocols=["websock-roaming"], compress=False,
                                           autoping=False, max_msg_size=0, timeout=5)
        await connection.prepare(request)
        self.connection, self.transport = connection, request.transport
        self.serving = asyncio.current_task()
        self.leave = asyncio.get_running_loop().create_future()
        number = self.record_handshake(request.path_qs, request.headers, connection.ws_protocol)
        try:
            await self.read_until_left(number, connection, self.leave)
        finally:
            self.record_end(connection.close_code)
        return connection

    async def read_until_left(self, number, connection, leave):
        # The task that reads has to be the one that closes, or the peer's code is lost.
        reading = asyncio.ensure_future(self.read(number, connection))
        await asyncio.wait({reading, leave}, return_when=asyncio.FIRST_COMPLETED)
        reading.cancel()
        await asyncio.gather(reading, return_exceptions=True)
        if leave.done():
            code, reason = leave.result()
            await connection.close(code=code, message=reason.encode())

    async def read(self, number, connection):
        async for message in connection:
            await self.take(number, connection, message)

    async def take(self, number, connection, message):
        if message.type == WSMsgType.TEXT:
            self.record_message(number, message.data.encode(), True)
        elif message.type == WSMsgType.BINARY:
            self.record_message(number, message.data, False)
        elif message.type == WSMsgType.PING:
            await connection.pong(message.data)
        elif message.type == WSMsgType.PONG and self.pong:
            self.pong.set_result(None)

    async def close_connection(self, code, reason):
        if not self.leave.done():
            self.leave.set_result((code, reason))

    async def send_message(self, message):
        if isinstance(message, str):
            await self.connection.send_str(message)
        else:
            await self.connection.send_bytes(message)

    async def ping_and_wait(self):
        self.pong = asyncio.get_running_loop().create_future()
        await self.connection.ping()
        await self.pong
        self.pong = None
