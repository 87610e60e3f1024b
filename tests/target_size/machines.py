"""The processors on which the daemon is measured: how it is built and run for each."""

import pathlib

from device_build import device_build, needed_by, run, source_folder, stripped_size, tools_t

fast_clock_source = source_folder / "tests" / "system" / "preload" / "fast_clock.c"

# Where the emulator puts the program's 2 GiB of address space.
guest_base = 0x10000000000
guest_size = 0x80000000


def can_be_measured_here():
    """Whether a daemon that gets a /tmp of its own still finds its program."""
    return pathlib.Path("/tmp") not in source_folder.parents


class machine:
    """A device build of the daemon for one processor, and what is needed to run it here.

    Its folder, below the checkout, holds the program and the stub libraries.
    """

    name = ""
    # The addresses that belong to the daemon rather than to something that runs it.
    own_addresses = range(0, 1 << 64)

    def __init__(self, tools):
        self.tools = tools
        self.folder = source_folder / f"build-size-{self.name}"
        print(f"building for {self.name} ...", flush=True)
        self.build = device_build(tools, self.folder)
        run(tools.strip, self.build.program)
        self.fast_clock = self.folder / "fast_clock.so"
        run(tools.c_compiler, "-shared", "-fPIC", "-O2", "-Wall", "-Wextra", "-o", self.fast_clock,
            fast_clock_source, "-ldl")
        # Pages of a file that is not yet written back would count as written to by the daemon.
        run("sync", "-f", self.folder)

    def find_library(self, name):
        found = pathlib.Path(run(self.tools.c_compiler, f"-print-file-name={name}").strip())
        assert found.is_absolute(), f"{self.name}: the compiler does not know {name}"
        return found.resolve()

    def program_size(self):
        return self.build.stripped_size()

    def library_sizes(self):
        """Stripped sizes by name, those of the program first, then those that these need."""
        stubs = {stub.name for stub in self.build.stubs}
        sizes = {}
        waiting = [name for name in needed_by(self.tools, self.build.program) if name not in stubs]
        while waiting:
            name = waiting.pop(0)
            if name in sizes:
                continue
            file = self.find_library(name)
            sizes[name] = stripped_size(self.tools, file, self.folder)
            waiting += needed_by(self.tools, file)
        return sizes

    def command(self, variables):
        """The words that run the program with more environment variables."""
        raise NotImplementedError


class native(machine):
    name = "x86-64"

    def __init__(self):
        super().__init__(tools_t("cmake", "gcc", "readelf", "strip", []))

    def command(self, variables):
        settings = [f"{name}={value}" for name, value in variables.items()]
        return ["env", *settings, self.build.program]


class mipsel(machine):
    name = "mipsel"
    own_addresses = range(guest_base, guest_base + guest_size)

    def __init__(self, environment):
        self.environment = environment
        tool = environment / "bin"
        super().__init__(tools_t(
            "cmake", tool / "mipsel-gcc", tool / "mipsel-readelf", tool / "mipsel-strip",
            [f"-DCMAKE_TOOLCHAIN_FILE={source_folder}/cmake/toolchain-mipsel.cmake",
             f"-DVEMK_TARGET_ENV={environment}"]))

    def command(self, variables):
        settings = [word for name, value in variables.items() for word in ("-E", f"{name}={value}")]
        return [self.environment / "bin" / "qemu", "-B", hex(guest_base), *settings,
                self.build.program]
