"""The fully static daemon: how it is built for a device, and run here."""

import shutil

from device_build import configure, run, source_folder, stub_folder, tools_t

from machines import guest_base, guest_size


class static_machine:
    """A static device build over the stub libraries, and what is needed to run it here.

    A static program loads no other library, the fast clock among them.
    """

    name = "mipsel, static"
    own_addresses = range(guest_base, guest_base + guest_size)

    def __init__(self, environment):
        self.emulator = environment / "bin" / "qemu-mipsel"
        self.folder = source_folder / "build-size-mipsel-static"
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir()
        self.tools = tools_t("cmake", environment / "bin" / "mipsel-cc", "readelf", "strip", [
            f"-DCMAKE_TOOLCHAIN_FILE={source_folder}/cmake/toolchain-mipsel-static.cmake",
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
            "-I", source_folder / "platform" / "include", "-o", object_file,
            stub_folder / f"stub_{name}.c")
        run(environment / "bin" / "mipsel-ar", "rcs", library, object_file)
        return library

    def program_size(self):
        return self.program.stat().st_size

    def command(self, variables):
        settings = [word for name, value in variables.items() for word in ("-E", f"{name}={value}")]
        return [self.emulator, "-cpu", "24Kc", "-B", hex(guest_base), *settings, self.program]
