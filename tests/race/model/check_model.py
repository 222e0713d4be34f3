#!/usr/bin/env python3
"""Checks the models of one record: they hold with all rules, and each rule taken out has a counterexample.

usage: check_model.py quick|full

quick leaves out the searches that take longer than a few seconds. Needs spin and a C compiler.
"""
import pathlib
import re
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
HOLDS, BREAKS = True, False

# model, switches, whether it must hold, whether the quick run includes it
CASES = [
    ("established.pml", "ACCEPTED", HOLDS, True),
    ("established.pml", "ACCEPTED ARM_FAILS", HOLDS, True),
    ("established.pml", "ACCEPTED BATON_LOST", HOLDS, True),
    ("established.pml", "ACCEPTED WITHOUT_UNFILE", BREAKS, True),
    ("established.pml", "ACCEPTED WITHOUT_DISPOSAL", BREAKS, True),
    ("established.pml", "ACCEPTED WITHOUT_BOUND", BREAKS, True),
    ("established.pml", "ACCEPTED WITHOUT_REAPING", BREAKS, True),
    ("established.pml", "ACCEPTED BATON_LOST WITHOUT_REARMING", BREAKS, True),
    ("established.pml", "ACCEPTED HASTY", HOLDS, False),
    ("established.pml", "ACCEPTED HASTY BATON_LOST", HOLDS, False),
    ("established.pml", "ACCEPTED HASTY WITHOUT_TAKING_BACK", BREAKS, True),
    ("established.pml", "OUTGOING", HOLDS, False),
    ("established.pml", "OUTGOING ARM_FAILS", HOLDS, False),
    ("established.pml", "OUTGOING BATON_LOST", HOLDS, False),
    ("established.pml", "OUTGOING WITHOUT_UNFILE", BREAKS, True),
    ("established.pml", "OUTGOING WITHOUT_HANDOVER", BREAKS, True),
    ("established.pml", "OUTGOING WITHOUT_DISPOSAL", BREAKS, True),
    ("established.pml", "OUTGOING WITHOUT_BOUND", BREAKS, False),
    ("established.pml", "OUTGOING WITHOUT_MARKING", BREAKS, True),
    ("established.pml", "OUTGOING WITHOUT_TELLING", BREAKS, True),
    ("established.pml", "OUTGOING BATON_LOST WITHOUT_REARMING", BREAKS, True),
    ("established.pml", "OUTGOING HASTY WITHOUT_TAKING_BACK", BREAKS, True),
    ("connecting.pml", "", HOLDS, True),
    ("connecting.pml", "WITHOUT_UNFILE", BREAKS, True),
    ("connecting.pml", "WITHOUT_MARKING", BREAKS, True),
    ("connecting.pml", "WITHOUT_CLOSING_LOCK", BREAKS, True),
    ("connecting.pml", "WITHOUT_SECOND_CANCEL", BREAKS, True),
    ("connecting.pml", "WITHOUT_COUNTER_LOCK", BREAKS, True),
]


def run(command, folder):
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))} failed:\n{done.stdout}{done.stderr}")
    return done.stdout


def search(model, switches):
    """(states, errors, what broke) of one exhaustive search, up to the first error."""
    with tempfile.TemporaryDirectory() as folder:
        run(["spin", *(f"-D{switch}" for switch in switches.split()), "-a", HERE / model], folder)
        run(["cc", "-O2", "-w", "-DSAFETY", "-DCOLLAPSE", "-o", "pan", "pan.c"], folder)
        report = run(["./pan", "-m2000000"], folder)
    if "Search not completed" in report and "errors: 0" in report or "max search depth too small" in report:
        sys.exit(f"{model} {switches}: the search was cut short\n{report}")
    states = int(re.search(r"(\d+) states, stored", report).group(1))
    errors = int(re.search(r"errors: (\d+)", report).group(1))
    broke = re.search(r"^pan:1: (.*) \(at depth", report, re.MULTILINE)
    return states, errors, broke.group(1).strip() if broke else ""


def main():
    if sys.argv[1:] not in (["quick"], ["full"]):
        sys.exit(__doc__)
    wrong = 0
    for model, switches, holds, is_quick in CASES:
        if sys.argv[1] == "quick" and not is_quick:
            continue
        states, errors, broke = search(model, switches)
        as_expected = (errors == 0) == holds
        wrong += not as_expected
        print(f"{'ok    ' if as_expected else 'WRONG '} {model} {switches or 'all rules'}: {states} states, "
              f"{'holds' if errors == 0 else broke}", flush=True)
    print(f"{wrong} configurations did not answer as expected")
    sys.exit(1 if wrong else 0)


main()
