#!/usr/bin/env python3
"""Checks the house rules that a compiler does not know. Usage: house_rules.py ROOT"""

import re
import sys
from pathlib import Path

import tree

RELAY = "Center/INet_Relay/EPoll"
RELAY_SOURCES = {f"{name}.cpp" for name in (
    "inet_relay_epoll", "epoll", "epoll_thread_tcp_init", "epoll_thread_tcp_recv", "epoll_thread_tcp_send",
    "epoll_thread_udp_recv", "epoll_thread_udp_send", "epoll_tcp_method", "epoll_tcp_method_client",
    "epoll_tcp_method_server", "epoll_udp_method")}
RELAY_HEADERS = {f"{name}.hpp" for name in (
    "inet_relay_epoll", "epoll", "epoll_overlapped", "epoll_trace", "epoll_thread", "epoll_tcp_method",
    "epoll_tcp_method_client", "epoll_tcp_method_server", "epoll_udp_method")}
RELAY_BUILD_FILES = {"CMakeLists.txt", "inet_relay.map"}
HOST_HEADERS = {"zolt_packet.hpp", "zolt_global.hpp", "tesk_os.hpp", "tesk_utility.hpp", "tesk_inet.hpp",
                "lock_annotations.hpp"}

LONGEST_FUNCTION = 60
MOST_BRANCHES = 10
LONGEST_FILE = {"tests": 1000, "bench": 1000}
LONGEST_SHIPPED_FILE = 550
# The relay's sources are eleven for good; what both sides of TCP share stands in one of them.
LONGER_FILES = {f"{RELAY}/epoll_tcp_method.cpp": 850}
TEXT_SUFFIXES = {".hpp", ".cpp", ".py", ".txt", ".md", ".cmake", ".json", ".ini", ".map", ".sh", ""}

# The engine has an accept and a send_udp of its own; they are not in this list of what the kernel offers.
SYSTEM_CALLS = re.compile(
    r"(?<![\w:.>])(socket|bind|listen|connect|getsockname|getpeername|setsockopt|getsockopt|send|recv|sendto|recvfrom|"
    r"sendmsg|recvmsg|shutdown|close|epoll_create1|epoll_ctl|epoll_wait|fcntl|ioctl|read|write|fflush|"
    r"pthread_sigmask|sigemptyset|sigaddset|sigfillset)\s*\(")
FIXED_WAIT = re.compile(r"\bsleep_for\b|\bsleep_until\b|\busleep\b|(?<![\w.])sleep\s*\(|\btime\.sleep\b")
FENCED = re.compile(r"^```.*?^```$", re.MULTILINE | re.DOTALL)
BRANCH = re.compile(r"\b(?:if|for|while|catch)\b|&&|\|\||\?")

# What stands in front of the brace that opens a function's body, after its parameters.
FUNCTION_HEAD = re.compile(
    r"\)\s*(?:const|noexcept|override|final|mutable|->[\w:<>*&\s]+|HOST_\w+\s*(?:\([^()]*(?:\([^()]*\))?[^()]*\))?|"
    r":\s*[\w:]+[^;]*|\s)*$")
NOT_A_FUNCTION = re.compile(r"\b(?:namespace|class|struct|enum|union|extern)\b[^()]*$|=\s*$")


def listing(root, folder, allowed):
    here = Path(root) / folder
    present = {path.name for path in here.iterdir()}
    for name in sorted(present - allowed):
        yield f"{folder}/{name}: does not belong into this folder"
    for name in sorted(allowed - present):
        yield f"{folder}/{name}: is missing"


def folders(root):
    yield from listing(root, RELAY, RELAY_SOURCES | RELAY_HEADERS | RELAY_BUILD_FILES)
    yield from listing(root, "Host", HOST_HEADERS)


def system_calls(path, text):
    """System calls of the relay are written with a leading ::, so that one sees where the kernel is entered."""
    if path.parent.as_posix() == RELAY and path.suffix == ".cpp":
        for match in SYSTEM_CALLS.finditer(text):
            yield f"{path}:{tree.line_of(text, match.start())}: write ::{match[1]}"


def fixed_waits(path, text):
    if path.parts[0] in ("tests", "bench"):
        for match in FIXED_WAIT.finditer(text):
            yield f"{path}:{tree.line_of(text, match.start())}: waits for a fixed time; wait for a condition"


def closing_brace(text, opening):
    depth = 0
    for match in re.compile(r"[{}]").finditer(text, opening):
        depth += 1 if match.group() == "{" else -1
        if depth == 0:
            return match.end()
    return len(text)


def end_of_body(text, opening):
    """Where the body that begins at a brace ends; braces of a constructor's initialisers come before the body."""
    end = closing_brace(text, opening)
    while (match := re.compile(r"\s*(?:,[^{};]*)?{").match(text, end)) is not None:
        end = closing_brace(text, match.end() - 1)
    return end


def functions(text):
    """Each function's (start, end) in a text without comments and strings; a lambda counts to its function."""
    text = re.sub(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", lambda match: re.sub(r"[^\n]", " ", match.group()), text,
                  flags=re.MULTILINE)
    position = head = 0
    while (match := re.compile(r"[{};]").search(text, position)) is not None:
        front = text[head:match.start()]
        position = match.end()
        if match.group() == "{" and FUNCTION_HEAD.search(front) and not NOT_A_FUNCTION.search(front):
            end = end_of_body(text, match.start())
            yield head + len(front) - len(front.lstrip()), end
            position = end
        elif match.group() == "{" and front.rstrip().endswith(("=", ",", "(", "return")):
            position = closing_brace(text, match.start())
        head = position


def function_sizes(path, text):
    for start, end in functions(text):
        body = text[start:end]
        lines = body.count("\n") + 1
        branches = 1 + len(BRANCH.findall(body))
        where = f"{path}:{tree.line_of(text, start)}"
        if lines > LONGEST_FUNCTION:
            yield f"{where}: a function of {lines} lines, at most {LONGEST_FUNCTION}"
        if branches > MOST_BRANCHES and path.parts[0] in ("Center", "Reference_Host", "Reference_Center"):
            yield f"{where}: a function with complexity {branches}, at most {MOST_BRANCHES}"


def file_size(path, text):
    lines = text.count("\n")
    most = LONGER_FILES.get(path.as_posix(), LONGEST_FILE.get(path.parts[0], LONGEST_SHIPPED_FILE))
    if lines > most:
        yield f"{path}: {lines} lines, at most {most}"


def words(root):
    """Words that may stand nowhere, in any text file of the tree."""
    rows = [line.split("\t") for line in tree.read(root, "tests/ledger/words.txt").splitlines()
            if line and not line.startswith("#")]
    rules = [(re.compile(pattern, re.MULTILINE), reason) for pattern, reason in rows]
    unread = {Path("tests/ledger/words.txt"), Path("tests/ledger/selftest.py")}
    for path in sorted(Path(root).rglob("*")):
        name = path.relative_to(root)
        if name.parts[0] in (".git", "build") or name in unread or "__pycache__" in name.parts:
            continue
        if path.is_file() and path.suffix in TEXT_SUFFIXES:
            text = path.read_text(encoding="utf-8", errors="replace")
            for pattern, reason in rules:
                for match in pattern.finditer(text):
                    yield f"{name}:{tree.line_of(text, match.start())}: \"{match.group().strip()}\": {reason}"


def documents(root):
    """Cited decisions have an entry, and links in documents lead somewhere."""
    root = Path(root)
    decisions = root / "docs/decisions.md"
    text = decisions.read_text(encoding="utf-8") if decisions.exists() else ""
    entries = re.findall(r"^(\d+)\. ", text, re.MULTILINE)
    pages = [path.relative_to(root) for path in [*root.glob("*.md"), *root.glob("docs/*.md")]]
    sources = [*tree.cpp_files(root), *pages]
    for path in sources:
        text = tree.read(root, path)
        for match in re.finditer(r"\b[Dd]ecision (\d+)\b", text):
            if match[1] not in entries:
                yield f"{path}:{tree.line_of(text, match.start())}: docs/decisions.md has no entry {match[1]}"
        prose = FENCED.sub(lambda block: re.sub(r"[^\n]", " ", block.group()), text)
        for match in re.finditer(r"\]\(([^)#:]+)(?:#[^)]*)?\)", prose) if path.suffix == ".md" else ():
            if not (root / path.parent / match[1]).exists():
                yield f"{path}:{tree.line_of(text, match.start())}: {match[1]} is not there"


def findings(root):
    yield from folders(root)
    for path in tree.cpp_files(root):
        text = tree.without_comments(tree.read(root, path))
        for rule in (system_calls, fixed_waits, function_sizes, file_size):
            yield from rule(path, text)
    for path in sorted((Path(root) / "tests").rglob("*.py")):
        if path.name not in ("house_rules.py", "selftest.py"):
            yield from fixed_waits(path.relative_to(root), path.read_text(encoding="utf-8"))
    yield from words(root)
    yield from documents(root)


if __name__ == "__main__":
    tree.report("house rules", list(findings(sys.argv[1])))
