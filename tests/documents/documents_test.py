"""Every shell block of README and the guides is run as a reader would type it, in the order of the page; every link
leads somewhere; every piece of C++ stands in a file that is compiled.

Usage: documents_test.py CENTER [UNITTEST ARGUMENT...], with BUILD_FOLDER in the environment.
"""

import os
import re
import select
import signal
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

import center_support as support
import pages

# The guides, and how many of their shell blocks are not run: each says so in its first line.
GUIDES = {"README.md": 0, "docs/embed.md": 0, "docs/run-a-center.md": 4, "docs/configuration.md": 0,
          "docs/troubleshooting.md": 0, "docs/faq.md": 0}
LANGUAGES = {"sh", "text", "cpp", "cmake", "ini"}
NOT_RUN = re.compile(r"# (?:as root|with a service manager): \S.*\n")
WORKSHOP = re.compile(r"\./dev (?P<command>\w+)")
SOURCES = ("examples", "Host", "Reference_Host", "Center/INet_Relay/EPoll/inet_relay_epoll.hpp")
SETTLED = "@settled@"
PATIENCE = support.DEADLINE
READY = re.compile(r"^(?:\S+ info )?ready\b", re.MULTILINE)


def is_workshop(block):
    """True when the block calls nothing but the workshop's script, which builds and tests for minutes."""
    return all(WORKSHOP.match(line) for line in block.text.splitlines() if line)


class Session:
    """A shell in a network and a folder of its own, fed block by block. In the folder stands what the tree's root
    holds, and the build that is tested as the one that "./dev demo" makes."""

    def __init__(self, folder, path):
        for entry in pages.ROOT.iterdir():
            if entry.name not in ("build", ".git"):
                (folder / entry.name).symlink_to(entry)
        (folder / "build").mkdir()
        (folder / "build/release").symlink_to(os.environ["BUILD_FOLDER"])
        environment = {**os.environ, "PATH": path, "HOME": str(folder), "LC_ALL": "C.UTF-8"}
        self.shell = support.Running(*support.IN_A_NETWORK[1:], "bash", "-s", program=support.IN_A_NETWORK[0],
                                     cwd=folder, env=environment, stdin=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     start_new_session=True)
        self.type("set -euo pipefail")
        self.settled = self.started = self.seen = 0

    def close(self):
        """Also what a block that failed has left in the background goes."""
        os.killpg(self.shell.pid, signal.SIGKILL)
        self.shell.process.stdin.close()
        self.shell.__exit__()

    def type(self, text):
        self.shell.process.stdin.write(text.encode() + b"\n")
        self.shell.process.stdin.flush()

    def run(self, block):
        """Runs the block to its end; what it left in the background has said that it is ready."""
        self.seen = len(self.text())
        self.type("{\n" + block.text + f"}} </dev/null\necho {SETTLED}")
        self.settled += 1
        self.started += len(re.findall(r" &$", block.text, re.MULTILINE))
        self.wait_until(self.is_settled, f"{block.where}: does not end")

    def is_settled(self):
        return self.text().count(SETTLED) == self.settled and len(READY.findall(self.text())) >= self.started

    def expect(self, block):
        """The block before has printed these lines in this order, whatever the numbers in them, and maybe others."""
        wanted = [plain(line) for line in block.text.splitlines() if line]
        self.wait_until(lambda: holds(wanted, self.printed()), f"{block.where}: not printed like this")

    def wait_until(self, condition, failure):
        """Reads what the shell prints until the condition holds."""
        deadline = time.monotonic() + PATIENCE
        pipe = self.shell.process.stdout
        while not condition():
            readable, _, _ = select.select([pipe], [], [], max(0, deadline - time.monotonic()))
            piece = os.read(pipe.fileno(), 65536) if readable else b""
            if not piece:
                raise AssertionError(f"{failure}: {self.text()}")
            self.shell.text["stdout"] += piece

    def text(self):
        return self.shell.text["stdout"].decode(errors="replace")

    def printed(self):
        return [plain(line) for line in self.text()[self.seen:].splitlines()]


def plain(line):
    return re.sub(r"[0-9a-f]*\d[0-9a-f]*(\.\d+)*", "N", line.strip())


def holds(wanted, lines):
    rest = iter(lines)
    return all(any(line == there for there in rest) for line in wanted)


class Blocks(unittest.TestCase):
    def setUp(self):
        if not support.can_have_networks():
            self.skipTest("private networks are not allowed here")

    def play(self, page):
        path = os.pathsep.join([str(Path(support.PROGRAM).parent), os.environ["PATH"]])
        session = Session(Path(self.enterContext(tempfile.TemporaryDirectory())), path)
        self.addCleanup(session.close)
        left_out = 0
        was_run = False
        for block in pages.blocks(page):
            self.assertIn(block.language, LANGUAGES, block.where)
            if block.language == "sh":
                was_run = not NOT_RUN.match(block.text) and not is_workshop(block)
                left_out += bool(NOT_RUN.match(block.text))
            if block.language == "sh" and was_run:
                session.run(block)
            elif block.language == "text" and was_run:
                session.expect(block)
        self.assertEqual(left_out, GUIDES[page], "blocks that are not run")

    def test_of_the_workshop_name_commands_that_are_there(self):
        told = subprocess.run([pages.ROOT / "dev", "help"], capture_output=True, text=True, check=True).stdout
        known = re.findall(r"^  (\w+) ", told, re.MULTILINE)
        named = {match["command"] for page in GUIDES for block in pages.blocks(page) if block.language == "sh"
                 for match in WORKSHOP.finditer(block.text)}
        self.assertEqual(named - set(known), set())
        self.assertLessEqual({"demo", "test"}, named)

    def test_that_are_not_run_are_sound_all_the_same(self):
        for block in (block for page in GUIDES for block in pages.blocks(page) if NOT_RUN.match(block.text)):
            result = subprocess.run(["bash", "-n"], input=block.text, capture_output=True, text=True, check=False)
            self.assertEqual((result.returncode, result.stderr), (0, ""), block.where)


def add_page(page):
    setattr(Blocks, "test_of_" + re.sub(r"\W+", "_", page.removesuffix(".md")), lambda self: self.play(page))


for name in GUIDES:
    add_page(name)


class Text(unittest.TestCase):
    def test_links_lead_somewhere(self):
        self.assertGreater(len(pages.all_pages()), 10)
        for page in pages.all_pages():
            for match in pages.LINK.finditer(pages.prose(page)):
                target, _, anchor = match["target"].partition("#")
                if re.match(r"\w+:", target):
                    continue
                with self.subTest(page=str(page), target=match["target"]):
                    there = (pages.ROOT / page.parent / target).resolve() if target else pages.ROOT / page
                    self.assertTrue(there.exists())
                    if anchor:
                        self.assertIn(anchor, pages.anchors(there.relative_to(pages.ROOT)))

    def test_files_that_are_named_are_there(self):
        for page in GUIDES:
            for match in pages.NAMED_FILE.finditer(pages.prose(page)):
                with self.subTest(page=page, path=match["path"]):
                    self.assertTrue((pages.ROOT / match["path"]).exists())

    def test_code_stands_in_files_that_are_compiled(self):
        roots = [pages.ROOT / source for source in SOURCES]
        files = [path for root in roots for path in (root.rglob("*.?pp") if root.is_dir() else [root])]
        texts = ["\n".join(map(str.strip, path.read_text(encoding="utf-8").splitlines())) for path in files]
        shown = [block for page in GUIDES for block in pages.blocks(page) if block.language == "cpp"]
        self.assertGreater(len(shown), 2)
        for block in shown:
            text = "\n".join(map(str.strip, block.text.strip().splitlines()))
            self.assertTrue(any(text in source for source in texts), f"{block.where}: stands in no source")


if __name__ == "__main__":
    support.main()
