"""What the preloaded libraries read: one record each, in a file that the test changes."""

import mmap

from harness.waiting import wait_until


class shared_record:
    """`count` 64-bit numbers at the beginning of a file of `size` bytes, and the bytes behind."""

    def __init__(self, file, size):
        file.write_bytes(bytes(size))
        self.file = file
        with open(file, "r+b") as opened:
            self.memory = mmap.mmap(opened.fileno(), size)
        # One store a number: struct.pack_into sets a number to 0 first, which the daemon could see.
        self.numbers = memoryview(self.memory).cast("q")

    def get(self, index):
        return self.numbers[index]

    def put(self, index, value):
        self.numbers[index] = value


class failing_memory:
    """Makes one request for memory of a daemon's thread fail."""

    library = "preload/failing_memory.so"
    countdown, trigger, smallest, largest, refused = range(5)
    name_offset = 40

    def __init__(self, place, name="memory"):
        self.record = shared_record(place.folder / name, 56)
        self.environment = {"FAILING_MEMORY": str(self.record.file)}

    def fail(self, thread, nth=1, behind=0, size=None):
        """The `nth` request of the thread fails, only that one.

        It is counted from the thread's request of `behind` bytes on, if there is one; with `size`
        only requests of that many bytes count.
        """
        self.record.put(self.countdown, 0)
        name = thread.encode().ljust(16, b"\0")
        self.record.memory[self.name_offset:self.name_offset + 16] = name
        self.record.put(self.trigger, behind)
        self.record.put(self.smallest, size or 0)
        self.record.put(self.largest, size or 2**62)
        self.record.put(self.refused, 0)
        # Last: it is what makes requests fail.
        self.record.put(self.countdown, nth)

    def refused_bytes(self):
        """The size of the request that was refused; 0 when none was."""
        return self.record.get(self.refused)

    def wait_refused(self):
        return wait_until(self.refused_bytes, "a refused request for memory")


class short_pauses:
    """Divides the pauses between the steps of a daemon's workers."""

    library = "preload/short_pauses.so"
    short = 10000

    def __init__(self, place):
        self.record = shared_record(place.folder / "pauses", 16)
        self.environment = {"SHORT_PAUSES": str(self.record.file)}
        self.divide()

    def divide(self, bus=1, websock=1):
        self.record.put(0, bus)
        self.record.put(1, websock)
