"""A Center behind a fence: fence_test.py ZOLT_CENTER RULES [UNITTEST ARGUMENT...]

The rules that ship are loaded as they are; a peer works, a stranger does not. Then the same through a tunnel.
"""

import errno
import json
import os
import re
import select
import socket
import subprocess
import sys
import time
import unittest

import lab

PROGRAM, RULES = sys.argv[1:3]
PORT = 7000
PATIENCE = 20
NOT_REACHABLE = 5
FLOOD = 60
ADMITTED_AT_ONCE = 20
ADMITTED_EACH_SECOND = 10
OPEN_AT_MOST = 32
TUNNEL_PORT = 51820
CONFIGURATION = "/run/zolt.ini"


def wait_until(what, condition):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"no {what}")
        select.select([], [], [], 0.02)


class Center:
    """zolt-center on a host: prints what arrives, acknowledges calls."""

    def __init__(self, host):
        with open(CONFIGURATION, "w", encoding="ascii") as file:
            file.write(f"[ZOLT]\nSERVER_LISTEN_BACKLOG = {FLOOD}\n")
        self.process = subprocess.Popen(host.inside(PROGRAM, "listen", "--port", str(PORT), "--json", "--config",
                                                    CONFIGURATION), cwd="/",
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        wait_until("listening port", lambda: f":{PORT} " in host.run("ss", "-Hltn"))

    def wait_for_packet(self, data):
        """Reads until that has arrived; all packets so far."""
        seen = []
        for line in self.process.stdout:
            seen.append(json.loads(line))
            if data in json.dumps(seen[-1]):
                return seen
        raise AssertionError(f"the Center ended; there was {seen}")

    def close(self):
        self.process.kill()
        self.process.communicate()


class Fenced(unittest.TestCase):
    """Host 0 has the Center; 1 is its peer, 2 a stranger."""

    @classmethod
    def setUpClass(cls):
        cls.switch = lab.Switch(3)

    @classmethod
    def tearDownClass(cls):
        cls.switch.remove()

    def setUp(self):
        self.home, self.peer, self.stranger = self.switch.hosts
        center = Center(self.home)
        self.addCleanup(center.close)
        self.center = center

    def fence(self, *peers):
        self.home.run("nft", "-f", RULES)
        self.addCleanup(self.home.run, "nft", "delete", "table", "inet", "zolt")
        if peers:
            self.home.run("nft", "add", "element", "inet", "zolt", "peers", f"{{ {', '.join(peers)} }}")

    def ping(self, host, to, *more):
        return subprocess.run(host.inside(PROGRAM, "ping", "--to", f"{to}:{PORT}", "--count", "5", "--interval", "0.01",
                                          "--wait", "2", *more),
                              cwd="/", stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=PATIENCE, check=False).returncode

    def assert_only_the_peer_is_heard(self, to):
        """A datagram of the stranger, then one of the peer."""
        for host, text in ((self.stranger, "from a stranger"), (self.peer, "from a peer")):
            subprocess.run(host.inside(PROGRAM, "send", "--udp", "--lines", "--to", f"{to}:{PORT}"), cwd="/",
                           input=text.encode() + b"\n", stderr=subprocess.PIPE, timeout=PATIENCE, check=True)
        arrived = self.center.wait_for_packet("from a peer")
        self.assertEqual(1, len(arrived), arrived)

    def count(self, comment):
        """Packets that the rule with that comment has dropped."""
        listing = self.home.run("nft", "list", "chain", "inet", "zolt", "center")
        return int(re.search(rf'packets (\d+) bytes \d+ drop comment "{comment}"', listing)[1])


class Rules(Fenced):
    def test_without_the_rules_everybody_is_served(self):
        self.assertEqual(0, self.ping(self.peer, self.home.ip))
        self.assertEqual(0, self.ping(self.stranger, self.home.ip))

    def test_nobody_is_known_at_first(self):
        self.fence()
        self.assertEqual(NOT_REACHABLE, self.ping(self.peer, self.home.ip))

    def test_a_peer_is_served_and_a_stranger_is_not(self):
        self.fence(self.peer.ip)
        self.assertEqual(NOT_REACHABLE, self.ping(self.stranger, self.home.ip))
        self.assertGreater(self.count("strangers"), 0)
        self.assertEqual(0, self.ping(self.peer, self.home.ip))

    def test_a_network_of_peers(self):
        self.fence(f"{lab.SUBNET}.0/24")
        self.assertEqual(0, self.ping(self.peer, self.home.ip))
        self.assertEqual(0, self.ping(self.stranger, self.home.ip))

    def test_datagrams_of_a_stranger_are_lost(self):
        self.fence(self.peer.ip)
        self.assert_only_the_peer_is_heard(self.home.ip)
        self.assertGreater(self.count("strangers"), 0)

    def test_an_open_connection_survives_the_rules(self):
        with lab.entered(self.peer.name):
            connection = socket.create_connection((self.home.ip, PORT), timeout=PATIENCE)
        with connection:
            self.fence(self.peer.ip)
            connection.sendall(bytes(1024))
            self.assertEqual(1024, len(connection.recv(1024, socket.MSG_WAITALL)))

    def test_a_peer_opens_only_so_many_at_once(self):
        self.fence(self.peer.ip)
        began = time.monotonic()
        opened = self.flood(self.peer)
        self.assertGreaterEqual(opened, ADMITTED_AT_ONCE)
        self.assertLessEqual(opened, ADMITTED_AT_ONCE + ADMITTED_EACH_SECOND * (time.monotonic() - began) + 1)
        self.assertGreaterEqual(self.count("too fast"), FLOOD - opened)

    def test_a_peer_holds_only_so_many(self):
        self.fence(self.peer.ip)
        self.assertEqual(OPEN_AT_MOST, self.hold_many(self.peer))
        self.assertEqual(NOT_REACHABLE, self.ping(self.peer, self.home.ip))

    def flood(self, host):
        """Tries that many connections in one instant; how many stand."""
        sockets = [self.begin_connection(host) for _ in range(FLOOD)]
        wait_until("verdict on each", lambda: self.count_standing(sockets) + self.count("too fast") >= FLOOD)
        return self.count_standing(sockets)

    @staticmethod
    def count_standing(sockets):
        return len(select.select([], sockets, [], 0)[1])

    def hold_many(self, host):
        """Opens connections, no faster than allowed, until the rules let no more in; how many stand."""
        began = time.monotonic()
        sockets = []

        def one_more():
            if time.monotonic() >= began + 2 * len(sockets) / ADMITTED_EACH_SECOND:
                sockets.append(self.begin_connection(host))
            return self.count("too many") > 0
        wait_until("bound", one_more)
        self.assertEqual(0, self.count("too fast"))
        return self.count_standing(sockets)

    def begin_connection(self, host):
        with lab.entered(host.name):
            made = socket.socket(socket.AF_INET, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
        self.addCleanup(made.close)
        self.assertEqual(errno.EINPROGRESS, made.connect_ex((self.home.ip, PORT)))
        return made


@unittest.skipUnless(lab.can_make_tunnels(), "this user may not open /dev/net/tun")
@unittest.skipUnless(lab.is_installed("wg", "wireguard-go"), "wireguard is not installed")
class Tunnel(Fenced):
    """WireGuard, in user space where the kernel has none: the fence admits addresses of the tunnel only."""

    def setUp(self):
        super().setUp()
        self.inner = {}
        ends = [self.home, self.peer]
        keys = [lab.run("wg", "genkey").strip() for _ in ends]
        for number, host in enumerate(ends):
            self.open_end(host, number, keys[number])
        for number, host in enumerate(ends):
            other = 1 - number
            host.run("wg", "set", f"tunnel{number}", "peer", lab.run("wg", "pubkey", input=keys[other]).strip(),
                     "allowed-ips", f"{self.inner_ip(other)}/32", "endpoint", f"{ends[other].ip}:{TUNNEL_PORT}")
        # Whatever goes to a Center's port in the clear, and what goes through the tunnel.
        lab.run("nft", "-f", "-", input=f"""
            table bridge watch {{
                counter clear {{ }}
                counter sealed {{ }}
                chain forward {{
                    type filter hook forward priority 0;
                    tcp dport {PORT} counter name clear
                    udp dport {TUNNEL_PORT} counter name sealed
                }}
            }}""")
        self.addCleanup(lab.run, "nft", "delete", "table", "bridge", "watch")

    @staticmethod
    def inner_ip(number):
        return f"10.78.0.{number + 1}"

    def open_end(self, host, number, key):
        name = f"tunnel{number}"
        process = subprocess.Popen(host.inside("wireguard-go", "-f", name), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        wait_until("tunnel", lambda: name in host.run("wg", "show", "interfaces").split())
        key_file = f"/run/{name}.key"
        with open(os.open(key_file, os.O_CREAT | os.O_WRONLY, 0o600), "w", encoding="ascii") as file:
            file.write(key)
        host.run("wg", "set", name, "listen-port", str(TUNNEL_PORT), "private-key", key_file)
        host.set_address(name, self.inner_ip(number))

    def passed(self, what):
        return int(re.search(r"packets (\d+)", lab.run("nft", "list", "counter", "bridge", "watch", what))[1])

    def test_the_center_is_reached_through_the_tunnel_only(self):
        self.fence(self.inner_ip(1))
        self.assertEqual(0, self.ping(self.peer, self.inner_ip(0)))
        self.assertEqual(0, self.passed("clear"))
        self.assertGreater(self.passed("sealed"), 0)
        self.assertEqual(NOT_REACHABLE, self.ping(self.peer, self.home.ip))
        self.assertGreater(self.passed("clear"), 0)

    def test_a_stranger_with_the_peers_address_but_without_its_key_is_refused(self):
        self.fence(self.inner_ip(1))
        lab.run("ip", "-n", self.stranger.name, "address", "add", f"{self.inner_ip(1)}/32", "dev", "eth0")
        lab.run("ip", "-n", self.stranger.name, "route", "add", self.inner_ip(0), "via", self.home.ip, "src",
                self.inner_ip(1))
        self.assertEqual(NOT_REACHABLE, self.ping(self.stranger, self.inner_ip(0)))
        self.assert_only_the_peer_is_heard(self.inner_ip(0))
        self.assertGreater(self.count("wrong way"), 0)


if __name__ == "__main__":
    lab.isolate()
    del sys.argv[1:3]
    unittest.main(verbosity=2)
