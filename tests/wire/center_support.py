"""What the tests of zolt-center share: running it, waiting for its lines, and a peer written by hand."""

import atexit
import contextlib
import functools
import os
import pty
import random
import re
import select
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

PROGRAM = ""
# A thread sanitizer has a thread of its own, and a process with two threads cannot take a user namespace.
PREFIX = ("unshare", "--user", "--map-root-user") if os.environ.get("CENTER_NEEDS_ROOT") and os.geteuid() else ()
DEADLINE = 120
SKIPPED = 77
# Options of commands that connect and of those that call: as long as it takes.
WAITING = ("--wait", DEADLINE)
CALLING = (*WAITING, "--timeout", DEADLINE)
# In front of a command: it runs with a loopback of its own.
IN_A_NETWORK = ("unshare", "--user", "--map-root-user", "--net", "sh", "-c", 'ip link set lo up && exec "$0" "$@"')

HEADER = struct.Struct(">4sHHBBHIIIIHHIHHQQQQ")
HEADER_SIZE = 72
BLOCK_SIZE = 1024
NO_TIMEOUT = 2**64 - 1
DATA, CALL, CALL_ACKNOWLEDGEMENT, HEARTBEAT, INFORMATION_UDP = 0, 1, 3, 5, 8
MULTICAST = 2


@contextlib.contextmanager
def sanitizer_reports():
    """A list that has what the sanitizers found, afterwards: also of programs that were killed, or were to fail anyway."""
    reports = []
    with tempfile.TemporaryDirectory() as folder:
        for name in ("ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"):
            os.environ[name] = ":".join(filter(None, (os.environ.get(name), f"log_path={folder}/report")))
        yield reports
        reports.extend(path.read_text(errors="replace") for path in sorted(Path(folder).iterdir()))


def main():
    """Entry of each test file: FILE PROGRAM [UNITTEST ARGUMENT...]. Ends with 77 when every test was skipped."""
    global PROGRAM
    PROGRAM = sys.argv.pop(1)
    # The relay looks for ../Config/zolt.ini: from here there is none.
    os.chdir("/")
    with sanitizer_reports() as reports:
        result = unittest.main(module="__main__", exit=False).result
    if reports:
        sys.exit("\n".join(reports))
    if result.wasSuccessful() and result.testsRun == len(result.skipped):
        sys.exit(SKIPPED)
    sys.exit(0 if result.wasSuccessful() else 1)


def call(*arguments, wrapper=(), **options):
    """Runs the program to its end; output and errors as bytes."""
    options.setdefault("stdin", subprocess.DEVNULL if "input" not in options else None)
    options.setdefault("stdout", subprocess.PIPE)
    if "input" in options:
        del options["stdin"]
    return subprocess.run([*(wrapper or PREFIX), PROGRAM, *map(str, arguments)], stderr=subprocess.PIPE, timeout=DEADLINE,
                          check=False, **options)


class Running:
    """The program, or another one, in the background, with its lines as they come. Killed at the end if it still runs."""

    def __init__(self, *arguments, program=None, **options):
        options.setdefault("stdin", subprocess.DEVNULL)
        options.setdefault("stderr", subprocess.PIPE)
        self.process = subprocess.Popen([*PREFIX, program or PROGRAM, *map(str, arguments)], stdout=subprocess.PIPE,
                                        **options)
        self.pid = self.process.pid
        self.text = {"stdout": b"", "stderr": b""}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stdout.close()
        if self.process.stderr is not None:
            self.process.stderr.close()

    def wait_for(self, stream, text):
        """Reads until the text has appeared; gives everything that was read."""
        return self.wait_for_count(stream, text, 1)

    def wait_for_count(self, stream, text, count, deadline=DEADLINE):
        """The same for a text that appears that often."""
        wanted = text.encode()
        end = time.monotonic() + deadline
        pipe = getattr(self.process, stream)
        while self.text[stream].count(wanted) < count:
            readable, _, _ = select.select([pipe], [], [], max(0, end - time.monotonic()))
            piece = os.read(pipe.fileno(), 65536) if readable else b""
            if not piece:
                raise AssertionError(f"no {text!r} on {stream}; there is {self.text!r}")
            self.text[stream] += piece
        return self.text[stream].decode()

    def signal(self, number):
        self.process.send_signal(number)

    def until_end(self, what):
        """Does it again and again until the program has ended; the exit code."""
        end = time.monotonic() + DEADLINE
        while time.monotonic() < end:
            what()
            with contextlib.suppress(subprocess.TimeoutExpired):
                return self.process.wait(timeout=0.02)
        raise AssertionError("the program does not end")

    def signal_until_end(self, number):
        return self.until_end(lambda: self.signal(number))

    def finish(self, deadline=DEADLINE):
        """Waits for the end: exit code, all output, all errors."""
        out, err = self.process.communicate(timeout=deadline)
        return self.process.returncode, (self.text["stdout"] + out), (self.text["stderr"] + err).decode()


def bind_both(port):
    """A TCP and a UDP socket on one port, or nothing when that is not free."""
    with contextlib.ExitStack() as stack:
        tcp = stack.enter_context(socket.socket(socket.AF_INET, socket.SOCK_STREAM))
        udp = stack.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        try:
            tcp.bind(("", port))
            udp.bind(("", tcp.getsockname()[1]))
        except OSError:
            return None
        return tcp.getsockname()[1]


RESERVED = []


def reserve(port):
    """True when no other test has been given this port; it stays this one's until its process ends."""
    mark = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    try:
        mark.bind(f"\0center test's port {port}")
    except OSError:
        mark.close()
        return False
    RESERVED.append(mark)
    return True


def free_port():
    """A port that is free over TCP and UDP, below the range from which the kernel serves those who name none, and that no
    other test gets."""
    return next(port for port in iter(lambda: bind_both(random.randrange(10000, 30000)), ()) if port and reserve(port))


@contextlib.contextmanager
def nobody():
    """The address of a port at which nobody can listen for so long: connections to it are refused."""
    with socket.socket() as holder:
        holder.bind(("127.0.0.1", 0))
        yield "127.0.0.1:%d" % holder.getsockname()[1]


def wait_until(take, is_so):
    """Takes it again and again until it is as wanted; what was taken."""
    end = time.monotonic() + DEADLINE
    while not is_so(taken := take()):
        assert time.monotonic() < end, taken
    return taken


@functools.cache
def patient():
    """Options of a Center that keeps peers which say nothing for longer than a busy machine may take."""
    with tempfile.NamedTemporaryFile("w", suffix=".ini", delete=False) as file:
        file.write("[ZOLT]\nAUTO_DISCONNECT = no\n")
    atexit.register(os.unlink, file.name)
    return "--config", file.name


def with_more_time(attempt, is_so, seconds):
    """Attempts it with twice the time again, for as long as the machine was too busy for it; what came of the last attempt."""
    while not is_so(made := attempt(seconds)):
        assert seconds < DEADLINE / 4, made
        seconds *= 2
    return made


def start_on_port(arguments, stream, text, **options):
    """The program with arguments(port) once it has said so, and the port; another port when somebody was quicker."""
    while True:
        port = free_port()
        program = Running(*arguments(port), **options)
        try:
            program.wait_for(stream, text)
            return program, port
        except AssertionError:
            with program:
                if program.process.wait(DEADLINE) != 4:
                    raise


def all_commands(path=()):
    """Every command that help lists, with those below it, as words; the program itself first."""
    yield path
    for name in commands_in(call(*path, "--help").stdout.decode()):
        yield from all_commands((*path, name))


def commands_in(text):
    """The names that help lists below "Subcommands:"."""
    listed = text.partition("Subcommands:\n")[2].partition("\n\n")[0]
    return re.findall(r"^  ([a-z]\S*) ", listed, re.MULTILINE)


def own_loopback_address():
    """A loopback address that no other process takes."""
    pid = os.getpid()
    return f"127.{64 + (pid >> 16)}.{pid >> 8 & 255}.{pid & 255}"


def closed_first(address="127.0.0.1"):
    """The ports of a connection that its client closed first, which the kernel keeps: the client's and the served one."""
    with socket.create_server((address, 0)) as listening:
        with socket.create_connection(listening.getsockname()) as client, listening.accept()[0] as far:
            client.shutdown(socket.SHUT_WR)
            if far.recv(1):
                raise AssertionError("a byte that nobody sent")
            return client.getsockname()[1], listening.getsockname()[1]


def make_packet(data=b"", kind=DATA, flags=0, sequence=0, code=0, version=1):
    """A packet as it travels: header, then data."""
    return HEADER.pack(b"ZOLT", version, HEADER_SIZE, kind, 0, flags, len(data), 0, code, 0, 0, 0, 0, 0, 0, sequence, 0,
                       NO_TIMEOUT, 0) + data


class Packet:
    """A packet that was read."""

    def __init__(self, header, data):
        fields = HEADER.unpack(header)
        self.kind, self.flags, self.sequence, self.data = fields[3], fields[5], fields[15], data


class Peer:
    """One end of a connection to the program, written from the wire format's description."""

    def __init__(self, connection, connects):
        self.connection = connection
        connection.settimeout(DEADLINE)
        ports = struct.pack(">HH", connection.getsockname()[1], connection.getpeername()[1])
        if connects:
            connection.sendall(ports.ljust(BLOCK_SIZE, b"\0"))
            self.read(BLOCK_SIZE)
        else:
            self.read(BLOCK_SIZE)
            connection.sendall(ports.ljust(BLOCK_SIZE, b"\0"))

    @classmethod
    def connect(cls, port):
        return cls(socket.create_connection(("127.0.0.1", port), timeout=DEADLINE), True)

    @classmethod
    def accept(cls, listening):
        listening.settimeout(DEADLINE)
        return cls(listening.accept()[0], False)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.connection.close()

    def read(self, size):
        data = b""
        while len(data) < size:
            piece = self.connection.recv(size - len(data))
            if not piece:
                raise AssertionError("the connection ended")
            data += piece
        return data

    def send(self, *arguments, **options):
        self.connection.sendall(make_packet(*arguments, **options))

    def receive(self):
        """The next packet that is no heartbeat."""
        while True:
            header = self.read(HEADER_SIZE)
            packet = Packet(header, self.read(HEADER.unpack(header)[6]))
            if packet.kind != HEARTBEAT:
                return packet


# For a process that shall not be able to make a network namespace.
WITHOUT_NETWORKS = ("unshare", "--user", "--map-root-user", "sh", "-c",
                    'echo 0 > /proc/sys/user/max_net_namespaces && exec "$0" "$@"')


def show_on_terminal(*arguments, **environment):
    """The exit code, and everything that the program shows on a terminal as its standard error."""
    master, slave = pty.openpty()
    with Running(*arguments, stderr=slave, env={**os.environ, "TERM": "xterm", **environment}) as program:
        os.close(slave)
        shown = b""
        with contextlib.suppress(OSError):
            while piece := os.read(master, 65536):
                shown += piece
        os.close(master)
        return program.process.wait(DEADLINE), shown.decode()


def succeeds(*command):
    return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False).returncode == 0


def can_have_networks():
    """True when this user may make a user namespace with a network in it."""
    return succeeds("unshare", "--user", "--map-root-user", "--net", "true")
