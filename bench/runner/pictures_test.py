"""The pictures: all four are drawn from a run's figures, well formed and the same each time."""

import tempfile
import unittest
import xml.dom.minidom
from pathlib import Path

import goals
import pictures
import results


def a_run():
    """Each row of the table, two rounds, each contender with figures of its own."""
    samples = []
    for row in goals.ROWS:
        for place, contender in enumerate((*row.contenders, *row.shown), 1):
            for number in (1, 2):
                names = {bar.figure for bar in row.bars} | {name for name, _ in pictures.PERCENTILES}
                figures = {name: 1000.0 * place + number for name in names}
                samples.append(results.Sample(row.case, contender, number, 1, figures))
    return results.Results(samples)


class Pictures(unittest.TestCase):
    def draw(self, run):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        drawn = pictures.draw(run, Path(folder.name))
        return {name: (Path(folder.name) / name).read_bytes() for name, _ in drawn}

    def test_all_are_drawn_alike_each_time(self):
        first = self.draw(a_run())
        names = ("connections", "latency", "ratio", "throughput")
        self.assertEqual(sorted(first), [f"bench_{name}.svg" for name in names])
        self.assertEqual(first, self.draw(a_run()))
        for text in first.values():
            self.assertEqual(xml.dom.minidom.parseString(text).documentElement.tagName, "svg")

    def test_a_picture_shows_the_figures(self):
        run = a_run()
        first = self.draw(run)
        for sample in run.samples:
            if sample.contender == goals.JUDGED:
                sample.figures = {name: value * 1.5 for name, value in sample.figures.items()}
        second = self.draw(run)
        for name, picture in first.items():
            self.assertNotEqual(picture, second[name], name)

    def test_a_run_of_nothing_is_drawn_too(self):
        self.assertEqual(len(self.draw(results.Results())), 4)


if __name__ == "__main__":
    unittest.main()
