#!/usr/bin/env python3
"""Builds the examples by themselves, from a copy of their folder, against the relay as it is installed.

Usage: standalone_test.py SOURCE BUILD COMPILER [UNITTEST ARGUMENT...]
"""

import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCE, BUILD, COMPILER = Path(sys.argv.pop(1)), Path(sys.argv.pop(1)), sys.argv.pop(1)


class Standalone(unittest.TestCase):
    def run_in(self, folder, *command, code=0):
        result = subprocess.run(list(map(str, command)), cwd=folder, capture_output=True, text=True, check=False,
                                stdin=subprocess.DEVNULL, timeout=240)
        self.assertEqual(result.returncode, code, result.stdout + result.stderr)
        return result.stderr

    def test_is_built_and_started(self):
        folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.run_in(folder, "cmake", "--install", BUILD, "--prefix", folder / "installed")
        shutil.copytree(SOURCE / "examples", folder / "examples")
        self.run_in(folder, "cmake", "-S", "examples", "-B", "build", f"-DCMAKE_PREFIX_PATH={folder / 'installed'}",
                    f"-DCMAKE_CXX_COMPILER={COMPILER}")
        self.run_in(folder, "cmake", "--build", "build", "--parallel", 2)
        for name in ("echo", "chat", "file_transfer", "multicast_listener", "request", "own_host"):
            self.assertIn(f"usage: {name} ", self.run_in(folder, folder / "build" / name, code=2))


if __name__ == "__main__":
    unittest.main()
