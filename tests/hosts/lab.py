"""A laboratory of network namespaces: hosts on one switch, in a world of their own that ends with its program.

isolate() starts the calling script again inside namespaces of its own (network, mounts, processes; as root, or as the
root of a user namespace). Whatever ends the script, the kernel then takes away every process, device and namespace.
"""

import contextlib
import ctypes
import os
import shutil
import signal
import subprocess
import sys

SKIPPED = 77
SUBNET = "10.77.0"
_INSIDE = "HOSTS_LAB_IS_ISOLATED"
_CLONE_NEWNET = 0x40000000
_PR_SET_PDEATHSIG = 1
_NAMESPACES = ("--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc")
_LIBC = ctypes.CDLL(None, use_errno=True)


def skip(reason):
    """Ends the script: not possible on this machine."""
    print(f"skipped: {reason}", file=sys.stderr)
    sys.exit(SKIPPED)


def isolate(tools=("ip", "nft")):
    """Returns inside; outside it waits for the inner script and ends with its code."""
    os.environ["PATH"] += os.pathsep + "/usr/sbin" + os.pathsep + "/sbin"
    if os.environ.pop(_INSIDE, None):
        _furnish()
        return
    for tool in tools:
        if not is_installed(tool):
            skip(f"{tool} is not installed")
    own = ["unshare", *(["--user", "--map-root-user"] if os.geteuid() else []), *_NAMESPACES]
    if not _works([*own, "true"]):
        skip("this user may not make network namespaces")
    inner = subprocess.Popen([*own, sys.executable, "-B", *sys.argv], env={**os.environ, _INSIDE: "1"},
                             preexec_fn=_die_with_parent)
    signal.signal(signal.SIGTERM, lambda *_: inner.kill())
    signal.signal(signal.SIGINT, lambda *_: None)  # the inner script got it too, and says how far it came
    code = inner.wait()
    sys.exit(code if code >= 0 else 128 - code)


def _die_with_parent():
    _LIBC.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)


def _works(command):
    return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          check=False).returncode == 0


def _furnish():
    """Names of namespaces are files below /run; here they are nobody else's."""
    run("mount", "-t", "tmpfs", "tmpfs", "/run")
    os.makedirs("/run/netns")
    run("ip", "link", "set", "lo", "up")


def run(*command, **options):
    """Runs a tool that must succeed; its output as text."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {done.stderr.strip()}")
    return done.stdout


def address_of(number):
    """Of the host with that number."""
    return f"{SUBNET}.{number + 1}"


def is_installed(*tools):
    return all(shutil.which(tool) for tool in tools)


def can_shift_clocks():
    """True when a process can be given clocks that read otherwise than the machine's."""
    return _works(["unshare", "--time", "--monotonic", "1000", "--boottime", "1000", "--fork", "true"])


def can_make_tunnels():
    """True when this user may make network devices whose packets a program reads and writes."""
    return os.access("/dev/net/tun", os.R_OK | os.W_OK)


def _enter(path):
    with open(path, "rb") as namespace:
        if _LIBC.setns(namespace.fileno(), _CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), f"cannot enter {path}")


@contextlib.contextmanager
def entered(name):
    """The calling thread is in that namespace; the sockets and devices that it makes stay there."""
    with open("/proc/thread-self/ns/net", "rb") as home:
        _enter(f"/run/netns/{name}")
        try:
            yield
        finally:
            _enter(f"/proc/self/fd/{home.fileno()}")


class Host:
    """A network namespace of that name."""

    def __init__(self, name):
        self.name = name
        run("ip", "netns", "add", name)
        run("ip", "-n", name, "link", "set", "lo", "up")

    def remove(self):
        run("ip", "netns", "delete", self.name)

    def inside(self, *command):
        """The command line that runs a command in there."""
        return ["nsenter", f"--net=/run/netns/{self.name}", *command]

    def run(self, *command, **options):
        return run(*self.inside(*command), **options)

    def set_address(self, device, address):
        run("ip", "-n", self.name, "address", "add", f"{address}/24", "dev", device)
        run("ip", "-n", self.name, "link", "set", device, "up")


class SwitchedHost(Host):
    """A host with one cable to the switch."""

    def __init__(self, number):
        super().__init__(f"host{number}")
        self.number = number
        self.ip = address_of(number)
        self.port = f"port{number}"
        run("ip", "link", "add", self.port, "type", "veth", "peer", "name", "eth0", "netns", self.name)
        run("ip", "link", "set", self.port, "master", "switch", "up")
        self.set_address("eth0", self.ip)
        # What a node leaves behind keeps its port from the next one: for a minute where it closed first, and for as
        # long as the kernel goes on sending the rest of a connection whose peer was out of reach at its end.
        self.run("sh", "-c", "echo 0 > /proc/sys/net/ipv4/tcp_max_tw_buckets")
        self.run("sh", "-c", "echo 1 > /proc/sys/net/ipv4/tcp_orphan_retries")

    def plug(self, is_in):
        """Pulls the cable at the switch, or puts it in again."""
        run("ip", "link", "set", self.port, "up" if is_in else "down")


class Switch:
    """The bridge, with its hosts. Packets from one address to another can be lost on it: all of them, or some."""

    def __init__(self, host_count):
        run("ip", "link", "add", "switch", "type", "bridge", "forward_delay", "0")
        run("ip", "link", "set", "switch", "up")
        self.hosts = [SwitchedHost(number) for number in range(host_count)]
        run("nft", "-f", "-", input="""
            table bridge switch {
                set cut { type ipv4_addr . ipv4_addr; }
                set lossy { type ipv4_addr . ipv4_addr; }
                chain forward {
                    type filter hook forward priority 0;
                    ip saddr . ip daddr @cut counter drop
                    ip saddr . ip daddr @lossy numgen random mod 100 < 30 counter drop
                }
            }""")

    def lose(self, how, pairs):
        """From now on, from the first host of each pair to the second. How: "cut" or "lossy"."""
        elements = ", ".join(f"{self.hosts[a].ip} . {self.hosts[b].ip}" for a, b in pairs)
        if elements:
            run("nft", "add", "element", "bridge", "switch", how, f"{{ {elements} }}")

    @staticmethod
    def heal(how):
        run("nft", "flush", "set", "bridge", "switch", how)

    def sockets(self):
        """The TCP sockets of every host with their timers, as a text for whoever has to find out what went wrong."""
        return "\n".join(f"{host.name}:\n{host.run('ss', '-tanoipH')}" for host in self.hosts)

    def remove(self):
        """For the next one; whoever makes only one need not."""
        for host in self.hosts:
            run("ip", "link", "delete", host.port)  # the namespace itself takes its time to go
            host.remove()
        run("ip", "link", "delete", "switch")
        run("nft", "delete", "table", "bridge", "switch")
