#!/usr/bin/env python3
"""Plants violations and requires that each check finds them. Usage: selftest.py ROOT LIBRARY OBJECT..."""

import contextlib
import io
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import callers
import held_by
import house_rules
import layers
import tree

HERE = Path(__file__).resolve().parent
ROOT, LIBRARY, OBJECTS = Path(sys.argv[1]), sys.argv[2], sys.argv[3:]
RELAY = "Center/INet_Relay/EPoll"


class PlantedInTree(unittest.TestCase):
    """A copy of the shipped folders, changed in one place."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name) / "tree"
        for name in ("Center", "Host", "docs", "tests/ledger"):
            shutil.copytree(ROOT / name, self.root / name, ignore=shutil.ignore_patterns("__pycache__"))
        # What the documents link to besides.
        for name in ("ARCHITECTURE.md", "LICENSE", "Config/zolt.ini", "examples/own_host/host.cpp", "examples/echo.cpp"):
            (self.root / name).parent.mkdir(parents=True, exist_ok=True)
            (self.root / name).touch()

    def plant(self, path, text):
        planted = self.root / path
        planted.parent.mkdir(parents=True, exist_ok=True)
        with planted.open("a", encoding="utf-8") as file:
            file.write(text)

    def expect(self, check, *parts):
        found = list(check.findings(self.root))
        self.assertTrue(any(all(part in line for part in parts) for line in found), found)

    def test_the_copy_itself_is_clean(self):
        for check in (layers, house_rules, callers):
            self.assertEqual(list(check.findings(self.root)), [])

    def test_a_finding_ends_the_check_with_1_and_none_with_0(self):
        for findings, code in ((["one"], 1), ([], 0)):
            with self.assertRaises(SystemExit) as end, contextlib.redirect_stdout(io.StringIO()):
                tree.report("probe", findings)
            self.assertEqual(end.exception.code, code)

    def test_layers(self):
        planted = (
            (f"{RELAY}/epoll_udp_method.cpp", f'#include "{RELAY}/epoll_tcp_method_client.hpp"\n', "may not include"),
            (f"{RELAY}/epoll_tcp_method.cpp", "#include <nlohmann/json.hpp>\n", "may not include <nlohmann/json.hpp>"),
            ("Host/tesk_inet.hpp", f'#include "{RELAY}/epoll.hpp"\n', "may not include"),
            ("Reference_Center/main.cpp", f'  #  include "{RELAY}/epoll.hpp"\n', "may not include"),
            ("tests/second_host/peek.cpp", f'#include "{RELAY}/epoll_overlapped.hpp"\n', "may not include"),
            ("Host/tesk_os.hpp", '#include "tesk_inet.hpp"\n', "is not written from the root"),
            ("Reference_Center/peek.hpp", "namespace Zolt::Center::INet_Relay::EPoll {}\n", "what is the engine's"),
            ("tests/wire/peek.cpp", "auto& peek = EPoll::g_udp_map;\n", "what is the engine's"),
            ("tests/nowhere/new.cpp", "\n", "no row"),
        )
        for path, text, finding in planted:
            with self.subTest(path=path):
                self.setUp()
                self.plant(path, text)
                self.expect(layers, path, finding)

    def test_a_comment_is_no_include(self):
        self.plant("Host/tesk_inet.hpp", f'// #include "{RELAY}/epoll.hpp"\n/*\n#include <x/y.h>\n*/\n')
        self.plant("tests/wire/far.cpp", f'#include "{RELAY}/inet_relay_epoll.hpp" // not EPoll::arm\n')
        self.assertEqual(list(layers.findings(self.root)), [])

    def test_house_rules(self):
        long_body = "    value++;\n" * 60
        branches = "    if (value != 0) {\n        value--;\n    }\n" * 10
        planted = (
            (f"{RELAY}/notes.txt", "\n", "does not belong"),
            ("Host/extra.hpp", "\n", "does not belong"),
            (f"{RELAY}/epoll.cpp", "void probe() {\n    close(3);\n}\n", "write ::close"),
            (f"{RELAY}/epoll.cpp", f"void grow(int value) {{\n{long_body}}}\n", "a function of 62 lines"),
            (f"{RELAY}/epoll.cpp", f"void twist(int value) {{\n{branches}}}\n", "complexity 11"),
            ("Reference_Host/a.cpp", f"thing::thing() : one{{1}}, two{{2}} {{\n{long_body}}}\n", "a function of 62"),
            ("Reference_Host/b.cpp", "int value;\n" * 551, "551 lines"),
            ("tests/unit/a_test.cpp", "void wait() { std::this_thread::sleep" "_for(1s); }\n", "fixed time"),
            ("tests/wire/peer.py", "time.sleep" "(1)\n", "fixed time"),
            ("docs/notes.md", "TO" "DO later\n", '"TO' 'DO"'),
            ("tests/unit/b_test.cpp", "EXPECT_TRUE" "(true);\n", "cannot fail"),
            ("docs/notes.md", "see /home/somebody/notes\n", "somebody's machine"),
            ("docs/notes.md", "as [told](nowhere.md)\n", "nowhere.md is not there"),
            (f"{RELAY}/epoll.cpp", "// decision 999\n", "no entry 999"),
        )
        for path, text, finding in planted:
            with self.subTest(path=path, finding=finding):
                self.setUp()
                self.plant(path, text)
                self.expect(house_rules, path, finding)

    def test_a_missing_source_is_found(self):
        (self.root / RELAY / "epoll_udp_method.cpp").unlink()
        self.expect(house_rules, "epoll_udp_method.cpp", "is missing")

    def test_what_only_looks_like_a_system_call(self):
        self.plant(f"{RELAY}/epoll.cpp", "// close(3)\nvoid probe(door* it) { it->close(3); EPoll::accept(it); }\n")
        self.assertEqual(list(house_rules.findings(self.root)), [])

    def test_callers(self):
        call = "Common::Global::send_zolt_center(token);"
        planted = (
            ("epoll.cpp", f"void probe(struct_token& token) {{\n    {call}\n}}\n", "1 mention(s) in epoll.cpp:probe"),
            ("epoll.hpp", "auto* const probe = Common::Global::send_zolt_center;\n", "in epoll.hpp:outside"),
            ("epoll.cpp", "auto const probe = [](struct_token& token) { offer(token); };\n", "in epoll.cpp:outside"),
            ("epoll_udp_method.cpp", "int probe(int fd) {\n    return ::send(fd, nullptr, 0, 0);\n}\n", "::send: 1"),
        )
        for path, text, finding in planted:
            with self.subTest(path=path):
                self.setUp()
                self.plant(f"{RELAY}/{path}", text)
                self.expect(callers, finding)

    def test_a_call_more_and_less_in_a_listed_function(self):
        call = "Tesk::OS::thread_yield();"
        source = self.root / RELAY / "epoll_tcp_method.cpp"
        before = source.read_text(encoding="utf-8")
        for changed, found in ((call + call, 2), ("", 0)):
            source.write_text(before.replace(call, changed), encoding="utf-8")
            self.expect(callers, f"thread_yield: {found} mention(s) in epoll_tcp_method.cpp:delete_overlapped")

    def test_what_only_looks_like_a_call(self):
        self.plant(f"{RELAY}/epoll.cpp", '// send_zolt_center\nauto a = "rtsleep";\nint offers;\n')
        self.assertEqual(list(callers.findings(self.root)), [])


class PlantedInPages(unittest.TestCase):
    """A page of decisions and a table of limits beside a few tests."""

    FILES = {
        "tests/unit/a_test.cpp": "TEST_F(suite, holds) {\n}\nTEST_P(suite, holds_each) {\n}\n// TEST(suite, gone)\n",
        "tests/wire/a_test.py": "class Peer:\n    def test_talks(self):\n        pass\n",
        "tests/CMakeLists.txt": "add_test(NAME hosts.far COMMAND far)\nfunction(kind name)\n"
                                "  add_test(NAME kind.${name} COMMAND ${name})\nendfunction()\nkind(one)\n",
    }

    HEAD = "| limit | threshold | held by |\n|---|---|---|\n"

    def check(self, decisions, limits=HEAD):
        pages = {held_by.DECISIONS: decisions, held_by.LIMITS: f"# Limits\n\n{limits}"}
        with tempfile.TemporaryDirectory() as folder:
            for name, text in {**self.FILES, **pages}.items():
                path = Path(folder) / name
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text, encoding="utf-8")
            return list(held_by.findings(folder))

    def test_names_that_are_there(self):
        names = ("`suite.holds`, `suite.holds_each`,\n    `Peer.test_talks`, `hosts.far`, `kind.one`, "
                 "`tests/CMakeLists.txt`.")
        self.assertEqual(self.check(f"1. **One.** Text\n    of it.\n    Held by: {names}\n\n## Next\n\n"
                                    "2. **Two.** Text.\n    Held by: nothing; only a stopwatch would see it.\n"), [])

    def test_names_that_are_not(self):
        for name in ("suite.gone", "suite.holds_all", "Peer.test_listens", "kind.two", "hosts.near", "tests/none.py"):
            found = self.check(f"1. **One.** Text.\n    Held by: `suite.holds`, `{name}`.\n2. **Two.** Text.\n"
                               "    Held by: `suite.holds`.\n")
            self.assertEqual(found, [f"{held_by.DECISIONS}: 1: {name}: there is no such test"])

    def test_an_entry_that_says_nothing(self):
        for entry in ("Text.", "Text.\n    Held by: somebody.", "Text.\n    Held by: nothing."):
            found = self.check(f"1. **One.** {entry}\n2. **Two.** Text.\n    Held by: `suite.holds`.\n")
            self.assertEqual(len(found), 1, found)
            self.assertIn(f"{held_by.DECISIONS}: 1: ", found[0])

    def test_limits_with_names_that_are_there(self):
        self.assertEqual(self.check("", self.HEAD + "| One | 1 | `suite.holds`, `Peer.test_talks` |\n"
                                    "| Two | 2 | `hosts.far` (slowly), `tests/CMakeLists.txt` |\n"), [])

    def test_limits_with_names_that_are_not(self):
        for name in ("suite.gone", "kind.two", "tests/none.py"):
            found = self.check("", self.HEAD + f"| One | 1 | `suite.holds`, `{name}` |\n| Two | 2 | `suite.holds` |\n")
            self.assertEqual(found, [f"{held_by.LIMITS}: One: {name}: there is no such test"])

    def test_a_limit_that_names_no_test(self):
        for cells, complaint in (("1", "does not say what holds it"), ("1 | ", "names no test"),
                                 ("1 | somebody", "names no test"), ("1 | suite.holds", "names no test"),
                                 ("1 | nothing; only a stopwatch would see it", "names no test")):
            found = self.check("", self.HEAD + f"| One | {cells} |\n| Two | 2 | `suite.holds` |\n")
            self.assertEqual(found, [f"{held_by.LIMITS}: One: {complaint}"])

    def test_limits_without_the_column(self):
        for table in ("", "| limit | threshold |\n|---|---|\n"):
            self.assertEqual(self.check("", table), [f"{held_by.LIMITS}: its table: does not say what holds it"])


class PlantedInLedger(unittest.TestCase):
    """The library as it is, against a ledger that is wrong in one line."""

    def expect(self, change, *parts):
        text = (HERE / "symbols.txt").read_text(encoding="utf-8")
        changed = change(text)
        self.assertNotEqual(changed, text)
        with tempfile.NamedTemporaryFile("w", suffix=".txt", encoding="utf-8") as ledger:
            ledger.write(changed)
            ledger.flush()
            done = subprocess.run([sys.executable, HERE / "symbols.py", ledger.name, LIBRARY, *OBJECTS],
                                  capture_output=True, text=True)
        self.assertEqual(done.returncode, 1, done.stderr)
        lines = done.stdout.splitlines()
        self.assertTrue(any(all(part in line for part in parts) for line in lines), done.stdout)

    def test_a_symbol_that_the_ledger_does_not_know(self):
        name = "Zolt::Center::INet_Relay::EPoll::udp_finalize()"
        self.expect(lambda text: text.replace(name + "\n", ""), name, "not in the ledger")

    def test_a_symbol_that_the_library_does_not_define(self):
        self.expect(lambda text: text.replace("[public inet_relay_epoll]", "[public inet_relay_epoll]\nresume()"),
                    "resume()", "not in the library")

    def test_a_parameter_of_another_type(self):
        self.expect(lambda text: text.replace("add_server(unsigned short)", "add_server(unsigned int)"), "add_server")

    def test_a_symbol_in_another_source(self):
        moved = "[engine epoll_udp_method]\nZolt::Center::INet_Relay::EPoll::timer_reconnect_client()"
        self.expect(lambda text: text.replace(moved.split("\n")[1] + "\n", "").replace(
            "[engine epoll_udp_method]", moved), "epoll_udp_method", "timer_reconnect_client()", "not in the library")

    def test_a_symbol_under_another_version(self):
        name = "Zolt::Center::INet_Relay::EPoll::udp_finalize()"
        self.expect(lambda text: text.replace(name + "\n", "").replace(
            "[public inet_relay_epoll]", f"[public epoll_udp_method]\n{name}\n[public inet_relay_epoll]"),
            name, "INET_RELAY_1")

    def test_a_host_operation_more_and_less(self):
        self.expect(lambda text: text.replace("Tesk::OS::rtsleep(double)\n", ""), "rtsleep", "not in the ledger")
        self.expect(lambda text: text.replace("[host]\n", "[host]\nTesk::OS::beep()\n"), "beep", "not in the library")

    def test_a_system_call_and_a_library_that_are_not_permitted(self):
        self.expect(lambda text: text.replace("\nepoll_ctl\n", "\n"), "epoll_ctl", "may not ask")
        self.expect(lambda text: text.replace("libstdc++.so.6\n", ""), "libstdc++.so.6", "may not need")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=1)
