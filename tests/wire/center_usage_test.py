"""zolt-center's command line: help, versions, and one clear line with the right exit code for whatever is wrong."""

import json
import os
import signal
import socket
import tempfile
import unittest

import center_support as support

COMMANDS = {
    "run": ["--listen", "--connect", "--echo", "--admin", "--seconds", "--config", "--max-packet", "--wait-port",
            "--stop-timeout", "--max-queue", "--drain", "--json"],
    "send": ["--to", "--tcp", "--udp", "--size", "--lines", "--port", "--interface", "--rate", "--wait", "FILE"],
    "listen": ["--port", "--format", "--count", "--seconds", "--once", "--group", "--source", "--interface"],
    "ping": ["--to", "--port", "--count", "--interval", "--timeout", "--size", "--signal"],
    "bench": ["tcp", "udp", "broadcast"],
    "demo": ["--part", "--file", "--udp-size", "--tcp-size", "--drop", "--seconds", "--loopback"],
    "config": ["check", "show"],
    "doctor": ["--port", "--peer", "--config", "--json"],
    "explain": ["--lang", "--all", "--markdown", "--json"],
    "completion": ["bash|zsh|fish"],
    "status": ["--admin", "--json"],
    "top": ["--admin", "--interval", "--count", "--json"],
    "version": ["--json"],
}

# What is wrong, and what the one line must say.
WRONG_USAGE = [
    ([], "subcommand is required"),
    (["lisen"], 'unknown command "lisen"; did you mean "listen"?'),
    (["pign"], 'did you mean "ping"?'),
    (["somersault"], 'unknown command "somersault"; the commands are run, demo, send, listen, ping, bench, status, top, '
                     'config, doctor, explain, completion, version'),
    (["run"], "give at least one --listen or --connect"),
    (["run", "--lissten", "7000"], "--lissten"),
    (["run", "--listen", "65536"], '"65536" is no port; a port is a number from 1 to 65535'),
    (["run", "--listen", "0"], '"0" is no port'),
    (["run", "--listen", "70o0"], '"70o0" is no port'),
    (["run", "--connect", "10.0.0.2"], '"10.0.0.2" is no address such as 10.0.0.2:7000'),
    (["run", "--connect", "10.0.0.2:65536"], '"10.0.0.2:65536" is no address'),
    (["run", "--connect", "ten:7000"], '"ten:7000" is no address'),
    (["run", "--listen", "7000", "--admin", "nowhere"], '"nowhere" is neither none nor an address such as 127.0.0.1'),
    (["run", "--listen", "7000", "--stop-timeout", "0"], "--stop-timeout"),
    (["run", "--listen", "7000", "--quiet", "--verbose"], "--quiet"),
    (["send"], "--to is required"),
    (["send", "--to", "10.0.0.2:7000", "--udp", "--tcp"], "--udp"),
    (["send", "--to", "10.0.0.2:7000", "--port", "7000"], "--port and --interface are for --udp"),
    (["send", "--to", "10.0.0.2:7000", "--udp", "--port", "7001"], "goes out by the port number it is sent to, 7000"),
    (["send", "--to", "10.0.0.2:7000", "--udp", "--size", "65436"], "at most 65435 bytes"),
    (["listen"], "--port is required"),
    (["listen", "--port", "7000", "--format", "loud"], "--format"),
    (["listen", "--port", "7000", "--group", "232.0.0.1"], "--source"),
    (["listen", "--port", "7000", "--source", "10.0.0"], '"10.0.0" is no IPv4 address'),
    (["ping"], "give either --to or --port"),
    (["ping", "--to", "10.0.0.2:7000", "--port", "7000"], "give either --to or --port"),
    (["ping", "--to", "10.0.0.2:7000", "--count", "0"], "--count"),
    (["status", "--admin", "127.0.0.1:0"], '"127.0.0.1:0" is no address'),
    (["top", "--interval", "0"], "--interval"),
    (["top", "--count", "0"], "--count"),
    (["demo", "--part", "third"], "--part"),
    (["demo", "--drop", "51"], "--drop"),
    (["demo", "--file", "/dev/null"], "no file of 1 byte to 1 GiB"),
]


class Command(unittest.TestCase):
    def expect_line(self, result, code, text):
        """One line on standard error that says so, nothing on standard output, and the exit code."""
        lines = result.stderr.decode().splitlines()
        self.assertEqual((result.returncode, len(lines), result.stdout), (code, 1, b""), lines)
        self.assertIn(text, lines[0])
        self.assertTrue(lines[0].startswith("zolt-center: "), lines[0])


class Help(Command):
    def test_names_every_command_that_users_call(self):
        result = support.call("--help")
        listed = result.stdout.decode()
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        for command in COMMANDS:
            self.assertRegex(listed, rf"\n  {command} ")
        self.assertNotIn("demo-node", listed)

    def test_of_each_command_names_its_options(self):
        for command, options in COMMANDS.items():
            result = support.call(command, "--help")
            self.assertEqual((result.returncode, result.stderr), (0, b""), command)
            for option in options:
                self.assertIn(option, result.stdout.decode(), command)

    def test_lines_fit_on_a_wide_terminal(self):
        for command in COMMANDS:
            lines = support.call(command, "--help").stdout.decode().splitlines()
            self.assertLessEqual(max(map(len, lines)), 140, command)


class Version(Command):
    def test_is_one_line(self):
        result = support.call("version")
        self.assertRegex(result.stdout.decode(), r"^zolt-center \d+\.\d+\.\d+ \(packet header version 1, 72 bytes\)\n$")
        self.assertEqual((result.returncode, result.stderr), (0, b""))

    def test_as_an_object_has_the_same_figures(self):
        version = json.loads(support.call("version", "--json").stdout)
        self.assertEqual((version["packet_header_version"], version["packet_header_bytes"]), (1, 72))
        self.assertIn(f"zolt-center {version['version']} ", support.call("version").stdout.decode())

    def test_that_cannot_be_written_is_a_failure(self):
        with open("/dev/full", "wb") as full:
            result = support.call("version", stdout=full)
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot write to standard output: No space left on device", result.stderr.decode())


class WrongUsage(Command):
    def test_is_told_in_one_line(self):
        for arguments, text in WRONG_USAGE:
            with self.subTest(arguments=arguments):
                self.expect_line(support.call(*arguments), 2, text)

    def test_is_one_object_when_objects_are_wanted(self):
        result = support.call("run", "--listen", "70000", "--json")
        error = json.loads(result.stdout)["error"]
        self.assertEqual((result.returncode, error["code"], result.stderr), (2, 2, b""))
        self.assertIn('"70000" is no port', error["text"])


class Configuration(Command):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def path(self, name):
        return os.path.join(self.folder.name, name)

    def write(self, text):
        with open(self.path("zolt.ini"), "w", encoding="utf-8") as file:
            file.write(text)
        return self.path("zolt.ini")

    def expect_refusal(self, path, text):
        for command in (["run", "--listen", "7000"], ["demo"]):
            self.expect_line(support.call(*command, "--config", path), 3, text)

    def test_that_is_missing_is_named(self):
        self.expect_refusal(self.path("none.ini"), f"{self.path('none.ini')}: No such file or directory")

    def test_that_is_a_folder_is_refused(self):
        self.expect_refusal(self.folder.name, f"{self.folder.name}: Is a directory")

    def test_that_cannot_be_opened_is_refused(self):
        os.symlink(self.path("loop.ini"), self.path("loop.ini"))
        self.expect_refusal(self.path("loop.ini"), "Too many levels of symbolic links")

    def test_with_a_line_without_meaning_names_the_line(self):
        self.expect_refusal(self.write("[ZOLT]\nAUTO_DISCONNECT = yes\nbacklog five\n"), "zolt.ini:3: ")

    def test_of_the_relay_that_cannot_be_read_is_refused_too(self):
        os.makedirs(self.path("Config/zolt.ini"))
        os.mkdir(self.path("bin"))
        result = support.call("run", "--listen", support.free_port(), cwd=self.path("bin"))
        self.expect_line(result, 3, "../Config/zolt.ini: Is a directory")

    def expect_waiting_connections(self, count, *options, **more):
        """So many connections the kernel makes for a Center that does not run on."""
        center, port = support.start_on_port(lambda port: ["run", "--listen", port, *options], "stdout", "ready", **more)
        with center:
            center.signal(signal.SIGSTOP)
            os.waitid(os.P_PID, center.pid, os.WSTOPPED | os.WNOWAIT)
            sockets = [socket.socket() for _ in range(8)]
            for one in sockets:
                one.setblocking(False)
                one.connect_ex(("127.0.0.1", port))
            def made():
                return sum(one.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1) == b"\x01" for one in sockets)
            support.wait_until(made, lambda number: number >= count)
            self.assertEqual(made(), count)
            for one in sockets:
                one.close()

    def test_reaches_the_relay(self):
        path = self.write("[ZOLT]\nSERVER_LISTEN_BACKLOG = 2\n")
        self.expect_waiting_connections(3, "--config", path)

    def test_of_the_relay_is_read_where_the_relay_looks(self):
        os.mkdir(self.path("Config"))
        os.mkdir(self.path("bin"))
        os.rename(self.write("[ZOLT]\nSERVER_LISTEN_BACKLOG = 1\n"), self.path("Config/zolt.ini"))
        self.expect_waiting_connections(2, cwd=self.path("bin"))

    def test_may_be_absent_where_the_relay_looks(self):
        self.expect_waiting_connections(6, cwd=self.folder.name)


class TakenPort(Command):
    def taken(self, kind):
        holder = socket.socket(socket.AF_INET, kind)
        self.addCleanup(holder.close)
        holder.bind(("", 0))
        return holder

    def test_over_udp_is_told_with_its_holder(self):
        port = self.taken(socket.SOCK_DGRAM).getsockname()[1]
        self.expect_line(support.call("run", "--listen", port), 4,
                         f"port {port} is taken over UDP: by pid {os.getpid()} (python3")

    def test_over_tcp_is_told_with_its_holder(self):
        holder = self.taken(socket.SOCK_STREAM)
        holder.listen()
        port = holder.getsockname()[1]
        self.expect_line(support.call("listen", "--port", port), 4,
                         f"port {port} is taken over TCP: by pid {os.getpid()} (python3")

    def test_by_a_socket_that_is_not_listed_is_told_so(self):
        port = self.taken(socket.SOCK_STREAM).getsockname()[1]
        self.expect_line(support.call("run", "--listen", port), 4, "by a socket that the system does not list")

    def test_on_ipv6_is_found_too(self):
        holder = socket.create_server(("", 0), family=socket.AF_INET6, dualstack_ipv6=True)
        self.addCleanup(holder.close)
        self.expect_line(support.call("ping", "--port", holder.getsockname()[1]), 4, f"by pid {os.getpid()} (python3")

    def test_is_one_object_when_objects_are_wanted(self):
        port = self.taken(socket.SOCK_DGRAM).getsockname()[1]
        result = support.call("run", "--listen", port, "--json")
        error = json.loads(result.stdout)["error"]
        self.assertEqual((result.returncode, error["code"], result.stderr), (4, 4, b""))
        self.assertIn(f"pid {os.getpid()} ", error["text"])

    def connection(self):
        """A port that is not listened on any more, and both ends of the connection that was accepted there."""
        with socket.create_server(("127.0.0.1", 0)) as listening:
            port = listening.getsockname()[1]
            client = socket.create_connection(("127.0.0.1", port))
            accepted, _ = listening.accept()
        self.addCleanup(client.close)
        self.addCleanup(accepted.close)
        return port, accepted, client

    def test_that_a_closed_connection_keeps_is_told_with_the_time_left(self):
        port, accepted, client = self.connection()
        accepted.close()  # first: this end waits
        self.assertEqual(client.recv(1), b"")
        client.close()
        result = support.call("run", "--listen", port)
        self.expect_line(result, 4, f"port {port} is taken over TCP: by a closed connection that the kernel keeps for ")
        self.assertRegex(result.stderr.decode(), r"for ([1-9]|[1-5]\d|6[01]) more seconds")

    def test_that_a_peer_keeps_open_is_told_with_the_time_left(self):
        port, accepted, _ = self.connection()
        accepted.close()
        result = support.call("run", "--listen", port)
        self.assertRegex(result.stderr.decode(), r"a closed connection that the kernel keeps for [1-9]\d* more seconds")

    def test_that_the_kernel_still_sends_from_is_told(self):
        port, accepted, _ = self.connection()
        accepted.setblocking(False)
        with self.assertRaises(BlockingIOError):
            while True:
                accepted.send(bytes(1 << 20))  # the peer reads nothing
        accepted.close()
        self.expect_line(support.call("run", "--listen", port), 4,
                         f"port {port} is taken over TCP: by a closed connection whose peer has not confirmed all that "
                         "the kernel sent")

    def test_is_waited_for(self):
        holder = self.taken(socket.SOCK_DGRAM)
        with support.Running("run", "--listen", holder.getsockname()[1], "--wait-port", 600) as center:
            center.wait_for("stderr", f"waiting for port {holder.getsockname()[1]}, which ")
            holder.close()
            center.wait_for("stdout", "ready")

    def test_is_not_waited_for_after_a_signal(self):
        with support.Running("run", "--listen", self.taken(socket.SOCK_DGRAM).getsockname()[1],
                             "--wait-port", 600) as center:
            center.wait_for("stderr", "waiting for port")
            self.assertEqual(center.signal_until_end(signal.SIGTERM), 130)

    def test_of_udp_on_this_machine_is_explained_to_who_sends(self):
        port = self.taken(socket.SOCK_DGRAM).getsockname()[1]
        self.expect_line(support.call("send", "--udp", "--to", f"127.0.0.1:{port}"), 4,
                         "over UDP both nodes use the same port number")


if __name__ == "__main__":
    support.main()
