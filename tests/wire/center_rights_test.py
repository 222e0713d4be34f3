"""zolt-center in a user namespace of its own: with fewer rights outside it, and full ones over its network."""

import os
import socket
import subprocess
import unittest

import center_support as support

WITHOUT_RIGHTS = ("unshare", "--user", "--map-root-user")


def first_unprivileged_port():
    with open("/proc/sys/net/ipv4/ip_unprivileged_port_start", encoding="ascii") as file:
        return int(file.read())


class Rights(unittest.TestCase):
    def setUp(self):
        if not support.can_have_networks():
            self.skipTest("user namespaces with a network are not allowed here")

    def test_over_the_holder_of_a_port_are_missed_politely(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
            holder.bind(("", 0))
            port = holder.getsockname()[1]
            result = support.call("run", "--listen", port, wrapper=WITHOUT_RIGHTS)
        self.assertEqual((result.returncode, result.stderr.decode()),
                         (4, f"zolt-center: port {port} is taken over UDP: by nobody you may look at\n"))

    def test_to_a_low_port_are_missed_in_one_line(self):
        if first_unprivileged_port() <= 1:
            self.skipTest("every port may be served here")
        result = support.call("run", "--listen", 1, wrapper=WITHOUT_RIGHTS)
        self.assertEqual((result.returncode, result.stderr.decode()),
                         (4, "zolt-center: port 1 cannot be served over UDP: Permission denied\n"))

    def sniff(self, *arguments, data):
        """Sends to a loopback network of its own, and gives the datagrams that a raw socket saw there."""
        program = (
            "import socket, subprocess, sys\n"
            "raw = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_UDP)\n"
            "group = socket.inet_aton('232.0.0.1') + socket.inet_aton('127.0.0.1')\n"
            "raw.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)\n"
            "sent = subprocess.run(sys.argv[1:], input=sys.stdin.buffer.read(), stderr=subprocess.PIPE)\n"
            "raw.setblocking(False)\n"
            "while True:\n"
            "    try:\n"
            "        print(raw.recv(65536).hex())\n"
            "    except BlockingIOError:\n"
            "        break\n"
            "sys.exit(sent.returncode)\n")
        result = subprocess.run([*support.IN_A_NETWORK, "python3", "-c", program, support.PROGRAM, "send", "--udp", *arguments],
                                input=data, stdout=subprocess.PIPE, timeout=support.DEADLINE, check=False)
        self.assertEqual(result.returncode, 0)
        return [bytes.fromhex(line) for line in result.stdout.decode().split()]

    def test_over_a_network_show_what_is_sent(self):
        seen = self.sniff("--to", "127.0.0.9:7000", "--lines", data=b"one\ntwo\n")
        self.assertEqual(len(seen), 2)
        for number, (packet, line) in enumerate(zip(seen, (b"one\n", b"two\n"))):
            address, ports, payload = packet[16:20], packet[20:24], packet[28:]
            self.assertEqual((address, ports), (bytes([127, 0, 0, 9]), b"\x1b\x58\x1b\x58"))
            read = support.Packet(payload[:support.HEADER_SIZE], payload[support.HEADER_SIZE:])
            self.assertEqual((read.data, read.sequence, read.kind), (line, number, support.DATA))

    def test_over_a_network_show_multicast(self):
        seen = self.sniff("--to", "232.0.0.1:7000", "--interface", "127.0.0.1", data=b"all")
        self.assertEqual([packet[16:20] for packet in seen], [bytes([232, 0, 0, 1])])
        read = support.Packet(seen[0][28:28 + support.HEADER_SIZE], seen[0][28 + support.HEADER_SIZE:])
        self.assertEqual((read.data, read.kind, read.flags), (b"all", support.INFORMATION_UDP, support.MULTICAST))

    def test_over_a_network_let_a_failed_datagram_count(self):
        # Nothing leads to that address.
        result = support.call("send", "--udp", "--to", "10.1.2.3:7000", input=b"lost", wrapper=support.IN_A_NETWORK)
        lines = result.stderr.decode().splitlines()
        self.assertEqual((result.returncode, lines[-1]), (1, "zolt-center: only 0 of 1 packets left"))
        self.assertTrue(any("failed 1" in line for line in lines), lines)


if __name__ == "__main__":
    support.main()
