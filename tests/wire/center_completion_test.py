"""zolt-center completion: bash completes commands, options and values, and every word that help shows is known to the
scripts of all shells."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

import center_support as support

SHELLS = ("bash", "zsh", "fish")
IN_BASH = """set -u
source /dev/stdin
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_zolt_center
printf '%s\\n' ${COMPREPLY[@]+"${COMPREPLY[@]}"}
"""


def script(shell):
    result = support.call("completion", shell)
    assert (result.returncode, result.stderr) == (0, b""), result
    return result.stdout.decode()


def help_of(path):
    return support.call(*path, "--help").stdout.decode()


def options_in(text):
    return re.findall(r"^  (?:-\w,)?(--[a-z-]+)", text, re.MULTILINE)


class InBash(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def complete(self, *words):
        """What the Tab key would offer behind the last word."""
        result = subprocess.run(["bash", "-c", IN_BASH, "bash", "zolt-center", *words], input=script("bash").encode(),
                                cwd=self.folder.name, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                timeout=support.DEADLINE, check=False)
        self.assertEqual((result.returncode, result.stderr), (0, b""), words)
        return [word for word in result.stdout.decode().split("\n") if word]

    def test_commands_are_those_of_help(self):
        self.assertEqual([word for word in self.complete("") if not word.startswith("-")], support.commands_in(help_of(())))
        self.assertEqual(self.complete("comp"), ["completion"])
        self.assertEqual(self.complete("config", "s"), ["show"])
        self.assertEqual(self.complete("somersault"), [])

    def test_options_of_every_command_are_those_of_help(self):
        commands = list(support.all_commands())
        self.assertGreaterEqual(len(commands), 11)
        for path in commands:
            wanted = options_in(help_of(path))
            self.assertIn("--help", wanted, path)
            self.assertEqual(sorted(self.complete(*path, "--")), sorted(wanted), path)

    def test_short_options_are_known_too(self):
        self.assertIn("-q", self.complete("run", "-"))

    def test_values_are_those_that_may_be_written(self):
        self.assertEqual(self.complete("listen", "--format", ""), ["raw", "quoted", "hex", "json"])
        self.assertEqual(self.complete("listen", "--format", "h"), ["hex"])
        self.assertEqual(self.complete("listen", "--format", "=", "h"), ["hex"])
        self.assertEqual(self.complete("listen", "--format", "="), ["raw", "quoted", "hex", "json"])
        self.assertEqual(self.complete("completion", ""), ["--help", "-h", *SHELLS])

    def test_values_that_only_the_user_knows_are_left_alone(self):
        self.assertEqual(self.complete("run", "--listen", ""), [])
        self.assertEqual(self.complete("run", "--listen", "7000", "--ech"), ["--echo"])

    def test_values_of_another_command_are_not_mixed_in(self):
        self.assertNotIn("hex", self.complete("ping", "--format", ""))
        self.assertEqual(self.complete("run", "--fo"), [])

    def test_files_are_found_where_a_file_is_meant(self):
        for name in ("one.ini", "one more.ini"):
            pathlib.Path(self.folder.name, name).touch()
        wanted = ["one more.ini", "one.ini"]
        self.assertEqual(sorted(self.complete("run", "--config", "on")), wanted)
        self.assertEqual(sorted(self.complete("config", "check", "on")), wanted)
        self.assertEqual(self.complete("ping", "on"), [])

    def test_is_what_bash_itself_calls(self):
        lines = subprocess.run(["bash", "-c", "source /dev/stdin; complete -p zolt-center"],
                               input=script("bash").encode(), stdout=subprocess.PIPE, timeout=support.DEADLINE,
                               check=True).stdout
        self.assertEqual(lines, b"complete -F _zolt_center zolt-center\n")


class AnyShell(unittest.TestCase):
    def test_knows_every_command_and_option(self):
        zsh, fish = script("zsh"), script("fish")
        for path in support.all_commands():
            for option in options_in(help_of(path)):
                self.assertIn(f"'{option}:", zsh)
                self.assertIn(f" -l {option[2:]} ", fish)
            if path:
                self.assertIn(f'"{" ".join(("zolt-center", *path))}"', zsh)
                self.assertIn(f" -a {path[-1]} ", fish)

    def test_can_read_its_script(self):
        for shell in SHELLS:
            if shutil.which(shell):
                result = subprocess.run([shell, "-n"], input=script(shell).encode(), stderr=subprocess.PIPE,
                                        timeout=support.DEADLINE, check=False)
                self.assertEqual((result.returncode, result.stderr), (0, b""), shell)

    def test_that_is_none_is_refused(self):
        result = support.call("completion", "csh")
        self.assertEqual((result.returncode, result.stdout), (2, b""))
        self.assertIn(b"csh not in {bash,fish,zsh}", result.stderr)
        self.assertNotIn(os.linesep.encode(), result.stderr[:-1])


if __name__ == "__main__":
    support.main()
