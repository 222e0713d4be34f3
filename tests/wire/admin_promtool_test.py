"""The metrics of a Center with traffic, judged by the tool of those who read them."""

import shutil
import subprocess
import unittest

import admin_support
import center_support as support


class Metrics(unittest.TestCase):
    @unittest.skipUnless(shutil.which("promtool"), "promtool is not installed")
    def test_please_promtool(self):
        with admin_support.Center("--echo", "--max-queue", "1M", "--connect", "127.0.0.1:1") as center, \
                support.Peer.connect(center.port) as peer:
            peer.send(b"x")
            peer.receive()
            center.wait_until("status", lambda status: status["latency_us"]["count"] == 1 and status["closed"]["refused"])
            text = center.ask("/metrics")[2]
        result = subprocess.run(["promtool", "check", "metrics"], input=text, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, check=False)
        self.assertEqual((result.returncode, result.stdout), (0, b""))


if __name__ == "__main__":
    support.main()
