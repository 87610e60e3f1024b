"""The measurement of what the daemon costs: what it counts, and its faster clock."""

import mmap
import os
import pathlib
import re
import subprocess
import sys
import time

import pytest

here = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(here))

import table  # noqa: E402  (the path is set above)
from process_cost import memory_of, work_of  # noqa: E402

block_kb = 8 * 1024
everything = range(0, 1 << 64)

clock_user = """
import ctypes, sys, time
libc = ctypes.CDLL(None)
class timespec(ctypes.Structure):
    _fields_ = [("seconds", ctypes.c_long), ("ns", ctypes.c_long)]
def monotonic():
    now = timespec()
    libc.clock_gettime(1, ctypes.byref(now))
    return now.seconds + now.ns / 1e9
print(monotonic(), flush=True)
for pause in sys.stdin:
    libc.usleep(int(pause))
    print(monotonic(), flush=True)
"""


@pytest.fixture
def start_clock(tmp_path):
    """Starts a process with the faster clock; its function pauses there and tells the time."""
    library = tmp_path / "fast_clock.so"
    source = here.parent / "system" / "preload" / "fast_clock.c"
    subprocess.run([os.environ.get("C_COMPILER", "cc"), "-shared", "-fPIC", "-O2", "-Wall",
                    "-Wextra", "-Werror", "-o", library, source, "-ldl"], check=True)
    started = []

    def start(speed):
        process = subprocess.Popen(
            [sys.executable, "-c", clock_user], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            text=True, env={**os.environ, "LD_PRELOAD": str(library), "FAST_CLOCK": str(speed)})
        started.append(process)
        process.stdout.readline()

        def pause(pause_us):
            process.stdin.write(f"{pause_us}\n")
            process.stdin.flush()
            return float(process.stdout.readline())

        return pause

    yield start
    for process in started:
        process.stdin.close()
        process.wait(20)
        process.stdout.close()


# At speed 50, ten pauses of 0.9 s show 9 s on the clock within 5 real ones.
def test_pauses_are_as_much_shorter_as_the_clock_is_faster(start_clock):
    pause = start_clock(50)
    began = pause(0)
    real_began = time.monotonic()
    for _ in range(10):
        last = pause(900_000)
    assert 9 <= last - began
    assert time.monotonic() - real_began < 5


# At speed 1000 a stall of 0.1 s shows as 2 s, not as 100.
def test_a_stall_makes_the_clock_slower_and_not_jump(start_clock):
    pause = start_clock(1000)
    before = pause(0)
    time.sleep(0.1)
    assert 1.9 <= pause(0) - before <= 2.1


# 8 MiB written are dirty, no addresses count as nothing, the stack without them.
def test_written_memory_counts_where_its_addresses_are_the_programs_own():
    whole_before = memory_of(os.getpid(), everything).dirty
    block = mmap.mmap(-1, block_kb * 1024, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS)
    block.write(b"x" * (block_kb * 1024))
    whole = memory_of(os.getpid(), everything)
    assert whole.dirty - whole_before >= block_kb
    assert memory_of(os.getpid(), range(0, 0)) == (0, 0, 0, 0)
    stack = re.search(r"^([0-9a-f]+)-([0-9a-f]+) .*\[stack\]$",
                      pathlib.Path("/proc/self/maps").read_text(), re.MULTILINE)
    of_stack = memory_of(os.getpid(), range(int(stack[1], 16), int(stack[2], 16)))
    assert 0 < of_stack.rss < whole.rss - block_kb
    block.close()


# Twenty sleeps are at least 20 wake-ups, 50 ms of work at least 40 ms.
def test_wake_ups_and_processor_time_are_counted():
    before = work_of(os.getpid())
    for _ in range(20):
        time.sleep(0.001)
    end = time.process_time() + 0.05
    while time.process_time() < end:
        pass
    after = work_of(os.getpid())
    assert after.wake_ups - before.wake_ups >= 20
    assert 0.04 <= after.cpu_seconds - before.cpu_seconds <= 1


# Lines above and below the marks stay, what stands between them is replaced.
def test_the_table_replaces_what_is_between_the_marks(tmp_path):
    file = tmp_path / "page.md"
    file.write_text(f"above\n{table.begin_mark}\nold\n{table.end_mark}\nbelow\n")
    table.write(file, "new")
    assert file.read_text() == f"above\n{table.begin_mark}\nnew\n{table.end_mark}\nbelow\n"


# A page without the marks is an error and stays as it is.
def test_a_page_without_marks_is_refused(tmp_path):
    file = tmp_path / "page.md"
    file.write_text("above\nbelow\n")
    with pytest.raises(AssertionError, match="has no"):
        table.write(file, "new")
    assert file.read_text() == "above\nbelow\n"
