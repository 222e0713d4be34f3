"""What "zolt-center run --pcap" writes, as the dissector shows it. Usage: pcap_test.py PROGRAM [UNITTEST ARGUMENT...]"""

import os
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

import dissection
import center_support as support
import hand_peer
from hand_peer import CALL_RETURN, CALL_RETURN_ACK, HEARTBEAT, Packet
from hostile_support import wait_until

support.PROGRAM = sys.argv.pop(1)
PATIENCE = support.DEADLINE
SMALL = [Packet(data=b"number %d" % number, sequence=number) for number in range(3)]
LARGE = Packet(data=bytes(range(256)) * 1000, sequence=7)


class Capturing(unittest.TestCase):
    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        self.path = os.path.join(folder, "capture.pcap")

    def start(self, *arguments):
        """A Center that sends everything back and writes what it sees."""
        center, self.port = support.start_on_port(
            lambda port: ["run", "--listen", port, "--echo", "--pcap", self.path, "--admin", "none", *arguments], "stdout",
            "ready")
        return self.enterContext(center)

    def connect(self, local=("", 0)):
        connection = hand_peer.Connection.open(("127.0.0.1", self.port), PATIENCE, local)
        self.addCleanup(connection.close)
        connection.exchange_as_connecting()
        return connection

    def echo(self, connection, *packets):
        """Sends them, and gives what comes back."""
        connection.send(*packets)
        return [connection.receive() for _ in packets]

    def stop(self, center):
        center.signal(signal.SIGTERM)
        code, _, errors = center.finish()
        self.assertEqual(code, 0, errors)
        return errors

    def shown(self):
        """Each packet with the ports that it went from and to."""
        frames = dissection.dissect_file(self.path, "-o", f"zolt.ports:{self.port}", "-Y", "zolt", layers="tcp udp zolt")
        self.assertEqual({piece.what for frame in frames for piece in frame} - {"packet"}, set())
        return [(frame.ports(), piece.packet()) for frame in frames for piece in frame]

    def handshakes(self):
        rows = dissection.read_capture(self.path, "-T", "fields", "-e", "tcp.srcport", "-e", "tcp.dstport", "-e", "tcp.flags",
                                       "-e", "ip.src", "-e", "ip.dst", "-Y", "tcp.len == 0").splitlines()
        return [(int(source), int(destination), int(flags, 16), *rest) for source, destination, flags, *rest in
                (row.split("\t") for row in rows)]


class Contents(Capturing):
    def test_are_what_an_accepted_connection_carried(self):
        center = self.start()
        connection = self.connect()
        there, back = (connection.own_port, self.port), (self.port, connection.own_port)
        sent = [*SMALL, LARGE]
        returned = self.echo(connection, *sent)
        call = Packet(kind=CALL_RETURN, sequence=9)
        answer = self.echo(connection, call)
        connection.send(Packet(kind=HEARTBEAT))
        connection.close()
        center.wait_for("stderr", "disconnected")
        self.stop(center)
        shown = self.shown()
        self.assertEqual([packet.pack() for ports, packet in shown if ports == there], [one.pack() for one in (*sent, call)])
        self.assertEqual([(packet.data, packet.kind, packet.sequence) for ports, packet in shown if ports == back],
                         [(one.data, one.kind, one.sequence) for one in (*returned, *answer)])
        self.assertEqual((len(shown), answer[0].kind), (2 * len(sent) + 2, CALL_RETURN_ACK))
        ends = ("127.0.0.1", "127.0.0.1")
        self.assertEqual(self.handshakes(), [(*there, 2, *ends), (*back, 18, *ends), (*there, 17, *ends)])

    def test_are_what_an_outgoing_connection_carried(self):
        listener = hand_peer.Listener()
        self.addCleanup(listener.close)
        center = self.start("--connect", f"127.0.0.1:{listener.port}")
        connection = listener.accept(PATIENCE)
        self.addCleanup(connection.close)
        connection.exchange_as_accepting()
        self.echo(connection, *SMALL)
        self.stop(center)
        there, back = (connection.peer_port, listener.port), (listener.port, connection.peer_port)
        self.assertEqual([(source, destination, flags) for source, destination, flags, *_ in self.handshakes()][:2],
                         [(*there, 2), (*back, 18)])
        shown = self.shown()
        self.assertEqual([packet.pack() for ports, packet in shown if ports == back], [one.pack() for one in SMALL])
        self.assertEqual([packet.data for ports, packet in shown if ports == there], [one.data for one in SMALL])

    def test_are_datagrams(self):
        center = self.start()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.sendto(SMALL[1].pack(), ("127.0.0.1", self.port))
        # The answer goes to the same port, which is the Center's own, and comes back to it from there.
        size = 24 + 3 * (16 + 20 + 8 + len(SMALL[1].pack()))
        wait_until(lambda: os.path.getsize(self.path) == size, "three datagrams in the file")
        self.stop(center)
        shown = self.shown()
        self.assertEqual([ports for ports, _ in shown], [(self.port, self.port)] * 3)
        self.assertEqual([packet.data for _, packet in shown], [SMALL[1].data] * 3)
        self.assertEqual([packet.flags for _, packet in shown], [0, 0x0100, 0x0100])

    def test_are_copies_for_each_connection_of_a_broadcast(self):
        node, self.port = support.start_on_port(lambda port: ["demo-node", "--listen", port, "--pcap", self.path], "stdout",
                                                '"ready"', stdin=subprocess.PIPE)
        self.enterContext(node)
        connections = [self.connect(), self.connect()]
        node.wait_for_count("stdout", '"connected"', len(connections))
        node.process.stdin.write(b'{"do":"stream","to_all_accepted":true,"stream":4,"count":3,"size":20}\n')
        node.process.stdin.flush()
        arrived = {connection.own_port: [connection.receive() for _ in range(3)] for connection in connections}
        node.process.stdin.write(b'{"do":"stop"}\n')
        self.assertEqual(node.finish()[0], 0)
        shown = self.shown()
        self.assertEqual(len(shown), 3 * len(connections))
        for port, packets in arrived.items():
            self.assertEqual([(packet.data, packet.sequence) for ports, packet in shown if ports == (self.port, port)],
                             [(packet.data, packet.sequence) for packet in packets])

    def test_tell_two_connections_with_the_same_ends_apart(self):
        center = self.start()
        first = self.connect()
        self.echo(first, *SMALL)
        first.reset()
        center.wait_for_count("stderr", "disconnected", 1)
        second = self.connect(("127.0.0.1", first.own_port))
        self.echo(second, *SMALL[::-1])
        self.stop(center)
        self.assertEqual([packet.sequence for ports, packet in self.shown() if ports[1] == self.port], [0, 1, 2, 2, 1, 0])


class Bounds(Capturing):
    def test_end_the_file_and_not_the_center(self):
        center = self.start("--pcap-limit", "1K")
        connection = self.connect()
        self.assertEqual(len(self.echo(connection, *SMALL, LARGE, *SMALL)), 7)
        errors = self.stop(center)
        self.assertEqual(errors.count("ends here: it has reached its limit of 1024 bytes"), 1)
        self.assertLessEqual(os.path.getsize(self.path), 1024)
        self.assertEqual([packet.data for ports, packet in self.shown() if ports[1] == self.port][:2],
                         [SMALL[0].data, SMALL[1].data])

    def test_are_told_where_the_file_cannot_be_written(self):
        result = support.call("run", "--listen", support.free_port(), "--pcap", os.path.join(self.path, "below"))
        self.assertEqual(result.returncode, 1)
        self.assertIn("zolt-center: cannot write ", result.stderr.decode())

    def test_keep_the_file_from_others(self):
        center = self.start()
        self.stop(center)
        self.assertEqual(os.stat(self.path).st_mode & 0o777, 0o600)
        self.assertEqual(os.path.getsize(self.path), 24)


if __name__ == "__main__":
    dissection.main()
