#!/usr/bin/env python3
"""Makes the manual pages and holds them against what the program prints, and against man's own judgement.

Usage: manual_test.py SOURCE PROGRAM [UNITTEST ARGUMENT...]
"""

import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCE, PROGRAM = Path(sys.argv.pop(1)), sys.argv.pop(1)
sys.path.insert(0, str(SOURCE / "packaging/manual"))
import make_pages  # noqa: E402  (only now it can be found)


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=60, **options)


def help_of(*command):
    return run(PROGRAM, *command, "--help").stdout


def commands_of(text):
    """The names in the list of commands that a help ends with."""
    return re.findall(r"^  ([a-z][\w-]*) ", text.partition("Subcommands:\n")[2], re.MULTILINE)


def options_of(text):
    return set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", text.partition("Options:\n")[2]))


class Manual(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        make_pages.main(PROGRAM, SOURCE, cls.folder)

    def show(self, page):
        """The page as man shows it, and what man says against it."""
        result = run("man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", str(self.folder / page),
                     env={**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "110", "MAN_KEEP_FORMATTING": "", "MANROFFOPT": ""})
        # Bold and italic are letters written twice; a hyphen at the end of a line was put there by man.
        return re.sub("\u2010\n *", "", re.sub(".\x08", "", result.stdout)), result.stderr

    def test_no_warning(self):
        pages = sorted(path.name for path in self.folder.iterdir())
        self.assertGreaterEqual(len(pages), 10)
        for page in pages:
            with self.subTest(page):
                self.assertEqual(self.show(page)[1], "")

    def test_man_does_warn(self):
        (self.folder / "odd.1").write_text('.TH ODD 1\n.SH NAME\nodd \\- \\[nothing_of_that_name]\n', encoding="utf-8")
        self.assertIn("nothing_of_that_name", self.show("odd.1")[1])
        (self.folder / "odd.1").unlink()

    def test_every_command_and_option_has_its_place(self):
        commands = commands_of(help_of())
        self.assertIn("run", commands)
        for command in commands:
            text = help_of(command)
            below = [help_of(command, name) for name in commands_of(text)]
            wanted = set().union(*map(options_of, (text, *below)))
            self.assertIn("--help", wanted)
            shown = self.show(f"zolt-center-{command}.1")[0]
            for option in wanted:
                with self.subTest(command=command, option=option):
                    self.assertRegex(shown, rf"(?m)^       .*(?<![\w-]){option}(?![\w-])")
            self.assertIn(command, self.show("zolt-center.1")[0])

    def test_every_key(self):
        shown = self.show("zolt.ini.5")[0]
        keys = re.findall(r"^(\w+ = \w+)$", (SOURCE / "Config/zolt.ini").read_text(encoding="utf-8"), re.MULTILINE)
        self.assertEqual(len(keys), 9)
        for key in keys:
            self.assertRegex(shown, rf"(?m)^       {key}$")

    def test_every_message(self):
        shown = self.show("zolt-messages.7")[0]
        table = (SOURCE / "Reference_Center/messages.txt").read_text(encoding="utf-8")
        codes = re.findall(r"^\[(.+)\]$", table, re.MULTILINE)
        self.assertGreater(len(codes), 100)
        for code in codes:
            self.assertRegex(shown, rf"(?m)^       {re.escape(code)}( |$)")

    def test_every_operation(self):
        shown = " ".join(self.show("inet_relay.3")[0].split())
        text = (SOURCE / "tests/ledger/symbols.txt").read_text(encoding="utf-8")
        names = set(re.findall(r"^Zolt::Center::INet_Relay::(\w+)\(", text, re.MULTILINE))
        self.assertGreaterEqual(len(names), 14)
        for name in names | {"clear_leftovers"}:
            self.assertRegex(shown, rf"\w {name}\([^)]*\);")

    def test_parts_belong_to_pages(self):
        for part in make_pages.PARTS.iterdir():
            self.assertTrue((self.folder / part.stem).exists(), part)


if __name__ == "__main__":
    unittest.main()
