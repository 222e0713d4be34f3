#!/usr/bin/env python3
"""Feeds the proof with outputs that are well and with ones that are not, and requires that it tells them apart."""

import contextlib
import io
import re
import signal
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import proof
import steps
from running import Row, Step, judge

ROOT = Path(__file__).resolve().parents[2]
# What the steps' commands print when all is well; {test}, {text}: a test and what it prints.
CTEST = """test 7
      Start  7: {test}
7: Test command: program
{text}
 1/1 Test  #7: {test} ....   Passed    0.10 sec
100% tests passed, 0 tests failed out of 1
"""
SHOWN = {
    "schedules": "schedules 50000, scheduling points 12, switches 3, failed 0\n",
    "models": "ok     a.pml all rules: 61 states, holds\n0 configurations did not answer as expected\n",
    "fuzz": "".join(f"fuzz_{name} executions 5  each second 1  corpus 3  edges 2  no finding\n" for name in range(6)) +
            "all                    executions        30  corpus    18\n",
    "sanitized": CTEST.format(test="unit.one", text="7: [ PASSED ]"),
    "churn": CTEST.format(test="race.churn_long", text="7:  CHURN_CONNECTIONS=100000\n7: [  PASSED  ] 1 test."),
    "soak": CTEST.format(test="soak.day", text="7: hour 24  ticks  86400  endings  9  packets  8  connected 50\n"
                                               "7: parts left after the stop: 0+0+0"),
    "nemesis": CTEST.format(test="hosts.nemesis_full",
                            text='7: {"verdict": "held", "steps": 60, "links": 20, "runs": 9}'),
    "coverage": "lines: 99.9% (1 out of 1)\nbranches: 96.0% (1 out of 1)\n",
    "mutants": "mutants 20, killed 19 (95.0 %), survived 1, took 3 s\n",
}
STEPS = {
    "schedules": steps.schedules(50000), "models": steps.models("quick"), "fuzz": steps.fuzz(10, 2),
    "sanitized": steps.sanitized("asan", "the address sanitizer", 1), "churn": steps.churn(), "soak": steps.soak(),
    "nemesis": steps.nemesis(), "coverage": steps.coverage(), "mutants": steps.mutants(20, 1),
}
# What would still end with status 0 if nobody looked.
WRONG = (
    ("schedules", "failed 0", "failed 1"),
    ("schedules", "schedules 50000", "schedules 49999"),
    ("models", "0 configurations", "1 configurations"),
    ("fuzz", "fuzz_3 executions 5  each second 1  corpus 3  edges 2  no finding\n", ""),
    ("fuzz", "all  ", "==1==ERROR: AddressSanitizer: heap-use-after-free\nall  "),
    ("sanitized", "7: [ PASSED", "7: ==1==ERROR: AddressSanitizer: heap-use-after-free\n7: [ PASSED"),
    ("sanitized", "7: [ PASSED", "7: WARNING: ThreadSanitizer: data race (pid=1)\n7: [ PASSED"),
    ("sanitized", "7: [ PASSED", "7: a.cpp:3:4: runtime error: shift exponent 32 is too large\n7: [ PASSED"),
    ("sanitized", "0 tests failed", "1 tests failed"),
    ("churn", "100000", "2000"),
    ("churn", "[  PASSED  ] 1 test", "[  PASSED  ] 0 tests"),
    ("soak", "0+0+0", "0+1+0"),
    ("soak", "hour 24", "hour 23"),
    ("nemesis", '"held"', '"failed"'),
    ("mutants", "mutants 20", "mutants 19"),
)


def gate_output():
    """What the gate's tests print, each figure as it has to be."""
    printed = {"groups/cells.once/all": "all, once: 351 runs",
               "groups/cells.persistent/all": "all, persistently: 351 runs",
               "sweep/calls.once/one": "one, each call once: 5 runs",
               "sweep/host_memory.each_new/one": "one, each new: 6 runs"}
    printed |= {f"race.finds_that_{rule}_is_missing": "found after 9 schedules: ..." for rule in steps.rules(ROOT)}
    lines = []
    for number, (test, text) in enumerate(printed.items(), 1):
        lines += [f"      Start {number:2}: {test}", f"{number}: {text}",
                  f" {number}/{len(printed)} Test {f'#{number}':>4}: {test} ...   Passed    0.10 sec"]
    return "\n".join((*lines, f"100% tests passed, 0 tests failed out of {len(printed)}", ""))


def all_well(verdicts):
    return all(verdict.is_well for verdict in verdicts)


class Judging(unittest.TestCase):
    def test_a_good_output_passes(self):
        for name, step in STEPS.items():
            with self.subTest(step=name):
                verdicts = judge(step, 0, SHOWN[name])
                self.assertTrue(all_well(verdicts), verdicts)
                self.assertNotIn("not shown", verdicts[0].text)

    def test_a_command_that_fails(self):
        for name, step in STEPS.items():
            self.assertFalse(all_well(judge(step, 1, SHOWN[name])), name)

    def test_an_output_without_figures(self):
        for name, step in STEPS.items():
            self.assertFalse(all_well(judge(step, 0, "")), name)

    def test_each_figure_is_needed(self):
        for name, step in STEPS.items():
            for line in SHOWN[name].splitlines():
                if re.search(r"\d", line) and not re.match(r"test |7: Test|7: \[| *Start| *1/1|fuzz_", line):
                    output = SHOWN[name].replace(line, "")
                    self.assertFalse(all_well(judge(step, 0, output)), (name, line))

    def test_a_figure_that_is_not_what_it_must_be(self):
        for name, right, wrong in WRONG:
            changed = SHOWN[name].replace(right, wrong)
            self.assertNotEqual(changed, SHOWN[name], (name, right))
            self.assertFalse(all_well(judge(STEPS[name], 0, changed)), (name, wrong))

    def test_figures_are_added_up_and_printed(self):
        row = Row("t", "{all} and {count}", {"all": r"found (\d+)", "count": "found"})
        verdict, = judge(Step((), (row,), 1), 0, "found 1000\nfound 234\n")
        self.assertEqual(verdict.text, "1,234 and 2")


class Gate(unittest.TestCase):
    def verdicts(self, output):
        return {verdict.title: verdict for verdict in judge(steps.gate(ROOT), 0, output)}

    def test_a_good_one_passes(self):
        verdicts = self.verdicts(gate_output())
        self.assertTrue(all_well(verdicts.values()), verdicts)
        self.assertIn("Schedules until the missing rule is found: hand over", verdicts)
        self.assertGreaterEqual(len(verdicts), 9)

    def test_a_row_fails_with_its_test_its_figure_or_its_count(self):
        changes = [("351 runs", "350 runs"), ("found after 9 schedules", "found nothing"),
                   ("sweep/calls.once/one ...   Passed ", "sweep/calls.once/one ...***Failed "),
                   ("each new: 6 runs", "each new")]
        for right, wrong in changes:
            changed = gate_output().replace(right, wrong, 1)
            self.assertNotEqual(changed, gate_output())
            failed = [title for title, verdict in self.verdicts(changed).items() if not verdict.is_well]
            self.assertEqual(len(failed), 1, (wrong, failed))


class Running(unittest.TestCase):
    """The program around the steps, with steps that do nothing."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def run_proof(self, *scripts):
        found = [[Step(("sh", "-c", script), (Row(script, "{n}", {"n": r"n=(\d+)"}),), 1)] for script in scripts]
        shown = []
        runs = proof.Proof(self.folder, found)
        with contextlib.redirect_stderr(io.StringIO()) as told:
            runs.run(lambda: shown.append(list(runs.rows)))
        return runs, told.getvalue()

    def test_a_step_that_fails_does_not_stop_the_others(self):
        runs, told = self.run_proof("echo n=1; exit 3", "echo n=2", "echo m=2")
        self.assertEqual([row.rsplit("|")[-2].strip() for row in runs.rows], ["**failed**", "passed", "**failed**"])
        self.assertFalse(runs.is_well)
        self.assertIn("step 2 of 3", told)

    def test_all_well(self):
        self.assertTrue(self.run_proof("echo n=1", "echo n=2")[0].is_well)

    def test_a_command_that_does_not_exist(self):
        verdict, _ = proof.Proof(self.folder, []).perform(Step(("./nothing",), (Row("t", "", {}),), 1))[0]
        self.assertFalse(verdict.is_well)

    def test_an_interrupted_one_keeps_what_was_done_and_ends_what_runs(self):
        script = ("import signal, sys, proof, pathlib\n"
                  "from running import Row, Step\n"
                  "proof.groups_of = lambda root, quick: [\n"
                  "    [Step(('echo', 'n=4'), (Row('first', '{n}', {'n': r'n=(.*)'}),), 1)],\n"
                  "    [Step(('sh', '-c', 'echo $$ > pid; exec tail -f /dev/null'), (Row('endless', '', {}),), 1)]]\n"
                  "sys.exit(proof.main([sys.argv[1], sys.argv[1] + '/page.md']))\n")
        with subprocess.Popen((sys.executable, "-B", "-c", script, self.folder), cwd=Path(__file__).parent,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as running:
            for line in running.stderr:
                if "endless" in line:
                    break
            running.send_signal(signal.SIGINT)
            table, _ = running.communicate(timeout=30)
        self.assertEqual(running.returncode, 1)
        self.assertIn("| first | 4 |", table)
        self.assertIn("interrupted", table)
        self.assertEqual((self.folder / "page.md").read_text(encoding="utf-8"), table.removesuffix("\n"))


if __name__ == "__main__":
    unittest.main()
