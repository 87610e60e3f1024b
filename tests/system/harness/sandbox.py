"""A private place for one test: a bus folder, a /tmp of the daemon's own, a short path.

The PID file's path is fixed, and a starting daemon ends the process that the file names. Each
daemon therefore runs in a mount namespace in which /tmp is the sandbox's `tmp` folder. Daemons of
one sandbox share that folder, so one can replace the other.
"""

import functools
import os
import pathlib
import shutil
import subprocess
import tempfile

import pytest

# Not under /tmp, which the daemon sees differently; short, because socket paths end at 107 bytes.
parent_folder = "/var/tmp"

# What is bound into the new /tmp comes along with it.
enter = ('while [ "$1" != in ]; do mount --bind "$1" "$2" && shift 2 || exit; done && '
         'mount --rbind "$2" /tmp && shift 2 && exec "$@"')


class sandbox:
    """Owns its folder and removes it with `remove`."""

    def __init__(self, build_folder, companion_folder, runner_folder=None):
        self.build_folder = build_folder
        self.companion_folder = companion_folder
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vemk-", dir=parent_folder))
        self.bus_folder = self.folder / "bus"
        self.bus_folder.mkdir(mode=0o700)
        self.tmp_folder = self.folder / "tmp"
        self.tmp_folder.mkdir()
        # The build folder may itself lie under /tmp, so the daemon is started through a bind.
        self.bound_build_folder = self.folder / "build"
        self.bound_build_folder.mkdir()
        self.binds = [(build_folder, self.bound_build_folder)]
        if runner_folder and pathlib.PurePath("/tmp") in pathlib.PurePath(runner_folder).parents:
            bound = self.tmp_folder / pathlib.PurePath(runner_folder).relative_to("/tmp")
            bound.mkdir(parents=True)
            self.binds.append((runner_folder, bound))
        self.pid_file = self.tmp_folder / "vemk.roaming.pid"

    def command(self, *arguments):
        """The command line that runs `arguments` inside; the process ID is that of the caller."""
        binds = [str(folder) for bind in self.binds for folder in bind]
        return [*namespace_prefix(), "sh", "-c", enter, "sandbox", *binds, "in",
                str(self.tmp_folder), *map(str, arguments)]

    def pid_file_text(self):
        """Nothing while there is no such file."""
        return self.pid_file.read_text() if self.pid_file.exists() else ""

    def remove(self):
        shutil.rmtree(self.folder, ignore_errors=True)


@functools.lru_cache(maxsize=None)
def namespace_prefix():
    """How a private mount namespace is made on this machine; fails the test where it cannot be."""
    user = [] if os.geteuid() == 0 else ["--map-root-user"]
    # In a chroot the root is no mount point and its propagation cannot be changed.
    for propagation in ("private", "unchanged"):
        prefix = ["unshare", "--mount", "--propagation", propagation, *user]
        if mounts_stay_inside(prefix):
            return prefix
    return pytest.fail("these tests need private mount namespaces: run them as root, or allow "
                       "user namespaces (sysctl kernel.unprivileged_userns_clone=1)")


def mounts_stay_inside(prefix):
    with tempfile.TemporaryDirectory(prefix="vemk-", dir=parent_folder) as folder:
        inside, outside = os.path.join(folder, "inside"), os.path.join(folder, "outside")
        os.mkdir(inside)
        os.mkdir(outside)
        open(os.path.join(inside, "mark"), "w").close()
        probe = 'mount --bind "$1" "$2" && test -e "$2/mark"'
        result = subprocess.run([*prefix, "sh", "-c", probe, "probe", inside, outside],
                                stderr=subprocess.DEVNULL)
        leaked = os.path.exists(os.path.join(outside, "mark"))
        if leaked:
            subprocess.run(["umount", outside], check=True)
        return result.returncode == 0 and not leaked
