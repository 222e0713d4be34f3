"""Captures written by hand: IPv4 packets with TCP segments and datagrams, in a file that tshark reads."""

import socket
import struct

LINKTYPE_RAW = 101
FIN, SYN, RST, PSH, ACK = 1, 2, 4, 8, 16
TCP, UDP = 6, 17
# What loopbacks carry, so that any piece of a test fits into one segment.
LARGEST_SEGMENT = 65000


def checksum(data):
    words = struct.unpack(f">{(len(data) + 1) // 2}H", data + b"\0" * (len(data) % 2))
    total = sum(words)
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return total ^ 0xFFFF


def with_checksum(data, place, covered=b""):
    """The data with the checksum of both in its two bytes at that place."""
    return data[:place] + struct.pack(">H", checksum(covered + data) or 0xFFFF) + data[place + 2:]


def ip_packet(protocol, source, destination, payload, checksum_place):
    ends = socket.inet_aton(source) + socket.inet_aton(destination)
    payload = with_checksum(payload, checksum_place, ends + struct.pack(">HH", protocol, len(payload)))
    header = struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(payload), 0, 0x4000, 64, protocol, 0) + ends
    return with_checksum(header, 10) + payload


class Capture:
    """Packets in the order in which they were seen, a millisecond apart."""

    def __init__(self):
        self.packets = []

    def datagram(self, source, destination, data):
        """Each end an (address, port)."""
        payload = struct.pack(">HHHH", source[1], destination[1], 8 + len(data), 0) + data
        self.packets.append(ip_packet(UDP, source[0], destination[0], payload, 6))

    def connection(self, client, server, seen_from_start=True):
        made = Connection(self, client, server)
        if seen_from_start:
            made.open()
        return made

    def write(self, path, longest=0xFFFF):
        """Longest: how many bytes of each packet the capture holds."""
        with open(path, "wb") as file:
            file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, longest, LINKTYPE_RAW))
            for number, packet in enumerate(self.packets):
                held = packet[:longest]
                file.write(struct.pack("<IIII", number // 1000, number % 1000 * 1000, len(held), len(packet)) + held)


class Connection:
    """A TCP connection: what each side sends, cut into segments as the test wants it."""

    def __init__(self, capture, client, server):
        self.capture = capture
        self.ends = (client, server)
        self.next = [1000, 5000]

    def open(self):
        self.next = [999, 4999]
        self._segment(0, SYN)
        self._segment(1, SYN | ACK)
        self._segment(0, ACK)

    def send(self, side, *pieces):
        """Side 0 is the client's. One segment for each piece."""
        for piece in pieces:
            for start in range(0, len(piece), LARGEST_SEGMENT):
                self._segment(side, PSH | ACK, piece[start:start + LARGEST_SEGMENT])

    def lose(self, side, data):
        """Sent, but not in the capture."""
        self.next[side] += len(data)

    def finish(self, side):
        self._segment(side, FIN | ACK)

    def _segment(self, side, flags, data=b""):
        source, destination = self.ends[side], self.ends[1 - side]
        acknowledged = self.next[1 - side] if flags & ACK else 0
        header = struct.pack(">HHIIBBHHH", source[1], destination[1], self.next[side], acknowledged, 5 << 4, flags,
                             65535, 0, 0)
        self.capture.packets.append(ip_packet(TCP, source[0], destination[0], header + data, 16))
        self.next[side] += len(data) + bool(flags & (SYN | FIN))
