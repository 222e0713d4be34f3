#!/usr/bin/env python3
"""Reads back from binaries how they are hardened, and fails for each one that is not.

Usage: hardening.py BINARY...
       hardening.py --selftest COMPILER   builds a library without any of it and expects every complaint
"""

import re
import subprocess
import sys
import tempfile
from pathlib import Path

# Library functions that have a checked twin, as far as anything here would call them.
FORTIFIABLE = {
    "fprintf", "gethostname", "longjmp", "memcpy", "memmove", "memset", "poll", "printf", "read", "readlink",
    "recv", "recvfrom", "snprintf", "sprintf", "strcat", "strcpy", "strncat", "strncpy", "vfprintf", "vsnprintf",
}
# A call whose buffer the compiler knows nothing about stays as it is, also in a fortified build; so does the compiler's
# own copying. A binary counts as fortified when one call is checked, or nothing it calls could be.
PLAIN_COPIES = {"memcpy", "memmove", "memset", "poll", "read", "recv", "recvfrom"}


def readelf(option, path):
    return subprocess.run(("readelf", "-W", option, str(path)), check=True, capture_output=True, text=True).stdout


def imported(path):
    """Undefined names of the dynamic table, without their versions."""
    for line in readelf("--dyn-syms", path).splitlines():
        fields = line.split()
        if len(fields) >= 8 and fields[6] == "UND":
            yield fields[7].partition("@")[0]


def complaints(path):
    segments, dynamic, names = readelf("-l", path), readelf("-d", path), set(imported(path))
    header = readelf("-h", path)
    if "GNU_RELRO" not in segments:
        yield "no read-only relocations (RELRO)"
    if not re.search(r"\(FLAGS(_1)?\).*\bNOW\b|BIND_NOW", dynamic):
        yield "symbols are bound late (no BIND_NOW)"
    stack = re.search(r"GNU_STACK(?: +0x\w+){5} (?P<flags>[RWE ]+)0x", segments)
    if not stack or "E" in stack["flags"]:
        yield "the stack is executable"
    if not re.search(r"Type:\s+DYN", header):
        yield "not position-independent"
    if "__stack_chk_fail" not in names:
        yield "no stack canary"
    checked = {name for name in names if re.fullmatch(r"__\w+_chk", name) and name != "__stack_chk_fail"}
    open_calls = sorted(names & FORTIFIABLE - PLAIN_COPIES)
    if open_calls and not checked:
        yield "not fortified: " + ", ".join(open_calls)
    if re.search(r"\((RPATH|TEXTREL)\)", dynamic):
        yield "carries RPATH or text relocations"


WEAK_SOURCE = """
#include <cstdio>
extern "C" int shout(char const* text) { char room[64]; std::sprintf(room, "%s", text); return room[0]; }
extern "C" int main() { return shout("x"); }
"""
EXPECTED = ("RELRO", "BIND_NOW", "stack is executable", "position-independent", "canary", "fortified")


def selftest(compiler):
    with tempfile.TemporaryDirectory() as folder:
        source, weak = Path(folder, "weak.cpp"), Path(folder, "weak")
        source.write_text(WEAK_SOURCE, encoding="utf-8")
        subprocess.run((compiler, "-O1", "-fno-stack-protector", "-U_FORTIFY_SOURCE", "-fno-pie", "-no-pie",
                        "-Wl,-z,norelro", "-Wl,-z,lazy", "-Wl,-z,execstack", str(source), "-o", str(weak)), check=True)
        found = list(complaints(weak))
    missing = [word for word in EXPECTED if not any(word in line for line in found)]
    print("\n".join(found))
    return [f"a binary without it brought no complaint about: {word}" for word in missing]


def main(arguments):
    if arguments[:1] == ["--selftest"]:
        failures = selftest(arguments[1])
    else:
        failures = [f"{path}: {line}" for path in arguments for line in complaints(path)]
    print("\n".join(failures) if failures else f"{len(arguments)} binaries: nothing to complain about")
    return 1 if failures or not arguments else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
