"""zolt-center bench: what is counted, from which moment, against Centers and against peers that are written by hand."""

import contextlib
import json
import os
import re
import signal
import socket
import tempfile
import unittest
import xml.dom.minidom

import center_support as support

SHORT = 0.2  # seconds; a busy machine gets more
ECHO = 1 << 8
STANDSTILL = 0.3  # of the time that a load takes
LOST_PEER = "^([^\n]+ relay: recv client 에러\n[^\n]+ info the line above [^\n]+\n)?$"

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


def pull(connection, seconds):
    """A packet that is no heartbeat, as header fields and data; nothing when none comes for so long."""
    connection.connection.settimeout(seconds)
    try:
        return connection.receive()
    except TimeoutError:
        return None
    finally:
        connection.connection.settimeout(support.DEADLINE)


def answer(connection, packet):
    connection.send(packet.data, flags=ECHO, sequence=packet.sequence)


def lasting(seconds):
    return "--duration", seconds, "--warm-up", seconds / 4


def each_was_served(told):
    """Each peer has done its part within the time that was measured."""
    return told["packets_per_second"] > 0 and all(one["outcomes"].get("answered", one["outcomes"].get("received")) > 0
                                                  for one in told["by_peer"])


class Bench(unittest.TestCase):
    def setUp(self):
        self.handed_over = 0  # by all loads of the test

    def attempt(self, *arguments):
        """The exit code of a load, and the object that it prints; its outcomes balance."""
        result = support.call("bench", *arguments, "--json")
        self.assertEqual((result.stderr, result.stdout.count(b"\n")), (b"", 1), result.stdout)
        told = self.check(json.loads(result.stdout))
        self.handed_over += told["handed_over"]
        return result.returncode, told

    def measure(self, *arguments, patience=support.CALLING):
        """What a load tells that was long enough for each peer, and ended well."""
        code, told = support.with_more_time(lambda seconds: self.attempt(*arguments, *patience, *lasting(seconds)),
                                            lambda made: each_was_served(made[1]), SHORT)
        self.assertEqual(code, 0, told)
        return told

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
        return self.start(support.start_on_port(
            lambda port: ["run", "--listen", port, "--admin", "none", *support.patient(), *options], "stdout", "\n"))

    @contextlib.contextmanager
    def load_on_hand_peer(self, *options):
        """A running load, and its peer."""
        with socket.create_server(("127.0.0.1", 0)) as server:
            port = server.getsockname()[1]
            with support.Running("bench", "tcp", "--to", f"127.0.0.1:{port}", "--json", "--warm-up", 0, *support.WAITING,
                                 *support.patient(), *options) as load, support.Peer.accept(server) as hand:
                yield load, hand

    def finish(self, load, code, errors="^$"):
        ended, out, told = load.finish()
        self.assertEqual(ended, code, out)
        self.assertRegex(told, errors)
        return self.check(json.loads(out))


class OwnCenter(Bench):
    def test_answers_a_closed_loop_over_tcp(self):
        told = self.measure("tcp", "--peers", 3, "--window", 2, "--size", 1000)
        self.check_trips(told, 3)
        self.assertEqual((told["loop"], told["window"], told["size"]), ("closed", 2, 1000))
        self.assertAlmostEqual(told["packets_per_second"], told["outcomes"]["answered"] / told["seconds"], 3)

    def test_answers_an_open_loop_at_its_rate(self):
        told = self.measure("tcp", "--peers", 2, "--rate", 500)
        self.check_trips(told, 2)
        sent = round(500 * told["duration"])
        self.assertEqual((told["outcomes"]["sent"], told["unsent"], told["sent_late_us"]["count"]), (sent, 0, sent))

    def test_acknowledges_calls(self):
        self.check_trips(self.measure("tcp", "--calls"), 1)

    def test_answers_each_broadcast_once_for_each_peer(self):
        told = self.measure("broadcast", "--peers", 3)
        self.check_trips(told, 3)
        broadcasts = told["whole_broadcast_us"]
        self.assertEqual(told["outcomes"]["sent"], 3 * broadcasts["count"])
        self.assertGreaterEqual(broadcasts["p50"], told["latency_us"]["p50"])

    def test_counts_what_goes_one_way(self):
        told = self.measure("tcp", "--one-way", "--peers", 2)
        self.assertEqual(told["outcomes"]["received"], told["outcomes"]["sent"])
        self.assertEqual(told["handed_over"], told["far_arrived"])
        self.assertEqual(told["handed_over"], told["outcomes"]["sent"])
        self.assertLess(told["packets_per_second"] * told["seconds"], told["outcomes"]["sent"])

    def test_answers_datagrams_in_a_network_of_its_own(self):
        if not support.can_have_networks():
            self.skipTest("network namespaces are not allowed here")
        told = self.measure("udp", "--peers", 2, "--rate", 200, patience=())
        self.assertEqual(told["outcomes"]["sent"], round(200 * told["duration"]))
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
        told = self.measure("tcp", "--to", f"127.0.0.1:{port}", "--to", f"127.0.0.2:{port}")
        self.assertEqual([one["peer"] for one in told["by_peer"]], [f"127.0.0.1:{port}", f"127.0.0.2:{port}"])
        self.assertIsNone(told["far_arrived"])
        center.signal(signal.SIGTERM)
        self.assertEqual(json.loads(center.finish()[1].splitlines()[-1])["arrived"], self.handed_over)

    def test_that_only_listen_acknowledge_calls_and_count_what_they_receive(self):
        center, port = self.run_center("--json")
        self.measure("tcp", "--to", f"127.0.0.1:{port}", "--calls", "--window", 4)
        streamed = self.measure("tcp", "--to", f"127.0.0.1:{port}", "--one-way")["outcomes"]
        self.assertEqual(streamed["received"], streamed["sent"])
        center.signal(signal.SIGTERM)
        self.assertEqual(json.loads(center.finish()[1].splitlines()[-1])["arrived"], self.handed_over)

    def broadcasts(self, seconds):
        """The exit code and the object of a load that waits for its peer, which answers everything."""
        load, port = self.start(support.start_on_port(
            lambda port: ["bench", "broadcast", "--listen", port, *support.patient(), *support.CALLING, *lasting(seconds), "--json"], "stderr",
            "waiting for peers"))
        with support.Peer.connect(port) as hand, contextlib.suppress(AssertionError, OSError):
            while True:
                answer(hand, hand.receive())
        ended, out, _ = load.finish()
        return ended, self.check(json.loads(out))

    def test_that_connect_here_get_broadcasts(self):
        ended, told = support.with_more_time(self.broadcasts, lambda made: made[1]["outcomes"]["answered"] > 1, SHORT)
        self.assertEqual((ended, told["outcomes"]["answered"]), (0, told["outcomes"]["sent"]))

    def test_that_are_not_there_are_unreachable(self):
        with support.nobody() as address:
            result = support.call("bench", "tcp", "--to", address, "--wait", 0.2)
        self.assertEqual((result.returncode, result.stderr),
                         (5, b"zolt-center: 0 of 1 peers are connected after 0.2 seconds\n"))

    def unanswered(self, seconds):
        """What a load told whose peer answers nothing, and the packets that the peer got."""
        got = []
        with self.load_on_hand_peer("--window", 3, "--duration", seconds, "--timeout", 0.05) as (load, hand):
            told = self.finish(load, 1)
            with contextlib.suppress(AssertionError, OSError):
                while True:
                    got.append(hand.receive())
        return told, got

    def test_get_no_more_than_the_window(self):
        told, got = support.with_more_time(self.unanswered, lambda made: made[0]["outcomes"]["sent"] > 0, 0.5)
        self.assertEqual((told["outcomes"]["sent"], told["outcomes"]["not_finished"], len(got)), (3, 3, 3))
        self.assertIn("no packet was answered", told["error"]["text"])

    def answered_late(self):
        """An open loop whose peer answers all packets at once after the last one."""
        with self.load_on_hand_peer("--rate", 100, "--duration", 0.4) as (load, hand):
            packets = [hand.receive() for _ in range(40)]
            hand.connection.sendall(b"".join(support.make_packet(packet.data, flags=ECHO, sequence=packet.sequence)
                                             for packet in packets))
            told = self.finish(load, 0)
        self.assertEqual(told["outcomes"]["answered"], 40)
        # The first one waited until the last one was sent, 39 intervals later.
        self.assertGreater(told["latency_us"]["max"], 390_000)
        return told["latency_us"]

    def test_that_keep_silent_do_not_slow_an_open_loop_down(self):
        # The last one did not wait, unless the load was interrupted between the first answer and the last.
        support.wait_until(self.answered_late, lambda latency: latency["min"] < latency["max"] - 380_000)

    def stopped_and_answered(self, seconds):
        """An open loop that stands still for a while and whose peer answers each packet at once. Gives what it told, and how
        much of it was still to come when it stood still."""
        count = int(200 * seconds)
        with self.load_on_hand_peer("--rate", 200, "--duration", seconds) as (load, hand):
            answer(hand, hand.receive())
            answered = 1
            load.signal(signal.SIGSTOP)
            while packet := pull(hand, STANDSTILL * seconds):
                answer(hand, packet)
                answered += 1
            load.signal(signal.SIGCONT)
            for _ in range(answered, count):
                answer(hand, hand.receive())
            told = self.finish(load, 0)
        self.assertEqual(told["outcomes"]["answered"], count)
        return told, 1 - answered / count

    def test_see_a_latency_from_the_moment_that_was_meant(self):
        told, _ = support.with_more_time(self.stopped_and_answered, lambda made: made[1] > 0.5, 1)
        # Each packet was answered at once; what was due while the load stood still, a third, is counted all the same.
        self.assertGreater(told["sent_late_us"]["max"], STANDSTILL * told["duration"] * 1e6 * 0.9)
        self.assertGreater(told["latency_us"]["p90"], STANDSTILL * told["duration"] * 1e6 / 2)

    def test_that_go_away_end_the_load(self):
        with self.load_on_hand_peer("--window", 2, "--duration", 30) as (load, hand):
            for _ in range(5):
                answer(hand, hand.receive())
            hand.connection.close()
            told = self.finish(load, 1, LOST_PEER)
        # What came just before the end may not have been read, and the end may come before or after the next packet.
        outcomes = told["outcomes"]
        self.assertIn(outcomes["answered"], (3, 4, 5))
        self.assertIn(outcomes["sent"] - outcomes["answered"], (1, 2, 3))
        self.assertRegex(told["error"]["text"], "^the connection to 127.0.0.1:[0-9]+ has ended")

    def test_that_send_what_was_not_asked_for_change_nothing(self):
        with self.load_on_hand_peer("--duration", 30) as (load, hand):
            packet = hand.receive()
            for number, code in ((packet.sequence + 1, 0), (packet.sequence - 1, 0), (packet.sequence, 7), (0, 0)):
                hand.send(b"", flags=ECHO, sequence=number, code=code)
            hand.send(packet.data, sequence=packet.sequence)
            for _ in range(2):
                answer(hand, packet)
            self.assertIsNotNone(hand.receive())
            hand.connection.close()
            told = self.finish(load, 1, LOST_PEER)
        self.assertEqual((told["outcomes"]["sent"], told["outcomes"]["answered"]), (2, 1))

    def test_over_udp_that_do_not_answer_are_lost(self):
        # This node itself: its own datagrams arrive at its own port and are no answers.
        code, told = support.with_more_time(
            lambda seconds: self.attempt("udp", "--to", f"127.0.0.1:{support.free_port()}", "--window", 4, "--timeout", 0.05,
                                         "--warm-up", 0, "--duration", seconds),
            # A lost one makes room for the next.
            lambda made: made[1]["outcomes"]["sent"] > 8, 0.3)
        self.assertEqual((code, told["outcomes"]["lost"]), (1, told["outcomes"]["sent"]))
        self.assertLess(told["outcomes"]["sent"], 4 * (told["duration"] / 0.05 + 1))


class Output(Bench):
    def test_is_a_table(self):
        result = support.with_more_time(
            lambda seconds: support.call("bench", "tcp", *support.CALLING, *lasting(seconds), "--peers", 2),
            lambda made: made.returncode == 0, SHORT)
        self.assertEqual(result.stderr, b"")
        lines = result.stdout.decode().splitlines()
        self.assertEqual(lines[0], "tcp: closed loop with 1 under way, 64 bytes, 2 peers")
        self.assertEqual(lines[1].split(), "peer answers p50 us p90 us p99 us p99.9 us max us".split())
        answers = [int(line.split()[1]) for line in lines[2:5]]
        self.assertEqual((lines[4].split()[0], answers[2]), ("all", answers[0] + answers[1]))
        self.assertEqual(lines[5], f"sent {answers[2]} = answered {answers[2]} + returned 0 + lost 0 + not finished 0")
        self.assertRegex(lines[6], r"^[\d.]+ answers a second, [\d.]+ MiB of data a second, over \d+\.\d{3} s$")

    def test_shows_progress_on_a_terminal_only(self):
        wanted = (r"\r\x1b\[Kwarming up; \d+\.\d s remain", r"\r\x1b\[K\d+\.\d of \d+\.\d s; \d+ answers; \d+\.\d s remain")
        code, shown = support.with_more_time(
            lambda seconds: support.show_on_terminal("bench", "tcp", *support.CALLING, "--duration", seconds, "--warm-up", seconds / 2),
            lambda made: made[0] == 0 and all(re.search(text, made[1]) for text in wanted), 0.4)
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
            self.measure("tcp", "--plot", path)
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
