#!/usr/bin/env python3
"""Holds the Debian packages' own files against the tree: versions, licences, what a package names.

Usage: debian_test.py SOURCE VERSION [UNITTEST ARGUMENT...]
"""

import fnmatch
import re
import sys
import unittest
from pathlib import Path

SOURCE, VERSION = Path(sys.argv.pop(1)), sys.argv.pop(1)
DEBIAN = SOURCE / "packaging/debian"
VENDORED = SOURCE / "Reference_Center/page/vendor"


def read(path):
    return path.read_text(encoding="utf-8")


def paragraphs(text):
    """The fields of each paragraph; a value without its indentation, on one line."""
    for paragraph in re.split(r"\n\n+", text.strip()):
        fields = re.findall(r"^([\w-]+):(.*(?:\n[ \t].*)*)", paragraph, re.MULTILINE)
        yield {name: " ".join(value.split()) for name, value in fields}


def permission(text):
    """What a licence allows, without its title and its holder."""
    return " ".join(text[text.index("Permission is hereby"):].replace("\n .\n", "\n").split())


class Debian(unittest.TestCase):
    def test_versions(self):
        self.assertEqual(re.match(r"inet-relay \((.+)\) ", read(DEBIAN / "changelog"))[1], VERSION)
        # The engine's symbols may change with any release: whoever uses them needs exactly this one.
        self.assertIn(f"| libinet-relay1 (= {VERSION})", read(DEBIAN / "libinet-relay1.symbols").splitlines())

    def test_licences(self):
        entries = [entry for entry in paragraphs(read(DEBIAN / "copyright")) if "Files" in entry]
        for path in (SOURCE / "LICENSE", *VENDORED.glob("*LICENSE*")):
            with self.subTest(path.name):
                self.assertEqual(permission(read(DEBIAN / "copyright")), permission(read(path)))
                holder = re.search(r"^Copyright \(c\) (.+)$", read(path), re.MULTILINE)[1]
                self.assertIn(holder, [entry["Copyright"] for entry in entries])

    def test_vendored_files_have_an_entry(self):
        patterns = [pattern for entry in paragraphs(read(DEBIAN / "copyright")) for pattern in entry.get("Files", "*").split()]
        vendored = [path for path in VENDORED.rglob("*") if path.is_file() and path.name != "README.md"]
        self.assertGreaterEqual(len(vendored), 3)
        for path in vendored:
            name = path.relative_to(SOURCE).as_posix()
            self.assertTrue(any(fnmatch.fnmatch(name, pattern) for pattern in patterns if pattern != "*"), name)

    def test_files_of_the_tree_are_there(self):
        named = [line.split()[0] for path in DEBIAN.glob("*.*") if path.suffix in (".install", ".docs", ".examples")
                 for line in read(path).splitlines()]
        own = [name for name in named if not name.startswith("usr/")]
        self.assertGreaterEqual(len(own), 8)
        for name in own:
            self.assertTrue((SOURCE / name).is_file(), name)


if __name__ == "__main__":
    unittest.main()
