"""The figures in README: none that was typed by hand. Usage: figures_test.py"""

import sys
import unittest

import pages

BENCHMARKS = pages.ROOT / "docs/benchmarks.md"
BEGIN, END = "<!-- lines of docs/benchmarks.md -->", "<!-- up to here -->"
FEWEST = 3


def figures():
    """The lines of tables between the marks in README, or none without marks."""
    _, mark, rest = pages.read("README.md").partition(BEGIN)
    if not mark:
        return []
    lines, end, _ = rest.partition(END)
    assert end, f"README.md: {END} is missing"
    return [line for line in lines.splitlines() if line.startswith("|")]


class Figures(unittest.TestCase):
    def test_are_lines_of_the_page_that_the_bench_wrote(self):
        measured = BENCHMARKS.read_text(encoding="utf-8").splitlines() if BENCHMARKS.exists() else []
        self.assertEqual([line for line in figures() if line not in measured], [])
        if BEGIN in pages.read("README.md"):
            self.assertGreaterEqual(len(figures()), FEWEST + 2)  # a head and its rule besides
            self.assertIn("./dev bench", pages.read("README.md"))


if __name__ == "__main__":
    sys.argv = sys.argv[:1]
    unittest.main()
