"""Stands in for inet_relay_bench and inet_relay_micro, whichever name it is called by: the same command line and the
same answers, with figures that it is told.

The environment variable FAKE_BENCH holds a JSON object: "missing" contenders; "unsupported" and "failing", lists of
"subject contender"; "silent", those that end without an answer; "block", a "subject contender" that writes a line to
the file "tell" and then never ends; "log", a file that gets a line for each measurement; "relay", what the relay's
costs are multiplied by.
"""

import argparse
import json
import os
import signal
import sys

PLAN = json.loads(os.environ.get("FAKE_BENCH", "{}"))
CONTENDERS = [name for name in ("raw", "skeleton", "relay", "zmq", "nng") if name not in PLAN.get("missing", ())]
COST = {"raw": 50, "skeleton": 100, "relay": 100 * PLAN.get("relay", 1), "zmq": 200, "nng": 400}
PARAMETERS = ("size", "connections", "seconds", "count", "cores", "way", "answer")
COST_FIGURES = ("ns_per_packet", "caller_ns_per_packet", "p50_ns", "p90_ns", "p99_ns", "p99_9_ns", "tick_near_ns",
                "tick_far_ns")
CONSTANT_FIGURES = {"heap_near_bytes_per_connection": 3900, "heap_far_bytes_per_connection": 3901,
                    "growth_near_bytes": 0, "growth_far_bytes": 1,
                    "wakeups_near_per_second": 1, "wakeups_far_per_second": 1}


def say(told):
    print(json.dumps(told))
    sys.exit(0 if "error" not in told else 77 if told["error"].get("unsupported") else 1)


def micro():
    say({"benchmarks": [{"name": name, "cpu_time": 0.05, "time_unit": "us"}
                        for name in ("token", "trace_off", "send_path", "receive_path")]})


def tell(path, text):
    with open(path, "a", encoding="utf-8") as file:
        file.write(text + "\n")


def congestion():
    with open("/proc/sys/net/ipv4/tcp_congestion_control", encoding="ascii") as file:
        return file.read().strip()


def measure(chosen):
    who = f"{chosen.subject} {chosen.contender}"
    if "log" in PLAN:
        tell(PLAN["log"], f"{who} {os.readlink('/proc/self/ns/net')} {congestion()}")
    if PLAN.get("block") == who:
        tell(PLAN["tell"], str(os.getpid()))
        while True:
            signal.pause()
    told = {"contender": chosen.contender, "subject": chosen.subject,
            "parameters": {name: getattr(chosen, name) for name in PARAMETERS}}
    if who in PLAN.get("silent", ()):
        sys.exit("gave up")
    if who in PLAN.get("failing", ()):
        say({**told, "error": {"text": "as told"}})
    if who in PLAN.get("unsupported", ()):
        say({**told, "error": {"text": "no means for it", "unsupported": True}})
    cost = COST[chosen.contender]
    say({**told, "figures": {"rate": 1e9 / cost, **dict.fromkeys(COST_FIGURES, cost), **CONSTANT_FIGURES}})


def main():
    parser = argparse.ArgumentParser(allow_abbrev=False)
    parser.add_argument("subject", choices=("list", "roundtrip", "oneway", "fanout", "setup", "memory", "idle", "udp"))
    parser.add_argument("--contender", choices=CONTENDERS)
    for name in PARAMETERS:
        parser.add_argument(f"--{name}")
    chosen = parser.parse_args()
    if chosen.subject == "list":
        say({"contenders": CONTENDERS, "missing": PLAN.get("missing", []), "subjects": []})
    measure(chosen)


if __name__ == "__main__":
    micro() if os.path.basename(sys.argv[0]) == "inet_relay_micro" else main()
