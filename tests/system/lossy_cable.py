"""A slow, lossy cable between two network namespaces: lossy_cable.py PID_A ADDRESS_A PID_B ADDRESS_B

Creates two TUN devices. Copies each packet from one device to the other after a delay, or drops it. Prints "ready" and
then reads commands from standard input, one per line, until end of file:

    delay MILLISECONDS      one way, in both directions
    loss A_TO_B B_TO_A      percent; 100 cuts that direction
"""

import ctypes
import fcntl
import heapq
import os
import random
import select
import struct
import subprocess
import sys
import time

CLONE_NEWNET = 0x40000000
TUNSETIFF = 0x400454CA
IFF_TUN, IFF_NO_PI = 0x0001, 0x1000
LIBC = ctypes.CDLL(None, use_errno=True)
LARGEST = 65536


def enter(pid):
    with open(f"/proc/{pid}/ns/net", "rb") as namespace:
        if LIBC.setns(namespace.fileno(), CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns")


def open_end(pid, address, peer):
    """Creates a TUN device in the namespace of the process; returns its descriptor."""
    enter(pid)
    end = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
    name = f"cable{os.getpid()}"
    fcntl.ioctl(end, TUNSETIFF, struct.pack("16sH22x", name.encode(), IFF_TUN | IFF_NO_PI))
    subprocess.run(["ip", "address", "add", address, "peer", peer, "dev", name], check=True)
    subprocess.run(["ip", "link", "set", name, "up"], check=True)
    return end


class Cable:
    def __init__(self, ends):
        self.ends = ends
        self.delay = 0.0
        self.loss = {ends[0]: 0.0, ends[1]: 0.0}
        self.under_way = []  # (time of delivery, number, target descriptor, packet)
        self.number = 0
        self.chance = random.Random(1)
        self.orders = b""

    def run(self):
        os.set_blocking(0, False)
        while True:
            wait = max(0, self.under_way[0][0] - time.monotonic()) if self.under_way else None
            ready, _, _ = select.select([0, *self.ends], [], [], wait)
            if 0 in ready and not self.obey():
                return
            for end in ready:
                if end:
                    self.take(end)
            self.deliver()

    def take(self, end):
        """Reads a limited number of packets from one device, so that the next deliveries are not late."""
        for _ in range(64):
            try:
                packet = os.read(end, LARGEST)
            except BlockingIOError:
                return
            if self.chance.random() * 100 < self.loss[end]:
                continue
            other = self.ends[1] if end == self.ends[0] else self.ends[0]
            self.number += 1
            heapq.heappush(self.under_way,
                           (time.monotonic() + self.delay, self.number, other, packet))

    def deliver(self):
        while self.under_way and self.under_way[0][0] <= time.monotonic():
            _, _, end, packet = heapq.heappop(self.under_way)
            try:
                os.write(end, packet)
            except OSError:
                pass  # the device is down, so the packet is lost

    def obey(self):
        """Executes the commands that have arrived on standard input. Returns False at end of file."""
        piece = os.read(0, 4096)
        self.orders += piece
        while b"\n" in self.orders:
            line, _, self.orders = self.orders.partition(b"\n")
            word, *numbers = line.decode().split()
            if word == "delay":
                self.delay = float(numbers[0]) / 1000
            elif word == "loss":
                self.loss = dict(zip(self.ends, map(float, numbers)))
            print("done", flush=True)
        return bool(piece)


def main(pid_a, address_a, pid_b, address_b):
    cable = Cable([open_end(pid_a, address_a, address_b), open_end(pid_b, address_b, address_a)])
    print("ready", flush=True)
    cable.run()


if __name__ == "__main__":
    main(*sys.argv[1:])
