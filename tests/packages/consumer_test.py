#!/usr/bin/env python3
"""Installs the build into a folder of its own and uses it from there, as another project would: by the CMake package, by
pkg-config, with the reference host and with a host of the project's own.

Usage: consumer_test.py SOURCE BUILD COMPILER [UNITTEST ARGUMENT...]
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCE, BUILD, COMPILER = Path(sys.argv.pop(1)), Path(sys.argv.pop(1)), sys.argv.pop(1)
HERE = Path(__file__).resolve().parent
OWN_HOST = ("counting_host.cpp", "counting_host.hpp", "loading_test.cpp")


def run(*command, **options):
    """What the command printed; its failure is the test's, with all that it said."""
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False, timeout=240,
                            stdin=subprocess.DEVNULL, **options)
    if result.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, command))}: {result.returncode}\n{result.stdout}{result.stderr}")
    return result.stdout


class Consumer(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        installed = cls.folder / "installed"
        run("cmake", "--install", BUILD, "--prefix", installed)
        # The package has to work wherever it stands: it is used from another place than it was installed to.
        cls.prefix = installed.rename(cls.folder / "elsewhere")
        cls.library_folder = next(cls.prefix.rglob("libinet_relay.so")).parent
        cls.include_folder = cls.prefix / "include/inet_relay"

    def run_in_scratch(self, program):
        # Away from any Config folder.
        return run(program, cwd=self.folder, env={**os.environ, "LD_LIBRARY_PATH": str(self.library_folder)})

    def project(self, name):
        """A copy of the project, outside the source tree, where no header can be found by chance."""
        return Path(shutil.copytree(HERE / name, self.folder / name, dirs_exist_ok=True))

    def consumer(self):
        project = self.project("consumer")
        headers = sorted(path.relative_to(self.include_folder) for path in self.include_folder.rglob("*.hpp"))
        self.assertGreater(len(headers), 10)
        lines = "".join(f'#include "{header}"\n' for header in reversed(headers))
        (project / "every_header.cpp").write_text(lines, encoding="utf-8")
        return project

    def build(self, project):
        build = project / "build"
        run("cmake", "-S", project, "-B", build, "-G", "Ninja", f"-DCMAKE_CXX_COMPILER={COMPILER}",
            f"-DCMAKE_PREFIX_PATH={self.prefix}")
        run("cmake", "--build", build)
        return build

    def test_cmake_package(self):
        build = self.build(self.consumer())
        self.assertEqual(self.run_in_scratch(build / "messenger"), "arrived\n")
        # Who uses the header's operations works with a later version of the library too.
        self.assertEqual(set(re.findall(r"@(INET_RELAY_\w+)", run("nm", "-D", build / "messenger"))), {"INET_RELAY_1"})
        linked = sorted(build.glob("lifecycle_*"))
        self.assertIn("lifecycle_bfd", [program.name for program in linked])
        for program in linked:
            with self.subTest(program.name):
                self.assertEqual(self.run_in_scratch(program), "failures: 0\n")

    def test_cmake_package_with_an_own_host(self):
        project = self.project("own_host")
        place = project / "tests/ledger/loading"
        place.mkdir(parents=True)
        for name in OWN_HOST:
            shutil.copy(SOURCE / "tests/ledger/loading" / name, place)
        build = self.build(project)
        for way in ("linked", "opened"):
            with self.subTest(way):
                self.run_in_scratch(build / way)

    def test_version_that_is_not_there(self):
        project = self.folder / "newer"
        project.mkdir()
        (project / "CMakeLists.txt").write_text("cmake_minimum_required(VERSION 3.25)\nproject(newer LANGUAGES NONE)\n"
                                                "find_package(INet_Relay 2 REQUIRED)\n", encoding="utf-8")
        with self.assertRaisesRegex(AssertionError, "version: 1\\."):
            run("cmake", "-S", project, "-B", project / "build", "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={self.prefix}")

    def pkg_config(self, *arguments):
        paths = {"PKG_CONFIG_PATH": str(self.library_folder / "pkgconfig")}
        return run("pkg-config", *arguments, env={**os.environ, **paths}).split()

    def compile(self, source, module, *options):
        program = source.parent / f"{source.stem}_{module}"
        run(COMPILER, "-std=c++20", *options, *self.pkg_config("--cflags", module), source, "-o", program,
            *self.pkg_config("--libs", module))
        return program

    def test_pkg_config(self):
        lifecycle = self.consumer() / "lifecycle.cpp"
        program = self.compile(lifecycle, "zolt_reference_host", "-Wl,--as-needed")
        self.assertEqual(self.run_in_scratch(program), "failures: 0\n")
        # The relay alone is not enough: the program would have to be the host.
        with self.assertRaisesRegex(AssertionError, "undefined reference to `Zolt::struct_token"):
            self.compile(lifecycle, "inet_relay")
        self.assertEqual(self.pkg_config("--modversion", "inet_relay"), self.pkg_config("--modversion", "zolt_reference_host"))

    def test_names_of_the_libraries(self):
        for name in ("inet_relay", "zolt_reference_host"):
            dynamic = run("readelf", "-d", self.library_folder / f"lib{name}.so")
            self.assertIn(f"Library soname: [lib{name}.so.1]", dynamic)


if __name__ == "__main__":
    unittest.main()
