"""zolt-center over the loopback interface: run, send, listen and ping, with each other and with a peer written by hand."""

import json
import os
import random
import signal
import socket
import tempfile
import time
import unittest

import center_support as support

SUM = r"stopped; arrived \d+ packets with \d+ bytes; handed over (\d+) = written (\d+) \+ returned (\d+) \+ " \
      r"dropped (\d+) \+ failed (\d+) \+ queued (\d+)\n$"
ECHO = 1 << 8


def noise(size):
    return random.Random(size).randbytes(size)


def listening(*options):
    """A listener that is ready, and its port."""
    return support.start_on_port(lambda port: ["listen", "--port", port, *support.patient(), *options], "stderr", "ready")


def running(*options):
    """A Center that is ready, and its port."""
    patience = () if "--config" in options else support.patient()
    return support.start_on_port(lambda port: ["run", "--listen", port, *patience, *options], "stdout", "\n")


class Traffic(unittest.TestCase):
    def start(self, made):
        self.addCleanup(made[0].__exit__)
        return made

    def listen(self, *options):
        return self.start(listening(*options))

    def run_center(self, *options):
        return self.start(running(*options))

    def expect_end(self, program, code=0):
        ended, out, errors = program.finish()
        self.assertEqual(ended, code, errors)
        return out, errors


class Send(Traffic):
    def send(self, port, *options, code=0, **more):
        waiting = () if "--wait" in options else support.WAITING
        result = support.call("send", "--to", f"127.0.0.1:{port}", *waiting, *options, **more)
        self.assertEqual(result.returncode, code, result.stderr)
        return result

    def test_brings_standard_input_unchanged(self):
        listener, port = self.listen("--once")
        self.send(port, input=noise(3_000_000))
        self.assertEqual(self.expect_end(listener)[0], noise(3_000_000))

    def test_brings_a_file_unchanged(self):
        listener, port = self.listen("--once")
        with tempfile.NamedTemporaryFile() as file:
            file.write(noise(100_001))
            file.flush()
            self.send(port, file.name)
        self.assertEqual(self.expect_end(listener)[0], noise(100_001))

    def test_cuts_packets_at_the_size(self):
        listener, port = self.listen("--count", 3, "--format", "hex")
        self.send(port, "--size", 4, input=b"aaaabbbbcc")
        lines = self.expect_end(listener)[0].decode().splitlines()
        self.assertEqual([line.split(" ", 1)[1] for line in lines], ["4 61616161", "4 62626262", "2 6363"])

    def test_cuts_packets_at_line_ends_and_long_lines_at_the_size(self):
        listener, port = self.listen("--count", 4, "--format", "quoted")
        self.send(port, "--lines", "--size", 8, input=b"one\n\ntwelve bytes")
        lines = self.expect_end(listener)[0].decode().splitlines()
        self.assertEqual([line.split(" ", 1)[1] for line in lines],
                         [r'"one\n"', r'"\n"', '"twelve b"', '"ytes"'])

    def test_of_nothing_sends_nothing(self):
        listener, port = self.listen("--once")
        self.send(port, input=b"")
        self.assertEqual(self.expect_end(listener)[0], b"")

    def test_gives_the_sum_as_an_object(self):
        listener, port = self.listen("--once")
        told = json.loads(self.send(port, "--json", "--size", 10, input=bytes(25)).stdout)
        self.assertEqual((told["packets"], told["bytes"]), (3, 25))
        self.assertEqual({key: told["outcomes"][key] for key in ("handed_over", "written", "queued", "balances")},
                         {"handed_over": 3, "written": 3, "queued": 0, "balances": True})
        self.expect_end(listener)

    def test_to_nobody_is_told_in_one_line(self):
        with support.nobody() as address:
            result = self.send(address.split(":")[1], "--wait", 0.3, code=5)
        self.assertEqual(result.stderr.decode(), f"zolt-center: no connection to {address} within 0.3 seconds\n")

    def test_of_a_missing_file_is_told_in_one_line(self):
        result = self.send(support.free_port(), "/nonexistent", code=1)
        self.assertEqual(result.stderr.decode(), "zolt-center: cannot read /nonexistent: No such file or directory\n")

    def test_to_a_peer_that_goes_away_is_a_failure(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            port = server.getsockname()[1]
            reading, writing = os.pipe()
            with os.fdopen(writing, "wb"), support.Running("send", "--to", f"127.0.0.1:{port}", *support.WAITING,
                                                           stdin=reading) as sender:
                os.close(reading)
                with support.Peer.accept(server):
                    pass
                errors = self.expect_end(sender, 1)[1]
        self.assertIn("the peer ended the connection", errors)

    def test_of_datagrams_keeps_the_rate(self):
        # To this node itself: its own datagrams come back to its own port.
        begin = time.monotonic()
        self.send(support.free_port(), "--udp", "--rate", 100_000, "--size", 1000, input=bytes(50_000))
        self.assertGreater(time.monotonic() - begin, 0.4)

    def test_that_is_interrupted_says_so(self):
        _, port = self.listen()
        reading, writing = os.pipe()
        with os.fdopen(writing, "wb") as feed, support.Running("send", "--to", f"127.0.0.1:{port}", "--size", 4,
                                                               *support.WAITING, stdin=reading) as sender:
            os.close(reading)
            sender.wait_for("stderr", "connected")
            feed.write(b"1234")
            feed.flush()
            self.assertEqual(sender.signal_until_end(signal.SIGINT), 130)


class Listen(Traffic):
    def datagrams(self, port, *packets):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for packet in packets:
                sender.sendto(packet, ("127.0.0.1", port))
            return sender.getsockname()[1]

    def repeat_until_end(self, listener, port, packet):
        """A datagram that the relay refuses leaves those behind it waiting until the next one arrives."""
        listener.until_end(lambda: self.datagrams(port, packet))

    def test_writes_the_data_of_datagrams(self):
        listener, port = self.listen("--count", 2)
        self.datagrams(port, support.make_packet(b"one "), support.make_packet(b"two"))
        self.assertEqual(self.expect_end(listener)[0], b"one two")

    def test_quotes_what_is_not_printable(self):
        listener, port = self.listen("--count", 1, "--format", "quoted")
        self.datagrams(port, support.make_packet(b'a"\\\r\n\t\x00\xff~'))
        self.assertEqual(self.expect_end(listener)[0].decode().split(" ", 1)[1],
                         '"a\\"\\\\\\r\\n\\t\\x00\\xff~"\n')

    def test_tells_a_packet_as_an_object(self):
        listener, port = self.listen("--count", 2, "--json")
        with support.Peer.connect(port) as peer:
            peer.send("grün".encode(), sequence=7, code=9)
            address = "127.0.0.1:%d" % peer.connection.getsockname()[1]
            text = listener.wait_for("stdout", "\n")
            self.datagrams(port, support.make_packet(b"\xff\xfe"))
            lines = [json.loads(line) for line in self.expect_end(listener)[0].splitlines()]
        self.assertEqual(json.loads(text), lines[0])
        self.assertEqual(lines[0], {"from": address, "over": "accepted", "kind": "data", "sequence": 7, "code": 9,
                                    "size": 5, "text": "grün"})
        self.assertEqual((lines[1]["over"], lines[1]["hex"]), ("udp", "fffe"))
        self.assertEqual(lines[2:], [{"event": "stopped", "printed": 2}])

    def test_tells_an_object_also_when_nothing_came(self):
        for options, told in ((["--json"], '{"event":"stopped","printed":0}\n'), (["--format", "json"], "")):
            listener, _ = self.listen("--seconds", 0.05, *options)
            self.assertEqual(self.expect_end(listener)[0].decode(), told)

    def test_serves_ports_by_either_name(self):
        for command, options in (("listen", ["--port", "--listen"]), ("run", ["--listen", "--port"])):
            with support.Running(command, "--seconds", 0.05, *(["--admin", "none"] if command == "run" else []),
                                 *(word for option in options for word in (option, support.free_port()))) as program:
                ports = [str(word) for word in program.process.args if str(word).isdigit()]
                out, errors = self.expect_end(program)
                self.assertIn(f"ready; serving {', '.join(ports)} over UDP and TCP", out.decode() + errors)
            told = support.call(command, "--help").stdout.decode()
            self.assertEqual([option for option in options if f"\n  {option} " in told], options[:1])

    def test_goes_on_after_datagrams_that_are_no_packets(self):
        listener, port = self.listen("--count", 1)
        self.datagrams(port, b"", b"short", support.make_packet(b"shorter than told")[:-1],
                       support.make_packet(b"longer than told") + b"!",
                       support.make_packet(b"another version", version=2))
        self.repeat_until_end(listener, port, support.make_packet(b"good"))
        self.assertEqual(self.expect_end(listener)[0], b"good")

    def test_drops_datagrams_above_the_largest_packet(self):
        listener, port = self.listen("--count", 1, "--max-packet", 100)
        self.datagrams(port, support.make_packet(bytes(101)))
        self.repeat_until_end(listener, port, support.make_packet(b"x" * 100))
        self.assertEqual(self.expect_end(listener)[0], b"x" * 100)

    def test_joins_a_group_for_its_source(self):
        listener, port = self.listen("--count", 1, "--group", "232.0.0.1", "--source", "127.0.0.1",
                                     "--interface", "127.0.0.1")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("127.0.0.1"))
            sender.sendto(support.make_packet(b"to the group"), ("232.0.0.1", port))
        self.assertEqual(self.expect_end(listener)[0], b"to the group")

    def get_one_within(self, seconds):
        listener, port = self.listen("--count", 2, "--seconds", seconds)
        self.datagrams(port, support.make_packet(b"one"))
        return self.expect_end(listener, 1)

    def test_that_gets_too_few_is_a_failure(self):
        out, errors = support.with_more_time(self.get_one_within, lambda made: made[0], 0.5)
        self.assertEqual(out, b"one")
        self.assertIn("zolt-center: only 1 of 2 packets arrived\n", errors)

    def test_that_is_interrupted_before_its_count_says_so(self):
        listener, _ = self.listen("--count", 2)
        listener.signal(signal.SIGINT)
        self.expect_end(listener, 130)

    def test_without_a_count_ends_well_on_a_signal(self):
        listener, _ = self.listen()
        listener.signal(signal.SIGTERM)
        self.expect_end(listener)

    def test_ends_when_nobody_reads_it(self):
        listener, port = self.listen()
        listener.process.stdout.close()
        self.datagrams(port, support.make_packet(b"nobody"))
        listener.wait_for("stderr", "zolt-center: cannot write to standard output: Broken pipe\n")
        self.assertEqual(listener.process.wait(support.DEADLINE), 1)


class Run(Traffic):
    def expect_sum(self, program):
        """The figures of the last line; they balance."""
        out, _ = self.expect_end(program)
        self.assertRegex(out.decode(), SUM)
        numbers = [int(word) for word in out.decode().rsplit("; ", 1)[1].split() if word.isdigit()]
        self.assertEqual(numbers[0], sum(numbers[1:]))
        return numbers

    def ask_for_more_answers_than_fit(self, center, peer):
        """Ends once all answers to a peer that reads none are handed over: more than the kernel takes for it."""
        peer.connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        for _ in range(64):
            peer.send(bytes(1_000_000))
        center.wait_for_count("stderr", "tcp send server", 64)

    def test_says_in_one_line_that_it_is_ready(self):
        center, port = self.run_center("--connect", "127.0.0.1:9", "--admin", "none")
        self.assertEqual(center.text["stdout"].decode(),
                         f"ready; serving {port} over UDP and TCP; connecting to 127.0.0.1:9\n")

    def test_ends_well_on_both_signals(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            center, _ = self.run_center()
            center.signal(number)
            self.expect_sum(center)

    def test_ends_by_itself_after_its_time(self):
        center, _ = self.run_center("--seconds", 0.2)
        self.expect_sum(center)

    def test_sends_back_over_the_connection_it_came_by(self):
        center, port = self.run_center("--echo")
        with support.Peer.connect(port) as peer:
            peer.send(b"there and back", sequence=3)
            packet = peer.receive()
        self.assertEqual((packet.data, packet.sequence, packet.flags), (b"there and back", 3, ECHO))
        center.signal(signal.SIGTERM)
        self.assertEqual(self.expect_sum(center)[:2], [1, 1])

    def test_does_not_send_back_what_was_sent_back(self):
        _, port = self.run_center("--echo")
        with support.Peer.connect(port) as peer:
            peer.send(b"echo", flags=ECHO)
            peer.send(b"voice")
            self.assertEqual(peer.receive().data, b"voice")

    def test_acknowledges_calls_of_who_connected(self):
        _, port = self.run_center()
        with support.Peer.connect(port) as peer:
            peer.send(b"call", kind=support.CALL, sequence=5)
            packet = peer.receive()
        self.assertEqual((packet.kind, packet.sequence, packet.data), (support.CALL_ACKNOWLEDGEMENT, 5, b""))

    def test_warns_of_what_its_configuration_does_not_mean(self):
        with tempfile.NamedTemporaryFile("w", suffix=".ini") as file:
            file.write("[ZOLT]\nAUTO_DISCONNECT = off\nSERVER_LINGER_TIME = 5\n")
            file.flush()
            checked = json.loads(support.call("config", "check", file.name, "--json").stdout)["findings"]
            center, _ = self.start(support.start_on_port(
                lambda port: ["run", "--listen", port, "--config", file.name, "--admin", "none", "--seconds", 0.05], "stdout", "\n"))
            warnings = [line.partition(" warning ")[2] for line in self.expect_end(center)[1].splitlines() if " warning " in line]
        self.assertEqual([finding["code"] for finding in checked], ["switch-not-off", "key-no-effect"])
        self.assertEqual(warnings, [f"{file.name}:{told['line']}: {told['severity']} {told['code']}: {told['reason']}; {told['advice']}"
                                    for told in checked])

    def test_tells_who_comes_and_goes(self):
        center, port = self.run_center()
        with support.Peer.connect(port) as peer:
            address = "127.0.0.1:%d" % peer.connection.getsockname()[1]
            center.wait_for("stderr", f" connected {address} (accepted)")
        center.wait_for("stderr", f" disconnected {address} (accepted)")

    def test_tells_events_as_objects(self):
        center, port = self.run_center("--json")
        with support.Peer.connect(port) as peer:
            address = "127.0.0.1:%d" % peer.connection.getsockname()[1]
            center.wait_for("stdout", '"connected"')
        center.wait_for("stdout", '"disconnected"')
        center.signal(signal.SIGTERM)
        events = [json.loads(line) for line in self.expect_end(center)[0].splitlines()]
        self.assertEqual([event["event"] for event in events], ["ready", "connected", "disconnected", "stopped"])
        self.assertEqual((events[0]["pid"], events[0]["listen"]), (center.pid, [port]))
        self.assertEqual((events[1]["peer"], events[1]["over"]), (address, "accepted"))
        self.assertTrue(events[3]["packets"]["balances"])

    def test_folds_what_the_relay_repeats(self):
        center, port = self.run_center()
        for _ in range(3):
            with support.Peer.connect(port) as peer:
                address = "127.0.0.1:%d" % peer.connection.getsockname()[1]
            center.wait_for("stderr", f" disconnected {address} ")
        center.signal(signal.SIGTERM)
        _, errors = self.expect_end(center)
        told = [line.split(" ", 1)[1] for line in errors.splitlines()]
        first, meaning = "warning relay: recv server 에러", "info the line above comes with the end of each connection"
        self.assertEqual([line for line in told if "recv server" in line], [first, f"{first} (held back 2 times)"])
        self.assertEqual([number for number, line in enumerate(told) if line.startswith(meaning)], [told.index(first) + 1])

    def test_counts_what_the_relay_drops_on_a_busy_connection(self):
        center, port = self.run_center("--echo", "--verbose")
        with support.Peer.connect(port) as peer:
            # The peer reads nothing yet and has little room, so the answers wait; information does not wait behind others.
            peer.connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
            for _ in range(16):
                peer.send(bytes(1_000_000))
            for _ in range(5):
                peer.send(b"news", kind=support.INFORMATION_UDP)
            # Every answer but that to the call has been handed over once there are so many traces of it.
            center.wait_for_count("stderr", "tcp send server", 21)
            peer.send(kind=support.CALL)
            answers = [peer.receive().kind for _ in range(17)]
            center.signal(signal.SIGTERM)
            handed_over, written, returned, dropped, failed, queued = self.expect_sum(center)
        self.assertEqual(answers, [support.DATA] * 16 + [support.CALL_ACKNOWLEDGEMENT])
        self.assertEqual((handed_over, written, returned, dropped, failed, queued), (22, 17, 0, 5, 0, 0))

    def test_says_as_much_as_is_wanted(self):
        for option, shown in (("--verbose", (True, True)), ("--quiet", (False, False)), (None, (True, False))):
            center, port = self.run_center(*([option] if option else []))
            with support.Peer.connect(port) as peer:
                peer.send(b"call", kind=support.CALL)
                peer.receive()
            center.signal(signal.SIGTERM)
            _, errors = self.expect_end(center)
            self.assertEqual((" connected " in errors, "debug relay: " in errors), shown, option)

    def test_connects_again_to_a_peer_that_was_killed(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            address = "127.0.0.1:%d" % server.getsockname()[1]
            with support.Running("run", "--connect", address) as center:
                for _ in range(2):
                    with support.Peer.accept(server):
                        center.wait_for("stderr", f" connected {address} (outgoing)")
                    center.wait_for("stderr", f" disconnected {address} (outgoing)")
                    center.text["stderr"] = b""

    def test_returns_what_a_lost_peer_did_not_take(self):
        center, port = self.run_center("--echo", "--verbose")
        with support.Peer.connect(port) as peer:
            self.ask_for_more_answers_than_fit(center, peer)
        center.wait_for("stderr", "disconnected")
        center.signal(signal.SIGTERM)
        self.assertGreater(self.expect_sum(center)[2], 0)

    def test_is_cut_at_once_by_a_second_signal(self):
        center, port = self.run_center("--echo", "--verbose", "--stop-timeout", 3600)
        with support.Peer.connect(port) as peer:
            self.ask_for_more_answers_than_fit(center, peer)
            # Its answers wait for a peer that reads nothing, so the stop waits, too.
            center.signal(signal.SIGTERM)
            center.wait_for("stderr", "stopping")
            self.assertEqual(center.signal_until_end(signal.SIGTERM), 130)


class Ping(Traffic):
    def expect_figures(self, result, calls):
        self.assertEqual(result[0], 0, result)
        told = json.loads(result[1])
        self.assertEqual((told["calls"], told["acknowledged"]), (calls, calls))
        self.assertTrue(0 < told["min_ms"] <= told["median_ms"] <= told["p99_ms"] < 60_000, told)
        return told

    def test_over_its_own_connection_is_acknowledged_by_the_peers_center(self):
        _, port = self.run_center()
        result = support.call("ping", "--to", f"127.0.0.1:{port}", "--count", 300, "--interval", 0, "--json",
                              *support.CALLING)
        told = self.expect_figures((result.returncode, result.stdout), 300)
        self.assertEqual((told["peer"], told["over"]), (f"127.0.0.1:{port}", "outgoing"))

    def test_over_a_peers_connection_is_acknowledged_by_its_relay(self):
        port = support.free_port()
        with support.Running("ping", "--port", port, "--count", 300, "--interval", 0, "--size", 100, "--json",
                             *support.CALLING) as pinger, \
                support.Running("run", "--connect", f"127.0.0.1:{port}"):
            told = self.expect_figures(pinger.finish(), 300)
        self.assertEqual(told["over"], "accepted")

    def test_of_signals_is_acknowledged_too(self):
        _, port = self.run_center()
        result = support.call("ping", "--to", f"127.0.0.1:{port}", "--signal", "--count", 3, "--json", *support.CALLING)
        self.expect_figures((result.returncode, result.stdout), 3)

    def test_prints_a_line_for_each_call_and_one_with_the_figures(self):
        _, port = self.run_center()
        result = support.call("ping", "--to", f"127.0.0.1:{port}", "--count", 2, "--interval", 0, *support.CALLING)
        lines = result.stdout.decode().splitlines()
        self.assertEqual((result.returncode, len(lines)), (0, 3))
        self.assertRegex(lines[0], rf"^127\.0\.0\.1:{port} call 1: \d+\.\d{{3}} ms$")
        self.assertRegex(lines[2], r"^2 calls, 2 acknowledged; min [\d.]+ ms, median [\d.]+ ms, p99 [\d.]+ ms$")

    def test_without_acknowledgement_is_a_failure(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            with support.Running("ping", "--to", "127.0.0.1:%d" % server.getsockname()[1], "--count", 2,
                                 "--timeout", 0.1, *support.WAITING) as pinger, support.Peer.accept(server) as peer:
                self.assertEqual([peer.receive().kind for _ in range(2)], [support.CALL, support.CALL])
                code, out, errors = pinger.finish()
        self.assertEqual(code, 1)
        self.assertIn("call 2: not acknowledged within 0.1 seconds", out.decode())
        self.assertIn("zolt-center: 2 of 2 calls were not acknowledged\n", errors)

    def test_to_nobody_and_from_nobody_is_told(self):
        with support.nobody() as address:
            result = support.call("ping", "--to", address, "--wait", 0.2)
        self.assertEqual((result.returncode, result.stderr.decode()),
                         (5, f"zolt-center: no connection to {address} within 0.2 seconds\n"))
        result = support.call("ping", "--port", support.free_port(), "--wait", 0.2)
        self.assertEqual((result.returncode, result.stderr.decode()),
                         (5, "zolt-center: nobody connected within 0.2 seconds\n"))


if __name__ == "__main__":
    support.main()
