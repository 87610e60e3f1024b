"""The daemon as a device gets it: what it needs, how it is hardened, how large it is.

The environment, set in CMakeLists.txt, names the processor, its tools and a folder to work in.
"""

import os
import pathlib
import re

import pytest

from device_build import configure, device_build, run, source_folder, tools_t

# What the C and C++ libraries consist of; the dynamic loader is one of them on some processors.
language_libraries = {"libc", "libm", "libstdc++", "libgcc_s", "libatomic", "ld"}
stand_in_pattern = re.compile(r"zmq|spdlog|cli11|CLI/|\bfmt\b|libfmt", re.IGNORECASE)
max_size = 80 * 1024

platform_functions = {
    "InitTrace", "SetTraceOpt", "InitLibParams", "FreeLibParams", "ModulePeerStart",
    "ModulePeerStop", "GetModuleLoop", "SetModuleLoop", "GetMsgFromQueueNoWait", "MsgSend",
    "init_zandor_logrotate", "zandor_log_msg_timed", "vzandor_log_msg"}
library_functions = {
    "lws_set_log_level", "lws_create_context", "lws_context_destroy",
    "lws_client_connect_via_info", "lws_service", "lws_write", "lws_callback_on_writable",
    "lws_remaining_packet_payload", "lws_is_final_fragment", "lws_get_socket_fd",
    "lws_partial_buffered", "lws_rx_flow_control",
    "json_tokener_parse", "json_object_new_object", "json_object_new_array",
    "json_object_new_string", "json_object_new_int", "json_object_object_add",
    "json_object_array_add", "json_object_array_put_idx", "json_object_object_get_ex",
    "json_object_get_string", "json_object_get_string_len", "json_object_get_int",
    "json_object_array_length", "json_object_array_get_idx", "json_object_is_type",
    "json_object_to_json_string", "json_object_put"}
# What only later releases have, and need.
release_functions = {"lws_cancel_service", "lws_sul_schedule", "lws_validity_confirmed"}

work_folder = pathlib.Path(os.environ["WORK_DIR"])
tools = tools_t(os.environ["CMAKE_COMMAND"], os.environ["C_COMPILER"], os.environ["READELF"],
                os.environ["STRIP"], os.environ["DEFINITIONS"].split())


@pytest.fixture(scope="module")
def build():
    return device_build(tools, work_folder / "device")


# libwebsockets, libjson-c, bus, log and the language's own libraries.
def test_needs_the_two_protocol_libraries_and_the_platform_only(build):
    needed = {"ld" if name.startswith("ld-linux") else name for name in build.needed()}
    assert needed - language_libraries == {
        "libwebsockets", "libjson-c", "libdevice_bus", "libdevice_log"}
    assert {"libc", "libstdc++"} <= needed


# The ten functions of the bus and the three of the log are left to the device's libraries.
def test_calls_every_platform_function(build):
    assert platform_functions - build.undefined_symbols() == set()


# A program that calls GetMsgDescriptor if there is one links with the stub, which has none.
def test_a_bus_library_of_ten_functions_is_enough(build):
    source = build.folder / "asks.c"
    source.write_text('#include "module_bus.h"\n'
                      "int main(void) { return GetMsgDescriptor ? GetMsgDescriptor() : 0; }\n")
    run(tools.c_compiler, "-I", source_folder / "platform" / "include", "-o", build.folder / "asks",
        source, build.stubs[0])


# 12 of libwebsockets, three of its later releases, and 17 of json-c are all that may be called.
def test_calls_no_other_function_of_the_two_protocol_libraries(build):
    called = {name for name in build.undefined_symbols() if name.startswith(("lws_", "json_"))}
    assert called - release_functions - library_functions == set()
    assert {"lws_write", "json_tokener_parse"} <= called


# The program calls neither getenv nor anything that installs a signal handler.
def test_reads_no_environment_and_handles_no_signal(build):
    refused = {"getenv", "secure_getenv", "signal", "sigaction", "sigprocmask", "pthread_sigmask"}
    assert refused & build.undefined_symbols() == set()


# CMake's cache names no zmq, spdlog, CLI11 or fmt.
def test_no_library_of_the_stand_ins_is_looked_for(build):
    assert stand_in_pattern.findall(build.cache()) == []


# Of all headers read, module_bus.h among them, none is of those libraries.
def test_no_header_of_the_stand_ins_is_read(build):
    files = build.compiled_files()
    assert "platform/include/module_bus.h" in files
    assert stand_in_pattern.findall(files) == []


# libvemk.a is made; vemkctl, roam-service and the two stand-in libraries are not.
def test_neither_stand_ins_nor_companions_are_built(build):
    made = {path.name for path in build.build_folder.rglob("*") if path.suffix in (".a", "")}
    assert "libvemk.a" in made
    assert not {"vemkctl", "roam-service", "libmodule_bus_host.a", "libzandor_log_host.a"} & made


# The program's type is DYN with the flag PIE.
def test_is_position_independent(build):
    assert re.search(r"Type:\s+DYN", build.readelf("-h"))
    assert re.search(r"FLAGS_1\).*\bPIE\b", build.readelf("-d"))


# GNU_RELRO with the flag NOW: full RELRO.
def test_relocations_are_read_only_after_start(build):
    assert "GNU_RELRO" in build.readelf("-l")
    assert re.search(r"FLAGS_1\).*\bNOW\b", build.readelf("-d"))


# The program calls __stack_chk_fail and __snprintf_chk.
def test_stack_and_buffers_are_guarded(build):
    symbols = build.undefined_symbols()
    assert "__stack_chk_fail" in symbols
    assert "__snprintf_chk" in symbols


# "vemk VERSION", CMake's, stands once in the stripped program, whatever the linker left out.
def test_tells_its_version(build):
    version = re.search(r"CMAKE_PROJECT_VERSION:\w+=(\S+)", build.cache())[1]
    build.stripped_size()
    assert (build.folder / "stripped").read_bytes().count(f"vemk {version}\0".encode()) == 1


# The program header GNU_STACK has the flags RW.
# Compilers for MIPS ask for RWE, and so did the program.
def test_stack_is_not_executable(build):
    assert build.stack_flags() == "RW"


# With VEMK_EXECUTABLE_STACK=ON the flags are RWE.
def test_stack_is_executable_where_the_kernel_needs_that(build):
    build.build("-DVEMK_EXECUTABLE_STACK=ON")
    try:
        assert build.stack_flags() == "RWE"
    finally:
        build.build("-DVEMK_EXECUTABLE_STACK=OFF")


# At most 80 KiB stripped.
def test_stripped_program_is_within_its_budget(build):
    assert build.stripped_size() <= max_size


# The device's platform without VEMK_PLATFORM_LIBRARIES fails and names that variable.
def test_platform_without_libraries_is_refused():
    folder = work_folder / "without-libraries"
    status, output = configure(tools, folder, "-DVEMK_PLATFORM=device")
    assert status != 0
    assert "needs VEMK_PLATFORM_LIBRARIES: the device's bus and log" in " ".join(output.split())


# Flags with _FORTIFY_SOURCE=3, plain or behind -Wp, compile without a warning.
# The build's own value came on top of the toolchain's: a warning for each file, and an error where
# warnings are errors.
@pytest.mark.parametrize("flag", ["-D_FORTIFY_SOURCE=3", "-Wp,-D_FORTIFY_SOURCE=3"])
def test_the_toolchain_may_set_another_fortification(flag):
    folder = work_folder / "fortified"
    status, output = configure(tools, folder, "-DVEMK_PLATFORM=device",
                               "-DVEMK_PLATFORM_LIBRARIES=unused", f"-DCMAKE_CXX_FLAGS={flag}")
    assert status == 0, output
    run(tools.cmake, "--build", folder, "--target",
        "src/CMakeFiles/libvemk.dir/config/number.cpp.o")


# VEMK_PLATFORM=router fails with "it takes host or device".
def test_unknown_platform_is_refused():
    folder = work_folder / "unknown-platform"
    status, output = configure(tools, folder, "-DVEMK_PLATFORM=router")
    assert status != 0
    assert "VEMK_PLATFORM is 'router'; it takes host or device" in " ".join(output.split())
