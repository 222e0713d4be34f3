"""Carries packets between two namespaces, and delays, reorders and doubles them on the way.

tun_forwarder.py LEFT RIGHT [--delay SECONDS] [--late SHARE] [--twice SHARE] [--seed N]

Makes the device "tun0" in both. Standard output: "ready"; at the end of standard input, what was done, as JSON.
"""

import argparse
import collections
import fcntl
import heapq
import itertools
import json
import os
import random
import selectors
import struct
import sys
import time

import lab

TUNSETIFF = 0x400454CA
IFF_TUN, IFF_NO_PI = 0x0001, 0x1000
LARGEST = 65536
LATENESS = (0.005, 0.04)  # seconds that a late packet waits, while others overtake it


def open_device(host_name):
    with lab.entered(host_name):
        fd = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
        fcntl.ioctl(fd, TUNSETIFF, struct.pack("16sH", b"tun0", IFF_TUN | IFF_NO_PI))
    return fd


class Forwarder:
    """Packets wait in one queue, ordered by when they are due."""

    def __init__(self, options):
        self.options = options
        self.choice = random.Random(options.seed)
        self.queue = []
        self.turn = itertools.count()
        self.did = collections.Counter()
        left, right = open_device(options.left), open_device(options.right)
        self.selector = selectors.DefaultSelector()
        self.selector.register(left, selectors.EVENT_READ, right)
        self.selector.register(right, selectors.EVENT_READ, left)
        self.selector.register(sys.stdin, selectors.EVENT_READ, None)

    def serve(self):
        """Until standard input ends."""
        while True:
            wait = max(0, self.queue[0][0] - time.monotonic()) if self.queue else None
            for key, _ in self.selector.select(wait):
                if key.data is None:
                    return
                self.take(key.fd, key.data)
            self.give_due()

    def take(self, from_fd, to_fd):
        """All that has come in."""
        while True:
            try:
                packet = os.read(from_fd, LARGEST)
            except BlockingIOError:
                return
            self.did["packets"] += 1
            for _ in range(1 + self.is_chosen(self.options.twice, "doubled")):
                late = self.choice.uniform(*LATENESS) if self.is_chosen(self.options.late, "late") else 0
                due = time.monotonic() + self.options.delay + late
                heapq.heappush(self.queue, (due, next(self.turn), to_fd, packet))

    def is_chosen(self, share, what):
        chosen = self.choice.random() < share
        self.did[what] += chosen
        return chosen

    def give_due(self):
        now = time.monotonic()
        while self.queue and self.queue[0][0] <= now:
            _, _, to_fd, packet = heapq.heappop(self.queue)
            try:
                os.write(to_fd, packet)
            except (BlockingIOError, OSError):
                self.did["lost"] += 1  # the device is full or down: a network may lose packets


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("left")
    parser.add_argument("right")
    for name in ("--delay", "--late", "--twice"):
        parser.add_argument(name, type=float, default=0)
    parser.add_argument("--seed", type=int, default=1)
    forwarder = Forwarder(parser.parse_args())
    print("ready", flush=True)
    forwarder.serve()
    print(json.dumps(forwarder.did), flush=True)


if __name__ == "__main__":
    main()
