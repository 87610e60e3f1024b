"""The systems that are measured: each a harness, and the bridge between its two ends."""

import contextlib
import functools
import os
import pathlib
import socket
import subprocess
import threading

from harness.sandbox import sandbox
from harness.vemk_daemon import config_text, vemk_daemon
from harness.waiting import wait_until

peers = pathlib.Path(__file__).parent / "peers"


class failure(Exception):
    """A system did not do its work."""


class measured_system:
    """A running system. `bridge` is the process ID of its bridge, if it has one."""

    def __init__(self, build, stack):
        self.build = build
        self.stack = stack
        self.place = sandbox(build, None)
        stack.callback(self.place.remove)
        self.environment = {**os.environ, "MODULE_BUS_DIR": str(self.place.bus_folder)}
        self.harness = None
        self.bridge = None
        self.processes = []

    def run(self, *command, **options):
        """Starts a process that ends with the system."""
        process = subprocess.Popen([str(word) for word in command], env=self.environment, **options)
        self.stack.callback(process.wait)
        self.stack.callback(process.terminate)
        self.processes.append(process.pid)
        return process

    def run_harness(self, *ends):
        self.harness = self.run(self.build / "bench_harness", *ends, text=True,
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def line(self, limit):
        """The harness's next line, as words."""
        timer = threading.Timer(limit, self.harness.kill)
        timer.start()
        words = self.harness.stdout.readline().split()
        timer.cancel()
        if not words:
            raise failure(f"no answer of the harness within {limit} s")
        return words

    def measure(self, *words, limit=120):
        """The harness's figures for one line of its input."""
        with contextlib.suppress(BrokenPipeError):
            print(*words, file=self.harness.stdin, flush=True)
        return [float(word) for word in self.line(limit)]

    def text_file(self, name, text):
        file = self.place.folder / name
        file.write_text(text)
        return file


def start_daemon(keys, running):
    running.run_harness("bridge")
    [port] = running.line(10)
    daemon = vemk_daemon(running.place, "vemk")
    running.stack.callback(daemon.stop)
    daemon.start(config_text(f"ws://127.0.0.1:{port}/roam", more=keys))
    running.bridge = daemon.pid
    running.processes.append(daemon.pid)


def start_peer(command, running):
    running.run_harness("bridge")
    running.bridge = running.run(*command(running.build), *running.line(10)).pid


def start_ends(ends, running):
    running.run_harness(ends)


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as listener:
        return listener.getsockname()[1]


def start_brokers(running):
    """The nearer broker is the bridge; it starts second and subscribes at the farther one."""
    program = running.build / "unpacked/bin/mosquitto"
    near, far = free_port(), free_port()
    # It warns of running as root.
    errors = open(running.place.folder / "warnings", "w", encoding="utf-8")
    running.stack.enter_context(errors)
    common = "user root\nallow_anonymous true\nmax_queued_messages 0\nset_tcp_nodelay true\n"
    log = running.place.folder / "far.log"
    running.run(program, "-c", running.text_file(
        "far.conf", f"{common}listener {far} 127.0.0.1\nlog_type all\nlog_dest file {log}\n"),
        stderr=errors)
    wait_until(lambda: log.exists() and " running" in log.read_text(), "the farther broker")
    running.bridge = running.run(program, "-c", running.text_file(
        "near.conf", f"{common}listener {near} 127.0.0.1\nlog_type none\nconnection bench\n"
        f"address 127.0.0.1:{far}\nkeepalive_interval 30\ntopic up out 0\ntopic down in 0\n"
        "try_private false\n"), stderr=errors).pid
    wait_until(lambda: "SUBSCRIBE from" in log.read_text(), "the bridge's subscription")
    running.run_harness("mqtt", near, far)


# By its short name, each system's title and how it starts.
systems = {
    "designed": ("as designed", functools.partial(start_daemon, "")),
    "event": ("`pacing=event`", functools.partial(start_daemon, "pacing=event\n")),
    "library": ("library alone", functools.partial(start_ends, "library")),
    "corked": ("library, corked", functools.partial(start_ends, "corked")),
    "bus": ("bus alone", functools.partial(start_ends, "bus")),
    "c": ("C bridge", functools.partial(
        start_peer, lambda build: [build / "bench_c_bridge"])),
    "python": ("Python", functools.partial(
        start_peer, lambda build: ["/usr/bin/python3", peers / "python_bridge.py"])),
    "node": ("Node", functools.partial(
        start_peer, lambda build: ["node", build / "node/node_bridge.js"])),
    "mosquitto": ("mosquitto", start_brokers),
    "raw": ("harness alone", functools.partial(start_ends, "raw")),
}


@contextlib.contextmanager
def running_system(name, build):
    with contextlib.ExitStack() as stack:
        running = measured_system(build, stack)
        systems[name][1](running)
        if running.line(30) != ["connected"]:
            raise failure("the harness is not connected")
        # First of all, so that it does not see the bridge end.
        stack.callback(running.harness.wait)
        stack.callback(running.harness.kill)
        # The bus tries again every 20 ms until the module is there.
        for way in ("up", "down"):
            running.measure("rate", way, 1, 1)
        yield running
