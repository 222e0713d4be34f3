"""Instructions per packet of either side, compared with those that instructions.txt says; see instructions.cpp.

usage: instructions_test.py PROGRAM VALGRIND [--update]

A figure is the difference of two streams of different length, so that nothing but packets is in it. More than the
tolerance above the file is a loss, more than that below it a gain that the file has to be told with --update, which
writes it anew. The figures are those of one compiler and one C library: with others the result is 77, skipped.
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

BASELINE = Path(__file__).with_name("instructions.txt")
TOLERANCE = 0.03
SKIPPED = 77
HEAD = """# Instructions per packet of each side by bytes of data, as instructions_test.py counted and wrote them.
"""
# The same copying loops on every processor.
PLAIN_PROCESSOR = "glibc.cpu.hwcaps=-AVX2,-AVX512F,-AVX512VL,-ERMS,-FSRM"


def run(command):
    environment = {**os.environ, "GLIBC_TUNABLES": PLAIN_PROCESSOR}
    done = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=60, check=False)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} ended with {done.returncode}:\n{done.stderr}")
    return done.stdout


def read_dumps(folder):
    """Instructions by side, size and number of packets."""
    counts = {}
    for dump in Path(folder).iterdir():
        text = dump.read_text()
        named = re.search(r"^desc: Trigger: Client Request: (\w+) (\d+) (\d+)$", text, re.MULTILINE)
        if named:
            counts[named[1], int(named[2]), int(named[3])] = int(re.search(r"^totals: (\d+)$", text, re.MULTILINE)[1])
    return counts


def count(program, valgrind):
    """Lines of "SIDE SIZE" to instructions per packet."""
    with tempfile.TemporaryDirectory() as folder:
        run([valgrind, "--tool=callgrind", f"--callgrind-out-file={folder}/out", program])
        counts = read_dumps(folder)
    figures = {}
    for side, size in dict.fromkeys((side, size) for side, size, _ in sorted(counts)):
        (fewer, less), (more, most) = sorted((n, value) for (*row, n), value in counts.items() if row == [side, size])
        figures[f"{side} {size}"] = round((most - less) / (more - fewer))
    return figures


def read_baseline():
    """The versions and the figures of the file."""
    lines = [line for line in BASELINE.read_text().splitlines() if not line.startswith("#")]
    versions = "".join(line + "\n" for line in lines if line.startswith(("compiler", "libc")))
    figures = dict(line.rsplit(" ", 1) for line in lines if line.startswith(("send", "receive")))
    return versions, {name: int(figure) for name, figure in figures.items()}


def compare(figures, known):
    """What there is to say against the figures."""
    complaints = [f"only one of the two has: {name}" for name in sorted(figures.keys() ^ known.keys())]
    for name in (name for name in figures if name in known):
        change = figures[name] / known[name] - 1
        print(f"{name}: {figures[name]} instructions per packet, {change:+.1%}")
        if abs(change) > TOLERANCE:
            advice = "a loss" if change > 0 else "a gain: lower the baseline with --update"
            complaints.append(f"{name}: {figures[name]} instead of {known[name]}, {advice}")
    return complaints


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("valgrind")
    parser.add_argument("--update", action="store_true")
    options = parser.parse_args()
    versions = run([options.program, "--versions"])
    if options.update:
        figures = count(options.program, options.valgrind)
        BASELINE.write_text(HEAD + versions + "".join(f"{name} {figure}\n" for name, figure in figures.items()))
        return 0
    known_versions, known = read_baseline()
    if versions != known_versions:
        print(f"skipped: the figures are those of\n{known_versions}and this is\n{versions}")
        return SKIPPED
    complaints = compare(count(options.program, options.valgrind), known)
    for complaint in complaints:
        print(complaint)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
