"""One run of the soak: warm-up, faults by the schedule, judgement at rest."""

import contextlib
import signal
import time
import traceback

from faults import faults
from bridge import bridge, interrupted, soak_failed
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
    """Runs until `seconds` are over, a violation is seen, or `bridge.interrupt` is set."""

    def __init__(self, build_folder, companion_folder, seed, seconds, chosen=None, relay=None):
        self.seconds = seconds
        self.has_sanitizer = b"libasan" in (build_folder / "vemk").read_bytes() or \
            b"libtsan" in (build_folder / "vemk").read_bytes()
        self.bridge = bridge(build_folder, companion_folder, seed, relay)
        self.traffic = traffic(self.bridge, seed)
        self.schedule = schedule(faults if chosen is None else chosen, seed)
        self.began = time.monotonic()
        self.lives = []
        self.injected = {}
        self.current = "start"
        self.longest_heal = (0.0, "none")
        self.interrupted = False
        self.minutes = 0.0

    def run(self):
        """Returns when the run is over; what went wrong stands in the bridge's violations."""
        try:
            self.bridge.bus.wait_listening()
            self.bridge.wait(self.bridge.is_connected, "the first connection")
            self.traffic.start()
            self.warm_up()
            self.inject_until(self.began + self.seconds)
            self.current = "end"
            self.come_to_rest()
            self.end_life()
            self.traffic.stop()
            self.end_daemon()
        except interrupted:
            self.interrupted = True
        except soak_failed:
            pass
        except Exception as error:  # whatever it is, the run showed nothing
            traceback.print_exc()
            self.bridge.violate(repr(error))
        finally:
            self.traffic.ended.set()
            self.minutes = (time.monotonic() - self.began) / 60
            self.bridge.judging = False

    def close(self):
        for life in self.lives:
            life.trend.stop()
        self.traffic.stop()
        self.bridge.close()

    def inject_until(self, deadline):
        for entry in self.schedule:
            if time.monotonic() >= deadline:
                return
            self.bridge.sleep(entry.pause_seconds)
            self.inject(entry.fault, entry.choices)

    def inject(self, fault, choices):
        self.current = fault.name
        self.injected[fault.name] = self.injected.get(fault.name, 0) + 1
        fault.inject(self, choices)
        over = time.monotonic()
        self.bridge.heal()
        self.longest_heal = max(self.longest_heal, (time.monotonic() - over, fault.name))

    def warm_up(self):
        """Everything that makes the daemon's memory grow once: the largest of each kind, twice."""
        bridge = self.bridge
        for how in ("rst", "fin"):
            bridge.send_up([largest_up_bytes, largest_up_bytes], one_by_one=True)
            for style in (one_frame, fragments):
                bridge.send_down(style, largest_down_bytes)
            for _ in range(300):
                bridge.send_down(size=1)
            bridge.probe()
            with bridge.lock:
                bridge.expect_drop(bridge.connection)
                bridge.service.drop(bridge.connection, how)
            bridge.heal()
            with self.unheard():
                bridge.bus.rejoin()
        self.come_to_rest()
        self.lives.append(daemon_life(bridge.daemon.name, self.usage_at_rest(), bridge.daemon.pid,
                                      self.has_sanitizer))

    def come_to_rest(self):
        """Nothing is under way, and all that was said about the connection is judged."""
        with self.traffic.quiet():
            self.bridge.probe()
            self.bridge.judge_status()

    def usage_at_rest(self, at_least=None):
        """The least of a time without traffic, as a sender's connection ends a little later.

        With `at_least` waits longer for as few descriptors and threads.
        """
        with self.traffic.quiet():
            self.bridge.probe()
            least = usage_of(self.bridge.daemon.pid)
            settled = time.monotonic() + rest_seconds
            deadline = time.monotonic() + (10 * slowdown if at_least else rest_seconds)
            while time.monotonic() < deadline:
                usage = usage_of(self.bridge.daemon.pid)
                least = type(least)(*map(min, least, usage))
                if at_least and least[2:] == at_least[2:] and time.monotonic() > settled:
                    break
                self.bridge.sleep(0.1)
            return least

    def end_life(self):
        life = self.lives[-1]
        life.end(self.usage_at_rest(life.before))
        self.bridge.violations += life.faults()
        self.bridge.check()

    def end_daemon(self):
        with self.bridge.lock:
            self.bridge.expect_drop(self.bridge.connection)
        self.bridge.daemon.process.terminate()
        status = self.bridge.daemon.wait_for_exit()
        if status != -signal.SIGTERM:
            self.bridge.violate(f"the daemon ended with status {status} by SIGTERM")

    @contextlib.contextmanager
    def unheard(self):
        """A time in which what the daemon says may find no listener, and the bus no daemon."""
        bridge = self.bridge
        with self.traffic.quiet():
            bridge.probe()
            bridge.judge_status()
            with bridge.lock:
                bridge.bus_away = True
                bridge.down.go_unheard(True)
        yield
        bridge.hear_again()
        with bridge.lock:
            bridge.bus_away = False
            bridge.down.go_unheard(False)

    def replace_daemon(self):
        """A new daemon takes the place of the one that runs, and its warm-up starts over."""
        bridge = self.bridge
        self.end_life()
        with self.unheard():
            old, old_log = bridge.daemon, bridge.log
            with bridge.lock:
                bridge.expect_drop(bridge.connection)
                bridge.down.forget()
                bridge.status = status_model(start_may_be_unheard=True)
                bridge.start_daemon()
            status = old.wait_for_exit()
            old_log.stop()
            bridge.violations += old_log.reports
            if status != -signal.SIGTERM:
                bridge.violate(f"the replaced daemon ended with status {status}")
            bridge.wait(bridge.is_connected, "a connection of the new daemon")
        self.warm_up()
