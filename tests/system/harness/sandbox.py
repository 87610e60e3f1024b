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

enter = 'mount --bind "$1" "$2" && mount --bind "$3" /tmp && shift 3 && exec "$@"'


class sandbox:
    """Owns its folder and removes it with `remove`."""

    def __init__(self, build_folder):
        self.build_folder = pathlib.Path(build_folder)
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vemk-", dir=parent_folder))
        self.bus_folder = self.folder / "bus"
        self.bus_folder.mkdir(mode=0o700)
        self.tmp_folder = self.folder / "tmp"
        self.tmp_folder.mkdir()
        # The build folder may itself lie under /tmp, so the daemon is started through a bind.
        self.bound_build_folder = self.folder / "build"
        self.bound_build_folder.mkdir()
        self.pid_file = self.tmp_folder / "vemk.roaming.pid"

    def command(self, *arguments):
        """The command line that runs `arguments` inside; the process ID is that of the caller."""
        return [*namespace_prefix(), "sh", "-c", enter, "sandbox", str(self.build_folder),
                str(self.bound_build_folder), str(self.tmp_folder), *map(str, arguments)]

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
