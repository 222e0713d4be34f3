"""docs/configuration.md against zolt-center: its nine keys, their defaults and effects, and how values are read.

Usage: configuration_test.py CENTER [UNITTEST ARGUMENT...]
"""

import json
import re
import tempfile
import unittest
from pathlib import Path

import center_support as support
import pages

PAGE = "docs/configuration.md"
SHIPPED = pages.ROOT / "Config/zolt.ini"


class Configuration(unittest.TestCase):
    def show(self, text):
        """What the relay makes of that text below the section's head: each key's row."""
        with tempfile.TemporaryDirectory() as folder:
            file = Path(folder) / "zolt.ini"
            file.write_text("[ZOLT]\n" + text, encoding="utf-8")
            result = support.call("config", "show", "--json", file)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        return {row["key"]: row for row in json.loads(result.stdout)["keys"]}

    def test_keys_are_those_of_the_program(self):
        by_default = self.show("")
        numbers = [key for key, row in by_default.items() if row["default"].isdigit()]
        switched_off = self.show("".join(f"{key} = no\n" for key in by_default if key not in numbers))
        switched_on = self.show("".join(f"{key} = yes\n" for key in by_default if key not in numbers))
        wanted = [[f"`{key}`", row["default"], switched_on[key]["effect"],
                   "" if key in numbers or not row["has_effect"] else switched_off[key]["effect"]]
                  for key, row in by_default.items()]
        self.assertEqual(len(wanted), 9)
        self.assertEqual(pages.table(PAGE, ["key", "default", "effect", "with `no`"]), wanted)

    def test_defaults_are_those_of_the_shipped_file(self):
        shipped = re.findall(r"^(\w+) = (\w+)$", SHIPPED.read_text(encoding="utf-8"), re.MULTILINE)
        rows = pages.table(PAGE, ["key", "default", "effect", "with `no`"])
        self.assertEqual([(row[0].strip("`"), row[1]) for row in rows], shipped)

    def test_values_are_read_as_the_page_says(self):
        rows = pages.table(PAGE, ["written", "counts as"])
        self.assertGreater(len(rows), 8)
        for written, meaning in rows:
            with self.subTest(written):
                lines = written.strip("`").replace("` then `", "\n")
                key = re.match(r"\w+", lines)[0].upper()
                self.assertEqual(self.show(lines + "\n")[key]["value"], meaning.strip("`"))


if __name__ == "__main__":
    support.main()
