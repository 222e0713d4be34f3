#!/usr/bin/env python3
"""Passes when the simulation of a broken relay finds it out, and tells after how many schedules.

Usage: expect_finding.py SIMULATION MOST_SCHEDULES
"""

import re
import subprocess
import sys


def main(simulation, most):
    done = subprocess.run((simulation, "--count", most), capture_output=True, text=True)
    found = re.search(r"schedule failed: (.*)", done.stderr)
    passed = re.search(r"^schedules (\d+),", done.stdout, re.M)
    if done.returncode != 1 or not passed:
        print(done.stdout, done.stderr[-2000:])
        return f"nothing found in {most} schedules"
    print(f"found after {int(passed.group(1)) + 1} schedules: {found.group(1) if found else 'the process died'}")
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
