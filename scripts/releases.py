#!/usr/bin/python3
"""Builds the daemon over releases of libwebsockets and runs the tests on each.

Usage: releases.py [--arch ARCH] [--sanitize SANITIZER] [RELEASE ...]

RELEASE is a tag of the library's repository, a folder with its sources, or the installed prefix of
an SDK, which has include/libwebsockets.h and lib/; the default is the releases in the table below.
Tags come from the repository LWS_MIRROR in the environment, or from the library's public ones. ARCH
is that of a cmake/toolchain-ARCH.cmake whose environment has been made. SANITIZER is "address" or
"thread". A run over the default releases writes what was measured on each into docs/releases.md.
Exit status 1 when a release could not be had, built or tested, or a test failed. Each release has a
folder below build-releases, which holds the logs too.
"""

import argparse
import os
import pathlib
import re
import shutil
import subprocess
import sys
import xml.etree.ElementTree

checkout = pathlib.Path(__file__).resolve().parents[1]
all_builds = checkout / "build-releases"
measure = checkout / "tests/releases/measure.py"

public_mirrors = ("https://libwebsockets.org/repo/libwebsockets",
                  "https://github.com/warmcat/libwebsockets")

# The releases that are tested by default, with the options that only this one needs to be built.
releases = {
    "v2.0.3": [],
    # It asks for the zlib that it is to do without.
    "v2.4.2": ["-DLWS_WITH_ZIP_FOPS=OFF"],
    "v3.2.3": [],
    "v4.0.20": [],
    "v4.1.6": [],
    "v4.2.2": [],
    "v4.3.8": [],
}

# A static library as the daemon on a device needs it; warnings of old code say nothing about vemk.
library_options = [
    "-DCMAKE_BUILD_TYPE=MinSizeRel", "-DCMAKE_C_FLAGS=-w", "-DCMAKE_POSITION_INDEPENDENT_CODE=ON",
    "-DCMAKE_INSTALL_LIBDIR=lib", "-DCMAKE_POLICY_VERSION_MINIMUM=3.5", "-Wno-dev",
    "-DLWS_WITH_STATIC=ON", "-DLWS_WITH_SHARED=OFF", "-DLWS_WITH_SSL=OFF",
    "-DLWS_WITHOUT_EXTENSIONS=ON", "-DLWS_WITH_ZLIB=OFF", "-DLWS_WITHOUT_TESTAPPS=ON",
    "-DLWS_WITH_MINIMAL_EXAMPLES=OFF", "-DDISABLE_WERROR=ON",
    # What it finds on this machine would have to be linked as well.
    "-DLWS_HAVE_LIBCAP=OFF", "-DLWS_WITH_LIBCAP=OFF",
]

# The daemon's sanitizers by the library's. Old code is full of undefined behaviour.
sanitizers = {"address": "address,undefined", "thread": "thread"}

tests = r"^(unit|system|fuzz)\."
test_jobs = os.environ.get("TEST_JOBS", "16")
build_jobs = str(os.cpu_count())


class failure(Exception):
    """What keeps a release from being tested, in one line."""


def git(*words):
    return subprocess.run(["git", *map(str, words)], stdin=subprocess.DEVNULL, text=True,
                          capture_output=True, check=False,
                          env={**os.environ, "GIT_TERMINAL_PROMPT": "0"})


class release_build:
    """One release: its library, the daemon over it, and their logs."""

    def __init__(self, release, arch, sanitizer):
        given = pathlib.Path(release)
        self.release = release
        self.is_measured = not arch and not sanitizer
        self.is_prefix = (given / "include/libwebsockets.h").is_file()
        self.is_source = not self.is_prefix and (given / "CMakeLists.txt").is_file()
        is_folder = self.is_prefix or self.is_source
        if not is_folder and not re.fullmatch(r"[A-Za-z0-9][\w.-]*", release):
            raise failure(f"{release}: it holds neither sources nor include/libwebsockets.h")
        parts = given.resolve().parts[1:] if is_folder else [release]
        # The last part of an SDK's prefix is often just "usr".
        name = "-".join(parts[-2:]) if self.is_prefix else parts[-1]
        self.name = "-".join(filter(None, [name, arch, sanitizer]))
        self.folder = all_builds / self.name
        self.source = given.resolve() if self.is_source else self.folder / "source"
        self.build = self.folder / "build"
        self.package_folder = self.folder / "package"
        self.prefix = given.resolve() if self.is_prefix else self.folder / "prefix"
        self.library_options = [*library_options, *releases.get(release, [])]
        self.daemon_options = ["-DCMAKE_BUILD_TYPE=RelWithDebInfo"]
        if sanitizer:
            self.library_options.append(f"-DCMAKE_C_FLAGS=-w -g -fsanitize={sanitizer}")
            self.daemon_options = ["-DCMAKE_BUILD_TYPE=Debug",
                                   f"-DVEMK_SANITIZE={sanitizers[sanitizer]}"]
        self.toolchain = []
        if arch:
            file = checkout / "cmake" / f"toolchain-{arch}.cmake"
            self.toolchain = [f"-DCMAKE_TOOLCHAIN_FILE={file}"]
            sysroot = checkout / "build-mips-env/sysroot"
            if not self.is_prefix and arch == "mipsel":
                # The toolchain looks for libraries nowhere else.
                self.prefix = sysroot / "opt" / self.name
        self.folder.mkdir(parents=True, exist_ok=True)

    def run(self, log, *command):
        """Runs a step of the build; its output goes into the log."""
        with open(self.folder / f"{log}.log", "a", encoding="utf-8") as file:
            status = subprocess.run(list(map(str, command)), cwd=checkout, check=False,
                                    stdin=subprocess.DEVNULL, stdout=file,
                                    stderr=subprocess.STDOUT).returncode
        if status != 0:
            lines = (self.folder / f"{log}.log").read_text(errors="replace").splitlines()
            errors = [line for line in lines if re.search("error:|Error at", line)] or lines or [""]
            raise failure(f"{self.name}: the {log} failed: {errors[0].strip()} "
                          f"({self.folder / log}.log)")

    def fetch_source(self):
        marker = self.source / "CMakeLists.txt"
        if self.is_source or marker.exists():
            return
        shutil.rmtree(self.source, ignore_errors=True)
        git("init", "-q", self.source)
        mirrors = [os.environ["LWS_MIRROR"]] if os.environ.get("LWS_MIRROR") else public_mirrors
        reasons = []
        for mirror in mirrors:
            done = git("-C", self.source, "fetch", "-q", "--depth", "1", mirror,
                       f"refs/tags/{self.release}")
            if done.returncode == 0:
                done = git("-C", self.source, "-c", "advice.detachedHead=false", "checkout", "-q",
                           "FETCH_HEAD")
            if done.returncode == 0 and marker.exists():
                return
            reasons.append(f"{mirror}: {(done.stderr.strip() or 'nothing there').splitlines()[0]}")
        shutil.rmtree(self.source, ignore_errors=True)
        raise failure(f"{self.name}: its sources cannot be had: {'; '.join(reasons)}; LWS_MIRROR "
                      "names another git repository of the library")

    def build_library(self):
        if self.is_prefix:
            return
        self.fetch_source()
        library = self.folder / "library"
        self.run("library", "cmake", "-S", self.source, "-B", library, "-G", "Ninja",
                 f"-DCMAKE_INSTALL_PREFIX={self.prefix}", *self.library_options, *self.toolchain)
        self.run("library", "cmake", "--build", library, "-j", build_jobs)
        self.run("library", "cmake", "--install", library)

    def version(self):
        """With "-bare" behind it when the library has no extensions: the tests need to know."""
        header = self.prefix / "include/lws_config.h"
        text = header.read_text() if header.exists() else ""
        found = re.search(r'#define LWS_LIBRARY_VERSION\s+"([\d.]+)', text)
        if not found:
            raise failure(f"{self.name}: {header} does not say the library's version")
        is_bare = re.search(r"^#define LWS_(NO|WITHOUT)_EXTENSIONS\b", text, re.MULTILINE)
        return found[1] + ("-bare" if is_bare else "")

    def write_package(self):
        """A package file of its own, for the daemon's build to find: the release's often lacks what
        a static library needs, or names the folders of another machine."""
        own = self.prefix / "lib/pkgconfig/libwebsockets.pc"
        private = ""
        if self.is_prefix and own.exists() and not list(self.prefix.glob("lib/libwebsockets.so")):
            found = re.search(r"^Libs\.private:(.*)$", own.read_text(), re.MULTILINE)
            private = found[1] if found else ""
        file = self.package_folder / "lib/pkgconfig/libwebsockets.pc"
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(f"Name: libwebsockets\nDescription: release {self.release}\n"
                        f"Version: {self.version()}\nCflags: -I{self.prefix}/include\n"
                        f"Libs: -L{self.prefix}/lib -lwebsockets{private}\n")

    def build_daemon(self):
        self.write_package()
        self.run("daemon", "cmake", "-S", checkout, "-B", self.build, "-G", "Ninja",
                 *self.daemon_options, "-DVEMK_WERROR=ON", "-DBUILD_TESTING=ON",
                 f"-DVEMK_COMPANION_DIR={checkout / 'build'}",
                 f"-DCMAKE_PREFIX_PATH={self.package_folder}", *self.toolchain)
        self.run("daemon", "cmake", "--build", self.build, "-j", build_jobs)
        # The machine's own headers must not have come first.
        made_from = subprocess.run(["ninja", "-C", self.build, "-t", "deps",
                                    "src/CMakeFiles/libvemk.dir/websock/lws_release.cpp.o"],
                                   capture_output=True, text=True, check=True).stdout
        headers = re.findall(r"\S+/libwebsockets\.h$", made_from, re.MULTILINE)
        used = [(self.build / header).resolve() for header in headers]
        if used != [(self.prefix / "include/libwebsockets.h").resolve()]:
            raise failure(f"{self.name}: the daemon was built with {' '.join(headers)}")

    def run_tests(self, *selection):
        """Runs tests; returns the names of all and those of the failed ones."""
        results = self.folder / "results.xml"
        results.unlink(missing_ok=True)
        with open(self.folder / "tests.log", "a", encoding="utf-8") as log:
            subprocess.run(["ctest", "--test-dir", self.build, "--output-on-failure",
                            "--output-junit", results, *selection], check=False,
                           stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT)
        if not results.exists():
            raise failure(f"{self.name}: no test was run ({self.folder}/tests.log)")
        cases = xml.etree.ElementTree.parse(results).getroot().findall("testcase")
        return ([case.get("name") for case in cases],
                [case.get("name") for case in cases if case.get("status") != "run"])

    def test(self):
        for log in self.folder.glob("*.log"):
            log.unlink()
        self.build_library()
        self.build_daemon()
        names, failed = self.run_tests("-R", tests, "-j", test_jobs)
        if failed:
            # Beside others a test may be too slow.
            _, failed = self.run_tests("--rerun-failed", "-j", "1")
        summary = f"{self.name}: built, {len(names) - len(failed)} of {len(names)} tests passed"
        print("; failed: ".join([summary, *([" ".join(failed)] if failed else [])]), flush=True)
        if self.is_measured:
            self.run("measurement", checkout / "tests/system/in_own_networks.sh", measure,
                     self.folder)
        return not failed


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--arch", help="for the toolchain cmake/toolchain-ARCH.cmake")
    parser.add_argument("--sanitize", choices=sanitizers, help="for the daemon and the library")
    parser.add_argument("releases", nargs="*", metavar="RELEASE", default=list(releases))
    arguments = parser.parse_args()
    succeeded = True
    measured = []
    for release in arguments.releases:
        try:
            build = release_build(release, arguments.arch, arguments.sanitize)
            succeeded = build.test() and succeeded
            measured.append(build.folder / "measured.json")
        except failure as reason:
            print(reason, flush=True)
            succeeded = False
    if arguments.releases == list(releases) == [file.parent.name for file in measured]:
        subprocess.run([measure, "--write", checkout / "docs/releases.md", *measured], check=True)
    return 0 if succeeded else 1


if __name__ == "__main__":
    sys.exit(main())
