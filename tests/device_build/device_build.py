"""Configures and builds the daemon for a device, over stub libraries made on the spot."""

import collections
import pathlib
import re
import shutil
import subprocess

stub_folder = pathlib.Path(__file__).resolve().parent
source_folder = stub_folder.parent.parent

# The tools for one processor. `definitions` are what CMake needs to know to use them.
tools_t = collections.namedtuple("tools_t", "cmake c_compiler readelf strip definitions")


def run(*command):
    """Standard output of a command that must succeed."""
    result = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, errors="replace")
    assert result.returncode == 0, f"{command} failed:\n{result.stdout}"
    return result.stdout


def configure(tools, folder, *definitions):
    """Runs CMake for a release build and returns its exit status and its output."""
    result = subprocess.run(
        [str(tools.cmake), "-S", str(source_folder), "-B", str(folder), "-G", "Ninja",
         "-DCMAKE_BUILD_TYPE=MinSizeRel", "-DVEMK_WERROR=ON", *tools.definitions, *definitions],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return result.returncode, result.stdout


def needed_by(tools, file):
    """The names of the shared libraries that a program or library asks for."""
    return re.findall(r"\(NEEDED\).*\[(.+)\]", run(tools.readelf, "-W", "-d", file))


def stripped_size(tools, file, work_folder):
    """The size in bytes without symbols and debugging information."""
    stripped = work_folder / "stripped"
    run(tools.strip, "-o", stripped, file)
    return stripped.stat().st_size


class device_build:
    """A finished build of the daemon in `folder`, and what the tools tell of it.

    The stub libraries lie in `folder` too, the program in its folder `build`.
    """

    def __init__(self, tools, folder):
        self.tools = tools
        self.folder = folder
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
        self.stubs = [self.make_stub("bus"), self.make_stub("log")]
        self.build_folder = folder / "build"
        self.program = self.build_folder / "vemk"
        self.build("-DVEMK_PLATFORM=device",
                   "-DVEMK_PLATFORM_LIBRARIES=" + ";".join(str(stub) for stub in self.stubs))

    def build(self, *definitions):
        """Builds the program, or again what other definitions change of it."""
        status, output = configure(self.tools, self.build_folder, *definitions)
        assert status == 0, output
        run(self.tools.cmake, "--build", self.build_folder, "--parallel", "2")

    def make_stub(self, name):
        """Compiles stub_NAME.c to libdevice_NAME.so and returns the library's path."""
        library = self.folder / f"libdevice_{name}.so"
        run(self.tools.c_compiler, "-shared", "-fPIC", "-Os", "-Wall", "-Wextra", "-Werror",
            "-I", source_folder / "platform" / "include", f"-Wl,-soname,{library.name}",
            "-o", library, stub_folder / f"stub_{name}.c")
        return library

    def readelf(self, *options):
        return run(self.tools.readelf, "-W", *options, self.program)

    def needed(self):
        """The libraries that the program asks for, without their version numbers."""
        return {name.split(".so")[0] for name in needed_by(self.tools, self.program)}

    def undefined_symbols(self):
        symbols = re.findall(r" UND (\S+)", self.readelf("--dyn-syms"))
        return {symbol.split("@")[0] for symbol in symbols}

    def stack_flags(self):
        """What the program asks for its stack: R, W and E."""
        return re.search(r"GNU_STACK(?: +0x\w+){5} +(\S+)", self.readelf("-l"))[1]

    def stripped_size(self):
        return stripped_size(self.tools, self.program, self.folder)

    def cache(self):
        return (self.build_folder / "CMakeCache.txt").read_text()

    def compiled_files(self):
        """Every file that the compiler read, as the build's own record of dependencies says."""
        return run(self.tools.cmake, "--build", self.build_folder, "--", "-t", "deps")
