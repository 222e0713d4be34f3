#!/usr/bin/env python3
"""Runs every fuzz target of a build for a while.

Usage: campaign.py BUILD_FOLDER SECONDS [SEED [TARGET...]] [--jobs N]

N targets run side by side, each for all of the seconds; without the option one after the other. Each target begins with
the seed corpus and with what earlier runs in the same build folder kept. What it finds is left in
BUILD_FOLDER/fuzz/findings; replaying such a file gives the same run. One line a target on standard output, with
libFuzzer's own figures; status 0: no finding, 1: a finding, 2: wrong usage."""

import argparse
import re
import shutil
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

HERE = Path(__file__).resolve().parent
TARGETS = sorted(folder.name for folder in (HERE / "corpus").iterdir())
LONGEST_INPUT = 800  # bytes
OPTIONS = (
    "-detect_leaks=0",  # each input is followed by a look at what is left; the threads confuse libFuzzer's count
    "-print_final_stats=1",
    "-timeout=20",
    "-rss_limit_mb=2500",
    f"-max_len={LONGEST_INPUT}",
)


def without_randomised_addresses():
    """What to run a sanitizer's program under."""
    prefix = ["setarch", "x86_64", "-R"]
    usable = shutil.which("setarch") and subprocess.run([*prefix, "true"], capture_output=True).returncode == 0
    return prefix if usable else []


def figure(pattern, text):
    found = re.findall(pattern, text)
    return int(found[-1]) if found else 0


def run(build, target, seconds, seed):
    work = build / "fuzz" / target
    findings = build / "fuzz" / "findings"
    for folder in (work, findings):
        folder.mkdir(parents=True, exist_ok=True)
    command = [*without_randomised_addresses(), str(build / "tests/fuzz" / target), *OPTIONS, f"-seed={seed}",
               f"-max_total_time={seconds}", f"-artifact_prefix={findings}/{target}-", str(work),
               str(HERE / "corpus" / target)]
    result = subprocess.run(command, capture_output=True, text=True, errors="replace")
    output = result.stderr
    executions = figure(r"stat::number_of_executed_units:\s+(\d+)", output)
    rate = figure(r"stat::average_exec_per_sec:\s+(\d+)", output)
    corpus = figure(r"corp: (\d+)/", output)
    coverage = figure(r"cov: (\d+) ", output)
    verdict = "no finding" if result.returncode == 0 and executions > 0 else "FINDING"
    line = (f"{target:22} executions {executions:9}  each second {rate:6}  corpus {corpus:5}  edges {coverage:5}  "
            f"{verdict}\n")
    sys.stdout.write(line)
    sys.stdout.flush()
    if verdict == "FINDING":
        print(output[-6000:], file=sys.stderr)
    return executions, corpus, verdict == "no finding"


def read_arguments(arguments):
    parser = argparse.ArgumentParser(usage=__doc__.partition("Usage: ")[2])
    parser.add_argument("build", type=Path)
    parser.add_argument("seconds", type=int)
    parser.add_argument("seed", type=int, nargs="?", default=1)
    parser.add_argument("targets", nargs="*", choices=[[], *TARGETS], default=[])
    parser.add_argument("--jobs", type=int, default=1)
    return parser.parse_args(arguments)


def main(arguments):
    options = read_arguments(arguments)
    build = options.build.resolve()
    with ThreadPoolExecutor(options.jobs) as pool:
        running = [pool.submit(run, build, target, options.seconds, options.seed)
                   for target in options.targets or TARGETS]
        results = [future.result() for future in running]
    print(f"{'all':22} executions {sum(row[0] for row in results):9}  corpus {sum(row[1] for row in results):5}")
    return 0 if all(row[2] for row in results) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
