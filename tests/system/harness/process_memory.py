"""What memory a process takes."""

import pathlib


def pss_kib(pid):
    """The proportional set size."""
    return kib(pid, "smaps_rollup", "Pss")


def address_space_bytes(pid):
    """What RLIMIT_AS limits."""
    return kib(pid, "status", "VmSize") * 1024


def peak_kib(pid):
    """The most that was resident at any time."""
    return kib(pid, "status", "VmHWM")


def kib(pid, file, field):
    for line in pathlib.Path(f"/proc/{pid}/{file}").read_text().splitlines():
        if line.startswith(f"{field}:"):
            return int(line.split()[1])
    raise ValueError(f"process {pid} has no {field}")
