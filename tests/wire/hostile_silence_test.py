"""Peers that fall silent: within the opening block, within a packet, or between two. All at the same time, since it takes a
while until they are given up."""

import dataclasses
import random
import select
import socket
import time

import hand_peer
import hostile_support as support
from hand_peer import Packet

BLOCK = hand_peer.BLOCK_SIZE
SILENCE = 8.0
# The next tick, one more for a connection that is not watched for reading any more, and what a busy machine takes.
LATEST = SILENCE + 1 + 1 + 4
DRIP_PAUSE = 0.25
CROWD = 200
LARGEST_DATA = 256 << 20
GARBAGE = random.Random(20_029).randbytes(10_000)

# What a peer still writes before it falls silent.
WITHIN_THE_BLOCK = {
    "says nothing": b"",
    "sends a byte": b"\0",
    "sends 1023 bytes": bytes(BLOCK - 1),
}
ESTABLISHED = {
    "says nothing more": b"",
    "sends half a header": Packet().pack()[:36],
    "announces a mebibyte and sends none of it": Packet(data_size=1 << 20).pack(),
    "announces the largest packet and sends little of it": Packet(data=bytes(1000), data_size=LARGEST_DATA).pack(),
    "announces more than the largest packet": Packet(data=bytes(1000), data_size=LARGEST_DATA + 1).pack(),
    "announces 4 GiB": Packet(data=bytes(1000), data_size=0xFFFF_FFFF).pack(),
    "announces 4 GiB in a call": Packet(hand_peer.CALL_RETURN, bytes(1000), data_size=0xFFFF_FFFF).pack(),
    "sends garbage": GARBAGE,
    "sends a packet and garbage": Packet(data=b"good").pack() + GARBAGE,
}


@dataclasses.dataclass
class Script:
    """A peer on its way into silence. Its connection was made, or heard of last, between the two moments."""

    name: str
    peer: hand_peer.Connection
    not_before: float
    not_after: float
    drips: bytes = b""
    ended: float = None

    def drip(self):
        """The next single byte."""
        if self.drips and self.ended is None:
            try:
                self.peer.write(self.drips[:1])
                self.drips = self.drips[1:]
            except ConnectionError:
                self.ended = time.monotonic()

    def look(self):
        """Notes the end of a connection that can be read."""
        try:
            if not self.peer.socket.recv(1 << 16):
                self.ended = time.monotonic()
        except ConnectionError:
            self.ended = time.monotonic()


class Silence(support.HostileTest):
    expected_lines = ("recv server 에러", "recv client 에러", "recv client init 에러", "connect err:111", "bind",
                      "epoll_recv_thread_entry catch: ")
    # One for each script on the Center's own connections, and one that drips.
    destinations = len(WITHIN_THE_BLOCK) + len(ESTABLISHED) + 1

    def setUp(self):
        self.before = time.monotonic()
        self.blocked = self.keep(hand_peer.Listener(backlog=0))
        self.fillers = [self.keep(socket.create_connection((support.LOOPBACK, self.blocked.port)))]
        super().setUp()
        self.scripts = []
        self.unused = iter(self.listeners)

    def count_destinations(self):
        return super().count_destinations() + 1

    def more_arguments(self):
        return [*super().more_arguments(), "--connect", f"{support.LOOPBACK}:{self.blocked.port}"]

    def begin(self, name, make, text, drips=b"", before=None):
        """A script on a connection that is made now. What is written last is what the Center hears last."""
        peer = make()
        not_before = before or time.monotonic()
        peer.write(text)
        self.scripts.append(Script(name, peer, not_before, time.monotonic(), drips))

    def begin_all(self):
        block = hand_peer.opening_block(1, 1)
        accept = lambda: self.accept(next(self.unused))
        for name, text in WITHIN_THE_BLOCK.items():
            self.begin(f"{name}; accepted", self.open_accepted, text, before=self.before)
            self.begin(f"{name}; outgoing", accept, text, before=self.before)
        self.begin("a byte of the block at a time; accepted", self.open_accepted, b"", block, self.before)
        self.begin("a byte of the block at a time; outgoing", accept, b"", block, self.before)
        for name, text in ESTABLISHED.items():
            self.begin(f"{name}; accepted", self.open_established, text)
            self.begin(f"{name}; outgoing", lambda: self.accept_established(next(self.unused)), text)
        for number in range(CROWD):
            self.begin(f"one of a crowd: {number}", self.open_accepted, b"", before=self.before)

    def watch(self, survivor):
        """Until every script's connection has ended, or none will any more."""
        while any(script.ended is None for script in self.scripts):
            if time.monotonic() > self.scripts[-1].not_after + LATEST + self.grace():
                return
            for script in [*self.scripts, survivor]:
                script.drip()
            self.look_for(DRIP_PAUSE)

    def look_for(self, seconds):
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            running = {script.peer.socket: script for script in self.scripts if script.ended is None}
            for readable in select.select(list(running), [], [], left)[0] if running else ():
                running[readable].look()
            if not running:
                return

    def test_silent_peers_are_given_up_and_no_sooner(self):
        survivor = Script("a byte of a packet at a time", self.open_established(), 0, 0,
                          Packet(data=b"slow", sequence=99).pack())
        self.begin_all()
        self.watch(survivor)
        for script in self.scripts:
            with self.subTest(script.name):
                self.assertIsNotNone(script.ended, "the Center kept the connection")
                self.assertGreaterEqual(script.ended - script.not_before, SILENCE, "seconds, given up early")
                self.assertLessEqual(script.ended - script.not_after, LATEST + self.grace(), "seconds, given up late")
        self.expect_growth(self.allowed_growth())
        survivor.peer.write(survivor.drips)
        self.assertEqual(survivor.peer.receive().data, b"slow")
        self.expect_all_destinations_served()

    def expect_all_destinations_served(self):
        # The Center ended these connections first. A reset makes its port free, which it binds again.
        for script in self.scripts:
            script.peer.reset()
        for listener in self.listeners:
            self.expect_service(listener)
        self.blocked.accept(support.PATIENCE).close()
        self.expect_service(self.blocked)
        self.blocked.close()


if __name__ == "__main__":
    support.main()
