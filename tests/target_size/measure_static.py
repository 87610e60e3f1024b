#!/usr/bin/python3
"""Prints what the fully static daemon costs on a 32-bit MIPS device without FPU.

Builds it for a device, over the small stub libraries of tests/device_build, so that nothing of the
workstation's stand-ins is counted. Needs the environment that scripts/static-env.sh makes.
"""

import argparse
import pathlib
import sys

checkout = pathlib.Path(__file__).resolve().parents[2]
sys.dont_write_bytecode = True
sys.path[:0] = [str(checkout / folder) for folder in ("tests/device_build", "tests/system")]

from device_build import run  # noqa: E402  (the path is set above)
import scenarios  # noqa: E402
from machines import can_be_measured_here  # noqa: E402
from static_machine import static_machine  # noqa: E402


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--environment", type=pathlib.Path, default=checkout / "build-static-env",
                        help="the folder made by scripts/static-env.sh (default: build-static-env)")
    environment = parser.parse_args().environment.resolve()
    if not (environment / "stamps").exists():
        sys.exit(f"measure_static: {environment} is missing; "
                 f"make it with: scripts/static-env.sh {environment}")
    machine = static_machine(environment)
    print(run("file", "-b", machine.program), end="")
    print(f"file: {machine.program_size()} bytes, stripped")
    print(run("size", machine.program), end="")
    if not can_be_measured_here():
        print("memory is not measured: the daemon would get a /tmp of its own, without this checkout")
        return
    rest = scenarios.rest(machine, minutes=0.25)
    for when, memory in (("at start", rest.at_start), ("connected", rest.when_connected)):
        print(f"{when}: {memory.rss} kB resident, {memory.clean + memory.dirty} kB private, "
              f"{memory.dirty} kB written to")
    print(f"connected and idle: {rest.wake_ups_a_minute:.0f} wake-ups and "
          f"{rest.cpu_ms_a_minute:.0f} ms of the emulator's processor time a minute")


if __name__ == "__main__":
    main()
