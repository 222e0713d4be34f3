"""The admin endpoint of a running Center: what it answers, whom it refuses, and that nobody can hold it up."""

import contextlib
import json
import os
import re
import socket
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

import admin_support
import center_support as support

ROOT = Path(__file__).resolve().parents[2]
PATHS = ["/", "/healthz", "/readyz", "/metrics", "/api/v1/status", "/api/v1/peers", "/api/v1/closed",
         "/api/v1/config"]
DEFAULT = "127.0.0.1:7979"
ALL_SIGNALS = "fffffffe7ffbfeff"  # what a program can block: not KILL, not STOP, not the C library's two


def table_rows(path, columns):
    """The rows of a document's tables that have that many columns, header rows left out."""
    rows = [[cell.strip() for cell in line.strip().strip("|").split(" | ")]
            for line in (ROOT / path).read_text(encoding="utf-8").splitlines() if line.startswith("| `")]
    return [row for row in rows if len(row) == columns]


class Endpoint(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.center = admin_support.Center("--echo")
        cls.addClassCleanup(cls.center.__exit__)

    def raw(self, request):
        """What comes back for these bytes, to the end of the connection."""
        host, port = self.center.admin.split(":")
        with socket.create_connection((host, int(port)), timeout=support.DEADLINE) as connection:
            connection.sendall(request)
            return b"".join(iter(lambda: connection.recv(65536), b""))


class Pages(Endpoint):
    def test_are_there_and_as_long_as_told(self):
        for path in PATHS:
            status, headers, body = self.center.ask(path)
            self.assertEqual((status, headers["content-length"]), (200, str(len(body))), path)
            self.assertTrue(body, path)

    def test_carry_what_keeps_browsers_from_mischief(self):
        for path, wanted in [*((path, 200) for path in PATHS), ("/none", 404)]:
            status, headers, _ = self.center.ask(path)
            self.assertEqual((status, headers["cache-control"], headers["x-content-type-options"]),
                             (wanted, "no-store", "nosniff"), path)
            policy = dict(part.split(" ", 1) for part in headers["content-security-policy"].split("; "))
            self.assertEqual((policy["default-src"], policy["script-src"], policy["frame-ancestors"]),
                             ("'none'", "'self'", "'none'"), path)
            self.assertNotIn("access-control-allow-origin", headers)

    def test_of_the_live_page_have_their_types(self):
        types = {".html": "text/html; charset=utf-8", ".css": "text/css; charset=utf-8",
                 ".js": "text/javascript; charset=utf-8", ".svg": "image/svg+xml", ".txt": "text/plain; charset=utf-8"}
        files = [file for file in (ROOT / "Reference_Center/page").rglob("*") if file.suffix in types]
        self.assertLessEqual({".html", ".css", ".js"}, {file.suffix for file in files})
        for file in files:
            status, headers, body = self.center.ask(f"/assets/{file.name}")
            self.assertEqual((status, headers["content-type"], body), (200, types[file.suffix], file.read_bytes()), file)

    def test_are_no_others(self):
        for path in ("/api", "/api/v1/", "/api/v1/status/", "/assets/", "/assets/../page/index.html", "/index.html",
                     "/%2e%2e/etc/passwd", "/metrics/x", "//"):
            status, headers, body = self.center.ask(path)
            self.assertEqual((status, headers["content-type"], json.loads(body)),
                             (404, "application/json", {"error": "no such page"}), path)

    def test_do_not_look_at_what_follows_a_question_mark(self):
        self.assertEqual(self.center.ask("/healthz?verbose=1")[::2], (200, b"ok\n"))


class Methods(Endpoint):
    def test_other_than_get_and_head_are_refused(self):
        for method in ("POST", "PUT", "DELETE", "OPTIONS", "TRACE", "PATCH", "FROBNICATE"):
            status, headers, body = self.center.ask("/api/v1/status", method)
            self.assertEqual((status, headers["allow"]), (405, "GET, HEAD"), method)
            self.assertIn(method, json.loads(body)["error"])

    def test_head_gives_the_headers_of_get(self):
        for path in ("/", "/healthz", "/none"):
            got, asked = self.center.ask(path), self.center.ask(path, "HEAD")
            for headers in (got[1], asked[1]):
                headers.pop("date")
            self.assertEqual(asked, (*got[:2], b""), path)


class Names(Endpoint):
    def test_of_this_machine_are_served(self):
        for host in ("localhost", "LocalHost:80", "127.0.0.1", self.center.admin, "127.8.8.8:1"):
            self.assertEqual(self.center.ask("/readyz", headers={"Host": host})[0], 200, host)

    def test_of_anybody_else_are_refused(self):
        for host in ("example.org", f"rebound.example.org:{self.center.admin.split(':')[1]}", "localhost.example.org",
                     "127.0.0.1.example.org", "1.2.3", "", "[::1]"):
            status, _, body = self.center.ask("/api/v1/status", headers={"Host": host})
            self.assertEqual((status, list(json.loads(body))), (421, ["error"]), host)

    def test_may_be_left_out_by_old_programs(self):
        self.assertTrue(self.raw(b"GET /healthz HTTP/1.0\r\n\r\n").startswith(b"HTTP/1.1 200 "))


class Patience(Endpoint):
    def open(self):
        host, port = self.center.admin.split(":")
        connection = socket.create_connection((host, int(port)), timeout=support.DEADLINE)
        self.addCleanup(connection.close)
        return connection

    def test_ends_with_one_answer_a_connection(self):
        answer = self.raw(b"GET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\nGET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n")
        self.assertEqual(answer.count(b"HTTP/1.1 "), 1)

    def ask_beside_slow_ones(self):
        """Asks while many others do not finish their requests; how many of these still have time when the answer is there."""
        slow = [self.open() for _ in range(300)]
        for connection in slow:
            connection.settimeout(0)
            with contextlib.suppress(OSError):  # cut already
                connection.sendall(b"GET /healthz HTTP/1.1\r\nHost:")
        self.assertEqual(self.center.ask("/healthz")[0], 200)
        return sum(not has_closed_within(connection) for connection in slow)

    def test_is_not_held_up_by_many_who_do_not_finish(self):
        support.wait_until(self.ask_beside_slow_ones, lambda left: left > 0)

    def test_ends_for_who_sends_a_byte_now_and_then(self):
        start = time.monotonic()
        connection = self.open()
        connection.settimeout(0.1)
        with contextlib.suppress(BrokenPipeError, ConnectionResetError):
            connection.sendall(b"GET /healthz HTTP/1.1\r\nX: ")
            while not has_closed_within(connection):
                self.assertLess(time.monotonic() - start, support.DEADLINE)
                connection.sendall(b"x")
        self.assertGreater(time.monotonic() - start, 3)

    def test_survives_what_is_no_request(self):
        for noise in (b"\0" * 100000, b"GET\r\n\r\n", b"GET / HTTP/9.9\r\n\r\n", b"A" * 100000,
                      b"GET / HTTP/1.1\r\nHost: localhost\r\n" + b"X: y\r\n" * 20000 + b"\r\n"):
            with contextlib.suppress(ConnectionResetError, BrokenPipeError):
                self.raw(noise)
            self.assertEqual(self.center.ask("/healthz")[0], 200)


def has_closed_within(connection):
    """Waits for the socket's own time-out."""
    try:
        return connection.recv(65536) == b""
    except (TimeoutError, BlockingIOError):
        return False
    except ConnectionResetError:
        return True


class Thread(Endpoint):
    def test_has_all_signals_blocked(self):
        self.center.ask("/healthz")  # the thread runs, and no longer has the signals that it was born with
        tasks = list(Path(f"/proc/{self.center.program.pid}/task").iterdir())
        own = [task for task in tasks if (task / "comm").read_text() == "admin\n"]
        self.assertEqual(len(own), 1)
        self.assertIn(f"SigBlk:\t{ALL_SIGNALS}\n", (own[0] / "status").read_text())


class Place(unittest.TestCase):
    def test_is_told_when_it_is_ready(self):
        with admin_support.Center() as center:
            self.assertRegex(center.admin, r"^127\.0\.0\.1:[1-9][0-9]*$")
        program, port = support.start_on_port(lambda port: ["run", "--listen", port, "--admin", "127.0.0.1:0"], "stdout", "\n")
        with program:
            self.assertRegex(program.text["stdout"].decode(),
                             rf"^ready; serving {port} over UDP and TCP; admin at http://127\.0\.0\.1:\d+/\n$")

    def test_may_be_none(self):
        with admin_support.Center(admin="none") as center:
            self.assertIsNone(center.admin)
            sockets = subprocess.run(["ss", "-Hltnp"], stdout=subprocess.PIPE, check=True).stdout.decode().splitlines()
            own = [line for line in sockets if f"pid={center.program.pid}," in line]
            self.assertEqual(len(own), 1, own)

    def test_that_was_asked_for_and_is_taken_stops_the_center(self):
        with socket.create_server(("127.0.0.1", 0)) as holder:
            taken = f"127.0.0.1:{holder.getsockname()[1]}"
            result = support.call("run", "--listen", support.free_port(), "--admin", taken)
        self.assertEqual((result.returncode, result.stdout), (4, b""))
        self.assertIn(f"the admin endpoint cannot be at {taken}", result.stderr.decode())

    def test_of_its_own_choice_gives_way(self):
        # Whoever has the place will do, unless he leaves it just then.
        program, admin = support.wait_until(self.start_beside_a_holder, lambda made: made[1] != DEFAULT)
        self.assertEqual(json.loads(admin_support.ask(admin, "/api/v1/status")[2])["pid"], program.pid)
        program.wait_for("stderr", f"the admin endpoint cannot be at {DEFAULT}")

    def start_beside_a_holder(self):
        """A Center whose place is ours or somebody else's, and where its endpoint is."""
        holder = socket.socket()
        self.addCleanup(holder.close)
        host, port = DEFAULT.split(":")
        with contextlib.suppress(OSError):
            holder.bind((host, int(port)))
        program, _ = support.start_on_port(lambda port: ["run", "--listen", port, "--json"], "stdout", '"ready"')
        self.addCleanup(program.__exit__)
        return program, json.loads(program.text["stdout"])["admin"]

    def test_that_others_reach_is_warned_of_and_serves_every_name(self):
        with admin_support.Center(admin="0.0.0.0:0") as center:
            center.program.wait_for("stderr", f"warning the admin endpoint at {center.admin} can be read by whoever")
            self.assertEqual(center.ask("/readyz", headers={"Host": "node.example.org"})[0], 200)

    def test_that_only_this_machine_reaches_is_not_warned_of(self):
        with admin_support.Center("--seconds", "0.1") as center:
            code, _, errors = center.program.finish()
        self.assertEqual((code, "warning" in errors), (0, False), errors)


class Traffic(unittest.TestCase):
    def start(self, *options):
        center = admin_support.Center(*support.patient(), *options)
        self.addCleanup(center.__exit__)
        return center

    def connect(self, center, count, others=0):
        """So many peers, each of them known to the Center beside the others."""
        peers = []
        for _ in range(count):
            peers.append(support.Peer.connect(center.port))
            self.addCleanup(peers[-1].connection.close)
        center.wait_until("peers", lambda told: len(told["peers"]) == count + others)
        return peers

    def test_over_tcp_is_told_alike_by_every_page(self):
        center = self.start("--echo")
        [peer] = self.connect(center, 1)
        for sequence in range(3):
            peer.send(b"x" * 100, sequence=sequence)
            self.assertEqual(peer.receive().data, b"x" * 100)
        status = center.wait_until("status", lambda told: told["outcomes"]["written"] == 3)
        counts = {"packets": 3, "bytes": 300}
        self.assertEqual((status["totals"]["tcp_in"], status["totals"]["tcp_out"]), (counts, counts))
        self.assertEqual((status["pid"], status["ports"], status["ready"], status["healthy"]),
                         (center.program.pid, [center.port], True, True))
        [told] = center.json("peers")["peers"]
        self.assertEqual((told["over"], told["state"], told["in"], told["out"]),
                         ("accepted", "established", counts, counts))
        self.expect_metrics(center.metrics(), told["address"])

    def expect_metrics(self, metrics, address):
        self.assertEqual(metrics.value("zolt_handed_over_total"), 3)
        self.assertEqual(metrics.value("zolt_outcomes_total", outcome="written"), 3)
        self.assertEqual(metrics.value("zolt_peers", over="accepted", state="established"), 1)
        self.assertEqual(metrics.value("zolt_peer_established", peer=address, over="accepted"), 1)
        for direction in ("in", "out"):
            self.assertEqual(metrics.value("zolt_packets_total", transport="tcp", direction=direction), 3)
            self.assertEqual(metrics.value("zolt_data_bytes_total", transport="tcp", direction=direction), 300)
            self.assertEqual(metrics.value("zolt_peer_packets_total", peer=address, over="accepted", direction=direction), 3)
            self.assertEqual(metrics.value("zolt_peer_data_bytes_total", peer=address, over="accepted", direction=direction),
                             300)

    def test_over_udp_is_counted_on_its_own(self):
        center = self.start()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.sendto(support.make_packet(b"y" * 50), ("127.0.0.1", center.port))
        totals = center.wait_until("status", lambda told: told["totals"]["udp_in"]["packets"] == 1)["totals"]
        self.assertEqual((totals["udp_in"]["bytes"], totals["tcp_in"]["packets"]), (50, 0))
        self.assertEqual(center.metrics().value("zolt_data_bytes_total", transport="udp", direction="in"), 50)

    def test_of_more_than_a_hundred_peers_is_told_of_a_hundred(self):
        center = self.start("--connect", "127.0.0.1:1")
        self.connect(center, 101, others=1)
        metrics = center.metrics()
        series = [dict(key[1:]) for key in metrics.samples if key[0] == "zolt_peer_established"]
        self.assertEqual((len(series), metrics.value("zolt_peers_left_out")), (100, 2))
        self.assertEqual(metrics.value("zolt_peers", over="accepted", state="established"), 101)
        self.assertIn({"peer": "127.0.0.1:1", "over": "outgoing"}, series)
        self.assertEqual(metrics.value("zolt_peer_established", peer="127.0.0.1:1", over="outgoing"), 0)


class Configuration(unittest.TestCase):
    def test_is_told_with_its_origin_as_it_was_at_the_start(self):
        with tempfile.NamedTemporaryFile("w", suffix=".ini") as file:
            file.write("[ZOLT]\nSERVER_LISTEN_BACKLOG = 9\n")
            file.flush()
            with admin_support.Center("--config", file.name) as center:
                os.truncate(file.name, 0)
                told = center.json("config")
        keys = {key["key"]: key for key in told["keys"]}
        self.assertEqual((told["file"], len(keys)), (file.name, 9))
        changed, kept = keys["SERVER_LISTEN_BACKLOG"], keys["AUTO_DISCONNECT"]
        self.assertEqual((changed["value"], changed["default"], changed["origin"]), ("9", "5", f"{file.name}:2"))
        self.assertEqual((kept["value"], kept["origin"]), ("yes", "default"))
        self.assertTrue(all(key["effect"] for key in keys.values()))

    def test_without_a_file_has_none(self):
        with admin_support.Center() as center:
            told = center.json("config")
        self.assertEqual((told["file"], {key["origin"] for key in told["keys"]}), (None, {"default"}))


class Shape(unittest.TestCase):
    """docs/admin-api.md against what a Center with a peer, a destination and a configuration tells."""
    SIMPLE = {"text": str, "number": (int, float), "yes/no": bool, "null": type(None)}

    @classmethod
    def setUpClass(cls):
        parts = re.split(r"^##+ (.*)$", (ROOT / "docs/admin-api.md").read_text(encoding="utf-8"), flags=re.MULTILINE)
        cls.objects = {name: dict(re.findall(r"^\| `(\w+)` \| ([^|]+) \|", body, re.MULTILINE))
                       for name, body in zip(parts[1::2], parts[2::2])}

    def expect(self, value, kind, where):
        """Booleans are numbers to Python, not to JSON."""
        if kind.startswith("list of ") or kind in ("texts", "numbers"):
            self.assertIsInstance(value, list, where)
            for one in value:
                self.expect(one, kind.removeprefix("list of ").removesuffix("s" if kind in ("texts", "numbers") else ""),
                            f"{where}[]")
        elif kind in self.objects:
            self.assertEqual(list(value), list(self.objects[kind]), where)
            for key, inner in self.objects[kind].items():
                self.expect(value[key], inner, f"{where}.{key}")
        else:
            kinds = [self.SIMPLE[part] for part in kind.split(" or ")]
            self.assertTrue(any(isinstance(value, one) and (one is bool or not isinstance(value, bool)) for one in kinds),
                            (where, kind, value))

    def test_is_as_documented(self):
        with tempfile.NamedTemporaryFile("w", suffix=".ini") as file:
            file.write("[ZOLT]\nSERVER_LISTEN_BACKLOG = 9\n")
            file.flush()
            with admin_support.Center("--connect", "127.0.0.1:1", "--config", file.name) as center, \
                    support.Peer.connect(center.port):
                center.wait_until("peers", lambda told: len(told["peers"]) == 2)
                center.wait_until("closed", lambda told: told["closed"])
                for name in ("status", "peers", "closed", "config"):
                    self.expect(center.json(name), f"/api/v1/{name}", name)


class Figures(Endpoint):
    def test_have_documented_names_types_and_meanings(self):
        metrics = self.center.metrics()
        told = {name.strip("`"): (kind, text) for name, kind, _, text in table_rows("docs/metrics.md", 4)}
        self.assertEqual(told, {name: (metrics.type[name], metrics.help[name]) for name in metrics.help})

    def test_have_documented_labels(self):
        told = {name.strip("`"): tuple(re.findall(r"`(\w+)`", labels))
                for name, _, labels, _ in table_rows("docs/metrics.md", 4)}
        with admin_support.Center("--echo", "--max-queue", "1M", "--connect", "127.0.0.1:1") as center, \
                support.Peer.connect(center.port) as peer:
            peer.send(b"x")
            peer.receive()
            center.wait_until("status", lambda status: status["outcomes"]["written"] == 1)
            metrics = center.metrics()
        for name in metrics.type:
            self.assertEqual(metrics.labels(name), {tuple(sorted(told[name]))}, name)

    def test_are_named_as_is_the_custom(self):
        metrics = self.center.metrics()
        for name, kind in metrics.type.items():
            self.assertRegex(name, r"^zolt_[a-z_]+$")
            self.assertEqual(name.endswith("_total"), kind == "counter", name)
            self.assertNotRegex(name, r"_(ms|us|milliseconds|microseconds|kb|percent)(_|$)")


if __name__ == "__main__":
    support.main()
