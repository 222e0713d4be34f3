"""What a network and a machine may do to nodes. Each fault is done, held, healed, and its effects are measured.

A tick is one second; the relay ends a connection with the first tick after 8 s without a byte.

Clocks: each run of a node has clocks of its own in a time namespace, up to ten years ahead of the others. The kernel
moves nobody's monotonic clock while he runs; a jump is made where the node reads it, so timers do not see it.
"""

import contextlib
import signal

from nodes import Failed, ends_of, now

SILENCE = 8  # seconds
TICK = 1
SLACK = 2  # what two busy cores may add
# The next attempt after one that vanished: its own time-out, then a tick to notice and a tick to try.
AFTER_LONG = SILENCE + 2 * TICK + SLACK
AFTER_CUT = 2 * TICK + SLACK
GUSTS = 10
LONGER = 6  # how much longer than the silence an outage may last
SHORT = 3  # an outage whose retransmissions are over before the silence is
# The kernel's next retransmission may be as far away as the outage was long.
AFTER_SHORT = SHORT + TICK + SLACK
BY_RESET = 2 * TICK + SLACK
CALM = TICK + SLACK


class Nemesis:
    """All that it does is drawn from the choice, so the same seed brings the same faults."""

    def __init__(self, cluster, switch, choose):
        self.cluster = cluster
        self.switch = switch
        self.hosts = range(len(switch.hosts))
        self.choose = choose
        self.down = set()  # killed in this step, not yet started again
        self.slowest = {}  # fault: seconds from healing to the last link's first packets
        self.silences = []  # seconds from the last possible byte to the notice, the shortest and the longest

    def step(self, name):
        """One fault, until everything is well again; a text about it."""
        began = now()
        try:
            told, links, bound = getattr(self, name)()
        except Failed as failure:
            raise Failed(f"{name}: {failure}") from failure
        healed = now()
        try:
            self.cluster.must(f"{told}, healed, all links alive", bound, lambda: self.cluster.all_alive(healed))
        except Failed as failure:
            raise Failed(f"{failure}; dead: {self.cluster.describe_dead(healed)}") from failure
        took = now() - healed
        self._calm_down()
        self._expect_quiet(began, links)
        self.slowest[name] = max(took, self.slowest.get(name, 0))
        cut = len({frozenset((node, other)) for node, _, other in self.cluster.ends_told(began)})
        return f"{told}; {cut} pairs cut; alive {took:.1f} s after healing; {now() - began:.1f} s in all"

    def _calm_down(self):
        """No kernel is waiting for a retransmission any more.

        The first packet may have come with one that is not acknowledged yet. Were the acknowledgement lost in the next
        step, then the next retransmission would be twice as far away as the last one. Another packet comes only after
        the acknowledgement.
        """
        alive = now()
        self.cluster.must("all links still alive", CALM, lambda: self.cluster.all_alive(alive))

    # Choosing

    def _host(self):
        return self.choose.choice(self.hosts)

    def _half(self):
        return set(self.choose.sample(self.hosts, len(self.hosts) // 2))

    def _links_of(self, host):
        return [link for link in self.cluster.links if host in link]

    def _links_between(self, some):
        return [link for link in self.cluster.links if (link[0] in some) != (link[1] in some)]

    # Measuring

    def _expect_quiet(self, since, hit):
        """No connection has ended but those of links that the fault could hit."""
        allowed = {end for link in hit for end in ends_of(link)}
        for end in self.cluster.ends_told(since):
            if end not in allowed:
                raise Failed(f"node {end[0]} lost its connection to node {end[2]}, which nothing had cut")

    def _expect_ends(self, ends, since, seconds):
        """All of these have been told within that time."""
        def untold():
            return set(ends) - set(self.cluster.ends_told(since))
        try:
            self.cluster.must(f"the ends {ends} are told", seconds, lambda: not untold())
        except Failed as failure:
            raise Failed(f"{failure}; missing: {sorted(untold())}") from failure
        return [self.cluster.ends_told(since)[end] - since for end in ends]

    def _expect_silence(self, ends, since):
        """They end by silence: not before the bound, and with the first tick after it."""
        took = self._expect_ends(ends, since, SILENCE + TICK + SLACK)
        if not took:
            return
        self.silences = [min(took + self.silences), max(took + self.silences)]
        if min(took) < SILENCE - TICK:
            raise Failed(f"cut after {min(took):.1f} s of silence already")

    # Outages

    def _outage(self, links, pairs, is_long):
        began = now()
        self.switch.lose("cut", pairs)
        if is_long:
            self._expect_silence([end for link in links for end in ends_of(link)], began)
            self.cluster.pump(self.choose.uniform(0, LONGER))
        else:
            self.cluster.pump(SHORT)
        self.switch.heal("cut")
        return (links, AFTER_LONG) if is_long else ([], AFTER_SHORT)

    def _split(self, some, is_long):
        pairs = [(a, b) for a in self.hosts for b in self.hosts if (a in some) != (b in some)]
        return self._outage(self._links_between(some), pairs, is_long)

    def halves_long(self):
        some = self._half()
        return f"halves {sorted(some)} apart, long", *self._split(some, True)

    def halves_short(self):
        some = self._half()
        return f"halves {sorted(some)} apart, short", *self._split(some, False)

    def isolated_long(self):
        host = self._host()
        return f"{host} isolated, long", *self._split({host}, True)

    def isolated_short(self):
        host = self._host()
        return f"{host} isolated, short", *self._split({host}, False)

    def one_way_long(self):
        """Who hears nothing ends the connection; the other end hears of that once the way is free."""
        a, b = link = self.choose.choice(self.cluster.links)
        if self.choose.random() < 0.5:
            a, b = b, a
        began = now()
        self.switch.lose("cut", [(a, b)])
        deaf = [end for end in ends_of(link) if end[0] == b]
        self._expect_silence(deaf, began)
        self.switch.heal("cut")
        return f"nothing from {a} to {b}, long", [(a, b), (b, a)], AFTER_LONG

    def loss(self):
        """A connection may even end: six losses in a row are silence."""
        self.switch.lose("lossy", self._pairs(1))
        self.cluster.pump(SHORT)
        self.switch.heal("lossy")
        return "30 % loss everywhere", self.cluster.links, AFTER_LONG

    def flap(self):
        host = self.switch.hosts[self._host()]
        for _ in range(3):
            host.plug(False)
            self.cluster.pump(0.4)
            host.plug(True)
            self.cluster.pump(0.2)
        return f"cable of {host.number} out and in, three times", [], AFTER_SHORT

    # Cuts

    def reset(self):
        """Every segment from one host to another is answered with a reset, as by a firewall that forgot about it."""
        a, b = self.choose.choice(self.cluster.links)
        if self.choose.random() < 0.5:
            a, b = b, a
        host, other = self.switch.hosts[a], self.switch.hosts[b]
        began = now()
        host.run("nft", "-f", "-", input=f"""
            table inet fault {{
                chain input {{
                    type filter hook input priority 0;
                    ip saddr {other.ip} tcp flags & rst == 0 reject with tcp reset
                }}
            }}""")
        self._expect_ends([end for link in {(a, b), (b, a)} & set(self.cluster.links) for end in ends_of(link)], began,
                          BY_RESET)
        host.run("nft", "delete", "table", "inet", "fault")
        return f"what {b} sends to {a} is reset", [(a, b), (b, a)], AFTER_CUT

    def killed_sockets(self):
        """The kernel of one host ends its connections to another one, as an administrator can tell it to."""
        a, b = link = self.choose.choice(self.cluster.links)
        if self.choose.random() < 0.5:
            a, b = b, a
        began = now()
        other = self.switch.hosts[b]
        self.switch.hosts[a].run("ss", "-K", "-t", "-n", "dst", other.ip)
        self._expect_ends(ends_of(link), began, BY_RESET)
        return f"{a} kills its sockets to {b}", [(a, b), (b, a)], AFTER_CUT

    # Machines

    @contextlib.contextmanager
    def _stopped(self, host):
        self.cluster.signal(host, signal.SIGSTOP)
        try:
            yield
        finally:
            self.cluster.signal(host, signal.SIGCONT)

    def paused_long(self):
        host = self._host()
        links = self._links_of(host)
        began = now()
        with self._stopped(host):
            self._expect_silence([end for link in links for end in ends_of(link) if end[0] != host], began)
        return f"{host} stopped, long", links, AFTER_LONG

    def paused_short(self):
        host = self._host()
        with self._stopped(host):
            self.cluster.pump(SHORT)
        return f"{host} stopped, short", [], AFTER_SHORT

    def crashed(self):
        host = self._host()
        links = self._links_of(host)
        began = now()
        self.cluster.kill(host)
        self._expect_ends([end for link in links for end in ends_of(link) if end[0] != host], began, BY_RESET)
        self.cluster.pump(1.5 * TICK)
        self.cluster.start(host)
        return f"{host} killed and started again", links, AFTER_CUT

    def restarted(self):
        host = self._host()
        self.cluster.stop(host)
        self.cluster.start(host)
        return f"{host} stopped in order and started again, with another clock", self._links_of(host), AFTER_CUT

    def clock_jump_short(self):
        host = self._host()
        self.cluster.tell(host, f"jump {SHORT * 1000}")
        self.cluster.pump(2 * TICK)
        return f"the clock of {host} jumps by {SHORT} s", [], AFTER_CUT

    def clock_jump_long(self):
        """Nothing arrives after the jump, so that every peer looks silent at the next tick."""
        host = self._host()
        links = self._links_of(host)
        began = now()
        self.switch.lose("cut", [(other, host) for other in self.hosts if other != host])
        self.cluster.tell(host, f"jump {(SILENCE + 2) * 1000}")
        self._expect_ends([end for link in links for end in ends_of(link) if end[0] == host], began, TICK + SLACK)
        self.switch.heal("cut")
        return f"the clock of {host} jumps by {SILENCE + 2} s", links, AFTER_CUT


    # Several at once

    def storm(self):
        """Faults that begin while others last, until all are healed together."""
        self.down = set()
        gusts = (self._gust_of_cuts, self._gust_of_loss, self._gust_of_kills, self._gust_of_jumps,
                 self._gust_of_crashes)
        for _ in range(GUSTS):
            self.choose.choice(gusts)()
            self.cluster.pump(self.choose.uniform(0.1, TICK))
        self.switch.heal("cut")
        self.switch.heal("lossy")
        for host in sorted(self.down):
            self.cluster.start(host)
        return f"a storm; {sorted(self.down)} killed in it", self.cluster.links, AFTER_LONG

    def _pairs(self, share):
        return [(a, b) for a in self.hosts for b in self.hosts if a != b and self.choose.random() < share]

    def _gust_of_cuts(self):
        self.switch.heal("cut")
        self.switch.lose("cut", self._pairs(0.3))

    def _gust_of_loss(self):
        self.switch.heal("lossy")
        self.switch.lose("lossy", self._pairs(0.6))

    def _gust_of_kills(self):
        a, b = self.choose.choice(self.cluster.links)
        self.switch.hosts[a].run("ss", "-K", "-t", "-n", "dst", self.switch.hosts[b].ip)

    def _gust_of_jumps(self):
        host = self._host()
        if host not in self.down:
            self.cluster.tell(host, f"jump {self.choose.randrange(SILENCE * 1000)}")

    def _gust_of_crashes(self):
        host = self._host()
        if host not in self.down and len(self.down) < len(self.hosts) // 2:
            self.cluster.kill(host)
            self.down.add(host)


LONG_FAULTS = ("halves_long", "isolated_long", "one_way_long", "paused_long", "storm")
FAULTS = ("halves_short", "isolated_short", "loss", "flap", "reset", "killed_sockets", "paused_short", "crashed",
          "restarted", "clock_jump_short", "clock_jump_long")


def plan(choose, count):
    """Names of so many steps; one in five is long, and each kind comes as often as every other one, or once more."""
    long_count = max(1, count // 5)

    def deal(kinds, number):
        rounds = [choose.sample(kinds, len(kinds)) for _ in range(-(-number // len(kinds)))]
        return [kind for one in rounds for kind in one][:number]

    steps = deal(LONG_FAULTS, long_count) + deal(FAULTS, count - long_count)
    choose.shuffle(steps)
    return steps
