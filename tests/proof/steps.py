"""The steps of the proof, and the figures that each of them has to show."""

import os
import platform
import re
import time

from running import Row, Step

CORES = os.cpu_count()
CELLS = 351
FUZZ_TARGETS = 6
# What a sanitizer's report begins with; libFuzzer's own is the last one.
REPORTS = (r"(?:ERROR|WARNING): (?:Address|Leak|Thread|Memory)Sanitizer|: runtime error: |SUMMARY: UndefinedBehavior"
           r"|ERROR: libFuzzer")
TESTS = {"failed": r"tests passed, (\d+) tests failed", "tests": r"tests failed out of (\d+)"}
NONE_FAILED = {"failed": 0}
SIMULATION = "tests/race/simulation"


def ctest(preset, *arguments, side_by_side=CORES + 1):
    """Many tests wait most of the time, so one more than there are cores."""
    command = ("ctest", "--preset", preset, "-V", "--no-tests=error", "-j", str(side_by_side), *arguments)
    # A sanitizer's shadow memory does not fit beside the widest random address layout.
    return ("setarch", platform.machine(), "-R", *command) if preset.endswith("san") else command


def rules(root):
    """The rules that are taken out of copies, as the build names them."""
    text = (root / SIMULATION / "CMakeLists.txt").read_text(encoding="utf-8")
    return re.findall(r"^ *relay_without\((\w+)", text, re.M)


def gate(root):
    rows = [
        Row("Tests of the commit gate", "{tests} tests, {failed} failed", TESTS, NONE_FAILED),
        Row("System calls that fail: cells of the table, each once and for good",
            f"{{once}}/{CELLS} once, {{persistent}}/{CELLS} for good",
            {"once": r", once: (\d+) runs", "persistent": r", persistently: (\d+) runs"},
            {"once": CELLS, "persistent": CELLS}, "cells[.]"),
        Row("Every call of the scripts failed in turn, in every way that the table names", "{runs} runs",
            {"runs": r": (\d+) runs"}, tests="sweep/calls[.]"),
        Row("Every allocation of the scripts failed in turn", "{runs} runs", {"runs": r": (\d+) runs"},
            tests="sweep/(?:host_)?memory[.]"),
    ]
    rows += [Row(f"Schedules until the missing rule is found: {rule.replace('_', ' ')}", "{schedules}",
                 {"schedules": r"found after (\d+) schedules"}, tests=f"finds_that_{rule}_is_missing")
             for rule in rules(root)]
    return Step(ctest("dev", "-LE", "^(long|hosts|soak|model)$"), tuple(rows), 240)


def schedules(count):
    return Step((f"build/dev/{SIMULATION}/relay_simulation", "--count", str(count), "--seed", str(int(time.time())),
                 "--jobs", str(CORES)),
                (Row("Schedules of the unchanged relay",
                     "{schedules} schedules, {points} scheduling points, {failed} failed",
                     {"schedules": r"^schedules (\d+)", "points": r"scheduling points (\d+)",
                      "failed": r"failed (\d+)"},
                     {"failed": 0, "schedules": count}),), count // 3500)


def models(extent):
    return Step(("python3", "-B", "tests/race/model/check_model.py", extent),
                (Row("Models of one record, searched exhaustively",
                     "{models} configurations, {states} states; {wrong} did not answer as expected",
                     {"models": r"^ok ", "states": r": (\d+) states", "wrong": r"(\d+) configurations did not"},
                     {"wrong": 0}),), 30 if extent == "quick" else 120)


def fuzz(seconds, side_by_side):
    return Step(("python3", "-B", "tests/fuzz/campaign.py", "build/fuzz", str(seconds), str(int(time.time())),
                 "--jobs", str(side_by_side)),
                (Row(f"Fuzz targets, {seconds} seconds each, {side_by_side} side by side, with sanitizers",
                     "{targets} targets, {executions} executions, {corpus} inputs kept, {reports} reports",
                     {"targets": r" no finding$", "executions": r"^all +executions +(\d+)",
                      "corpus": r"^all .* corpus +(\d+)", "reports": REPORTS},
                     {"targets": FUZZ_TARGETS, "reports": 0}),), seconds * -(-FUZZ_TARGETS // side_by_side) + 5)


def sanitized(preset, name, seconds):
    return Step(ctest(preset, "-L", "unit"),
                (Row(f"The relay's tests under {name}", "{tests} tests, {failed} failed, {reports} reports",
                     {**TESTS, "reports": REPORTS}, {"failed": 0, "reports": 0}),), seconds)


def churn():
    return Step(ctest("dev", "-R", "^race.churn_long$", side_by_side=1),
                (Row("Real connections with random ends, one after the other and at once",
                     "{connections} made; all of them told of and gone at the end",
                     {**TESTS, "connections": r"CHURN_CONNECTIONS=(\d+)", "passed": r"\[  PASSED  \] 1 test"},
                     {"failed": 0, "connections": 100000, "passed": 1}),), 120)


def soak():
    return Step(ctest("dev", "-R", "^soak.day$", side_by_side=1),
                (Row("24 hours of ticks in virtual time, connections that come and go",
                     "{ticks} ticks, {endings} connections ended, {packets} packets; no part of a packet left",
                     {**TESTS, "ticks": r"hour 24 +ticks +(\d+)", "endings": r"hour 24 .* endings +(\d+)",
                      "packets": r"hour 24 .* packets +(\d+)", "clean": r"parts left after the stop: 0[+]0[+]0$"},
                     {"failed": 0, "clean": 1}),), 180)


def nemesis():
    return Step(ctest("dev", "-R", "^hosts.nemesis_full$", side_by_side=1),
                (Row("8 hosts on a switch and a nemesis", "{steps} steps, {links} connections, {runs} runs of nodes",
                     {**TESTS, "steps": r'"steps": (\d+)', "links": r'"links": (\d+)', "runs": r'"runs": (\d+)',
                      "held": '"verdict": "held"'}, {"failed": 0, "held": 1}),), 420)


def coverage():
    return Step(("./dev", "coverage"),
                (Row("Coverage of the relay", "lines {lines} %, branches {branches} %",
                     {"lines": r"^lines: ([\d.]+)%", "branches": r"^branches: ([\d.]+)%"}),), 240)


def mutants(count, seconds):
    return Step(("python3", "-B", "tests/mutation/mutants.py", "build/mutants", "--count", str(count), "--seed",
                 str(int(time.time()))),
                (Row("One-token changes of the relay that the tests notice", "{killed} of {mutants}",
                     {"killed": r"^mutants \d+, killed (\d+)", "mutants": r"^mutants (\d+)"}, {"mutants": count}),),
                seconds)


def groups_of(root, quick):
    """Groups of steps, in their order; the steps of a group run side by side. What measures times runs alone."""
    unit = [[sanitized("asan", "address and undefined-behaviour sanitizers", 90)],
            [sanitized("tsan", "the thread sanitizer", 90)]]
    if quick:
        return [[schedules(50000)], [models("quick")], [fuzz(10, CORES)], *unit, [mutants(20, 60)]]
    # The soak has a clock of its own, and the churn none.
    return [[gate(root)], [schedules(1000000)], [models("full")], *unit,
            [fuzz(600, FUZZ_TARGETS), soak(), churn()], [nemesis()], [coverage()], [mutants(300, 840)]]
