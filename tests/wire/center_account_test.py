"""What a running Center knows of itself: its peers, the ends of connections, queues, threads, and what it does about them."""

import contextlib
import errno
import json
import os
import re
import selectors
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

import admin_support
import center_support as support

SECOND = 1.0
HEADER = support.HEADER_SIZE


def reset(connection):
    """Ends a connection with a reset, after a heartbeat: a write that meets the reset would take its error from who reads."""
    connection.settimeout(0)
    with contextlib.suppress(BlockingIOError):
        while connection.recv(65536):
            pass
    connection.settimeout(support.DEADLINE)
    connection.recv(HEADER)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


class Account(unittest.TestCase):
    # The peers of these tests send no heartbeats, and need not be quick.
    CONFIGURATION = "[ZOLT]\nAUTO_DISCONNECT = no\n"

    def start(self, *options, **more):
        file = self.enter(tempfile.NamedTemporaryFile("w", suffix=".ini"))
        file.write(self.CONFIGURATION)
        file.flush()
        return self.enter(admin_support.Center("--config", file.name, *options, **more))

    def enter(self, manager):
        self.addCleanup(manager.__exit__, None, None, None)
        return manager.__enter__()

    def serve(self, **options):
        server = self.enter(socket.create_server(("127.0.0.1", 0), **options))
        return server, "127.0.0.1:%d" % server.getsockname()[1]

    def connect(self, center):
        peer = self.enter(support.Peer.connect(center.port))
        return peer, "127.0.0.1:%d" % peer.connection.getsockname()[1]

    def peer_of(self, center, address, is_so, over=None):
        """The peer with that address, once it is as wanted."""
        def find(told):
            return [peer for peer in told["peers"] if peer["address"] == address and over in (None, peer["over"])]
        return find(center.wait_until("peers", lambda told: any(map(is_so, find(told)))))[0]

    def expect_closed(self, center, reason, is_so=lambda end: True):
        """The newest end of a connection, once it has that reason."""
        ends = center.wait_until("closed", lambda told: told["closed"] and told["closed"][0]["reason"] == reason
                                 and is_so(told["closed"][0]))
        return ends["closed"][0]

    def expect_counts(self, counts, **wanted):
        """So many ends for these reasons, and none for others."""
        self.assertEqual({reason: count for reason, count in counts.items() if count != 0}, wanted)

    def last_word(self, program):
        """What a Center that is asked to stop says last."""
        program.signal(signal.SIGTERM)
        code, out, errors = program.finish()
        self.assertEqual(code, 0, errors)
        told = json.loads(out.splitlines()[-1])
        self.assertEqual(told["event"], "stopped")
        return told

    def stop(self, center):
        """The sum that a Center ends with."""
        counts = self.last_word(center.program)["packets"]
        ends = sum(counts[key] for key in ("written", "returned", "dropped", "failed", "queued"))
        self.assertEqual((counts["handed_over"], counts["balances"]), (ends, True))
        return counts


class Peers(Account):
    def test_are_counted_each_for_itself(self):
        center = self.start("--echo")
        (one, first), (two, second) = self.connect(center), self.connect(center)
        for _ in range(3):
            one.send(b"12345")
            one.receive()
        two.send(b"123")
        two.receive()
        for address, packets, size in ((first, 3, 15), (second, 1, 3)):
            told = self.peer_of(center, address, lambda peer: peer["latency_us"]["count"] == packets)
            counts = {"packets": packets, "bytes": size}
            self.assertEqual((told["over"], told["state"], told["in"], told["out"]),
                             ("accepted", "established", counts, counts))
            latency = told["latency_us"]
            self.assertEqual(told["queue"], {"packets": 0, "bytes": 0})
            self.assertTrue(0 <= latency["p50"] <= latency["p90"] <= latency["p99"] <= latency["max"], latency)
        status = center.json("status")
        self.assertEqual((status["totals"]["tcp_in"], status["latency_us"]["count"]), ({"packets": 4, "bytes": 18}, 4))

    def test_that_connected_and_are_connected_to_from_one_address_are_two(self):
        server = self.enter(socket.socket())
        server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        server.bind(("127.0.0.1", 0))
        server.listen()
        address = "127.0.0.1:%d" % server.getsockname()[1]
        center = self.start("--echo", "--connect", address)
        accepting = self.enter(support.Peer.accept(server))
        connection = self.enter(socket.socket())
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        connection.bind(server.getsockname())
        connection.connect(("127.0.0.1", center.port))
        connecting = self.enter(support.Peer(connection, True))
        for peer, size in ((accepting, 7), (connecting, 9)):
            peer.send(bytes(size))
            self.assertEqual(len(peer.receive().data), size)
        for over, size in (("outgoing", 7), ("accepted", 9)):
            told = self.peer_of(center, address, lambda peer: peer["out"]["packets"] == 1, over)
            self.assertEqual((told["in"]["bytes"], told["out"]["bytes"]), (size, size))
        accepting.connection.close()
        self.peer_of(center, address, lambda peer: peer["state"] != "established", "outgoing")
        connecting.send(b"still here")
        self.assertEqual(connecting.receive().data, b"still here")

    def test_that_are_destinations_are_lost_and_found(self):
        port = support.free_port()
        address = f"127.0.0.1:{port}"
        center = self.start("--connect", address)
        self.assertEqual(self.peer_of(center, address, lambda peer: peer["state"] == "lost")["over"], "outgoing")
        with socket.create_server(("127.0.0.1", port)) as server, support.Peer.accept(server) as peer:
            self.peer_of(center, address, lambda peer: peer["state"] == "established")
            peer.send(b"1234")
            self.peer_of(center, address, lambda peer: peer["in"]["bytes"] == 4)
        told = self.peer_of(center, address, lambda peer: peer["state"] == "lost")
        self.assertEqual(told["in"], {"packets": 1, "bytes": 4})

    def test_without_an_answer_are_connecting(self):
        # A listener whose backlog is full answers no more.
        server, address = self.serve(backlog=0)
        for _ in range(2):
            waiting = self.enter(socket.socket())
            waiting.setblocking(False)
            waiting.connect_ex(server.getsockname())
        self.peer_of(self.start("--connect", address), address, lambda peer: peer["state"] == "connecting")

    def test_say_since_when_nothing_came(self):
        center = self.start()
        peer, address = self.connect(center)
        told = self.peer_of(center, address, lambda peer: peer["silent_s"] > SECOND)
        self.assertLess(told["silent_s"], told["since_s"] + SECOND)

        def is_heard(now):
            peer.send(b"here")
            return now["silent_s"] < told["silent_s"]
        self.peer_of(center, address, is_heard)

    def test_have_rates_over_the_last_second(self):
        center = self.start("--echo")
        peer, address = self.connect(center)
        peer.send(bytes(1000))

        def is_seen(now):
            # Who looks too late sees nothing of it any more.
            if now["rates"]["bytes_in_per_s"] == 0 and now["silent_s"] > 3 * SECOND:
                peer.send(bytes(1000))
            return now["rates"]["bytes_in_per_s"] > 0
        rates = self.peer_of(center, address, is_seen)["rates"]
        # One packet within a second, or what the watch's thread takes for one.
        self.assertTrue(0 < rates["packets_in_per_s"] <= SECOND, rates)
        self.assertAlmostEqual(rates["bytes_in_per_s"], 1000 * rates["packets_in_per_s"])
        self.peer_of(center, address, lambda peer: peer["rates"]["bytes_in_per_s"] == 0)


class Ends(Account):
    def test_by_the_peer_are_told_with_what_passed(self):
        center = self.start()
        with support.Peer.connect(center.port) as peer:
            address = "127.0.0.1:%d" % peer.connection.getsockname()[1]
            peer.send(b"goodbye")
            self.peer_of(center, address, lambda peer: peer["in"]["packets"] == 1)
        end = self.expect_closed(center, "peer_closed")
        self.assertEqual((end["address"], end["over"], end["in"]), (address, "accepted", {"packets": 1, "bytes": 7}))
        self.assertGreater(end["lasted_s"], 0)
        self.assertLess(abs(end["closed_unix_ms"] / 1000 - time.time()), support.DEADLINE)
        self.assertEqual(center.json("peers"), {"peers": []})

    def test_by_a_reset_are_told(self):
        center = self.start()
        peer, address = self.connect(center)
        self.peer_of(center, address, lambda peer: peer["state"] == "established")
        reset(peer.connection)
        self.assertEqual(self.expect_closed(center, "reset")["detail"], "Connection reset by peer")

    def test_of_destinations_are_told(self):
        server, address = self.serve()
        center = self.start("--connect", address)
        for end, reason in ((socket.socket.close, "peer_closed"), (reset, "reset")):
            with support.Peer.accept(server) as peer:
                self.peer_of(center, address, lambda peer: peer["state"] == "established")
                end(peer.connection)
                self.assertEqual(self.expect_closed(center, reason)["address"], address)

    def test_are_counted_by_their_reason(self):
        center = self.start()
        for end in (socket.socket.close, socket.socket.close, reset):
            peer, address = self.connect(center)
            self.peer_of(center, address, lambda peer: peer["state"] == "established")
            end(peer.connection)
            center.wait_until("peers", lambda told: not told["peers"])
        for _ in range(3):
            socket.create_connection(("127.0.0.1", center.port)).close()
        wanted = {"peer_closed": 2, "reset": 1, "init_failed": 3}
        self.expect_counts(center.wait_until("status", lambda told: told["closed"]["init_failed"] == 3)["closed"], **wanted)
        metrics = center.metrics()
        for reason, count in center.json("status")["closed"].items():
            self.assertEqual(metrics.value("zolt_connections_closed_total", reason=reason), count, reason)
        self.expect_counts(self.last_word(center.program)["closed"], **wanted)

    def test_by_the_stop_are_counted(self):
        server, address = self.serve()
        center = self.start("--connect", address)
        self.enter(support.Peer.accept(server))
        self.connect(center)
        center.wait_until("peers", lambda told: [peer["state"] for peer in told["peers"]] == ["established"] * 2)
        self.expect_counts(self.last_word(center.program)["closed"], shutdown=2)

    def test_of_a_destination_that_was_withdrawn_are_counted(self):
        server, address = self.serve()
        node = self.enter(support.Running("demo-node", stdin=subprocess.PIPE))

        def command(what):
            node.process.stdin.write(json.dumps({"do": what, "to": address}).encode() + b"\n")
            node.process.stdin.flush()
        command("connect")
        with support.Peer.accept(server) as peer:
            node.wait_for("stdout", '"connected"')
            command("withdraw")
            while peer.connection.recv(HEADER):
                pass
        node.wait_for("stdout", '"disconnected"')
        command("stop")
        _, out, errors = node.finish()
        self.expect_counts(json.loads(out.splitlines()[-1])["closed"], deleted=1)
        self.assertEqual(node.process.returncode, 0, errors)

    def test_that_the_kernel_decided_are_told(self):
        if not support.can_have_networks():
            self.skipTest("user namespaces with a network are not allowed here")
        result = subprocess.run([*support.IN_A_NETWORK, sys.executable, "-B", __file__, support.PROGRAM, "GivenUp"],
                                stderr=subprocess.PIPE, timeout=support.DEADLINE, check=False)
        self.assertEqual(result.returncode, 0, result.stderr.decode())

    def test_before_they_began_are_told_once_for_each_destination(self):
        addresses = [self.enter(support.nobody()) for _ in range(2)]
        center = self.start(*(word for address in addresses for word in ("--connect", address)))
        told = center.wait_until("closed", lambda told: len(told["closed"]) == 2
                                 and all(end["times"] >= 2 for end in told["closed"]))["closed"]
        self.assertEqual(sorted((end["address"], end["reason"], end["detail"], end["lasted_s"]) for end in told),
                         sorted((address, "refused", "Connection refused", 0) for address in addresses))

    def test_within_the_opening_exchange_are_told(self):
        server, address = self.serve()
        center = self.start("--connect", address)
        server.accept()[0].close()
        self.assertEqual(self.expect_closed(center, "init_failed")["address"], address)
        for times in (1, 2):
            socket.create_connection(("127.0.0.1", center.port)).close()
            self.expect_closed(center, "init_failed", lambda end: (end["over"], end["times"]) == ("accepted", times))

    def test_of_one_destination_are_not_told_of_another_at_its_address(self):
        server, address = self.serve()
        nobody = self.enter(support.nobody())
        center = self.start("--connect", address, "--connect", nobody)
        peer = self.enter(support.Peer.accept(server))
        self.expect_closed(center, "refused", lambda end: end["times"] >= 2)
        self.peer_of(center, address, lambda peer: peer["state"] == "established")
        reset(peer.connection)
        ends = center.wait_until("closed", lambda told: len(told["closed"]) >= 2)["closed"]
        self.assertEqual({end["address"]: end["reason"] for end in ends}, {address: "reset", nobody: "refused"})


class GivenUp(Account):
    """In a network of its own: it goes down, and the kernel gives up soon after."""

    def setUp(self):
        Path("/proc/sys/net/ipv4/tcp_retries2").write_text("1", encoding="ascii")

    def expect_given_up(self, center):
        self.set_network("down")
        center.program.wait_for("stdout", '"disconnected"')
        self.set_network("up")
        end = self.expect_closed(center, "send_failed")
        self.assertIn(end["detail"], map(os.strerror, (errno.ETIMEDOUT, errno.EHOSTUNREACH, errno.ENETUNREACH)))
        self.expect_counts(center.json("status")["closed"], send_failed=1)

    def set_network(self, state):
        subprocess.run(["ip", "link", "set", "lo", state], check=True)

    def test_connection_that_rests(self):
        center = self.start()
        _, address = self.connect(center)
        self.peer_of(center, address, lambda peer: peer["state"] == "established")
        self.expect_given_up(center)

    def test_connection_that_waits_to_write(self):
        center = self.start("--echo")
        peer, address = self.connect(center)
        peer.connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
        for _ in range(100):
            peer.send(bytes(100_000))
        self.peer_of(center, address, lambda peer: peer["in"]["packets"] == 100)
        self.expect_given_up(center)


class LongEnds(Account):
    """What the relay takes its time-out for."""

    CONFIGURATION = ""

    def test_of_silence_and_of_attempts_without_an_answer_are_told(self):
        server, address = self.serve(backlog=0)
        for _ in range(2):
            waiting = self.enter(socket.socket())
            waiting.setblocking(False)
            waiting.connect_ex(server.getsockname())
        silent, quiet = self.serve()
        center = self.start("--connect", address, "--connect", quiet)
        self.enter(support.Peer.accept(silent))
        ends = center.wait_until("closed", lambda told: len(told["closed"]) >= 2)["closed"]
        self.assertEqual({end["address"]: end["reason"] for end in ends}, {address: "connect_timeout", quiet: "silent"})


class Queues(Account):
    PACKET, PACKETS = 100_000, 100

    def fill(self, *options):
        """A Center with an echo, and a peer that does not read the answers to what it has sent."""
        center = self.start("--echo", *options)
        peer, address = self.connect(center)
        peer.connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
        for _ in range(self.PACKETS):
            peer.send(bytes(self.PACKET))
        return center, peer, address

    def rest(self, center, address, sent):
        """The peer and the status, once that much has been answered or refused and nothing leaves any more."""
        def look():
            before = self.peer_of(center, address, lambda peer: peer["in"]["packets"] == sent)
            status = center.json("status")
            after = self.peer_of(center, address, lambda peer: True)
            is_steady = before["queue"] == after["queue"] and before["out"] == after["out"]
            return is_steady, after, status
        _, told, status = support.wait_until(look, lambda seen: seen[0] and sent == seen[2]["outcomes"]["handed_over"]
                                             + seen[2]["outcomes"]["refused_by_limit"])
        return told, status

    def test_are_counted_to_the_byte(self):
        center, _, address = self.fill()
        told, status = self.rest(center, address, self.PACKETS)
        queue = told["queue"]
        self.assertGreater(queue["packets"], 0)
        self.assertEqual(queue["bytes"], queue["packets"] * (self.PACKET + HEADER))
        self.assertEqual((status["queue"], status["outcomes"]["queued"], status["outcomes"]["balances"]),
                         ({**queue, "max_bytes": None}, queue["packets"], True))

    def test_take_no_more_than_the_limit(self):
        limit = 10 * (self.PACKET + HEADER)
        center, peer, address = self.fill("--max-queue", limit)
        sent = self.PACKETS
        told, status = self.rest(center, address, sent)
        # What left after the last one was refused has made room again.
        while told["queue"]["packets"] < 10:
            peer.send(bytes(self.PACKET))
            sent += 1
            told, status = self.rest(center, address, sent)
        self.assertEqual(told["queue"], {"packets": 10, "bytes": limit})
        outcomes = status["outcomes"]
        self.assertGreater(outcomes["refused_by_limit"], 0)
        for _ in range(outcomes["handed_over"]):
            self.assertEqual(len(peer.receive().data), self.PACKET)
        counts = self.stop(center)
        self.assertEqual((counts["written"], counts["refused_by_limit"]),
                         (outcomes["handed_over"], outcomes["refused_by_limit"]))

    def test_take_one_packet_whatever_the_limit(self):
        center = self.start("--echo", "--max-queue", 1)
        peer, address = self.connect(center)
        for _ in range(2):
            peer.send(b"more than the limit")
            peer.receive()
            # It is freed only after the peer has it.
            self.peer_of(center, address, lambda peer: peer["queue"]["packets"] == 0)
        self.assertEqual(self.stop(center)["refused_by_limit"], 0)

    def test_are_left_behind_when_nothing_may_be_waited_for(self):
        center, _, address = self.fill("--stop-timeout", 3600, "--drain", 0)
        self.rest(center, address, self.PACKETS)
        self.assertGreater(self.stop(center)["queued"], 0)

    def test_are_waited_for_as_long_as_they_may(self):
        center, _, address = self.fill("--stop-timeout", 3600, "--drain", 0.5)
        self.rest(center, address, self.PACKETS)
        begin = time.monotonic()
        self.stop(center)
        self.assertGreater(time.monotonic() - begin, 0.5)


class Burst(Account):
    PEERS = 200
    GOAL = 3
    # A machine that is too busy for the goal may take so many times what it takes for the same peers one after the other.
    PATIENCE = 3
    # What the backlog does not hold, the kernel asks for again after one second, three and seven.
    CONFIGURATION = Account.CONFIGURATION + "SERVER_LISTEN_BACKLOG = 200\n"

    def time_in_turn(self):
        """Seconds for the peers of a Center that come one after the other."""
        center = self.start()
        begin = time.monotonic()
        for _ in range(self.PEERS):
            self.enter(support.Peer.connect(center.port))
        return time.monotonic() - begin

    def connect_at_once(self, port, longest):
        """Many peers that complete the opening exchange, each as soon as it can; how many have not within that time."""
        block = bytes(support.BLOCK_SIZE)
        selector = self.enter(selectors.DefaultSelector())
        begin = time.monotonic()
        for _ in range(self.PEERS):
            connection = self.enter(socket.socket())
            connection.setblocking(False)
            connection.connect_ex(("127.0.0.1", port))
            selector.register(connection, selectors.EVENT_WRITE, support.BLOCK_SIZE)
        while selector.get_map() and (left := begin + longest - time.monotonic()) > 0:
            for key, events in selector.select(left):
                if events & selectors.EVENT_WRITE:
                    key.fileobj.sendall(block)
                    selector.modify(key.fileobj, selectors.EVENT_READ, key.data)
                elif missing := key.data - len(key.fileobj.recv(key.data)):
                    selector.modify(key.fileobj, selectors.EVENT_READ, missing)
                else:
                    selector.unregister(key.fileobj)
        return len(selector.get_map())

    def test_of_peers_is_established_in_time(self):
        longest = max(self.GOAL, self.PATIENCE * self.time_in_turn())
        center = self.start()
        self.assertEqual(self.connect_at_once(center.port, longest), 0)
        told = center.wait_until("peers", lambda told: len(told["peers"]) == self.PEERS)["peers"]
        self.assertEqual({peer["state"] for peer in told}, {"established"})
        [listener] = center.json("status")["listeners"]
        self.assertEqual((listener["port"], listener["backlog"], listener["backlog_limit"]), (center.port, 0, 200))

    def test_of_connections_that_say_nothing_leaves_none_waiting(self):
        center = self.start()
        for _ in range(self.PEERS):
            connection = self.enter(socket.socket())
            connection.setblocking(False)
            connection.connect_ex(("127.0.0.1", center.port))
        [listener] = center.wait_until("status", lambda told: told["listeners"][0]["backlog"] == 0)["listeners"]
        self.assertEqual(listener["port"], center.port)


class EndedThread(Account):
    """With a library before the others whose epoll_wait fails on the thread that a variable names."""

    STARTED = ["udp_recv", "udp_send", "tcp_init", "tcp_recv", "tcp_send", "timer"]

    def name_of(self, thread):
        """The system's name of one of the relay's threads: the same in every Center that is started in the same way."""
        center = self.start()
        names = [path.read_text(encoding="utf-8").strip()
                 for path in Path(f"/proc/{center.program.pid}/task").glob("*/comm")]
        numbers = sorted(int(name.partition("-")[2]) for name in names if re.fullmatch(r"relay-\d+", name))
        return f"relay-{numbers[-len(self.STARTED):][self.STARTED.index(thread)]}"

    def start_ended(self, thread, **variables):
        return self.start(env={**os.environ, **variables, "LD_PRELOAD": os.environ["ENDED_THREAD_LIBRARY"],
                               "ENDED_THREAD": self.name_of(thread)})


class Threads(EndedThread):
    NAMES = ["tcp_init", "tcp_recv", "tcp_send", "udp_recv", "udp_send", "timer"]

    def test_all_run(self):
        status = self.start().json("status")
        self.assertEqual(status["threads"], [{"name": name, "running": True} for name in self.NAMES])
        self.assertEqual((status["healthy"], status["problems"]), (True, []))

    def test_that_ended_are_named(self):
        for thread in ("tcp_recv", "udp_send"):
            center = self.start_ended(thread)
            status = center.wait_until("status", lambda status: not status["healthy"])
            self.assertEqual([told["name"] for told in status["threads"] if not told["running"]], [thread])
            self.assertEqual(len(status["problems"]), 1)
            self.assertIn(f" {thread} ", status["problems"][0])
            code, _, body = center.ask("/healthz")
            self.assertEqual((code, thread in body.decode()), (503, True))


class ServiceSocket(Account):
    """With a socket of this test as the service manager's."""

    PATIENCE = 0.2

    def manager(self, abstract=False):
        """A socket that a service manager would have, and its address as services get it."""
        manager = self.enter(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
        manager.settimeout(support.DEADLINE)
        folder = self.enter(tempfile.TemporaryDirectory())
        manager.bind(f"\0{folder}/manager" if abstract else f"{folder}/manager")
        return manager, f"@{folder}/manager" if abstract else f"{folder}/manager"

    def variables(self, address, **more):
        return {**os.environ, "NOTIFY_SOCKET": address, "WATCHDOG_USEC": str(int(self.PATIENCE * 1e6)), **more}

    def wait_for(self, manager, state):
        while (told := manager.recv(4096).decode()) != state:
            self.assertEqual(told, "WATCHDOG=1")


class Service(ServiceSocket):
    def test_hears_of_begin_life_and_end(self):
        for abstract in (False, True):
            manager, address = self.manager(abstract)
            center = self.start(env=self.variables(address))
            self.wait_for(manager, "READY=1")
            for _ in range(3):
                self.wait_for(manager, "WATCHDOG=1")
            center.program.signal(signal.SIGTERM)
            self.wait_for(manager, "STOPPING=1")
            self.assertEqual(center.program.finish()[0], 0)

    def test_that_watches_another_process_hears_nothing_of_life(self):
        manager, address = self.manager()
        center = self.start(env=self.variables(address, WATCHDOG_PID="1"))
        self.stop(center)
        manager.setblocking(False)
        self.assertEqual([manager.recv(4096) for _ in range(2)], [b"READY=1", b"STOPPING=1"])
        self.assertRaises(BlockingIOError, manager.recv, 4096)


class EndedService(EndedThread, ServiceSocket):
    def test_hears_nothing_of_life_after_a_thread_ended(self):
        manager, address = self.manager()
        center = self.start_ended("tcp_init", **self.variables(address))
        self.wait_for(manager, "READY=1")
        center.wait_until("status", lambda status: not status["healthy"])
        manager.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                manager.recv(4096)
        # A packet in the meantime shows that the Center lives.
        manager.settimeout(10 * self.PATIENCE)
        self.assertRaises(TimeoutError, manager.recv, 4096)
        self.assertEqual(center.ask("/healthz")[0], 503)


if __name__ == "__main__":
    support.main()
