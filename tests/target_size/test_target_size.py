"""The measurement of what the daemon costs: what it counts, and its faster clock."""

import math
import mmap
import os
import pathlib
import re
import subprocess
import sys
import time

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import table  # noqa: E402  (the path is set above)
from process_cost import memory_of, work_of  # noqa: E402

block_kb = 8 * 1024

clock_user = """
import ctypes, struct, time
libc = ctypes.CDLL(None)
began = time.monotonic()
{}
print(time.monotonic() - began)
"""
ten_pauses = "for _ in range(10): libc.usleep(500_000), time.monotonic()"
stall = "libc.nanosleep(struct.pack('ll', 0, 100_000_000), None)"


# Ten pauses of 0.5 s show 5 s within 4 real ones at speed 50; 0.1 s of a stall 0.6 s at speed 1000.
@pytest.mark.parametrize("speed, step, least, most", [(50, ten_pauses, 5, math.inf),
                                                      (1000, stall, 0.6, 0.7)])
def test_faster_clock_shortens_pauses_and_does_not_jump(speed, step, least, most):
    library = pathlib.Path(os.environ.get("VEMK_BUILD_DIR", "build"), "preload/fast_clock.so")
    began = time.monotonic()
    shown = subprocess.run(
        [sys.executable, "-c", clock_user.format(step)], capture_output=True, check=True,
        env={**os.environ, "LD_PRELOAD": str(library.absolute()), "FAST_CLOCK": str(speed)})
    assert least <= float(shown.stdout) <= most
    assert time.monotonic() - began < 4


# 8 MiB written are dirty, no addresses count as nothing, the stack without them.
def test_written_memory_counts_where_its_addresses_are_the_programs_own():
    everything = range(0, 1 << 64)
    whole_before = memory_of(os.getpid(), everything).dirty
    with mmap.mmap(-1, block_kb * 1024, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS) as block:
        block.write(b"x" * (block_kb * 1024))
        whole = memory_of(os.getpid(), everything)
        stack = re.search(r"^(\w+)-(\w+) .*\[stack\]$",
                          pathlib.Path("/proc/self/maps").read_text(), re.MULTILINE)
        of_stack = memory_of(os.getpid(), range(int(stack[1], 16), int(stack[2], 16)))
    assert whole.dirty - whole_before >= block_kb
    assert memory_of(os.getpid(), range(0, 0)) == (0, 0, 0, 0)
    assert 0 < of_stack.rss < whole.rss - block_kb


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


# What stands between the marks is replaced, the rest stays; a page without marks is an error.
def test_the_table_replaces_what_is_between_the_marks(tmp_path):
    page = tmp_path / "page.md"
    page.write_text(f"above\n{table.begin_mark}\nold\n{table.end_mark}\nbelow\n")
    table.write(page, "new")
    assert page.read_text() == f"above\n{table.begin_mark}\nnew\n{table.end_mark}\nbelow\n"
    page.write_text("above\nbelow\n")
    with pytest.raises(AssertionError, match="has no"):
        table.write(page, "new")
    assert page.read_text() == "above\nbelow\n"
