#!/usr/bin/env python3
"""The live page of a Center that runs: its figures, a peer that is killed, its end and its return."""

import json
import re
import signal
import socket
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "wire"))
import center_support  # noqa: E402
from browser import NO_PROXY, Browser, Pace, is_here, wait_for  # noqa: E402
from center_support import CALLING, DEADLINE, Running, call, free_port, make_packet  # noqa: E402

RED_WITHIN = 2


def start_center(port, admin):
    """A Center with a page, once it is ready: the program and the page's address."""
    program = Running("run", "--listen", port, "--echo", "--admin", admin)
    ready = program.wait_for("stdout", "\n")
    return program, re.search(r"http://[\d.:]+/", ready)[0]


class WholeWay(unittest.TestCase):
    def setUp(self):
        if not is_here():
            self.skipTest("no chromium and chromedriver here")
        self.browser = self.enterContext(Browser())

    def ask(self, what):
        with NO_PROXY.open(f"{self.address}api/v1/{what}", timeout=DEADLINE) as answer:
            return json.load(answer)

    def figure(self, path):
        """A count as the page shows it."""
        text = self.browser.text(f"[data-key='status.{path}']")
        return int(text.replace(",", "")) if re.fullmatch(r"[\d,]+", text or "") else None

    def api_figure(self, path):
        value = self.ask("status")
        for key in path.split("."):
            value = value[key]
        return value

    def state_of(self, address):
        return self.browser.run("return document.querySelector(`.drawing [data-peer='${arguments[0]}']`)?.classList.value", address)

    def check_figures(self):
        """Counts only grow: what the page shows lies between two answers around it, and comes up to each answer."""
        for path in ("totals.tcp_in.packets", "outcomes.handed_over", "outcomes.written", "inbox.taken"):
            least = self.api_figure(path)
            self.assertGreater(least, 0, path)
            wait_for(f"{path} reaches {least}", lambda path=path, least=least: (self.figure(path) or 0) >= least)
            shown = self.figure(path)
            self.assertLessEqual(shown, self.api_figure(path), path)
        self.assertEqual(self.browser.text("#balance"), "balances")
        self.assertEqual(self.figure("pid"), self.center.pid)
        self.assertEqual(self.browser.text("#health"), "ready")

    def show_arrival(self, port):
        """A datagram, and waits until the page counts it."""
        before = self.api_figure("totals.udp_in.packets")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.sendto(make_packet(b"counted"), ("127.0.0.1", port))
        wait_for("the page counts it", lambda: (self.figure("totals.udp_in.packets") or 0) > before)

    def test_a_center_a_peer_that_is_killed_and_the_center_gone_and_back(self):
        port, admin_port = free_port(), free_port()
        self.center, self.address = start_center(port, f"127.0.0.1:{admin_port}")
        self.addCleanup(lambda: self.center.__exit__())
        self.browser.open(self.address)
        with Running("run", "--connect", f"127.0.0.1:{port}", "--admin", "none") as other:
            peer = wait_for("the API names the peer", lambda: next(
                (one["address"] for one in self.ask("peers")["peers"] if one["state"] == "established"), None))
            wait_for("the page draws it", lambda: self.state_of(peer) == "node established")
            sent = call("ping", "--to", f"127.0.0.1:{port}", "--count", 20, "--interval", 0, *CALLING)
            self.assertEqual(sent.returncode, 0, sent.stderr)
            self.check_figures()
            pace = Pace(RED_WITHIN, lambda: self.show_arrival(port))
            other.signal(signal.SIGKILL)
            wait_for("it is red", lambda: self.state_of(peer) == "node gone")
            self.assertTrue(pace.is_kept(), pace.longest)
        wait_for("it is among the closed ones", lambda: peer in self.browser.text("#closed"))
        self.assertIn(self.ask("closed")["closed"][0]["reason"].replace("_", " "), self.browser.text("#closed"))
        self.assertEqual(self.browser.messages(), [])
        self.check_return(port, admin_port)

    def check_return(self, port, admin_port):
        self.assertEqual(self.center.signal_until_end(signal.SIGTERM), 0)
        wait_for("the page says that nobody answers", lambda: self.browser.text("#health") == "no answer")
        self.center.__exit__()
        self.center, _ = start_center(port, f"127.0.0.1:{admin_port}")
        wait_for("the page shows the new one", lambda: self.figure("pid") == self.center.pid)
        self.assertIn("started anew", self.browser.text("#notice"))


if __name__ == "__main__":
    center_support.main()
