"""Peers that connect to a Center and abuse the opening blocks."""

import hand_peer
import hostile_support as support

BLOCK = hand_peer.BLOCK_SIZE
ENDINGS = {"FIN": hand_peer.Connection.close, "RST": hand_peer.Connection.reset}


class Exchange(support.HostileTest):
    expected_lines = ("recv server 에러", "send server init 에러")

    def test_connects_and_resets_at_once(self):
        for _ in range(200):
            self.open().reset()

    def test_ends_after_each_byte_of_its_block(self):
        for size in range(BLOCK + 1):
            for name, end in ENDINGS.items():
                with self.subTest(ending=name, size=size):
                    peer = self.open_accepted()
                    peer.write(peer.block()[:size])
                    end(peer)
                    self.expect_descriptors()

    def test_resets_after_each_byte_of_the_answer(self):
        for size in range(BLOCK + 1):
            with self.subTest(size=size):
                peer = self.open_accepted()
                peer.write(peer.block())
                peer.read(size)
                peer.reset()
                self.expect_descriptors()

    def test_half_closes_after_1023_bytes(self):
        peer = self.open()
        peer.write(peer.block()[:-1])
        peer.finish()
        self.assertTrue(peer.has_ended(support.PATIENCE))

    def test_half_closes_after_its_block(self):
        peer = self.open()
        peer.write(peer.block())
        peer.finish()
        self.assertEqual(peer.read(BLOCK), self.block_from_center(peer))
        self.assertTrue(peer.has_ended(support.PATIENCE))

    def block_from_center(self, peer):
        return hand_peer.opening_block(self.port, peer.own_port)

    def test_sends_its_block_a_byte_at_a_time(self):
        peer = self.open()
        for byte in peer.block():
            peer.write(bytes([byte]))
        self.assertEqual(peer.read(BLOCK), self.block_from_center(peer))
        self.expect_echo(peer)

    def test_writes_nonsense_into_its_block(self):
        for block in (bytes(BLOCK), b"\xff" * BLOCK, b"\0\0".join([b"\0\0"] * 341)[:BLOCK].ljust(BLOCK, b"\x80"),
                      hand_peer.opening_block(1, 0), hand_peer.opening_block(0, 65535),
                      hand_peer.Packet(version=2, magic=b"XXXX").pack().ljust(BLOCK, b"\0")):
            with self.subTest(block=block[:8]):
                peer = self.open()
                peer.write(block)
                self.assertEqual(peer.read(BLOCK), self.block_from_center(peer))
                self.expect_echo(peer)

    def test_says_in_its_block_that_it_is_somebody_else(self):
        victim = self.probes[0].connection
        peer = self.open()
        peer.write(hand_peer.opening_block(victim.own_port, victim.own_port))
        peer.read(BLOCK)
        self.expect_echo(peer)

    def test_sends_its_block_twice(self):
        peer = self.open()
        peer.write(2 * peer.block())
        peer.read(BLOCK)
        # Fourteen headers without data, and one that lacks its end; what follows completes it.
        peer.write(bytes(-BLOCK % hand_peer.HEADER_SIZE))
        self.expect_echo(peer)

    def test_sends_packets_instead_of_its_block(self):
        peer = self.open()
        peer.write((15 * hand_peer.Packet(data=b"too early").pack())[:BLOCK])
        peer.read(BLOCK)
        self.expect_echo(peer)

    def test_sends_packets_together_with_its_block(self):
        peer = self.open()
        peer.write(peer.block() + hand_peer.Packet(data=b"at once").pack())
        peer.read(BLOCK)
        self.assertEqual(peer.receive().data, b"at once")

    def test_sends_urgent_data_within_its_block(self):
        peer = self.open()
        peer.write(peer.block()[:512])
        peer.write_urgent(b"!")
        peer.write(peer.block()[512:])
        peer.read(BLOCK)
        self.expect_echo(peer)

    def test_resets_while_the_answer_is_unread(self):
        for _ in range(200):
            peer = self.open()
            peer.write(peer.block() + hand_peer.Packet(data=b"and gone").pack())
            peer.close()

    def test_connects_often_at_once_and_never_finishes(self):
        for size in range(200):
            peer = self.open()
            peer.write(peer.block()[:size])
        while self.vitals.descriptors() < self.descriptors + 200:
            self.knock()

    def test_connects_in_a_storm(self):
        for _ in range(1000):
            self.open_established().reset()


class FromTheDestinationsPort(support.HostileTest):
    """Whoever the Center connects to also connects to the Center, with one address for both connections."""

    expected_lines = (*Exchange.expected_lines, "recv client 에러", "connect err:111")
    destinations = 1

    def setUp(self):
        super().setUp()
        self.taken = self.accept_established()
        self.expect_echo(self.taken)
        self.listeners[0].close()

    def expect_that_one_may_end(self, first, last):
        """A Center tells its peers apart by their addresses, so who of the two gets an answer is open."""
        for peer in (first, last):
            peer.send(*[hand_peer.Packet(data=b"from one of two")] * 100)
        first.reset()
        self.expect_descriptors(1)
        last.send(*[hand_peer.Packet(hand_peer.CALL_RETURN, b"from the other")] * 100)
        last.reset()
        self.expect_descriptors()

    def open_from_there(self):
        peer = self.open(local=(support.LOOPBACK, self.taken.own_port))
        peer.exchange_as_connecting()
        return peer

    def test_has_two_connections_and_ends_its_own_first(self):
        self.expect_that_one_may_end(self.open_from_there(), self.taken)

    def test_has_two_connections_and_ends_the_centers_first(self):
        self.expect_that_one_may_end(self.taken, self.open_from_there())


class FewDescriptors(support.HostileTest):
    expected_lines = (*Exchange.expected_lines, "소켓 엑셉트 실패")
    descriptor_limit = 64

    def test_takes_all_descriptors(self):
        while self.vitals.descriptors() < self.descriptor_limit:
            self.open_accepted()
        for _ in range(20):
            self.open()


if __name__ == "__main__":
    support.main()
