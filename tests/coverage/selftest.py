#!/usr/bin/env python3
"""Plants gaps in a measurement and requires that the check finds each. Usage: selftest.py"""

import contextlib
import io
import json
import runpy
import sys
import tempfile
import unittest
from pathlib import Path
from unittest import mock

import check

SOURCE = """int f(int a) {
    if (a) { // a comment
        return 1;
    }
    return 2;
}
"""
PATH = "Center/one.cpp"
NAMES_RETURN = f"{PATH} | return 1; | only a broken kernel gets there\n"


def measured(path, then=1, after=1, last=1, outcomes=((1, 1),)):
    """What is exported of SOURCE: how often each of its parts ran, and the outcomes of its condition."""
    return {
        "filename": str(path),
        "segments": [[1, 14, after, True, True, False], [2, 12, then, True, True, False],
                     [4, 6, 0, True, False, True], [5, 5, last, True, False, False], [6, 2, 0, False, False, False]],
        "branches": [[2, 9, 2, 10, was_true, was_false, 0, 0, 4] for was_true, was_false in outcomes],
    }


class Planted(unittest.TestCase):
    """A tree with one measured source, and an export beside it."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name).resolve()
        self.write(PATH, SOURCE)

    def write(self, path, text):
        (self.root / path).parent.mkdir(parents=True, exist_ok=True)
        (self.root / path).write_text(text, encoding="utf-8")

    def run_check(self, named="", **counts):
        """The check's answer and what it printed."""
        self.write(check.NAMED, named)
        self.write("export.json", json.dumps({"data": [{"files": [measured(self.root / PATH, **counts)]}]}))
        program, printed = Path(check.__file__), io.StringIO()
        with mock.patch.object(sys, "argv", [str(program), str(self.root), str(self.root / "export.json")]), \
                contextlib.redirect_stdout(printed), self.assertRaises(SystemExit) as ended:
            runpy.run_path(str(program), run_name="__main__")
        return ended.exception.code, printed.getvalue()

    def expect(self, finding, named="", **counts):
        answer, printed = self.run_check(named, **counts)
        self.assertEqual(answer, 1, printed)
        self.assertIn(finding, printed)
        self.assertIn("1 finding(s)", printed)
        return printed

    def test_nothing_amiss(self):
        answer, printed = self.run_check("# A comment.\n\n")
        self.assertEqual(answer, 0)
        self.assertEqual(printed, "lines: 100.0% (3 out of 3)\nbranches: 100.0% (2 out of 2)\ncoverage: 0 finding(s)\n")

    def test_a_line_that_is_not_reached(self):
        printed = self.expect(f"{PATH}:3: no test reaches: return 1;", then=0)
        self.assertIn("lines: 66.6% (2 out of 3)\n", printed)

    def test_a_line_in_a_part_that_goes_on(self):
        self.expect(f"{PATH}:5: no test reaches: return 2;", last=0)

    def test_what_stands_between_two_parts_is_not_a_line(self):
        self.write(PATH, SOURCE.replace("    }\n", "    } else\n"))
        self.assertEqual(self.run_check()[0], 0)

    def test_a_named_line_may_stay_unreached(self):
        answer, printed = self.run_check(NAMES_RETURN, then=0)
        self.assertEqual(answer, 0)
        self.assertIn("lines: 66.6%", printed)

    def test_a_name_excuses_one_line_of_its_text(self):
        self.write(PATH, SOURCE.replace("return 2;", "return 1;"))
        self.expect(f"{PATH}:5: no test reaches: return 1;", NAMES_RETURN, then=0, last=0)

    def test_a_named_line_that_is_reached(self):
        self.expect(f"{check.NAMED}: reached, or not there: {PATH}: return 1;", NAMES_RETURN)

    def test_a_named_line_that_is_not_there(self):
        self.expect(f"{PATH}: return 3;", f"{PATH} | return 3; | there was one\n")

    def test_a_name_without_a_reason(self):
        for row in (f"{PATH} | return 1;", f"{PATH} | return 1; | ", "return 1;"):
            self.expect(f"{check.NAMED}:1: needs a file, the line's text and a reason", f"{row}\n")

    def test_texts_with_a_bar_with_a_string_and_with_a_comment(self):
        for text in ("return 1 | a;", 'return "1"[a];', "return a; // why"):
            self.write(PATH, SOURCE.replace("return 1;", text))
            answer, printed = self.run_check(f"{PATH} | {text.partition(' //')[0]} | a reason\n", then=0)
            self.assertEqual(answer, 0, printed)

    def test_a_branch_that_is_not_taken(self):
        printed = self.expect("branches: fewer than 95%", outcomes=((1, 0),))
        self.assertIn(f"{PATH}:2: a: was never false\n", printed)
        self.assertIn("branches: 50.0% (1 out of 2)\n", printed)
        self.expect(f"{PATH}:2: a: was never true\n", outcomes=((0, 1),))

    def test_an_outcome_that_another_instance_of_a_template_took(self):
        self.assertEqual(self.run_check(outcomes=((1, 0), (0, 1)))[0], 0)

    def test_a_source_that_is_not_measured(self):
        self.write("Center/two.cpp", SOURCE)
        self.expect("Center/two.cpp: not measured")

    def test_figures_are_never_rounded_up(self):
        self.assertEqual(check.share([True] * 9999 + [False]), 99.9)
        self.assertEqual(check.share([]), 0.0)


class BranchLimit(unittest.TestCase):
    """The limit, without a tree for each count."""

    def findings_with(self, taken):
        coverage = mock.Mock(taken=taken, lines=[], paths=set())
        with tempfile.TemporaryDirectory() as folder:
            (Path(folder) / check.NAMED).parent.mkdir(parents=True)
            (Path(folder) / check.NAMED).write_text("", encoding="utf-8")
            return list(check.findings(folder, coverage))

    def test_holds_at_95_and_not_below(self):
        self.assertEqual(self.findings_with([True] * 95 + [False] * 5), [])
        self.assertEqual(self.findings_with([True] * 949 + [False] * 51), ["branches: fewer than 95%"])

    def test_nothing_measured_is_not_enough(self):
        self.assertEqual(self.findings_with([]), ["branches: fewer than 95%"])


if __name__ == "__main__":
    unittest.main(verbosity=1)
