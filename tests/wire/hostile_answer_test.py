"""Peers that a Center connects to, and that abuse the opening blocks."""

import collections
import contextlib
import itertools

import hand_peer
import hostile_support as support

BLOCK = hand_peer.BLOCK_SIZE
# "bind": somebody else, perhaps of another test, has the port that a retry binds again.
CUT = ("recv client init 에러", "send client init 에러", "recv client 에러", "connect err:111", "bind")


class Answer(support.HostileTest):
    destinations = 1
    expected_lines = CUT

    def accept_and_write(self, *pieces):
        """Takes the Center's block and answers with something."""
        peer = self.accept()
        peer.read(BLOCK)
        for piece in pieces:
            peer.write(piece)
        return peer

    def test_the_center_tells_both_ports_first(self):
        peer = self.accept()
        self.assertEqual(peer.read(BLOCK), hand_peer.opening_block(peer.peer_port, self.listeners[0].port))
        peer.reset()
        self.expect_service(self.listeners[0])

    def test_resets_at_once(self):
        for _ in range(3):
            self.accept().reset()
        self.expect_service(self.listeners[0])

    def test_half_closes_before_its_block(self):
        peer = self.accept()
        peer.finish()
        self.assertTrue(peer.has_ended(support.PATIENCE))
        self.expect_service(self.listeners[0])

    def test_half_closes_after_1023_bytes(self):
        peer = self.accept_and_write(bytes(BLOCK - 1))
        peer.finish()
        self.assertTrue(peer.has_ended(support.PATIENCE))
        self.expect_service(self.listeners[0])

    def test_half_closes_after_its_block(self):
        peer = self.accept_established()
        peer.finish()
        self.assertTrue(peer.has_ended(support.PATIENCE))
        self.expect_service(self.listeners[0])

    def test_sends_its_block_before_the_center_has(self):
        peer = self.accept()
        peer.write(peer.block())
        peer.read(BLOCK)
        self.expect_echo(peer)

    def test_sends_its_block_a_byte_at_a_time(self):
        self.expect_echo(self.accept_and_write(*[b"\0"] * BLOCK))

    def test_sends_its_block_twice(self):
        peer = self.accept_and_write(2 * bytes(BLOCK), bytes(-BLOCK % hand_peer.HEADER_SIZE))
        self.expect_echo(peer)

    def test_writes_nonsense_into_its_block(self):
        for block in (b"\xff" * BLOCK, hand_peer.opening_block(1, 0), hand_peer.opening_block(65535, self.port)):
            peer = self.accept_and_write(block)
            self.expect_echo(peer)
            peer.reset()

    def test_sends_packets_instead_of_its_block(self):
        peer = self.accept_and_write((15 * hand_peer.Packet(data=b"too early").pack())[:BLOCK])
        self.expect_echo(peer)

    def test_calls_together_with_its_block(self):
        call = hand_peer.Packet(hand_peer.CALL_RETURN, b"at once", sequence=5)
        peer = self.accept()
        peer.write(peer.block() + call.pack())
        peer.read(BLOCK)
        answer = peer.receive()
        self.assertEqual((answer.kind, answer.sequence, answer.data), (hand_peer.CALL_RETURN_ACK, 5, b""))

    def test_sends_urgent_data_within_its_block(self):
        peer = self.accept_and_write(bytes(512))
        peer.write_urgent(b"!")
        peer.write(bytes(512))
        self.expect_echo(peer)

    def test_resets_after_each_establishment(self):
        for _ in range(3):
            self.accept_established().reset()
        self.expect_service(self.listeners[0])

    def test_stops_listening_and_comes_back(self):
        port = self.listeners[0].port
        self.listeners[0].close()
        self.expect_descriptors()
        again = self.keep(hand_peer.Listener(port=port))
        self.expect_service(again)
        again.close()


class EachByte(support.HostileTest):
    """Many destinations with one listener, since the Center tries each again only once a second."""

    expected_lines = CUT
    addresses = [f"127.0.{high}.{low}" for high, low in itertools.product((2, 3), range(1, 201))]

    def setUp(self):
        self.everywhere = self.keep(hand_peer.Listener(host=""))
        super().setUp()

    def count_destinations(self):
        return len(self.addresses)

    def more_arguments(self):
        return [word for address in self.addresses for word in ("--connect", f"{address}:{self.everywhere.port}")]

    def test_ends_at_each_byte_in_both_directions(self):
        ends = collections.deque(itertools.product((self.reset_while_reading, self.reset_while_writing,
                                                    self.close_while_writing), range(BLOCK + 1)))
        while ends:
            end, size = ends.popleft()
            end(self.accept(self.everywhere), size)
        # Afterwards they behave, for one connection each: nobody was given up.
        served = set()
        while len(served) < len(self.addresses):
            peer = self.accept(self.everywhere)
            # What waited here too long the Center has given up; it comes again.
            with contextlib.suppress(EOFError, ConnectionError):
                peer.exchange_as_accepting()
                self.expect_echo(peer)
                served.add(peer.socket.getsockname()[0])
            peer.reset()
        self.everywhere.close()

    @staticmethod
    def reset_while_reading(peer, size):
        peer.read(size)
        peer.reset()

    @staticmethod
    def reset_while_writing(peer, size):
        peer.read(BLOCK)
        peer.write(peer.block()[:size])
        peer.reset()

    @staticmethod
    def close_while_writing(peer, size):
        peer.read(BLOCK)
        peer.write(peer.block()[:size])
        peer.close()


if __name__ == "__main__":
    support.main()
