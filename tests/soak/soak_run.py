"""One run of the soak: warm-up, faults by the schedule, judgement at rest."""

import contextlib
import signal
import time

from faults import faults
from rig import rig
from harness.waiting import slowdown
from resources import growth_faults, memory_trend, usage_of
from schedule import schedule
from sending_styles import fragments, one_frame
from status_model import status_model
from traffic import traffic

# What a daemon may hold more of its own at the end than after the warm-up. Messages of all sizes
# leave gaps in the allocator's memory: up to 630 kB were measured in 13 minutes, most of it in the
# first three, while valgrind counted 160 blocks in use after the warm-up and after 70 faults alike.
# One byte that is kept for each byte received would be thousands of kB in three minutes.
growth_limit_kb = 1536

rest_seconds = 2
largest_up_bytes = 2 * 1024 * 1024 + 10000
largest_down_bytes = 151 * 1024


class daemon_life:
    """What one daemon held after its warm-up, and at its end."""

    def __init__(self, name, before, process_id, has_sanitizer):
        self.name = name
        self.before = before
        self.after = None
        self.trend = memory_trend(process_id)
        self.has_sanitizer = has_sanitizer

    def end(self, after):
        self.trend.stop()
        self.after = after

    def faults(self):
        limit = 1 << 40 if self.has_sanitizer else growth_limit_kb
        return growth_faults(self.before, self.after, self.trend.thirds(), limit)


class soak_run:
    """Runs until `seconds` are over, a violation is seen, or `rig.interrupt` is set."""

    def __init__(self, build_folder, companion_folder, seed, seconds, chosen=None, relay=None):
        self.seconds = seconds
        self.has_sanitizer = b"libasan" in (build_folder / "vemk").read_bytes() or \
            b"libtsan" in (build_folder / "vemk").read_bytes()
        self.rig = rig(build_folder, companion_folder, seed, relay)
        self.traffic = traffic(self.rig, seed)
        self.schedule = schedule(faults if chosen is None else chosen, seed)
        self.began = time.monotonic()
        self.lives = []
        self.injected = {}
        self.current = "start"
        self.longest_heal = (0.0, "none")
        self.minutes = 0.0

    def run(self):
        """Returns when the run is over; what went wrong stands in the rig's violations."""
        with self.rig.judged():
            self.rig.begin()
            self.traffic.start()
            self.warm_up()
            self.inject_until(self.began + self.seconds)
            self.current = "end"
            self.come_to_rest()
            self.end_life()
            self.traffic.stop()
            self.end_daemon()
        self.traffic.ended.set()
        self.minutes = (time.monotonic() - self.began) / 60
        self.rig.judging = False

    def close(self):
        for life in self.lives:
            life.trend.stop()
        self.traffic.stop()
        self.rig.close()

    def inject_until(self, deadline):
        for entry in self.schedule:
            if time.monotonic() >= deadline:
                return
            self.rig.sleep(entry.pause_seconds)
            self.inject(entry.fault, entry.choices)

    def inject(self, fault, choices):
        self.current = fault.name
        self.injected[fault.name] = self.injected.get(fault.name, 0) + 1
        fault.inject(self, self.rig, choices)
        over = time.monotonic()
        self.rig.heal()
        self.longest_heal = max(self.longest_heal, (time.monotonic() - over, fault.name))

    def warm_up(self):
        """Everything that makes the daemon's memory grow once: the largest of each kind, twice."""
        rig = self.rig
        for how in ("rst", "fin"):
            rig.send_up([largest_up_bytes, largest_up_bytes], one_by_one=True)
            for style in (one_frame, fragments):
                rig.send_down(style, largest_down_bytes)
            for _ in range(300):
                rig.send_down(size=1)
            rig.probe()
            with rig.lock:
                rig.expect_drop(rig.connection)
                rig.service.drop(rig.connection, how)
            rig.heal()
            with self.unheard():
                rig.bus.rejoin()
        self.come_to_rest()
        self.lives.append(daemon_life(rig.daemon.name, self.usage_at_rest(), rig.daemon.pid,
                                      self.has_sanitizer))

    def come_to_rest(self):
        """Nothing is under way, and all that was said about the connection is judged."""
        with self.traffic.quiet():
            self.rig.probe()
            self.rig.judge_status()

    def usage_at_rest(self, at_least=None):
        """The least of a time without traffic, as a sender's connection ends a little later.

        With `at_least` waits longer for as few descriptors and threads.
        """
        with self.traffic.quiet():
            self.rig.probe()
            least = usage_of(self.rig.daemon.pid)
            settled = time.monotonic() + rest_seconds
            deadline = time.monotonic() + (10 * slowdown if at_least else rest_seconds)
            while time.monotonic() < deadline:
                usage = usage_of(self.rig.daemon.pid)
                least = type(least)(*map(min, least, usage))
                if at_least and least[2:] == at_least[2:] and time.monotonic() > settled:
                    break
                self.rig.sleep(0.1)
            return least

    def end_life(self):
        life = self.lives[-1]
        life.end(self.usage_at_rest(life.before))
        self.rig.violations += life.faults()
        self.rig.check()

    def end_daemon(self):
        with self.rig.lock:
            self.rig.expect_drop(self.rig.connection)
        self.rig.daemon.process.terminate()
        status = self.rig.daemon.wait_for_exit()
        if status != -signal.SIGTERM:
            self.rig.violate(f"the daemon ended with status {status} by SIGTERM")

    @contextlib.contextmanager
    def unheard(self):
        """A time in which what the daemon says may find no listener, and the bus no daemon."""
        rig = self.rig
        with self.traffic.quiet():
            rig.probe()
            rig.judge_status()
            with rig.lock:
                rig.bus_away = True
                rig.down.go_unheard(True)
        yield
        rig.hear_again()
        with rig.lock:
            rig.bus_away = False
            rig.down.go_unheard(False)

    def replace_daemon(self):
        """A new daemon takes the place of the one that runs, and its warm-up starts over."""
        rig = self.rig
        self.end_life()
        with self.unheard():
            old, old_log = rig.daemon, rig.log
            with rig.lock:
                rig.expect_drop(rig.connection)
                rig.down.forget()
                rig.status = status_model(start_may_be_unheard=True)
                rig.start_daemon()
            status = old.wait_for_exit()
            old_log.stop()
            rig.violations += old_log.reports
            if status != -signal.SIGTERM:
                rig.violate(f"the replaced daemon ended with status {status}")
            rig.wait(rig.is_connected, "a connection of the new daemon")
        self.warm_up()
