"""Connections as the dissector shows them: cut anywhere, seen from the middle, with gaps, with what no node sends."""

import itertools
import random
import struct
import unittest

import captures
import dissection
from hand_peer import CALL_RETURN, CALL_RETURN_ACK, CONTROL, ERROR, HEARTBEAT, Packet, opening_block

CLIENT, SERVER = ("10.0.0.1", 49152), ("10.0.0.2", 7000)
BLOCK = opening_block(CLIENT[1], SERVER[1])
ANSWER = opening_block(SERVER[1], CLIENT[1])
PACKETS = [
    Packet(data=b"hello", code=7, source=("192.168.0.10", 7000, 1), destination=("192.168.0.20", 7001, 2), sequence=42,
           creation_clock=1000000, timeout=5000000, elapsed=12).pack(),
    Packet(kind=HEARTBEAT).pack(),
    Packet(kind=CALL_RETURN, data=bytes(range(100)), sequence=2**64 - 1, flags=0xAB03).pack(),
]
STREAM = BLOCK + b"".join(PACKETS)
STARTS = [len(BLOCK + b"".join(PACKETS[:count])) for count in range(len(PACKETS))]


def shown(frames):
    """The bytes that each piece was made from, whatever frame they stand in."""
    return [piece.shown_bytes() for frame in frames for piece in frame]


def dissect_stream(*pieces, options=(), **how):
    """What is shown of one connection on which the client sends these pieces."""
    capture = captures.Capture()
    capture.connection(CLIENT, SERVER, **how).send(0, *pieces)
    return dissection.dissect(capture, *options)


def pieces_of(*sent):
    """The pieces that are shown of a client's stream, whatever frame they stand in."""
    return [piece for frame in dissect_stream(*sent) for piece in frame]


class Streams:
    """Many connections in one capture, and what is shown of each."""

    def __init__(self, **how):
        self.capture = captures.Capture()
        self.how = how
        self.owners = []

    def send(self, *pieces):
        self.send_at(*zip(itertools.accumulate([0, *map(len, pieces)]), pieces))

    def send_at(self, *placed):
        """Pieces, each with its place in the stream, in the order in which the capture saw them."""
        server = (f"10.1.{self.count() >> 8}.{self.count() & 255}", SERVER[1])
        connection = self.capture.connection(CLIENT, server, **self.how)
        start = connection.next[0]
        for place, piece in placed:
            connection.next[0] = start + place
            connection.send(0, piece)
        self.owners += [self.count()] * (len(self.capture.packets) - len(self.owners))

    def count(self):
        return self.owners[-1] + 1 if self.owners else 0

    def dissect(self, *options):
        results = [[] for _ in range(self.count())]
        for owner, frame in zip(self.owners, dissection.dissect(self.capture, *options), strict=True):
            results[owner] += shown([frame])
        return results


class Cutting(unittest.TestCase):
    def check(self, streams, *options):
        for number, result in enumerate(streams.dissect(*options)):
            self.assertEqual(result, [BLOCK, *PACKETS], f"stream {number}")

    def test_in_two_at_each_place_changes_nothing(self):
        streams = Streams()
        for place in range(1, len(STREAM)):
            streams.send(STREAM[:place], STREAM[place:])
        self.assertEqual(streams.count(), len(STREAM) - 1)
        self.check(streams)

    def test_into_single_bytes_changes_nothing(self):
        streams = Streams()
        streams.send(*(STREAM[place:place + 1] for place in range(len(STREAM))))
        self.check(streams)

    def check_placed(self, order, *options):
        """Streams in seven pieces, which the capture saw in the order that is made of them; in one pass and in two."""
        streams, chance = Streams(), random.Random(7)
        for _ in range(100):
            places = [0, *sorted(chance.sample(range(1, len(STREAM)), 6)), len(STREAM)]
            streams.send_at(*order([(first, STREAM[first:last]) for first, last in itertools.pairwise(places)], chance))
        self.check(streams, *options)
        self.check(streams, "-2", *options)

    def test_anyhow_changes_nothing_in_a_second_pass_either(self):
        self.check_placed(lambda pieces, _: pieces)

    def test_with_pieces_that_come_twice_changes_nothing(self):
        self.check_placed(lambda pieces, chance: [piece for piece in pieces for _ in range(chance.choice((1, 2)))])

    def test_with_pieces_that_come_too_late_changes_nothing(self):
        def swap(pieces, chance):
            place = chance.randrange(len(pieces) - 1)
            return [*pieces[:place], pieces[place + 1], pieces[place], *pieces[place + 2:]]
        self.check_placed(swap, "-o", "tcp.reassemble_out_of_order:TRUE")

    def test_needs_no_port_once_the_first_piece_tells_the_ports(self):
        streams = Streams()
        for place in range(8, len(STREAM), 20):
            streams.send(STREAM[:place], STREAM[place:])
        self.check(streams, "-o", "zolt.ports:", "-o", "tcp.try_heuristic_first:TRUE")

    def test_where_nothing_tells_the_ports_needs_a_port_that_was_told(self):
        capture, block = captures.Capture(), opening_block(CLIENT[1], 23456)
        capture.connection(CLIENT, (SERVER[0], 23456)).send(0, block[:3], block[3:], PACKETS[0])
        self.assertEqual(shown(dissection.dissect(capture)), [PACKETS[0]])
        for option in (("-o", "zolt.ports:23456"), ("-d", "tcp.port==23456,zolt")):
            self.assertEqual(shown(dissection.dissect(capture, *option)), [block, PACKETS[0]])

    def test_of_a_large_packet_changes_nothing(self):
        large = Packet(data=bytes(1 << 20)).pack()
        frames = dissect_stream(BLOCK, large + PACKETS[0])
        self.assertEqual(shown(frames), [BLOCK, large, PACKETS[0]])


class Both(unittest.TestCase):
    def test_directions_have_a_block_and_a_stream_of_their_own(self):
        capture = captures.Capture()
        connection = capture.connection(CLIENT, SERVER)
        connection.send(0, BLOCK[:500])
        connection.send(0, BLOCK[500:])
        connection.send(1, ANSWER[:1])
        connection.send(0, PACKETS[0][:50])
        connection.send(1, ANSWER[1:] + PACKETS[1] + PACKETS[2][:80])
        connection.send(0, PACKETS[0][50:])
        connection.send(1, PACKETS[2][80:])
        connection.finish(0)
        connection.finish(1)
        frames = dissection.dissect(capture)
        self.assertEqual([(number, shown([frame])) for number, frame in enumerate(frames) if frame],
                         [(4, [BLOCK]), (7, [ANSWER, PACKETS[1]]), (8, [PACKETS[0]]), (9, [PACKETS[2]])])

    def test_are_listed_in_words(self):
        capture = captures.Capture()
        connection = capture.connection(CLIENT, SERVER)
        connection.send(0, BLOCK, PACKETS[0], PACKETS[1] * 6)
        connection.send(1, ANSWER + Packet(kind=CALL_RETURN_ACK, sequence=8).pack(),
                        Packet(kind=CONTROL, detail=2, error=0x4000000E).pack(),
                        Packet(kind=ERROR, detail=1, error=0x40000001, sequence=9).pack(),
                        Packet(kind=77, error=5, magic=b"XXXX").pack())
        self.assertEqual(dissection.list_lines(capture)[3:], [
            "ZOLT 1064 opening block, port 49152 to port 7000",
            "ZOLT 117 data Seq=42 Code=7 Len=5",
            "ZOLT 472 heartbeat; heartbeat; heartbeat; heartbeat; and 2 more",
            "ZOLT 1136 opening block, port 7000 to port 49152; call_return_ack Seq=8 Len=0",
            "ZOLT 112 control disconnected_from_server: disconnected_tcp Seq=0 Len=0",
            "ZOLT 112 error of call_return: not_connected_tcp Seq=9 Len=0",
            "ZOLT 112 unknown 77: 0x00000005 [bad magic] Seq=0 Len=0",
        ])


class Middle(unittest.TestCase):
    """A capture that began after the connection: each stream lacks its first bytes and has no handshake."""

    def test_is_taken_up_with_the_next_header(self):
        streams = Streams(seen_from_start=False)
        # Inside the block one place is like the other.
        places = [*range(1, 10), *range(10, 1010, 50), *range(1010, len(STREAM) - 1)]
        for place in places:
            streams.send(STREAM[place:])
        for place, result in zip(places, streams.dissect(), strict=True):
            starts = [start for start in STARTS if start >= place]
            before = [STREAM[place:starts[0]]] if starts and starts[0] > place else [] if starts else [STREAM[place:]]
            self.assertEqual(result, before + PACKETS[len(PACKETS) - len(starts):], f"from byte {place} on")

    def test_is_taken_up_with_a_header_that_is_cut(self):
        streams = Streams(seen_from_start=False)
        first = STARTS[0] - 10
        for place in range(first + 1, len(STREAM)):
            streams.send(STREAM[first:place], STREAM[place:])
        for place, result in enumerate(streams.dissect("-2"), first + 1):
            self.assertEqual(b"".join(result), STREAM[first:])
            self.assertEqual(result[-len(PACKETS):], PACKETS, f"cut at {place}")

    def test_begins_with_the_block_where_the_handshake_is_missing_only(self):
        self.assertEqual(shown(dissect_stream(STREAM, seen_from_start=False)), [BLOCK, *PACKETS])

    def test_needs_no_port_where_a_segment_begins_with_a_header(self):
        frames = dissect_stream(PACKETS[2][30:], PACKETS[0], PACKETS[1], seen_from_start=False,
                                options=("-o", "zolt.ports:", "-o", "tcp.try_heuristic_first:TRUE"))
        self.assertEqual(shown(frames), PACKETS[:2])

    def test_is_found_again_behind_a_gap(self):
        capture = captures.Capture()
        connection = capture.connection(CLIENT, SERVER)
        connection.send(0, BLOCK, PACKETS[0])
        connection.lose(0, PACKETS[2][:100])
        connection.send(0, PACKETS[2][100:] + PACKETS[1], PACKETS[0])
        for option in ((), ("-2",)):
            self.assertEqual(shown(dissection.dissect(capture, *option)),
                             [BLOCK, PACKETS[0], PACKETS[2][100:], PACKETS[1], PACKETS[0]])


class Odd(unittest.TestCase):
    """What a receiver takes although no node with the reference host sends it."""

    def test_headers_are_shown_with_what_is_wrong(self):
        odd = [Packet(magic=b"ABCD", data=b"one").pack(), Packet(version=2, data=b"two").pack(),
               Packet(header_size=80, data=b"three").pack(), Packet(kind=10, flags=0x0004).pack(),
               Packet(magic=bytes(4), version=0, header_size=0).pack()]
        pieces = pieces_of(BLOCK, *odd, PACKETS[0])
        self.assertEqual([piece.shown_bytes() for piece in pieces], [BLOCK, *odd, PACKETS[0]])
        complaints = ["bad_magic", "bad_version", "bad_header_size", "bad_kind", "reserved_flags", "lost"]
        self.assertEqual([[name for name in complaints if piece.has(name)] for piece in pieces],
                         [[], ["bad_magic"], ["bad_version"], ["bad_header_size"], ["bad_kind", "reserved_flags"], ["lost"], []])

    def test_blocks_are_shown_with_what_is_wrong(self):
        for block, complaint in ((opening_block(1, 2), "other_ports"), (BLOCK[:1000].ljust(1024, b"x"), "block_rest")):
            pieces = pieces_of(block[:600], block[600:], PACKETS[0])
            self.assertEqual([piece.shown_bytes() for piece in pieces], [block, PACKETS[0]])
            self.assertTrue(pieces[0].has(complaint), complaint)
        self.assertEqual([piece.what for piece in pieces_of(bytes(1024), PACKETS[0])], ["unknown", "packet"])

    def test_ports_that_spell_the_magic_make_no_packet_of_a_block(self):
        ports = struct.unpack(">HH", b"ZOLT")
        capture = captures.Capture()
        block = opening_block(*ports)
        capture.connection(("10.0.0.1", ports[0]), ("10.0.0.2", ports[1])).send(0, block[:4], block[4:], PACKETS[0])
        self.assertEqual(shown(dissection.dissect(capture, "-o", f"zolt.ports:{ports[1]}")), [block, PACKETS[0]])

    def test_sizes_are_not_waited_for(self):
        huge = Packet(data=b"some", data_size=2**32 - 1).pack()
        pieces = pieces_of(BLOCK, huge, b"and more", PACKETS[0])
        self.assertEqual([(piece.what, piece.has("too_large")) for piece in pieces],
                         [("block", False), ("packet", True), ("unknown", False), ("packet", False)])
        self.assertEqual((pieces[1].number("data_size"), pieces[1].bytes("data")), (2**32 - 1, b"some"))

    def test_sizes_are_a_preference(self):
        packet = Packet(data=bytes(101)).pack()
        for limit, is_large in ((100, True), (101, False)):
            frames = dissect_stream(BLOCK, packet, options=("-o", f"zolt.largest_data:{limit}"))
            self.assertEqual([piece.has("too_large") for frame in frames for piece in frame], [False, is_large])

    def test_details_have_names(self):
        pieces = pieces_of(BLOCK, Packet(kind=CONTROL, detail=3).pack(), Packet(kind=ERROR, detail=1, error=0x40000001).pack(),
                             Packet(detail=9, flags=0x1201).pack())
        self.assertEqual([(piece.values.get("zolt.event"), piece.values.get("zolt.returned_kind"), piece.has("returned"))
                          for piece in pieces[1:]], [("3", None, False), (None, "1", True), (None, None, False)])
        flags = [pieces[3].number(f"flags.{name}") for name in ("broadcast", "multicast", "reserved", "application")]
        self.assertEqual(flags, [1, 0, 0, 0x12])


class Cut(unittest.TestCase):
    def test_captures_show_what_they_hold(self):
        capture = captures.Capture()
        capture.connection(CLIENT, SERVER).send(0, BLOCK, PACKETS[0], PACKETS[2])
        for held, expected in ((3, ["beginning"] * 3), (71, ["block", "beginning", "beginning"]),
                               (72, ["block", "packet", "packet"]), (77, ["block", "packet", "packet"])):
            pieces = [piece for frame in dissection.dissect(capture, longest=40 + held) for piece in frame]
            self.assertEqual([piece.what for piece in pieces], expected)
            self.assertEqual([piece.has("cut") for piece in pieces], [True, held < 77, True], held)

    def test_streams_without_reassembly_do_no_harm(self):
        frames = dissect_stream(BLOCK, PACKETS[0][:50], PACKETS[0][50:], PACKETS[1], PACKETS[2][:-1], PACKETS[2][-1:] + PACKETS[0],
                                options=("-o", "tcp.desegment_tcp_streams:FALSE"))
        pieces = [piece for frame in frames for piece in frame]
        self.assertEqual([(piece.what, piece.has("cut")) for piece in pieces],
                         [("block", False), ("beginning", True), ("unknown", False), ("packet", False), ("packet", True),
                          ("unknown", False), ("packet", False)])


class Broken(unittest.TestCase):
    def test_streams_are_shown_as_far_as_they_go(self):
        chance, streams, sent = random.Random(11), Streams(), []
        for _ in range(300):
            data = bytearray(STREAM)
            for _ in range(chance.randint(1, 30)):
                data[chance.choice((chance.randrange(8), chance.randrange(1024, len(data))))] = chance.randrange(256)
            place = chance.randrange(1, len(data))
            sent.append(bytes(data))
            streams.send(sent[-1][:place], sent[-1][place:])
        results = streams.dissect()
        for data, result in zip(sent, results, strict=True):
            self.assertTrue(data.startswith(b"".join(result)))
        self.assertGreater(sum(map(len, results)), 2 * len(sent))

    def test_streams_of_chance_bytes_are_unknown(self):
        chance = random.Random(13)
        streams = Streams(seen_from_start=False)
        sent = [chance.randbytes(chance.randrange(1, 3000)) for _ in range(200)]
        for data in sent:
            streams.send(data)
        self.assertEqual([b"".join(result) for result in streams.dissect()], sent)
        self.assertEqual(streams.dissect("-o", "zolt.ports:"), [[]] * 200)


if __name__ == "__main__":
    dissection.main()
