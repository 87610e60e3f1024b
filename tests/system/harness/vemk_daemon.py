"""The daemon under test as a child process."""

import collections
import datetime
import os
import pathlib
import re
import shlex
import signal
import subprocess

import pytest

from harness.pacing import is_event
from harness.waiting import wait_until

log_line_t = collections.namedtuple("log_line_t", "time pid module text")

line_pattern = re.compile(
    r"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})\|(\d+)\|([a-z-]+)> (.*)", re.DOTALL)
report_pattern = re.compile(
    r"^(==\d+==.*|.*ERROR: \w+Sanitizer.*|.*WARNING: ThreadSanitizer.*|.*runtime error: .*)$",
    re.MULTILINE)


def config_text(url, initial_delay=1, max_delay=1, log_level=0, more="", event_pacing=is_event):
    """A configuration; with both delays 1 every drawn delay is 0 s."""
    if event_pacing:
        more += "pacing=event\n"
    return (f"roam_service_url={url}\ninitial_connection_delay={initial_delay}\n"
            f"max_connection_delay={max_delay}\nlog_level={log_level}\n{more}")


class vemk_daemon:
    """Runs build/vemk in a sandbox; ended by its process ID with `stop`.

    VEMK_RUNNER holds words to put in front of the program, an emulator or valgrind.
    """

    def __init__(self, place, name):
        self.place = place
        self.name = name
        self.process = None
        self.end_expected = False
        self.config_file = place.folder / f"{name}.conf"
        self.output_file = place.folder / f"{name}.out"
        self.log_file = place.folder / f"{name}.log"

    def start(self, config=None, arguments=None, environment=None, stack_bytes=None,
              preload=None, network=None, output_to=None, log_to=None, runner=()):
        """Starts with `-f` and a file of the text `config`, or with `arguments` alone.

        `stack_bytes` is what each thread gets, the first one too; 8 MiB otherwise. `preload` is
        libraries, by their paths in the build folder or whole ones, with blanks between them;
        `network` a network_namespace; `output_to` and `log_to` are open files in place of its
        standard output and standard error, whose texts the tests then do not see; `runner` is words
        to put in front of the program.
        """
        if config is not None:
            self.config_file.write_bytes(config if isinstance(config, bytes) else config.encode())
            arguments = ["-f", self.config_file]
        program = self.place.bound_build_folder / "vemk"
        runner = [*runner, *(["prlimit", f"--stack={stack_bytes}"] if stack_bytes else [])]
        runner += self.preload_words(preload) if preload else []
        runner += shlex.split(os.environ.get("VEMK_RUNNER", ""))
        entry = network.entry if network else []
        with open(self.output_file, "wb") as output, open(self.log_file, "wb") as log:
            self.process = subprocess.Popen(
                [*entry, *self.place.command(*runner, program, *arguments)], cwd="/",
                env=self.clean_environment(environment), stdin=subprocess.DEVNULL,
                stdout=output_to or output, stderr=log_to or log)
        return self

    def preload_words(self, libraries):
        for library in libraries.split():
            if not (self.place.build_folder / library).exists():
                pytest.fail(f"{self.place.build_folder} holds no {library}: build it")
        bound = (str(self.place.bound_build_folder / library) for library in libraries.split())
        # The address sanitizer wants to be the first library, or to be told that it is not.
        sanitizer = f"{os.environ.get('ASAN_OPTIONS', '')}:verify_asan_link_order=0".lstrip(":")
        return ["env", f"LD_PRELOAD={' '.join(bound)}",
                f"ASAN_OPTIONS={sanitizer}"]

    def clean_environment(self, more):
        kept = {k: v for k, v in os.environ.items()
                if not k.lower().endswith("_proxy") and k != "ZANDOR_LOG_FILE"}
        return {**kept, "MODULE_BUS_DIR": str(self.place.bus_folder), **(more or {})}

    @property
    def pid(self):
        return self.process.pid

    def runs(self):
        return self.process.poll() is None

    def wait_for_exit(self, seconds=30.0):
        """The exit status; a signal's number negated."""
        self.end_expected = True
        wait_until(lambda: not self.runs(), f"end of {self.name}", seconds)
        return self.process.returncode

    def stop(self):
        self.end_expected = True
        if self.process is None or not self.runs():
            return
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError(f"{self.name} did not end by SIGTERM") from None

    def thread_names(self):
        tasks = pathlib.Path(f"/proc/{self.pid}/task").iterdir()
        return sorted((task / "comm").read_text().strip() for task in tasks)

    def own_thread_names(self):
        """Without the threads of the stand-in bus library, of an emulator and of the thread
        sanitizer."""
        names = [name for name in self.thread_names() if not name.startswith("ZMQbg/")]
        if "libtsan" in pathlib.Path(f"/proc/{self.pid}/maps").read_text():
            names.remove("main")
        emulator = pathlib.Path(f"/proc/{self.pid}/exe").readlink().name[:15]
        if emulator in names:
            names.remove(emulator)
        return names

    def descriptor_count(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def wait_for_descriptors(self, count):
        wait_until(lambda: self.descriptor_count() == count, f"{count} open descriptors",
                   details=lambda: f"there are {self.descriptor_count()}")

    def output(self):
        return self.output_file.read_text(errors="replace")

    def log_text(self):
        return self.log_file.read_bytes().decode(errors="replace")

    def log_lines(self):
        """The lines that begin with a time stamp, without the rest of dumps."""
        found = (line_pattern.fullmatch(line) for line in self.log_text().split("\n"))
        return [log_line_t(datetime.datetime.fromisoformat(m[1]).timestamp(), int(m[2]), m[3], m[4])
                for m in found if m]

    def lines_with(self, text):
        return [line for line in self.log_lines() if text in line.text]

    def wait_for_lines(self, text, count=1, seconds=30.0):
        wait_until(lambda: len(self.lines_with(text)) >= count, f"{count} log lines with '{text}'",
                   seconds, lambda: "the log ends\n" + self.log_text()[-2000:])
        return self.lines_with(text)

    def problems(self):
        """What must never be seen: reports of sanitizers or valgrind, an end of its own."""
        found = report_pattern.findall(self.log_text()) if self.process else []
        if self.process and not self.end_expected and not self.runs():
            found.append(f"{self.name} ended by itself with status {self.process.returncode}")
        return found
