#!/usr/bin/env python3
"""Changes one token of the relay at a time and asks the tests whether they notice.

Usage: mutants.py BUILD [--count N] [--seed N] [--jobs N] [--only SUBSTRING] [--report FILE]

BUILD is a configured build tree; its target relay_unit_tests holds all unit tests of the relay in one program. Each sampled
change is compiled from a copy, linked with the tests' objects and run; nothing in the source tree is touched. A
change that does not compile, or that compiles to the same code, is no mutant and another one is drawn. Survivors are given to the
simulation too, when the build has it. Exit status: 0 when at least 90 of 100 were killed.
"""

import argparse
import concurrent.futures
import json
import os
import random
import re
import shlex
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
ENGINE = Path("Center/INet_Relay/EPoll")
GOAL = 90  # of 100
SIMULATED = 3000  # schedules that a survivor has to pass

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


@dataclass(frozen=True)
class Mutant:
    source: str
    line: int
    start: int
    end: int
    before: str
    after: str

    def __str__(self):
        return f"{self.source}:{self.line}: {self.before} -> {self.after or '(nothing)'}"


def is_operator(text, match, line_text):
    """A sign between blanks is an operator here; the house's format sees to that. Templates and references have none."""
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
        elif match["sign"] is None or is_operator(text, match, lines[line - 1]):
            for after in SWAPS.get(token, ()):
                yield Mutant(source, line, match.start(), match.end(), token, after)


def statements_of(path):
    """A call that stands alone on its line, left out."""
    text = (ROOT / path).read_text(encoding="utf-8")
    offset = 0
    for number, line in enumerate(text.splitlines(keepends=True), 1):
        if re.fullmatch(r"\s+(?:::)?[a-z_][\w:>.()\[\]-]*\([^{}]*\);\n", line) and not line.lstrip().startswith("return"):
            body = line.strip()
            start = offset + line.index(body)
            yield Mutant(str(path), number, start, start + len(body), body, ";")
        offset += len(line)


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
        self.link = {name: self.link_command(name) for name in ("relay_unit_tests", "relay_simulation")}

    def link_command(self, target):
        result = subprocess.run(("ninja", "-C", str(self.build), "-t", "commands", target), capture_output=True, text=True)
        for line in reversed(result.stdout.splitlines()):
            if re.search(rf" -o \S*{target} ", line):
                return shlex.split(line.removeprefix(": && ").partition(" && ")[0])
        return None

    def object_of(self, source, command):
        return command[command.index("-o") + 1]

    def compile_to(self, source, text, folder):
        """The object of a changed source; None when it does not compile."""
        command = [part for part in self.compile[source] if not part.startswith("-Werror")]
        copy, result = folder / Path(source).name, folder / "changed.o"
        copy.write_text(text, encoding="utf-8")
        at = command.index("-c")
        command[command.index("-o") + 1] = str(result)
        command[at + 1] = str(copy)
        done = subprocess.run([*command, "-w"], cwd=self.build, capture_output=True)
        return result if done.returncode == 0 else None

    def link_to(self, target, source, changed, folder):
        command, result = list(self.link[target]), folder / target
        old = self.object_of(source, self.compile[source])
        command[command.index(old)] = str(changed)
        command[command.index("-o") + 1] = str(result)
        subprocess.run([*command, "-fuse-ld=gold"], cwd=self.build, check=True, capture_output=True)
        return result


def code_of(path):
    """The code and data of an object, without what names its source."""
    return subprocess.run(("objdump", "-d", "-s", "-r", "--no-show-raw-insn", "-j", ".text", "-j", ".rodata", "-j", ".data",
                           str(path)), capture_output=True, text=True).stdout.partition("\n\n")[2]


def survives(program, arguments, seconds):
    try:
        done = subprocess.run((str(program), *arguments), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              timeout=seconds, cwd=program.parent)
    except subprocess.TimeoutExpired:
        return False
    return done.returncode == 0


def judge(workshop, mutant, limit):
    """"killed", "survived", or None for a change that is no mutant."""
    text = (ROOT / mutant.source).read_text(encoding="utf-8")
    changed_text = text[:mutant.start] + mutant.after + text[mutant.end:]
    with tempfile.TemporaryDirectory(prefix="mutant-") as name:
        folder = Path(name)
        changed = workshop.compile_to(mutant.source, changed_text, folder)
        if changed is None:
            return None
        if code_of(changed) == code_of(workshop.build / workshop.object_of(mutant.source, workshop.compile[mutant.source])):
            return None
        program = workshop.link_to("relay_unit_tests", mutant.source, changed, folder)
        if not survives(program, ("--gtest_fail_fast", "--gtest_brief=1"), limit):
            return "killed"
        if workshop.link["relay_simulation"]:
            program = workshop.link_to("relay_simulation", mutant.source, changed, folder)
            if not survives(program, ("--count", str(SIMULATED)), limit):
                return "killed"
    return "survived"


def read_arguments():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("build", type=Path)
    parser.add_argument("--count", type=int, default=300)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--only", default="", help="only in sources whose path contains this")
    parser.add_argument("--report", type=Path, help="write the survivors and the figures here, as JSON")
    return parser.parse_args()


def prepare(build):
    subprocess.run(("cmake", "--build", str(build), "--target", "relay_unit_tests"), check=True, stdout=subprocess.DEVNULL)
    started = time.monotonic()
    program = next(build.rglob("relay_unit_tests"))
    if not survives(program, ("--gtest_brief=1",), 600):
        sys.exit("mutants: the tests fail without any change")
    return Workshop(build), 3 * (time.monotonic() - started) + 20


def run(arguments):
    workshop, limit = prepare(arguments.build.resolve())
    all_mutants = [mutant for source in sorted(workshop.compile) if arguments.only in source
                   for mutant in (*mutants_of(Path(source)), *statements_of(Path(source)))]
    random.Random(arguments.seed).shuffle(all_mutants)
    print(f"{len(all_mutants)} possible changes, {arguments.count} wanted, seed {arguments.seed}", flush=True)
    killed, survivors = 0, []
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        pending = {}
        waiting = iter(all_mutants)
        while killed + len(survivors) < arguments.count:
            while len(pending) < min(arguments.jobs, arguments.count - killed - len(survivors)):
                mutant = next(waiting, None)
                if mutant is None:
                    break
                pending[pool.submit(judge, workshop, mutant, limit)] = mutant
            if not pending:
                break
            done, _ = concurrent.futures.wait(pending, return_when=concurrent.futures.FIRST_COMPLETED)
            for future in done:
                mutant, verdict = pending.pop(future), future.result()
                killed += verdict == "killed"
                if verdict == "survived":
                    survivors.append(mutant)
                    print(f"survived: {mutant}", flush=True)
            if sys.stderr.isatty():
                print(f"\r{killed + len(survivors)}/{arguments.count}", end="", file=sys.stderr)
    return killed, survivors


def main():
    arguments = read_arguments()
    killed, survivors = run(arguments)
    judged = killed + len(survivors)
    share = 100 * killed / max(judged, 1)
    print(f"mutants {judged}, killed {killed} ({share:.1f} %), survived {len(survivors)}")
    if arguments.report:
        arguments.report.write_text(json.dumps({"mutants": judged, "killed": killed, "seed": arguments.seed,
                                                "survivors": [str(one) for one in survivors]}, indent=1) + "\n",
                                    encoding="utf-8")
    return 0 if judged and share >= GOAL else 1


if __name__ == "__main__":
    sys.exit(main())
