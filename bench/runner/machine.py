"""The machine that is measured: its name, its network for the run, and what else keeps it busy."""

import os
import platform
import resource
import subprocess
import sys

INSIDE = "INET_RELAY_BENCH_NETWORK"
CONGESTION = "/proc/sys/net/ipv4/tcp_congestion_control"
SHARED_NETWORK = "the machine's own, because a namespace is not allowed here; its congestion control is "


def first_line(path):
    try:
        with open(path, encoding="utf-8") as file:
            return file.readline().strip()
    except OSError:
        return ""


def enter_network(script, arguments):
    """Starts the script again in a network namespace of its own; comes back where that is not allowed, or inside."""
    if INSIDE in os.environ:
        return
    # Whoever is root stays so: from within a user namespace a profile does not see the kernel.
    for wrapper in (["unshare", "--net"], ["unshare", "--map-root-user", "--net"]):
        try:
            allowed = subprocess.run([*wrapper, "true"], capture_output=True).returncode == 0
        except FileNotFoundError:
            break
        if allowed:
            os.environ[INSIDE] = "own"
            os.execvp(wrapper[0], [*wrapper, sys.executable, "-B", script, *arguments])
    os.environ[INSIDE] = "shared"


def prepare_network():
    """Brings the own namespace up with plain congestion control; says what the run's network is."""
    if os.environ.get(INSIDE) != "own":
        return SHARED_NETWORK + (first_line(CONGESTION) or "unknown")
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    try:
        with open(CONGESTION, "w", encoding="ascii") as file:
            file.write("reno")
    except OSError:
        pass  # said by the name read back
    return f"a namespace of its own, congestion control {first_line(CONGESTION)}"


def processor():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        names = [line.split(":", 1)[1].strip() for line in file if line.startswith("model name")]
    return names[0] if names else platform.machine()


def describe():
    cores = len(os.sched_getaffinity(0))
    return f"{processor()}, {cores} cores, Linux {platform.release()}"


def load():
    return " ".join(first_line("/proc/loadavg").split()[:3])


def commit(root):
    def git(*arguments):
        done = subprocess.run(("git", "-C", root, *arguments), capture_output=True, text=True)
        return done.stdout.strip() if done.returncode == 0 else ""
    name = git("rev-parse", "--short=12", "HEAD") or "unknown"
    # What a run writes is no change of what it measures.
    written = (":!docs/benchmarks.md", ":!docs/benchmarks.csv", ":!docs/pictures")
    return name + (" with changes" if git("status", "--porcelain", "--", ".", *written) else "")


def busy_seconds():
    """Processor time of the whole machine since it started, with what the hypervisor took away."""
    user, nice, system, _, _, interrupts, soft_interrupts, stolen = map(int, first_line("/proc/stat").split()[1:9])
    return (user + nice + system + interrupts + soft_interrupts + stolen) / os.sysconf("SC_CLK_TCK")


def own_seconds():
    """Processor time of this process and of the children that it has waited for."""
    spent = (resource.getrusage(who) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN))
    return sum(usage.ru_utime + usage.ru_stime for usage in spent)


def others_seconds():
    return busy_seconds() - own_seconds()
