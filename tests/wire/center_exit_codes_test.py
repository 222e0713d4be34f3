"""zolt-center's exit codes, each with the piece of the message that names the thing; and the rules of its output, over all
commands."""

import contextlib
import json
import os
import pathlib
import signal
import socket
import tempfile
import unittest

import admin_support
import center_support as support

# Arguments, exit code, what the message names. Names in braces are made below.
BAD_INPUT = [
    ("", 2, "A subcommand is required"),
    ("lisen", 2, 'unknown command "lisen"; did you mean "listen"?'),
    ("--bogus", 2, "--bogus"),
    ("run --bogus", 2, "--bogus"),
    ("run", 2, "--listen"),
    ("run --listen", 2, "--listen"),
    ("run --listen 0", 2, '"0" is no port'),
    ("run --listen 65536", 2, '"65536" is no port'),
    ("run --listen 7000x", 2, '"7000x" is no port'),
    ("run --listen -1", 2, '"-1" is no port'),
    ("run --connect 10.0.0.2", 2, '"10.0.0.2" is no address'),
    ("run --connect localhost:7000", 2, '"localhost:7000" is no address'),
    ("run --connect 10.0.0.2:0", 2, '"10.0.0.2:0" is no address'),
    ("run --listen 7000 --seconds soon", 2, "--seconds"),
    ("run --listen 7000 --max-packet 0", 2, "--max-packet"),
    ("run --listen 7000 --quiet --verbose", 2, "--quiet"),
    ("run --listen {taken} --admin none", 4, "port {taken} is taken over UDP: by pid {pid} (python3"),
    ("run --listen {kept} --admin none", 4, "port {kept} is taken over TCP: by a closed connection that the kernel keeps"),
    ("run --listen {free} --config {missing}", 3, "{missing}: No such file or directory"),
    ("run --listen {free} --config {folder}", 3, "{folder}: Is a directory"),
    ("run --listen {free} --config {loop}", 3, "{loop}: Too many levels of symbolic links"),
    ("run --listen {free} --config {broken}", 3, "{broken}:2: neither section, comment nor key = value"),
    ("listen --port {taken}", 4, "port {taken} is taken over UDP"),
    ("listen --port {free} --format loud", 2, "--format"),
    ("listen --port {free} --group 10.0.0.1 --source 10.0.0.2", 2, "--group is a multicast address"),
    ("listen --port {free} --seconds 0.1 --count 1", 1, "only 0 of 1 packets arrived"),
    ("send", 2, "--to"),
    ("send --to 127.0.0.1:{refused} --wait 0.1", 5, "no connection to 127.0.0.1:{refused} within 0.1 seconds"),
    ("send --to 127.0.0.1:{silent} --wait 0.1", 5, "no connection to 127.0.0.1:{silent} within 0.1 seconds"),
    ("send --to 127.0.0.1:{silent} {missing}", 1, "cannot read {missing}: No such file or directory"),
    ("send --udp --to 127.0.0.1:{free} {folder}", 1, "cannot read the input: Is a directory"),
    ("send --udp --to 127.0.0.1:{taken}", 4, "over UDP both nodes use the same port number"),
    ("ping", 2, "--to"),
    ("ping --to 127.0.0.1:{refused} --wait 0.1", 5, "127.0.0.1:{refused}"),
    ("ping --to 127.0.0.1:{silent} --wait 0.1", 5, "127.0.0.1:{silent}"),
    ("ping --port {free} --wait 0.1", 5, "nobody connected within 0.1 seconds"),
    ("ping --to 127.0.0.1:{silent} --count 0", 2, "--count"),
    ("demo --part third", 2, "--part"),
    ("demo --file {missing}", 1, "cannot read {missing}: No such file or directory"),
    ("config", 2, "A subcommand is required"),
    ("config check {missing}", 3, "{missing}: No such file or directory"),
    ("config check {loop}", 3, "{loop}: Too many levels of symbolic links"),
    ("config show {folder}", 3, "{folder}: Is a directory"),
    ("config check a b", 2, "b"),
    ("doctor --port 0", 2, '"0" is no port'),
    ("doctor --peer here", 2, '"here" is no address'),
    ("explain", 2, "give either a text"),
    ("explain somersault", 2, '"somersault"'),
    ("explain --lang fr silent", 2, "--lang"),
    ("completion csh", 2, "csh"),
    ("version more", 2, "more"),
]

# The same with the answer on standard output.
BAD_STATE = [
    ("config check {broken}", 3, "{broken}:2: error line-without-meaning"),
    ("config check {not_utf8}", 3, "{not_utf8}:2: error not-utf8"),
    ("config check {unknown_key}", 3, "{unknown_key}:2: error key-unknown"),
    ("config check {wrong_value}", 3, "{wrong_value}:2: error switch-not-off"),
    ("config check --strict {no_effect}", 3, "{no_effect}:2: warning key-no-effect"),
    ("doctor --port {taken}", 6, "problem  port {taken}"),
    ("doctor --peer 127.0.0.1:{refused}", 6, "Connection refused"),
]

# Each command that gives objects, in a run that ends well or badly by itself.
OBJECTS = ["version", "config check", "config show", "config check {wrong_value}", "explain silent", "explain --all",
           "doctor", "run --listen {free} --seconds 0.05 --admin none", "listen --port {free} --seconds 0.05 --count 1",
           "ping --to 127.0.0.1:{refused} --wait 0.05", "send --to 127.0.0.1:{refused} --wait 0.05"]

# Each command in a run that writes to standard output, by itself or to a Center at {port} with its page at {admin}.
WRITING = ["--help", "run --listen {free} --admin none --seconds 60", "demo --loopback --part tcp --tcp-size 1M",
           "send --to 127.0.0.1:{port} --json", "listen --port {free} --seconds 0.05 --json", "ping --to 127.0.0.1:{port} --count 1",
           "bench tcp --to 127.0.0.1:{port} --duration 0.05 --warm-up 0", "bench broadcast --peers 1 --duration 0.05 --warm-up 0",
           "bench udp --help", "status --admin {admin}", "top --admin {admin}", "config check", "config show", "doctor",
           "explain --all", "completion bash", "version"]

FILES = {"broken": b"[ZOLT]\nbacklog five\n", "not_utf8": b"[ZOLT]\nCLIENT_LINGER_TIME = \xff\n",
         "unknown_key": b"[ZOLT]\nBACKLOG = 5\n", "wrong_value": b"[ZOLT]\nAUTO_DISCONNECT = off\n",
         "no_effect": b"[ZOLT]\nSERVER_LINGER_TIME = 5\n"}


class Things(unittest.TestCase):
    """Files that are wrong, and ports in trouble."""

    @classmethod
    def setUpClass(cls):
        cls.stack = contextlib.ExitStack()
        cls.addClassCleanup(cls.stack.close)
        cls.folder = pathlib.Path(cls.stack.enter_context(tempfile.TemporaryDirectory()))
        cls.things = {"folder": cls.folder, "missing": cls.folder / "none", "loop": cls.folder / "loop",
                      "pid": os.getpid()}
        os.symlink(cls.things["loop"], cls.things["loop"])
        for name, content in FILES.items():
            cls.things[name] = cls.folder / f"{name}.ini"
            cls.things[name].write_bytes(content)
        cls.things["taken"] = cls.held(socket.SOCK_DGRAM)
        cls.things["refused"] = cls.held(socket.SOCK_STREAM)
        silent = cls.stack.enter_context(socket.create_server(("127.0.0.1", 0)))
        cls.things["silent"] = silent.getsockname()[1]  # connects, and says nothing

    @classmethod
    def held(cls, kind):
        one = cls.stack.enter_context(socket.socket(socket.AF_INET, kind))
        one.bind(("", 0))
        return one.getsockname()[1]

    def fill(self, text):
        """With a new port wherever the old one may not be what it was."""
        for name, make in (("free", support.free_port), ("kept", lambda: support.closed_first()[0])):
            if f"{{{name}}}" in text:
                self.things[name] = make()
        return text.format(**self.things)

    def run_filled(self, arguments, *more, **options):
        return support.call(*self.fill(arguments).split(), *more, **options)


class ExitCode(Things):
    def test_of_bad_input_comes_with_one_line_that_names_it(self):
        self.assertGreaterEqual(len(BAD_INPUT), 30)
        for arguments, code, text in BAD_INPUT:
            with self.subTest(arguments=arguments):
                result = self.run_filled(arguments)
                said = [line for line in result.stderr.decode().splitlines() if line.startswith("zolt-center: ")]
                self.assertEqual((result.returncode, len(said)), (code, 1), result)
                self.assertIn(text.format(**self.things), said[0])
                self.assertEqual(result.stdout.count(b"\n"), 1 if b"ready" in result.stdout else 0, result)

    def test_of_bad_input_is_that_of_the_object_too(self):
        for arguments, code, text in BAD_INPUT:
            if arguments.startswith(("completion", "config", "explain")) or not arguments:
                continue  # these have a row of their own below, or no objects
            with self.subTest(arguments=arguments):
                result = self.run_filled(arguments, "--json")
                error = json.loads(result.stdout.splitlines()[-1])["error"]
                self.assertEqual((result.returncode, error["code"]), (code, code))
                if "{" not in text:
                    self.assertIn(text, error["text"])

    def test_of_a_bad_state_comes_with_the_result(self):
        for arguments, code, text in BAD_STATE:
            with self.subTest(arguments=arguments):
                result = self.run_filled(arguments)
                self.assertEqual((result.returncode, result.stderr), (code, b""), result)
                self.assertIn(text.format(**self.things), result.stdout.decode())

    def test_of_a_port_that_is_not_permitted_is_4(self):
        with open("/proc/sys/net/ipv4/ip_unprivileged_port_start", encoding="ascii") as file:
            if int(file.read()) <= 1 or not support.can_have_networks():
                self.skipTest("every port may be served here, or no user namespace be made")
        result = support.call("run", "--listen", 1, "--admin", "none", wrapper=("unshare", "--user", "--map-root-user"))
        self.assertEqual((result.returncode, result.stderr.decode()),
                         (4, "zolt-center: port 1 cannot be served over UDP: Permission denied\n"))

    def test_of_a_file_that_may_not_be_read_is_3(self):
        if os.geteuid() == 0:
            # Root reads everything, but not what another process's memory refuses.
            path, reason = "/proc/self/mem", "Input/output error"
        else:
            path, reason = self.folder / "secret.ini", "Permission denied"
            path.touch(mode=0)
        result = support.call("config", "check", path)
        self.assertEqual((result.returncode, result.stderr.decode()),
                         (3, f"zolt-center: cannot read configuration file {path}: {reason}\n"))

    def test_of_an_output_that_nobody_reads_is_1(self):
        for arguments in ("version", "explain --all", "config show", "doctor", "completion bash", "--help"):
            with self.subTest(arguments=arguments):
                with open("/dev/full", "wb") as full:
                    result = self.run_filled(arguments, stdout=full)
                self.assertEqual((result.returncode, result.stderr.decode()),
                                 (1, "zolt-center: cannot write to standard output: No space left on device\n"))
        result = support.call("version", stdout=None, preexec_fn=lambda: os.close(1))
        self.assertEqual((result.returncode, result.stderr.decode()),
                         (1, "zolt-center: cannot write to standard output: Bad file descriptor\n"))

    def test_of_an_output_whose_reader_is_gone_is_1(self):
        center = self.enterContext(admin_support.Center("--echo"))
        self.things.update(port=center.port, admin=center.admin)
        for arguments in (*WRITING, *(f"{arguments} --json" for arguments in ("version", "config show", "doctor"))):
            with self.subTest(arguments=arguments):
                read, write = os.pipe()
                os.close(read)
                with open(write, "wb") as gone:
                    result = self.run_filled(arguments, stdout=gone)
                self.assertEqual((result.returncode, result.stderr.decode().splitlines()[-1]),
                                 (1, "zolt-center: cannot write to standard output: Broken pipe"))

    def test_of_every_command_is_asked_for_when_the_reader_is_gone(self):
        named = {tuple(word for word in arguments.split() if word.isalpha())[:len(path)]
                 for arguments in WRITING for path in support.all_commands()}
        self.assertLessEqual(set(support.all_commands()), named)

    def test_of_a_stop_by_signal_is_0_and_of_a_wait_that_was_cut_130(self):
        center, _ = support.start_on_port(lambda port: ["run", "--listen", port, "--admin", "none"], "stdout", "ready")
        with center:
            center.signal(signal.SIGTERM)
            self.assertEqual(center.finish()[0], 0)
        with support.Running("run", "--listen", self.things["taken"], "--wait-port", 600, "--admin", "none") as center:
            center.wait_for("stderr", "waiting for port")
            self.assertEqual(center.signal_until_end(signal.SIGINT), 130)


class Output(Things):
    def test_of_every_command_keeps_escape_codes_out_of_pipes(self):
        for path in support.all_commands():
            for arguments in ((*path, "--help"), (*path, "--no-such-option")):
                result = support.call(*arguments, env={**os.environ, "TERM": "xterm-256color"})
                self.assertNotIn(b"\x1b", result.stdout + result.stderr, arguments)

    def test_of_a_wrong_option_is_one_line_or_one_object(self):
        commands = list(support.all_commands())
        self.assertGreaterEqual(len(commands), 13)
        for path in commands:
            result = support.call(*path, "--no-such-option")
            self.assertEqual((result.returncode, result.stdout, result.stderr.count(b"\n")), (2, b"", 1), path)
            self.assertIn(b"--no-such-option", result.stderr, path)
            result = support.call(*path, "--no-such-option", "--json")
            error = json.loads(result.stdout)["error"]
            self.assertEqual((result.returncode, error["code"], result.stderr), (2, 2, b""), path)
            self.assertIn("--no-such-option", error["text"], path)

    def test_with_json_is_objects_and_nothing_else(self):
        for arguments in OBJECTS:
            with self.subTest(arguments=arguments):
                result = self.run_filled(arguments, "--json", env={**os.environ, "TERM": "xterm-256color"})
                self.assertTrue(result.stdout.endswith(b"}\n"), result)
                for line in result.stdout.splitlines():
                    self.assertIsInstance(json.loads(line), dict)
                self.assertNotIn(b"\x1b", result.stdout + result.stderr)
                if result.returncode != 0 and not arguments.startswith(("config", "doctor")):
                    self.assertEqual(json.loads(result.stdout.splitlines()[-1])["error"]["code"], result.returncode)


if __name__ == "__main__":
    support.main()
