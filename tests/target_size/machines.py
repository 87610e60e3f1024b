"""The processors on which the daemon is measured: how it is built and run for each."""

import pathlib

from device_build import (device_build, needed_by, run, source_folder, stripped_size, stub_folder,
                          tools_t)

fast_clock_source = source_folder / "tests" / "system" / "preload" / "fast_clock.c"

# Where the emulator puts the program's 2 GiB of address space.
guest_base = 0x10000000000
guest_size = 0x80000000


class machine:
    """A device build of the daemon for one processor, and what is needed to run it here.

    Its folder, below the checkout, holds the program and the stub libraries.
    """

    name = ""
    # The addresses that belong to the daemon rather than to something that runs it.
    own_addresses = range(0, 1 << 64)
    # A folder that the runner needs.
    runner_folder = None
    # In the build folder.
    fast_clock = "fast_clock.so"

    def __init__(self, tools):
        self.tools = tools
        self.folder = source_folder / f"build-size-{self.name.replace(', ', '-')}"
        print(f"building for {self.name} ...", flush=True)
        self.build_folder = self.build()
        # Pages of a file that is not yet written back would count as written to by the daemon.
        run("sync", "-f", self.folder)

    def build(self):
        """Returns the folder with the stripped program and the faster clock."""
        self.made = device_build(self.tools, self.folder)
        run(self.tools.strip, self.made.program)
        run(self.tools.c_compiler, "-shared", "-fPIC", "-O2", "-Wall", "-Wextra", "-o",
            self.made.build_folder / self.fast_clock, fast_clock_source, "-ldl")
        return self.made.build_folder

    def find_library(self, name):
        found = pathlib.Path(run(self.tools.c_compiler, f"-print-file-name={name}").strip())
        assert found.is_absolute(), f"{self.name}: the compiler does not know {name}"
        return found.resolve()

    def program_size(self):
        return (self.build_folder / "vemk").stat().st_size

    def library_sizes(self):
        """Stripped sizes by name, those of the program first, then those that these need."""
        stubs = {stub.name for stub in self.made.stubs}
        sizes = {}
        waiting = [name for name in needed_by(self.tools, self.made.program) if name not in stubs]
        while waiting:
            name = waiting.pop(0)
            if name in sizes:
                continue
            file = self.find_library(name)
            sizes[name] = stripped_size(self.tools, file, self.folder)
            waiting += needed_by(self.tools, file)
        return sizes

    def runner(self, preloaded):
        """The words before the program, to which the library is preloaded if there is one."""
        raise NotImplementedError


class native(machine):
    name = "x86-64"

    def __init__(self):
        super().__init__(tools_t("cmake", "gcc", "readelf", "strip", []))

    @classmethod
    def can_be_made(cls):
        return True

    def runner(self, preloaded):
        return ["env", f"LD_PRELOAD={preloaded}"] if preloaded else []


class emulated(machine):
    """With the tools of the environment that a script makes in the folder `environment`."""

    own_addresses = range(guest_base, guest_base + guest_size)
    script = ""
    environment = None
    emulator = ()

    def __init__(self, *tools):
        self.runner_folder = self.environment
        super().__init__(tools_t("cmake", *tools))

    @classmethod
    def can_be_made(cls):
        return (cls.environment / "bin" / cls.emulator[0]).exists()

    def runner(self, preloaded):
        program, *options = self.emulator
        setting = ["-E", f"LD_PRELOAD={preloaded}"] if preloaded else []
        return [self.environment / "bin" / program, *options, "-B", hex(guest_base), *setting]


class mipsel(emulated):
    name = "mipsel"
    script = "scripts/target-env.sh"
    environment = source_folder / "build-mips-env"
    emulator = ("qemu",)

    def __init__(self):
        tool = self.environment / "bin"
        super().__init__(tool / "mipsel-gcc", tool / "mipsel-readelf", tool / "mipsel-strip", [
            f"-DCMAKE_TOOLCHAIN_FILE={source_folder}/cmake/toolchain-mipsel.cmake",
            f"-DVEMK_TARGET_ENV={self.environment}"])


class static_build(device_build):
    """With the stubs in archives, so that they get into the program."""

    def make_stub(self, name):
        object_file = self.folder / f"stub_{name}.o"
        library = self.folder / f"libdevice_{name}.a"
        run(self.tools.c_compiler, "-c", "-Os", "-ffunction-sections",
            "-I", source_folder / "platform" / "include", "-o", object_file,
            stub_folder / f"stub_{name}.c")
        run(pathlib.Path(self.tools.c_compiler).with_name("mipsel-ar"), "rcs", library, object_file)
        return library


class static_mipsel(emulated):
    """One static program, the stubs within it. It loads no other library, the clock among them."""

    name = "mipsel, static"
    fast_clock = None
    script = "scripts/static-env.sh"
    environment = source_folder / "build-static-env"
    emulator = ("qemu-mipsel", "-cpu", "24Kc")

    def __init__(self):
        super().__init__(self.environment / "bin" / "mipsel-cc", "readelf", "strip", [
            f"-DCMAKE_TOOLCHAIN_FILE={source_folder}/cmake/toolchain-mipsel-static.cmake",
            f"-DVEMK_STATIC_ENV={self.environment}"])

    def build(self):
        return static_build(self.tools, self.folder).build_folder

    def library_sizes(self):
        return {}
