"""The console's page and WebSocket, without a browser."""
import asyncio
import contextlib
import json
import pathlib

import pytest
import websockets

from raw_client import exchange, request_bytes, upgrade_headers
from service_process import LIMIT

SOURCES = pathlib.Path(__file__).resolve().parents[3] / "tools" / "roam-service" / "console"
PAGE_FILES = [("/", "text/html; charset=utf-8"), ("/style.css", "text/css; charset=utf-8"),
              ("/script.js", "text/javascript; charset=utf-8"), ("/icon.svg", "image/svg+xml")]


@pytest.fixture
def service(start):
    return start("--console")


def get(service, path, method="GET", **headers):
    headers = {"Host": f"127.0.0.1:{service.port}", **headers}
    return exchange(service.port, request_bytes(path, headers).replace(b"GET", method.encode(), 1))


def upgrade_status(service, origin, **headers):
    """The status of the answer to a page that asks for the console's WebSocket."""
    headers = upgrade_headers(service.port, "roam-console", Origin=origin, **headers)
    return exchange(service.port, request_bytes("/console", headers))[0]


class Page:
    """What the page's script does."""

    def __init__(self, socket):
        self.socket = socket

    async def told(self, kind):
        while True:
            message = json.loads(await asyncio.wait_for(self.socket.recv(), LIMIT))
            if message["type"] == kind:
                return message

    async def command(self, **command):
        await self.socket.send(json.dumps(command))
        return await self.told("answer")

    async def update_with(self, condition):
        while True:
            update = await self.told("update")
            if condition(update):
                return update


@contextlib.asynccontextmanager
async def open_page(service):
    address = f"127.0.0.1:{service.port}"
    async with websockets.connect(f"ws://{address}/console", subprotocols=["roam-console"],
                                  origin=f"http://{address}", compression=None) as socket:
        yield Page(socket)


@contextlib.asynccontextmanager
async def page_and_daemon(service):
    async with open_page(service) as page, service.connect() as daemon:
        update = await page.update_with(lambda told: told["daemons"])
        yield page, daemon, update["daemons"][0]["id"]


# Each of the four files: status 200, its type, length and bytes, "default-src 'none'", "nosniff".
@pytest.mark.parametrize("path, content_type", PAGE_FILES)
def test_serves_the_page_with_a_strict_policy(service, path, content_type):
    status, headers, body = get(service, path)
    assert status == 200
    assert headers["content-type"] == content_type
    assert int(headers["content-length"]) == len(body) > 100
    assert body == (SOURCES / (path[1:] or "index.html")).read_bytes()
    policy = headers["content-security-policy"]
    assert "default-src 'none'" in policy and "unsafe" not in policy and "*" not in policy
    assert headers["x-content-type-options"] == "nosniff"


# Page, style and script hold no http:// or https:// address and no innerHTML.
def test_the_page_loads_nothing_from_elsewhere(service):
    for path, _ in PAGE_FILES[:3]:
        text = get(service, path)[2].decode()
        assert "http://" not in text.replace("http://www.w3.org/2000/svg", "")
        assert "https://" not in text and "innerHTML" not in text


# HEAD gives 200 with the length and no body, POST gives 405.
def test_head_and_other_methods(service):
    status, headers, body = get(service, "/", method="HEAD")
    assert status == 200 and int(headers["content-length"]) > 100 and body == b""
    assert get(service, "/", method="POST")[0] == 405


# "/nothing", "/index.html", "/../style.css" and "/console.js" are 404.
@pytest.mark.parametrize("path", ["/nothing", "/index.html", "/../style.css", "/console.js"])
def test_an_unknown_path_is_404(service, path):
    assert get(service, path)[0] == 404


# Without --console both "/" and the upgrade of "/console" are 404.
def test_without_the_option_there_is_no_page_and_no_console(start):
    plain = start()
    assert get(plain, "/")[0] == 404
    assert upgrade_status(plain, f"http://127.0.0.1:{plain.port}") == 404


# Names, look-alikes, other addresses, empty and doubled Host headers are 403 for page and console.
@pytest.mark.parametrize("host", ["example.com", "127.0.0.1.example.com", "localhost.example.com:80",
                                  "192.0.2.1", "", "127.0.0.1, example.com", "[::2]", "127.0.0.1:x"])
def test_a_host_that_is_not_loopback_is_refused(service, host):
    assert get(service, "/", Host=host)[0] == 403
    assert upgrade_status(service, f"http://{host}", Host=host) == 403


# localhost in any case, 127.0.0.2 and [::1], with any port, are 200.
@pytest.mark.parametrize("host", ["localhost", "LOCALHOST:8080", "127.0.0.2:80", "[::1]:8080"])
def test_a_loopback_host_is_served(service, host):
    assert get(service, "/", Host=host)[0] == 200


# No Origin, "null" and every one but the console's own address is 403.
@pytest.mark.parametrize("origin", [None, "null", "http://example.com", "http://127.0.0.1",
                                    "https://127.0.0.1:{port}", "http://localhost:{port}",
                                    "http://127.0.0.1:{port}.example.com"])
def test_a_page_of_another_origin_is_refused(service, origin):
    assert upgrade_status(service, origin and origin.format(port=service.port)) == 403


# The page is told addresses, pings with their age, bytes, frames and totals per second.
async def test_shows_daemons_pings_frames_and_totals(service):
    async with page_and_daemon(service) as (page, daemon, _):
        await (await daemon.ping(b"p"))
        await daemon.send("a<b>\x00\x7f")
        update = await page.update_with(lambda told: told["received"]["messages"] == 1)
        shown = update["daemons"][0]
        assert shown["address"] == "127.0.0.1" and shown["pings"] == 1
        assert shown["pings_unanswered"] == 0
        assert 0 <= update["now"] - shown["last_ping"] < 60000
        assert update["received"]["frames"] == 2 and update["sent"]["frames"] == 1
        assert sum(update["received"]["rates"]) == 2
    async with open_page(service) as page:
        records = (await page.told("update"))["records"]
        found = [r for r in records if r["kind"] == "text"][0]
        assert bytes.fromhex(found["hex"]) == b"a<b>\x00\x7f"
        assert found["size"] == 6 and not found["sent"]


# Of 100,000 bytes the page gets the size and the first 1024.
async def test_a_long_payload_is_shown_by_its_beginning(service):
    async with page_and_daemon(service) as (page, daemon, _):
        await daemon.send("x" * 100000)
        await service.next_line()
        update = await page.update_with(lambda told: told["records"])
        assert update["records"][0]["size"] == 100000
        assert bytes.fromhex(update["records"][0]["hex"]) == b"x" * 1024


# A text for one daemon reaches it alone, one for all reaches both, NUL and UTF-8 unchanged.
async def test_sends_to_one_or_all(service):
    async with page_and_daemon(service) as (page, first, number), service.connect() as second:
        await page.update_with(lambda told: len(told["daemons"]) == 2)
        answer = await page.command(cmd="send", to=number, text="to one\x00 <grün>")
        assert answer["ok"] and answer["text"] == "sent to 1 daemon"
        await page.command(cmd="send", to=None, text="to all")
        assert [await first.recv(), await first.recv()] == ["to one\x00 <grün>", "to all"]
        assert await second.recv() == "to all"


# "no pongs" silences the daemon at hand and one that comes later.
async def test_switches_act_on_connected_daemons_and_on_new_ones(service):
    async with page_and_daemon(service) as (page, daemon, _):
        switches = {"no_pongs": True, "stop_reading": False, "fragments": 2, "delay_ms": 0}
        assert (await page.command(cmd="switches", **switches))["ok"]
        assert (await page.told("update"))["switches"] == switches
        pong = await daemon.ping()
        await daemon.send("seen")
        update = await page.update_with(lambda told: told["received"]["messages"] == 1)
        assert update["daemons"][0]["pings_unanswered"] == 1 and not pong.done()
        async with service.connect() as later:
            pong = await later.ping()
            await later.send("seen too")
            await page.update_with(lambda told: told["received"]["messages"] == 2)
            assert not pong.done()


# A message sent while "stop reading" is on arrives once it is off.
async def test_reading_goes_on_where_it_stopped(service):
    async with page_and_daemon(service) as (page, daemon, _):
        switches = {"no_pongs": False, "stop_reading": True, "fragments": 1, "delay_ms": 0}
        await page.command(cmd="switches", **switches)
        await daemon.send("waits")
        await asyncio.sleep(0.4)
        assert (await page.command(cmd="switches", **{**switches, "stop_reading": False}))["ok"]
        await page.update_with(lambda told: told["received"]["messages"] == 1)


# Close gives the daemon its code 4321, reset an end without one (1006).
async def test_closes_with_a_code_and_resets(service):
    async with page_and_daemon(service) as (page, daemon, number):
        assert (await page.command(cmd="close", to=number, code=4321))["ok"]
        await daemon.wait_closed()
        assert daemon.close_code == 4321
        async with service.connect() as other:
            await page.update_with(lambda told: told["daemons"] and
                                   told["daemons"][0]["id"] != number)
            assert (await page.command(cmd="reset", to=None))["ok"]
            await other.wait_closed()
            assert other.close_code == 1006


# Away: close 1001 and refused connections, the rest of the 60 s told, until "return".
async def test_goes_away_and_comes_back_while_the_page_stays(service):
    async with page_and_daemon(service) as (page, daemon, _):
        assert (await page.command(cmd="away", seconds=60))["ok"]
        update = await page.update_with(lambda told: "away_ms" in told)
        assert 50000 < update["away_ms"] <= 60000
        await daemon.wait_closed()
        assert daemon.close_code == 1001
        with pytest.raises(ConnectionRefusedError):
            await service.connect()
        assert (await page.command(cmd="return"))["ok"]
        async with service.connect():
            await page.update_with(lambda told: told["daemons"] and "away_ms" not in told)


# No JSON, wrong types and values out of range: "ok" false with a text, switches as before.
@pytest.mark.parametrize("text", [
    "", "no json", "[]", "{}", '{"cmd": 3}', '{"cmd": "nonsense"}', '{"cmd": "send", "to": null}',
    '{"cmd": "send", "to": "1", "text": "x"}', '{"cmd": "send", "to": 99, "text": "x"}',
    '{"cmd": "close", "to": null, "code": 5000}', '{"cmd": "away", "seconds": 0}',
    '{"cmd": "switches"}', '{"cmd": "switches", "no_pongs": true, "stop_reading": true, '
    '"fragments": 1000000, "delay_ms": 0}', "[" * 5000])
async def test_a_command_that_makes_no_sense_is_answered_and_changes_nothing(service, text):
    async with page_and_daemon(service) as (page, daemon, _):
        await page.socket.send(text)
        answer = await page.told("answer")
        assert not answer["ok"] and answer["text"]
        assert (await page.told("update"))["switches"]["fragments"] == 1
        await (await daemon.ping())
