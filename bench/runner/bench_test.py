"""The runner: medians, ratios, verdicts, turns, disturbed rounds; and whole runs, with a program that stands in for
the real one."""

import csv
import io
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path
from unittest import mock

import compare
import goals
import machine
import report
import results
import sampling
import suite

HERE = Path(__file__).resolve().parent
CASE = results.case("oneway", {"size": 64, "connections": 1})
DEADLINE = 120


# Runs what it is to sample, and reports what no run of it says.
FAKE_PERF = """#!/bin/sh
if [ "$1" = record ]; then
    while [ "$1" != -- ]; do shift; done
    shift
    exec "$@"
fi
cat <<'TEXT'
# Overhead|Command|Shared Object|Symbol
40.00%  |relay-4        |[kernel.kallsyms]              |[k] do_epoll_ctl
20.00%  |skeleton-tick  |[kernel.kallsyms]              |[k] do_epoll_ctl
20.00%  |relay-5        |libinet_relay.so.1.0.0         |[.] Zolt::EPoll::send_step
10.00%  |relay-5        |libzolt_reference_host.so.1.0.0|[.] Zolt::struct_token::free
10.00%  |relay-6        |libc.so.6                      |[.] epoll_ctl
TEXT
"""


def sample(contender, number, which=CASE, **figures):
    return results.Sample(which, contender, number, 1, figures)


def measured(**rates):
    """Results of one case: each contender's rates, round by round."""
    return results.Results(sample(name, number, rate=rate) for name, values in rates.items()
                           for number, rate in enumerate(values, 1))


def row(*bars, contenders=goals.BOTH, shown=(), rounds=None):
    return goals.Row("a case", CASE, contenders, bars, shown, 0.1, rounds)


class Samples(unittest.TestCase):
    REPORT = FAKE_PERF[FAKE_PERF.index("# Overhead"):]

    def test_are_shared_out_by_library(self):
        shares, top = sampling.read_report(self.REPORT)
        self.assertEqual(shares, {"kernel": 0.6, "relay": 0.2, "reference host": 0.1, "C and C++ libraries": 0.1, "the bench": 0})
        self.assertEqual(top, [(0.2, "EPoll::send_step"), (0.1, "struct_token::free"), (0.1, "epoll_ctl")])

    def test_of_one_thread_are_shares_of_that_thread(self):
        shares, top = sampling.read_report(self.REPORT, "relay-5")
        self.assertAlmostEqual(shares["relay"], 2 / 3)
        self.assertEqual(len(top), 2)

    def test_of_connections_at_rest_are_those_of_the_thread_that_ticks(self):
        programs = mock.Mock()
        rest = next(one for one in goals.ROWS if one.case.subject == "idle")
        with mock.patch.object(suite, "call", lambda _: (0, self.REPORT, "")):
            limit, relay = (sampling.take(programs, rest, name) for name in goals.BOTH)
        self.assertEqual((limit.contender, limit.shares["kernel"], limit.top), ("skeleton", 1, []))
        self.assertEqual((relay.contender, relay.shares["kernel"], relay.top), ("relay", 0, [(1, "epoll_ctl")]))

    def test_that_are_none_say_so(self):
        with self.assertRaises(sampling.NotSampled):
            sampling.read_report(self.REPORT, "relay-9")


class Figures(unittest.TestCase):
    def test_the_median_comes_with_the_least_and_the_most(self):
        self.assertEqual(results.spread([5, 1, 9, 2]), (3.5, 1, 9, 4))
        self.assertIsNone(results.spread([]))

    def test_a_ratio_is_the_median_of_the_rounds_ratios(self):
        run = measured(relay=[10, 20, 90], skeleton=[10, 40, 30])
        # The ratio of the medians would be 20 / 30.
        self.assertEqual(run.ratio((CASE, "relay", "rate"), (CASE, "skeleton", "rate")), (1, 0.5, 3, 3))

    def test_only_rounds_that_both_have_are_compared(self):
        run = measured(relay=[10, 20, 90], skeleton=[10])
        self.assertEqual(run.ratio((CASE, "relay", "rate"), (CASE, "skeleton", "rate")).rounds, 1)
        self.assertIsNone(run.ratio((CASE, "relay", "rate"), (CASE, "zmq", "rate")))

    def test_what_was_repeated_or_failed_does_not_count(self):
        run = measured(relay=[10, 1000, 1000])
        run.samples[1].state, run.samples[2].state = results.REPEATED, results.FAILED
        self.assertEqual(run.spread(CASE, "relay", "rate"), (10, 10, 10, 1))

    def test_a_file_gives_back_what_was_written(self):
        run = measured(relay=[1.5, 2], skeleton=[3])
        failed = results.Sample(CASE, "zmq", 1, 1, error="no, it did not", state=results.FAILED, other_load=0.25,
                                lasted=1.5)
        repeated = results.Sample(goals.MICRO.case, "relay", 1, 2, {"token_ns": 4}, state=results.REPEATED)
        run.samples += [failed, repeated]
        file = io.StringIO()
        results.write_csv(run, file)
        file.seek(0)
        self.assertEqual(results.read_csv(file).samples, run.samples)

    def test_amounts_have_units(self):
        for figure, value, text in (("p50_ns", 999, "999 ns"), ("p50_ns", 19_300, "19.3 us"),
                                    ("tick_near_ns", 5e6, "5 ms"), ("ns_per_packet", 2e9, "2 s"),
                                    ("caller_ns_per_packet", 0, "0 ns"),
                                    ("caller_ns_per_packet", -1500, "-1.5 us"), ("rate", 196_000.4, "196,000 /s"),
                                    ("heap_near_bytes_per_connection", 3791, "3,791 B"),
                                    ("wakeups_near_per_second", 1, "1 /s"), ("lost_ratio", 0.01234, "0.0123")):
            with self.subTest(figure=figure, value=value):
                self.assertEqual(report.amount(figure, value), text)


class Verdicts(unittest.TestCase):
    def verdict(self, run, bar):
        return report.Verdict(run, row(bar), bar).text

    def test_the_bar_itself_is_met_and_the_next_value_is_not(self):
        for bar, relay, verdict in ((goals.at_least(0.95, "rate"), 95, "met"),
                                    (goals.at_least(0.95, "rate"), 94.99, "**not met**"),
                                    (goals.at_most(1.10, "rate"), 110, "met"),
                                    (goals.at_most(1.10, "rate"), 110.01, "**not met**"),
                                    (goals.at_most(60, "rate", ""), 60, "met"),
                                    (goals.at_most(60, "rate", ""), 60.01, "**not met**"),
                                    (goals.at_most(250, "rate", compare=goals.difference), 350, "met"),
                                    (goals.at_most(250, "rate", compare=goals.difference), 350.01, "**not met**"),
                                    (goals.at_least(2, "rate", "zmq"), 100, "met"),
                                    (goals.at_least(2, "rate", "zmq"), 99, "**not met**")):
            with self.subTest(bar=bar.text(), relay=relay):
                self.assertEqual(self.verdict(measured(relay=[relay], skeleton=[100], zmq=[50]), bar), verdict)

    def test_the_median_round_decides(self):
        run = measured(relay=[50, 96, 96], skeleton=[100, 100, 100])
        self.assertEqual(self.verdict(run, goals.at_least(0.95, "rate")), "met")

    def test_the_relay_can_be_compared_with_itself_under_other_parameters(self):
        bar = goals.at_most(1.10, "p50_ns", goals.JUDGED, at=(("connections", 1),))
        for value, verdict in ((110, "met"), (111, "**not met**")):
            many = CASE.changed({"connections": 8000})
            run = results.Results([sample("relay", 1, p50_ns=100), sample("relay", 1, many, p50_ns=value)])
            judged = report.Verdict(run, goals.Row("many", many, goals.BOTH, (bar,)), bar)
            self.assertEqual(judged.text, verdict)
            self.assertIn("its own at connections 1", judged.bar_text())

    def test_what_is_missing_is_not_measured_and_what_failed_says_so(self):
        bar = goals.at_least(1.1, "rate", "zmq")
        run = measured(relay=[100], skeleton=[100])
        self.assertEqual(self.verdict(run, bar), "not measured")
        run.samples.append(results.Sample(CASE, "zmq", 1, 1, error="it fell", state=results.FAILED))
        self.assertEqual(self.verdict(run, bar), "failed")

    def test_the_limit_is_shown_beside_a_bar_and_does_not_judge(self):
        bar = goals.at_most(5, "rate", "", beside=goals.LIMIT)
        run = measured(relay=[6, 8, 6], skeleton=[6, 4, 8])
        judged = report.Verdict(run, row(bar), bar)
        self.assertEqual((judged.text, judged.of_bar()),
                         ("**not met**", "6 /s (6 /s .. 8 /s); 1.000 (0.750 .. 2.000) of skeleton"))
        alone = report.Verdict(measured(relay=[5]), row(bar), bar)
        self.assertEqual((alone.text, alone.of_bar()), ("met", "5 /s"))

    def test_each_bar_is_of_a_contender_that_takes_part_in_every_round(self):
        for one in goals.ROWS:
            for bar in one.bars:
                self.assertIn(bar.against or goals.JUDGED, one.contenders, one.title)
                self.assertIn(bar.beside or goals.JUDGED, one.contenders, one.title)
                self.assertIn(bar.other(one.case)[0], [other.case for other in goals.ROWS], one.title)
        cases = [one.case for one in goals.ROWS]
        self.assertEqual(len(cases), len(set(cases)))


class Scripted:
    """Programs whose figures are a list for each contender, used up one by one."""

    def __init__(self, **rates):
        self.rates, self.calls = rates, []

    def built(self):
        return list(self.rates)

    def measure(self, _, contender):
        self.calls.append(contender)
        value = self.rates[contender].pop(0)
        if isinstance(value, Exception):
            raise value
        return {"rate": value}


class Turns(unittest.TestCase):
    BAR = goals.at_least(0.95, "rate")

    def play(self, programs, one, rounds, others=()):
        """others: the machine's other processor time, before and after each round; none when it is used up."""
        told = iter(others)
        played = suite.Suite(programs, [one], rounds, lambda *_: None)
        with mock.patch.object(machine, "others_seconds", lambda: next(told, 0)):
            played.play()
        return played

    def test_contenders_alternate_and_those_that_are_only_shown_stop(self):
        programs = Scripted(skeleton=[1] * 7, relay=[1] * 7, raw=[1] * 7)
        self.play(programs, row(self.BAR, shown=("raw",)), 7)
        self.assertEqual(programs.calls, ["skeleton", "relay", "raw"] * suite.SHOWN_ROUNDS +
                         ["skeleton", "relay"] * (7 - suite.SHOWN_ROUNDS))

    def test_what_does_not_vary_has_rounds_of_its_own(self):
        programs = Scripted(skeleton=[1] * 7, relay=[1] * 7)
        self.play(programs, row(self.BAR, rounds=2), 7)
        self.assertEqual(len(programs.calls), 4)

    def test_a_disturbed_round_is_repeated_once_and_counted(self):
        played = self.play(Scripted(skeleton=[50, 100], relay=[1, 90]), row(self.BAR), 1, (0, 1, 1, 1))
        self.assertEqual([one.state for one in played.results.samples], ["repeated"] * 2 + ["kept"] * 2)
        self.assertEqual((played.disturbed, played.repeated, played.stays_disturbed), (1, 1, 0))
        self.assertEqual(self.BAR.spread(played.results, CASE), (0.9, 0.9, 0.9, 1))

    def test_a_repeated_round_that_is_disturbed_too_counts(self):
        played = self.play(Scripted(skeleton=[50, 100], relay=[1, 90]), row(self.BAR), 1, (0, 1, 1, 2))
        self.assertEqual((played.disturbed, played.repeated, played.stays_disturbed), (1, 1, 1))
        self.assertEqual(played.results.spread(CASE, "relay", "rate").median, 90)

    def test_a_skeleton_far_from_its_rounds_before_disturbs_a_round(self):
        played = self.play(Scripted(skeleton=[100] * 4 + [70, 101], relay=[100] * 6), row(self.BAR), 5)
        self.assertEqual((played.disturbed, played.repeated), (1, 1))
        self.assertEqual(played.results.rounds(CASE, "skeleton", "rate")[5], 101)

    def test_under_a_load_that_stays_only_some_rounds_are_repeated(self):
        rounds = 40
        played = self.play(Scripted(skeleton=[1] * 80, relay=[1] * 80), row(self.BAR), rounds, range(200))
        self.assertEqual((played.disturbed, played.repeated, played.stays_disturbed), (rounds, rounds // 4, rounds))

    def test_one_that_failed_is_not_asked_again_and_the_others_go_on(self):
        programs = Scripted(skeleton=[1] * 3, relay=[suite.Failed("it fell")])
        played = self.play(programs, row(self.BAR), 3)
        self.assertEqual(programs.calls, ["skeleton", "relay", "skeleton", "skeleton"])
        self.assertEqual([one.error for one in played.failures()], ["it fell"])

    def test_one_that_failed_has_no_part_when_its_round_is_repeated(self):
        programs = Scripted(skeleton=[1] * 2, relay=[suite.Failed("it fell")])
        played = self.play(programs, row(self.BAR), 1, (0, 1, 1, 1))
        self.assertEqual(programs.calls, ["skeleton", "relay", "skeleton"])
        self.assertEqual([one.state for one in played.results.samples], ["repeated", "failed", "kept"])

    def test_one_that_has_no_part_is_a_note_and_no_failure(self):
        programs = Scripted(skeleton=[1] * 2, relay=[suite.NotHere("no means")])
        played = self.play(programs, row(self.BAR, contenders=("skeleton", "relay", "zmq")), 2)
        self.assertEqual(played.failures(), [])
        self.assertEqual((played.not_built, played.left_out), ({"zmq"}, {(CASE, "relay"): "no means"}))

    def test_an_answer_without_the_judged_figure_is_a_failure(self):
        with self.assertRaisesRegex(suite.Failed, "lacks p50_ns"):
            suite.numbers({"rate": 1}, [goals.at_most(1, "p50_ns")])

    def test_a_figure_that_is_no_number_is_a_failure(self):
        for nonsense in (None, "fast", float("nan"), float("inf")):
            with self.subTest(figure=nonsense), self.assertRaisesRegex(suite.Failed, "no numbers: rate"):
                suite.numbers({"rate": nonsense, "p50_ns": 1}, [])


class WholeRun(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.output = self.folder / "out"
        fake = f"#!{sys.executable} -B\n" + (HERE / "fake_bench.py").read_text(encoding="utf-8")
        for name in ("inet_relay_bench", "inet_relay_micro"):
            (self.folder / name).write_text(fake, encoding="utf-8")
            (self.folder / name).chmod(0o700)
        (self.folder / "perf").write_text(FAKE_PERF, encoding="utf-8")
        (self.folder / "perf").chmod(0o700)
        # Drawing takes longer than all else, and has a test of its own.
        (self.folder / "matplotlib.py").write_text("raise ImportError\n", encoding="utf-8")

    def command(self, *arguments):
        return [sys.executable, "-B", str(HERE / "bench.py"), "--programs", str(self.folder),
                "--output", str(self.output), *arguments]

    def environment(self, plan):
        return {**os.environ, "FAKE_BENCH": json.dumps(plan), "PYTHONPATH": str(self.folder),
                "PATH": f"{self.folder}:{os.environ['PATH']}"}

    def run_bench(self, *arguments, code=0, **plan):
        done = subprocess.run(self.command(*arguments), env=self.environment(plan), capture_output=True, text=True,
                              timeout=DEADLINE)
        self.assertEqual(done.returncode, code, done.stderr)
        return done

    def page(self):
        return (self.output / "benchmarks.md").read_text(encoding="utf-8")

    def line(self, *parts):
        found = [line for line in self.page().splitlines() if all(part in line for part in parts)]
        self.assertTrue(found, (parts, self.page()))
        return found[0]

    def csv_rows(self):
        with open(self.output / "benchmarks.csv", encoding="utf-8", newline="") as file:
            return list(csv.DictReader(file))

    def test_the_whole_table_is_measured_and_judged(self):
        done = self.run_bench("--rounds", "1", relay=1.1)
        self.assertIn("| **not met** |", self.line("round trip, header only", "at most 1.09 of skeleton", "1.100"))
        self.assertIn("| met |", self.line("round trip, header only", "at most 0.72 of zmq", "0.550"))
        self.assertIn("| met |", self.line("memory, 8,000", "`heap_near_bytes_per_connection`", "at most 3,900 B"))
        self.assertIn("| **not met** |", self.line("memory, 8,000", "`heap_far_bytes_per_connection`", "3,901 B"))
        self.assertIn("| **not met** |", self.line("`trace_off_ns`", "at most 5 ns", "50 ns"))
        for end in ("near", "far"):
            self.line("at rest, 8,000", f"`tick_{end}_ns`", "at most 5 ms", "110 ns; 1.100 of skeleton", "| 1 | met |")
        self.line("| at rest, 1,000 connections | relay |", "| 110 ns, ratio 1.100 | 110 ns, ratio 1.100 |")
        self.line("| at rest, 1,000 connections | skeleton |", "| 100 ns | 100 ns |")
        self.assertIn(goals.ABOUT["idle"], self.page()[self.page().index("\n## Connections at rest"):])
        missed = self.page()[self.page().index("\n## Goals not met"):self.page().index("\n## Round trips")]
        self.assertIn("**round trip, header only**: `p50_ns` 1.100, bar at most 1.09 of skeleton.", missed)
        self.assertEqual(missed.count(goals.TRIED["roundtrip"]), 1)
        self.assertIn("60 % | 20 % | 10 % | 10 % | 0 % |", missed)
        self.assertIn("`EPoll::send_step` 20.0 %, `struct_token::free` 10.0 %", missed)
        for text in ("Written by `./dev bench --rounds 1`", "verdicts here are hints", "- commit: ",
                     "- machine: "):
            self.assertIn(text, self.page())
        self.assertNotIn("not measured", self.page())
        self.assertNotIn("Interrupted", self.page())
        self.assertNotIn("pictures/", self.page())
        self.assertIn("python3-matplotlib is not installed", done.stderr)
        measurements = {(one["subject"], one["contender"], one["state"]) for one in self.csv_rows()}
        for subject in {one.case.subject for one in goals.ROWS}:
            self.assertIn((subject, "relay", "kept"), measurements)
        self.assertRegex(done.stderr,
                         r"round 1, one way, 64 B, 1 connection; \d+ measurements remain, about [\d.]+ minutes")

    def test_a_quick_run_says_so_and_what_it_leaves_out(self):
        self.run_bench("--quick", "--only", "memory", "--only", "setup")
        for text in ("Written by `./dev bench --quick --only memory --only setup`", "At most 3 rounds",
                     "Left out, because they take long: memory, 8,000 connections at rest; memory after"):
            self.assertIn(text, self.page())
        self.assertEqual({one["contender"]: one["round"] for one in self.csv_rows()},
                         {"skeleton": "3", "relay": "3", "raw": "1"})

    def test_only_one_subject(self):
        self.run_bench("--only", "setup", "--rounds", "2")
        self.assertEqual({one["subject"] for one in self.csv_rows()}, {"setup"})
        self.assertIn("## Setting connections up", self.page())
        self.assertNotIn("## Round trips", self.page())

    def test_a_missing_contender_is_a_note(self):
        self.run_bench("--only", "oneway", "--rounds", "1", missing=["nng"], unsupported=["oneway raw"])
        self.assertIn("- nng was not built", self.page())
        self.assertIn("no means for it", self.line("one way, 64 B, 1 connection: raw has no part"))
        self.assertIn("| not measured |", self.line("at least 1.6 of nng"))

    def test_a_contender_that_fails_is_in_its_row_and_the_exit_status(self):
        for plan, message in (({"failing": ["setup relay"]}, "failed: as told"),
                              ({"silent": ["setup relay"]}, "failed: exit 1 without an answer: gave up")):
            with self.subTest(plan=plan):
                done = self.run_bench("--only", "setup", "--rounds", "2", code=1, **plan)
                self.assertIn(message, self.line("| set-up, one after the other | relay |"))
                self.assertIn("| failed |", self.line("at least 0.92 of skeleton"))
                self.assertIn("setup --cores one, relay", done.stderr)

    def test_programs_that_are_not_there_end_the_run(self):
        (self.folder / "inet_relay_bench").unlink()
        self.assertIn("cannot be used", self.run_bench(code=1).stderr)

    def test_an_interrupted_run_writes_what_it_has_and_leaves_nothing_running(self):
        self.interrupt(signal.SIGINT)

    def test_a_run_that_is_asked_to_end_writes_what_it_has_and_leaves_nothing_running(self):
        self.interrupt(signal.SIGTERM)

    def interrupt(self, number):
        signs = self.folder / "signs"
        os.mkfifo(signs)
        plan = {"block": "udp relay", "tell": str(signs)}
        command = self.command("--rounds", "3", "--only", "udp", "--only", "setup")
        with subprocess.Popen(command, env=self.environment(plan), stderr=subprocess.PIPE, text=True) as runner:
            with open(signs, encoding="utf-8") as file:  # opens when the program that never ends has begun
                blocked = os.pidfd_open(int(file.readline()))
            self.addCleanup(os.close, blocked)
            runner.send_signal(number)
            _, said = runner.communicate(timeout=DEADLINE)
        self.assertEqual(runner.returncode, 130, said)
        self.assertIn("**Interrupted", self.page())
        kept = {(one["subject"], one["contender"]) for one in self.csv_rows()}
        self.assertEqual(kept, {("setup", "skeleton"), ("setup", "relay"), ("setup", "raw")})
        with self.assertRaises(ProcessLookupError):
            signal.pidfd_send_signal(blocked, 0)

    def test_two_runs_are_compared(self):
        self.run_bench("--only", "setup", "--rounds", "3")
        before = self.folder / "before.csv"
        (self.output / "benchmarks.csv").rename(before)
        self.assertIn("| no |", self.run_bench("--only", "setup", "--rounds", "3", "--baseline", str(before)).stdout)
        done = self.run_bench("--only", "setup", "--rounds", "3", "--baseline", str(before), relay=0.8)
        self.assertIn("| 1.000 | 1.250 | +25.0 % | yes |", done.stdout)
        self.assertIn("## Compared with before.csv", self.page())
        self.assertNotIn(str(self.folder), self.page())

    def test_the_network_is_what_the_page_says(self):
        log = self.folder / "log"
        self.run_bench("--only", "setup", "--rounds", "1", log=str(log))
        names = {line.split()[-2] for line in log.read_text(encoding="utf-8").splitlines()}
        congestion = {line.split()[-1] for line in log.read_text(encoding="utf-8").splitlines()}
        said = re.search(r"^- network: (.*) congestion control (?:is )?(\w+)$", self.page(), re.MULTILINE)
        is_shared = said[1].startswith("the machine's own")
        self.assertEqual(names == {os.readlink("/proc/self/ns/net")}, is_shared)
        self.assertTrue(is_shared or said[2] == "reno", said[0])
        self.assertEqual(congestion, {said[2]})

    def test_wrong_usage_ends_with_2(self):
        for arguments in (["--rounds", "0"], ["--only", "everything"], ["--fast"]):
            with self.subTest(arguments=arguments):
                self.run_bench(*arguments, code=2)


class Changes(unittest.TestCase):
    def test_only_what_is_apart_is_beyond_the_noise(self):
        self.assertFalse(compare.is_apart([1, 2, 3, 4, 5], [3, 4, 5, 6, 7]))
        self.assertTrue(compare.is_apart([1, 2, 3, 4, 5], [5, 6, 7, 8, 9]))
        self.assertTrue(compare.is_apart([2], [1]))


if __name__ == "__main__":
    unittest.main()
