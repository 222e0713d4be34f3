#!/usr/bin/env python3
"""Compares what "zolt-center bench" measures with what this suite measures of the same relay.

A round is suite, command, suite, so that the suite is compared with itself as well: what its two figures of a round
differ by is the machine's noise. The command runs whole Centers, which keep account of every packet. Exit status: 0
when nothing differs, 1 when something does or failed, 77 when one of the programs was not built.
"""

import argparse
import contextlib
import math
import os
import socket
import statistics
import subprocess
import sys
import time
from pathlib import Path
from typing import Callable, NamedTuple

import machine
import results
import suite

ROOT = Path(__file__).resolve().parents[2]
ROUNDS, SECONDS, WARM_UP = 25, 0.3, 0.2
TOLERANCE = 0.05  # the noise of a round may be more
KIB = 1024


class Row(NamedTuple):
    title: str
    subject: tuple  # of the suite, with the options of its own
    figure: str  # of the suite
    command: tuple  # behind "zolt-center bench"
    figure_of: Callable  # the same, in what the command tells
    size: int
    cores: str
    connections: int = 1


def p50(told):
    return told["latency_us"]["p50"] * 1e3


def rate(told):
    return told["packets_per_second"]


def rows():
    for size, name in ((0, "header only"), (64, "64 B"), (64 * KIB, "64 KiB")):
        yield Row(f"round trip, {name}", ("roundtrip", "--answer", "center"), "p50_ns", ("tcp",), p50, size, "one")
    for size, name, connections in ((64, "64 B", 1), (64, "64 B", 16), (64 * KIB, "64 KiB", 1)):
        yield Row(f"one way, {name}, {connections} connection{'s' * (connections != 1)}", ("oneway",), "rate",
                  ("tcp", "--one-way"), rate, size, "two", connections)
    yield Row("UDP round trip, 64 B", ("udp", "--way", "round", "--answer", "center"), "p50_ns", ("udp",), p50, 64,
              "one")


class Programs:
    def __init__(self, chosen):
        self.bench, self.center, self.seconds = str(chosen.bench), str(chosen.center), f"{chosen.seconds:g}"

    def missing(self):
        return [program for program in (self.bench, self.center) if not os.access(program, os.X_OK)]

    def suite(self, row):
        size = ("--size", str(row.size), "--connections", str(row.connections))
        told = suite.answer([self.bench, *row.subject, "--contender", "relay", "--cores", row.cores, *size,
                             "--seconds", self.seconds, "--warm-up", str(WARM_UP)])
        return told["figures"][row.figure]

    def command(self, row):
        near, *others = sorted(os.sched_getaffinity(0))
        with contextlib.ExitStack() as ends:
            peers = ("--peers", str(row.connections))
            if row.cores == "two":
                port = ends.enter_context(self.far_center(others[0]))
                peers = [part for number in range(row.connections)
                         for part in ("--to", f"127.0.0.{2 + number}:{port}")]
            told = suite.answer([*bound_to(near), self.center, "bench", *row.command, *peers, "--json",
                                 "--size", str(row.size), "--duration", self.seconds, "--warm-up", str(WARM_UP),
                                 "--config", os.devnull])
        return row.figure_of(told)

    @contextlib.contextmanager
    def far_center(self, core):
        """The port of a Center that runs on a core of its own."""
        with socket.create_server(("127.0.0.1", 0)) as free:
            port = free.getsockname()[1]
        command = [*bound_to(core), self.center, "run", "--listen", str(port), "--echo", "--quiet", "--admin", "none",
                   "--config", os.devnull]
        with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL) as center:
            try:
                if not center.stdout.readline().startswith(b"ready"):
                    raise suite.Failed("the far Center does not start")
                yield port
            finally:
                center.kill()


def bound_to(core):
    return "taskset", "--cpu-list", str(core)


class Comparison(NamedTuple):
    suite: results.Spread
    command: results.Spread
    ratio: results.Spread  # command to suite
    noise: results.Spread  # the suite's second figure of a round to its first
    disturbed: int

    def verdict(self, tolerance):
        """Of the whole interval, so that neither verdict comes from a median that a few more rounds would move."""
        if 1 - tolerance <= self.ratio.least and self.ratio.most <= 1 + tolerance:
            return "agrees"
        is_outside = self.ratio.most < 1 - tolerance or self.ratio.least > 1 + tolerance
        return "DIFFERS" if is_outside else "cannot be told"


def with_interval(values):
    """The median, and between which two of the values the median of endless rounds lies: of 100 such statements at least
    95 are true, however the values are spread. With fewer than six values it is all of them.
    """
    values = sorted(values)
    count, cut, left_out = len(values), 0, 0.0
    while cut < count // 2 and (left_out := left_out + 2 * math.comb(count, cut) / 2 ** count) <= 0.05:
        cut += 1
    cut = max(cut, 1)
    return results.Spread(statistics.median(values), values[cut - 1], values[count - cut], count)


def compare(programs, row, rounds):
    taken, disturbed = [], 0
    for _ in range(rounds):
        began, others = time.monotonic(), machine.others_seconds()
        taken.append((programs.suite(row), programs.command(row), programs.suite(row)))
        disturbed += machine.others_seconds() - others > suite.DISTURBED_CORES * (time.monotonic() - began)
    return Comparison(results.spread(statistics.mean((first, second)) for first, _, second in taken),
                      results.spread(command for _, command, _ in taken),
                      with_interval(command / statistics.mean((first, second)) for first, command, second in taken),
                      with_interval(second / first for first, _, second in taken), disturbed)


def number(value, figure):
    return f"{value / 1e3:.1f} us" if figure.endswith("_ns") else f"{value:,.0f}/s"


def between(spread):
    return f"{spread.median:.3f} ({spread.least:.3f} to {spread.most:.3f})"


def line(row, found, tolerance):
    disturbed = f", {found.disturbed} rounds disturbed" if found.disturbed else ""
    return (f"| {row.title} | {number(found.suite.median, row.figure)} | {number(found.command.median, row.figure)} | "
            f"{between(found.ratio)} | {between(found.noise)} | {found.verdict(tolerance)}{disturbed} |")


def options(arguments):
    built = ROOT / "build/release-bench"
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0], allow_abbrev=False)
    parser.add_argument("--rounds", type=int, default=ROUNDS, metavar="N", help=f"by default {ROUNDS}")
    parser.add_argument("--seconds", type=float, default=SECONDS, help=f"of one measurement, by default {SECONDS}")
    parser.add_argument("--only", metavar="TEXT", default="", help="the rows whose title has that text")
    parser.add_argument("--tolerance", type=float, default=TOLERANCE, metavar="SHARE",
                        help=f"how far from 1 the ratio may lie, by default {TOLERANCE}")
    parser.add_argument("--bench", type=Path, metavar="FILE", default=built / "bench/inet_relay_bench")
    parser.add_argument("--center", type=Path, metavar="FILE", default=built / "Reference_Center/zolt-center")
    parser.add_argument("--report", type=Path, metavar="FILE", help="write the table into that page too")
    return parser.parse_args(arguments)


ABOUT = """# What two benchmarks of the same relay say

Written by `bench/runner/agreement.py`, which measured each figure below: the suite, the command `zolt-center bench`, and
the suite again, in turns. Both send the same packets between two processes with the same placement. The command's
processes are whole Centers: they keep account of every packet, by peer and as a whole, time it from the hand-over until
it is written, and look at each of the relay's traces. That time is in the command's figures and not in the suite's.

"""


class Page:
    """What was told, line by line, at once on the terminal and in the end in a file."""

    def __init__(self):
        self.text = ""

    def tell(self, line):
        print(line, flush=True)
        self.text += line + "\n"


def main(arguments):
    chosen = options(arguments)
    programs = Programs(chosen)
    if programs.missing():
        print(f"agreement: not built: {', '.join(programs.missing())}", file=sys.stderr)
        return 77
    machine.enter_network(__file__, arguments)
    page = Page()
    page.tell(f"{time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime())}; {machine.describe()}; commit "
              f"{machine.commit(ROOT)}; network: {machine.prepare_network()}; {chosen.rounds} rounds of "
              f"{chosen.seconds:g} s. A ratio is the median of the rounds' ratios, with the interval in which it lies, by "
              f"95 to 5. Agrees: all of the interval is within {chosen.tolerance:.0%} of 1. DIFFERS: nothing of it.\n\n"
              "| case | suite | command | command to suite | suite to itself | verdict |\n|---|---|---|---|---|---|")
    agreed = True
    for row in rows():
        if chosen.only not in row.title:
            continue
        try:
            found = compare(programs, row, chosen.rounds)
        except (suite.Failed, suite.NotHere) as reason:
            page.tell(f"| {row.title} | | | | | failed: {reason} |")
            agreed = False
            continue
        page.tell(line(row, found, chosen.tolerance))
        agreed = agreed and found.verdict(chosen.tolerance) != "DIFFERS"
    if chosen.report:
        chosen.report.write_text(ABOUT + page.text, encoding="utf-8")
    return 0 if agreed else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
