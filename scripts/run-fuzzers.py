#!/usr/bin/python3
"""Runs the fuzz targets of a build side by side and sums up their results.

Inputs that reach new code, and those that fail, go into the build's folder, never into the
checkout. The exit status is 1 when a target crashed, leaked, hung, differed from its model, or did
not run.
"""

import argparse
import pathlib
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

checkout = pathlib.Path(__file__).resolve().parent.parent
input_limit_s = 20
# For starting and stopping, beyond the run's own time.
grace_s = 120
shown_lines = 40


def positive(text):
    value = int(text)
    if value <= 0:
        raise argparse.ArgumentTypeError(f"{text} is not above 0")
    return value


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=pathlib.Path, help="the folder of the fuzz build")
    parser.add_argument("targets", nargs="*", metavar="TARGET", help="default: every one built")
    parser.add_argument("--seconds", type=positive, default=60, help="for each target (default 60)")
    parser.add_argument("--jobs", type=positive, default=2, help="targets at a time (default 2)")
    parser.add_argument("--inputs", type=pathlib.Path, default=checkout / "tests" / "fuzz",
                        help="the folder with the seed corpora and the dictionaries")
    return parser.parse_intermixed_args()


class fuzz_run:
    """One target's run: its folders, its log, and the log's results."""

    def __init__(self, arguments, target):
        self.target = target
        self.seconds = arguments.seconds
        self.program = arguments.build / "fuzzers" / target
        self.findings = arguments.build / "findings" / target
        self.corpus = arguments.build / "corpus" / target
        self.log = arguments.build / "logs" / f"{target}.log"
        # Builds for another release of a library share the target's inputs.
        inputs = target.partition("_api_")[0]
        self.seeds = arguments.inputs / "corpus" / inputs
        self.dictionary = arguments.inputs / "dictionaries" / f"{inputs}.dict"
        self.text = ""
        self.failure = None

    def command(self):
        words = [self.program, f"-max_total_time={self.seconds}", f"-timeout={input_limit_s}",
                 "-print_final_stats=1", f"-artifact_prefix={self.findings}/"]
        if self.dictionary.exists():
            words.append(f"-dict={self.dictionary}")
        return [str(word) for word in [*words, self.corpus, self.seeds]]

    def execute(self):
        for folder in (self.findings, self.corpus, self.log.parent):
            folder.mkdir(parents=True, exist_ok=True)
        with open(self.log, "wb") as log:
            try:
                status = subprocess.run(self.command(), stdin=subprocess.DEVNULL, stdout=log,
                                        stderr=subprocess.STDOUT, check=False,
                                        timeout=self.seconds + grace_s).returncode
                if status != 0:
                    self.failure = f"failed with status {status}"
            except subprocess.TimeoutExpired:
                self.failure = "failed: it did not end"
            except OSError as error:
                self.failure = f"failed: {error.strerror}"
        self.text = self.log.read_text(errors="replace")
        if self.failure is None and self.executions() == "0":
            self.failure = "failed: nothing was executed"
        return self

    def last(self, pattern):
        found = re.findall(pattern, self.text, re.MULTILINE)
        return found[-1] if found else ""

    def executions(self):
        return self.last(r"number_of_executed_units: (\d+)") or self.last(r"^#(\d+)\s") or "0"

    def summary(self):
        edges = self.last(r"cov: (\d+)") or "0"
        inputs = self.last(r"corp: (\d+)") or "0"
        return (f"{self.target:<16} {self.executions():>9} executions, {edges:>5} edges, "
                f"{inputs:>5} inputs: {self.failure or 'ok'}")

    def explanation(self):
        lines = self.text.splitlines()
        told = [number for number, line in enumerate(lines)
                if re.search(r"DIFFERENCE in|ERROR: |runtime error:|terminate called", line)]
        start = told[0] if told else max(0, len(lines) - shown_lines)
        explained = ["", f"{self.target}: {self.failure}", f"  log:   {self.log}"]
        reproducer = self.last(r"Test unit written to (\S+)")
        if reproducer:
            explained += [f"  input: {reproducer}", f"  again: {self.program} {reproducer}"]
        return "\n".join(explained + lines[start:start + shown_lines])


def main():
    arguments = parse_arguments()
    arguments.build = arguments.build.resolve()
    folder = arguments.build / "fuzzers"
    targets = arguments.targets or sorted(path.name for path in folder.glob("*"))
    if not targets:
        print(f"run-fuzzers: there is no fuzz target in {folder}", file=sys.stderr)
        return 1
    runs = []
    with ThreadPoolExecutor(arguments.jobs) as pool:
        for run in pool.map(lambda target: fuzz_run(arguments, target).execute(), targets):
            print(run.summary(), flush=True)
            runs.append(run)
    failed = [run for run in runs if run.failure]
    for run in failed:
        print(run.explanation())
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
