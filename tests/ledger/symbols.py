#!/usr/bin/env python3
"""Compares the built library's symbols and needed libraries with symbols.txt.

Usage: symbols.py LEDGER LIBRARY OBJECT... [--shared]
With --shared it prints the engine's names that no fixed list holds, source by source, ready for the ledger.
"""

import re
import subprocess
import sys
from pathlib import Path

NODES = {"public": "INET_RELAY_1", "reached": "INET_RELAY_1", "engine": "INET_RELAY_PRIVATE", "shared": "INET_RELAY_PRIVATE"}
RUNTIME_VERSIONS = ("GLIBCXX_", "CXXABI_", "GCC_")
SECTION = re.compile(r"^\[(?P<kind>\w+)(?: (?P<source>\w+))?\]$")


def read_ledger(path):
    """The ledger as {(kind, source or None): set of names}."""
    sections, current = {}, None
    for line in Path(path).read_text(encoding="utf-8").splitlines():
        if match := SECTION.match(line):
            current = sections.setdefault((match["kind"], match["source"]), set())
        elif line and not line.startswith("#"):
            current.add(line)
    return sections


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()


def nm(*arguments):
    """(kind, name) of each line of nm's output."""
    for line in run("nm", "-C", *arguments):
        if match := re.match(r"[0-9a-f ]{16} (\w) (.+)$", line):
            yield match.group(1), match.group(2)


def defined_in_object(path):
    """Strong names of one object; inline ones are the compiler's to emit or not."""
    return {name for kind, name in nm("--defined-only", "--extern-only", path) if kind in "TBDR"}


def split_version(name):
    """A name of the dynamic table and its version; a name without one has the version ''."""
    bare, _, version = name.rpartition("@")
    return (bare.rstrip("@"), version) if bare else (name, "")


def dynamic(library, kinds):
    return {split_version(name) for kind, name in nm("-D", "--with-symbol-versions", library) if kind in kinds}


def differences(what, expected, found):
    yield from (f"{what}: {name}: in the ledger, not in the library" for name in sorted(expected - found))
    yield from (f"{what}: {name}: in the library, not in the ledger" for name in sorted(found - expected))


def check_defined(ledger, library, objects):
    """Each source defines what the ledger says, and the library shows it under the right version node."""
    for source, found in objects.items():
        expected = set().union(*(ledger.get((kind, source), set()) for kind in NODES))
        yield from differences(source, expected, found)
    exported = dynamic(library, "TBDR") - {(node, node) for node in NODES.values()}
    for kind, node in NODES.items():
        expected = set().union(*(names for (section, _), names in ledger.items() if section == kind))
        found = {name for name, version in exported if version == node}
        yield from (f"{name}: is not in the library under {node}" for name in sorted(expected - found))
    listed = set().union(*(names for (section, _), names in ledger.items() if section in NODES))
    yield from (f"{name}: in the library, not in the ledger" for name, _ in sorted(exported) if name not in listed
                and name not in NODES.values())


def check_undefined(ledger, library):
    """The host's operations exactly, the C library's from a list, the C++ runtime's as they come."""
    undefined = dynamic(library, "U")
    yield from differences("host", ledger[("host", None)], {name for name, version in undefined if version == ""})
    for name, version in sorted(undefined):
        if version and not version.startswith(RUNTIME_VERSIONS) and name not in ledger[("system", None)]:
            yield f"{name}@{version}: the relay may not ask for this"


def check_needed(ledger, library):
    needed = {match.group(1) for line in run("readelf", "-d", library)
              if (match := re.search(r"\(NEEDED\).*\[(.+)\]", line))}
    return (f"{name}: the library may not need this" for name in sorted(needed - ledger[("needed", None)]))


def print_shared(ledger, objects):
    for source, found in objects.items():
        fixed = set().union(*(ledger.get((kind, source), set()) for kind in NODES if kind != "shared"))
        if shared := sorted(found - fixed):
            print(f"[shared {source}]", *shared, sep="\n", end="\n\n")


def main():
    arguments = [argument for argument in sys.argv[1:] if argument != "--shared"]
    ledger = read_ledger(arguments[0])
    objects = {Path(path).name.split(".")[0]: defined_in_object(path) for path in arguments[2:]}
    if "--shared" in sys.argv:
        return print_shared(ledger, objects)
    findings = [*check_defined(ledger, arguments[1], objects), *check_undefined(ledger, arguments[1]),
                *check_needed(ledger, arguments[1])]
    print(*findings, f"symbols: {len(findings)} finding(s)", sep="\n")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
