"""The one table of what is measured, and of the bars that the relay is held to.

A bar compares figures of the same round: the relay's with that of another contender, or with its own under other
parameters. The median over the rounds is judged.
"""

from dataclasses import dataclass, replace
from types import MappingProxyType
from typing import Mapping, Optional, Tuple

import results

JUDGED = "relay"
LIMIT = "skeleton"

# Fewer rounds tell a ratio no better than within about 7 %.
ENOUGH_ROUNDS = 15

SECONDS, QUICK_SECONDS = 0.3, 0.1  # of one measurement

KIB, MIB = 1024, 1024 * 1024


def ratio(mine, other):
    return mine / other if other else float("inf")


def difference(mine, other):
    return mine - other


@dataclass(frozen=True)
class Bar:
    figure: str
    bar: float
    is_most: bool  # else it is the least that is allowed
    against: str = LIMIT  # nothing: the figure itself is judged
    compare: object = ratio
    at: Tuple[Tuple[str, int], ...] = ()  # the parameters of the case compared with, where they differ
    beside: str = ""  # a contender whose figure is shown beside the relay's; it has no part in the verdict

    def other(self, which):
        """The case and contender compared with."""
        return which.changed(dict(self.at)), self.against

    def spread(self, measured, which):
        mine = (which, JUDGED, self.figure)
        if not self.against:
            return measured.spread(*mine)
        return measured.compared(mine, (*self.other(which), self.figure), self.compare)

    def ratio_beside(self, measured, which):
        if not self.beside:
            return None
        return measured.ratio((which, JUDGED, self.figure), (which, self.beside, self.figure))

    def is_met(self, value):
        return value <= self.bar if self.is_most else value >= self.bar

    def text(self):
        what = f"{'at most' if self.is_most else 'at least'} {self.bar:,g}"
        if not self.against:
            return what
        if self.compare is difference:
            return f"{what} more than {self.against}"
        where = ", ".join(f"{name} {value}" for name, value in self.at)
        return f"{what} of {'its own at ' + where if where else self.against}"


def at_most(bar, figure, against=LIMIT, **others):
    return Bar(figure, bar, True, against, **others)


def at_least(bar, figure, against=LIMIT, **others):
    return Bar(figure, bar, False, against, **others)


@dataclass(frozen=True)
class Row:
    """One case: what it compares, how long, and what is required of it."""

    title: str
    case: results.Case
    contenders: Tuple[str, ...]  # they take part in every round
    bars: Tuple[Bar, ...] = ()
    shown: Tuple[str, ...] = ()  # they take part in the first rounds, for comparison only
    seconds: Optional[float] = SECONDS  # None where the case says how much is done
    rounds: Optional[int] = None  # a number of its own, for what does not vary
    quick: Optional[Mapping[str, object]] = None  # fields that a quick run changes; None: leaves the row out


SIZES = ((0, "header only"), (64, "64 B"), (KIB, "1 KiB"), (64 * KIB, "64 KiB"), (MIB, "1 MiB"))
SIZE_NAMES = {str(size): name for size, name in SIZES}

BOTH = (LIMIT, JUDGED)


def row(subject, title, contenders, bars=(), *, shown=(), seconds=SECONDS, rounds=None, quick=MappingProxyType({}),
        **parameters):
    return Row(title, results.case(subject, parameters), contenders, tuple(bars), shown, seconds, rounds, quick)


def quick_row(full):
    seconds = QUICK_SECONDS if full.seconds == SECONDS else full.seconds
    return replace(full, **{"seconds": seconds, **full.quick})


ROUND_TRIPS = ((0, 1.09), (64, 1.06), (KIB, 1.06), (64 * KIB, 1.05))


def round_trips():
    for size, bar in ROUND_TRIPS:
        bars = [at_most(bar, "p50_ns"), at_most(1.15, "p99_ns")]
        peers, shown = (), ("raw", "zmq", "nng")
        if size == 0:
            bars.append(at_most(0.72, "p50_ns", "zmq"))
            peers, shown = ("zmq",), ("raw", "nng")
        yield row("roundtrip", f"round trip, {SIZE_NAMES[str(size)]}", (*BOTH, *peers), bars, shown=shown, cores="one",
                  connections=1, size=size)
    # Above, the skeleton answers from its receive thread and the relay's Center from its own, for it may not call the relay
    # while it is given a packet. Here both hand over.
    for size, bar in ROUND_TRIPS:
        yield row("roundtrip", f"round trip, {SIZE_NAMES[str(size)]}, both answer on the Center's thread", BOTH,
                  [at_most(bar, "p50_ns"), at_most(1.15, "p99_ns")], cores="one", connections=1, size=size, answer="center")


def one_way():
    def stream(size, connections, contenders, bars, shown=()):
        plural = "connection" if connections == 1 else "connections"
        return row("oneway", f"one way, {SIZE_NAMES[str(size)]}, {connections} {plural}", contenders, bars, shown=shown,
                   cores="two", connections=connections, size=size)
    least = at_least(0.95, "rate")
    for size in (64, KIB):
        yield stream(size, 1, BOTH, [least], ("raw", "zmq", "nng"))
        yield stream(size, 16, BOTH, [least], ("zmq", "nng"))
    yield stream(64 * KIB, 1, (*BOTH, "zmq", "nng"),
                 [at_least(0.97, "rate"), at_least(1.10, "rate", "zmq"), at_least(1.6, "rate", "nng")], ("raw",))
    yield stream(MIB, 1, (*BOTH, "zmq"), [at_least(0.97, "rate"), at_least(1.05, "rate", "zmq")], ("raw", "nng"))
    yield stream(MIB, 16, (*BOTH, "zmq"), [at_least(0.93, "rate"), at_least(2.2, "rate", "zmq")], ("nng",))


def few(peers):
    """To connect many takes seconds, so a quick run does it once."""
    return {"rounds": 1} if peers == 1000 else {}


def broadcasts():
    header = at_most(1.10, "ns_per_packet")
    data = (at_most(1.08, "ns_per_packet"), at_most(250, "caller_ns_per_packet", compare=difference))
    peer = at_most(0.70, "ns_per_packet", "zmq")
    for peers, contenders, bars, shown in ((100, BOTH, [header], ("zmq", "nng")),
                                           (1000, (*BOTH, "zmq"), [header, peer], ("nng",))):
        yield row("fanout", f"broadcast, header only, {peers} peers", contenders, bars, shown=shown, cores="two",
                  connections=peers, size=0, quick=few(peers))
    for peers in (100, 1000):
        yield row("fanout", f"broadcast, 64 B, {peers} peers", BOTH, data, shown=("zmq", "nng"), cores="two",
                  connections=peers, size=64, quick=few(peers))


def at_rest():
    for connections in (1, 1000, 8000):
        bars, quick, seconds = [], {"rounds": 1}, 2
        if connections == 1:
            # Only what a tick causes: the timer, the thread that sends its heartbeat, the one that gets the peer's.
            # Four ticks may fall into three seconds.
            bars += [at_most(4, f"wakeups_{end}_per_second", "") for end in ("near", "far")]
            seconds = 3
        if connections == 8000:
            quick = None
            for end in ("near", "far"):
                bars.append(at_most(5e6, f"tick_{end}_ns", "", beside=LIMIT))
                bars.append(at_most(8.8, f"tick_{end}_ns", JUDGED, at=(("connections", 1000),)))
            bars.append(at_most(1.10, "p50_ns", JUDGED, at=(("connections", 1),)))
        plural = "connection" if connections == 1 else "connections"
        yield row("idle", f"at rest, {connections:,} {plural}", BOTH, bars, seconds=seconds, rounds=3, quick=quick,
                  cores="one", connections=connections, size=64)


def memory():
    per_connection = [at_most(3900, f"heap_{end}_bytes_per_connection", "") for end in ("near", "far")]
    # nng is left out: with so many connections it does not always come to an end.
    yield row("memory", "memory, 8,000 connections at rest", (JUDGED,), per_connection, shown=(LIMIT, "zmq"),
              seconds=None, rounds=1, quick=None, connections=8000, count=0)
    growth = [at_most(0, f"growth_{end}_bytes", "") for end in ("near", "far")]
    yield row("memory", "memory after 10,000,000 packets", (JUDGED,), growth, seconds=None, rounds=1, quick=None,
              connections=1, size=64, count=10_000_000)


def datagrams():
    for size in (64, KIB):
        yield row("udp", f"UDP one way, {SIZE_NAMES[str(size)]}", BOTH, [at_least(0.93, "rate")], shown=("raw",),
                  way="one", size=size, cores="two")
    yield row("udp", "UDP round trip, 64 B", BOTH, [at_most(1.10, "p50_ns")], shown=("raw",), way="round", size=64,
              cores="one")


# Single costs, measured by a program of their own; each figure is named after one of its benchmarks.
MICRO = row("micro", "single costs", (JUDGED,), [
    at_most(60, "token_ns", ""), at_most(5, "trace_off_ns", ""),
    at_most(250, "send_path_ns", ""), at_most(250, "receive_path_ns", ""),
], seconds=None, rounds=3, quick={"rounds": 1})

ROWS = (
    *round_trips(),
    *one_way(),
    *broadcasts(),
    row("setup", "set-up, one after the other", BOTH, [at_least(0.92, "rate")], shown=("raw",), cores="one"),
    *datagrams(),
    *at_rest(),
    *memory(),
    MICRO,
)

# Goals that are counts: they do not vary, so tests hold them and nothing is measured here.
COUNTED = (
    ("system calls per packet, steady stream",
     "exactly 6 + 6 with data, 3 + 3 header only, UDP 4 + 3; at most 0.02 others"),
    ("allocations per packet", "none to send; to receive, header and data from a pool"),
    ("data parts of a broadcast", "one, however many peers"),
)

# What a reader has to know of a subject's figures.
ABOUT = {
    "idle": "`tick_near_ns` and `tick_far_ns` are the processor time of one tick, kernel included, of the thread that ticks. "
            "The skeleton ticks at both ends, once a second as the relay does, while the connections are at rest: a thread "
            "goes through its records and arms each connection for writing with one `epoll_ctl`; the send thread then "
            "writes one header. Nothing else is in its tick: no lock, queue or registry of a connection. So it is what the "
            "described calls cost by themselves; where it is above a bar, they are.",
}

# What was done about a goal that a run may find not met, by subject.
TRIED = {
    "roundtrip": "A Center may not call the relay while it is given a packet, so its answer takes a hand-over to another "
                 "thread and a wake-up that the skeleton does without; the rows where both answer on the Center's thread "
                 "compare like with like. Kept: a lock that gives the core back to an owner on the same core, a wake-up of "
                 "one futex call, parts recycled by each thread, no clock reading while packets wait, time stamps from the "
                 "kernel's last tick. Dropped: giving the core up before the Center sleeps, which made streams several "
                 "times slower beside other processes.",
    "oneway": "Which end is the faster one decides: a receiver that keeps up falls asleep, and to wake it on the other core "
              "costs the sender more than a packet. Kept: what is listed for round trips, and large data parts kept for "
              "reuse. Dropped: looking for more packets before sleeping.",
    "fanout": "Each recipient needs a header of its own, a place in its queue and one arming under its lock; the data is "
              "shared. Kept: parts recycled by each thread.",
    "udp": "A datagram that both UDP threads have work for is armed once more by the described steps.",
    "idle": "A tick arms every connection once, as described, and its records and the kernel's do not fit into the caches. "
            "The skeleton's tick makes the same calls and nothing else; its profile stands beside the relay's. "
            "Dropped: fetching the next record ahead, which gained 5 to 11 percent of a tick for a dozen lines.",
    "memory": "Kept: what only listening and UDP sockets need has left the record, its flags stand in gaps, its two locks "
              "take 12 bytes each. An outgoing connection also has an entry in the count of registrations.",
    "setup": "Set-up is a connect, the exchange and two notices. Each notice wakes a Center's thread, on both ends; of the "
             "skeleton a thread is woken on the connecting end only. Nothing was tried.",
}
