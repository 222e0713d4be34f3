"""zolt-center bench: what is counted, from which moment, against Centers and against peers that are written by hand."""

import contextlib
import json
import os
import signal
import socket
import tempfile
import unittest
import xml.dom.minidom

import center_support as support

SHORT = ("--duration", 0.2, "--warm-up", 0.05)
ECHO = 1 << 8
STANDSTILL = 0.3  # seconds
LOST_PEER = "^([^\n]+ relay: recv client 에러\n)?$"

WRONG_USAGE = [
    (["bench"], "subcommand is required"),
    (["bench", "tcp", "--rate", "5", "--window", "3"], "--window"),
    (["bench", "tcp", "--rate", "0"], "--rate"),
    (["bench", "tcp", "--peers", "0"], "--peers"),
    (["bench", "tcp", "--peers", "2", "--to", "127.0.0.1:7000"], "--peers"),
    (["bench", "tcp", "--to", "127.0.0.1"], '"127.0.0.1" is no address'),
    (["bench", "tcp", "--to", "127.0.0.1:7000", "--to", "127.0.0.1:7000"], "--to 127.0.0.1:7000: given twice"),
    (["bench", "tcp", "--one-way", "--calls"], "--calls"),
    (["bench", "tcp", "--one-way", "--plot", "any.svg"], "--plot"),
    (["bench", "udp", "--one-way"], "--one-way"),
    (["bench", "udp", "--size", "65436"], "--size"),
    (["bench", "broadcast", "--listen", "0"], '"0" is no port'),
]


def pull(connection):
    """A packet that is no heartbeat, as header fields and data; nothing when none comes for a standstill."""
    connection.connection.settimeout(STANDSTILL)
    with contextlib.suppress(socket.timeout):
        return connection.receive()
    return None


class Bench(unittest.TestCase):
    def measure(self, *arguments, code=0):
        """The object that a load prints, and that its outcomes balance."""
        result = support.call("bench", *arguments, "--json")
        self.assertEqual((result.returncode, result.stderr), (code, b""), result.stdout)
        self.assertEqual(result.stdout.count(b"\n"), 1)
        return self.check(json.loads(result.stdout))

    def check(self, told):
        for outcomes in (told["outcomes"], *(one["outcomes"] for one in told["by_peer"])):
            ends = [count for name, count in outcomes.items() if name not in ("sent", "balances")]
            self.assertEqual((outcomes["sent"], len(ends)), (sum(ends), 4))
            self.assertIs(outcomes["balances"], True)
        for name in told["outcomes"]:
            self.assertEqual(told["outcomes"][name], name == "balances"
                             or sum(one["outcomes"][name] for one in told["by_peer"]))
        return told

    def check_trips(self, told, peers):
        """All is answered, and the percentiles are what percentiles are."""
        self.assertEqual(told["outcomes"]["answered"], told["outcomes"]["sent"])
        self.assertEqual(len(told["by_peer"]), peers)
        self.assertGreater(min(one["outcomes"]["answered"] for one in told["by_peer"]), 0)
        self.assertEqual(told["handed_over"], told["far_arrived"])
        latency = told["latency_us"]
        self.assertEqual(latency["count"], told["outcomes"]["answered"])
        order = [latency[name] for name in ("min", "p50", "p90", "p99", "p99_9", "max")]
        self.assertEqual((order, order[0] > 0), (sorted(order), True))
        self.assertEqual(latency["max"], max(one["latency_us"]["max"] for one in told["by_peer"]))

    def start(self, made):
        self.addCleanup(made[0].__exit__)
        return made

    def run_center(self, *options):
        return self.start(support.start_on_port(lambda port: ["run", "--listen", port, "--admin", "none", *options],
                                                "stdout", "\n"))

    @contextlib.contextmanager
    def load_on_hand_peer(self, *options):
        """A running load, and its peer."""
        with socket.create_server(("127.0.0.1", 0)) as server:
            port = server.getsockname()[1]
            with support.Running("bench", "tcp", "--to", f"127.0.0.1:{port}", "--json", "--warm-up", 0,
                                 *options) as load, support.Peer.accept(server) as hand:
                yield load, hand

    def finish(self, load, code, errors="^$"):
        ended, out, told = load.finish()
        self.assertEqual(ended, code, out)
        self.assertRegex(told, errors)
        return self.check(json.loads(out))


class OwnCenter(Bench):
    def test_answers_a_closed_loop_over_tcp(self):
        told = self.measure("tcp", *SHORT, "--peers", 3, "--window", 2, "--size", 1000)
        self.check_trips(told, 3)
        self.assertEqual((told["loop"], told["window"], told["size"]), ("closed", 2, 1000))
        self.assertAlmostEqual(told["packets_per_second"], told["outcomes"]["answered"] / told["seconds"], 3)

    def test_answers_an_open_loop_at_its_rate(self):
        told = self.measure("tcp", *SHORT, "--peers", 2, "--rate", 500)
        self.check_trips(told, 2)
        self.assertEqual((told["outcomes"]["sent"], told["unsent"]), (100, 0))
        self.assertEqual(told["sent_late_us"]["count"], 100)

    def test_acknowledges_calls(self):
        self.check_trips(self.measure("tcp", *SHORT, "--calls"), 1)

    def test_answers_each_broadcast_once_for_each_peer(self):
        told = self.measure("broadcast", *SHORT, "--peers", 3)
        self.check_trips(told, 3)
        broadcasts = told["whole_broadcast_us"]
        self.assertEqual(told["outcomes"]["sent"], 3 * broadcasts["count"])
        self.assertGreaterEqual(broadcasts["p50"], told["latency_us"]["p50"])

    def test_counts_what_goes_one_way(self):
        told = self.measure("tcp", *SHORT, "--one-way", "--peers", 2)
        self.assertEqual(told["outcomes"]["received"], told["outcomes"]["sent"])
        self.assertEqual(told["handed_over"], told["far_arrived"])
        self.assertEqual(told["handed_over"], told["outcomes"]["sent"])
        self.assertGreater(told["packets_per_second"], 0)
        self.assertLess(told["packets_per_second"] * told["seconds"], told["outcomes"]["sent"])

    def test_answers_datagrams_in_a_network_of_its_own(self):
        if not support.can_have_networks():
            self.skipTest("network namespaces are not allowed here")
        told = self.measure("udp", *SHORT, "--peers", 2, "--rate", 200)
        self.assertEqual(told["outcomes"]["sent"], 40)
        self.assertGreater(told["outcomes"]["answered"], 0)
        self.assertLessEqual(told["far_arrived"], told["handed_over"])
        self.assertEqual([one["peer"] for one in told["by_peer"]], ["10.77.0.2:7000", "10.77.0.2:7001"])

    def test_is_skipped_over_udp_where_networks_are_not_allowed(self):
        if not support.can_have_networks():
            self.skipTest("a user namespace to forbid networks in is not allowed here")
        result = support.call("bench", "udp", wrapper=support.WITHOUT_NETWORKS)
        self.assertEqual((result.returncode, result.stdout), (support.SKIPPED, b""))
        self.assertRegex(result.stderr.decode(),
                         r"^zolt-center: two nodes on one machine cannot share a UDP port[^\n]+\n$")


class Peers(Bench):
    def test_that_echo_are_measured(self):
        center, port = self.run_center("--echo", "--json")
        told = self.measure("tcp", *SHORT, "--to", f"127.0.0.1:{port}", "--to", f"127.0.0.2:{port}")
        self.assertEqual([one["peer"] for one in told["by_peer"]], [f"127.0.0.1:{port}", f"127.0.0.2:{port}"])
        self.assertIsNone(told["far_arrived"])
        center.signal(signal.SIGTERM)
        arrived = json.loads(center.finish()[1].splitlines()[-1])["arrived"]
        self.assertEqual(arrived, told["handed_over"])

    def test_that_only_listen_acknowledge_calls_and_count_what_they_receive(self):
        center, port = self.run_center("--json")
        called = self.measure("tcp", *SHORT, "--to", f"127.0.0.1:{port}", "--calls", "--window", 4)
        streamed = self.measure("tcp", *SHORT, "--to", f"127.0.0.1:{port}", "--one-way")
        self.assertEqual(streamed["outcomes"]["received"], streamed["outcomes"]["sent"])
        center.signal(signal.SIGTERM)
        arrived = json.loads(center.finish()[1].splitlines()[-1])["arrived"]
        self.assertEqual(arrived, called["handed_over"] + streamed["outcomes"]["received"])

    def test_that_connect_here_get_broadcasts(self):
        load, port = self.start(support.start_on_port(
            lambda port: ["bench", "broadcast", "--listen", port, *SHORT, "--json"], "stderr", "waiting for peers"))
        with support.Peer.connect(port) as hand, contextlib.suppress(AssertionError, OSError):
            while packet := hand.receive():
                hand.send(packet.data, flags=ECHO, sequence=packet.sequence)
        ended, out, _ = load.finish()
        told = self.check(json.loads(out))
        self.assertEqual((ended, told["outcomes"]["answered"]), (0, told["outcomes"]["sent"]))
        self.assertGreater(told["outcomes"]["answered"], 1)

    def test_that_are_not_there_are_unreachable(self):
        result = support.call("bench", "tcp", "--to", f"127.0.0.1:{support.free_port()}", "--wait", 0.2)
        self.assertEqual((result.returncode, result.stderr),
                         (5, b"zolt-center: 0 of 1 peers are connected after 0.2 seconds\n"))

    def test_get_no_more_than_the_window(self):
        with self.load_on_hand_peer("--window", 3, "--duration", 0.5, "--timeout", 0.05) as (load, hand):
            self.assertEqual([pull(hand) is not None for _ in range(4)], [True, True, True, False])
            told = self.finish(load, 1)
        self.assertEqual((told["outcomes"]["sent"], told["outcomes"]["not_finished"]), (3, 3))
        self.assertIn("no packet was answered", told["error"]["text"])

    def test_that_keep_silent_do_not_slow_an_open_loop_down(self):
        with self.load_on_hand_peer("--rate", 100, "--duration", 0.4) as (load, hand):
            packets = [hand.receive() for _ in range(40)]
            hand.connection.sendall(b"".join(support.make_packet(packet.data, flags=ECHO, sequence=packet.sequence)
                                             for packet in packets))
            told = self.finish(load, 0)
        self.assertEqual(told["outcomes"]["answered"], 40)
        # The first one waited until the last one was sent, 39 intervals later.
        self.assertGreater(told["latency_us"]["max"], 390_000)
        self.assertLess(told["latency_us"]["min"], told["latency_us"]["max"] - 380_000)

    def test_see_a_latency_from_the_moment_that_was_meant(self):
        with self.load_on_hand_peer("--rate", 200, "--duration", 1) as (load, hand):
            answered, packet = 1, hand.receive()
            hand.send(packet.data, flags=ECHO, sequence=packet.sequence)
            load.signal(signal.SIGSTOP)
            while packet := pull(hand):
                hand.send(packet.data, flags=ECHO, sequence=packet.sequence)
                answered += 1
            load.signal(signal.SIGCONT)
            while answered < 200:
                packet = hand.receive()
                hand.send(packet.data, flags=ECHO, sequence=packet.sequence)
                answered += 1
            told = self.finish(load, 0)
        self.assertEqual(told["outcomes"]["answered"], 200)
        # Each packet was answered at once; what was due while the load stood still, a third, is counted all the same.
        self.assertGreater(told["sent_late_us"]["max"], STANDSTILL * 1e6 * 0.9)
        self.assertGreater(told["latency_us"]["p90"], STANDSTILL * 1e6 / 2)

    def test_that_go_away_end_the_load(self):
        with self.load_on_hand_peer("--window", 2, "--duration", 30) as (load, hand):
            for _ in range(5):
                packet = hand.receive()
                hand.send(packet.data, flags=ECHO, sequence=packet.sequence)
            hand.connection.close()
            told = self.finish(load, 1, LOST_PEER)
        # What came just before the end may not have been read, and the end may come before or after the next packet.
        outcomes = told["outcomes"]
        self.assertIn(outcomes["answered"], (3, 4, 5))
        self.assertIn(outcomes["sent"] - outcomes["answered"], (1, 2, 3))
        self.assertRegex(told["error"]["text"], "^the connection to 127.0.0.1:[0-9]+ has ended")

    def test_that_send_what_was_not_asked_for_change_nothing(self):
        with self.load_on_hand_peer("--duration", 0.4) as (load, hand):
            packet = hand.receive()
            for number, code in ((packet.sequence + 1, 0), (packet.sequence - 1, 0), (packet.sequence, 7), (0, 0)):
                hand.send(b"", flags=ECHO, sequence=number, code=code)
            hand.send(packet.data, sequence=packet.sequence)
            for _ in range(2):
                hand.send(packet.data, flags=ECHO, sequence=packet.sequence)
            self.assertIsNotNone(hand.receive())
            hand.connection.close()
            told = self.finish(load, 1, LOST_PEER)
        self.assertEqual((told["outcomes"]["sent"], told["outcomes"]["answered"]), (2, 1))

    def test_over_udp_that_do_not_answer_are_lost(self):
        # This node itself: its own datagrams arrive at its own port and are no answers.
        told = self.measure("udp", "--to", f"127.0.0.1:{support.free_port()}", "--window", 4, "--timeout", 0.05,
                            "--warm-up", 0, "--duration", 0.3, code=1)
        self.assertEqual(told["outcomes"]["lost"], told["outcomes"]["sent"])
        # A lost one makes room for the next.
        self.assertGreater(told["outcomes"]["sent"], 8)
        self.assertLess(told["outcomes"]["sent"], 4 * 7)


class Output(Bench):
    def test_is_a_table(self):
        result = support.call("bench", "tcp", *SHORT, "--peers", 2)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        lines = result.stdout.decode().splitlines()
        self.assertEqual(lines[0], "tcp: closed loop with 1 under way, 64 bytes, 2 peers")
        self.assertEqual(lines[1].split(), "peer answers p50 us p90 us p99 us p99.9 us max us".split())
        answers = [int(line.split()[1]) for line in lines[2:5]]
        self.assertEqual((lines[4].split()[0], answers[2]), ("all", answers[0] + answers[1]))
        self.assertEqual(lines[5], f"sent {answers[2]} = answered {answers[2]} + returned 0 + lost 0 + not finished 0")
        self.assertRegex(lines[6], r"^[\d.]+ answers a second, [\d.]+ MiB of data a second, over 0\.2\d\d s$")

    def test_shows_progress_on_a_terminal_only(self):
        code, shown = support.show_on_terminal("bench", "tcp", "--duration", 0.4, "--warm-up", 0.2)
        self.assertEqual(code, 0)
        self.assertRegex(shown, r"\r\x1b\[Kwarming up; 0\.\d s remain")
        self.assertRegex(shown, r"\r\x1b\[K0\.\d of 0\.4 s; \d+ answers; 0\.\d s remain")
        self.assertTrue(shown.endswith("\r\x1b[K"), shown[-60:])

    def test_is_partial_when_interrupted(self):
        with self.load_on_hand_peer("--duration", 60, "--window", 2) as (load, hand):
            first, second = hand.receive(), hand.receive()
            hand.send(first.data, flags=ECHO, sequence=first.sequence)
            self.assertEqual((hand.receive().sequence, second.sequence), (first.sequence + 2, first.sequence + 1))
            load.signal(signal.SIGINT)
            told = self.finish(load, 130)
        outcomes = told["outcomes"]
        self.assertEqual((told["interrupted"], outcomes["sent"], outcomes["answered"], outcomes["not_finished"]),
                         (True, 3, 1, 2))

    def test_draws_a_picture(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "latency.svg")
            with open(path, "w", encoding="utf-8") as file:
                file.write("x" * 100_000)
            self.measure("tcp", *SHORT, "--plot", path)
            with open(path, "rb") as file:
                picture = xml.dom.minidom.parse(file)
        self.assertEqual(picture.documentElement.tagName, "svg")
        self.assertEqual(len(picture.getElementsByTagName("polyline")), 1)
        self.assertEqual(picture.getElementsByTagName("title")[0].firstChild.data,
                         "tcp: closed loop with 1 under way, 64 bytes, 1 peer")

    def test_of_a_picture_that_cannot_be_written_comes_before_the_load(self):
        result = support.call("bench", "tcp", "--duration", 3600, "--plot", "/nonexistent/latency.svg")
        self.assertEqual((result.returncode, result.stdout, result.stderr),
                         (1, b"", b"zolt-center: cannot write /nonexistent/latency.svg: No such file or directory\n"))

    def test_tells_wrong_usage_in_one_line(self):
        for arguments, text in WRONG_USAGE:
            with self.subTest(arguments=arguments):
                result = support.call(*arguments)
                self.assertEqual((result.returncode, result.stdout, result.stderr.count(b"\n")), (2, b"", 1))
                self.assertIn(text, result.stderr.decode())

    def test_explains_why_an_open_loop_is_needed(self):
        for kind in ("tcp", "udp", "broadcast"):
            text = " ".join(support.call("bench", kind, "--help").stdout.decode().split())
            self.assertIn("the moment at which the packet was meant to leave", text)


if __name__ == "__main__":
    support.main()
