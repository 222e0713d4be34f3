#!/usr/bin/env python3
"""Runs everything that proves the relay and writes what this run measured as one table.

Usage: proof.py ROOT OUTPUT [--quick]

ROOT is the tree with its build/ folders, made by "./dev proof". Each step is a command, the figures that its output is
searched for, and how it must end. A step that fails, or whose figure does not appear, fails the proof; nothing in the table
comes from anywhere else. Exit status: 0 when every step passed.
"""

import datetime
import os
import platform
import re
import subprocess
import sys
import time
from dataclasses import dataclass, field
from pathlib import Path

CORES = os.cpu_count()


@dataclass
class Step:
    title: str
    command: list
    figures: str  # the row's text; {name} stands for a figure below
    patterns: dict  # name: expression with one group, added up over all its finds
    folder: str = "."
    ends_with: tuple = (0,)
    environment: dict = field(default_factory=dict)


def ctest(title, preset, *arguments, figures="{passed} tests, {failed} failed", patterns=None, serial=False):
    command = ["ctest", "--preset", preset, "-V", "--no-tests=error", *([] if serial else ["-j", str(CORES)]), *arguments]
    found = {"failed": r"tests passed, (\d+) tests failed", "of": r"tests failed out of (\d+)", **(patterns or {})}
    return Step(title, sanitized(preset, command), figures.replace("{passed}", "{of}"), found)


def sanitized(preset, command):
    """A sanitizer's shadow memory does not fit beside the widest random address layout."""
    return ["setarch", platform.machine(), "-R", *command] if preset.endswith("san") else command


def rules(build):
    for rule in ("hand_over", "unfile", "stalled_queue", "send_time_out", "exchange_counter"):
        yield Step(f"Schedules until the missing rule is found: {rule.replace('_', ' ')}",
                   ["python3", "-B", "tests/race/simulation/expect_finding.py",
                    f"{build}/tests/race/simulation/simulation_without_{rule}", "20000"],
                   "{schedules}", {"schedules": r"found after (\d+) schedules"})


def steps(quick):
    dev = "build/dev"
    schedules, mutants, fuzz_seconds = ("50000", "20", "10") if quick else ("1000000", "300", "60")
    yield ctest("Tests of the commit gate", "dev", "-LE", "^(long|hosts|soak|model)$")
    yield ctest("System calls that fail: cells of the table, each once and for good", "dev", "-R", "cells|matrix",
                figures="{runs} runs, {failed} tests failed", patterns={"runs": r": (\d+) runs"})
    yield ctest("Every call and every allocation of the scripts failed in turn", "dev", "-R", "sweep",
                figures="{runs} runs, {failed} tests failed", patterns={"runs": r": (\d+) runs"})
    yield Step("Schedules of the unchanged relay", [f"{dev}/tests/race/simulation/relay_simulation", "--count", schedules,
                                                    "--seed", str(int(time.time())), "--jobs", str(CORES)],
               "{schedules} schedules, {points} scheduling points, {failed} failed",
               {"schedules": r"schedules (\d+)", "points": r"scheduling points (\d+)", "failed": r"failed (\d+)"})
    yield from rules(dev)
    yield Step("Models of one record, searched exhaustively",
               ["python3", "-B", "tests/race/model/check_model.py", "quick" if quick else "full"],
               "{states} states; {wrong} configurations did not answer as expected",
               {"states": r": (\d+) states", "wrong": r"(\d+) configurations did not"})
    yield Step(f"Fuzz targets, {fuzz_seconds} seconds each, with address and undefined-behaviour sanitizers",
               ["python3", "-B", "tests/fuzz/campaign.py", "build/fuzz", fuzz_seconds],
               "{executions} executions, {corpus} inputs kept", {"executions": r"executions +(\d+)", "corpus": r"corpus +(\d+)"})
    yield ctest("The relay's tests under address and undefined-behaviour sanitizers", "asan", "-L", "unit")
    yield ctest("The relay's tests under the thread sanitizer", "tsan", "-L", "unit")
    if not quick:
        yield ctest("Real connections, 100,000 with random ends", "dev", "-R", "churn_long", serial=True)
        yield ctest("24 hours of ticks with 50 connections that come and go", "dev", "-L", "soak", serial=True)
        yield ctest("8 hosts on a switch and 60 steps of a nemesis", "dev", "-R", "hosts.nemesis_full", serial=True)
    yield Step("Coverage of the relay", ["sh", "-c", "cat build/coverage/summary.txt"],
               "lines {lines} %, branches {branches} %",
               {"lines": r"lines: ([\d.]+)%", "branches": r"branches: ([\d.]+)%"})
    yield Step("One-token changes of the relay that the tests notice",
               ["python3", "-B", "tests/mutation/mutants.py", "build/mutants", "--count", mutants, "--seed",
                str(int(time.time()))],
               "{killed} of {mutants}", {"mutants": r"^mutants (\d+)", "killed": r"killed (\d+)"})


def number(text):
    return float(text) if "." in text else int(text)


def take_figures(step, output):
    """Each figure, or None for one that the output does not show."""
    figures = {}
    for name, pattern in step.patterns.items():
        found = re.findall(pattern, output, re.M)
        figures[name] = sum(map(number, found)) if found else None
    return figures


def perform(step, root):
    print(f"proof: {step.title}", file=sys.stderr, flush=True)
    began = time.monotonic()
    done = subprocess.run(step.command, cwd=root / step.folder, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace")
    figures = take_figures(step, done.stdout)
    seconds = time.monotonic() - began
    is_well = done.returncode in step.ends_with and None not in figures.values()
    if not is_well:
        print(done.stdout[-4000:], file=sys.stderr)
    text = step.figures.format(**{name: "not shown" if value is None else f"{value:,}" for name, value in figures.items()})
    print(f"proof:   {text}; {'ok' if is_well else 'FAILED'}, {seconds:.0f} s", file=sys.stderr, flush=True)
    return text, is_well, seconds


def git(root, *arguments):
    return subprocess.run(("git", *arguments), cwd=root, capture_output=True, text=True).stdout.strip()


def heading(root, quick):
    changed = " with changes" if git(root, "status", "--porcelain") else ""
    return "\n".join((
        "# Proof",
        "",
        f"Written by `./dev proof{' --quick' if quick else ''}`; each figure was measured by the run that wrote this page.",
        "",
        f"- date: {datetime.datetime.now(datetime.timezone.utc):%Y-%m-%d %H:%M} UTC",
        f"- machine: {platform.machine()}, {CORES} cores, Linux {platform.release()}",
        f"- commit: {git(root, 'rev-parse', '--short=12', 'HEAD')}{changed}",
        "",
        "| what | figures of this run | seconds | |",
        "|---|---|---|---|",
        ""))


def main(arguments):
    quick = "--quick" in arguments
    root, output = (Path(argument).resolve() for argument in arguments if not argument.startswith("--"))
    rows, well = [], True
    for step in steps(quick):
        text, is_well, seconds = perform(step, root)
        rows.append(f"| {step.title} | {text} | {seconds:.0f} | {'passed' if is_well else '**failed**'} |")
        well = well and is_well
        output.write_text(heading(root, quick) + "\n".join(rows) + "\n", encoding="utf-8")
    print(output.read_text(encoding="utf-8"))
    return 0 if well else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
