"""Programs of others that listen, and among them reverse proxies in front of a roaming service.

Environment: VEMK_UNPACKED_DIR, the folder that scripts/unpack-packages.sh has made.
"""

import os
import pathlib
import random
import socket
import subprocess

import pytest

from harness.waiting import wait_until

# Outside the range from which connections draw their own ports, so that a stopped proxy's port
# stays free for its restart.
candidate_ports = range(20000, 30000)


def free_port():
    while True:
        port = random.choice(candidate_ports)
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                pass


def unpacked(program):
    """A program whose package is not installed, because it would come with a service."""
    folder = pathlib.Path(os.environ.get("VEMK_UNPACKED_DIR") or "build-unpacked").absolute()
    if not (folder / "bin" / program).exists():
        pytest.fail(f"{folder} holds no bin/{program}: run scripts/unpack-packages.sh {folder}")
    return str(folder / "bin" / program)


class listening_program:
    """One program in the foreground of its own folder; ended by its process ID with `stop`.

    `command` returns its command line, given the file in which the program finds what `config`
    returns.
    """

    program = None

    def __init__(self, place):
        self.folder = place.folder / self.program
        self.folder.mkdir()
        self.log_file = self.folder / "log"
        self.port = free_port()
        self.process = None

    def config(self):
        return ""

    @property
    def url(self):
        return f"ws://127.0.0.1:{self.port}/roam"

    def start(self):
        config_file = self.folder / "conf"
        config_file.write_text(self.config())
        with open(self.log_file, "ab") as log:
            self.process = subprocess.Popen(self.command(config_file), stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=log)
        wait_until(self.listens, f"{self.program} on its port", details=self.log_file.read_text)
        return self

    def listens(self):
        assert self.process.poll() is None, self.log_file.read_text()
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def stop(self):
        if self.process:
            self.process.terminate()
            self.process.wait(20)
            self.process = None


class proxy(listening_program):
    """`idle_seconds` is how long a connection may be silent before the proxy ends it."""

    def __init__(self, place, server_port, idle_seconds=60):
        super().__init__(place)
        self.server_port = server_port
        self.idle_seconds = idle_seconds


class haproxy(proxy):
    program = "haproxy"
    backend_gone = 503

    def command(self, config_file):
        return [unpacked("haproxy"), "-db", "-f", str(config_file)]

    def config(self):
        return f"""
defaults
    mode http
    timeout connect 1s
    timeout client {self.idle_seconds}s
    timeout server {self.idle_seconds}s
    timeout tunnel {self.idle_seconds}s
    retries 0
listen roam
    bind 127.0.0.1:{self.port}
    server service 127.0.0.1:{self.server_port}
"""


class nginx(proxy):
    program = "nginx"
    backend_gone = 502

    def command(self, config_file):
        return [unpacked("nginx"), "-p", str(self.folder), "-e", "stderr", "-c",
                str(config_file)]

    def config(self):
        temporary = "".join(f"    {kind}_temp_path {self.folder}/{kind};\n" for kind in
                            ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        return f"""
daemon off;
master_process off;
pid {self.folder}/pid;
events {{}}
http {{
    access_log off;
{temporary}
    server {{
        listen 127.0.0.1:{self.port};
        location / {{
            proxy_pass http://127.0.0.1:{self.server_port};
            proxy_http_version 1.1;
            proxy_set_header Upgrade $http_upgrade;
            proxy_set_header Connection "upgrade";
            proxy_connect_timeout 1s;
            proxy_read_timeout {self.idle_seconds}s;
            proxy_send_timeout {self.idle_seconds}s;
        }}
    }}
}}
"""
