"""Many nodes, and a nemesis: nemesis_test.py NODE_PROGRAM [--hosts N] [--steps N] [--seed N]

Node i connects to i + 1, to i + 3 and, in the first half, to the node opposite. Standard error: one line a step.
Standard output: the verdict as one JSON object. Result: 0, 1 when something does not hold, 77 without namespaces.
"""

import argparse
import json
import random
import signal
import sys
import time

import lab
import nemesis
from history import HistoryCheck
from nodes import Cluster, Failed, waited_for_cores

INTERRUPTED = "interrupted"
STARTED = 3 + nemesis.SLACK


def topology(count):
    """Who connects to whom."""
    opposite = count // 2
    links = {(i, (i + by) % count) for i in range(count) for by in (1, 3)}
    links |= {(i, i + opposite) for i in range(opposite)}
    return sorted(link for link in links if link[0] != link[1])


def say(text):
    print(text, file=sys.stderr, flush=True)


def torment(cluster, switch, choose, steps):
    """The steps; then an orderly end."""
    for host in cluster.hosts:
        cluster.start(host.number)
    began = time.time()
    cluster.must("all links alive", STARTED, cluster.all_alive)
    say(f"{len(cluster.links)} links alive after {time.time() - began:.1f} s")
    enemy = nemesis.Nemesis(cluster, switch, choose)
    for number, name in enumerate(steps, 1):
        say(f"step {number}/{len(steps)}: {enemy.step(name)}")
    cluster.finish(nemesis.AFTER_LONG)
    return enemy


def report(options, cluster, enemy, check, trouble, seconds, waited):
    word = "interrupted" if trouble == INTERRUPTED else "failed" if trouble or check.faults else "held"
    verdict = {"verdict": word, "seed": options.seed, "hosts": options.hosts,
               "steps": options.steps, "links": len(cluster.links), "seconds": round(seconds, 1),
               "runs": len(cluster.boots), "clocks_shifted": cluster.shifts_clocks,
               "stalled_s": round(cluster.stalled, 1), "waited_for_cores_s": round(waited, 1), **check.figures}
    if enemy is not None:
        verdict["silence_noticed_s"] = [round(value, 2) for value in enemy.silences]
        verdict["alive_after_healing_s"] = {name: round(value, 2) for name, value in sorted(enemy.slowest.items())}
    if trouble:
        verdict["trouble"] = trouble
    print(json.dumps(verdict), flush=True)


def parse():
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("--hosts", type=int, default=8)
    parser.add_argument("--steps", type=int, default=60)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 32))
    parser.add_argument("--fault", choices=nemesis.LONG_FAULTS + nemesis.FAULTS, help="this one in every step")
    return parser.parse_args()


def main():
    options = parse()
    lab.isolate(("ip", "nft", "ss"))
    signal.signal(signal.SIGTERM, signal.getsignal(signal.SIGINT))
    choose = random.Random(options.seed)
    steps = [options.fault] * options.steps if options.fault else nemesis.plan(choose, options.steps)
    say(f"seed {options.seed}")
    began, waited = time.time(), waited_for_cores()
    enemy = trouble = None
    switch = lab.Switch(options.hosts)
    with Cluster(options.program, switch.hosts, topology(options.hosts), choose, lab.can_shift_clocks()) as cluster:
        try:
            enemy = torment(cluster, switch, choose, steps)
        except Failed as failure:
            trouble = str(failure)
            say(switch.sockets())
        except KeyboardInterrupt:
            trouble = INTERRUPTED
        check = HistoryCheck().check(cluster.boots)
        for fault in check.faults:
            say(fault)
        report(options, cluster, enemy, check, trouble, time.time() - began, waited_for_cores() - waited)
    sys.exit(130 if trouble == INTERRUPTED else 1 if trouble or check.faults else 0)


if __name__ == "__main__":
    main()
