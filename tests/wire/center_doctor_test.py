"""zolt-center doctor: finds the cause of each trouble that is made for it, and says what to do."""

import contextlib
import json
import os
import resource
import socket
import tempfile
import time
import unittest

import center_support as support

IN_AN_EMPTY_NETWORK = ("unshare", "--user", "--map-root-user", "--net")


class Doctor(unittest.TestCase):
    def examine(self, *arguments, **options):
        """All checks; the exit code fits what they say."""
        result = support.call("doctor", "--json", *arguments, **options)
        answer = json.loads(result.stdout)
        results = [check["result"] for check in answer["checks"]]
        self.assertEqual((answer["problems"], answer["warnings"]), (results.count("problem"), results.count("warning")))
        self.assertEqual((answer["ok"], result.returncode, result.stderr),
                         (answer["problems"] == 0, 6 if answer["problems"] else 0, b""))
        for check in answer["checks"]:
            self.assertTrue(check["result"] == "ok" or check["advice"], check)
        return answer["checks"]

    def find(self, checks, name, result):
        found = [check for check in checks if (check["check"], check["result"]) == (name, result)]
        self.assertEqual(len(found), 1, (name, result, checks))
        return found[0]

    def expect(self, checks, name, result, text):
        self.assertIn(text, self.find(checks, name, result)["text"])

    def hold(self, kind=socket.SOCK_STREAM, address=""):
        holder = socket.socket(socket.AF_INET, kind)
        self.addCleanup(holder.close)
        holder.bind((address, 0))
        return holder, holder.getsockname()[1]

    def connect(self, port):
        one = socket.socket()
        self.addCleanup(one.close)
        one.setblocking(False)
        one.connect_ex(("127.0.0.1", port))
        return one

    def wait_for(self, arguments, name, result):
        """Examines until that is found."""
        end = time.monotonic() + support.DEADLINE
        while time.monotonic() < end:
            for check in self.examine(*arguments):
                if (check["check"], check["result"]) == (name, result):
                    return check
        raise AssertionError(f"{name} never becomes a {result}")


class Port(Doctor):
    def test_that_is_free_is_fine(self):
        port = support.free_port()
        self.expect(self.examine("--port", port), f"port {port}", "ok", "free over UDP and TCP")

    def test_that_is_taken_is_told_with_its_holder(self):
        for kind, over in ((socket.SOCK_DGRAM, "UDP"), (socket.SOCK_STREAM, "TCP")):
            holder, port = self.hold(kind)
            if kind == socket.SOCK_STREAM:
                holder.listen()
            check = self.find(self.examine("--port", port), f"port {port}", "problem")
            self.assertIn(f"taken over {over}: by pid {os.getpid()} (python3", check["text"])
            self.assertEqual(check["advice"], "end that process, or serve another port")

    def test_that_a_closed_connection_keeps_is_told_with_the_seconds(self):
        own, _ = support.closed_first()
        check = self.find(self.examine("--port", own), f"port {own}", "problem")
        self.assertRegex(check["text"], r"keeps for ([1-9]|[1-5]\d|6[01]) more seconds$")
        self.assertIn("--wait-port", check["advice"])

    def test_that_a_center_serves_is_only_a_warning(self):
        center, port = support.start_on_port(lambda port: ["run", "--listen", port, "--admin", "none"], "stdout",
                                             "ready")
        with center:
            checks = self.examine("--port", port)
            self.expect(checks, f"port {port}", "warning", f"pid {center.pid} (zolt-center)")
            self.expect(checks, f"descriptors of pid {center.pid}", "ok", "file descriptors are taken")
            self.expect(checks, f"backlog of port {port}", "ok", "0 connections wait to be accepted, 6 may")

    def test_that_the_kernel_gives_out_is_warned_of(self):
        _, port = self.hold()
        check = [one for one in self.examine("--port", port)
                 if "gives out" in one["text"] and one["check"] == f"port {port}"]
        self.assertEqual([one["result"] for one in check], ["warning"])
        self.assertIn(f"ip_local_reserved_ports={port}", check[0]["advice"])


class Sockets(Doctor):
    def test_with_connections_that_wait_are_found(self):
        listening, port = self.hold()
        listening.listen(1)
        self.connect(port)
        self.wait_for(["--port", port], f"backlog of port {port}", "warning")
        for _ in range(3):
            self.connect(port)
        check = self.wait_for(["--port", port], f"backlog of port {port}", "problem")
        self.assertIn("2 connections wait to be accepted, 2 may", check["text"])

    def test_whose_peer_does_not_read_are_found(self):
        listening, port = self.hold(address="127.0.0.1")
        listening.listen()
        writer = socket.create_connection(("127.0.0.1", port))
        self.addCleanup(writer.close)
        writer.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                writer.send(b"x" * 65536)
        check = self.wait_for(["--peer", f"127.0.0.1:{port}"], f"connection to 127.0.0.1:{port}", "problem")
        self.assertRegex(check["text"], r"the peer does not read; [1-9]\d+ bytes wait")

    def test_without_trouble_are_counted(self):
        listening, port = self.hold()
        listening.listen()
        self.connect(port)
        self.assertRegex(self.find(self.examine("--port", port), "send queues", "ok")["text"],
                         r"^1 connections with 0 bytes on their way$")


class Peer(Doctor):
    def test_that_serves_is_fine_but_for_udp_on_one_machine(self):
        listening, port = self.hold()
        listening.listen()
        checks = self.examine("--peer", f"127.0.0.1:{port}")
        self.expect(checks, f"peer 127.0.0.1:{port}", "ok", "somebody serves the port")
        self.expect(checks, f"peer 127.0.0.1:{port}", "warning", "this machine's own")

    def test_that_refuses_is_a_problem(self):
        _, port = self.hold()
        check = self.find(self.examine("--peer", f"127.0.0.1:{port}"), f"peer 127.0.0.1:{port}", "problem")
        self.assertEqual(check["text"], "no connection: Connection refused")
        self.assertIn("start the peer's Center", check["advice"])

    def test_whose_connection_is_kept_is_told_with_the_seconds(self):
        # The kernel may still keep a connection of another test to a port that it gives out again.
        address = support.own_loopback_address()
        own, served = support.closed_first(address)
        warnings = [check for check in self.examine("--peer", f"{address}:{served}") if check["result"] == "warning"]
        kept = [check for check in warnings if "this side closed" in check["text"]]
        self.assertEqual(len(kept), 1, warnings)
        self.assertRegex(kept[0]["text"], r"for ([1-9]|[1-5]\d|6[01]) more seconds$")
        self.assertIn(f"its port {own} is refused", kept[0]["advice"])


class System(Doctor):
    def test_with_a_wrong_configuration_is_a_problem(self):
        with tempfile.NamedTemporaryFile("w", suffix=".ini") as file:
            file.write("[ZOLT]\nAUTO_DISCONNECT = off\nSERVER_LINGER_USE = yes\n")
            file.flush()
            checks = self.examine("--config", file.name)
            self.expect(checks, "configuration", "problem", f"{file.name}:2: switch-not-off: ")
            self.expect(checks, "configuration", "warning", f"{file.name}:3: key-no-effect: ")
        self.expect(self.examine("--config", "/nowhere.ini"), "configuration", "problem", "No such file or directory")
        self.expect(self.examine(), "configuration", "ok", "absent; every key has its default")

    def test_with_few_descriptors_is_warned_of(self):
        def limit():
            resource.setrlimit(resource.RLIMIT_NOFILE, (64, 64))
        self.expect(self.examine(preexec_fn=limit), "descriptor limit", "warning", "64 open files may be had here")

    def test_without_routes_has_none_for_multicast(self):
        if not support.can_have_networks():
            self.skipTest("user namespaces with a network are not allowed here")
        checks = self.examine(wrapper=IN_AN_EMPTY_NETWORK)
        self.expect(checks, "multicast route", "warning", "none: Network is unreachable")

    def test_may_have_networks_when_it_has(self):
        allowed = [check for check in self.examine() if check["check"] == "network namespaces"]
        # Some may have one of their own without a namespace of users: root below another root folder, for one.
        might = support.can_have_networks() or support.succeeds("unshare", "--net", "true")
        self.assertEqual(allowed[0]["result"], "ok" if might else "warning")

    def test_is_told_to_people_too(self):
        _, port = self.hold(socket.SOCK_DGRAM)
        result = support.call("doctor", "--port", port)
        lines = result.stdout.decode().splitlines()
        self.assertEqual((result.returncode, result.stderr), (6, b""))
        at = [number for number, line in enumerate(lines) if line.startswith(f"problem  port {port}: ")]
        self.assertEqual(lines[at[0] + 1], "         end that process, or serve another port")
        self.assertRegex(lines[-1], r"^\d+ checks; problems: 1, warnings: \d+$")


if __name__ == "__main__":
    support.main()
