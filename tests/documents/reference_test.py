#!/usr/bin/env python3
"""The API reference: built without a warning, with every operation in it, and not built when a comment is missing.

Usage: reference_test.py ROOT [UNITTEST ARGUMENT...]
"""

import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(sys.argv.pop(1)).resolve()
RELAY = "Center/INet_Relay/EPoll/inet_relay_epoll.hpp"


class Reference(unittest.TestCase):
    def setUp(self):
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def build(self, root):
        """Doxygen's exit code and what it printed; its output goes to this test's folder."""
        settings = f"@INCLUDE = docs/Doxyfile\nOUTPUT_DIRECTORY = {self.folder}\n"
        result = subprocess.run(["doxygen", "-"], input=settings, cwd=root, capture_output=True, text=True, check=False)
        return result.returncode, result.stdout + result.stderr

    def test_is_built_without_a_warning(self):
        self.assertEqual(self.build(ROOT), (0, ""))
        pages = "".join(path.read_text(encoding="utf-8") for path in (self.folder / "html").glob("*.html"))
        text, _ = (ROOT / RELAY).read_text(encoding="utf-8").split("namespace EPoll {")
        operations = re.findall(r"^(?:int|void|unsigned short) (\w+)\(", text, re.MULTILINE)
        self.assertEqual(len(operations), 14)
        for name in (*operations, "send_zolt_center", "backward_error_switch", "proc_destroy", "make_packet", "take"):
            with self.subTest(name):
                self.assertRegex(pages, rf">{name}</a>")

    def test_is_not_built_when_a_comment_is_missing(self):
        for folder in ("Host", "Reference_Host", "Center", "docs"):
            shutil.copytree(ROOT / folder, self.folder / "tree" / folder)
        header = self.folder / "tree" / RELAY
        text = header.read_text(encoding="utf-8")
        comment = "/// Starts the five event threads and the timer. Result: 0, also when one could not be started.\n"
        self.assertIn(comment, text)
        header.write_text(text.replace(comment, "\n"), encoding="utf-8")
        code, said = self.build(self.folder / "tree")
        self.assertNotEqual(code, 0)
        self.assertIn("Member start()", said)


if __name__ == "__main__":
    unittest.main()
