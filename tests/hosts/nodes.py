"""Nodes that write their history, one on each host of a laboratory."""

import collections
import dataclasses
import json
import os
import random
import selectors
import subprocess
import time

PORT = 7000
PATIENCE = 20
LOOK = 0.05
LONGEST_SHIFT = 10 * 365 * 86400


def now():
    """Seconds since 1970, cut to milliseconds as the nodes cut them."""
    return int(time.time() * 1000) / 1000


def waited_for_cores():
    """Seconds so far in which some program of this machine waited for a core; 0 where the kernel does not tell."""
    try:
        with open("/proc/pressure/cpu", encoding="ascii") as pressure:
            return int(pressure.readline().rsplit("=", 1)[1]) / 1_000_000
    except OSError:
        return 0


class Failed(Exception):
    """Something that must hold does not."""


@dataclasses.dataclass
class Boot:
    """One run of a node's program, with all that it has written."""

    node: int
    number: int
    process: subprocess.Popen
    pid: int = 0
    events: list = dataclasses.field(default_factory=list)
    unread: bytes = b""
    is_idle: bool = False
    is_over: bool = False
    sum: dict = None


@dataclasses.dataclass
class Connection:
    """As its own node sees it."""

    way: str
    last_packet: float = 0


class Cluster:
    """All nodes, and who connects to whom. Times are seconds since 1970, as the nodes write them."""

    def __init__(self, program, hosts, links, choice, shifts_clocks, packet_every=200):
        self.program = program
        self.hosts = hosts
        self.links = links
        self.clocks = random.Random(choice.random())  # of its own: how often a start is tried depends on the moment
        self.shifts_clocks = shifts_clocks
        self.packet_every = packet_every  # milliseconds
        self.boots = []
        self.current = {}
        self.stalled = 0  # seconds in which the nodes could not be watched
        self.open = collections.defaultdict(dict)  # node: peer: Connection
        self.notices = []  # (time, node, way, other node)
        self.selector = selectors.DefaultSelector()
        self.numbers = {host.ip: host.number for host in hosts}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for boot in self.boots:
            self._close(boot)
        self.selector.close()

    @staticmethod
    def _close(boot):
        if boot.process.poll() is None:
            boot.process.kill()
        boot.process.wait()
        boot.process.stdin.close()
        boot.process.stdout.close()

    # What happens

    def pump(self, seconds, condition=lambda: False):
        """Takes in what the nodes write, until the condition holds or the time is over. True when it holds."""
        end = now() + seconds
        while not condition():
            before = now()
            if before >= end:
                return False
            for key, _ in self.selector.select(min(end - before, LOOK)):
                self._read(key.data)
            self.stalled += max(0, now() - before - 2 * LOOK)
        return True

    def must(self, what, seconds, condition):
        """Time in which programs had to wait for a core, or not even this one ran, does not count."""
        stalled, waited = self.stalled, waited_for_cores()
        if self.pump(seconds, condition):
            return
        if self.pump(max(self.stalled - stalled, waited_for_cores() - waited), condition):
            return
        raise Failed(f"{what}: not within {seconds:.1f} s")

    def _read(self, boot):
        piece = boot.process.stdout.read1(1 << 16)
        if not piece:
            self.selector.unregister(boot.process.stdout)
            boot.is_over = True
            return
        *lines, boot.unread = (boot.unread + piece).split(b"\n")
        for line in lines:
            event = json.loads(line)
            boot.events.append(event)
            self._take(boot, event)

    def _take(self, boot, event):
        kind, when = event["event"], event["t"] / 1000
        if kind == "ready":
            boot.pid = event["pid"]
        elif kind == "idle":
            boot.is_idle = True
        elif kind == "sum":
            boot.sum = event
        elif kind == "connected":
            self.open[boot.node][event["peer"]] = Connection(event["way"])
        elif kind == "packet" and event["peer"] in self.open[boot.node]:
            self.open[boot.node][event["peer"]].last_packet = when
        elif kind == "disconnected":
            self.open[boot.node].pop(event["peer"], None)
            self.notices.append((when, boot.node, event["way"], self.host_of(event["peer"])))

    def host_of(self, peer):
        return self.numbers[peer.split(":")[0]]

    # What is done to a node

    def start(self, node):
        """Starts a node's program, with a clock of its own; again when its port is still taken."""
        end = now() + PATIENCE
        boot = self._launch(node)
        while not self.pump(PATIENCE, lambda: boot.pid or boot.is_over) or boot.is_over:
            if now() > end:
                raise Failed(f"node {node} does not start")
            self._close(boot)
            self.boots.remove(boot)
            boot = self._launch(node)
        self.tell(node, f"send {self.packet_every}")

    def _launch(self, node):
        host = self.hosts[node]
        number = 1 + max((boot.number for boot in self.boots if boot.node == node), default=0)
        shift = str(self.clocks.randrange(LONGEST_SHIFT))
        clock = ["unshare", "--time", "--monotonic", shift, "--boottime", shift, "--fork", "--kill-child"]
        to = [f"{self.hosts[b].ip}:{PORT}" for a, b in self.links if a == node]
        process = subprocess.Popen(
            host.inside(*(clock if self.shifts_clocks else []), self.program, str(node), str(number), str(PORT), *to),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        boot = Boot(node, number, process)
        self.boots.append(boot)
        self.current[node] = boot
        self.open[node] = {}
        self.selector.register(process.stdout, selectors.EVENT_READ, boot)
        return boot

    def tell(self, node, command):
        stdin = self.current[node].process.stdin
        stdin.write(command.encode() + b"\n")
        stdin.flush()

    def signal(self, node, number):
        os.kill(self.current[node].pid, number)

    def kill(self, node):
        self.current[node].process.kill()  # and what it has started dies with it
        self._wait_for_end(node)

    def stop(self, node):
        """Stops a node in order; it has to say its sum and to end well."""
        self.tell(node, "stop")
        self._wait_for_end(node)
        boot = self.current[node]
        if boot.process.wait(PATIENCE) != 0 or boot.sum is None:
            raise Failed(f"node {node} ended with {boot.process.returncode}, its sum is {boot.sum}")

    def finish(self, seconds):
        """Nobody sends any more; each packet of a living connection arrives, and nothing is left anywhere."""
        for node in self.current:
            self.tell(node, "send 0")
        self.must("everything handed over arrives", seconds, self._is_settled)
        for node, boot in self.current.items():
            self.stop(node)
            if boot.sum["queued"] != 0:
                raise Failed(f"node {node} has packets left: {boot.sum}")

    def _is_settled(self):
        if not all(boot.is_idle for boot in self.current.values()):
            return False
        arrived = {}
        flows = []
        for boot in self.boots:
            for event in boot.events:
                if event["event"] == "packet" and not event["droppable"]:
                    arrived[event["sender"], event["boot"], event["flow"]] = event["number"] + 1
                elif event["event"] == "handed":
                    flows.append(((boot.node, boot.number, event["flow"]), event["count"]))
        return len(flows) == 2 * len(self.links) and all(arrived.get(flow, 0) == count for flow, count in flows)

    def _wait_for_end(self, node):
        self.must(f"the end of node {node}", PATIENCE, lambda: self.current[node].is_over)
        self.open[node] = {}

    # What is asked about connections

    def is_alive(self, link, since=0.0):
        """Both ends call it established, and have got a packet over it since then."""
        return self._end_is_alive(*link, "out", since) and self._end_is_alive(*reversed(link), "in", since)

    def all_alive(self, since=0.0):
        return all(self.is_alive(link, since) for link in self.links)

    def describe_dead(self, since):
        """The links that are not alive, with what each end has."""
        def end(node, other):
            return {peer: f"{one.way}, {one.last_packet - since:+.2f} s" for peer, one in self.open[node].items()
                    if self.host_of(peer) == other}
        return "; ".join(f"{a} to {b}: {end(a, b)} and {end(b, a)}" for a, b in self.links
                         if not self.is_alive((a, b), since))

    def _end_is_alive(self, node, other, way, since):
        found = [connection for peer, connection in self.open[node].items()
                 if connection.way == way and self.host_of(peer) == other]
        return len(found) == 1 and found[0].last_packet > since

    def ends_told(self, since):
        """(node, way, other): time of the first "disconnected" since then."""
        told = {}
        for when, node, way, other in self.notices:
            if when >= since:
                told.setdefault((node, way, other), when)
        return told


def ends_of(link):
    """The two ends of a link, as ends_told names them."""
    a, b = link
    return [(a, "out", b), (b, "in", a)]
