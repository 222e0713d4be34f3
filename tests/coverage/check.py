#!/usr/bin/env python3
"""Holds the relay to its coverage: each line but for the named ones is reached, and nearly each condition was both true
and false.

Usage: check.py ROOT EXPORT. EXPORT is what "llvm-cov export" says of Center/. Prints the figures, which branches were not
taken, and what is wrong.
"""

import itertools
import json
import re
import sys
from collections import Counter
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "ledger"))
import tree  # noqa: E402

NAMED = "tests/coverage/uncovered.txt"
MEASURED = "Center"
LEAST_BRANCHES = 95  # per cent
WORD = re.compile(r"\w")


def lines_of(code, segments):
    """Whether each line of a file that has code was reached. A segment holds up to the next one."""
    reached = {}
    ends = [segment[:2] for segment in segments[1:]] + [[len(code) + 1, 1]]
    for (line, column, count, is_counted, _, is_gap), end in zip(segments, ends):
        if not is_counted or is_gap:
            continue
        for number in range(line, min(end[0], len(code)) + 1):
            text = code[number - 1][column - 1 if number == line else 0:end[1] - 1 if number == end[0] else None]
            if WORD.search(text):
                reached[number] = reached.get(number, False) or count > 0
    return reached


def outcomes_of(branches):
    """How often each condition, by its place, was true and false. Of a template every instance counts."""
    outcomes = {}
    for line, column, end_line, end_column, true_count, false_count, *_ in branches:
        counts = outcomes.setdefault((line, column, end_line, end_column), [0, 0])
        counts[0] += true_count
        counts[1] += false_count
    return outcomes


class Coverage:
    """What an export says of the measured sources, beside their text."""

    def __init__(self, root, export):
        self.reached = []  # of each line
        self.taken = []  # of each outcome
        self.lines = []  # not reached: (path, number, text)
        self.branches = []  # not taken: "path:line: text: was never true"
        self.paths = set()
        for file in (file for unit in export["data"] for file in unit["files"]):
            path = str(Path(file["filename"]).relative_to(root))
            self.paths.add(path)
            self.add(path, tree.without_comments(tree.read(root, path), keep_strings=True).split("\n"), file)

    def add(self, path, code, file):
        lines = lines_of(code, file["segments"])
        self.reached += lines.values()
        self.lines += [(path, number, code[number - 1].strip()) for number in sorted(lines) if not lines[number]]
        for (line, column, end_line, end_column), counts in sorted(outcomes_of(file["branches"]).items()):
            self.taken += [count > 0 for count in counts]
            text = code[line - 1][column - 1:end_column - 1 if end_line == line else None]
            self.branches += [f"{path}:{line}: {text}: was never {outcome}"
                              for outcome, count in zip(("true", "false"), counts) if count == 0]


def named_lines(text):
    """(path, text) of each named line, one for each time it stands there; and what is wrong with the list."""
    named, wrong = Counter(), []
    for number, row in enumerate(text.splitlines(), 1):
        if not row.strip() or row.startswith("#"):
            continue
        path, _, rest = row.partition(" | ")
        line, _, reason = rest.rpartition(" | ")
        if line.strip() and WORD.search(reason):
            named[path.strip(), line.strip()] += 1
        else:
            wrong.append(f"{NAMED}:{number}: needs a file, the line's text and a reason")
    return named, wrong


def share(flags):
    """The share in per cent, never rounded up."""
    return sum(flags) * 1000 // len(flags) / 10 if flags else 0.0


def figures(coverage):
    for what, flags in (("lines", coverage.reached), ("branches", coverage.taken)):
        yield f"{what}: {share(flags)}% ({sum(flags)} out of {len(flags)})"


def findings(root, coverage):
    sources = (str(path.relative_to(root)) for path in (Path(root) / MEASURED).rglob("*.cpp"))
    yield from (f"{path}: not measured" for path in sorted(set(sources) - coverage.paths))
    named, wrong = named_lines(tree.read(root, NAMED))
    yield from wrong
    for path, number, text in coverage.lines:
        if named[path, text] > 0:
            named[path, text] -= 1
        else:
            yield f"{path}:{number}: no test reaches: {text}"
    yield from (f"{NAMED}: reached, or not there: {path}: {text}" for path, text in named.elements())
    if sum(coverage.taken) * 100 < LEAST_BRANCHES * len(coverage.taken) or not coverage.taken:
        yield f"branches: fewer than {LEAST_BRANCHES}%"


if __name__ == "__main__":
    ROOT = Path(sys.argv[1]).resolve()
    MEASUREMENT = Coverage(ROOT, json.loads(Path(sys.argv[2]).read_text(encoding="utf-8")))
    print("\n".join(itertools.chain(figures(MEASUREMENT), MEASUREMENT.branches)))
    tree.report("coverage", list(findings(ROOT, MEASUREMENT)))
