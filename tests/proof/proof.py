#!/usr/bin/env python3
"""Runs everything that proves the relay and writes what this run measured as one table.

Usage: proof.py ROOT OUTPUT [--quick]

ROOT is the tree with its build/ folders, made by "./dev proof". Each step is one command, and the rows that its output
is searched for. A row fails when its command fails, when one of its figures does not appear, or when one is not what
it has to be; nothing in the table comes from anywhere else. A step that fails does not stop the others. Progress goes
to standard error, the table to OUTPUT and to standard output. Exit status: 0 when every row passed.
"""

import contextlib
import datetime
import platform
import re
import signal
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from running import Runner, judge
from steps import CORES, groups_of

PATIENCE = 20  # seconds that an interrupted command has for cleaning up


def git(root, *arguments):
    """What git answers of the tree; nothing when it is not a clone, or there is no git."""
    with contextlib.suppress(FileNotFoundError):
        return subprocess.run(("git", *arguments), cwd=root, capture_output=True, text=True).stdout.strip()
    return ""


def heading(root, quick, seconds, ending):
    # The page itself is what the run writes.
    changed = " with changes" if git(root, "status", "--porcelain", "--", ".", ":!docs/proof.md") else ""
    return "\n".join((
        "# Proof",
        "",
        f"Written by `./dev proof{' --quick' if quick else ''}`; each figure was measured by the run that wrote this "
        "page.",
        "",
        f"- date: {datetime.datetime.now(datetime.timezone.utc):%Y-%m-%d %H:%M} UTC",
        f"- machine: {platform.machine()}, {CORES} cores, Linux {platform.release()}",
        f"- commit: {git(root, 'rev-parse', '--short=12', 'HEAD') or 'unknown'}{changed}",
        f"- the whole run: {seconds // 60:.0f} min {seconds % 60:.0f} s{ending}",
        "",
        "| what | figures of this run | seconds | |",
        "|---|---|---|---|",
        ""))


def table_row(verdict, seconds):
    return f"| {verdict.title} | {verdict.text} | {seconds:.0f} | {'passed' if verdict.is_well else '**failed**'} |"


def say(text):
    print(f"proof: {text}", file=sys.stderr, flush=True)


class Proof:
    """The groups of steps, one after the other; the steps of a group run side by side."""

    def __init__(self, root, groups):
        self.root, self.groups, self.runner = root, groups, Runner(root)
        self.rows, self.is_well, self.ending = [], True, ", not finished"
        self.began = time.monotonic()

    @property
    def seconds(self):
        return time.monotonic() - self.began

    def keep(self, step, output):
        """For whoever wants to see more than the figures: what a step printed, under build/proof/."""
        folder = self.root / "build" / "proof"
        folder.mkdir(parents=True, exist_ok=True)
        name = re.sub(r"[^a-z0-9]+", "_", step.rows[0].title.lower())[:60]
        (folder / f"{name}.log").write_text(output, encoding="utf-8")

    def perform(self, step):
        code, output, seconds = self.runner.run(step.command)
        self.keep(step, output)
        verdicts = judge(step, code, output)
        if not all(verdict.is_well for verdict in verdicts):
            say(f"failed: {' '.join(step.command)} (status {code})")
            print(output[-4000:], file=sys.stderr, flush=True)
        return [(verdict, seconds) for verdict in verdicts]

    def perform_group(self, group):
        # An interruption may come before the first command runs; leaving the pool waits for all of them.
        pool = ThreadPoolExecutor(len(group))
        try:
            running = [pool.submit(self.perform, step) for step in group]
            return [finding for future in running for finding in future.result()]
        except KeyboardInterrupt:
            self.runner.interrupt(PATIENCE)
            raise
        finally:
            pool.shutdown()

    def run(self, show):
        count, done = sum(map(len, self.groups)), 0
        for number, group in enumerate(self.groups):
            remains = sum(max(step.seconds for step in later) for later in self.groups[number:])
            for step in group:
                done += 1
                say(f"step {done} of {count}, about {max(1, round(remains / 60))} min remain: {step.rows[0].title}")
            found = self.perform_group(group)
            self.rows += [table_row(*finding) for finding in found]
            self.is_well = self.is_well and all(verdict.is_well for verdict, _ in found)
            show()
        self.ending = ""


def main(arguments):
    quick = "--quick" in arguments
    root, output = (Path(argument).resolve() for argument in arguments if not argument.startswith("--"))
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    proof = Proof(root, groups_of(root, quick))

    def show():
        text = heading(root, quick, proof.seconds, proof.ending) + "".join(f"{row}\n" for row in proof.rows)
        output.write_text(text, encoding="utf-8")
        return text

    try:
        proof.run(show)
    except KeyboardInterrupt:
        proof.ending, proof.is_well = ", interrupted", False
    print(show())
    return 0 if proof.is_well else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
