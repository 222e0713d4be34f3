"""The dissector's table of fields against the code that it is made from, and the fields that tshark knows by then.

Usage: layout_test.py PRINTER [UNITTEST ARGUMENT...], or layout_test.py PRINTER --write to bring the table up to date.
"""

import re
import subprocess
import sys
import unittest

import dissection

BEGIN = "-- Made from Reference_Host/packet_layout.hpp by tests/dissector/layout_test.py --write; do not edit.\n"
END = "-- End of what is made.\n"
PRINTER = sys.argv.pop(1)
TYPES = {1: "FT_UINT8", 2: "FT_UINT16", 4: "FT_UINT32", 8: "FT_UINT64"}


def printed():
    return subprocess.run([PRINTER], capture_output=True, text=True, timeout=dissection.DEADLINE, check=True).stdout


def parts_of_script():
    """Before the made part, the part itself, and the rest."""
    before, rest = dissection.SCRIPT.read_text(encoding="utf-8").split(BEGIN)
    made, after = rest.split(END)
    return before, made, after


def document_rows(head):
    lines = (dissection.ROOT / "docs/wire-format.md").read_text(encoding="utf-8").splitlines()
    start = lines.index(head) + 2
    end = next(number for number, line in enumerate(lines) if number >= start and not line.startswith("|"))
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in lines[start:end]]


class Layout(unittest.TestCase):
    def test_in_the_script_is_that_of_the_code(self):
        self.assertEqual(parts_of_script()[1], printed())

    def test_has_a_name_for_each_documented_error(self):
        named = re.findall(r"\[(0x[0-9A-F]{8})\] = ", parts_of_script()[1])
        self.assertEqual(named, [code for code, _ in document_rows("| code | meaning |")])

    def test_is_what_can_be_filtered(self):
        known = {}
        for line in dissection.run_tshark("-G", "fields").splitlines():
            kind, _, name, *rest = line.split("\t")
            if kind == "F" and name.startswith("zolt."):
                known[name] = (rest[0], rest[-1])
        for _, size, name, meaning in document_rows("| offset | size | field | meaning |"):
            expected = "FT_IPv4" if name.endswith("_ip") else TYPES[int(size)]
            self.assertEqual(known.get(f"zolt.{name}"), (expected, meaning))


if __name__ == "__main__":
    if sys.argv[1:] == ["--write"]:
        first, _, last = parts_of_script()
        dissection.SCRIPT.write_text(first + BEGIN + printed() + END + last, encoding="utf-8")
    else:
        dissection.main()
