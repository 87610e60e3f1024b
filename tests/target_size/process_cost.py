"""What the kernel says that a process costs."""

import collections
import pathlib
import re

# Kilobytes. `clean` and `dirty` are the pages that no other process shares.
memory_t = collections.namedtuple("memory_t", "clean dirty pss rss")
# Since the start, over all threads.
work_t = collections.namedtuple("work_t", "wake_ups cpu_seconds")

mapping_pattern = re.compile(r"([0-9a-f]+)-([0-9a-f]+) ")
field_pattern = re.compile(r"(Private_Clean|Private_Dirty|Pss|Rss): +(\d+) kB")


def memory_of(pid, own_addresses):
    """The memory of the mappings within the given range of addresses."""
    sums = collections.Counter()
    counts = False
    for line in pathlib.Path(f"/proc/{pid}/smaps").read_text().splitlines():
        mapping = mapping_pattern.match(line)
        if mapping:
            counts = int(mapping[1], 16) in own_addresses
            continue
        field = field_pattern.match(line)
        if field and counts:
            sums[field[1]] += int(field[2])
    return memory_t(sums["Private_Clean"], sums["Private_Dirty"], sums["Pss"], sums["Rss"])


def work_of(pid):
    """Voluntary context switches, and the processor's time to the nanosecond."""
    wake_ups = 0
    cpu_ns = 0
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        status = (task / "status").read_text()
        wake_ups += int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", status, re.MULTILINE)[1])
        cpu_ns += int((task / "schedstat").read_text().split()[0])
    return work_t(wake_ups, cpu_ns / 1e9)
