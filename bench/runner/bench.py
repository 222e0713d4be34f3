#!/usr/bin/env python3
"""Measures the relay against its limit and its peers, and writes a page, every single figure, and pictures.

"./dev bench" builds what this runs. Exit status: 0 when everything was measured, whatever the verdicts; 1 when a
contender failed; 130 after an interruption, with what was measured until then.
"""

import argparse
import signal
import sys
import time
from dataclasses import dataclass
from pathlib import Path

import compare
import goals
import machine
import pictures
import report
import results
import sampling
import suite

ROOT = Path(__file__).resolve().parents[2]
QUICK_ROUNDS, QUICK_SHOWN_ROUNDS = 3, 1


def say(text):
    print(f"bench: {text}", file=sys.stderr, flush=True)


def options(arguments):
    subjects = list(dict.fromkeys(row.case.subject for row in goals.ROWS))
    parser = argparse.ArgumentParser(prog="./dev bench", description=__doc__.splitlines()[0], allow_abbrev=False)
    parser.add_argument("--quick", action="store_true", help="about 2 minutes, with fewer and shorter rounds")
    parser.add_argument("--only", action="append", choices=subjects, metavar="SUBJECT",
                        help=f"measure this alone, may be given more than once: {', '.join(subjects)}")
    parser.add_argument("--rounds", type=positive, metavar="N",
                        help=f"by default {goals.ENOUGH_ROUNDS}, {QUICK_ROUNDS} with --quick")
    parser.add_argument("--baseline", type=Path, metavar="FILE.csv", help="tell what changed since that run")
    parser.add_argument("--output", type=Path, metavar="DIR", help="by default docs, and build/bench with --only")
    parser.add_argument("--programs", type=Path, metavar="DIR", default=ROOT / "build/release-bench/bench",
                        help="where inet_relay_bench and inet_relay_micro are")
    return parser.parse_args(arguments)


def positive(text):
    if not text.isdigit() or int(text) == 0:
        raise argparse.ArgumentTypeError("not a positive number")
    return int(text)


@dataclass
class Run:
    """What the page's head says of a run."""

    command: str
    commit: str
    network: str
    machine: str
    loads: list
    left_out: list  # titles of rows that take too long for a quick run
    interrupted: bool = False

    def __post_init__(self):
        self.began, self.started = report.now(), time.monotonic()

    def minutes(self):
        return (time.monotonic() - self.started) / 60


def command_line(chosen):
    """As typed, without the folders of this machine."""
    parts = ["./dev bench", *(["--quick"] if chosen.quick else []), *(f"--only {name}" for name in chosen.only or ())]
    parts += [f"--rounds {chosen.rounds}"] if chosen.rounds else []
    parts += [f"--baseline {chosen.baseline.name}"] if chosen.baseline else []
    return " ".join(parts)


def asked_for(chosen):
    return [row for row in goals.ROWS if not chosen.only or row.case.subject in chosen.only]


def rows(chosen):
    wanted = asked_for(chosen)
    return [goals.quick_row(row) for row in wanted if row.quick is not None] if chosen.quick else wanted


def progress(row, number, remaining, seconds):
    say(f"round {number}, {row.title}; {remaining} measurements remain, about {seconds / 60:.1f} minutes")


def read(path):
    with open(path, encoding="utf-8", newline="") as file:
        return results.read_csv(file)


def take_profiles(programs, played):
    """For each row with a goal that was not met."""
    profiles = {}
    for row, _ in report.missed(played.results, played.rows):
        if row.case.subject in ("memory", "micro"):
            profiles[row.case] = "What is measured here is no time, or has a figure for each of its parts."
            continue
        say(f"profile of {row.title}")
        try:
            profiles[row.case] = [sampling.take(programs, row, name) for name in goals.BOTH]
        except (sampling.NotSampled, suite.Failed, suite.NotHere) as reason:
            profiles[row.case] = f"No profile: {reason}."
    return profiles


def write(folder, run, played, baseline, profiles):
    folder.mkdir(parents=True, exist_ok=True)
    with open(folder / "benchmarks.csv", "w", encoding="utf-8", newline="") as file:
        results.write_csv(played.results, file)
    drawn = pictures.draw(played.results, folder / "pictures")
    if not drawn:
        say("no pictures: python3-matplotlib is not installed for this Python")
    changes = ()
    if baseline is not None:
        name, before = baseline
        changes = list(compare.section(before, played.results, {row.case: row.title for row in played.rows}, name))
        print("\n".join(changes))
    (folder / "benchmarks.md").write_text(report.page(run, played, drawn, changes, profiles), encoding="utf-8")
    say(f"wrote {folder / 'benchmarks.md'}, benchmarks.csv and {len(drawn)} pictures")


def main(arguments):
    chosen = options(arguments)
    baseline = (chosen.baseline.name, read(chosen.baseline)) if chosen.baseline else None
    machine.enter_network(__file__, arguments)
    run = Run(command_line(chosen), machine.commit(ROOT), machine.prepare_network(), machine.describe(),
              [machine.load()], [row.title for row in asked_for(chosen) if chosen.quick and row.quick is None])
    say(f"network: {run.network}")
    programs = suite.Programs(str(chosen.programs / "inet_relay_bench"), str(chosen.programs / "inet_relay_micro"))
    rounds = chosen.rounds or (QUICK_ROUNDS if chosen.quick else goals.ENOUGH_ROUNDS)
    try:
        shown_rounds = QUICK_SHOWN_ROUNDS if chosen.quick else suite.SHOWN_ROUNDS
        played = suite.Suite(programs, rows(chosen), rounds, progress, shown_rounds)
    except (OSError, suite.Failed) as failure:
        say(f"{programs.bench} cannot be used: {failure}")
        return 1
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    try:
        played.play()
    except KeyboardInterrupt:
        run.interrupted = True
        say("interrupted")
    profiles = {} if run.interrupted or chosen.quick else take_profiles(programs, played)
    for asked_to_end in (signal.SIGINT, signal.SIGTERM):
        signal.signal(asked_to_end, signal.SIG_IGN)  # the writing is short and shall be whole
    run.loads.append(machine.load())
    write(chosen.output or ROOT / ("build/bench" if chosen.only else "docs"), run, played, baseline, profiles)
    for sample in played.failures():
        say(f"failed: {sample.case.subject} {' '.join(sample.case.arguments())}, {sample.contender}: {sample.error}")
    if run.interrupted:
        return 130
    return 1 if played.failures() else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
