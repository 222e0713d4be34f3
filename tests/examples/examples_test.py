"""The programs under examples/: what each of them promises in its first lines."""

import os
import random
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import center_support as support

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
LONGEST_EXAMPLE = 80
LONGEST_HOST = 300
OWN_HEADER = struct.Struct("=III")
OWN_VERSION, OWN_HEARTBEAT = 0x6D790001, 7


def program(name):
    return os.path.join(support.PROGRAM, name)


class Example(unittest.TestCase):
    def start(self, name, *arguments, **options):
        """The program in the background, until the end of the test."""
        return self.keep(support.Running(*arguments, program=program(name), **options))

    def keep(self, running):
        self.addCleanup(running.__exit__)
        return running

    def serve(self, name, arguments=lambda port: [port], **options):
        """The program once it serves a port, and the port."""
        running, port = support.start_on_port(arguments, "stdout", "ready", program=program(name), **options)
        return self.keep(running), port

    def end(self, running, number=signal.SIGTERM):
        """It ends by the signal as if nothing had happened; gives its output."""
        running.signal(number)
        code, out, _ = running.finish()
        self.assertEqual(code, 0)
        return out.decode()

    def call(self, name, *arguments):
        return subprocess.run([program(name), *map(str, arguments)], capture_output=True, text=True, check=False,
                              timeout=support.DEADLINE, stdin=subprocess.DEVNULL)


class Echo(Example):
    def test_sends_back_what_a_peer_sends(self):
        echo, port = self.serve("echo")
        with support.Peer.connect(port) as peer:
            for number, data in enumerate((b"", b"one", random.Random(1).randbytes(200_000))):
                peer.send(data, sequence=number)
                answer = peer.receive()
                self.assertEqual((answer.data, answer.sequence), (data, number))
        self.end(echo)

    def test_answers_no_call_and_no_datagram(self):
        echo, port = self.serve("echo")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as datagrams, support.Peer.connect(port) as peer:
            datagrams.sendto(support.make_packet(b"datagram"), ("127.0.0.1", port))
            peer.send(b"call", kind=support.CALL)
            peer.send(b"data")
            self.assertEqual(peer.receive().data, b"data")
        self.end(echo, signal.SIGINT)

    def test_wants_one_port(self):
        result = self.call("echo")
        self.assertEqual((result.returncode, result.stderr), (2, "usage: echo PORT\n"))

    def test_cannot_serve_a_port_that_is_taken(self):
        with socket.create_server(("", 0)) as taken:
            result = self.call("echo", taken.getsockname()[1])
        self.assertEqual((result.returncode, result.stdout), (4, ""))


class Chat(Example):
    def member(self, port):
        member = self.start("chat", f"127.0.0.1:{port}", stdin=subprocess.PIPE)
        member.wait_for("stdout", "connected_to_server")
        return member

    def say(self, member, line):
        member.process.stdin.write(line.encode() + b"\n")
        member.process.stdin.flush()

    def test_everybody_hears_what_one_says(self):
        room, port = self.serve("chat")
        alice = self.member(port)
        bob = self.member(port)
        alice.wait_for_count("stdout", " came", 2)
        self.say(alice, "hello")
        for listener in (alice, bob):
            self.assertRegex(listener.wait_for("stdout", ": hello"), r"127\.0\.0\.1:\d+: hello\n")
        self.assertEqual(alice.finish()[0], 0)  # closes its input
        bob.wait_for("stdout", " left")
        self.end(room)
        bob.wait_for("stdout", "disconnected_from_server")
        self.say(bob, "anybody?")
        code, _, errors = bob.finish()
        self.assertEqual(code, 0)
        self.assertIn("not connected; nobody heard: anybody?", errors)


class FileTransfer(Example):
    def setUp(self):
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def receiver(self):
        return self.serve("file_transfer", lambda port: ["receive", port, self.folder / "arrived"])

    def test_carries_a_file(self):
        for size in (0, 65536, 3_000_001):
            content = random.Random(size).randbytes(size)
            (self.folder / "sent").write_bytes(content)
            receiver, port = self.receiver()
            result = self.call("file_transfer", "send", f"127.0.0.1:{port}", self.folder / "sent")
            self.assertEqual((result.returncode, receiver.finish()[0]), (0, 0), result.stderr)
            self.assertEqual((self.folder / "arrived").read_bytes(), content)

    def test_says_when_it_did_not_arrive_whole(self):
        receiver, port = self.receiver()
        with support.Peer.connect(port) as peer:
            peer.send(b"a piece, and no end")
            peer.receive()
        self.assertEqual(receiver.finish()[0], 1)
        with socket.create_server(("127.0.0.1", 0)) as listening:
            port = listening.getsockname()[1]
            (self.folder / "sent").write_bytes(b"x")
            sender = self.start("file_transfer", "send", f"127.0.0.1:{port}", self.folder / "sent")
            with support.Peer.accept(listening) as peer:
                self.assertEqual(peer.receive().data, b"x")
        self.assertEqual(sender.finish()[0], 1)

    def test_needs_a_file_that_can_be_read(self):
        result = self.call("file_transfer", "send", "127.0.0.1:1", self.folder / "absent")
        self.assertEqual((result.returncode, result.stderr), (1, f"cannot read {self.folder / 'absent'}\n"))


class Request(Example):
    def test_is_acknowledged_with_the_answer(self):
        answering, port = self.serve("request", lambda port: ["answer", port])
        result = self.call("request", "ask", f"127.0.0.1:{port}", "desserts")
        self.assertEqual((result.returncode, result.stdout), (0, "stressed\n"), result.stderr)
        with support.Peer.connect(port) as peer:
            peer.send(b"data")
            peer.send(b"call", kind=support.CALL, sequence=7)
            answer = peer.receive()
            self.assertEqual((answer.kind, answer.sequence, answer.data), (support.CALL_ACKNOWLEDGEMENT, 7, b"llac"))
        self.end(answering)

    def test_without_an_answer_is_given_up(self):
        with socket.create_server(("127.0.0.1", 0)) as listening:
            asking = self.start("request", "ask", f"127.0.0.1:{listening.getsockname()[1]}", "anybody?")
            with support.Peer.accept(listening) as peer:
                self.assertEqual(peer.receive().kind, support.CALL)
                code, out, _ = asking.finish()
        self.assertEqual((code, out), (5, b""))


class MulticastListener(Example):
    def test_prints_what_its_source_sends_to_the_group_and_nothing_else(self):
        if not support.can_have_networks():
            self.skipTest("private networks are not allowed here")
        stage = Path(__file__).with_name("in_a_network.py")
        result = subprocess.run([*support.IN_A_NETWORK, sys.executable, "-B", stage, program("multicast_listener")],
                                capture_output=True, text=True, check=False, timeout=support.DEADLINE)
        self.assertEqual((result.returncode, result.stdout),
                         (0, "127.0.0.1:0 first\n127.0.0.1:0 second\n"), result.stderr)


class OwnHost(Example):
    def greeting(self, port):
        """A second node that says hello to the one on that port."""
        node, _ = self.serve("own_host", lambda own: [own, f"127.0.0.1:{port}"])
        return node

    def test_carries_packets_there_and_back(self):
        node, port = self.serve("own_host")
        greeting = self.greeting(port)
        greeting.wait_for("stdout", f"packet from 127.0.0.1:{port} you said hello\n")
        self.assertRegex(self.end(greeting), rf"connected 127.0.0.1:{port} \n")
        self.assertRegex(node.wait_for("stdout", "disconnected "),
                         r"(?s)connected 127\.0\.0\.1:(\d+) \npacket from 127\.0\.0\.1:\1 hello\n"
                         r".*disconnected 127\.0\.0\.1:\1")
        self.end(node, signal.SIGINT)

    def read_packet(self, peer):
        """The kind and the data of the next packet."""
        version, size, kind = OWN_HEADER.unpack(peer.read(OWN_HEADER.size))
        self.assertEqual(version, OWN_VERSION)
        return kind, peer.read(size)

    def hello(self, peer):
        """The data of the next packet that is no heartbeat."""
        return next(data for kind, data in iter(lambda: self.read_packet(peer), None) if kind != OWN_HEARTBEAT)

    def test_sends_the_same_heartbeat_again_and_again(self):
        node, port = self.serve("own_host")
        with support.Peer.connect(port) as peer, support.Peer.connect(port) as other:
            for _ in range(3):
                self.assertEqual([self.read_packet(end) for end in (peer, other)], [(OWN_HEARTBEAT, b"")] * 2)
        self.end(node)

    def test_connects_again_when_its_connection_ended(self):
        with socket.create_server(("127.0.0.1", 0)) as listening:
            greeting = self.greeting(listening.getsockname()[1])
            for _ in range(2):
                with support.Peer.accept(listening) as peer:
                    self.assertEqual(self.hello(peer), b"hello")
            greeting.wait_for_count("stdout", "disconnected 127.0.0.1:", 2)
            self.end(greeting)

    def test_takes_datagrams_of_its_own_version_only(self):
        node, port = self.serve("own_host")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as peer:
            for version, data in ((OWN_VERSION + 1, b"another"), (OWN_VERSION, b"own")):
                peer.sendto(OWN_HEADER.pack(version, len(data), 0) + data, ("127.0.0.1", port))
        self.assertNotIn("another", node.wait_for("stdout", "datagram from 127.0.0.1:0 own\n"))
        node.wait_for("stderr", "relay: ! p_pkt->is_right_version()")
        self.end(node)

    def test_stands_without_the_reference_host(self):
        needed = subprocess.run(["readelf", "-d", program("own_host")], capture_output=True, text=True,
                                check=True).stdout
        self.assertIn("libinet_relay", needed)
        self.assertNotIn("reference_host", needed)


def lines_of_code(path):
    lines = map(str.strip, path.read_text(encoding="utf-8").splitlines())
    return sum(1 for line in lines if line and not line.startswith("//"))


class Sources(unittest.TestCase):
    def test_are_as_short_as_promised(self):
        programs = [*EXAMPLES.glob("*.cpp"), EXAMPLES / "own_host/node.cpp"]
        self.assertGreaterEqual(len(programs), 6)
        for path in programs:
            with self.subTest(path.name):
                self.assertLess(len(path.read_text(encoding="utf-8").splitlines()), LONGEST_EXAMPLE)
        self.assertLess(lines_of_code(EXAMPLES / "own_host/host.cpp"), LONGEST_HOST)


if __name__ == "__main__":
    support.main()
