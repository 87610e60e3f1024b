#!/usr/bin/python3
"""Measures the daemon beside other bridges and beside its limits.

`run` measures all systems in turn, so many times, and writes docs/performance.md. `check` measures
a few figures of one system and fails if one is below half of what is documented there.
"""

import argparse
import contextlib
import pathlib
import sys
import time

checkout = pathlib.Path(__file__).resolve().parents[1]
sys.dont_write_bytecode = True
sys.path[:0] = [str(checkout / "tests/system"), str(checkout / "tests/target_size")]

import figures  # noqa: E402  (the path is set above)
import measures  # noqa: E402
import report  # noqa: E402
from systems import failure, running_system, systems  # noqa: E402

documented_file = checkout / "docs/performance.tsv"
check_runs = 3


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("command", choices=("run", "check"))
    parser.add_argument("--build", type=pathlib.Path, default=checkout / "build-bench",
                        help="the folder with the programs (build-bench)")
    parser.add_argument("--system", action="append", choices=systems, metavar="NAME",
                        help=f"run: this one of {', '.join(systems)}, all without it; check: in "
                             "place of event; may be given several times")
    parser.add_argument("--pacing", action="append", choices=("designed", "event"),
                        help="the same as --system, for the daemon")
    parser.add_argument("--runs", type=int, default=5, help="runs of each system (5)")
    parser.add_argument("--seconds", type=float,
                        help="time of one throughput (1; for check 0.3)")
    parser.add_argument("--rest", type=float, default=measures.rest_seconds,
                        help="time at rest in each run, seconds (60)")
    parser.add_argument("--busy", action="store_true",
                        help="keep what was measured while others used the processors")
    parser.add_argument("--write", action="store_true", help="write docs/performance.*")
    arguments = parser.parse_args()
    arguments.build = arguments.build.resolve()
    arguments.seconds = arguments.seconds or (1 if arguments.command == "run" else 0.3)
    arguments.system = [*(arguments.system or []), *(arguments.pacing or [])]
    return arguments


class progress:
    """A bar on a terminal, a line for each system otherwise."""

    def __init__(self, steps):
        self.steps = steps
        self.done = 0
        self.begin = time.monotonic()

    def step(self, text):
        share = self.done / self.steps
        left = (time.monotonic() - self.begin) / share * (1 - share) if share else 0
        bar = "#" * int(30 * share)
        end = f"{share:4.0%}, {left / 60:3.0f} min left" if share else ""
        if sys.stderr.isatty():
            print(f"\r[{bar:30}] {end} {text:50.50}", end="", file=sys.stderr, flush=True)
        else:
            print(f"{end:20} {text}", file=sys.stderr, flush=True)
        self.done += 1


class measurement:
    """All runs. `dropped` counts the measurements during which others used the processors."""

    attempts = 4

    def __init__(self, arguments):
        self.arguments = arguments
        self.found = figures.figures()
        self.dropped = 0

    def measure(self, name, running, wanted=lambda measure: True):
        for measure, job in measures.jobs(name, running, self.arguments.seconds).items():
            if not wanted(measure):
                continue
            for _ in range(self.attempts):
                watch = measures.processor_watch(running.processes)
                values = job()
                if self.arguments.busy or not watch.others_were_busy():
                    self.found.add(name, measure, values)
                    break
                self.dropped += 1

    def measure_rest(self, names):
        with contextlib.ExitStack() as stack:
            bridges = {name: stack.enter_context(running_system(name, self.arguments.build)).bridge
                       for name in names}
            bridges = {name: pid for name, pid in bridges.items() if pid}
            for (name, measure), values in measures.rest(bridges, self.arguments.rest).items():
                self.found.add(name, measure, values)

    def run(self):
        names = self.arguments.system or list(systems)
        bar = progress(self.arguments.runs * (len(names) + 1))
        for number in range(1, self.arguments.runs + 1):
            for name in names:
                bar.step(f"run {number}: {name}")
                try:
                    with running_system(name, self.arguments.build) as running:
                        self.measure(name, running)
                except (failure, AssertionError) as problem:
                    print(f"\nbench.py: {name}: {problem}", file=sys.stderr)
                    self.dropped += 1
            bar.step(f"run {number}: at rest")
            self.measure_rest(names)
        bar.step("done\n")

    def run_compared(self, system):
        """Several runs of what is compared with a limit, and of the limits."""
        for _ in range(check_runs):
            for name in (system, *sorted(set(figures.compared.values()))):
                with running_system(name, self.arguments.build) as running:
                    self.measure(name, running, lambda measure: any(
                        compared.startswith(measure) for compared in figures.compared))


def check(measuring, system):
    """The number of figures below half of the documented ones. The best of the runs count, because
    others who use the processors only make them worse."""
    if not documented_file.exists():
        raise failure(f"{documented_file} is missing; run make bench first")
    documented = figures.figures.read(documented_file)
    measuring.run_compared(system)
    failed = 0
    for measure, limit in figures.compared.items():
        expected = figures.share_of_limit(documented.median, system, measure)
        if expected is None:
            raise failure(f"{documented_file.name} has no '{measure}' of {system}")
        share = figures.share_of_limit(measuring.found.best, system, measure)
        is_low = share < expected / 2
        failed += is_low
        print(f"{system}: {measure}: {share:.2f} of {systems[limit][0]}, documented {expected:.2f}"
              f"{': TOO LOW' if is_low else ''}")
    return failed


def main():
    arguments = parse_arguments()
    measuring = measurement(arguments)
    try:
        if arguments.command == "check":
            arguments.busy = True
            sys.exit(sum(check(measuring, name) for name in arguments.system or ["event"]) > 0)
        measuring.run()
    except (failure, AssertionError, OSError) as problem:
        sys.exit(f"bench.py: {problem}")
    columns = [name for name in systems if not arguments.system or name in arguments.system]
    print(report.table_of(measuring.found, columns))
    if arguments.write:
        report.write(measuring.found, arguments.runs, measuring.dropped)


if __name__ == "__main__":
    main()
