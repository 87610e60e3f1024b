"""Networks of a test's own: namespaces, and a wire between two of them that can be made bad.

The kernel at hand need not be able to lose or delay packets, so the wire is a thread that carries
them from one TUN device to another. Nothing has a name and nothing is left over: a namespace lives
as long as its descriptor, or a process in it, and a device as long as the descriptor that it is
read from.
"""

import concurrent.futures
import ctypes
import fcntl
import heapq
import os
import random
import select
import struct
import subprocess
import threading
import time

import pytest

libc = ctypes.CDLL(None, use_errno=True)
clone_newnet = 0x40000000
near_address, far_address = "192.0.2.1", "192.0.2.2"
# How the daemon's way to the server can be cut and mended, in words for the program ip.
outages = {
    "address removed": (f"address delete {near_address}/24 dev wire",
                        f"address add {near_address}/24 dev wire"),
    "interface down": ("link set wire down", "link set wire up"),
    "route a black hole": (f"route add blackhole {far_address}",
                           f"route delete blackhole {far_address}"),
    "route says unreachable": (f"route add unreachable {far_address}",
                               f"route delete unreachable {far_address}"),
}
tunsetiff, iff_tun, iff_no_pi = 0x400454CA, 0x0001, 0x1000


def in_a_thread(function):
    """What `function` returns in a thread of its own, which alone changes its namespace."""
    with concurrent.futures.ThreadPoolExecutor(1) as thread:
        return thread.submit(function).result()


def change_namespace(call, *arguments):
    if call(*arguments, clone_newnet) != 0:
        raise OSError(ctypes.get_errno(), f"cannot change the network namespace: {call.__name__}")


def open_new_namespace():
    change_namespace(libc.unshare)
    return os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)


class network_namespace:
    """A network with a loopback interface and nothing else."""

    def __init__(self):
        self.descriptor = in_a_thread(open_new_namespace)
        # In front of a command line; the process ID is that of the caller.
        self.entry = ["nsenter", f"--net=/proc/{os.getpid()}/fd/{self.descriptor}"]
        self.ip("link set lo up")

    def ip(self, words):
        """Runs the program ip in this network."""
        subprocess.run([*self.entry, "ip", *words.split()], check=True)

    def enter(self):
        """Moves the calling thread there: what it opens from now on belongs to this network."""
        change_namespace(libc.setns, self.descriptor)

    def open_device(self, address):
        """A device named wire, up and with this address; the descriptor carries its packets."""
        def open_inside():
            self.enter()
            descriptor = os.open("/dev/net/tun", os.O_RDWR | os.O_CLOEXEC | os.O_NONBLOCK)
            fcntl.ioctl(descriptor, tunsetiff, struct.pack("16sH22x", b"wire", iff_tun | iff_no_pi))
            return descriptor

        descriptor = in_a_thread(open_inside)
        self.ip(f"address add {address}/24 dev wire")
        self.ip("link set wire up")
        return descriptor

    def close(self):
        os.close(self.descriptor)


class wire:
    """Carries packets between two namespaces, well until told otherwise.

    A wire that `is_cut` carries nothing. Otherwise `loss` is the share of packets that vanish, half
    of them at most, `delay` in seconds what each is held back for, and `jitter` the most that is
    added to it; as that differs from packet to packet, it lets them overtake each other. All may be
    changed at any time, and what becomes of the packets is counted.

    No two packets in a row are lost in one direction. TCP doubles its patience with each loss of
    the same data, so that six in a row take it longer than three pings.
    """

    def __init__(self, near, far):
        self.is_cut = False
        self.loss, self.delay, self.jitter = 0.0, 0.0, 0.0
        self.taken = self.lost = self.overtaken = 0
        self.random = random.Random(0)
        near_end, far_end = near.open_device(near_address), far.open_device(far_address)
        self.other_end = {near_end: far_end, far_end: near_end}
        self.newest = {near_end: 0, far_end: 0}
        self.lost_before = {near_end: False, far_end: False}
        self.under_way = []
        self.stop_reader, self.stop_writer = os.pipe()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        while True:
            limit = max(0, self.under_way[0][0] - time.monotonic()) if self.under_way else None
            readable, _, _ = select.select([self.stop_reader, *self.other_end], [], [], limit)
            if self.stop_reader in readable:
                return
            for end in readable:
                self.take(end)
            while self.under_way and self.under_way[0][0] <= time.monotonic():
                self.deliver(*heapq.heappop(self.under_way))

    def take(self, end):
        try:
            packet = os.read(end, 65536)
        except OSError:
            # Nothing to read after all; or the device is down.
            return
        self.taken += 1
        if self.loses(end):
            self.lost += 1
            return
        due = time.monotonic() + self.delay + self.random.random() * self.jitter
        heapq.heappush(self.under_way, (due, self.taken, self.other_end[end], packet))

    def loses(self, end):
        # As the packet after a lost one is spared, the others have to make up for it.
        chance = self.loss / (1 - self.loss)
        self.lost_before[end] = not self.lost_before[end] and self.random.random() < chance
        return self.is_cut or self.lost_before[end]

    def deliver(self, due, number, end, packet):
        self.overtaken += number < self.newest[end]
        self.newest[end] = max(number, self.newest[end])
        try:
            os.write(end, packet)
        except OSError:
            # The device is down.
            pass

    def close(self):
        os.write(self.stop_writer, b"x")
        self.thread.join()
        for descriptor in (self.stop_reader, self.stop_writer, *self.other_end):
            os.close(descriptor)


class wired_networks:
    """The daemon's network, `near`, and the server's, `far`, joined by a wire."""

    def __init__(self):
        try:
            self.near, self.far = network_namespace(), network_namespace()
            self.wire = wire(self.near, self.far)
        except PermissionError as error:
            pytest.fail("these tests need networks of their own: run them as root, or through "
                        f"in_own_networks.sh where /dev/net/tun is open to all ({error})")

    def cut(self, outage):
        if outage == "packets lost":
            self.wire.is_cut = True
        else:
            self.near.ip(outages[outage][0])

    def mend(self, outage):
        if outage == "packets lost":
            self.wire.is_cut = False
        else:
            self.near.ip(outages[outage][1])

    def close(self):
        self.wire.close()
        self.near.close()
        self.far.close()
