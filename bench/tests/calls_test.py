#!/usr/bin/env python3
"""The skeleton makes the relay's calls: so many a packet, and so many a heartbeat, of each kind. Usage: calls_test.py BINARY STRACE

Both ends of a run are counted together. Two runs of different length are compared, so that setting up and ending cancel
out; what remains is the cost of the packets in between. The relay's heartbeats, one a second, are in the tolerance.
"""

import json
import subprocess
import sys
import tempfile
import unittest

BINARY, STRACE = sys.argv[1:3]

COUNTED = ("epoll_wait", "epoll_ctl", "sendto", "recvfrom")
SHORT, LONG = 200, 2200
TOLERANCE = 0.05

# Of one packet, and of a round trip; both ends together.
ONE_WAY_WITH_DATA = {"epoll_wait": 4, "epoll_ctl": 4, "sendto": 2, "recvfrom": 2}
ONE_WAY_HEADER_ONLY = {"epoll_wait": 2, "epoll_ctl": 2, "sendto": 1, "recvfrom": 1}
STREAM_WITH_DATA = {"epoll_wait": 8, "epoll_ctl": 8, "sendto": 4, "recvfrom": 4}
STREAM_HEADER_ONLY = {"epoll_wait": 4, "epoll_ctl": 4, "sendto": 2, "recvfrom": 2}
DATAGRAM = {"epoll_wait": 4, "epoll_ctl": 4, "sendto": 2, "recvfrom": 4}
# A datagram that is queued while the one before it is written is armed by both who could: two calls, and perhaps two
# events, where one was meant. An answer may be that fast in every round trip, at both ends.
ARMED_TWICE = {"epoll_wait": 2, "epoll_ctl": 2}

# Of one connection and one tick: armed for writing, written, read, armed for reading.
HEARTBEAT = {"epoll_wait": 2, "epoll_ctl": 2, "sendto": 1, "recvfrom": 1}
RESTING = 50  # connections
SHORT_REST, LONG_REST = 1, 3  # seconds; so many ticks of the skeleton, and one before


def count_calls(words, count):
    """(packets sent while measuring, calls by kind), or None where the subject cannot be had."""
    with tempfile.NamedTemporaryFile("r") as table:
        done = subprocess.run(
            [STRACE, "-f", "-c", "-o", table.name, BINARY, *words, "--warm-up", "0", "--count", str(count)],
            stdout=subprocess.PIPE, timeout=120, check=False)
        if done.returncode == 77:
            return None
        calls = {columns[-1]: int(columns[3]) for columns in map(str.split, table.read().splitlines())
                 if len(columns) >= 5 and columns[-1] in COUNTED}
    figures = json.loads(done.stdout)["figures"]
    return figures.get("sent", figures["packets"]), calls


def calls_per_packet(words):
    runs = [count_calls(words, count) for count in (SHORT, LONG)]
    if None in runs:
        return None
    (fewer, before), (more, after) = runs
    return {kind: (after[kind] - before[kind]) / (more - fewer) for kind in COUNTED}


class Calls(unittest.TestCase):
    def check(self, words, expected, more=None):
        for contender in ("skeleton", "relay"):
            with self.subTest(contender=contender):
                measured = calls_per_packet([*words, "--contender", contender])
                if measured is None:
                    self.assertEqual(words[0], "udp")
                    continue
                for kind in COUNTED:
                    most = expected[kind] + (more or {}).get(kind, 0)
                    self.assertGreaterEqual(measured[kind], expected[kind] - TOLERANCE, kind)
                    self.assertLessEqual(measured[kind], most + TOLERANCE, kind)

    def test_with_data(self):
        self.check(["roundtrip", "--size", "64"], STREAM_WITH_DATA)

    def test_header_only(self):
        self.check(["roundtrip", "--size", "0"], STREAM_HEADER_ONLY)

    def test_steady_stream(self):
        self.check(["oneway", "--size", "64"], ONE_WAY_WITH_DATA)
        self.check(["oneway", "--size", "0"], ONE_WAY_HEADER_ONLY)

    def test_datagrams(self):
        self.check(["udp", "--way", "round", "--size", "64"], DATAGRAM, ARMED_TWICE)
        self.check(["udp", "--way", "round", "--size", "0"], DATAGRAM, ARMED_TWICE)

    def test_heartbeats(self):
        for contender in ("skeleton", "relay"):
            with self.subTest(contender=contender):
                words = ["idle", "--contender", contender, "--connections", str(RESTING), "--seconds"]
                (_, before), (_, after) = (count_calls([*words, str(rest)], 1) for rest in (SHORT_REST, LONG_REST))
                more = {kind: after[kind] - before[kind] for kind in COUNTED}
                self.assertGreaterEqual(more["sendto"], RESTING)
                if contender == "skeleton":
                    self.assertEqual(more["sendto"], 2 * RESTING * (LONG_REST - SHORT_REST))
                for kind in COUNTED:
                    self.assertAlmostEqual(more[kind] / more["sendto"], HEARTBEAT[kind], delta=TOLERANCE, msg=kind)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
