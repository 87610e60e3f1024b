"""What is measured of a system, and whether others used the processors meanwhile."""

import math
import os
import time
from functools import partial

from process_cost import memory_of, work_of

small, middle, large = 200, 4096, 1 << 20
sizes = (1, small, middle, 1 << 16, large, 1 << 24)
backlogs = (1, 10, 100, 1000, 10000, 100000)
rest_seconds = 60

# Beyond these, a bus drops what a listener has not yet read.
bus_pieces = 60000
bus_piece_bytes = 1024

# Others may have this share of the processors; the counters of busy time are coarse.
most_foreign_share = 0.05
coarseness_seconds = 0.05


def cpu_seconds(pid):
    """The processor's time that a process has used, ended threads included."""
    return time.clock_gettime(~pid << 3 | 2)


class processor_watch:
    """Compares the busy time of all processors with that of own processes."""

    def __init__(self, pids):
        self.pids = [os.getpid(), *pids]
        self.begin = self.now()

    def now(self):
        with open("/proc/stat", encoding="ascii") as file:
            user, nice, system, _, _, irq, softirq, steal = map(int, file.readline().split()[1:9])
        busy = (user + nice + system + irq + softirq + steal) / os.sysconf("SC_CLK_TCK")
        return time.monotonic() * os.cpu_count(), busy - sum(map(cpu_seconds, self.pids))

    def others_were_busy(self):
        whole, foreign = (now - begin for now, begin in zip(self.now(), self.begin))
        return foreign > coarseness_seconds + most_foreign_share * whole


def rate(running, way, size, seconds):
    """Messages a second, over about so many seconds."""
    most = bus_pieces // math.ceil(size / bus_piece_bytes)
    count = 1
    while True:
        [elapsed] = running.measure("rate", way, size, count)
        if elapsed >= seconds / 2 or count == most:
            return [count / elapsed]
        growth = 0.9 * seconds / elapsed if elapsed > seconds / 20 else 10
        count = min(most, math.ceil(count * growth))


def latency(running, way, count, pause_us):
    """Microseconds of each message."""
    return running.measure("latency", way, small, count, pause_us)


def time_of_one(running, way, count):
    """Milliseconds of a large message, the median of so many."""
    times = running.measure("latency", way, large, count, 20000)
    return [sorted(times)[count // 2] / 1000]


def backlog_cost(running, way, count):
    """Microseconds of the processor's time that the bridge takes for each message of a backlog."""
    before = cpu_seconds(running.bridge)
    running.measure("backlog" if way == "up" else "rate", way, small, count)
    return [(cpu_seconds(running.bridge) - before) / count * 1e6]


def jobs(name, running, seconds):
    """By its name, each measurement of a running system; each returns values."""
    if name == "designed":
        return designed_jobs(running, seconds)
    found = {}
    for way in ("up", "down"):
        for size in sizes:
            found[f"rate {way} {size}"] = partial(rate, running, way, size, seconds)
        found[f"one {way}"] = partial(time_of_one, running, way, 5)
        found[f"latency {way}"] = partial(latency, running, way, int(500 * min(1, seconds)), 10000)
        for count in backlogs if running.bridge else ():
            found[f"backlog {way} {count}"] = partial(backlog_cost, running, way, count)
    return found


def designed_jobs(running, seconds):
    """As far as ten messages a second, and 26 s for 1 MiB down, allow."""
    found = {f"rate {way} {size}": partial(rate, running, way, size, seconds)
             for way, size in (("up", small), ("up", middle), ("up", large), ("down", small),
                               ("down", middle))}
    for way in ("up", "down"):
        found[f"one {way}"] = partial(time_of_one, running, way, 1)
        found[f"latency {way}"] = partial(latency, running, way, int(60 * min(1, seconds)), 100000)
    return found


def rest(bridges, seconds):
    """By its name and measure, what each of the bridges costs at rest, all at the same time."""
    # Until what comes after a start is over.
    time.sleep(min(10, seconds))
    before = {name: work_of(pid) for name, pid in bridges.items()}
    time.sleep(seconds)
    found = {}
    for name, pid in bridges.items():
        work, begin = work_of(pid), before[name]
        memory = memory_of(pid, range(1 << 64))
        minutes = seconds / 60
        found[name, "rest wake-ups"] = [(work.wake_ups - begin.wake_ups) / minutes]
        found[name, "rest cpu"] = [(work.cpu_seconds - begin.cpu_seconds) * 1000 / minutes]
        found[name, "rest memory"] = [memory.clean + memory.dirty]
        found[name, "rest written"] = [memory.dirty]
    return found
