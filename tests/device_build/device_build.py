"""Configures and builds the daemon for a device, over stub libraries made on the spot.

The environment says for what processor and with which tools; tests/device_build/CMakeLists.txt
sets it. Everything is made in WORK_DIR.
"""

import os
import pathlib
import re
import shutil
import subprocess

source_folder = pathlib.Path(os.environ["SOURCE_DIR"])
work_folder = pathlib.Path(os.environ["WORK_DIR"])
stub_folder = pathlib.Path(__file__).parent
cross = "TOOLCHAIN" in os.environ


def run(*command):
    """Standard output of a command that must succeed."""
    result = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, errors="replace")
    assert result.returncode == 0, f"{command} failed:\n{result.stdout}"
    return result.stdout


def make_stub(name):
    """Compiles stub_NAME.c to libdevice_NAME.so and returns the library's path."""
    library = work_folder / f"libdevice_{name}.so"
    run(os.environ["C_COMPILER"], "-shared", "-fPIC", "-Os", "-Wall", "-Wextra", "-Werror",
        "-I", source_folder / "platform" / "include", f"-Wl,-soname,{library.name}",
        "-o", library, stub_folder / f"stub_{name}.c")
    return library


def configure(folder, *definitions):
    """Runs CMake for a release build and returns its exit status and its output."""
    command = [os.environ["CMAKE_COMMAND"], "-S", str(source_folder), "-B", str(folder),
               "-G", "Ninja", "-DCMAKE_BUILD_TYPE=MinSizeRel", "-DVEMK_WERROR=ON", *definitions]
    if cross:
        command += [f"-DCMAKE_TOOLCHAIN_FILE={os.environ['TOOLCHAIN']}",
                    f"-DVEMK_TARGET_ENV={os.environ['VEMK_TARGET_ENV']}"]
    else:
        command += [f"-DCMAKE_C_COMPILER={os.environ['C_COMPILER']}",
                    f"-DCMAKE_CXX_COMPILER={os.environ['CXX_COMPILER']}"]
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return result.returncode, result.stdout


class device_build:
    """A finished build of the daemon, and what the tools tell of it."""

    def __init__(self):
        shutil.rmtree(work_folder, ignore_errors=True)
        work_folder.mkdir(parents=True)
        self.folder = work_folder / "build"
        self.stubs = [make_stub("bus"), make_stub("log")]
        status, output = configure(
            self.folder, "-DVEMK_PLATFORM=device",
            "-DVEMK_PLATFORM_LIBRARIES=" + ";".join(str(stub) for stub in self.stubs))
        assert status == 0, output
        run(os.environ["CMAKE_COMMAND"], "--build", self.folder, "--parallel", "2")
        self.program = self.folder / "vemk"

    def readelf(self, *options):
        return run(os.environ["READELF"], "-W", *options, self.program)

    def needed(self):
        """The shared libraries that the program names, without their version numbers."""
        names = re.findall(r"\(NEEDED\).*\[(.+)\]", self.readelf("-d"))
        return sorted(name.split(".so")[0] for name in names)

    def undefined_symbols(self):
        symbols = re.findall(r" UND (\S+)", self.readelf("--dyn-syms"))
        return {symbol.split("@")[0] for symbol in symbols}

    def stripped_size(self):
        stripped = work_folder / "vemk.stripped"
        run(os.environ["STRIP"], "-o", stripped, self.program)
        return stripped.stat().st_size

    def cache(self):
        return (self.folder / "CMakeCache.txt").read_text()

    def compiled_files(self):
        """Every file that the compiler read, as the build's own record of dependencies says."""
        return run(os.environ["CMAKE_COMMAND"], "--build", self.folder, "--", "-t", "deps")
