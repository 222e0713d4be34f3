"""zolt-center config: each mistake in a configuration file has its line, its code and an advice; show tells where each
of the nine values came from."""

import json
import os
import pathlib
import re
import tempfile
import unittest

import center_support as support

LEDGER = pathlib.Path(__file__).resolve().parents[1] / "ledger" / "texts.txt"
SHIPPED = pathlib.Path(__file__).resolve().parents[2] / "Config" / "zolt.ini"

with open("/proc/sys/net/core/somaxconn", encoding="ascii") as _cap:
    CAP = int(_cap.read())

# Lines of a file and, for those that are wrong: code, piece of the reason, piece of the advice.
PLANTED = [
    (b"; a file with mistakes", None),
    (b"AUTO_DISCONNECT = no", ("key-outside-section", "AUTO_DISCONNECT stands above every section", "below [ZOLT]")),
    (b"[ZOLT]", None),
    (b"SERVER_BACKLOG = 7", ("key-unknown", "no key SERVER_BACKLOG", "did you mean SERVER_LISTEN_BACKLOG?")),
    (b"AUTO_DISCONECT = no", ("key-unknown", "no key AUTO_DISCONECT", "did you mean AUTO_DISCONNECT?")),
    (b"AUTO_DISCONNECT = off", ("switch-not-off", "AUTO_DISCONNECT = off counts as yes", "only no switches it off")),
    (b"SERVER_NAGLE_OFF_USE = no", ("key-duplicate", "again in line 8", "keep one")),
    (b"server_nagle_off_use = perhaps", ("switch-unclear", "= perhaps counts as yes", "only no switches it off")),
    (b"CLIENT_NAGLE_OFF_USE = no;why", ("comment-in-value", "= no;why counts as yes", "blank before the ;")),
    (b"SERVER_LISTEN_BACKLOG = %d" % (CAP + 1), ("backlog-capped", f"is cut to {CAP} by the kernel",
                                                 f"net.core.somaxconn={CAP + 1}")),
    (b"SERVER_LINGER_USE = yes", ("key-no-effect", "SERVER_LINGER_USE is read but has no effect", "leave it out")),
    (b"CLIENT_LINGER_TIME = 1024", None),  # without effect, and without a change to the default
    (b"AUTO DISCONNECT: no", ("line-without-meaning", '"AUTO DISCONNECT: no" is no key = value', "by =, not by :")),
    (b"// comment", ("line-without-meaning", '"// comment"', "comments begin with ; or #")),
    (b"= 5", ("value-without-key", "without a key", "KEY = VALUE")),
    (b"caf\xe9 = 1 \x1b[31m", ("not-utf8", "byte 4 is no UTF-8", "save the file as UTF-8")),
    (b"caf\xc3\xa9 = 1 \x1b[31m", ("key-unknown", "no key caf\u00e9", "config show")),
    (b"[ZOLTT]", ("section-unknown", "does not read section [ZOLTT]", "did you mean ZOLT?")),
    (b"CLIENT_NAGLE_OFF_USE = no", ("key-outside-section", "stands in [ZOLTT] and is not read", "below [ZOLT]")),
    (b"[other", ("section-unclosed", "not closed", "end it with ]")),
]
WARNINGS = {"backlog-capped", "backlog-negative", "backlog-zero", "key-no-effect", "line-long", "section-missing",
            "section-repeated"}

# What a single file with that text brings: codes with their lines. The section is line 1 where it is not given.
SINGLE = [
    ("SERVER_LISTEN_BACKLOG = 5k", [(2, "number-trailing-text")]),
    ("SERVER_LISTEN_BACKLOG = 0x10", [(2, "number-trailing-text")]),
    ("SERVER_LISTEN_BACKLOG = 5.0", [(2, "number-trailing-text")]),
    ("SERVER_LISTEN_BACKLOG = 2147483648", [(2, "number-out-of-range")]),
    ("SERVER_LISTEN_BACKLOG = -2147483649", [(2, "number-out-of-range")]),
    ("SERVER_LISTEN_BACKLOG = many", [(2, "number-invalid")]),
    ("SERVER_LISTEN_BACKLOG =", [(2, "number-invalid")]),
    ("SERVER_LISTEN_BACKLOG = 5#why", [(2, "comment-in-value")]),
    ("SERVER_LISTEN_BACKLOG = 0", [(2, "backlog-zero")]),
    ("SERVER_LISTEN_BACKLOG = -1", [(2, "backlog-negative")]),
    ("SERVER_LISTEN_BACKLOG = +5 ; comment", []),
    (f"SERVER_LISTEN_BACKLOG = {CAP}", []),
    ("AUTO_DISCONNECT = 0", [(2, "switch-not-off")]),
    ("AUTO_DISCONNECT = FALSE", [(2, "switch-not-off")]),
    ("AUTO_DISCONNECT =", [(2, "switch-not-off")]),
    ("AUTO_DISCONNECT = No", []),
    ("AUTO_DISCONNECT = on", []),
    ('AUTO_DISCONNECT = "no" ; comment', []),
    ('AUTO_DISCONNECT = "no', [(2, "quote-in-value")]),
    ("AUTO_DISCONNECT = 'no'", [(2, "quote-in-value")]),
    ("AUTO_DISCONNECT = \u201cno\u201d", [(2, "quote-in-value")]),
    ('AUTO_DISCONNECT = " no "', [(2, "blank-in-value")]),
    ("AUTO_DISCONNECT =\u00a0no", [(2, "blank-in-value")]),
    ("AUTO_DISCONNECT = no\r\nCLIENT_NAGLE_OFF_USE = no\r\n", []),
    ("AUTO_DISCONNECT = no\rCLIENT_NAGLE_OFF_USE = no\n", [(2, "line-end-cr"), (2, "switch-unclear")]),
    ("AUTO_DISCONNECT = no\x00", [(2, "null-byte"), (2, "switch-unclear")]),
    ("; " + "x" * 1023, [(2, "line-long")]),
    ("; " + "x" * 1022, []),
    ("[zolt]\nAUTO_DISCONNECT = no", [(2, "section-repeated")]),
    ("[ZOLT] AUTO_DISCONNECT = no", [(2, "text-after-section"), (2, "section-repeated")]),
    ("[OTHER]\nkey = 1", [(2, "section-unknown")]),
]
ALONE = [
    ("", [(1, "section-missing")]),
    ("; nothing but a comment\n", [(1, "section-missing")]),
    ("\ufeff[ZOLT]\nAUTO_DISCONNECT = no\n", []),
    ("\ufeff[ZOLT] x\n", [(1, "text-after-section")]),
]


def ledger_texts(prefix):
    rows = [line.split("\t") for line in LEDGER.read_text(encoding="utf-8").splitlines() if line.startswith(prefix)]
    return [row[1] for row in rows]


class Files(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.file = os.path.join(self.folder.name, "zolt.ini")

    def write(self, content):
        pathlib.Path(self.file).write_bytes(content if isinstance(content, bytes) else content.encode())

    def run_on(self, content, *command):
        self.write(content)
        result = support.call("config", *command, self.file)
        self.assertEqual(result.stderr, b"")
        return result

    def check(self, content, *options):
        result = self.run_on(content, "check", "--json", *options)
        answer = json.loads(result.stdout)
        self.assertEqual((answer["valid"], result.returncode), (result.returncode == 0, 0 if answer["valid"] else 3))
        return answer


class Check(Files):
    def test_names_each_of_many_planted_mistakes(self):
        content = b"\n".join(line for line, _ in PLANTED) + b"\n"
        wanted = [(number, *what) for number, (_, what) in enumerate(PLANTED, 1) if what]
        answer = self.check(content)
        # Whatever else is said of a line that has a mistake, this one is named.
        for number, code, reason, advice in wanted:
            found = [row for row in answer["findings"] if (row["line"], row["code"]) == (number, code)]
            self.assertEqual(len(found), 1, (number, code, answer["findings"]))
            self.assertEqual((found[0]["file"], found[0]["severity"]),
                             (self.file, "warning" if code in WARNINGS else "error"))
            self.assertIn(reason, found[0]["reason"])
            self.assertIn(advice, found[0]["advice"])
        wrong_lines = {row[0] for row in wanted}
        self.assertEqual({row["line"] for row in answer["findings"]}, wrong_lines)
        self.assertGreaterEqual(len(wrong_lines), 8)

    def test_prints_the_same_for_people(self):
        content = b"\n".join(line for line, _ in PLANTED) + b"\n"
        answer = self.check(content)
        result = self.run_on(content, "check")
        wanted = "".join(f"{row['file']}:{row['line']}: {row['severity']} {row['code']}: {row['reason']}\n"
                         f"    {row['advice']}\n" for row in answer["findings"])
        wanted += f"{self.file}: {answer['errors']} errors, {answer['warnings']} warnings\n"
        self.assertEqual((result.stdout.decode(), result.returncode), (wanted, 3))
        self.assertNotIn("\x1b", result.stdout.decode())

    def test_finds_what_stands_alone_too(self):
        rows = [("[ZOLT]\n" + text, wanted) for text, wanted in SINGLE] + ALONE
        for text, wanted in rows:
            with self.subTest(text=text[:60]):
                findings = self.check(text)["findings"]
                self.assertEqual(sorted((row["line"], row["code"]) for row in findings), sorted(wanted))

    def test_has_a_mistake_for_every_code(self):
        seen = {code for _, codes in SINGLE + ALONE for _, code in codes} | {what[0] for _, what in PLANTED if what}
        source = (SHIPPED.parents[1] / "Reference_Center" / "configuration_check.cpp").read_text(encoding="utf-8")
        self.assertEqual(set(re.findall(r'"([a-z]+(?:-[a-z0-9]+)+)"', source)), seen)

    def test_of_warnings_alone_fails_only_when_asked_to(self):
        text = "[ZOLT]\nSERVER_LINGER_TIME = 5\n"
        self.assertTrue(self.check(text)["valid"])
        self.assertFalse(self.check(text, "--strict")["valid"])

    def test_takes_the_file_that_is_delivered(self):
        result = support.call("config", "check", "--strict", SHIPPED)
        self.assertEqual((result.returncode, result.stdout.decode()), (0, f"{SHIPPED}: nothing to say against it\n"))

    def test_reads_utf_16_as_what_it_is(self):
        answer = self.check("[ZOLT]\nAUTO_DISCONNECT = no\n".encode("utf-16"))
        self.assertEqual([(row["line"], row["code"]) for row in answer["findings"]], [(1, "not-utf8")])

    def test_cannot_read_everything(self):
        for path, text in ((self.folder.name, "Is a directory"), (self.file + "x", "No such file or directory")):
            for command in ("check", "show"):
                result = support.call("config", command, path)
                self.assertEqual((result.returncode, result.stdout), (3, b""))
                self.assertEqual(result.stderr.decode(),
                                 f"zolt-center: cannot read configuration file {path}: {text}\n")
        self.write(b"x" * (2 << 20))
        self.assertIn(b"File too large", support.call("config", "check", self.file).stderr)

    def test_without_a_file_looks_where_the_relay_looks(self):
        os.mkdir(os.path.join(self.folder.name, "bin"))
        os.mkdir(os.path.join(self.folder.name, "Config"))
        self.file = os.path.join(self.folder.name, "Config", "zolt.ini")
        where = os.path.join(self.folder.name, "bin")
        result = support.call("config", "check", cwd=where)
        self.assertEqual((result.returncode, result.stdout),
                         (0, b"../Config/zolt.ini: absent; every key has its default\n"))
        self.write("[ZOLT]\nAUTO_DISCONNECT = off\n")
        result = support.call("config", "check", cwd=where)
        self.assertEqual(result.returncode, 3)
        self.assertTrue(result.stdout.startswith(b"../Config/zolt.ini:2: error switch-not-off: "), result.stdout)


class Show(Files):
    def show(self, content):
        return json.loads(self.run_on(content, "show", "--json").stdout)["keys"]

    def test_lists_all_keys_of_the_relay(self):
        keys = [row["key"] for row in self.show("")]
        self.assertEqual(keys, [text for text in ledger_texts("ini_") if text.isupper() and text != "ZOLT"])
        self.assertEqual(len(keys), 9)

    def test_tells_where_each_value_came_from(self):
        rows = {row["key"]: row for row in self.show(
            "[ZOLT]\nAUTO_DISCONNECT = Off\nCLIENT_NAGLE_OFF_USE = NO\nSERVER_LISTEN_BACKLOG = 7\n"
            "SERVER_LINGER_TIME = soon\n")}
        facts = {key: (row["value"], row["written"], row["line"], row["origin"]) for key, row in rows.items()}
        self.assertEqual(facts["AUTO_DISCONNECT"], ("yes", "Off", 2, f"{self.file}:2"))
        self.assertEqual(facts["CLIENT_NAGLE_OFF_USE"], ("no", "NO", 3, f"{self.file}:3"))
        self.assertEqual(facts["SERVER_LISTEN_BACKLOG"], ("7", "7", 4, f"{self.file}:4"))
        self.assertEqual(facts["SERVER_LINGER_TIME"][0:3], ("1024", "soon", 5))
        self.assertTrue(facts["SERVER_LINGER_TIME"][3].startswith("default; "))
        self.assertEqual(facts["CLIENT_LINGER_USE"], ("no", None, None, "default"))
        self.assertIn("gather small packets", rows["CLIENT_NAGLE_OFF_USE"]["effect"])
        self.assertIn("at once", rows["SERVER_NAGLE_OFF_USE"]["effect"])
        self.assertEqual([key for key, row in rows.items() if not row["has_effect"]],
                         ["SERVER_SOCKET_REUSE", "SERVER_LINGER_USE", "SERVER_LINGER_TIME", "CLIENT_LINGER_USE",
                          "CLIENT_LINGER_TIME"])

    def test_has_the_defaults_of_the_file_that_is_delivered(self):
        delivered = json.loads(support.call("config", "show", "--json", SHIPPED).stdout)["keys"]
        self.assertEqual([row["value"] for row in delivered], [row["default"] for row in delivered])
        self.assertEqual([row["value"] for row in delivered], [row["value"] for row in self.show("")])

    def test_prints_the_same_for_people(self):
        content = "[ZOLT]\nSERVER_LISTEN_BACKLOG = 7\n"
        wanted = [(row["key"], row["value"], row["effect"], row["origin"]) for row in self.show(content)]
        with_origin = "".join(f"{key} = {value}\n    effect: {effect}\n    origin: {origin}\n"
                              for key, value, effect, origin in wanted)
        without = "".join(f"{key} = {value}\n    effect: {effect}\n" for key, value, effect, _ in wanted)
        self.assertEqual(self.run_on(content, "show", "--origin").stdout.decode(), with_origin)
        self.assertEqual(self.run_on(content, "show").stdout.decode(), without)


if __name__ == "__main__":
    support.main()
