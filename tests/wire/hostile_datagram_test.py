"""Senders of datagrams that are no packets, or packets that lie."""

import random
import socket

import hand_peer
import hostile_support as support
from hand_peer import Packet

LARGEST_DATAGRAM = 65507
GARBAGE_SEED = 20_023
MANY = 4000
# Datagrams that surely have room in the socket together.
BURST = 100


class Datagrams(support.HostileTest):
    expected_lines = ("send_size!= sent_size", "recd_len!= recv_len", "! p_pkt->is_right_version()")

    def setUp(self):
        super().setUp()
        self.sender = self.keep(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        self.sent = 0
        self.good = 0

    def throw_at_once(self, datagrams):
        for datagram in datagrams:
            self.sender.sendto(datagram, (support.LOOPBACK, self.port))
            self.sent += len(datagram)

    def throw(self, *datagrams):
        """One after the other: behind one that is dropped the next would wait for a further one."""
        for datagram in datagrams:
            self.throw_at_once([datagram])
            self.wait_until_taken()

    def throw_good(self, *packets):
        self.throw(*[packet.pack() for packet in packets])
        self.good += len(packets)

    def wait_until_taken(self):
        support.wait_until(lambda: self.waiting() == 0, "the Center reads its datagrams")

    def waiting(self):
        return self.kernel_queues(self.port, 0, "udp")[1]

    def allowed_growth(self):
        return super().allowed_growth() + self.sent

    def tearDown(self):
        self.throw_good(*[Packet(data=b"still here")] * 3)
        super().tearDown()
        # Besides what the probes sent: each good one, and its echo if that came back before the end. It goes to the
        # port that the Center itself has.
        datagrams = self.arrived - 2 * sum(probe.answered for probe in self.probes)
        self.assertIn(datagrams, range(self.good, 2 * self.good + 1))

    def test_of_every_size_below_a_header(self):
        self.throw(*[Packet().pack()[:size] for size in range(hand_peer.HEADER_SIZE)])

    def test_without_a_byte(self):
        self.throw(*[b""] * 1000)

    def test_in_a_burst(self):
        """Each one that follows takes one away, and the first good one all that is left."""
        self.throw_at_once([b"bad"] * BURST)
        while (before := self.waiting()) != 0:
            self.throw_at_once([Packet().pack()])
            self.good += 1
            support.wait_until(lambda: self.waiting() <= before, "the Center takes one away")

    def test_of_another_layout(self):
        self.throw(Packet(version=2).pack(), Packet(magic=b"ZOLU").pack(), Packet(header_size=71).pack(),
                   Packet(version=0, data=b"data").pack(), bytes(72), b"\xff" * 72)

    def test_that_lack_what_they_announce(self):
        for size in (1, 65435, 65436, 1 << 24, 1 << 28, (1 << 28) + 1, 0xFFFF_FFB8, 0xFFFF_FFFF):
            self.throw(Packet(data_size=size).pack(), Packet(data=b"some", data_size=size + 4 & 0xFFFF_FFFF).pack())

    def test_that_bring_more_than_they_announce(self):
        self.throw(Packet().pack() + b"!", Packet(data=b"data", data_size=3).pack(),
                   Packet(data=bytes(60_000), data_size=1).pack())

    def test_of_the_largest_size(self):
        largest = Packet(data=bytes(hand_peer.LARGEST_DATAGRAM_DATA))
        self.assertEqual(len(largest.pack()), LARGEST_DATAGRAM)
        self.throw_good(largest)
        self.throw(bytes(LARGEST_DATAGRAM), Packet(data=bytes(LARGEST_DATAGRAM - 72), data_size=0).pack())

    def test_of_garbage(self):
        chance = random.Random(GARBAGE_SEED)
        for _ in range(MANY):
            self.throw(chance.randbytes(chance.randrange(200)))

    def test_of_garbage_behind_the_right_layout(self):
        chance = random.Random(GARBAGE_SEED)
        for _ in range(MANY):
            self.throw(Packet().pack()[:8] + chance.randbytes(chance.randrange(64, 200)))
        self.expect_growth(self.allowed_growth())

    def test_of_every_kind(self):
        self.throw_good(*[Packet(kind, b"data", detail=kind, flags=0xFF00) for kind in range(256)],
                        *[Packet(kind, error=1, code=1) for kind in range(256)])

    def test_that_pretend_to_be_the_relay(self):
        for probe in self.probes:
            for event in range(6):
                self.throw_good(Packet(hand_peer.CONTROL, detail=event, error=0x4000_000E,
                                       source=(*probe.connection.socket.getsockname(), 0)))

    def test_that_forge_every_address(self):
        for probe in self.probes:
            victim = (*probe.connection.socket.getsockname(), 0)
            for kind in range(10):
                self.throw_good(Packet(kind, b"forged", source=victim), Packet(kind, b"forged", destination=victim),
                                Packet(kind, source=("255.255.255.255", 0, 0), destination=("224.0.0.1", 0, 0)))


if __name__ == "__main__":
    support.main()
