#!/usr/bin/env python3
"""Changes one token of the relay at a time and asks the tests whether they notice.

Usage: mutants.py BUILD [--count N] [--seed N] [--jobs N] [--only SUBSTRING] [--report FILE]

BUILD is a configured build tree. Each sampled change is compiled from a copy, linked with the tests' objects and given
to one phase of PHASES after the other, until one notices it; nothing in the source tree is touched. A change that
cannot be built, or that compiles to the same code, is no mutant and another one is drawn. For ten changes one unchanged
copy is judged too: whatever fails then would have failed for nothing. Exit status: 0 when at least 90 of 100 were
killed and every unchanged copy passed.
"""

import argparse
import concurrent.futures
import json
import os
import random
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import threading
import time
from collections import Counter
from contextlib import contextmanager, suppress
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
ENGINE = Path("Center/INet_Relay/EPoll")
GOAL = 90  # of 100
REPORTS_EACH = 30  # seconds, where nobody looks at a terminal
BRIEF = ("--gtest_fail_fast", "--gtest_brief=1")
MOST_MEMORY = 4 << 30  # bytes of addresses; a change that allocates without end fails soon
MOST_WRITTEN = 256 << 20  # bytes; one that writes without end fails soon, too
# A changed copy that talks to a wrong port reaches nobody but itself in a network of its own.
OWN_NETWORK = ("unshare", *(("--user", "--map-root-user") if os.geteuid() else ()), "--net",
               "sh", "-c", 'PATH=$PATH:/usr/sbin:/sbin ip link set lo up && exec "$@"', "sh")
KEPT = 4096  # bytes at the end of what a program wrote, told when an unchanged copy fails

# The suites that belong to a source; the first part that its name contains counts. They are asked before all others.
OWN_SUITES = {
    "_udp_": "*udp*:*datagram*",
    "epoll_thread": "*event_thread*:*running*:*recv_thread*",
    "method_client": "*outgoing*:*connect*:*block*:*answer*:*establish*:*end*:*withdraw*:*ownership*:*failing*",
    "method_server": "*listen*:*accept*:*block*:*reply*:*establish*:*end*:*ownership*:*failing*",
    "tcp_method": "*stream*:*delivery*:*record*:*purging*:*acknowledging*:*releasing*:*end*:*registry*",
    "inet_relay_epoll": "*lifecycle*:*initializ*:*withdraw*:*broadcast*:*adding*:*added*:*udp*:*deliver*:*registr*",
    "epoll.cpp": "*tick*:*cancelling*:*draining*:*reaping*:*retrying*:*heartbeat*:*initializ*:*timer*:*after*",
}


@dataclass(frozen=True)
class Phase:
    """A test program and how it is run; {own} stands for the suites of the changed source."""
    title: str
    target: str
    arguments: tuple
    is_short: bool = True
    is_timed: bool = True  # an unchanged copy could fail by being slow; the simulation has no clock but its own


# Those that cost least come first. The program of all unit tests leaves out what is linked otherwise.
PHASES = (
    Phase("own suites", "relay_unit_tests", (*BRIEF, "--gtest_filter={own}")),
    Phase("other suites", "relay_unit_tests", (*BRIEF, "--gtest_filter=*-{own}")),
    Phase("ending records", "ending_record_test", BRIEF),
    Phase("whole nodes", "whole_node_test", BRIEF),
    Phase("event threads alone", "event_thread_memory_test", BRIEF),
    Phase("matrix", "fault_matrix_test", BRIEF),
    Phase("failing allocations", "fault_allocations_test", BRIEF),
    Phase("simulation", "relay_simulation", ("--count", "3000"), is_timed=False),
    Phase("failing calls", "fault_calls_test", BRIEF, is_short=False),
)

# What a token may become. A token that stands in no row is left alone.
SWAPS = {
    "<": ["<="], "<=": ["<"], ">": [">="], ">=": [">"], "==": ["!="], "!=": ["=="], "&&": ["||"], "||": ["&&"],
    "+": ["-"], "-": ["+"], "+=": ["-="], "-=": ["+="], "++": ["--"], "--": ["++"], "|": ["&"], "&": ["|"], "!": [""],
    "true": ["false"], "false": ["true"], "0": ["1"], "1": ["0"], "-1": ["0"], "1024": ["1023"], "8000": ["8001"],
    "front": ["back"], "push_back": ["push_front"], "return": ["if (false) return"], "throw": ["if (false) throw"],
    "EPOLL_CTL_ADD": ["EPOLL_CTL_MOD"], "EPOLL_CTL_MOD": ["EPOLL_CTL_ADD"], "EPOLLIN": ["EPOLLOUT"],
    "EPOLLOUT": ["EPOLLIN"], "EPOLLONESHOT": ["0U"], "EPOLLET": ["0U"], "EPOLLERR": ["EPOLLHUP"],
    "SHUT_RDWR": ["SHUT_WR"], "SHUT_WR": ["SHUT_RDWR"], "SHUT_RD": ["SHUT_WR"],
    "c_recv_mask": ["c_send_mask"], "c_send_mask": ["c_recv_mask"], "c_cancel_mask": ["c_send_mask"],
    "epoll_tcp_init": ["epoll_tcp_send"], "epoll_tcp_recv": ["epoll_tcp_send"], "epoll_tcp_send": ["epoll_tcp_recv"],
    "epoll_udp_recv": ["epoll_udp_send"], "epoll_udp_send": ["epoll_udp_recv"],
    "c_kind_accepted": ["c_kind_connecting"], "c_kind_connecting": ["c_kind_accepted"],
    "c_kind_established_server": ["c_kind_established_client"],
    "c_kind_established_client": ["c_kind_established_server"],
    "g_client_lock": ["g_establish_server_map_lock"], "g_establish_server_map_lock": ["g_client_lock"],
    "g_connect_map": ["g_connect_fail_map"], "g_connect_fail_map": ["g_connect_map"],
    "remote_ip": ["local_ip"], "local_ip": ["remote_ip"], "remote_port": ["local_port"], "local_port": ["remote_port"],
    "gate_port": ["local_port"], "recv_clock": ["send_clock"], "send_clock": ["recv_clock"],
    "send_lock": ["ack_lock"], "ack_lock": ["send_lock"], "send_q": ["ack_q"], "ack_q": ["send_q"],
    "client_init_header": ["server_init_header"], "server_init_header": ["client_init_header"],
    "c_client_side": ["c_server_side"], "c_server_side": ["c_client_side"],
    "free_header": ["free_data"], "free_data": ["free_header"], "free": ["reset"], "reset": ["free"],
    "set_source": ["set_destination"], "set_destination": ["set_source"],
    "c_broadcast_stub_id": ["c_broadcast_proxy_id"], "c_broadcast_proxy_id": ["c_broadcast_stub_id"],
    "htons": [""], "ntohs": [""],
}
TOKEN = re.compile(
    r'(?P<skip>//[^\n]*|/\*.*?\*/|^\s*#[^\n]*|\[\[[^\]]*\]\])'
    r'|(?P<string>"(?:\\.|[^"\\])*")'
    r"|(?P<other>'(?:\\.|[^'\\])*')"
    r'|(?P<word>[A-Za-z_]\w*)'
    r'|(?P<number>\d[\w.]*)'
    r'|(?P<sign><=|>=|==|!=|&&|\|\||\+=|-=|\+\+|--|->|::|<<|>>|[-+*/%&|!<>=;:,.?~^(){}\[\]])',
    re.S | re.M)
# Where a sign is no operator: templates, pointers and references in declarations, includes.
NO_OPERATOR = re.compile(r"template|static_cast|reinterpret_cast|std::(?:map|deque|vector|atomic|unique_ptr)|operator")
CALL_ALONE = re.compile(r"\s+(?:::)?[a-z_][\w:>.()\[\]-]*\([^{}]*\);\n")
# A function that returns nothing does so anyway, and one that owes a value has no meaning without it.
LAST_STATEMENT = re.compile(r"return\b[^;]*;\n}")


@dataclass(frozen=True)
class Mutant:
    source: str
    line: int
    start: int
    end: int
    before: str
    after: str

    @property
    def is_control(self):
        """An unchanged copy."""
        return self.before == self.after

    def __str__(self):
        return f"{self.source}:{self.line}: {self.before} -> {self.after or '(nothing)'}"


def ends_well(command):
    try:
        return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True).returncode == 0
    except OSError:
        return False


def is_operator(text, match, line_text):
    """A sign between blanks is an operator here: the house's format sees to that."""
    token = match.group()
    if NO_OPERATOR.search(line_text) and token in "<>&":
        return False
    if token in ("!", "++", "--"):
        return True
    return text[match.start() - 1] == " " and text[match.end()] == " "


def mutants_of(path):
    text = (ROOT / path).read_text(encoding="utf-8")
    lines = text.splitlines()
    for match in TOKEN.finditer(text):
        if match["skip"] or match["other"]:
            continue
        line = text.count("\n", 0, match.start()) + 1
        token, source = match.group(), str(path)
        if match["string"]:
            if len(token) > 2 and not lines[line - 1].lstrip().startswith(("extern", "#include")):
                yield Mutant(source, line, match.start(), match.end(), token, token[:-1] + '~"')
        elif token == "return" and LAST_STATEMENT.match(text, match.start()):
            continue
        elif match["sign"] is None or is_operator(text, match, lines[line - 1]):
            for after in SWAPS.get(token, ()):
                yield Mutant(source, line, match.start(), match.end(), token, after)


def statements_of(path):
    """A call that stands alone on its line, left out."""
    text = (ROOT / path).read_text(encoding="utf-8")
    offset = 0
    for number, line in enumerate(text.splitlines(keepends=True), 1):
        if CALL_ALONE.fullmatch(line) and not line.lstrip().startswith("return"):
            body = line.strip()
            start = offset + line.index(body)
            yield Mutant(str(path), number, start, start + len(body), body, ";")
        offset += len(line)


@dataclass(frozen=True)
class Verdict:
    phase: str  # the title of the one that failed; empty when none did
    said: str  # the end of what its program wrote


UNNOTICED = Verdict("", "")


class Unlinkable(RuntimeError):
    pass


class Workshop:
    """The build tree, and how one changed source becomes a test program."""

    def __init__(self, build):
        self.build = build
        entries = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
        self.compile = {}
        for entry in entries:
            path = Path(entry["file"])
            if ROOT / ENGINE in path.parents and "inet_relay_objects.dir" in entry["command"]:
                self.compile[str(path.relative_to(ROOT))] = shlex.split(entry["command"])
        self.link = {target: self.link_command(target) for target in {phase.target for phase in PHASES}}
        self.network = OWN_NETWORK if ends_well((*OWN_NETWORK, "true")) else ()
        if not self.network:
            print("no networks of their own can be had here: a change may disturb what runs beside it", flush=True)
        self.guard = threading.Lock()
        self.originals, self.limits, self.seconds = {}, {}, Counter()
        self.measuring = {target: threading.Lock() for target in self.link}

    def link_command(self, target):
        result = subprocess.run(("ninja", "-C", str(self.build), "-t", "commands", target), capture_output=True,
                                text=True, check=True)
        for line in reversed(result.stdout.splitlines()):
            if re.search(rf" -o \S*{target} ", line):
                return shlex.split(line.removeprefix(": && ").partition(" && ")[0])
        sys.exit(f"mutants: {self.build} does not say how {target} is linked")

    def object_of(self, source):
        command = self.compile[source]
        return command[command.index("-o") + 1]

    @contextmanager
    def timed(self, title):
        began = time.monotonic()
        try:
            yield
        finally:
            with self.guard:
                self.seconds[title] += time.monotonic() - began

    def compile_to(self, source, text, folder, *options):
        """The object of a changed source, which knows no name but the original's; None when it does not compile."""
        command = [part for part in self.compile[source] if not part.startswith("-Werror")]
        copy, result = folder / Path(source).name, folder / f"changed{''.join(options)}.o"
        copy.write_text(f'#line 1 "{source}"\n{text}', encoding="utf-8")
        command[command.index("-o") + 1] = str(result)
        command[command.index("-c") + 1] = str(copy)
        with self.timed("compiling"):
            done = subprocess.run([*command, "-w", "-frandom-seed=0", *options], cwd=self.build, capture_output=True)
        return result if done.returncode == 0 else None

    def is_the_same(self, source, changed, folder, *options):
        """Whether an object is, byte for byte, what the unchanged source compiles to."""
        with self.guard:
            original = self.originals.get((source, options))
        if original is None:
            text = (ROOT / source).read_text(encoding="utf-8")
            inner = Path(tempfile.mkdtemp(dir=folder))
            original = self.compile_to(source, text, inner, *options).read_bytes()
            with self.guard:
                self.originals[source, options] = original
        return changed.read_bytes() == original

    def link_to(self, target, source, changed, folder):
        """The program, made anew; None when it does not hold this source."""
        command, result, old = list(self.link[target]), folder / target, self.object_of(source)
        if old not in command:
            return None
        if not result.exists():
            command[command.index(old)] = str(changed)
            command[command.index("-o") + 1] = str(result)
            with self.timed("linking"):
                done = subprocess.run([*command, "-fuse-ld=gold"], cwd=self.build, capture_output=True, text=True)
            if done.returncode != 0:
                raise Unlinkable(f"{target} with a changed {source} cannot be linked:\n{done.stderr[-KEPT:]}")
        return result

    def limit_of(self, phase):
        """The seconds that a run may take, by the program as built, which must pass."""
        with self.measuring[phase.target]:
            if phase.target not in self.limits:
                command = self.link[phase.target]
                program = self.build / command[command.index("-o") + 1]
                arguments = [part for part in phase.arguments if "{own}" not in part]
                began = time.monotonic()
                with self.timed("without a change"):
                    said = self.complaint_of(program, arguments, 600)
                if said is not None:
                    raise RuntimeError(f"{phase.target} fails without any change:\n{said}")
                self.limits[phase.target] = 5 * (time.monotonic() - began) + 10
            return self.limits[phase.target]

    def complaint_of(self, program, arguments, seconds):
        """None when it ends well in that time, else the end of what it said. Whatever it started ends too."""
        with tempfile.TemporaryFile() as said:
            limits = (f"--as={MOST_MEMORY}", f"--fsize={MOST_WRITTEN}", "--core=0")
            run = subprocess.Popen((*self.network, "prlimit", *limits, str(program), *arguments),
                                   stdin=subprocess.DEVNULL, stdout=said, stderr=said, cwd=program.parent,
                                   start_new_session=True)
            try:
                status = run.wait(seconds)
            except subprocess.TimeoutExpired:
                status = f"still running after {seconds:.0f} s"
            finally:
                with suppress(ProcessLookupError):
                    os.killpg(run.pid, signal.SIGKILL)
                run.wait()
            if status == 0:
                return None
            said.seek(max(0, said.seek(0, os.SEEK_END) - KEPT))
            return f"{said.read().decode(errors='replace')}\nended with: {status}"


def own_suites(source):
    return next(suites for part, suites in OWN_SUITES.items() if part in source)


def noticed_by(workshop, source, changed, folder, phases):
    """The first phase that fails, or UNNOTICED."""
    for phase in phases:
        program = workshop.link_to(phase.target, source, changed, folder)
        if program is None:
            continue
        limit = workshop.limit_of(phase)
        arguments = [part.format(own=own_suites(source)) for part in phase.arguments]
        with workshop.timed(phase.title):
            said = workshop.complaint_of(program, arguments, limit)
        if said is not None:
            return Verdict(phase.title, said)
    return UNNOTICED


def judge(workshop, mutant):
    """The phase that noticed the change, UNNOTICED when none did, None for a change that is no mutant."""
    try:
        return verdict_on(workshop, mutant)
    except Unlinkable as why:
        if mutant.is_control:
            raise
        print(f"no mutant: {mutant}: {why}", flush=True)
        return None


def verdict_on(workshop, mutant):
    text = (ROOT / mutant.source).read_text(encoding="utf-8")
    changed_text = text[:mutant.start] + mutant.after + text[mutant.end:]
    with tempfile.TemporaryDirectory(prefix="mutant-") as name:
        folder = Path(name)
        changed = workshop.compile_to(mutant.source, changed_text, folder)
        short = [phase for phase in PHASES if phase.is_short]
        if mutant.is_control:
            return noticed_by(workshop, mutant.source, changed, folder, [one for one in short if one.is_timed])
        if changed is None or workshop.is_the_same(mutant.source, changed, folder):
            return None
        verdict = noticed_by(workshop, mutant.source, changed, folder, short)
        if verdict is not UNNOTICED:
            return verdict
        optimised = workshop.compile_to(mutant.source, changed_text, folder, "-O2")
        if workshop.is_the_same(mutant.source, optimised, folder, "-O2"):
            return None
        long = [phase for phase in PHASES if not phase.is_short]
        return noticed_by(workshop, mutant.source, changed, folder, long)


class Tally:
    """What was judged so far, and how the rest is told about."""

    def __init__(self, wanted):
        self.wanted, self.killers, self.survivors, self.controls, self.false_alarms = wanted, Counter(), [], 0, []
        self.no_mutants = 0
        self.began = self.told = time.monotonic()

    @property
    def killed(self):
        return sum(self.killers.values())

    @property
    def judged(self):
        return self.killed + len(self.survivors)

    def take(self, mutant, verdict):
        if mutant.is_control:
            self.controls += 1
            if verdict is not UNNOTICED:
                self.false_alarms.append(f"{mutant.source}: {verdict.phase}")
                print(f"noticed without a change: {self.false_alarms[-1]}\n{verdict.said}", flush=True)
        elif verdict is None:
            self.no_mutants += 1
        elif verdict is UNNOTICED:
            self.survivors.append(mutant)
            print(f"survived: {mutant}", flush=True)
        else:
            self.killers[verdict.phase] += 1

    def tell(self):
        on_terminal = sys.stderr.isatty()
        now = time.monotonic()
        if not self.judged or (now - self.told < REPORTS_EACH and not on_terminal):
            return
        self.told = now
        remain = (now - self.began) / self.judged * (self.wanted - self.judged)
        print(f"{self.judged} of {self.wanted} judged, {len(self.survivors)} survived, about {remain:.0f} s remain ",
              end="\r" if on_terminal else "\n", file=sys.stderr, flush=True)


def read_arguments():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("build", type=Path)
    parser.add_argument("--count", type=int, default=300)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=os.cpu_count() + 1, help="one more than cores: tests wait")
    parser.add_argument("--only", default="", help="only in sources whose path contains this")
    parser.add_argument("--report", type=Path, help="write the survivors and the figures here, as JSON")
    return parser.parse_args()


def candidates(workshop, only):
    for source in sorted(workshop.compile):
        if only in source:
            yield from mutants_of(Path(source))
            yield from statements_of(Path(source))


def run(workshop, arguments, tally):
    changes = list(candidates(workshop, arguments.only))
    drawn = random.Random(arguments.seed)
    drawn.shuffle(changes)
    print(f"{len(changes)} possible changes, {arguments.count} wanted, seed {arguments.seed}", flush=True)
    waiting = iter(changes)
    controls = [Mutant(drawn.choice(changes).source, 0, 0, 0, "", "") for _ in range(arguments.count // 10)]
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        pending = {}
        while True:
            is_due = len(controls) > 0 and tally.judged // 10 >= tally.controls
            if is_due and not any(one.is_control for one in pending.values()):
                control = controls.pop()
                pending[pool.submit(judge, workshop, control)] = control
            mutants = sum(not mutant.is_control for mutant in pending.values())
            for _ in range(min(arguments.jobs, tally.wanted - tally.judged) - mutants):
                mutant = next(waiting, None)
                if mutant is not None:
                    pending[pool.submit(judge, workshop, mutant)] = mutant
            if not pending:
                return
            done, _ = concurrent.futures.wait(pending, timeout=1, return_when=concurrent.futures.FIRST_COMPLETED)
            for future in done:
                tally.take(pending.pop(future), future.result())
            tally.tell()


def sums(counter):
    return ", ".join(f"{title} {count:.0f}" for title, count in counter.most_common()) or "nothing"


def report(arguments, workshop, tally):
    share = 100 * tally.killed / max(tally.judged, 1)
    print(f"killed by: {sums(tally.killers)}")
    print(f"seconds, {arguments.jobs} at a time: {sums(workshop.seconds)}")
    print(f"not counted: {tally.no_mutants} that cannot be built or compile to the same code")
    print(f"unchanged copies {tally.controls}, of which failed {len(tally.false_alarms)}")
    print(f"mutants {tally.judged}, killed {tally.killed} ({share:.1f} %), survived {len(tally.survivors)}, "
          f"took {time.monotonic() - tally.began:.0f} s")
    if arguments.report:
        arguments.report.write_text(json.dumps({"mutants": tally.judged, "killed": tally.killed,
                                                "seed": arguments.seed,
                                                "survivors": [str(one) for one in tally.survivors]}, indent=1) + "\n",
                                    encoding="utf-8")
    return 0 if tally.judged == tally.wanted and share >= GOAL and not tally.false_alarms else 1


def main():
    arguments = read_arguments()
    workshop, tally = Workshop(arguments.build.resolve()), Tally(arguments.count)
    try:
        run(workshop, arguments, tally)
    except RuntimeError as error:
        sys.exit(f"mutants: {error}")
    except KeyboardInterrupt:
        print("interrupted")
    return report(arguments, workshop, tally)


if __name__ == "__main__":
    sys.exit(main())
