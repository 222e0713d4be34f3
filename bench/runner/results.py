"""What was measured: single samples, their medians, their ratios, and the file that keeps every one of them."""

import csv
import statistics
from dataclasses import dataclass, field
from typing import Dict, List, NamedTuple, Tuple

KEPT, REPEATED, FAILED = "kept", "repeated", "failed"

COLUMNS = ("round", "attempt", "state", "other_load", "lasted", "contender", "subject", "error")
PARAMETER_PREFIX = "--"


class Case(NamedTuple):
    """A subject with its parameters as (option, text), sorted."""

    subject: str
    parameters: Tuple[Tuple[str, str], ...]

    def arguments(self):
        return [part for name, value in self.parameters for part in (f"--{name}", value)]

    def value(self, name):
        return dict(self.parameters).get(name)

    def changed(self, parameters):
        return case(self.subject, {**dict(self.parameters), **parameters})


def case(subject, parameters):
    return Case(subject, tuple(sorted((name, str(value)) for name, value in parameters.items())))


@dataclass
class Sample:
    case: Case
    contender: str
    round: int
    attempt: int
    figures: Dict[str, float] = field(default_factory=dict)
    error: str = ""
    state: str = KEPT
    other_load: float = 0.0  # cores that others kept busy
    lasted: float = 0.0  # seconds, with everything around what was measured


class Spread(NamedTuple):
    median: float
    least: float
    most: float
    rounds: int


def spread(values):
    """None for no values at all."""
    values = list(values)
    return Spread(statistics.median(values), min(values), max(values), len(values)) if values else None


class Results:
    def __init__(self, samples=()):
        self.samples: List[Sample] = list(samples)

    def rounds(self, which, contender, figure):
        """Each kept round's value."""
        return {sample.round: sample.figures[figure] for sample in self.samples
                if sample.state == KEPT and (sample.case, sample.contender) == (which, contender)
                and figure in sample.figures}

    def spread(self, which, contender, figure):
        return spread(self.rounds(which, contender, figure).values())

    def compared(self, mine, other, compare):
        """The spread of what compare makes of two figures of the same round, each a (case, contender, figure)."""
        ours, theirs = self.rounds(*mine), self.rounds(*other)
        return spread(compare(value, theirs[number]) for number, value in ours.items() if number in theirs)

    def ratio(self, mine, other):
        return self.compared(mine, other, lambda value, base: value / base)

    def error(self, which, contender):
        """The first failure's message, or nothing."""
        return next((sample.error for sample in self.samples if sample.state == FAILED
                     and (sample.case, sample.contender) == (which, contender)), "")

    def cases(self, subject):
        """The subject's cases in the order in which they were measured first."""
        return list(dict.fromkeys(sample.case for sample in self.samples if sample.case.subject == subject))

    def contenders(self, which=None):
        return list(dict.fromkeys(sample.contender for sample in self.samples if which in (None, sample.case)))


def names(lists):
    return sorted({name for items in lists for name in items})


def write_csv(results, file):
    parameters = names([name for name, _ in sample.case.parameters] for sample in results.samples)
    figures = names(sample.figures for sample in results.samples)
    writer = csv.writer(file, lineterminator="\n")
    writer.writerow([*COLUMNS, *(PARAMETER_PREFIX + name for name in parameters), *figures])
    for sample in results.samples:
        fixed = (sample.round, sample.attempt, sample.state, f"{sample.other_load:.3f}", f"{sample.lasted:.3f}",
                 sample.contender, sample.case.subject, sample.error)
        writer.writerow([*fixed, *(sample.case.value(name) or "" for name in parameters),
                         *(f"{sample.figures[name]:.8g}" if name in sample.figures else "" for name in figures)])


def read_csv(file):
    """The samples that write_csv wrote."""
    samples = []
    for row in csv.DictReader(file):
        parameters = {name[len(PARAMETER_PREFIX):]: value for name, value in row.items()
                      if name.startswith(PARAMETER_PREFIX) and value}
        figures = {name: float(value) for name, value in row.items()
                   if name not in COLUMNS and not name.startswith(PARAMETER_PREFIX) and value}
        samples.append(Sample(case(row["subject"], parameters), row["contender"], int(row["round"]),
                              int(row["attempt"]), figures, row["error"], row["state"], float(row["other_load"]),
                              float(row["lasted"])))
    return Results(samples)
