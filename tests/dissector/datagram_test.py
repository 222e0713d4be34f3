"""Datagrams as the dissector shows them, whole, of another length than they say, and on any port."""

import random
import unittest

import captures
import dissection
from hand_peer import COMMAND_UDP, INFORMATION_UDP, LARGEST_DATAGRAM_DATA, Packet

SENDER, RECEIVER = ("10.0.0.1", 7000), ("10.0.0.2", 7000)
WHOLE = [
    Packet(data=b"hello", sequence=1).pack(),
    Packet(kind=COMMAND_UDP, flags=1, sequence=2).pack(),
    Packet(kind=INFORMATION_UDP, flags=2, data=bytes(range(256)), sequence=3, timeout=1500000, elapsed=20).pack(),
    Packet(data=bytes(LARGEST_DATAGRAM_DATA)).pack(),
]


def dissect(*datagrams, options=(), port=7000, **how):
    """For each datagram the one piece that is shown, or nothing."""
    capture = captures.Capture()
    for data in datagrams:
        capture.datagram((SENDER[0], port), (RECEIVER[0], port), data)
    frames = dissection.dissect(capture, *options, **how)
    return [frame[0] if frame else None for frame in frames]


class Datagrams(unittest.TestCase):
    def test_are_shown_as_they_are(self):
        pieces = dissect(*WHOLE)
        self.assertEqual([piece.shown_bytes() for piece in pieces], WHOLE)
        self.assertFalse(any(piece.has("bad_length") or piece.has("cut") for piece in pieces))

    def test_are_recognised_on_any_port(self):
        pieces = dissect(*WHOLE, port=23456)
        self.assertEqual([piece.shown_bytes() for piece in pieces], WHOLE)

    def test_of_others_are_left_alone(self):
        others = [b"ZOLT", b"ZOLT\0\2\0\x48".ljust(72, b"\0"), b"ZOLT\0\1\0\x50".ljust(80, b"\0"), bytes(72), b"zolt" * 20]
        self.assertEqual(dissect(*others, port=23456), [None] * len(others))

    def test_that_are_broken_are_shown_on_a_port_that_was_told(self):
        broken = [Packet(version=2).pack(), Packet(magic=b"zolt").pack(), Packet(header_size=73).pack()]
        pieces = dissect(*broken, port=23456, options=("-o", "zolt.ports:23000-24000"))
        self.assertEqual([piece.shown_bytes() for piece in pieces], broken)
        self.assertEqual([[name for name in ("bad_version", "bad_magic", "bad_header_size") if piece.has(name)]
                          for piece in pieces], [["bad_version"], ["bad_magic"], ["bad_header_size"]])

    def test_of_another_length_than_they_say_are_marked(self):
        pieces = dissect(b"Z", WHOLE[0][:71], WHOLE[0][:72], WHOLE[0][:-1], WHOLE[0] + b"!", Packet(data_size=2**32 - 1).pack())
        self.assertTrue(all(piece.has("bad_length") for piece in pieces))
        self.assertEqual([piece.what for piece in pieces], ["beginning"] * 2 + ["packet"] * 4)
        self.assertEqual([piece.bytes("data") for piece in pieces[2:]], [b"", b"hell", b"hello", b""])

    def test_of_which_the_capture_lacks_the_end_are_no_fault_of_their_sender(self):
        for held, what, data in ((20, "beginning", b""), (71, "beginning", b""), (72, "packet", b""), (74, "packet", b"he")):
            piece, = dissect(WHOLE[0], longest=28 + held)
            self.assertEqual((piece.what, piece.has("cut"), piece.has("bad_length"), piece.bytes("data")), (what, True, False, data))

    def test_of_chance_bytes_never_stop_the_script(self):
        chance = random.Random(17)
        sent = [b"", *(WHOLE[2][:chance.randrange(72)] + chance.randbytes(chance.randrange(1, 200)) for _ in range(500))]
        pieces = dissect(*sent)
        self.assertIsNone(pieces[0])
        for data, piece in zip(sent[1:], pieces[1:], strict=True):
            self.assertTrue(data.startswith(piece.shown_bytes()))


if __name__ == "__main__":
    dissection.main()
