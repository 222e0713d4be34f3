#!/usr/bin/env python3
"""Compares the binary interface of the built libraries with what is kept in tests/packages/abi/: the symbols that the
installed headers name, and the types that they define. An incompatible change needs another SONAME; a compatible one needs
the kept files written anew.

Usage: abi_test.py BUILD LIBRARY... [--renew]
"""

import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

KEPT = Path(__file__).resolve().parent / "abi"
RENEW = "--renew" in sys.argv
ARGUMENTS = [argument for argument in sys.argv[1:] if argument != "--renew"]
BUILD, LIBRARIES = Path(ARGUMENTS[0]), [Path(argument) for argument in ARGUMENTS[1:]]
# Of the C++ library's types and the engine's only the names count: what is inside is theirs.
LEFT_OUT = """
[suppress_type]
  name_regexp = ^(std|__gnu_cxx)::
  drop = yes
[suppress_type]
  name_regexp = ^Zolt::Center::INet_Relay::EPoll::
  drop = yes
"""
OPTIONS = ("--drop-private-types", "--exported-interfaces-only", "--no-corpus-path", "--no-comp-dir-path", "--no-show-locs",
           "--no-parameter-names", "--no-elf-needed", "--type-id-style", "hash")


def run(*command):
    return subprocess.run([str(word) for word in command], check=True, capture_output=True, text=True).stdout


def symbols_of_headers(library, headers):
    """Mangled names of the symbols whose own name stands in an installed header; of the engine, whose it names as such."""
    words = set()
    for header in headers.rglob("*.hpp"):
        text = re.sub("//.*", "", header.read_text(encoding="utf-8"))
        words.update(re.findall(r"\w+", text), re.findall(r"EPoll::\w+", text))
    for line in run("nm", "-D", "--defined-only", library).splitlines():
        mangled, _, version = line.split()[2].partition("@@")
        plain = run("c++filt", mangled).strip().partition("(")[0].partition("[")[0]
        name = plain.rpartition("::")[2].lstrip("~")
        if version and (f"EPoll::{name}" if "::EPoll::" in plain else name) in words:
            yield mangled


def describe(library, headers, folder):
    """The library's interface as XML."""
    left_out, shown = folder / "left_out.ini", folder / "shown.ini"
    left_out.write_text(LEFT_OUT, encoding="utf-8")
    names = "".join(f"  {name}\n" for name in symbols_of_headers(library, headers))
    shown.write_text(f"[abi_whitelist]\n{names}", encoding="utf-8")
    text = run("abidw", *OPTIONS, "--headers-dir", headers, "--suppr", left_out, "--kmi-whitelist", shown, library)
    return re.sub(r"path='[^']*/", "path='", text)


def differences(kept, found, *options):
    """What abidiff tells; nothing when there is none."""
    result = subprocess.run(("abidiff", *options, str(kept), str(found)), check=False, capture_output=True, text=True)
    return f"{result.stdout}{result.stderr}" if result.returncode else ""


def incompatibilities(kept, found):
    """What is not an addition: a program that was built before may not work any more."""
    return differences(kept, found, "--no-added-syms")


class Interface(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        run("cmake", "--install", BUILD, "--component", "headers", "--prefix", cls.folder)
        cls.found = {}
        for library in LIBRARIES:
            name = library.name.partition(".")[0]
            cls.found[name] = cls.folder / f"{name}.xml"
            cls.found[name].write_text(describe(library, cls.folder / "include/inet_relay", cls.folder), encoding="utf-8")

    def test_nothing_changed(self):
        for name, found in self.found.items():
            with self.subTest(name):
                kept = KEPT / found.name
                self.assertEqual(incompatibilities(kept, found), "", "undo this, or raise the SONAME")
                self.assertEqual(differences(kept, found), "", "additions: build the target abi_baseline, commit its files")

    def changed(self, pattern, replacement):
        """The reference host's interface as it is kept, with one change."""
        text = (KEPT / "libzolt_reference_host.xml").read_text(encoding="utf-8")
        other, times = re.subn(pattern, replacement, text, count=1, flags=re.DOTALL)
        self.assertEqual(times, 1, pattern)
        path = self.folder / "changed.xml"
        path.write_text(other, encoding="utf-8")
        return path

    def test_changes_are_told_apart(self):
        found = self.found["libzolt_reference_host"]
        moved = self.changed(r"(name='packet_plan' size-in-bits=.*?layout-offset-in-bits=')32'", r"\g<1>64'")
        self.assertIn("offset changed", incompatibilities(moved, found))
        self.assertIn("1 Removed", incompatibilities(self.changed("drain_outputE", "drain_inputE"), found))
        added = self.changed(r"    <elf-symbol name='[^']*' [^>]*/>\n", "")
        self.assertEqual(incompatibilities(added, found), "")
        self.assertIn("1 Added", differences(added, found))


def renew():
    Interface.setUpClass()
    KEPT.mkdir(exist_ok=True)
    for found in Interface.found.values():
        (KEPT / found.name).write_bytes(found.read_bytes())
    Interface.doClassCleanups()


if __name__ == "__main__":
    if RENEW:
        renew()
    else:
        unittest.main(argv=sys.argv[:1])
