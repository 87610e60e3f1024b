#!/usr/bin/python3
"""Prints what the fully static daemon costs on a 32-bit MIPS device without FPU.

Builds it for a device, over the small stub libraries of tests/device_build, so that nothing of the
workstation's stand-ins is counted. Needs the environment that scripts/static-env.sh makes.
"""

import argparse
import pathlib
import shutil
import sys

checkout = pathlib.Path(__file__).resolve().parent.parent
sys.dont_write_bytecode = True
sys.path[:0] = [str(checkout / folder) for folder in ("tests/device_build", "tests/system")]

from device_build import configure, run, stub_folder, tools_t  # noqa: E402  (the path is set above)
from target_size import scenarios  # noqa: E402
from target_size.machines import guest_base, guest_size  # noqa: E402


class static_machine:
    """A static device build, and what is needed to run it here."""

    name = "mipsel, static"
    own_addresses = range(guest_base, guest_base + guest_size)

    def __init__(self, environment):
        self.emulator = environment / "bin" / "qemu-mipsel"
        self.folder = checkout / "build-size-mipsel-static"
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir()
        self.tools = tools_t("cmake", environment / "bin" / "mipsel-cc", "readelf", "strip", [
            f"-DCMAKE_TOOLCHAIN_FILE={checkout}/cmake/toolchain-mipsel-static.cmake",
            f"-DVEMK_STATIC_ENV={environment}"])
        build_folder = self.folder / "build"
        stubs = [self.make_stub(name, environment) for name in ("bus", "log")]
        status, output = configure(self.tools, build_folder, "-DVEMK_PLATFORM=device",
                                   "-DVEMK_PLATFORM_LIBRARIES=" + ";".join(map(str, stubs)))
        assert status == 0, output
        run("cmake", "--build", build_folder, "--parallel", "2")
        self.program = build_folder / "vemk"
        # Pages of a file that is not yet written back would count as written to by the daemon.
        run("sync", "-f", self.folder)

    def make_stub(self, name, environment):
        object_file = self.folder / f"stub_{name}.o"
        library = self.folder / f"libdevice_{name}.a"
        run(self.tools.c_compiler, "-c", "-Os", "-ffunction-sections",
            "-I", checkout / "platform" / "include", "-o", object_file,
            stub_folder / f"stub_{name}.c")
        run(environment / "bin" / "mipsel-ar", "rcs", library, object_file)
        return library

    def command(self, variables):
        settings = [word for name, value in variables.items() for word in ("-E", f"{name}={value}")]
        return [self.emulator, "-cpu", "24Kc", "-B", hex(guest_base), *settings, self.program]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--environment", type=pathlib.Path, default=checkout / "build-static-env",
                        help="the folder made by scripts/static-env.sh (default: build-static-env)")
    environment = parser.parse_args().environment.resolve()
    if not (environment / "stamps").exists():
        sys.exit(f"static-size: {environment} is missing; "
                 f"make it with: scripts/static-env.sh {environment}")
    machine = static_machine(environment)
    print(run("file", "-b", machine.program), end="")
    print(f"file: {machine.program.stat().st_size} bytes, stripped")
    print(run("size", machine.program), end="")
    rest = scenarios.rest(machine, minutes=0.25)
    for when, memory in (("at start", rest.at_start), ("connected", rest.when_connected)):
        print(f"{when}: {memory.rss} kB resident, {memory.clean + memory.dirty} kB private, "
              f"{memory.dirty} kB written to")
    print(f"connected and idle: {rest.wake_ups_a_minute:.0f} wake-ups and "
          f"{rest.cpu_ms_a_minute:.0f} ms of the emulator's processor time a minute")


if __name__ == "__main__":
    main()
