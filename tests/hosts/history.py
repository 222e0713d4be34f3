"""Checks what nodes have written, run by run, and all of it together.

- notices "connected" and "disconnected" alternate for each peer, and each packet lies between those of its connection
- over one connection the packets of a flow follow each other without a gap, none twice, none out of order; flows come
  in the order in which they began, and each begins with 0 unless its first packets went over the connection before
- no packet comes twice, whatever the connection, or to two nodes; every packet is whole
- handed over = written + returned + dropped + queued; what was returned came back to the Center; what peers received
  was written, and did not come back unless it was a call
"""

import collections
import dataclasses
import re

# A Center that has not yet heard that a connection is gone may hand over so many packets that go to its successor.
MOST_IN_FRONT = 50
MOST_FAULTS = 20

# What the relay may say while connections are refused, cut and timed out.
EXPECTED_LINES = re.compile(r"recv (client|server)( init)? 에러")


@dataclasses.dataclass
class _Run:
    """Packets of one flow that follow each other on a connection."""

    flow: tuple
    first: int
    next: int


@dataclasses.dataclass
class _Connection:
    runs: list = dataclasses.field(default_factory=list)
    droppable: dict = dataclasses.field(default_factory=dict)


class HistoryCheck:
    """Takes the runs of all nodes; then the faults, and the figures of what was checked."""

    def __init__(self):
        self.faults = []
        self.figures = collections.Counter()
        self.receivers = {}  # flow: node
        self.seen = set()
        self.from_boot = collections.Counter()
        self.calls_returned = collections.Counter()

    def check(self, boots):
        """Everything at once."""
        for boot in boots:
            self._check_boot(boot)
        for boot in boots:
            self._check_returned(boot)
            if boot.sum is not None:
                self._check_sum(boot)
        return self

    def _fault(self, boot, text, event):
        self.figures["faults"] += 1
        if len(self.faults) < MOST_FAULTS:
            self.faults.append(f"node {boot.node} run {boot.number}: {text}: {event}")

    def _check_boot(self, boot):
        connections = {}
        for event in boot.events:
            kind = event["event"]
            if kind == "connected":
                if event["peer"] in connections:
                    self._fault(boot, "connected twice", event)
                connections[event["peer"]] = _Connection()
                self.figures["connections"] += 1
            elif kind == "disconnected":
                if connections.pop(event["peer"], None) is None:
                    self._fault(boot, "disconnected, yet not connected", event)
            elif kind == "packet":
                self._check_packet(boot, connections.get(event["peer"]), event)
            elif kind == "broken":
                self._fault(boot, "not as it was sent", event)
            elif kind == "printed" and not EXPECTED_LINES.fullmatch(event["text"].strip()):
                self._fault(boot, "an unexpected line", event)

    def _check_packet(self, boot, connection, event):
        self.figures["packets"] += 1
        flow = (event["sender"], event["boot"], event["flow"])
        packet = (*flow, event["droppable"], event["number"])
        if packet in self.seen:
            self._fault(boot, "came before", event)
        self.seen.add(packet)
        self.from_boot[flow[:2]] += 1
        if self.receivers.setdefault(flow, boot.node) != boot.node:
            self._fault(boot, "of another node's flow", event)
        if connection is None:
            self._fault(boot, "outside a connection", event)
        elif event["droppable"]:
            if event["number"] < connection.droppable.get(flow, 0):
                self._fault(boot, "out of order", event)
            connection.droppable[flow] = event["number"] + 1
        else:
            self._check_order(boot, connection.runs, flow, event)

    def _check_order(self, boot, runs, flow, event):
        number = event["number"]
        if runs and runs[-1].flow == flow:
            if number != runs[-1].next:
                self._fault(boot, f"not {runs[-1].next}, which would follow", event)
            runs[-1].next = number + 1
            if runs[-1].first != 0 and number - runs[-1].first == MOST_IN_FRONT:
                self._fault(boot, "the connection's first packets are missing", event)
            return
        if runs and (flow[:2] != runs[-1].flow[:2] or flow[2] < runs[-1].flow[2] or number != 0):
            self._fault(boot, f"does not follow on flow {runs[-1].flow}", event)
        runs.append(_Run(flow, number, number + 1))

    def _check_returned(self, boot):
        """Only a call can come back although it arrived: when its acknowledgement did not."""
        for event in boot.events:
            if event["event"] != "returned":
                continue
            if event["call"]:
                self.calls_returned[boot.node, boot.number] += 1
            elif (boot.node, boot.number, event["flow"], event["droppable"], event["number"]) in self.seen:
                self._fault(boot, "came back although it arrived", event)

    def _check_sum(self, boot):
        total = boot.sum
        ends = {name: total[name] for name in ("written", "returned", "dropped", "queued")}
        self.figures.update({"handed_over": total["handed_over"], **ends})
        if total["handed_over"] != sum(ends.values()) or min(ends.values()) < 0:
            self._fault(boot, "does not balance", total)
        if total["returned"] != sum(event["event"] == "returned" for event in boot.events):
            self._fault(boot, "not everything that was returned came back", total)
        if self.from_boot[boot.node, boot.number] > total["written"] + self.calls_returned[boot.node, boot.number]:
            self._fault(boot, "peers received more than was written", total)
