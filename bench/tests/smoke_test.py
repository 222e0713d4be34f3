#!/usr/bin/env python3
"""Runs one subject with every contender that was built, for a moment. Usage: smoke_test.py BINARY SUBJECT

A figure is not judged here: the answer must be one JSON object, tell what was asked for, and have the figures that
the subject promises, each a number above zero where nothing else makes sense.
"""

import json
import shutil
import subprocess
import sys
import unittest

BINARY, SUBJECT = sys.argv[1:3]

COMMON = {"packets", "seconds", "rate", "ns_per_packet"}
USED = {"cpu_near_seconds", "cpu_far_seconds"}  # 0 where a process only waited
PERCENTILES = {"p50_ns", "p90_ns", "p99_ns", "p99_9_ns", "min_ns", "max_ns"}
MEMORY = {f"{kind}_{end}_bytes_per_connection" for kind in ("heap", "resident") for end in ("near", "far")}
WAKEUPS = {"wakeups_near_per_second", "wakeups_far_per_second"}
GROWTH = {"growth_near_bytes", "growth_far_bytes"}
TICKS = {"tick_near_ns", "tick_far_ns"}

# By subject: ways to run it, figures above zero, figures that may be anything.
SUBJECTS = {
    "roundtrip": ([["--size", "0"], ["--size", "64", "--connections", "3"], ["--size", "65536"]], PERCENTILES, set()),
    "oneway": ([["--size", "0"], ["--size", "64", "--connections", "3"], ["--size", "1048576"]], {"sent"}, set()),
    "fanout": ([["--size", "0", "--connections", "10"], ["--size", "64", "--connections", "10"]],
               PERCENTILES | {"caller_ns_per_packet"}, set()),
    "setup": ([["--connections", "20"]], PERCENTILES, set()),
    "memory": ([["--connections", "20"]], set(), MEMORY | GROWTH),
    "idle": ([["--connections", "10"]], PERCENTILES | {"rest_seconds"},
             WAKEUPS | TICKS | {"rest_cpu_near_seconds", "rest_cpu_far_seconds"}),
    "udp": ([["--way", "one"], ["--way", "round"]], set(), {"sent", "received", "lost_ratio"} | PERCENTILES),
}
NO_DATAGRAMS = {"zmq", "nng"}


def ask(*words):
    """Exit code and answer; standard output must hold nothing else."""
    done = subprocess.run([BINARY, *words], stdout=subprocess.PIPE, timeout=120, check=False)
    return done.returncode, json.loads(done.stdout)


def has_networks():
    tries = (["unshare", "-n", "true"], ["unshare", "-rn", "true"])
    return shutil.which("ip") is not None and any(
        subprocess.run(words, stderr=subprocess.DEVNULL, check=False).returncode == 0 for words in tries)


class Smoke(unittest.TestCase):
    def check_answer(self, contender, words, answer):
        _, above_zero, others = SUBJECTS[SUBJECT]
        self.assertEqual(answer["contender"], contender)
        self.assertEqual(answer["subject"], SUBJECT)
        for name, value in zip(words[::2], words[1::2]):
            self.assertEqual(str(answer["parameters"][name.removeprefix("--")]), value)
        figures = answer["figures"]
        self.assertLessEqual(COMMON | USED | above_zero, set(figures))
        self.assertLessEqual(set(figures), COMMON | USED | above_zero | others)
        self.assertGreater(sum(figures[name] for name in USED), 0)
        for name in COMMON | above_zero:
            self.assertGreater(figures[name], 0, name)
        if PERCENTILES <= set(figures):
            order = [figures[name] for name in ("min_ns", "p50_ns", "p90_ns", "p99_ns", "p99_9_ns", "max_ns")]
            self.assertEqual(order, sorted(order))

    def check_run(self, contender, words):
        code, answer = ask(SUBJECT, "--contender", contender, "--seconds", "0.05", "--warm-up", "0.01", *words)
        if SUBJECT == "udp" and (contender in NO_DATAGRAMS or not has_networks()):
            self.assertEqual(code, 77)
            self.assertTrue(answer["error"]["unsupported"])
            return
        self.assertEqual(code, 0, answer)
        self.check_answer(contender, words, answer)

    def test_every_contender(self):
        code, built = ask("list")
        self.assertEqual(code, 0)
        self.assertLessEqual({"raw", "skeleton", "relay"}, set(built["contenders"]))
        self.assertEqual(set(built["subjects"]), set(SUBJECTS))
        for contender in built["contenders"]:
            for words in SUBJECTS[SUBJECT][0]:
                with self.subTest(contender=contender, words=words):
                    self.check_run(contender, words)

    def test_ticks_have_a_cost_at_both_ends(self):
        if SUBJECT != "idle":
            return
        for contender in ("skeleton", "relay"):
            with self.subTest(contender=contender):
                code, answer = ask(SUBJECT, "--contender", contender, "--seconds", "1", "--count", "1", "--warm-up", "0")
                self.assertEqual(code, 0, answer)
                for name in TICKS | WAKEUPS:
                    self.assertGreater(answer["figures"][name], 0, name)

    def test_count_is_kept(self):
        code, answer = ask(SUBJECT, "--contender", "skeleton", "--count", "50", "--warm-up", "0", "--connections", "2")
        if SUBJECT == "udp" and not has_networks():
            self.assertEqual(code, 77)
            return
        self.assertEqual(code, 0, answer)
        self.assertGreaterEqual(answer["figures"]["packets"], 50)

    def test_a_missing_contender_and_wrong_usage(self):
        wrong = subprocess.run([BINARY, SUBJECT, "--contender", "nobody"], stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, timeout=60, check=False)
        self.assertEqual(wrong.returncode, 2)
        self.assertEqual(wrong.stdout, b"")
        _, built = ask("list")
        for contender in built["missing"]:
            code, answer = ask(SUBJECT, "--contender", contender)
            self.assertEqual(code, 77)
            self.assertTrue(answer["error"]["unsupported"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
