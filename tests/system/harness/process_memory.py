"""What memory a process takes."""

import pathlib


def pss_kib(pid):
    """The proportional set size."""
    for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
        if line.startswith("Pss:"):
            return int(line.split()[1])
    raise ValueError(f"process {pid} has no Pss")


def address_space_bytes(pid):
    """What RLIMIT_AS limits."""
    return status_kib(pid, "VmSize") * 1024


def peak_kib(pid):
    """The most that was resident at any time."""
    return status_kib(pid, "VmHWM")


def status_kib(pid, field):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith(f"{field}:"):
            return int(line.split()[1])
    raise ValueError(f"process {pid} has no {field}")
