"""A peer written by hand from docs/wire-format.md: packets, the opening block, and both sides of a connection.

Nothing here comes from the relay or the reference host, so what it accepts and sends is what the page says.
"""

import dataclasses
import select
import socket
import struct
import time

HEADER = struct.Struct(">4sHHBBHIII4sHH4sHHQQQQ")
HEADER_SIZE = 72
MAGIC = b"ZOLT"
VERSION = 1
BLOCK_SIZE = 1024
LARGEST_DATAGRAM_DATA = 65435
NO_LIMIT = 0xFFFF_FFFF_FFFF_FFFF

DATA, CALL_RETURN, SIGNAL_RETURN, CALL_RETURN_ACK, SIGNAL_RETURN_ACK = range(5)
HEARTBEAT, CONTROL, COMMAND_UDP, INFORMATION_UDP, ERROR = range(5, 10)
ACKNOWLEDGES = {CALL_RETURN: CALL_RETURN_ACK, SIGNAL_RETURN: SIGNAL_RETURN_ACK}


@dataclasses.dataclass
class Packet:
    """One header, field by field, with its data. `data_size` None announces what is there."""

    kind: int = DATA
    data: bytes = b""
    data_size: int = None
    detail: int = 0
    flags: int = 0
    error: int = 0
    code: int = 0
    source: tuple = ("127.0.0.1", 0, 0)
    destination: tuple = ("127.0.0.1", 0, 0)
    sequence: int = 0
    creation_clock: int = 0
    timeout: int = NO_LIMIT
    elapsed: int = 0
    magic: bytes = MAGIC
    version: int = VERSION
    header_size: int = HEADER_SIZE

    def pack(self):
        """The bytes that travel."""
        announced = len(self.data) if self.data_size is None else self.data_size
        return HEADER.pack(self.magic, self.version, self.header_size, self.kind, self.detail, self.flags, announced,
                           self.error, self.code, *_address_fields(self.source), *_address_fields(self.destination),
                           self.sequence, self.creation_clock, self.timeout, self.elapsed) + self.data

    @classmethod
    def unpack(cls, header):
        """The packet whose header these 72 bytes are; its data is still to come."""
        (magic, version, header_size, kind, detail, flags, data_size, error, code, source_ip, source_port, source_id,
         destination_ip, destination_port, destination_id, sequence, clock, timeout, elapsed) = HEADER.unpack(header)
        return cls(kind, b"", data_size, detail, flags, error, code,
                   (socket.inet_ntoa(source_ip), source_port, source_id),
                   (socket.inet_ntoa(destination_ip), destination_port, destination_id),
                   sequence, clock, timeout, elapsed, magic, version, header_size)


def _address_fields(address):
    ip, port, node_id = address
    return socket.inet_aton(ip), port, node_id


def opening_block(sender_port, receiver_port):
    """The 1024 bytes that each side sends first."""
    return struct.pack(">HH", sender_port, receiver_port).ljust(BLOCK_SIZE, b"\0")


class Connection:
    """One side of a TCP connection. Everything that it writes is counted in `sent`."""

    def __init__(self, made, patience):
        self.socket = made
        self.socket.settimeout(patience)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.own_port = made.getsockname()[1]
        self.peer_port = made.getpeername()[1]
        self.sent = 0

    @classmethod
    def open(cls, address, patience, local=("", 0), room=None):
        """The connecting side; the exchange is still to come. Room: bytes that the kernel takes in for it."""
        made = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        try:
            made.settimeout(patience)
            made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            if room is not None:
                made.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, room)
            made.bind(local)
            made.connect(address)
            return cls(made, patience)
        except OSError:
            made.close()
            raise

    def block(self):
        return opening_block(self.own_port, self.peer_port)

    def exchange_as_connecting(self):
        """Sends the own block, gives the peer's."""
        self.write(self.block())
        return self.read(BLOCK_SIZE)

    def exchange_as_accepting(self):
        """Takes the peer's block, then sends the own one; gives the peer's."""
        theirs = self.read(BLOCK_SIZE)
        self.write(self.block())
        return theirs

    def write(self, data):
        self.socket.sendall(data)
        self.sent += len(data)

    def write_urgent(self, data):
        self.socket.send(data, socket.MSG_OOB)
        self.sent += len(data)

    def send(self, *packets):
        self.write(b"".join(packet.pack() for packet in packets))

    def read(self, size):
        """Exactly so many bytes. Throws EOFError when the stream ends before."""
        parts = []
        while size:
            piece = self.socket.recv(min(size, 1 << 20))
            if not piece:
                raise EOFError("the stream ended")
            parts.append(piece)
            size -= len(piece)
        return b"".join(parts)

    def receive(self):
        """The next packet that is no heartbeat."""
        while True:
            packet = Packet.unpack(self.read(HEADER_SIZE))
            packet.data = self.read(packet.data_size)
            if packet.kind != HEARTBEAT or packet.data:
                return packet

    def has_ended(self, within):
        """Reads what comes and drops it. True when the peer closes or resets within that many seconds."""
        end = time.monotonic() + within
        try:
            while (left := end - time.monotonic()) > 0:
                readable, _, _ = select.select([self.socket], [], [], left)
                if readable and not self.socket.recv(1 << 16):
                    return True
        except ConnectionError:
            return True
        return False

    def finish(self):
        """Ends the own direction (FIN)."""
        self.socket.shutdown(socket.SHUT_WR)

    def close(self):
        """FIN when everything was read, else a reset."""
        self.socket.close()

    def reset(self):
        """RST, whatever is still on its way."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


class Listener:
    """The side that others connect to, on a port of the kernel's choice; with "" on all addresses."""

    def __init__(self, host="127.0.0.1", port=0, backlog=1024):
        self.socket = socket.create_server((host, port), backlog=backlog)
        self.port = self.socket.getsockname()[1]

    def accept(self, patience):
        self.socket.settimeout(patience)
        return Connection(self.socket.accept()[0], patience)

    def close(self):
        self.socket.close()
