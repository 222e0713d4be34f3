"""zolt-center demo: the whole story, its verdict, and that nothing is left of it however it ends."""

import contextlib
import hashlib
import json
import os
import random
import select
import signal
import tempfile
import time
import unittest

import center_support as support

# What the test run may make smaller, on a machine that a sanitizer slows down.
SIZES = os.environ.get("CENTER_DEMO_SIZES", "--udp-size 8M --tcp-size 64M").split()
LONGEST = 100
UDP_STEPS = ["file over UDP", "datagrams", "broadcast over UDP", "multicast", "leave multicast"]
TCP_STEPS = ["file over TCP", "calls", "calls backwards", "kill", "withdraw", "silence", "thaw", "stays withdrawn"]

def children(pid):
    """Process ids of the nodes that a demonstration has started."""
    with contextlib.suppress(FileNotFoundError), open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
        return [int(child) for child in file.read().split()]
    return []


def wait_until_gone(pids):
    end = time.monotonic() + support.DEADLINE
    for pid in pids:
        handle = None
        with contextlib.suppress(ProcessLookupError):
            handle = os.pidfd_open(pid)
        if handle is not None:
            readable, _, _ = select.select([handle], [], [], max(0, end - time.monotonic()))
            os.close(handle)
            if not readable:
                raise AssertionError(f"process {pid} is still there")


class Demo(unittest.TestCase):
    def play(self, *options, code=0, wrapper=()):
        sizes = [] if "--tcp-size" in options else SIZES
        result = support.call("demo", "--json", "--quiet", *sizes, *options, wrapper=wrapper)
        self.assertEqual(result.returncode, code, result)
        return json.loads(result.stdout), result.stderr.decode()

    def figures(self, told):
        return {step["name"]: step["figures"] for step in told["steps"]}


class WithNetworks(Demo):
    def setUp(self):
        if not support.can_have_networks():
            self.skipTest("private networks are not allowed here")

    def test_tells_the_whole_story(self):
        told, _ = self.play()
        self.assertEqual([step["name"] for step in told["steps"]],
                         ["start", "connect", "broadcast over TCP", "freeze", *UDP_STEPS, *TCP_STEPS, "stop"])
        self.assertTrue(all(step["passed"] for step in told["steps"]))
        self.assertTrue(told["passed"] and told["networks"])
        self.assertLess(told["seconds"], LONGEST)
        figures = self.figures(told)
        for name in ("file over UDP", "file over TCP"):
            self.assertEqual(figures[name]["sha256_sent"], figures[name]["sha256_arrived"])
            self.assertRegex(figures[name]["sha256_sent"], "^[0-9a-f]{64}$")
        self.assertEqual(figures["datagrams"]["arrived"] + figures["datagrams"]["lost"], figures["datagrams"]["sent"])
        self.assertEqual(figures["leave multicast"]["arrived"], 0)
        self.assertTrue(7 <= figures["silence"]["seconds_after_freeze"] <= 12)
        for node in ("alpha", "beta", "gamma", "delta"):
            packets = figures["stop"][node]
            self.assertEqual(packets["handed_over"], sum(packets[key] for key in ("written", "returned", "dropped",
                                                                                  "failed", "queued")))

    def test_sends_a_file_of_the_users(self):
        content = random.Random(1).randbytes(1_000_003)
        with tempfile.NamedTemporaryFile() as file:
            file.write(content)
            file.flush()
            told, _ = self.play("--part", "udp", "--file", file.name)
        figures = self.figures(told)["file over UDP"]
        self.assertEqual((figures["bytes"], figures["sha256_arrived"]),
                         (len(content), hashlib.sha256(content).hexdigest()))

    def test_checks_files_of_the_lengths_around_a_block(self):
        # The checksum's padding ends the block, needs one more, or starts one.
        for size in (55, 56, 64):
            content = random.Random(size).randbytes(size)
            with tempfile.NamedTemporaryFile() as file:
                file.write(content)
                file.flush()
                told, _ = self.play("--part", "udp", "--file", file.name)
            self.assertEqual(self.figures(told)["file over UDP"]["sha256_arrived"],
                             hashlib.sha256(content).hexdigest(), size)

    def test_sends_again_what_was_lost(self):
        told, _ = self.play("--part", "udp", "--drop", 10)
        figures = self.figures(told)["file over UDP"]
        self.assertTrue(told["passed"])
        self.assertGreater(figures["thrown_away"], 0)
        self.assertGreaterEqual(figures["sent_again"], figures["thrown_away"])

    def test_runs_twice_at_once_and_again(self):
        with contextlib.ExitStack() as stack:
            both = [stack.enter_context(support.Running("demo", "--part", "udp", *SIZES)) for _ in range(2)]
            ends = [demo.finish() for demo in both]
        ends.append(support.call("demo", "--part", "udp", *SIZES))
        self.assertEqual([end[0] for end in ends[:2]] + [ends[2].returncode], [0, 0, 0])

    def test_shows_plain_lines_in_a_pipe(self):
        result = support.call("demo", "--part", "udp", *SIZES)
        lines = result.stdout.decode().splitlines()
        self.assertRegex(lines[-1], r"^passed: 7 of 7 steps passed in [\d.]+ s$")
        self.assertTrue(all(line.startswith("ok ") for line in lines[:-1]), lines)
        self.assertRegex(result.stderr.decode(), r"(?m)^ +[\d.]+ s beta: running, 0 links, tcp in 0\.0 MiB")
        self.assertNotIn(b"\x1b", result.stdout + result.stderr)

    def on_terminal(self, **more):
        """Everything that is shown on a terminal."""
        code, shown = support.show_on_terminal("demo", "--part", "udp", *SIZES, **more)
        self.assertEqual(code, 0)
        return shown

    def test_draws_a_table_on_a_terminal(self):
        shown = self.on_terminal()
        self.assertIn("\x1b[1mnode", shown)
        self.assertRegex(shown, r"\x1b\[3A\r?\x1b\[J")
        self.assertTrue(shown.endswith("\x1b[J"), shown[-80:])

    def test_draws_without_colour_for_those_who_want_none(self):
        shown = self.on_terminal(NO_COLOR="1")
        self.assertNotIn("\x1b[1m", shown)
        self.assertIn("\nalpha   running", shown.replace("\r", ""))


class Ending(Demo):
    def started(self, *options):
        """A demonstration whose nodes run, and their process ids."""
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        demo = support.Running("demo", "--loopback", *options, env={**os.environ, "TMPDIR": self.folder.name})
        self.addCleanup(demo.__exit__)
        demo.wait_for("stdout" if "--json" not in options else "stderr", "freeze")
        nodes = children(demo.pid)
        self.assertEqual(len(nodes), 4)
        return demo, nodes

    def test_by_a_signal_leaves_nothing(self):
        demo, nodes = self.started()
        demo.signal(signal.SIGINT)
        code, _, errors = demo.finish()
        self.assertEqual((code, errors.splitlines()[-1]), (130, "zolt-center: interrupted"))
        wait_until_gone(nodes)
        self.assertEqual(os.listdir(self.folder.name), [])

    def test_by_a_signal_gives_the_partial_result_as_an_object(self):
        demo, _ = self.started("--json")
        demo.signal(signal.SIGTERM)
        code, out, _ = demo.finish()
        told = json.loads(out)
        self.assertEqual((code, told["passed"], told["error"]), (130, False, {"code": 130, "text": "interrupted"}))
        self.assertEqual([step["name"] for step in told["steps"][:2]], ["start", "connect"])

    def test_by_force_leaves_nothing(self):
        demo, nodes = self.started()
        demo.signal(signal.SIGKILL)
        demo.finish()
        wait_until_gone(nodes)
        self.assertEqual(os.listdir(self.folder.name), [])

    def test_of_a_node_ends_the_demonstration(self):
        demo, nodes = self.started()
        os.kill(nodes[1], signal.SIGKILL)
        code, _, errors = demo.finish()
        self.assertEqual(code, 6)
        self.assertIn("zolt-center: node beta ended by itself", errors)
        wait_until_gone(nodes)

    def test_by_the_time_given_is_a_failed_check(self):
        told, _ = self.play("--loopback", "--seconds", 3, code=6)
        self.assertFalse(told["passed"])
        self.assertLess(told["seconds"], 30)


class WithoutNetworks(Demo):
    def setUp(self):
        if not support.can_have_networks():
            self.skipTest("a user namespace to forbid networks in is not allowed here")

    def test_says_so_and_plays_the_tcp_part(self):
        told, errors = self.play("--tcp-size", "1M", wrapper=support.WITHOUT_NETWORKS)
        self.assertEqual([step["name"] for step in told["steps"]],
                         ["start", "connect", "broadcast over TCP", "freeze", *TCP_STEPS, "stop"])
        self.assertTrue(told["passed"] and not told["networks"])
        self.assertRegex(errors, "^zolt-center: only the TCP part is played, on the loopback interface; two networks are "
                                 "not to be had: making a network namespace: [^\n]+\n$")

    def test_is_skipped_when_only_the_udp_part_is_wanted(self):
        result = support.call("demo", "--part", "udp", wrapper=support.WITHOUT_NETWORKS)
        self.assertEqual((result.returncode, result.stdout), (support.SKIPPED, b""))
        self.assertEqual(len(result.stderr.splitlines()), 1)
        self.assertIn(b"two nodes on one machine cannot share a UDP port", result.stderr)

    def test_needs_them_only_without_loopback(self):
        result = support.call("demo", "--part", "udp", "--loopback")
        self.assertEqual(result.returncode, support.SKIPPED)
        self.assertIn(b"--loopback was given", result.stderr)


if __name__ == "__main__":
    support.main()
