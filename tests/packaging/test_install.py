"""What an installation puts where: a workstation's, and a device's through the OpenWrt package."""

import os
import re
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


# ExecStart is an executable of the installation, -f and an installed file.
def test_the_unit_starts_what_is_installed(workstation):
    unit = (workstation / PREFIX.lstrip("/") / "lib/systemd/system/vemk.service").read_text()
    program, option, configuration = re.search(r"^ExecStart=(.*)$", unit, re.M)[1].split()
    assert os.access(workstation / program.lstrip("/"), os.X_OK)
    assert option == "-f"
    assert (workstation / configuration.lstrip("/")).is_file()


# Restart=on-failure, so that status 0 is final and 255 is not.
def test_the_unit_restarts_failures_only(workstation):
    unit = (workstation / PREFIX.lstrip("/") / "lib/systemd/system/vemk.service").read_text()
    assert re.findall(r"^Restart=.*$", unit, re.M) == ["Restart=on-failure"]
    assert "SuccessExitStatus" not in unit and "RestartPreventExitStatus" not in unit


def make(work, *arguments):
    """Runs the OpenWrt package's Makefile over a stub of its build system."""
    return run("make", "-s", "-C", PACKAGE, f"TOPDIR={SOURCE}/tests/packaging/openwrt_stub",
               f"WORK={work}", f"CMAKE_COMMAND={CMAKE}", *arguments)


@pytest.fixture(scope="module")
def device(tmp_path_factory):
    work = tmp_path_factory.mktemp("device")
    make(work, "prepare")
    make(work, "configure", "VEMK_PLATFORM_LIBRARIES=some_bus;some_log")
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


# Three files; the configuration is the package's own, the script executable.
def test_the_openwrt_package_has_the_daemon_its_init_script_and_its_own_configuration(device):
    assert files_below(device / "root") == {
        "/usr/sbin/vemk", "/etc/init.d/vemk", "/etc/vemk/vemk.conf"}
    assert (device / "root/etc/vemk/vemk.conf").read_bytes() == (
        PACKAGE / "files/vemk.conf").read_bytes()
    assert os.access(device / "root/etc/init.d/vemk", os.X_OK)


# CMake gets MinSizeRel, the platform "device" and the two named libraries.
def test_the_openwrt_package_is_built_small_over_the_named_libraries(device):
    cache = (device / "build/CMakeCache.txt").read_text()
    for entry in ["CMAKE_BUILD_TYPE:STRING=MinSizeRel", "VEMK_PLATFORM:STRING=device",
                  "VEMK_PLATFORM_LIBRARIES:STRING=some_bus;some_log"]:
        assert f"\n{entry}\n" in cache


# The project's version, three dependencies and /etc/vemk/vemk.conf as configuration.
def test_the_openwrt_package_says_what_it_is(tmp_path):
    version = re.search(r"project\(vemk VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text())[1]
    assert make(tmp_path, "print").splitlines() == [
        f"version {version}",
        "depends +libwebsockets +libjson-c +libstdcpp",
        "conffiles /etc/vemk/vemk.conf",
    ]
