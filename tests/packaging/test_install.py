"""What an installation puts where: a workstation's, and a device's through the OpenWrt package."""

import os
import re
import shlex
import shutil
import subprocess
from pathlib import Path

import pytest

BUILD = Path(os.environ["BUILD_DIR"])
SOURCE = Path(os.environ["SOURCE_DIR"])
CMAKE = os.environ["CMAKE_COMMAND"]
PREFIX = os.environ["INSTALL_PREFIX"]
ETC = "/etc" if PREFIX == "/usr" else f"{PREFIX}/etc"
PACKAGE = SOURCE / "packaging/openwrt/vemk"


def files_below(folder):
    return {f"/{path.relative_to(folder)}" for path in folder.rglob("*") if not path.is_dir()}


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=True, **options).stdout


@pytest.fixture(scope="module")
def workstation(tmp_path_factory):
    folder = tmp_path_factory.mktemp("workstation")
    run(CMAKE, "--install", BUILD, env={**os.environ, "DESTDIR": str(folder)})
    return folder


# Three programs, configuration, four manuals, unit and completion: ten files and no other.
def test_a_workstation_gets_everything(workstation):
    assert files_below(workstation) == {
        f"{PREFIX}/sbin/vemk",
        f"{PREFIX}/bin/vemkctl",
        f"{PREFIX}/bin/roam-service",
        f"{ETC}/vemk/vemk.conf",
        f"{PREFIX}/share/man/man8/vemk.8",
        f"{PREFIX}/share/man/man5/vemk.conf.5",
        f"{PREFIX}/share/man/man1/vemkctl.1",
        f"{PREFIX}/share/man/man1/roam-service.1",
        f"{PREFIX}/lib/systemd/system/vemk.service",
        f"{PREFIX}/share/bash-completion/completions/vemkctl",
    }


@pytest.fixture(scope="module")
def unit(workstation):
    """Returns a function that gives the values of a key of the installed unit, in their order."""
    text = (workstation / PREFIX.lstrip("/") / "lib/systemd/system/vemk.service").read_text()
    return lambda key: re.findall(rf"^{key}=(.*)$", text, re.M)


def command_of(line, workstation, configuration=None):
    """The words of a unit's command line, as systemd takes it apart, with the installation's paths."""
    words = shlex.split(line.replace("$$", "$"))
    installed = f"{ETC}/vemk/vemk.conf"
    return [str(configuration or workstation / installed.lstrip("/")) if word == installed else
            str(workstation / word.lstrip("/")) if word.startswith(f"{PREFIX}/") else word
            for word in words]


# ExecStart is an executable of the installation, -f and an installed file.
def test_the_unit_starts_what_is_installed(workstation, unit):
    program, option, configuration = command_of(*unit("ExecStart"), workstation)
    assert os.access(program, os.X_OK)
    assert option == "-f"
    assert Path(configuration).is_file()


# Its URL is a comment: installed as it was, the daemon trusted whoever listened on 127.0.0.1:8080.
def test_the_installed_configuration_names_no_service(workstation):
    installed = (workstation / ETC.lstrip("/") / "vemk/vemk.conf").read_text()
    example = (SOURCE / "examples/vemk.conf").read_text()
    assert installed == example.replace("\nroam_service_url=", "\n#roam_service_url=")
    assert installed != example


# No file, no URL, an empty, commented or indented one: status 1, and what to do on standard error.
# Status 1 of a condition makes systemd skip the start without calling it a failure.
@pytest.mark.parametrize("text", [None, "", "roam_service_url=\n", "#roam_service_url=ws://h:1/\n",
                                  " roam_service_url=ws://h:1/\n", "as installed"])
def test_the_unit_is_skipped_without_a_url(workstation, unit, tmp_path, text):
    configuration = tmp_path / "vemk.conf"
    if text == "as installed":
        configuration = workstation / ETC.lstrip("/") / "vemk/vemk.conf"
    elif text is not None:
        configuration.write_text(text)
    result = subprocess.run(command_of(*unit("ExecCondition"), workstation, configuration),
                            capture_output=True, text=True)
    assert result.returncode == 1
    assert result.stdout == ""
    assert result.stderr.splitlines()[-1] == (
        f"vemk: not started: put roam_service_url=ws://HOST:PORT/PATH into {configuration}, "
        "then run: systemctl restart vemk")


# A URL in any letter case, and one in a later line, meet the unit's condition without a word.
@pytest.mark.parametrize("text", ["ROAM_SERVICE_URL=h:1/\n", "log_level=1\nRoam_Service_Url=x"])
def test_the_unit_is_started_with_a_url(workstation, unit, tmp_path, text):
    configuration = tmp_path / "vemk.conf"
    configuration.write_text(text)
    result = subprocess.run(command_of(*unit("ExecCondition"), workstation, configuration),
                            capture_output=True, text=True)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


# A URL without a port: the line before the start names it, and its status decides nothing.
# The daemon ends with status 0 then, and the journal said no more than "Deactivated successfully".
def test_the_unit_says_what_is_wrong_with_the_configuration(workstation, unit, tmp_path):
    configuration = tmp_path / "vemk.conf"
    configuration.write_text("log_level=1\nroam_service_url=ws://roaming.example/roam\n")
    line, = unit("ExecStartPre")
    assert line.startswith("-/")
    command = command_of(line[1:], workstation, configuration)
    result = subprocess.run(command, capture_output=True, text=True)
    assert result.returncode == 2
    assert f"{configuration}:2: error: the URL has no port" in result.stdout


# One limit, above the 0.9 GB that the most expensive message of 16 MiB takes.
def test_the_unit_states_how_much_memory_the_daemon_may_take(unit):
    assert unit("MemoryMax") == ["1G"]


# Restart=on-failure, so that status 0 is final and 255 is not.
def test_the_unit_restarts_failures_only(unit):
    assert unit("Restart") == ["on-failure"]
    assert not unit("SuccessExitStatus") and not unit("RestartPreventExitStatus")


def make(work, *arguments):
    """Runs the OpenWrt package's Makefile over a stub of its build system."""
    return run("make", "-s", "-C", PACKAGE, f"TOPDIR={SOURCE}/tests/packaging/openwrt_stub",
               f"WORK={work}", f"CMAKE_COMMAND={CMAKE}", *arguments)


VENDOR = ["VEMK_PLATFORM_PACKAGES=+some-bus +some-log",
          "VEMK_PLATFORM_LIBRARIES=some_bus;some_log"]


@pytest.fixture(scope="module")
def device(tmp_path_factory):
    work = tmp_path_factory.mktemp("device")
    make(work, "prepare", *VENDOR)
    make(work, "configure", *VENDOR)
    # Linking takes a device's libraries; where a program goes does not depend on what is in it.
    shutil.copy(BUILD / "vemk", work / "build/vemk")
    make(work, "install")
    return work


# Daemon, configuration and its two manuals: four files and no other.
def test_a_device_gets_the_daemon_with_its_configuration_and_manuals(device):
    assert files_below(device / "staged") == {
        "/usr/sbin/vemk",
        "/etc/vemk/vemk.conf",
        "/usr/share/man/man8/vemk.8",
        "/usr/share/man/man5/vemk.conf.5",
    }


# Four files; the two configurations are the package's own, the script can be executed.
# The daemon's user can read the daemon's configuration.
def test_the_openwrt_package_has_the_daemon_its_init_script_and_its_own_configurations(device):
    root = device / "root"
    assert files_below(root) == {
        "/usr/sbin/vemk", "/etc/init.d/vemk", "/etc/config/vemk", "/etc/vemk/vemk.conf"}
    for installed, source in [("etc/vemk/vemk.conf", "vemk.conf"), ("etc/config/vemk", "vemk.config")]:
        assert (root / installed).read_bytes() == (PACKAGE / "files" / source).read_bytes()
    assert (root / "etc/vemk/vemk.conf").stat().st_mode & 0o777 == 0o644
    assert os.access(root / "etc/init.d/vemk", os.X_OK)


# CMake gets MinSizeRel, the platform "device" and the two named libraries.
def test_the_openwrt_package_is_built_small_over_the_named_libraries(device):
    cache = (device / "build/CMakeCache.txt").read_text()
    for entry in ["CMAKE_BUILD_TYPE:STRING=MinSizeRel", "VEMK_PLATFORM:STRING=device",
                  "VEMK_PLATFORM_LIBRARIES:STRING=some_bus;some_log"]:
        assert f"\n{entry}\n" in cache


# The project's version, a named libwebsockets, the vendor's packages, the user, both configurations.
def test_the_openwrt_package_says_what_it_is(tmp_path):
    version = re.search(r"project\(vemk VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text())[1]
    assert make(tmp_path, "print", *VENDOR).splitlines() == [
        f"version {version}",
        "depends +libwebsockets-mbedtls +libjson-c +libstdcpp +some-bus +some-log",
        "user vemk:vemk",
        "conffiles /etc/config/vemk /etc/vemk/vemk.conf",
    ]


# Without the vendor's packages or libraries a build fails and names the variable; a scan does not.
# Two names stood there that no feed had, so that the linker failed.
@pytest.mark.parametrize("missing", [0, 1])
def test_the_openwrt_package_needs_to_know_the_vendors_libraries(tmp_path, missing):
    variables = [VENDOR[1 - missing]]
    make(tmp_path, "print", *variables)
    with pytest.raises(subprocess.CalledProcessError) as failure:
        make(tmp_path, "prepare", *variables)
    name = VENDOR[missing].split("=")[0]
    assert f"{name} is not set: see the comment in vemk/Makefile" in failure.value.stderr
    assert not (tmp_path / "build").exists()


@pytest.fixture
def installed_version(tmp_path):
    """Returns a function that runs test-version.sh over a program with that version in it."""
    script = tmp_path / "test-version.sh"
    text = (PACKAGE / "test-version.sh").read_text()
    assert text.count(" /usr/sbin/vemk ") == 1
    script.write_text(text.replace(" /usr/sbin/vemk ", f" {tmp_path}/vemk "))

    def run(in_program, asked_for, package="vemk"):
        (tmp_path / "vemk").write_bytes(b"\x7fELF\0" + in_program.encode() + b"\0\1other\0")
        return subprocess.run(["sh", script, package, asked_for], capture_output=True, text=True)

    return run


# The test of that tree's CI finds "vemk 1.0.1" by strings; --version would end the daemon with 255.
def test_the_openwrt_version_test_finds_the_version_in_the_program(installed_version):
    result = installed_version("vemk 1.0.1", "1.0.1")
    assert (result.returncode, result.stdout) == (0, "vemk 1.0.1\n")


# Versions 1.0.10 and 1.0.0, and a program without one, are not 1.0.1.
@pytest.mark.parametrize("in_program", ["vemk 1.0.10", "vemk 1.0.0", ""])
def test_the_openwrt_version_test_accepts_no_other_version(installed_version, in_program):
    assert installed_version(in_program, "1.0.1").returncode != 0
