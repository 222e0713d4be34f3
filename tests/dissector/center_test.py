"""What real Centers send over a loopback, as the dissector shows it. Usage: center_test.py PROGRAM [UNITTEST ARGUMENT...]"""

import json
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import dissection
import center_support as support
from hand_peer import CALL_RETURN, CALL_RETURN_ACK, DATA, HEARTBEAT, opening_block
from record_centers import CALLS, DATAGRAM_PORT, FILE, LINES, PORT

PROGRAM = sys.argv.pop(1)
IN_A_NETWORK = ("unshare", "--user", "--map-root-user", "--net")
COMPLAINTS = ("lost", "cut", "bad_magic", "bad_version", "bad_header_size", "bad_kind", "bad_length", "too_large",
              "reserved_flags", "other_ports", "block_rest")


def may_capture():
    """True when this user may look at the packets of a network of his own."""
    if not support.can_have_networks() or shutil.which("dumpcap") is None:
        return False
    opened = subprocess.run([*IN_A_NETWORK, "sh", "-c", "ip link set lo up && dumpcap -i lo -L"], capture_output=True,
                            check=False)
    return opened.returncode == 0


class Centers(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not may_capture():
            raise unittest.SkipTest("this user may not capture in a network of his own")
        with tempfile.TemporaryDirectory() as folder:
            recorder = Path(__file__).with_name("record_centers.py")
            subprocess.run([*IN_A_NETWORK, sys.executable, "-B", recorder, PROGRAM, folder], timeout=dissection.DEADLINE,
                           check=True)
            cls.said = json.loads(Path(folder, "said.json").read_text(encoding="utf-8"))
            cls.frames = dissection.dissect_file(Path(folder, "capture.pcap"), "-Y", "zolt", layers="tcp udp zolt")

    def pieces(self, what, is_wanted=lambda ports: True):
        return [(frame.ports(), piece) for frame in self.frames for piece in frame
                if piece.what == what and is_wanted(frame.ports())]

    def packets(self, is_wanted):
        """By their ports, packets that are no heartbeats."""
        found = {}
        for ports, piece in self.pieces("packet", is_wanted):
            packet = piece.packet()
            if packet.kind != HEARTBEAT:
                found.setdefault(ports, []).append(packet)
        return found

    def test_are_shown_without_a_complaint(self):
        for frame in self.frames:
            for piece in frame:
                self.assertIn(piece.what, ("block", "packet"))
                self.assertEqual([name for name in COMPLAINTS if piece.has(name)], [])

    def test_open_each_connection_with_a_block_from_either_side(self):
        blocks = self.pieces("block")
        for (source, destination), piece in blocks:
            self.assertEqual(piece.shown_bytes(), opening_block(source, destination))
        self.assertEqual(len(blocks), 8)
        self.assertEqual(sorted(ports for ports, _ in blocks), sorted(ports[::-1] for ports, _ in blocks))

    def test_are_shown_with_each_packet_that_arrived(self):
        arrived = [packet for packets in self.packets(lambda ports: ports[1] == PORT).values() for packet in packets]
        self.assertEqual((len(arrived), sum(len(packet.data) for packet in arrived)),
                         (self.said["arrived"], self.said["arrived_bytes"]))
        self.assertEqual(len(arrived), len(LINES) + -(-len(FILE) // 65536) + CALLS)

    def test_are_shown_with_each_byte_that_was_sent(self):
        sent = self.packets(lambda ports: ports[1] == PORT)
        whole = {b"".join(packet.data for packet in packets): [packet.sequence for packet in packets]
                 for packets in sent.values() if packets[0].kind == DATA}
        self.assertEqual(set(whole), {b"".join(LINES), FILE})
        for sequences in whole.values():
            self.assertEqual(sequences, list(range(len(sequences))))

    def test_acknowledge_each_call(self):
        calls = next(packets for packets in self.packets(lambda ports: ports[1] == PORT).values()
                     if packets[0].kind == CALL_RETURN)
        answers = [packet for packets in self.packets(lambda ports: ports[0] == PORT).values() for packet in packets
                   if packet.kind == CALL_RETURN_ACK]
        self.assertEqual([packet.sequence for packet in answers], [packet.sequence for packet in calls])
        self.assertEqual(len(calls), CALLS)

    def test_keep_a_connection_alive(self):
        beats = [ports for ports, piece in self.pieces("packet") if piece.number("kind") == HEARTBEAT]
        self.assertTrue(any(source == PORT for source, _ in beats))
        self.assertTrue(any(destination == PORT for _, destination in beats))

    def test_send_datagrams(self):
        packets = self.packets(lambda ports: ports[1] == DATAGRAM_PORT)
        self.assertEqual(list(packets), [(DATAGRAM_PORT, DATAGRAM_PORT)])
        self.assertEqual([packet.data for packet in packets[DATAGRAM_PORT, DATAGRAM_PORT]], LINES)


if __name__ == "__main__":
    dissection.main()
