#!/usr/bin/python3
"""Shows that the unit tests bite: makes one small change to src/ after another and runs them.

Each change that mutations.py makes, and each one of the list, must make a test fail or be refused
by the compiler. It is made in private copies of the checkout, which are kept with their builds
under build-mutants/; there the test programs of the changed file's folder run first, and all the
others when those find nothing. A test program that does not end counts as one that failed. Entries
of the list whose change cannot be made are stale: they are reported first, and the others are
tried. Exit status 1 when a mutant survived, or an entry is stale or does not build; 2 when nothing
can be tried.
"""

import argparse
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

from mutations import generate, mutant_t

checkout = pathlib.Path(__file__).resolve().parent.parent
# A mutant may allocate, or write to its output, without end.
memory_limit = 4 << 30
output_limit = 1 << 30
shown_lines = 40
# For a test program without a mutant; with one, it gets ten times as long as it took, and 3 s.
longest_s = 60
refused = "refused by the compiler"


class unusable(Exception):
    """Nothing can be tried; the text says why."""


def read_list(path, generated):
    """All mutants, the reasons of those that no test can tell, and the stale entries."""
    listed, reasons, stale = [], {}, []
    for name, rows in tomllib.loads(path.read_text()).items():
        file = checkout / name
        text = file.read_text() if file.is_file() else ""
        for fragment, replacement, *reason in rows.get("mutants", []):
            mutant = mutant_t(name, None, text.find(fragment), fragment, replacement)
            if text.count(fragment) != 1 or fragment == replacement:
                stale.append(mutant.label())
                continue
            listed.append(mutant)
            if reason:
                reasons[mutant] = reason[0]
        for function, changes in rows.get("equivalent", {}).items():
            for old, *ways, reason in changes:
                for label in (mutant_t(name, function, 0, old, new).label() for new in ways):
                    found = [mutant for mutant in generated if mutant.label() == label]
                    reasons.update({mutant: reason for mutant in found})
                    if not found:
                        stale.append(label)
    return [*generated, *listed], reasons, stale


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

    def __init__(self, number):
        self.tree = checkout / "build-mutants" / str(number) / "tree"
        self.build = self.tree.parent / "build"
        self.unchanged = {}
        self.time_limit_s = {}

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

    def configure(self):
        self.refresh()
        return self.execute(
            "cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
            # A function that ends without a value may still return the right one by chance.
            "-DCMAKE_CXX_FLAGS_DEBUG=-O0 -Werror=return-type", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON",
            "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST")

    def prepare(self):
        """Builds all test programs and lets them pass, as they must without a mutant."""
        configured = self.configure()
        targets = self.execute("ninja", "-C", self.build, "-t", "targets", "all").stdout
        programs = sorted(re.findall(r"^tests/(\w+_test): CXX_EXECUTABLE_LINKER", targets,
                                     re.MULTILINE))
        built = self.build_programs(programs) if programs else configured
        if not programs or built.returncode != 0:
            tail = "\n".join(built.stdout.splitlines()[-shown_lines:])
            raise unusable(f"the tests cannot be built without a mutant:\n{tail}")
        for name in programs:
            began = time.monotonic()
            failure = run_program(self.build / "tests" / name, longest_s)
            if failure:
                raise unusable(f"without a mutant a test fails: {failure}")
            self.time_limit_s[name] = 3 + 10 * (time.monotonic() - began)
            self.unchanged[name] = self.digest(name)
        return self

    def outcome(self, mutant):
        """Makes the change, says what became of it, and takes it back."""
        file = self.tree / mutant.file
        text = file.read_text()
        file.write_text(mutant.applied(text))
        try:
            folder = pathlib.Path(mutant.file).parent.name
            own = [name for name in self.unchanged if name.startswith(f"{folder}_")]
            others = [name for name in self.unchanged if name not in own]
            for names in (*([name] for name in own), others):
                found = self.killer(names)
                if found:
                    return found
            return "survived"
        finally:
            file.write_text(text)

    def killer(self, names):
        if names and self.build_programs(names).returncode != 0:
            return refused
        for name in names:
            if self.digest(name) == self.unchanged[name]:
                continue
            failure = run_program(self.build / "tests" / name, self.time_limit_s[name])
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
    return parser.parse_args()


def try_all(mutants, reasons, copies):
    """Prints one line for each mutant as soon as it is known. Returns the outcomes."""
    free = queue.SimpleQueue()

    def verdict(mutant):
        copy = free.get()
        try:
            return copy.outcome(mutant)
        finally:
            free.put(copy)

    outcomes = []
    with ThreadPoolExecutor(len(copies)) as pool:
        for copy in pool.map(private_copy.prepare, copies):
            free.put(copy)
        for mutant, result in zip(mutants, pool.map(verdict, mutants)):
            if result == refused and mutant.function is None:
                result = "survived, because it does not build"
            if result == "survived" and mutant in reasons:
                result = f"equivalent: {reasons[mutant]}"
            print(f"{mutant.label()}: {result}", flush=True)
            outcomes.append(result)
    return outcomes


def main():
    arguments = parse_arguments()
    began = time.monotonic()
    copies = [private_copy(number) for number in range(1, arguments.jobs + 1)]
    copies[0].configure()
    generated = generate(copies[0].tree, copies[0].build / "compile_commands.json")
    mutants, reasons, stale = read_list(checkout / "tests" / "mutants" / "mutants.toml", generated)
    for entry in stale:
        print(f"mutants: stale: {entry}", file=sys.stderr)
    left_out = () if arguments.equivalent else reasons
    mutants = [mutant for mutant in mutants
               if mutant not in left_out and arguments.only.search(mutant.label())]
    try:
        if not mutants:
            raise unusable("no mutant matches")
        outcomes = try_all(mutants, reasons, copies)
    except unusable as error:
        print(f"mutants: {error}", file=sys.stderr)
        return 2
    count = {word: sum(outcome.startswith(word) for outcome in outcomes)
             for word in ("killed", "refused", "survived", "equivalent")}
    passed = round(time.monotonic() - began)
    print(f"mutants: {count['killed']} killed, {count['refused']} {refused}, "
          f"{count['survived']} survived, {len(reasons)} equivalent, {len(stale)} stale, "
          f"in {passed // 60} min {passed % 60} s")
    return 1 if count["survived"] or stale else 0


if __name__ == "__main__":
    sys.exit(main())
