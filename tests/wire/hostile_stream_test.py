"""Peers that abuse an established connection. Each script runs on a connection that the peer opened and on one that the
Center opened."""

import itertools
import random
import socket
import time

import hand_peer
import hostile_support as support
from hand_peer import Packet

ROOM = 4096
# So many show in the memory. A sanitized program, which is slow, is asked for less: more than the inbox holds.
MANY = 1_000_000 if support.MEASURES_MEMORY else 100_000
UNREAD_CALLS = 300_000 if support.MEASURES_MEMORY else 60_000
GARBAGE_SEED = 20_011
LARGE = 64 << 20
# An answer that waits is a header of 72 bytes, and as much again: what is known about it, its node, its place in the queue;
# and what the account keeps of it.
PER_ANSWER = 192
# So many packets wait for the Center's own threads before a connection has to wait for them; each is as large.
INBOX_PACKETS = 49_152
# What the program gives itself to stop.
STOP_TIME = 5


class Stream:
    """The scripts. A subclass says whose connection it is."""

    destinations = 1
    waiting_answers = 0
    waiting_acknowledgements = 0
    expected_lines = ("recv server 에러", "recv client 에러", "connect err:111", "bind")

    def establish(self, room=None):
        raise NotImplementedError

    def cuts(self, count):
        """How often a script that loses its connection begins again."""
        raise NotImplementedError

    def allowed_growth(self):
        return super().allowed_growth() + self.waiting_answers * PER_ANSWER

    def test_resets_within_each_byte_of_a_header(self):
        header = Packet(data_size=100).pack()
        for size in self.cuts(len(header)):
            with self.subTest(size=size):
                peer = self.establish()
                peer.write(header[:size])
                peer.reset()

    def test_ends_within_the_data(self):
        packet = Packet(data=bytes(1000)).pack()
        for size in self.cuts(2):
            peer = self.establish()
            peer.write(packet[:-1 - size])
            peer.close()

    def test_claims_another_layout(self):
        peer = self.establish()
        peer.send(Packet(version=2), Packet(version=0xFFFF), Packet(magic=b"HTTP"), Packet(header_size=0),
                  Packet(header_size=0xFFFF), Packet(magic=bytes(4), data=b"no magic"))
        self.expect_echo(peer)

    def test_sends_every_kind_with_and_without_data(self):
        peer = self.establish()
        for kind, data in itertools.product(range(256), (b"", b"data")):
            peer.send(Packet(kind, data, detail=kind, flags=0xFFFF, error=0xFFFF_FFFF, code=0xFFFF_FFFF,
                             sequence=0xFFFF_FFFF_FFFF_FFFF))
        self.expect_echo(peer)

    def test_tells_times_that_cannot_be(self):
        peer = self.establish()
        for moment, timeout, elapsed in itertools.product((0, 1, 1 << 63, (1 << 64) - 1), repeat=3):
            peer.send(Packet(data=b"when?", creation_clock=moment, timeout=timeout, elapsed=elapsed))
        self.expect_echo(peer)

    def test_acknowledges_what_nobody_asked(self):
        peer = self.establish()
        for kind in (hand_peer.CALL_RETURN_ACK, hand_peer.SIGNAL_RETURN_ACK):
            peer.send(Packet(kind), Packet(kind, b"with data"))
        self.expect_echo(peer)

    def test_acknowledges_a_million_times(self):
        self.flood(Packet(hand_peer.CALL_RETURN_ACK), MANY, self.waiting_acknowledgements)

    def test_floods_with_heartbeats(self):
        self.flood(Packet(hand_peer.HEARTBEAT), MANY // 4)

    def flood(self, packet, count, waiting=0):
        """What the Center keeps of it is nothing, however much was sent; at most so many waited meanwhile."""
        peer = self.establish()
        batch = packet.pack() * 1000
        for _ in range(count // 1000):
            peer.write(batch)
        self.expect_echo(peer)
        self.expect_growth(support.ALLOWANCE + PER_ANSWER * waiting)

    def test_sends_heartbeats_with_data(self):
        peer = self.establish()
        peer.send(*[Packet(hand_peer.HEARTBEAT, b"still alive" * size) for size in range(1, 100)])
        self.expect_echo(peer)

    def test_pretends_to_be_the_relay(self):
        """Control packets about the peers that behave, and about all others."""
        peer = self.establish()
        for event, source in itertools.product(range(6), self.addresses()):
            peer.send(Packet(hand_peer.CONTROL, detail=event, source=source, error=0x4000_000E),
                      Packet(hand_peer.CONTROL, b"with data", detail=event, source=source))
        self.expect_echo(peer)

    def test_forges_every_address(self):
        peer = self.establish()
        for kind, source, destination in itertools.product(range(10), self.addresses(), self.addresses()):
            peer.send(Packet(kind, b"forged", source=source, destination=destination))
        self.expect_echo(peer)

    def addresses(self):
        victims = [(*end, 0) for probe in self.probes
                   for end in (probe.connection.socket.getsockname(), probe.connection.socket.getpeername())]
        return [*victims, (support.LOOPBACK, self.port, 1), ("0.0.0.0", 0, 0), ("255.255.255.255", 65535, 65535),
                ("224.0.0.1", 1, 1)]

    def test_sends_headers_of_garbage(self):
        """In every field but the size; a stream that is garbage in that one too is ended as silent."""
        chance = random.Random(GARBAGE_SEED)
        peer = self.establish()
        for _ in range(5000):
            data = chance.randbytes(chance.randrange(100))
            peer.write(chance.randbytes(12) + len(data).to_bytes(4, "big") + chance.randbytes(56) + data)
        self.expect_echo(peer)

    def test_sends_urgent_data_between_and_within_packets(self):
        peer = self.establish()
        packet = Packet(data=b"urgent").pack()
        for place in (0, 1, 71, 72, 73, len(packet)):
            peer.write(packet[:place])
            peer.write_urgent(b"!")
            peer.write(packet[place:])
            self.assertEqual(peer.receive().data, b"urgent")
        # One that the next one overtakes stays in the stream, and as many as a header has bytes would be one.
        for _ in range(hand_peer.HEADER_SIZE - 1):
            peer.write_urgent(b"!")
        peer.reset()

    def test_half_closes_at_once(self):
        peer = self.establish()
        peer.finish()
        self.assertTrue(peer.has_ended(support.PATIENCE))

    def test_half_closes_while_answers_are_on_their_way(self):
        self.copies = 2
        peer = self.establish(room=ROOM)
        peer.send(*[Packet(data=bytes(10_000), sequence=number) for number in range(500)])
        peer.finish()
        self.assertTrue(peer.has_ended(support.PATIENCE))

    def test_sends_a_large_packet_but_its_last_byte(self):
        peer = self.establish()
        peer.write(Packet(data=bytes(LARGE)).pack()[:-1])
        self.wait_until_taken(peer)
        self.assertGreater(self.vitals.growth(), LARGE // 2)

    def test_never_reads(self):
        self.copies = 2
        peer = self.establish(room=ROOM)
        peer.send(*[Packet(data=bytes(1_000_000))] * 16)
        self.wait_until_taken(peer)

    def test_never_reads_and_resets(self):
        self.copies = 2
        peer = self.establish(room=ROOM)
        peer.send(*[Packet(data=bytes(1_000_000))] * 16)
        peer.reset()

    def test_never_reads_the_answers_to_its_calls(self):
        peer = self.establish(room=ROOM)
        for _ in range(UNREAD_CALLS // 1000):
            peer.send(*[Packet(hand_peer.CALL_RETURN)] * 1000)
        self.wait_until_taken(peer)
        self.waiting_answers = UNREAD_CALLS

    def test_sends_packets_in_tiny_segments(self):
        peer = self.establish()
        for byte in 3 * Packet(data=b"crumbs").pack():
            peer.write(bytes([byte]))
        self.assertEqual([peer.receive().data for _ in range(3)], [b"crumbs"] * 3)


class Accepted(Stream, support.HostileTest):
    destinations = 0

    def establish(self, room=None):
        return self.open_established(room=room)

    def cuts(self, count):
        return range(count)

    def test_reconnects_in_a_storm(self):
        for _ in range(1000):
            self.expect_echo(self.establish())
            self.hostile[-1].reset()


class Outgoing(Stream, support.HostileTest):
    waiting_acknowledgements = INBOX_PACKETS  # on this side they are the Center's

    def establish(self, room=None):
        if room is not None:
            self.listeners[0].socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, room)
        return self.accept_established()

    def cuts(self, count):
        """The Center connects again with its next tick: a few cuts, the first and the last among them."""
        return sorted({0, count // 2, count - 1})


class Stopping(support.HostileTest):
    """A Center that is told to stop while peers stand in its way."""

    destinations = 3
    expected_lines = Stream.expected_lines

    def tearDown(self):
        """The script itself has seen to the end."""

    def test_stops_under_peers_in_every_state(self):
        self.open_accepted()
        self.open_accepted().write(bytes(hand_peer.BLOCK_SIZE - 1))
        self.accept(self.listeners[0]).read(hand_peer.BLOCK_SIZE)
        for peer in (self.open_established(room=ROOM), self.accept_established(self.listeners[1])):
            peer.send(*[Packet(data=bytes(1_000_000))] * 8)
        for peer in (self.open_established(), self.accept_established(self.listeners[2])):
            peer.write(Packet(data_size=1000).pack()[:-1])
        for probe in self.probes:
            probe.finish()
            self.assertIsNone(probe.trouble, "a peer that behaved was affected")
        begin = time.monotonic()
        self.expect_end()
        self.assertLess(time.monotonic() - begin, STOP_TIME + self.grace())


if __name__ == "__main__":
    support.main()
