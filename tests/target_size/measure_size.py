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
from static_machine import static_machine  # noqa: E402

measurements = ("sizes", "rest", "messages", "day")


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("measure", nargs="*", metavar="MEASUREMENT",
                        help=f"what to measure: {', '.join(measurements)}; all without one")
    parser.add_argument("--on", action="append", choices=("x86-64", "mipsel"),
                        help="the processor; may be given twice; both without it")
    parser.add_argument("--environment", type=pathlib.Path, default=checkout / "build-mips-env",
                        help="the folder made by scripts/target-env.sh (default: build-mips-env)")
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


def make_machines(arguments):
    names = arguments.on or ["x86-64", "mipsel"]
    made = []
    if "x86-64" in names:
        made.append(machines.native())
    if "mipsel" in names:
        environment = arguments.environment.resolve()
        if not (environment / "bin" / "qemu").exists():
            sys.exit(f"measure_size: {environment} is missing; "
                     f"make it with: scripts/target-env.sh {environment}")
        made.append(machines.mipsel(environment))
    return made


def make_static_machines(arguments):
    """The static daemon, where it is wanted and can be built; otherwise nothing."""
    environment = checkout / "build-static-env"
    wanted = "mipsel" in (arguments.on or ["mipsel"]) and (environment / "stamps").exists()
    return [static_machine(environment)] if wanted else []


def repeat(scenario, machine, amount, runs):
    """The results of the runs, each printed."""
    results = []
    for _ in range(runs):
        try:
            results.append(scenario(machine, amount))
        except AssertionError as problem:
            raise SystemExit(
                f"measure_size: {scenario.__name__} on {machine.name}: {problem}; "
                "where the machine is busy, a smaller --speed or --day-speed helps") from None
        print(f"{machine.name}: {scenario.__name__}: {results[-1]}", flush=True)
    return results


def on_all(made, scenario, amount, runs):
    """By machine, the results of a scenario; the machines take their runs at the same time."""
    with concurrent.futures.ThreadPoolExecutor() as pool:
        waiting = {machine.name: pool.submit(repeat, scenario, machine, amount, runs)
                   for machine in made}
        return {name: future.result() for name, future in waiting.items()}


def measure_sizes(made, made_static):
    sizes = {machine.name: (machine.program_size(), machine.library_sizes()) for machine in made}
    sizes.update({machine.name: (machine.program_size(), {}) for machine in made_static})
    return table.size_rows(sizes)


def measure(arguments):
    """The sections of the table, and its columns."""
    wanted = arguments.measure or measurements
    if set(wanted) != {"sizes"} and not machines.can_be_measured_here():
        sys.exit("measure_size: the daemon gets a /tmp of its own while it is measured; "
                 "move the checkout out of /tmp")
    made = make_machines(arguments)
    made_static = make_static_machines(arguments)
    command = "tests/target_size/measure_size.py"
    sections = []
    if "sizes" in wanted:
        rows = measure_sizes(made, made_static)
        sections.append((f"{command} sizes", rows))
    if "rest" in wanted:
        runs = on_all(made + made_static, scenarios.rest, arguments.minutes, arguments.runs)
        sections.append((f"{command} rest", table.rest_rows(runs)))
    if "messages" in wanted:
        runs = on_all(made, scenarios.messages, arguments.speed, arguments.runs)
        rows = table.course_rows(runs, "1,000 messages", "10,000 messages")
        sections.append((f"{command} messages", rows))
    if "day" in wanted:
        runs = on_all(made, scenarios.day, arguments.day_speed, 1)
        sections.append((f"{command} day", table.course_rows(runs, "2 hours", "24 hours")))
    found = {column for _, rows in sections for _, cells in rows for column in cells}
    return sections, [name for name in ("x86-64", "mipsel", "mipsel, static") if name in found]


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
