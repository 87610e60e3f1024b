"""Memory, descriptors and threads of a daemon."""

import collections
import os

from harness.process_memory import kib, pss_kib
from repeating import repeating

usage_t = collections.namedtuple("usage_t", "pss_kb anonymous_kb descriptors threads")

sample_seconds = 1.0


def usage_of(process_id):
    """Also None when the process is gone."""
    try:
        return usage_t(pss_kib(process_id), kib(process_id, "smaps_rollup", "Pss_Anon"),
                       len(os.listdir(f"/proc/{process_id}/fd")),
                       len(os.listdir(f"/proc/{process_id}/task")))
    except (OSError, ValueError):
        return None


class memory_trend(repeating):
    """Samples what a daemon holds for itself, and compares the thirds of the time.

    The least of each third counts: messages under way come and go. Pages of programs and libraries
    are left out, as their share depends on who else runs them.
    """

    def __init__(self, process_id):
        super().__init__(self.sample, sample_seconds)
        self.process_id = process_id
        self.samples = []
        self.start()

    def sample(self):
        usage = usage_of(self.process_id)
        if usage:
            self.samples.append(usage.anonymous_kb)

    def thirds(self):
        """The least of each third, in kB; nothing while there are too few samples."""
        size = len(self.samples) // 3
        if size < 5:
            return []
        return [min(self.samples[i * size:(i + 1) * size]) for i in range(3)]


def growth_faults(before, after, thirds, limit_kb):
    """What has grown between two moments of rest, in words."""
    found = []
    if after.anonymous_kb > before.anonymous_kb + limit_kb:
        found.append(f"memory: {before.anonymous_kb} kB of its own after the warm-up, "
                     f"{after.anonymous_kb} kB at the end")
    if thirds and min(thirds[1] - thirds[0], thirds[2] - thirds[1]) > limit_kb / 4:
        found.append(f"memory: it grows from third to third: {thirds} kB")
    if after.descriptors != before.descriptors:
        found.append(f"descriptors: {before.descriptors} after the warm-up, "
                     f"{after.descriptors} at the end")
    if after.threads != before.threads:
        found.append(f"threads: {before.threads} after the warm-up, {after.threads} at the end")
    return found
