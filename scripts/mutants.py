#!/usr/bin/python3
"""Shows that the unit tests bite: makes one small change to src/ after another and runs them.

Each change of the list must make a test fail. It is made in private copies of the checkout, which
are kept with their builds under build-mutants/; there the test programs of the changed file's
folder run first, and all the others when those find nothing. A test program that does not end
counts as one that failed. An entry is stale when its file does not hold its text exactly once:
those are reported first, and the others are tried. Exit status 1 when a mutant survived, does not
build or is stale, 2 when the list cannot be read or the unchanged checkout is at fault.
"""

import argparse
import dataclasses
import hashlib
import os
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import tomllib
from concurrent.futures import ThreadPoolExecutor

checkout = pathlib.Path(__file__).resolve().parent.parent
# A mutant may allocate, or write to its output, without end.
memory_limit = 4 << 30
output_limit = 1 << 30
shown_lines = 40


class unusable(Exception):
    """The list or the unchanged checkout cannot be used; the text says why."""


@dataclasses.dataclass(frozen=True)
class mutant_t:
    file: str
    fragment: str
    replacement: str
    # Why no test can tell the mutant from the original; "" for one that must be killed.
    reason: str = ""

    def label(self, text):
        line = text.count("\n", 0, text.find(self.fragment)) + 1
        old, new = (" ".join(part.split()) for part in (self.fragment, self.replacement))
        return f"{self.file}:{line}: {old} -> {new or '(nothing)'}"


def complaint(mutant, text):
    """What keeps a mutant from being made, or None."""
    found = text.count(mutant.fragment)
    if found != 1:
        return "is not there" if found == 0 else f"is there {found} times"
    if mutant.replacement == mutant.fragment:
        return "is replaced by itself"
    return None


def entries(list_name, name, rows):
    for row in rows.get("mutants", []):
        if len(row) != 2:
            raise unusable(f"{list_name}: {name}: not a pair of texts: {row}")
        yield mutant_t(name, *row)
    for row in rows.get("equivalent", []):
        if len(row) != 3 or not row[2]:
            raise unusable(f"{list_name}: {name}: not a pair of texts and a reason: {row}")
        yield mutant_t(name, *row)


def read_list(path):
    """The mutants of the list, each with its label, and what is wrong with the stale entries."""
    try:
        files = tomllib.loads(path.read_text())
    except tomllib.TOMLDecodeError as error:
        raise unusable(f"{path.name}: {error}") from error
    labelled, stale = [], []
    for name, rows in files.items():
        file = checkout / name
        text = file.read_text() if file.is_file() else ""
        for mutant in entries(path.name, name, rows):
            problem = complaint(mutant, text)
            if problem:
                stale.append(f"{name}: the fragment {problem}: {mutant.fragment}")
            else:
                labelled.append((mutant, mutant.label(text)))
    return labelled, stale


def run_program(program, time_limit_s):
    """Returns the test that failed, crashed or did not end; None when all passed."""
    with tempfile.TemporaryDirectory() as folder, tempfile.TemporaryFile() as output:
        process = subprocess.Popen(
            ["prlimit", f"--as={memory_limit}", f"--fsize={output_limit}", "--core=0",
             program, "--gtest_fail_fast"],
            cwd=folder, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
            start_new_session=True)
        try:
            status = process.wait(time_limit_s)
        except subprocess.TimeoutExpired:
            status = None
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()
        output.seek(0)
        text = output.read().decode(errors="replace")
    if status == 0:
        return None
    failed = re.findall(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", text, re.MULTILINE)
    started = re.findall(r"^\[ RUN      \] (\S+)", text, re.MULTILINE)
    if status is None:
        how = ", which did not end"
    elif failed:
        return failed[0]
    else:
        how = f", which ended with {'signal' if status < 0 else 'status'} {abs(status)}"
    return (started[-1] if started else program.name) + how


class private_copy:
    """A copy of the checkout with a build of its own."""

    def __init__(self, folder, time_limit_s):
        self.tree = folder / "tree"
        self.build = folder / "build"
        self.time_limit_s = time_limit_s
        self.unchanged = {}

    def refresh(self):
        """Makes the copy as the checkout is, and touches only what differs."""
        listed = subprocess.run(
            ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=checkout,
            capture_output=True, text=True, check=True).stdout.split("\0")
        wanted = {name for name in listed if (checkout / name).is_file()}
        for name in wanted:
            source, copy = checkout / name, self.tree / name
            if not copy.is_file() or copy.read_bytes() != source.read_bytes():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(source, copy)
        for copy in list(self.tree.rglob("*")):
            if copy.is_file() and str(copy.relative_to(self.tree)) not in wanted:
                copy.unlink()

    def execute(self, *command):
        return subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace", check=False)

    def build_programs(self, names):
        return self.execute("ninja", "-C", self.build, "-j", "1",
                            *[f"tests/{name}" for name in names])

    def digest(self, name):
        return hashlib.sha256((self.build / "tests" / name).read_bytes()).digest()

    def prepare(self):
        """Builds all test programs and lets them pass, as they must without a mutant."""
        self.refresh()
        configured = self.execute(
            "cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
            "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST")
        targets = self.execute("ninja", "-C", self.build, "-t", "targets", "all").stdout
        programs = sorted(re.findall(r"^tests/(\w+_test): CXX_EXECUTABLE_LINKER", targets,
                                     re.MULTILINE))
        built = self.build_programs(programs) if programs else configured
        if not programs or built.returncode != 0:
            tail = "\n".join(built.stdout.splitlines()[-shown_lines:])
            raise unusable(f"the tests cannot be built without a mutant:\n{tail}")
        for name in programs:
            failure = self.run(name)
            if failure:
                raise unusable(f"without a mutant a test fails: {failure}")
            self.unchanged[name] = self.digest(name)
        return self

    def run(self, name):
        return run_program(self.build / "tests" / name, self.time_limit_s)

    def outcome(self, mutant):
        """Makes the change, tells what became of it, and takes it back."""
        file = self.tree / mutant.file
        text = file.read_text()
        file.write_text(text.replace(mutant.fragment, mutant.replacement))
        try:
            folder = pathlib.Path(mutant.file).parent.name
            own = [name for name in self.unchanged if name.startswith(f"{folder}_")]
            others = [name for name in self.unchanged if name not in own]
            return self.killer(own) or self.killer(others) or "survived"
        finally:
            file.write_text(text)

    def killer(self, names):
        if names and self.build_programs(names).returncode != 0:
            return "does not build"
        for name in names:
            if self.digest(name) == self.unchanged[name]:
                continue
            failure = self.run(name)
            if failure:
                return f"killed by {failure}"
        return None


def positive(text):
    value = int(text)
    if value <= 0:
        raise argparse.ArgumentTypeError(f"{text} is not above 0")
    return value


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--only", metavar="PATTERN", type=re.compile, default=re.compile(""),
                        help="those whose line in the report matches this regular expression")
    parser.add_argument("--equivalent", action="store_true",
                        help="try those that the list explains as well")
    parser.add_argument("--jobs", type=positive, default=2, help="mutants at a time (default 2)")
    parser.add_argument("--time-limit", type=positive, default=30, metavar="SECONDS",
                        help="for each test program (default 30)")
    parser.add_argument("--list", type=pathlib.Path,
                        default=checkout / "tests" / "mutants" / "mutants.toml")
    return parser.parse_args()


def try_all(labelled, arguments):
    """Prints one line for each mutant as soon as it is known. Returns the outcomes."""
    free = queue.SimpleQueue()

    def verdict(mutant):
        if mutant.reason and not arguments.equivalent:
            return f"equivalent: {mutant.reason}"
        copy = free.get()
        try:
            result = copy.outcome(mutant)
        finally:
            free.put(copy)
        explained = mutant.reason and result == "survived"
        return f"equivalent: {mutant.reason}" if explained else result

    outcomes = []
    with ThreadPoolExecutor(arguments.jobs) as pool:
        copies = [private_copy(checkout / "build-mutants" / str(number), arguments.time_limit)
                  for number in range(1, arguments.jobs + 1)]
        for copy in pool.map(private_copy.prepare, copies):
            free.put(copy)
        for (_, label), result in zip(labelled, pool.map(verdict, (m for m, _ in labelled))):
            print(f"{label}: {result}", flush=True)
            outcomes.append(result)
    return outcomes


def main():
    arguments = parse_arguments()
    began = time.monotonic()
    try:
        listed, stale = read_list(arguments.list)
        for what in stale:
            print(f"mutants: stale: {what}", file=sys.stderr)
        labelled = [(mutant, label) for mutant, label in listed if arguments.only.search(label)]
        if not labelled:
            raise unusable("no mutant matches")
        outcomes = try_all(labelled, arguments)
    except unusable as error:
        print(f"mutants: {error}", file=sys.stderr)
        return 2
    count = {word: sum(outcome.startswith(word) for outcome in outcomes)
             for word in ("killed", "survived", "equivalent", "does not build")}
    passed = round(time.monotonic() - began)
    print(f"mutants: {count['killed']} killed, {count['survived']} survived, "
          f"{count['equivalent']} equivalent, {count['does not build']} do not build, "
          f"{len(stale)} stale, in {passed // 60} min {passed % 60} s")
    return 1 if count["survived"] or count["does not build"] or stale else 0


if __name__ == "__main__":
    sys.exit(main())
