"""Plays the rounds: the contenders of a case take turns, and a round that was disturbed is repeated once."""

import contextlib
import json
import math
import os
import signal
import statistics
import subprocess
import time

import goals
import machine
from results import FAILED, KEPT, REPEATED, Results, Sample

SHOWN_ROUNDS = 3
NOT_HERE = 77  # how the measuring program ends when it cannot have what is asked for

DISTURBED_CORES = 0.15
DISTURBED_SECONDS = 0.05  # the machine counts its time in ticks of 0.01 s
SKELETON_STRAYS = 0.25
SKELETON_ROUNDS = 4  # a median of fewer tells nothing

LONGEST = 300  # seconds of one measurement
START_AND_WARM_UP = 0.6  # seconds, a first guess for the progress line


class Failed(Exception):
    pass


class NotHere(Exception):
    pass


def call(command):
    """The output of a program that is alone in its process group, so that nothing of it stays behind."""
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True, errors="replace", start_new_session=True) as child:
        try:
            output, complaint = child.communicate(timeout=LONGEST)
        except subprocess.TimeoutExpired as late:
            raise Failed(f"no answer within {LONGEST} s") from late
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(child.pid, signal.SIGKILL)
            child.wait()
    return child.returncode, output, complaint


def answer(command):
    """The JSON object that a program prints."""
    code, output, complaint = call(command)
    try:
        told = json.loads(output)
    except ValueError:
        last = (complaint.strip().splitlines() or ["nothing on standard error"])[-1]
        raise Failed(f"exit {code} without an answer: {last}") from None
    why = told.get("error", {}).get("text", f"exit {code}")
    if code == NOT_HERE:
        raise NotHere(why)
    if code != 0:
        raise Failed(why)
    return told


def numbers(told, bars):
    nonsense = [name for name, value in told.items()
                if not isinstance(value, (int, float)) or not math.isfinite(value)]
    if nonsense:
        raise Failed(f"no numbers: {', '.join(nonsense)}")
    figures = {name: float(value) for name, value in told.items()}
    missing = [bar.figure for bar in bars if bar.figure not in figures]
    if missing:
        raise Failed(f"the answer lacks {', '.join(missing)}")
    return figures


TO_NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


class Programs:
    """The two programs that measure."""

    def __init__(self, bench, micro):
        self.bench, self.micro = bench, micro

    def built(self):
        return answer([self.bench, "list"])["contenders"]

    def measure(self, row, contender):
        """The figures of one measurement."""
        bars = row.bars if contender == goals.JUDGED else ()
        if row.case.subject == goals.MICRO.case.subject:
            return numbers(self.single_costs(), bars)
        return numbers(self.told(row, contender, row.seconds), bars)

    def told(self, row, contender, seconds, under=()):
        """What one run of the program answers; under: a command that runs it."""
        duration = () if seconds is None else ("--seconds", f"{seconds:g}")
        return answer([*under, self.bench, row.case.subject, "--contender", contender, *row.case.arguments(),
                       *duration])["figures"]

    def single_costs(self):
        if not os.path.exists(self.micro):
            raise NotHere("built without the library that measures single costs")
        told = answer([self.micro, "--benchmark_format=json", "--benchmark_min_time=0.1"])
        return {one["name"] + "_ns": one["cpu_time"] * TO_NANOSECONDS[one["time_unit"]] for one in told["benchmarks"]}


class Suite:
    def __init__(self, programs, rows, rounds, progress, shown_rounds=SHOWN_ROUNDS):
        self.programs, self.rows, self.rounds, self.progress = programs, rows, rounds, progress
        self.shown_rounds = shown_rounds
        self.results = Results()
        self.not_built, self.left_out = set(), {}  # contenders, and why a contender has no part in a case
        self.disturbed = self.repeated = self.stays_disturbed = 0
        self.durations = {}
        self.built = set(programs.built())
        self.most_repeats = max(3, sum(map(self.rounds_of, rows)) // 4)

    def rounds_of(self, row):
        return self.rounds if row.rounds is None else min(row.rounds, self.rounds)

    def takes_part(self, row, contender):
        if contender not in self.built:
            self.not_built.add(contender)
            return False
        return (row.case, contender) not in self.left_out and not self.results.error(row.case, contender)

    def contenders(self, row, number):
        shown = row.shown if number <= self.shown_rounds else ()
        return [name for name in (*row.contenders, *shown) if self.takes_part(row, name)]

    def play(self):
        turns = [(number, row) for number in range(1, self.rounds + 1) for row in self.rows
                 if number <= self.rounds_of(row)]
        for position, (number, row) in enumerate(turns):
            rest = turns[position:]
            self.progress(row, number, sum(len(self.contenders(row, number)) for number, row in rest),
                          sum(self.duration(row, number) for number, row in rest))
            self.play_round(row, number)

    def duration(self, row, number):
        """About how long a round takes: as long as the last of the same kind."""
        count = len(self.contenders(row, number))
        return count * self.durations.get(row.case, (row.seconds or 1) + START_AND_WARM_UP)

    def play_round(self, row, number):
        contenders = self.contenders(row, number)
        samples, is_disturbed = self.take(row, contenders, number, 1)
        self.disturbed += is_disturbed
        again = []
        if is_disturbed and self.repeated < self.most_repeats:
            for sample in samples:
                sample.state = REPEATED if sample.state == KEPT else sample.state
            self.repeated += 1
            failed = {sample.contender for sample in samples if sample.state == FAILED}
            again, is_disturbed = self.take(row, [name for name in contenders if name not in failed], number, 2)
        self.stays_disturbed += is_disturbed
        self.results.samples += samples + again

    def take(self, row, contenders, number, attempt):
        """One measurement of each contender, and whether the round was disturbed."""
        began, others = time.monotonic(), machine.others_seconds()
        samples = [sample for name in contenders for sample in self.one(row, name, number, attempt)]
        lasted = time.monotonic() - began
        others = machine.others_seconds() - others
        if samples:
            self.durations[row.case] = lasted / len(samples)
        for sample in samples:
            sample.other_load = max(0.0, others / lasted)
        is_loaded = others > max(DISTURBED_SECONDS, DISTURBED_CORES * lasted)
        return samples, bool(samples) and (is_loaded or self.strays(row, samples))

    def one(self, row, contender, number, attempt):
        sample, began = Sample(row.case, contender, number, attempt), time.monotonic()
        try:
            sample.figures = self.programs.measure(row, contender)
        except NotHere as reason:
            self.left_out[row.case, contender] = str(reason)
            return []
        except Failed as failure:
            sample.state, sample.error = FAILED, str(failure)
        sample.lasted = time.monotonic() - began
        return [sample]

    def strays(self, row, samples):
        """Whether the skeleton is far from what it did in the rounds before."""
        figure = next((bar.figure for bar in row.bars if bar.against == goals.LIMIT), None)
        before = self.results.rounds(row.case, goals.LIMIT, figure).values()
        now = [sample.figures[figure] for sample in samples
               if sample.contender == goals.LIMIT and figure in sample.figures]
        if not now or len(before) < SKELETON_ROUNDS:
            return False
        usual = statistics.median(before)
        return abs(now[0] - usual) > SKELETON_STRAYS * usual

    def failures(self):
        return [sample for sample in self.results.samples if sample.state == FAILED]
