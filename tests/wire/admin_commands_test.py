"""zolt-center status and top: what they print, where, and the exit code when a Center does not answer or is not well."""

import contextlib
import fcntl
import json
import os
import pty
import select
import signal
import socket
import struct
import termios
import threading
import time
import unittest

import admin_support
import center_support as support

ESCAPE = "\x1b"
PATIENCE = 30  # five seconds, and what a busy machine takes to start a program
STATUS, PEERS = "/api/v1/status", "/api/v1/peers"


class Answering(contextlib.AbstractContextManager):
    """Somebody who answers as told: bytes for each path."""

    def __init__(self, answers):
        self.answers = answers
        self.listening = socket.create_server(("127.0.0.1", 0))
        self.admin = f"127.0.0.1:{self.listening.getsockname()[1]}"
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        while True:
            connection, _ = self.listening.accept()
            with connection:
                request = connection.recv(4096)
                if not request:
                    return
                connection.sendall(self.answers.get(request.split()[1].decode(), b"HTTP/1.1 404 Not Found\r\n\r\n"))

    def __exit__(self, *_):
        socket.create_connection(self.listening.getsockname()).close()
        self.thread.join()
        self.listening.close()


def good(what):
    return b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n" + json.dumps(what).encode()


class Command(unittest.TestCase):
    def expect_failure(self, result, code, text):
        self.assertEqual((result.returncode, result.stdout), (code, b""), result)
        lines = result.stderr.decode().splitlines()
        self.assertEqual(len(lines), 1, lines)
        self.assertIn(text, lines[0])

    def expect_failures(self, command, admin, code, text):
        """As text and as an object."""
        self.expect_failure(support.call(command, "--admin", admin), code, text)
        result = support.call(command, "--admin", admin, "--json")
        error = json.loads(result.stdout)["error"]
        self.assertEqual((result.returncode, error["code"], result.stderr), (code, code, b""))
        self.assertIn(text, error["text"])


class Unanswered(Command):
    def test_is_told_with_the_address(self):
        with socket.socket() as holder:
            holder.bind(("127.0.0.1", 0))  # and does not listen
            admin = f"127.0.0.1:{holder.getsockname()[1]}"
            for command in ("status", "top"):
                self.expect_failures(command, admin, 5, f"no Center answers at {admin}: Connection refused")

    def test_is_not_waited_for_without_an_end(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:
            admin = f"127.0.0.1:{silent.getsockname()[1]}"
            start = time.monotonic()
            self.expect_failure(support.call("status", "--admin", admin), 5, f"no Center answers at {admin}: Connection timed")
            self.assertLess(time.monotonic() - start, PATIENCE)


class Foreign(Command):
    def test_answers_are_told_apart(self):
        page = b"HTTP/1.1 200 OK\r\nContent-Type: text/html\r\n\r\n<html></html>"
        shapes = [{}, {STATUS: page}, {STATUS: b"220 mail"}, {STATUS: good([1]), PEERS: good({"peers": []})},
                  {STATUS: good({"pid": 1}), PEERS: good([])}]
        for answers in shapes:
            with self.subTest(answers=answers), Answering(answers) as other:
                self.expect_failures("status", other.admin, 1, f"what answers at {other.admin} is no Center")

    def test_end_without_an_answer_is_none(self):
        with Answering({STATUS: b""}) as other:
            self.expect_failures("status", other.admin, 5, f"no Center answers at {other.admin}: Connection reset by peer")

    def test_figures_are_missed(self):
        with Answering({STATUS: good({"pid": 1, "healthy": True}), PEERS: good({"peers": []})}) as other:
            self.expect_failure(support.call("status", "--admin", other.admin), 1, "is no Center of this kind")


class Snapshot(Command):
    @classmethod
    def setUpClass(cls):
        cls.center = admin_support.Center("--echo", *support.patient())
        cls.addClassCleanup(cls.center.__exit__)
        cls.peer = cls.enterClassContext(support.Peer.connect(cls.center.port))
        cls.center.wait_until("peers", lambda answer: len(answer["peers"]) == 1)

    def test_is_all_of_the_status_and_the_peers(self):
        result = support.call("status", "--admin", self.center.admin, "--json")
        self.assertEqual((result.returncode, result.stderr, result.stdout.count(b"\n")), (0, b"", 1))
        told = json.loads(result.stdout)
        status = self.center.json("status")
        self.assertEqual(set(told), {*status, "peers"})
        self.assertEqual((told["pid"], told["totals"], told["outcomes"]),
                         (self.center.program.pid, status["totals"], status["outcomes"]))
        self.assertEqual([peer["address"] for peer in told["peers"]],
                         [peer["address"] for peer in self.center.json("peers")["peers"]])

    def test_for_people_has_no_escape_codes_in_a_pipe(self):
        result = support.call("status", "--admin", self.center.admin)
        lines = result.stdout.decode().splitlines()
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertNotIn(ESCAPE, result.stdout.decode())
        self.assertRegex(lines[0], rf"^zolt-center \d+\.\d+\.\d+, pid {self.center.program.pid}, up .* s: healthy, ready$")
        self.assertIn(f"serving {self.center.port}", lines)
        address = self.center.json("peers")["peers"][0]["address"]
        self.assertTrue(any(line.startswith(f"{address} ") and " accepted " in line for line in lines), lines)

    def changed(self, **figures):
        """Somebody who answers like this Center but for these figures."""
        return Answering({STATUS: good({**self.center.json("status"), **figures}), PEERS: good(self.center.json("peers"))})

    def test_of_an_unhealthy_center_ends_with_6(self):
        with self.changed(healthy=False, problems=["tcp_recv has ended"]) as other:
            text = support.call("status", "--admin", other.admin)
            told = support.call("status", "--admin", other.admin, "--json")
        self.assertEqual((text.returncode, text.stderr), (6, b""))
        self.assertIn("NOT HEALTHY", text.stdout.decode().splitlines()[0])
        self.assertIn("tcp_recv has ended", text.stdout.decode().splitlines())
        self.assertEqual((told.returncode, told.stderr, json.loads(told.stdout)["healthy"]), (6, b"", False))

    def test_of_a_center_that_is_not_ready_ends_with_6(self):
        with self.changed(ready=False) as other:
            text = support.call("status", "--admin", other.admin)
        self.assertEqual((text.returncode, text.stderr), (6, b""))
        self.assertTrue(text.stdout.decode().splitlines()[0].endswith(": healthy, not ready"), text.stdout)

    def test_lets_nobody_write_to_the_terminal(self):
        with self.changed(version="\x1b[2J\u202e1", problems=["a\nb\x9b"]) as other:
            shown = support.call("status", "--admin", other.admin).stdout
        self.assertRegex(shown, rb"^zolt-center \?\[2J\?+1, pid")
        self.assertRegex(shown, rb"\na\?b\?+\n")
        self.assertRegex(shown, rb"^[\n -~]*$")

    def test_of_figures_has_units_people_read(self):
        rates = {"packets_in_per_s": 1234.4, "packets_out_per_s": 0, "bytes_in_per_s": 3 * 2**20, "bytes_out_per_s": 1023}
        with self.changed(uptime_s=2 * 86400 + 3 * 3600 + 59, rates=rates,
                          queue={"packets": 7, "bytes": 1536, "max_bytes": 2**30},
                          latency_us={"count": 3, "p50": 10, "p90": 20, "p99": 30.4, "max": 31}) as other:
            text = support.call("status", "--admin", other.admin).stdout.decode()
        for part in ("up 2 d 3 h: ", "in  1234 packets/s, 3.0 MiB/s; ", "out 0 packets/s, 1023 B/s; ",
                     "waiting to leave 7 packets, 1.5 KiB of at most 1.0 GiB; ",
                     "written within 10 us (median), 30 us (99 %), 31 us (longest)"):
            self.assertIn(part, text)

    def look_three_times(self):
        result = support.call("top", "--admin", self.center.admin, "--json", "--count", 3, "--interval", 0.1)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        told = [json.loads(line) for line in result.stdout.splitlines()]
        self.assertEqual([one["pid"] for one in told], [self.center.program.pid] * 3)
        return [one["uptime_s"] for one in told]

    def test_again_and_again_is_an_object_a_line(self):
        # A look that comes late does not put off the next one.
        support.wait_until(self.look_three_times, lambda times: times[0] + 0.09 < times[1] and times[1] + 0.09 < times[2])

    def test_again_and_again_in_a_pipe_is_plain_text(self):
        result = support.call("top", "--admin", self.center.admin, "--count", 2, "--interval", 0.1)
        text = result.stdout.decode()
        self.assertEqual((result.returncode, result.stderr, text.count("zolt-center ")), (0, b"", 2))
        self.assertRegex(text, r"^[\n -~]*$")

    def test_again_and_again_ends_by_a_signal(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with support.Running("top", "--admin", self.center.admin, "--json") as top:
                top.wait_for("stdout", "\n")
                self.assertEqual(top.signal_until_end(number), 130)


class Ending(Command):
    def test_of_the_center_is_the_end_in_a_pipe(self):
        with admin_support.Center() as center, support.Running(
                "top", "--admin", center.admin, "--json", "--interval", 0.1) as top:
            top.wait_for("stdout", "\n")
            center.program.signal(signal.SIGTERM)
            center.program.finish()
            code, out, errors = top.finish()
        self.assertEqual((code, errors, json.loads(out.splitlines()[-1])["error"]["code"]), (5, "", 5))


class Screen(contextlib.AbstractContextManager):
    """top on a terminal of its own."""

    def __init__(self, *arguments, rows=24, columns=100, **environment):
        self.text = ""
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
            os.execve(support.PROGRAM, [support.PROGRAM, "top", *map(str, arguments)],
                      {"TERM": "xterm", "PATH": os.environ["PATH"], **environment})
        self.ended = None

    def __exit__(self, *_):
        if self.ended is None:
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
        os.close(self.terminal)

    def wait_for(self, wanted):
        """Reads until the text has appeared from here on; what was read."""
        begin = len(self.text)
        end = time.monotonic() + support.DEADLINE
        while wanted not in self.text[begin:]:
            readable, _, _ = select.select([self.terminal], [], [], max(0, end - time.monotonic()))
            assert readable, self.text
            self.text += os.read(self.terminal, 65536).decode()
        return self.text[begin:]

    def press(self, keys):
        os.write(self.terminal, keys)

    def finish(self):
        """The exit code; all that was written."""
        with contextlib.suppress(OSError):  # the terminal's other side is closed
            while piece := os.read(self.terminal, 65536):
                self.text += piece.decode()
        self.ended = os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])
        return self.ended

    def modes(self):
        return termios.tcgetattr(self.terminal)[3]


class Terminal(Command):
    @classmethod
    def setUpClass(cls):
        cls.center = admin_support.Center()
        cls.addClassCleanup(cls.center.__exit__)

    def test_is_drawn_in_place_and_given_back(self):
        with Screen("--admin", self.center.admin, "--interval", 0.1) as screen:
            first = screen.wait_for("q ends")
            self.assertTrue(first.startswith("\x1b[?1049h\x1b[?25l\x1b[H"), first)
            self.assertIn("\x1b[1mzolt-center ", first)
            self.assertFalse(screen.modes() & (termios.ICANON | termios.ECHO))
            self.assertIn("\x1b[H", screen.wait_for("q ends"))
            screen.press(b"xq")
            self.assertEqual(screen.finish(), 0)
            self.assertTrue(screen.text.endswith("\x1b[?25h\x1b[?1049l"))
            self.assertEqual(screen.modes() & (termios.ICANON | termios.ECHO), termios.ICANON | termios.ECHO)

    def test_ends_by_control_c_with_130(self):
        with Screen("--admin", self.center.admin) as screen:
            screen.wait_for("q ends")
            screen.press(b"\x03")
            self.assertEqual(screen.finish(), 130)
            self.assertTrue(screen.text.endswith("\x1b[?25h\x1b[?1049l"))

    def test_has_no_colour_when_none_is_wanted(self):
        with Screen("--admin", self.center.admin, "--count", 1, NO_COLOR="1") as screen:
            self.assertEqual(screen.finish(), 0)
            self.assertNotRegex(screen.text, "\x1b\\[[0-9;]*m")

    def test_is_not_written_over_its_edge(self):
        with Screen("--admin", self.center.admin, "--count", 1, rows=4, columns=20, NO_COLOR="1") as screen:
            self.assertEqual(screen.finish(), 0)
        drawn = screen.text.split("\x1b[H")[1].split("\x1b[J")[0].replace("\x1b[K", "").split("\r\n")
        self.assertEqual((len(drawn), drawn[-1]), (4, "4 more; q ends"), drawn)
        self.assertEqual(max(map(len, drawn)), 20)

    def test_stays_when_the_center_goes(self):
        with admin_support.Center() as center, Screen("--admin", center.admin, "--interval", 0.1) as screen:
            screen.wait_for("q ends")
            center.program.signal(signal.SIGTERM)
            center.program.finish()
            self.assertIn("\x1b[31mno Center answers at", screen.wait_for("Connection refused"))
            screen.press(b"q")
            self.assertEqual(screen.finish(), 0)


if __name__ == "__main__":
    support.main()
