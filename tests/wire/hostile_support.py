"""What the hostile scripts share: a Center under attack, the peers that must not notice, and what is checked afterwards."""

import contextlib
import os
import re
import resource
import select
import signal
import tempfile
import threading
import time
import unittest

import center_support
import hand_peer

# Nobody waits longer, however busy the machine is. A retry waits up to 61 seconds when its old port is somebody else's.
PATIENCE = 90
# A peer that nobody attacks is answered within two ticks of the relay's timer; as much again is for a busy machine.
PROBE_BOUND = 4.0
# Where a time is bounded, so many times the longest that this process itself was kept waiting are allowed besides.
GRACE = 4
PER_CONNECTION = 4096
# What a process takes beside the packets, for once: blocks that its threads keep for the next packets, and what the heap
# keeps at its ends. A quarter of it is in use after a million small packets.
ALLOWANCE = 2 << 20
# The sanitizers keep what was freed, so a build with them says nothing about memory.
MEASURES_MEMORY = not os.environ.get("CENTER_IS_SANITIZED")
STOPPED = re.compile(r"stopped; arrived (\d+) packets with \d+ bytes; handed over (\d+) = written (\d+) \+ returned (\d+) \+ "
                     r"dropped (\d+) \+ failed (\d+) \+ queued (\d+)(?:; without a connection \d+)?\n$")
LINE = re.compile(r"^[0-9:.]+ (?:warning|error) relay: (.*?)(?: \(held back \d+ times\))?$")
# What the relay prints about a connection that ends at once.
KNOCKED = "recv server init 에러"
LOOPBACK = "127.0.0.1"
# Where hostile peers connect from. A port that one of them has used stays taken for a minute, at its own address only: the
# Center's retries bind their old ports at the other one.
ELSEWHERE = ("127.0.0.2", 0)

main = center_support.main


def wait_until(condition, what, within=PATIENCE):
    """Asks again and again; says what did not come true."""
    end = time.monotonic() + within
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"not within {within} seconds: {what}")
        threading.Event().wait(0.002)


class Vitals:
    """A process seen from outside."""

    def __init__(self, pid):
        self.folder = f"/proc/{pid}"

    def descriptors(self):
        return len(os.listdir(f"{self.folder}/fd"))

    def memory(self, field):
        """Bytes of a line of its status, such as VmRSS."""
        with open(f"{self.folder}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) << 10 for line in status if line.startswith(f"{field}:"))

    def kept_waiting(self):
        """Seconds that its threads wanted a processor and had none so far, all of them together. Not every kernel counts."""
        nanoseconds = 0
        for task in os.listdir(f"{self.folder}/task"):
            with contextlib.suppress(OSError), open(f"{self.folder}/task/{task}/schedstat", "rb") as times:
                nanoseconds += int(times.read().split()[1])
        return nanoseconds / 1e9

    def start_measuring(self):
        """From now on the peak is that of what follows; what is resident now is the base."""
        with open(f"{self.folder}/clear_refs", "w", encoding="ascii") as marks:
            marks.write("5")
        self.base = self.memory("VmRSS")

    def growth(self):
        return self.memory("VmHWM") - self.base


class Stalls(threading.Thread):
    """Notes how long the machine keeps a thread waiting that wants to run."""

    def __init__(self):
        super().__init__(daemon=True)
        self.done = threading.Event()
        self.longest = 0.0

    def run(self):
        before = time.monotonic()
        while not self.done.wait(0.01):
            now = time.monotonic()
            self.longest = max(self.longest, now - before)
            before = now

    def close(self):
        self.done.set()
        self.join()


class Probe(threading.Thread):
    """A peer that behaves. Sends a packet or a call, takes what answers it, and so on without a pause or gap."""

    def __init__(self, connection, vitals):
        super().__init__(daemon=True)
        self.connection = connection
        self.vitals = vitals
        self.socket_lock = threading.Lock()
        self.done = threading.Event()
        self.answered = 0
        self.slowest = 0.0
        self.trouble = None

    def run(self):
        try:
            while not self.done.wait(0.005):
                self.ask()
        except Exception as trouble:  # whatever it is, the script that runs meanwhile has failed
            self.trouble = trouble

    def served_clock(self):
        """Seconds, without those for which the machine kept the Center from going on: a sanitized one on a busy machine
        may want a processor for long."""
        return time.monotonic() - self.vitals.kept_waiting()

    def ask(self):
        """One packet that is sent back and one call that is acknowledged; nothing else may arrive."""
        with self.socket_lock:
            number = self.answered + 1
            data = b"%020d" % number * (1 + number % 50)
            begin = self.served_clock()
            self.connection.send(hand_peer.Packet(data=data, sequence=number, code=7),
                                 hand_peer.Packet(hand_peer.CALL_RETURN, b"call", sequence=number))
            answers = [self.connection.receive() for _ in range(2)]
            self.slowest = max(self.slowest, self.served_clock() - begin)
            told = sorted((answer.kind, answer.sequence, answer.code, answer.data) for answer in answers)
            wanted = [(hand_peer.DATA, number, 7, data), (hand_peer.CALL_RETURN_ACK, number, 0, b"")]
            if told != wanted:
                raise AssertionError(f"the probe expected {wanted} and got {told}")
            self.answered = number

    def finish(self):
        self.done.set()
        if self.is_alive():
            self.join(PATIENCE)


class HostileTest(unittest.TestCase):
    """Each test is a script; what it has to leave unharmed is set up before it and checked after it."""

    # Listening sockets of the script, to which the Center shall connect.
    destinations = 0
    # What the relay may print during the scripts of the class.
    expected_lines = ()
    descriptor_limit = None
    # How often the Center has what was sent to it: twice while it sends back what nobody reads.
    copies = 1

    def setUp(self):
        self.stalls = self.keep(Stalls())
        self.stalls.start()
        self.hostile = []
        self.listeners = [self.keep(hand_peer.Listener()) for _ in range(self.destinations)]
        host = self.keep(hand_peer.Listener())
        self.start_center(host.port)
        self.vitals = Vitals(self.center.pid)
        self.probes = [self.probe_that_connects(), self.probe_that_listens(host)]
        for probe in self.probes:
            probe.ask()
        # Every destination has its socket from the start, whether or not anybody answers there.
        self.descriptors = self.vitals.descriptors() - self.count_destinations()
        self.vitals.start_measuring()
        for probe in self.probes:
            probe.start()

    def count_destinations(self):
        return len(self.listeners)

    def more_arguments(self):
        """Of the program: where else it shall connect."""
        return [word for listener in self.listeners for word in ("--connect", f"{LOOPBACK}:{listener.port}")]

    def keep(self, thing):
        self.addCleanup(thing.close)
        return thing

    def start_center(self, port_of_probe):
        # With room for bursts: connections that nobody accepts yet would else be refused and tried again seconds later.
        with tempfile.NamedTemporaryFile("w", suffix=".ini", delete=False) as file:
            file.write("[ZOLT]\nSERVER_LISTEN_BACKLOG = 1024\n")
        self.addCleanup(os.unlink, file.name)
        limit = self.descriptor_limit
        options = {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))} if limit else {}
        self.center, self.port = center_support.start_on_port(
            lambda port: ["run", "--listen", port, "--echo", "--quiet", "--config", file.name,
                          "--connect", f"{LOOPBACK}:{port_of_probe}", *self.more_arguments()], "stdout", "\n", **options)
        self.addCleanup(self.center.__exit__)

    def probe_that_connects(self):
        connection = self.keep(self.connect())
        connection.exchange_as_connecting()
        return Probe(connection, self.vitals)

    def probe_that_listens(self, host):
        connection = self.keep(host.accept(PATIENCE))
        connection.exchange_as_accepting()
        return Probe(connection, self.vitals)

    # What scripts do.

    def count_hostile(self, connection):
        self.hostile.append(connection)
        return self.keep(connection)

    def connect(self, local=ELSEWHERE, **options):
        return hand_peer.Connection.open((LOOPBACK, self.port), PATIENCE, local, **options)

    def open(self, **options):
        """A connection that nobody has said anything on."""
        return self.count_hostile(self.connect(**options))

    def open_accepted(self, **options):
        """The same once the Center has taken it, whose descriptors show that."""
        before = self.vitals.descriptors()
        connection = self.open(**options)
        wait_until(lambda: self.vitals.descriptors() > before, "the Center accepts the connection")
        return connection

    def open_established(self, **options):
        connection = self.open(**options)
        connection.exchange_as_connecting()
        return connection

    def accept(self, listener=None):
        """The Center's connection to a listening socket of the script."""
        return self.count_hostile((listener or self.listeners[0]).accept(PATIENCE))

    def accept_established(self, listener=None):
        connection = self.accept(listener)
        connection.exchange_as_accepting()
        return connection

    def expect_service(self, listener):
        """The Center connects again, and is served by who behaves now. What waited here too long it has given up."""
        while True:
            try:
                self.expect_echo(self.accept_established(listener))
                return
            except (EOFError, ConnectionError):
                continue

    def expect_echo(self, connection, data=b"still here", **fields):
        """The stream is in step, and the Center has taken everything that was sent before."""
        connection.send(hand_peer.Packet(data=data, sequence=99, **fields))
        answer = connection.receive()
        while answer.data != data:
            answer = connection.receive()
        self.assertEqual((answer.kind, answer.sequence), (hand_peer.DATA, 99))

    def count_descriptors(self):
        """Of the Center. One that has ended has none, and will have none."""
        if self.center.process.poll() is not None:
            raise AssertionError(f"the Center has ended: {self.center.finish()}")
        return self.vitals.descriptors()

    def expect_descriptors(self, count=0):
        """So many more than before the script."""
        wait_until(lambda: self.count_descriptors() == self.descriptors + count,
                   f"{self.descriptors + count} descriptors")

    def expect_growth(self, allowed):
        if MEASURES_MEMORY:
            self.assertLessEqual(self.vitals.growth(), allowed, "bytes that became resident")

    def grace(self):
        """Seconds that a busy machine may take besides."""
        return GRACE * self.stalls.longest

    def allowed_growth(self):
        sent = sum(connection.sent for connection in self.hostile)
        return self.copies * sent + PER_CONNECTION * len(self.hostile) + ALLOWANCE

    def wait_until_taken(self, connection):
        """The Center has read everything that was sent on the connection."""
        wait_until(lambda: self.kernel_queues(connection.own_port, connection.peer_port)[0] == 0 and
                   self.kernel_queues(connection.peer_port, connection.own_port)[1] == 0,
                   "the Center reads what was sent to it")

    @staticmethod
    def kernel_queues(own_port, peer_port, protocol="tcp"):
        """Bytes that wait in the kernel at one end of a connection: to be sent, and to be read."""
        end = f"{own_port:04X} {peer_port:04X}"
        with open(f"/proc/net/{protocol}", encoding="ascii") as table:
            rows = [line.split() for line in table][1:]
        queues = next(row[4] for row in rows if f"{row[1][-4:]} {row[2][-4:]}" == end)
        return [int(size, 16) for size in queues.split(":")]

    # What is checked afterwards.

    def tearDown(self):
        self.expect_growth(self.allowed_growth())
        for connection in self.hostile:
            connection.close()
        for listener in self.listeners:
            listener.close()
        self.expect_descriptors()
        self.serve_newcomer()
        # The newcomer first: it says nothing by itself, and who is silent for long is cut.
        for probe in reversed(self.probes):
            probe.finish()
            probe.ask()
            self.assertIsNone(probe.trouble, "a peer that behaved was affected")
            self.assertLess(probe.slowest, PROBE_BOUND + self.grace(), "a peer that behaved waited long")
        self.expect_end()

    def backlog(self):
        """Connections that wait for the Center to accept them."""
        return self.kernel_queues(self.port, 0)[1]

    def knock(self):
        """A burst may leave connections in the backlog: each further one, also a short one, makes the Center accept one."""
        before = self.backlog()
        self.connect().close()
        wait_until(lambda: self.backlog() <= before, "the Center accepts a connection")

    def serve_newcomer(self):
        """Somebody who connects is served."""
        newcomer = self.keep(self.connect())
        newcomer.write(newcomer.block())
        while not select.select([newcomer.socket], [], [], 0.01)[0]:
            self.knock()
        newcomer.read(hand_peer.BLOCK_SIZE)
        self.probes.append(Probe(newcomer, self.vitals))

    def expect_end(self):
        """Stops well, all packets accounted for, and nothing was printed that the scripts do not bring about."""
        self.center.signal(signal.SIGTERM)
        code, out, errors = self.center.finish(PATIENCE)
        for probe in self.probes:
            # The Center ended these first, and its ports would stay taken for retries of other tests.
            probe.connection.reset()
        self.assertEqual(code, 0, errors)
        self.arrived, *numbers = [int(number) for number in STOPPED.search(out.decode()).groups()]
        self.assertEqual(numbers[0], sum(numbers[1:]), out)
        texts = {LINE.sub(r"\1", line) for line in errors.splitlines()}
        self.assertEqual(texts - {KNOCKED, *self.expected_lines}, set(), errors)
