"""Two nodes over a path that delays, reorders and doubles: forwarder_test.py NODE_PROGRAM [UNITTEST ARGUMENT...]"""

import contextlib
import json
import os
import random
import subprocess
import sys
import unittest

import lab
from history import HistoryCheck
from nodes import Cluster

PROGRAM = sys.argv[1]
FORWARDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "tun_forwarder.py")
PACKET_EVERY = 10  # milliseconds
PACKETS = 300  # on each end of each connection
PATIENCE = 60
CLOCKS_DIFFER = 2  # milliseconds


class End(lab.Host):
    """A host at one end of the forwarder."""

    def __init__(self, number):
        super().__init__(f"end{number}")
        self.number = number
        self.ip = lab.address_of(number)

    def count(self, name):
        """One of the kernel's figures about TCP in there."""
        lines = self.run("grep", "^TcpExt", "/proc/net/netstat").splitlines()
        return int(dict(zip(*(line.split() for line in lines)))[name])


class Forwarding(unittest.TestCase):
    def setUp(self):
        self.hosts = [End(number) for number in range(2)]
        for host in self.hosts:
            self.addCleanup(host.remove)

    @contextlib.contextmanager
    def path(self, *options):
        """The forwarder between both; gives what it did, once it has ended."""
        did = {}
        process = subprocess.Popen([sys.executable, "-B", FORWARDER, *(host.name for host in self.hosts), *options],
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        with process:
            self.assertEqual("ready\n", process.stdout.readline())
            for host in self.hosts:
                host.set_address("tun0", host.ip)
            yield did
            process.stdin.close()
            did.update(json.loads(process.stdout.read()))

    def exchange(self, *options):
        """Both nodes connect to each other and send; what the forwarder did, and all packets that arrived."""
        with self.path(*options) as did, \
                Cluster(PROGRAM, self.hosts, [(0, 1), (1, 0)], random.Random(1), False, PACKET_EVERY) as cluster:
            for host in self.hosts:
                cluster.start(host.number)
            cluster.must("packets on all connections", PATIENCE,
                         lambda: all(self.count_packets(boot) >= 2 * PACKETS for boot in cluster.boots))
            cluster.finish(PATIENCE)
            check = HistoryCheck().check(cluster.boots)
        self.assertEqual([], check.faults)
        self.assertEqual(4, check.figures["connections"], "no connection ended")
        print(f"{self.id()}: {json.dumps({'path': did, **check.figures})}", file=sys.stderr)
        return did, [event for boot in cluster.boots for event in boot.events if event["event"] == "packet"]

    @staticmethod
    def count_packets(boot):
        return sum(event["event"] == "packet" for event in boot.events)

    def sum_of(self, name):
        return sum(host.count(name) for host in self.hosts)

    def test_delay(self):
        _, packets = self.exchange("--delay", "0.15")
        quickest = min(event["t"] - event["made"] for event in packets)
        self.assertGreaterEqual(quickest, 150 - CLOCKS_DIFFER)

    def test_reordering(self):
        did, _ = self.exchange("--late", "0.3")
        self.assertGreater(did["late"], PACKETS // 10)
        self.assertGreater(self.sum_of("TCPOFOQueue"), 0)

    def test_duplication(self):
        did, _ = self.exchange("--twice", "0.3")
        self.assertGreater(did["doubled"], PACKETS // 10)
        self.assertGreater(self.sum_of("TCPDSACKOldSent"), 0)

    def test_all_of_it(self):
        did, packets = self.exchange("--delay", "0.05", "--late", "0.2", "--twice", "0.2")
        self.assertGreater(min(did["late"], did["doubled"]), PACKETS // 10)
        self.assertGreaterEqual(min(event["t"] - event["made"] for event in packets), 50 - CLOCKS_DIFFER)


if __name__ == "__main__":
    lab.isolate(("ip",))
    if not lab.can_make_tunnels():
        lab.skip("this user may not open /dev/net/tun")
    del sys.argv[1]
    unittest.main(verbosity=2)
