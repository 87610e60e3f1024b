#!/usr/bin/python3
"""Measures what the daemon costs and writes the table in docs/target.md.

Needs the environment that scripts/target-env.sh makes for the MIPS column. Where the one of
scripts/static-env.sh is there as well, the static daemon has a column too; it can be measured only
as far as no faster clock is needed, which a static program cannot load.
"""

import argparse
import concurrent.futures
import datetime
import os
import pathlib
import platform
import sys

checkout = pathlib.Path(__file__).resolve().parents[2]
sys.dont_write_bytecode = True
sys.path[:0] = [str(checkout / folder) for folder in ("tests/device_build", "tests/system")]

import machines  # noqa: E402  (the path is set above)
import scenarios  # noqa: E402
import table  # noqa: E402

measurements = ("sizes", "rest", "messages", "day")
processors = {"x86-64": machines.native, "mipsel": machines.mipsel,
              "static": machines.static_mipsel}


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("measure", nargs="*", metavar="MEASUREMENT",
                        help=f"what to measure: {', '.join(measurements)}; all without one")
    parser.add_argument("--on", action="append", choices=processors,
                        help="the column; may be given several times; all without it")
    parser.add_argument("--runs", type=int, default=3, help="runs of rest and messages (3)")
    parser.add_argument("--minutes", type=float, default=1, help="idle time of rest (1)")
    parser.add_argument("--speed", type=int, default=20,
                        help="how much faster the daemon's clock goes in messages (20)")
    parser.add_argument("--day-speed", type=int, default=300, help="the same in day (300)")
    parser.add_argument("--write", type=pathlib.Path, metavar="FILE",
                        help="put the table between the marks in FILE")
    arguments = parser.parse_args()
    for name in arguments.measure:
        if name not in measurements:
            parser.error(f"no measurement '{name}'; there are {', '.join(measurements)}")
    return arguments


def make_machines(names):
    """Those asked for; without names all, but the static one only where it can be made."""
    made = []
    for name in names or processors:
        make = processors[name]
        if make.can_be_made():
            made.append(make())
        elif names or name != "static":
            sys.exit(f"measure_size.py: {make.environment} is missing; "
                     f"make it with: {make.script} {make.environment}")
    return made


def repeat(scenario, machine, amount, runs):
    """The results of the runs, each printed."""
    results = []
    for _ in range(runs):
        try:
            results.append(scenario(machine, amount))
        except AssertionError as problem:
            raise SystemExit(
                f"measure_size.py: {scenario.__name__} on {machine.name}: {problem}; "
                "where the machine is busy, a smaller --speed or --day-speed helps") from None
        print(f"{machine.name}: {scenario.__name__}: {results[-1]}", flush=True)
    return results


def on_all(made, scenario, amount, runs):
    """By machine, the results of a scenario; the machines take their runs at the same time."""
    with concurrent.futures.ThreadPoolExecutor() as pool:
        waiting = {machine.name: pool.submit(repeat, scenario, machine, amount, runs)
                   for machine in made}
        return {name: future.result() for name, future in waiting.items()}


def measure(arguments):
    """The sections of the table, and its columns."""
    wanted = arguments.measure or measurements
    made = make_machines(arguments.on)
    preloading = [machine for machine in made if machine.fast_clock]
    sections = []

    def add(name, rows):
        sections.append((f"tests/target_size/measure_size.py {name}", rows))

    if "sizes" in wanted:
        add("sizes", table.size_rows({machine.name: (machine.program_size(),
                                                     machine.library_sizes())
                                      for machine in made}))
    if "rest" in wanted:
        runs = on_all(made, scenarios.rest, arguments.minutes, arguments.runs)
        add("rest", table.rest_rows(runs))
    if "messages" in wanted:
        runs = on_all(preloading, scenarios.messages, arguments.speed, arguments.runs)
        add("messages", table.course_rows(runs, "1,000 messages", "10,000 messages"))
    if "day" in wanted:
        runs = on_all(preloading, scenarios.day, arguments.day_speed, 1)
        add("day", table.course_rows(runs, "2 hours", "24 hours"))
    return sections, [machine.name for machine in made]


def main():
    arguments = parse_arguments()
    text = table.render(*measure(arguments))
    print("\n" + text)
    if arguments.write:
        system = platform.freedesktop_os_release()["PRETTY_NAME"]
        note = (f"Measured on {datetime.date.today().isoformat()}, {system}, {platform.machine()} "
                f"with {os.cpu_count()} processors.")
        table.write(arguments.write, f"{note}\n\n{text}")


if __name__ == "__main__":
    main()
