#!/usr/bin/env python3
"""What is made of the rounds of a comparison."""

import random
import statistics
import unittest

import agreement
import results


class Interval(unittest.TestCase):
    def test_lies_between_the_values_that_the_binomial_distribution_names(self):
        for count, cut in ((6, 1), (9, 2), (15, 4), (25, 8)):
            found = agreement.with_interval(range(1, count + 1))
            self.assertEqual((found.least, found.most, found.rounds), (cut, count + 1 - cut, count))
            self.assertEqual(found.median, (count + 1) / 2)

    def test_of_few_values_holds_all(self):
        for count in range(1, 6):
            found = agreement.with_interval(range(count))
            self.assertEqual((found.least, found.most), (0, count - 1))

    def test_holds_the_true_median_as_often_as_it_says(self):
        choose = random.Random(3)
        true = 1.0  # of a skewed distribution with two heaps
        draw = (lambda: true - choose.expovariate(9) if choose.random() < 0.5 else true + choose.expovariate(2))
        found = [agreement.with_interval([draw() for _ in range(15)]) for _ in range(4000)]
        held = statistics.mean(one.least <= true <= one.most for one in found)
        self.assertGreater(held, 0.95)
        self.assertLess(held, 0.98)


class Verdict(unittest.TestCase):
    def test_needs_the_whole_interval(self):
        for least, most, verdict in ((0.96, 1.04, "agrees"), (0.94, 1.01, "cannot be told"), (1.04, 1.06, "cannot be told"),
                                     (0.9, 1.2, "cannot be told"), (1.051, 1.06, "DIFFERS"), (0.5, 0.94, "DIFFERS")):
            ratio = results.Spread((least + most) / 2, least, most, 15)
            compared = agreement.Comparison(ratio, ratio, ratio, ratio, 0)
            self.assertEqual(compared.verdict(0.05), verdict)


if __name__ == "__main__":
    unittest.main()
