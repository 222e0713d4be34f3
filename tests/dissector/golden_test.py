"""A small capture that is kept, and what tshark says about it, word for word.

Usage: golden_test.py [UNITTEST ARGUMENT...], or golden_test.py --write to make both files anew: look at the difference.
"""

import sys
import tempfile
import unittest
from pathlib import Path

import captures
import dissection
from hand_peer import (CALL_RETURN, CALL_RETURN_ACK, COMMAND_UDP, CONTROL, ERROR, HEARTBEAT, INFORMATION_UDP, SIGNAL_RETURN,
                       SIGNAL_RETURN_ACK, Packet, opening_block)

CAPTURE = Path(__file__).with_name("golden.pcap")
TEXT = Path(__file__).with_name("golden.txt")
CLIENT, SERVER = ("192.168.0.10", 49152), ("192.168.0.20", 7000)
THERE = {"source": ("192.168.0.10", 49152, 1), "destination": ("192.168.0.20", 7000, 2)}
BACK = {"source": THERE["destination"], "destination": THERE["source"]}


def talk(capture):
    """Two nodes that behave: each kind of packet once."""
    connection = capture.connection(CLIENT, SERVER)
    block = opening_block(49152, 7000)
    connection.send(0, block[:600], block[600:])
    connection.send(1, opening_block(7000, 49152))
    connection.send(0, Packet(data=b"hello", code=7, sequence=42, creation_clock=1000000, timeout=5000000, elapsed=120, **THERE).pack())
    connection.send(1, Packet(kind=CALL_RETURN, data=b"question", sequence=1, **BACK).pack() + Packet(kind=HEARTBEAT).pack())
    connection.send(0, Packet(kind=CALL_RETURN_ACK, sequence=1, **THERE).pack())
    signal = Packet(kind=SIGNAL_RETURN, data=b"cut", flags=0x0200, sequence=2, **BACK).pack()
    connection.send(1, signal[:70], signal[70:])
    connection.send(0, Packet(kind=SIGNAL_RETURN_ACK, sequence=2, **THERE).pack())
    connection.send(1, Packet(kind=ERROR, error=0x40000001, sequence=42, **BACK).pack(),
                    Packet(kind=CONTROL, detail=4, error=0x4000000E).pack())
    connection.finish(0)
    connection.finish(1)
    for kind, group, flags in ((COMMAND_UDP, "192.168.0.255", 1), (INFORMATION_UDP, "232.0.0.1", 2)):
        capture.datagram(("192.168.0.10", 7000), (group, 7000), Packet(kind=kind, data=b"all", flags=flags, sequence=kind).pack())


def break_rules(capture):
    """What tshark has to complain about."""
    connection = capture.connection(("192.168.0.10", 49153), SERVER)
    connection.send(0, opening_block(1, 2))
    connection.send(1, opening_block(7000, 49153)[:-1] + b"x")
    connection.send(0, Packet(magic=b"ABCD", kind=99, flags=0x0004).pack(), b"no header at all" + Packet().pack(),
                    Packet(header_size=73).pack(), Packet(version=3, data_size=2**31, data=b"much").pack())
    capture.datagram(("192.168.0.10", 7000), ("192.168.0.20", 7000), Packet(data=b"short").pack()[:-1])
    capture.datagram(("192.168.0.10", 7000), ("192.168.0.20", 7000), b"nothing")


def made_capture():
    capture = captures.Capture()
    talk(capture)
    break_rules(capture)
    with tempfile.NamedTemporaryFile(suffix=".pcap") as file:
        capture.write(file.name)
        return Path(file.name).read_bytes()


def is_of_frame(line):
    """Lines of other protocols differ between versions of tshark."""
    return line.startswith("Frame ")


def text_of(path):
    """The list, then each item of this protocol with its number in the list."""
    lines = dissection.read_capture(path, "-T", "fields", "-e", "frame.number", "-e", "_ws.col.Protocol", "-e", "_ws.col.Info",
                                    "-Y", "zolt").splitlines()
    shows = False
    for line in dissection.read_capture(path, "-V", "-O", "zolt", "-Y", "zolt").splitlines():
        if is_of_frame(line):
            lines += ["", line.split(":")[0]]
        elif not line.startswith(" "):
            shows = line.startswith("ZOLT")
        if shows and line and not is_of_frame(line):
            lines.append(line)
    return "\n".join(lines) + "\n"


class Golden(unittest.TestCase):
    maxDiff = None

    def test_capture_is_what_this_script_makes(self):
        self.assertEqual(CAPTURE.read_bytes(), made_capture())

    def test_text_is_what_is_kept(self):
        self.assertEqual(text_of(CAPTURE), TEXT.read_text(encoding="utf-8"))


if __name__ == "__main__":
    if sys.argv[1:] == ["--write"]:
        CAPTURE.write_bytes(made_capture())
        TEXT.write_text(text_of(CAPTURE), encoding="utf-8")
    else:
        dissection.main()
