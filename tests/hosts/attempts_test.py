"""How often a node tries a destination that does not answer: attempts_test.py NODE_PROGRAM [UNITTEST ARGUMENT...]

Attempts are counted on the switch: each one comes from another port.
"""

import random
import sys
import unittest

import lab
from nemesis import SILENCE, SLACK, TICK
from nodes import Cluster, now

PROGRAM = sys.argv[1]


class Attempts(unittest.TestCase):
    """Host 0 has a node; at host 1 nobody listens."""

    def setUp(self):
        self.switch = lab.Switch(2)
        self.addCleanup(self.switch.remove)
        lab.run("nft", "-f", "-", input="""
            table bridge attempts {
                set ports { type inet_service; flags dynamic; size 65535; }
                chain forward {
                    type filter hook forward priority -1;
                    tcp flags & (syn | ack) == syn add @ports { tcp sport }
                }
            }""")
        self.addCleanup(lab.run, "nft", "delete", "table", "bridge", "attempts")

    @staticmethod
    def count():
        listing = lab.run("nft", "list", "set", "bridge", "attempts", "ports")
        return listing.split("elements")[1].count(",") + 1 if "elements" in listing else 0

    def pauses(self, number, longest):
        """Seconds between the first so many attempts."""
        with Cluster(PROGRAM, self.switch.hosts, [(0, 1)], random.Random(1), lab.can_shift_clocks()) as cluster:
            cluster.start(0)
            times = []
            for seen in range(number):
                cluster.must(f"attempt {seen + 1}", longest, lambda least=seen: self.count() > least)
                times.append(now())
            self.assertEqual(number, self.count(), "two at once")
        return [after - before for before, after in zip(times, times[1:])]

    def test_one_attempt_a_tick_where_it_is_refused(self):
        pauses = self.pauses(10, TICK + SLACK)
        self.assertAlmostEqual(len(pauses) * TICK, sum(pauses), delta=SLACK, msg=pauses)

    def test_one_attempt_in_nine_or_ten_ticks_where_it_vanishes(self):
        self.switch.lose("cut", [(0, 1), (1, 0)])
        for pause in self.pauses(3, SILENCE + 2 * TICK + SLACK):
            self.assertGreater(pause, SILENCE)
            self.assertLess(pause, SILENCE + 2 * TICK + SLACK)


if __name__ == "__main__":
    lab.isolate()
    del sys.argv[1]
    unittest.main(verbosity=2)
