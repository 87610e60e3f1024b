"""What the preloaded libraries read: one record each, in a file that the test changes."""

import mmap

from harness.waiting import wait_until


class preloaded:
    """A library to start a daemon with, and its record of `size` bytes, 64-bit numbers first.

    The daemon's environment names the record's file in `variable`.
    """

    def __init__(self, place):
        file = place.folder / self.variable.lower()
        file.write_bytes(bytes(self.size))
        with open(file, "r+b") as opened:
            self.memory = mmap.mmap(opened.fileno(), self.size)
        # One store a number: struct.pack_into sets a number to 0 first, which the daemon could see.
        self.numbers = memoryview(self.memory).cast("q")
        self.start_options = {"preload": self.library, "environment": {self.variable: str(file)}}


class failing_memory(preloaded):
    """Makes one request for memory of a daemon's thread fail."""

    library, variable, size = "preload/failing_memory.so", "FAILING_MEMORY", 56
    countdown, trigger, smallest, largest, refused = range(5)
    name_offset = 40

    def fail(self, thread, nth=1, behind=0, size=None):
        """The `nth` request of the thread fails, only that one.

        It is counted from the thread's request of `behind` bytes on, if there is one; with `size`
        only requests of that many bytes count.
        """
        self.numbers[self.countdown] = 0
        name = thread.encode().ljust(16, b"\0")
        self.memory[self.name_offset:self.name_offset + 16] = name
        self.numbers[self.trigger] = behind
        self.numbers[self.smallest] = size or 0
        self.numbers[self.largest] = size or 2**62
        self.numbers[self.refused] = 0
        # Last: it is what makes requests fail.
        self.numbers[self.countdown] = nth

    def refused_bytes(self):
        """The size of the request that was refused; 0 when none was."""
        return self.numbers[self.refused]

    def wait_refused(self):
        return wait_until(self.refused_bytes, "a refused request for memory")


class short_pauses(preloaded):
    """Divides the pauses between the steps of a daemon's workers."""

    library, variable, size = "preload/short_pauses.so", "SHORT_PAUSES", 16
    short = 10000

    def __init__(self, place):
        super().__init__(place)
        self.divide()

    def divide(self, bus=1, websock=1):
        self.numbers[0] = bus
        self.numbers[1] = websock


class slow_bus(preloaded):
    """Makes the bus take longer over each KiB that the daemon gives to it."""

    library, variable, size = "preload/slow_bus.so", "SLOW_BUS", 8

    def pause(self, microseconds):
        self.numbers[0] = microseconds


class stepping_clock(preloaded):
    """Makes the daemon's readings of the monotonic clock step."""

    library, variable, size = "preload/stepping_clock.so", "STEPPING_CLOCK", 16
    seconds, readings = range(2)

    def step(self, seconds, readings):
        self.numbers[self.seconds] = seconds
        # Last: it is what makes readings differ.
        self.numbers[self.readings] = readings

    def readings_left(self):
        return self.numbers[self.readings]
