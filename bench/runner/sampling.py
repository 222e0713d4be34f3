"""Where the processor time of a case goes, as perf samples it: for goals that were not met."""

import re
import tempfile
from dataclasses import dataclass
from pathlib import Path
from typing import Dict, List, Optional, Tuple

import goals
import suite

SECONDS = 2  # of one profile: set-up and warm-up are in it too
SAMPLES_PER_SECOND = 4999
# The names of the threads that tick; the relay's is the sixth that it has made: its timer's.
TICKING_THREADS = {goals.JUDGED: "relay-6", goals.LIMIT: "skeleton-tick"}

KERNEL, REST = "kernel", "the bench"
GROUPS = (("relay", r"libinet_relay\."), ("reference host", r"libzolt_reference_host\."),
          ("C and C++ libraries", r"lib(c|m|stdc\+\+|gcc_s)\.so|ld-linux|\[vdso\]"))
NAMES = (KERNEL, *(name for name, _ in GROUPS), REST)
TOP = 8


class NotSampled(Exception):
    pass


@dataclass
class Profile:
    contender: str
    shares: Dict[str, float]  # of all samples, by group
    top: List[Tuple[float, str]]  # functions outside the kernel
    ns_per_packet: Optional[float]  # processor time of both ends


def group_of(library, is_kernel):
    if is_kernel:
        return KERNEL
    return next((name for name, pattern in GROUPS if re.search(pattern, library)), REST)


def read_report(text, thread=None):
    """Shares by group and the functions outside the kernel, of one thread or of all."""
    shares, functions = dict.fromkeys(NAMES, 0.0), []
    for line in text.splitlines():
        found = re.match(r"\s*([\d.]+)%\s*\|\s*(.*?)\s*\|\s*(.*?)\s*\|\[(.)\]\s*(.*?)\s*$", line)
        if not found or (thread is not None and found[2] != thread):
            continue
        share, is_kernel = float(found[1]), found[4] == "k"
        shares[group_of(found[3], is_kernel)] += share
        if not is_kernel:
            functions.append((share, found[5].replace("Zolt::", "")))
    total = sum(shares.values())
    if total == 0:
        raise NotSampled("no samples")
    top = sorted(functions, reverse=True)[:TOP]
    return {name: share / total for name, share in shares.items()}, [(share / total, name) for share, name in top]


def cost_of(figures):
    if not figures.get("packets"):
        return None
    return 1e9 * (figures["cpu_near_seconds"] + figures["cpu_far_seconds"]) / figures["packets"]


def take(programs, row, contender):
    """Runs the contender once more, sampled. Throws NotSampled, or what a measurement throws."""
    is_rest = row.case.subject == "idle"
    with tempfile.TemporaryDirectory() as folder:
        samples = str(Path(folder) / "samples")
        try:
            figures = programs.told(row, contender, SECONDS, (
                "perf", "record", "-q", "-e", "cpu-clock", "-F", str(SAMPLES_PER_SECOND), "-o", samples, "--"))
            _, text, _ = suite.call(["perf", "report", "-i", samples, "--stdio", "-g", "none", "-t", "|",
                                     "--sort", "comm,dso,sym"])
        except FileNotFoundError as missing:
            raise NotSampled("perf is not installed") from missing
    shares, top = read_report(text, TICKING_THREADS[contender] if is_rest else None)
    return Profile(contender, shares, top, None if is_rest else cost_of(figures))
