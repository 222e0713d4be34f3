"""docs/wireshark.md: its commands run, what it shows is what they print, and its filters are those of the script."""

import os
import re
import subprocess
import tempfile
import unittest

import dissection

PAGE = (dissection.ROOT / "docs/wireshark.md").read_text(encoding="utf-8")


def blocks(language):
    return re.findall(rf"^```{language}\n(.*?)^```$", PAGE, re.MULTILINE | re.DOTALL)


class Page(unittest.TestCase):
    def run_block(self, text):
        """Its output, with a home of its own and from the root of the tree."""
        home, empty = (self.enterContext(tempfile.TemporaryDirectory()) for _ in range(2))
        environment = dict(os.environ, HOME=home, XDG_CONFIG_HOME=empty, WIRESHARK_PLUGIN_DIR=empty, LC_ALL="C.UTF-8", TZ="UTC")
        result = subprocess.run(["bash", "-e", "-c", text], cwd=dissection.ROOT, env=environment, capture_output=True,
                                text=True, timeout=dissection.DEADLINE, check=False)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertNotIn("Lua", result.stderr)
        return result.stdout

    def test_shows_what_its_first_command_prints(self):
        self.assertEqual(blocks("text"), [self.run_block(blocks("sh")[0])])

    def test_installs_the_script_for_one_user(self):
        _, install = blocks("sh")
        self.assertEqual(self.run_block(install), "42\t0x40000001\n")

    def test_lists_what_is_marked(self):
        known = {}
        for line in dissection.run_tshark("-G", "fields").splitlines():
            kind, title, name, *rest = line.split("\t")
            if kind == "F" and name.startswith("zolt."):
                known[name] = title if rest[0] == "FT_NONE" else None
        marked = {name: title for name, title in known.items() if title and name != "zolt.block"}
        self.assertEqual(dict(re.findall(r"^\| `(zolt\.\w+)` \| (.*) \|$", PAGE, re.MULTILINE)), marked)
        self.assertEqual(set(re.findall(r"`(zolt\.[\w.]+)`", PAGE)) - set(known) - {"zolt.ports", "zolt.largest_data"}, set())


if __name__ == "__main__":
    dissection.main()
