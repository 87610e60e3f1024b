#!/usr/bin/python3
"""Measures what differs between releases of libwebsockets, for docs/releases.md.

Usage: measure.py FOLDER    one of a release that `make releases` has built: it gets measured.json
       measure.py --write FILE [JSON ...]    replaces the tables in the document
"""

import argparse
import contextlib
import json
import os
import pathlib
import re
import subprocess
import sys

checkout = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(checkout / "tests" / "system"))
sys.path.insert(1, str(checkout / "tests" / "target_size"))

# pylint: disable=wrong-import-position
from harness.handshake_faults import (answers, attempt_seconds, changed_upgrade)  # noqa: E402
from harness.frames import close_frame, text  # noqa: E402
from harness.keepalive import fast_clock  # noqa: E402
from harness.library_texts import library_lines  # noqa: E402
from harness.name_server import name_server  # noqa: E402
from harness.network import in_a_thread, network_namespace  # noqa: E402
from harness.raw_server import (accepts, deaf_listener, finish, http_head,  # noqa: E402
                                raw_server, reset, silent, upgrade, upgrade_lines)
from harness.roaming_server import roaming_server  # noqa: E402
from harness.sandbox import sandbox  # noqa: E402
from harness.vemk_daemon import config_text, vemk_daemon  # noqa: E402
from harness.waiting import wait_until  # noqa: E402
from table import write  # noqa: E402

attempted = "Try to establish"
established = "process_client_established"
refused = "process_client_connection_error:41"
reason_names = {1: "CLIENT_CONNECTION_ERROR", 4: "CLOSED", 5: "CLOSED_HTTP",
                45: "CLOSED_CLIENT_HTTP", 71: "EVENT_WAIT_CANCELLED", 75: "CLIENT_CLOSED"}


def number_limit(works, highest):
    """The largest number up to `highest` that works, when all below it do."""
    low, high = 0, highest + 1
    while high - low > 1:
        middle = (low + high) // 2
        low, high = (middle, high) if works(middle) else (low, middle)
    return low


def padded(size):
    """A server whose answer has this many bytes, most of them in one cookie."""
    def with_cookie(head):
        before, after = head[:-2] + b"Set-Cookie: ", b"\r\n\r\n"
        return before + b"a" * (size - len(before + after)) + after
    return accepts(with_cookie)


# What servers answer to be refused, and the lines of the library's that say why.
faults = {
    "wrong `Sec-WebSocket-Accept`": changed_upgrade(
        lambda lines: [*lines[:-1], b"Sec-WebSocket-Accept: " + b"A" * 27 + b"="]),
    "no `Upgrade` line": changed_upgrade(lambda lines: [lines[0], *lines[2:]]),
    "NUL bytes": answers(bytes(8192)),
    "a cookie of 16,000 bytes": changed_upgrade(
        lambda lines: [*lines, b"Set-Cookie: " + b"a" * 16000]),
    "404": answers(http_head([b"HTTP/1.1 404 Not Found", b"Content-Length: 0"])),
    "FIN": answers(b"", finish),
}

odd_answers = {
    "`Connection: keep-alive, Upgrade`": lambda text: text.replace(
        b"Connection: Upgrade", b"Connection: keep-alive, Upgrade"),
    "`HTTP/1.0 101`": lambda text: text.replace(b"HTTP/1.1", b"HTTP/1.0"),
    "lines that end in LF": lambda text: text.replace(b"\r\n", b"\n"),
}


class measurement:
    """The release in a folder, measured on daemons and on a bare client of the library."""

    def __init__(self, folder):
        self.folder = folder.resolve()
        self.build = self.folder / "build"
        self.package_folder = self.folder / "package"
        package = self.package_folder / "lib/pkgconfig/libwebsockets.pc"
        self.package = dict(re.findall(r"^(\w+): (.*)$", package.read_text(), re.MULTILINE))
        self.probe = self.folder / "probe"
        subprocess.run(["cc", "-o", self.probe, checkout / "tests/releases/probe.c", "-w",
                        *self.package["Cflags"].split(), *self.package["Libs"].split(),
                        "-lpthread", "-lm"], check=True)

    # ---- daemons ----

    @contextlib.contextmanager
    def daemon(self, url, files=None, **start_options):
        """A daemon with these texts in the place of files of /etc."""
        place = sandbox(self.build, None)
        for name, lines in (files or {}).items():
            (place.folder / name).write_text("".join(f"{line}\n" for line in lines))
            place.binds.append((place.folder / name, f"/etc/{name}"))
        daemon = vemk_daemon(place, "vemk")
        try:
            yield daemon.start(config_text(url, log_level=15), **start_options)
        finally:
            daemon.stop()
            place.remove()

    @contextlib.contextmanager
    def served(self, behaviour, name=None, addresses=("127.0.0.1",), **start_options):
        """A daemon and the raw server that it is to connect to."""
        server = raw_server(behaviour)
        try:
            url = server.url.replace("127.0.0.1", name) if name else server.url
            files = {"hosts": [f"{address} {name}" for address in addresses]} if name else {}
            with self.daemon(url, files, **start_options) as daemon:
                yield daemon, server
        finally:
            server.shut_down()

    def connects(self, behaviour, **options):
        """Whether the first attempt ends in a connection."""
        with self.served(behaviour, **options) as (daemon, _):
            # A name that is too long may also end in an attempt without an end.
            with contextlib.suppress(AssertionError):
                wait_until(lambda: daemon.lines_with(established) or daemon.lines_with(refused)
                           or len(daemon.lines_with(attempted)) > 1, "its end", 15)
            return bool(daemon.lines_with(established))

    def silent_handshake_seconds(self):
        with self.served(silent, **fast_clock(10)) as (daemon, _):
            with contextlib.suppress(AssertionError):
                return round(wait_until(lambda: attempt_seconds(daemon), "its end", 60)[0])
            return "never"

    def redirect(self, location):
        """What the daemon does with a redirect there, `{}` being a port that would accept."""
        elsewhere = raw_server(upgrade)
        moved = answers(http_head([b"HTTP/1.1 301 Moved", b"Content-Length: 0",
                                   b"Location: " + location.format(elsewhere.port).encode()]))
        try:
            with self.served(moved) as (daemon, server):
                with contextlib.suppress(AssertionError):
                    daemon.wait_for_lines(attempted, 2, 30)
                paths = {request.split(b" ")[1] for request in server.requests}
                if elsewhere.connections or b"/elsewhere" in paths:
                    return "followed"
                again = len(daemon.lines_with(attempted)) > 1
                return "refused, tried again" if again else "not reported within 30 s"
        finally:
            elsewhere.shut_down()

    def second_address(self, deaf):
        """Whether one attempt reaches the second address when the first refuses, or is silent."""
        server = roaming_server()
        server.host = "127.0.0.3"
        with contextlib.ExitStack() as stack:
            stack.callback(server.shut_down)
            server.start()
            if deaf:
                stack.enter_context(deaf_listener(("127.0.0.2", server.port)))
            hosts = ["127.0.0.2 roaming.example", "127.0.0.3 roaming.example"]
            url = f"ws://roaming.example:{server.port}/roam"
            daemon = stack.enter_context(self.daemon(url, {"hosts": hosts}, **fast_clock(10)))
            with contextlib.suppress(AssertionError):
                wait_until(lambda: daemon.lines_with(established)
                           or len(daemon.lines_with(attempted)) > 1, "an attempt's end", 60)
            return "yes" if daemon.lines_with(established) else "no"

    def look_ups(self):
        """How often an attempt waits for a name server, which here takes 2 s to answer."""
        network = network_namespace()

        def serve_inside():
            network.enter()
            return raw_server(upgrade)

        names, server = name_server(network, "127.0.0.1", 2.0), in_a_thread(serve_inside)
        url = server.url.replace("127.0.0.1", "roaming.example")
        try:
            with self.daemon(url, {"resolv.conf": ["nameserver 127.0.0.1"]},
                             network=network) as daemon:
                connected = daemon.wait_for_lines(established)[0]
                return round((connected.time - daemon.lines_with(attempted)[0].time) / names.delay)
        finally:
            server.shut_down()
            names.close()
            network.close()

    def close_seconds(self):
        """How long the daemon waits for the server's end after a close frame."""
        def close(server, connection, request):
            connection.sendall(http_head(upgrade_lines(request)) + close_frame(1000))

        with self.served(close, **fast_clock(10)) as (daemon, _):
            closed = daemon.wait_for_lines("process_closed:76")[0]
            return round(closed.time - daemon.lines_with(established)[0].time)

    def masked_frame(self):
        """What comes of a masked frame of 8 bytes and one of 5 that is not masked."""
        def send_masked(server, connection, request):
            connection.sendall(http_head(upgrade_lines(request))
                               + text(b"masked!!", mask=b"\1\2\3\4") + text(b"plain"))

        with self.served(send_masked) as (daemon, _):
            with contextlib.suppress(AssertionError):
                daemon.wait_for_lines("Recieve final msg len", 2, 5)
            if daemon.lines_with("process_closed:76"):
                return "ends the connection"
            lengths = [int(line.text.split(" len ")[1].split()[0])
                       for line in daemon.lines_with("Recieve final msg len")]
            return "has other bytes" if lengths == [8, 5] else "swallows what follows"

    def library_text(self, fault):
        """The library's warnings, errors and words on the handshake; what differs from one
        attempt to the next is N."""
        with self.served(fault) as (daemon, _):
            with contextlib.suppress(AssertionError):
                daemon.wait_for_lines(attempted, 2, 30)
            varying = r"\b0x[0-9a-f]+\b|\d{4,}|[A-Za-z0-9+/]{26}[A-Za-z0-9+/=]+"
            return list(dict.fromkeys(re.sub(varying, "N", line) for line in library_lines(daemon)
                                      if re.match("[12]: ", line) or "HS: " in line))

    # ---- the library alone ----

    def probed(self, behaviour, *words, environment=None):
        """What the bare client prints."""
        server = raw_server(behaviour)
        try:
            clean = {name: value for name, value in os.environ.items()
                     if not name.lower().endswith("_proxy")}
            with subprocess.Popen([self.probe, str(server.port), *words], text=True,
                                  stdout=subprocess.PIPE, env={**clean, **(environment or {})}
                                  ) as process:
                try:
                    return process.communicate(timeout=40)[0].split("\n")
                except subprocess.TimeoutExpired:
                    process.kill()
                    return [*process.communicate()[0].split("\n"), "killed"]
        finally:
            server.shut_down()

    def end_reasons(self, behaviour):
        lines = self.probed(behaviour)
        named = [f"{number} `{reason_names[number]}`" for number in
                 (int(line.split()[1]) for line in lines if line.startswith("reason"))
                 if number in reason_names and number != 71]
        return ", ".join(dict.fromkeys(named)) or "none"

    def wake_up(self):
        lines = self.probed(upgrade, "cancel")
        after = lines[lines.index("cancel") + 1:] if "cancel" in lines else []
        returned = [float(line.split()[1]) for line in after if line.startswith("returned")]
        if not returned or returned[0] > 1000:
            return "no effect"
        return "the loop returns, " + ("with reason 71" if "reason 71" in after
                                       else "without a reason")

    def proxy_variables(self):
        used = []
        for variable in ("http_proxy", "socks_proxy", "all_proxy"):
            proxy = raw_server(silent)
            self.probed(answers(b"", reset), environment={variable: f"127.0.0.1:{proxy.port}"})
            if proxy.connections:
                used.append(f"`{variable}`")
            proxy.shut_down()
        return ", ".join(used) or "none"

    # ---- all of it ----

    def daemon_size(self):
        """Of the device's kind of build, the library inside."""
        build = self.folder / "device"
        for command in (["cmake", "-S", checkout, "-B", build, "-G", "Ninja",
                         "-DCMAKE_BUILD_TYPE=MinSizeRel", "-DBUILD_TESTING=OFF",
                         f"-DCMAKE_PREFIX_PATH={self.package_folder}"],
                        ["cmake", "--build", build, "--target", "vemk"],
                        ["strip", "-o", build / "stripped", build / "vemk"]):
            subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
        return (build / "stripped").stat().st_size

    def all(self):
        def close(server, connection, request):
            connection.sendall(http_head(upgrade_lines(request)) + close_frame(1000))

        def cut(server, connection, request):
            connection.sendall(http_head(upgrade_lines(request)))
            reset(connection)

        return {
            "version": self.package["Version"].split("-")[0],
            "rows": {
                "`vemk` with the library inside, stripped, bytes": f"{self.daemon_size():,}",
                "reason when the server hangs up during the handshake":
                    self.end_reasons(answers(b"", finish)),
                "reason when the answer is 404": self.end_reasons(faults["404"]),
                "reason when the handshake stays without an answer": self.end_reasons(silent),
                "reason of a connection's end by a close frame": self.end_reasons(close),
                "reason of a connection's end by RST": self.end_reasons(cut),
                "the daemon gives a silent handshake up after, s": self.silent_handshake_seconds(),
                "redirect to another port": self.redirect("http://127.0.0.1:{}/elsewhere"),
                "relative redirect": self.redirect("/elsewhere"),
                "second address of a name tried when the first refuses": self.second_address(False),
                "... when the first is silent": self.second_address(True),
                "look-ups of a name in an attempt": self.look_ups(),
                "longest host name, bytes": number_limit(self.connects_to_name, 253),
                "longest handshake answer, bytes": number_limit(self.connects_to_answer, 20000),
                **{f"answer with {name}": "accepted" if self.connects(accepts(change))
                   else "refused" for name, change in odd_answers.items()},
                "the end after a close frame to which the server adds none, s":
                    self.close_seconds(),
                "masked frame from the server": self.masked_frame(),
                "a wake-up from another thread (`lws_cancel_service`)": self.wake_up(),
                "proxy variables that the library alone heeds": self.proxy_variables(),
            },
            "texts": {name: self.library_text(fault) for name, fault in faults.items()},
        }

    def connects_to_name(self, length):
        name = ("a" * 39 + ".") * 7
        # Behind a name that is too long the request goes on with whatever was in its way.
        return length > 0 and self.connects(
            lambda server, connection, request: b"\r\nUpgrade: websocket\r\n" in request
            and upgrade(server, connection, request), name=name[:length - 1] + "b")

    def connects_to_answer(self, size):
        # An upgrade without a cookie has fewer bytes.
        return size < 200 or self.connects(padded(size))


def table(titles, columns):
    lines = ["| | " + " | ".join(name for name, _ in columns) + " |",
             "|---" * (len(columns) + 1) + "|"]
    return lines + [f"| {title} | " + " | ".join(str(values.get(title, ""))
                                                 for _, values in columns) + " |"
                    for title in titles]


def rendered(releases):
    """Both tables; a text that several releases share stands once."""
    columns = [(one["version"], one["rows"]) for one in releases]
    lines = table(dict.fromkeys(title for _, rows in columns for title in rows), columns)
    for fault in dict.fromkeys(name for one in releases for name in one["texts"]):
        lines += ["", f"The library's words when the server answers {fault}:", ""]
        shared = {}
        for one in releases:
            shared.setdefault(tuple(one["texts"].get(fault, [])), []).append(one["version"])
        for texts, versions in shared.items():
            said = ", ".join(f"`{text[3:]}`" for text in texts) or "nothing"
            lines.append(f"- {', '.join(versions)}: {said}")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--write", type=pathlib.Path, metavar="FILE")
    parser.add_argument("paths", nargs="+", type=pathlib.Path)
    arguments = parser.parse_args()
    if not arguments.write:
        for folder in arguments.paths:
            (folder / "measured.json").write_text(json.dumps(measurement(folder).all(), indent=1))
        return
    releases = [json.loads(path.read_text()) for path in arguments.paths]
    releases.sort(key=lambda one: [int(part) for part in re.findall(r"\d+", one["version"])])
    write(arguments.write, rendered(releases))


if __name__ == "__main__":
    main()
