"""What a step of the proof is, how its command is run, and what its output says."""

import os
import re
import signal
import subprocess
import threading
import time
from dataclasses import dataclass, field


@dataclass(frozen=True)
class Row:
    """One row of the table. {name} in its text stands for a figure below."""
    title: str
    text: str
    # name: expression. With a group: what it matched, added up over all its finds; without: how often it was found.
    figures: dict
    required: dict = field(default_factory=dict)  # name: the value that the figure must have
    tests: str = ""  # only the output of ctest's tests whose name contains this; each must have passed


@dataclass(frozen=True)
class Step:
    command: tuple
    rows: tuple
    seconds: int  # what it takes about; for telling what remains


@dataclass(frozen=True)
class Verdict:
    title: str
    text: str
    is_well: bool


class Runner:
    """Runs commands in the root of the tree, each in a session of its own, so that all of it can be ended."""

    def __init__(self, root):
        self.root, self.running, self.guard, self.is_open = root, set(), threading.Lock(), True

    def run(self, command):
        """(status, all output, seconds)."""
        began = time.monotonic()
        with self.guard:
            if not self.is_open:
                return None, "", 0
            try:
                process = subprocess.Popen(command, cwd=self.root, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                           stderr=subprocess.STDOUT, text=True, errors="replace",
                                           start_new_session=True)
            except OSError as error:
                return None, str(error), 0
            self.running.add(process)
        output = process.communicate()[0]
        with self.guard:
            self.running.discard(process)
        return process.returncode, output, time.monotonic() - began

    def interrupt(self, patience):
        """Asks all that runs to end, and ends what has not after so many seconds."""
        with self.guard:
            self.is_open, running = False, list(self.running)
        deadline = time.monotonic() + patience
        for number in (signal.SIGINT, signal.SIGKILL):
            for process in running:
                if process.poll() is None:
                    os.killpg(process.pid, number)
            for process in running:
                try:
                    process.wait(max(0.1, deadline - time.monotonic()))
                except subprocess.TimeoutExpired:
                    pass


def output_of_tests(output, part):
    """(what the tests printed whose name contains the part, whether there are some and all passed), of ctest -V."""
    numbers = set(re.findall(rf"^ *Start +(\d+): \S*(?:{part})", output, re.M))
    passed = set(re.findall(r"^ *\d+/\d+ Test +#(\d+): .*? Passed ", output, re.M))
    lines = (line for line in output.splitlines() if line.partition(":")[0] in numbers)
    return "\n".join(lines), bool(numbers) and numbers <= passed


def take_figure(pattern, output):
    """None for one that the output does not show."""
    found = re.findall(pattern, output, re.M)
    if not re.compile(pattern).groups:
        return len(found)
    return sum(float(one) if "." in one else int(one) for one in found) if found else None


def judge_row(row, is_well, output):
    if row.tests:
        output, is_well = output_of_tests(output, row.tests)
    figures = {name: take_figure(pattern, output) for name, pattern in row.figures.items()}
    shown = {name: "not shown" if value is None else f"{value:,}" for name, value in figures.items()}
    is_well = (is_well and None not in figures.values() and
               all(figures[name] == value for name, value in row.required.items()))
    return Verdict(row.title, row.text.format(**shown), is_well)


def judge(step, code, output):
    return [judge_row(row, code == 0, output) for row in step.rows]
