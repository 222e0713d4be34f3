"""zolt-center explain: every text of the relay and of the program, and every code, has an explanation in both languages;
lines are recognised as they are printed; docs/messages.md is the table."""

import json
import os
import pathlib
import re
import socket
import sys
import unittest

import center_support as support

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "tests" / "ledger"))
import tree  # noqa: E402  (what the house checks share)

HANGUL = re.compile(r"[\uac00-\ud7a3]")
LANGUAGES = ("en", "ko")
SENTENCES = ("meaning", "cause", "next")
# A call whose text the user gets to read, up to its first parenthesis.
TELLING_CALL = re.compile(r"\b(?:failure|log_event|log_warning|write_error_line|refuse)\(")
STRINGS = re.compile(r'"(?:\\.|[^"\\])*"(?:\s*"(?:\\.|[^"\\])*")*')


def explain(*words, **options):
    result = support.call("explain", "--json", "--lang", "both", "--", *words, **options)
    return json.loads(result.stdout)["explanations"] if result.returncode == 0 else []


def table():
    return json.loads(support.call("explain", "--json", "--lang", "both", "--all").stdout)["explanations"]


def plain(text):
    return " ".join(text.lower().split())


def is_like(line, text):
    """The text of the table, with something for each of its gaps, is the whole line."""
    pieces = re.split(r"\{\w+\}", plain(text))
    return re.fullmatch(".+".join(map(re.escape, pieces)), plain(line)) is not None


def fill(text):
    """A text of the relay with something for each of printf's marks."""
    for mark, value in (("%s", "10.0.0.2"), ("%d", "4711"), ("%08X", "0000BEEF")):
        text = text.replace(mark, value)
    return text


def relay_texts():
    for line in (ROOT / "tests/ledger/texts.txt").read_text(encoding="utf-8").splitlines():
        if "\t" in line and not line.startswith("#"):
            name, text = line.split("\t")
            yield name, text.replace("\\n", "\n").replace("\\s", " ")


def call_at(source, start):
    """The text between the parentheses that open there; strings do not count."""
    blank = tree.without_comments(source)
    depth = 0
    for end in range(start, len(source)):
        depth += {"(": 1, ")": -1}.get(blank[end], 0)
        if depth == 0:
            return source[start:end]
    raise AssertionError("a call without an end")


def program_texts():
    """What the program's sources tell their user, with 7 for each gap: whole sentences, not the pieces between."""
    for path in sorted((ROOT / "Reference_Center").glob("*.cpp")):
        source = path.read_text(encoding="utf-8")
        for call in TELLING_CALL.finditer(tree.without_comments(source)):
            for literal in STRINGS.findall(call_at(source, call.end() - 1)):
                text = "".join(json.loads(f'"{one}"') for one in re.findall(r'"((?:\\.|[^"\\])*)"', literal))
                if re.search(r"\w+ \w+", text) and text[0] not in ";,) ":
                    yield path.name, re.sub(r"\{[^}]*\}", "7", text)


class Table(unittest.TestCase):
    maxDiff = None

    def test_has_every_sentence_in_both_languages(self):
        for entry in table():
            for language in LANGUAGES:
                self.assertEqual(tuple(entry[language]), SENTENCES, entry["code"])
                for sentence in entry[language].values():
                    self.assertGreater(len(sentence), 4, entry["code"])
                    self.assertEqual(bool(HANGUL.search(sentence)), language == "ko", (entry["code"], sentence))
                    self.assertRegex(sentence, r"[.]$", entry["code"])

    def test_names_each_code_once(self):
        codes = [entry["code"] for entry in table()]
        self.assertEqual(sorted(codes), sorted(set(codes)))
        self.assertGreater(len(codes), 100)

    def test_explains_every_text_of_the_relay(self):
        texts = list(relay_texts())
        self.assertGreater(len(texts), 80)
        for name, text in texts:
            for line in {text, fill(text)}:
                found = explain(line)
                self.assertTrue(found, (name, line))
                self.assertTrue(is_like(line, found[0]["text"]), (name, line, found[0]["text"]))

    def test_explains_every_text_of_the_program(self):
        texts = sorted(set(program_texts()))
        self.assertGreater(len(texts), 40)
        # What follows a text that ends in the middle is the system's reason, or another text.
        missing = [(name, text) for name, text in texts
                   if not any(explain(f"zolt-center: {text}{end}") for end in ("", "7" if text[-1] in " (" else ": 7"))]
        self.assertEqual(missing, [], "messages.txt lacks these texts")

    def test_explains_every_code(self):
        source = {name: (ROOT / name).read_text(encoding="utf-8") for name in (
            "Reference_Center/configuration_check.cpp", "Reference_Center/failure.hpp",
            "Reference_Center/node_account.cpp", "Host/zolt_packet.hpp", "Reference_Host/inbox.hpp")}
        findings = re.findall(r'"([a-z]+(?:-[a-z0-9]+)+)"', source["Reference_Center/configuration_check.cpp"])
        exits = [f"exit-{number}" for number in re.findall(r" = (\d+),", source["Reference_Center/failure.hpp"])]
        reasons = re.search(r"close_reason_text.*?\{(?=\").*?\}", source["Reference_Center/node_account.cpp"], re.DOTALL)
        closed = re.findall(r'"(\w+)"', reasons.group())
        errors = re.findall(r"0x4\w{7}", source["Host/zolt_packet.hpp"] + source["Reference_Host/inbox.hpp"])
        self.assertEqual([len(set(one)) for one in (findings, exits, closed, errors)], [26, 9, 9, 4])
        for code in [*findings, *exits, *closed, *errors]:
            self.assertEqual([entry["code"] for entry in explain(code)], [code])

    def test_is_the_page_in_docs(self):
        page = support.call("explain", "--markdown").stdout.decode()
        self.assertEqual(page, (ROOT / "docs/messages.md").read_text(encoding="utf-8"),
                         "make it anew: zolt-center explain --markdown > docs/messages.md")


class Line(unittest.TestCase):
    def expect(self, line, *codes):
        self.assertEqual([entry["code"] for entry in explain(line)], list(codes), line)

    def test_is_recognised_as_the_log_has_it(self):
        for text, code in (("recv client 에러", "recv_client_failed"), ("bind", "bind_failed"),
                           ("connect err:111", "connect_failed"), ("epoll.out 등록 에러", "send_arm_failed"),
                           ("[Zolt Error] 이미 다른 프로그램에서 7000 포트(도메인 포트)를 사용하고 있습니다.", "port_taken_alert"),
                           ("Center/INet_Relay/EPoll/inet_relay_epoll:117", "source_position")):
            self.expect(text, code)
            self.expect(f"09:15:00.123 warning relay: {text}", code)
            self.expect(f"  09:15:00.123 warning relay: {text} (held back 17 times)\n", code)

    def test_of_a_trace_is_recognised_behind_its_place(self):
        self.expect("09:15:00.123 debug relay: Center/INet_Relay/EPoll/epoll_tcp_method:190 t tcp received",
                    "tcp_received")
        self.expect("Center/INet_Relay/EPoll/epoll:190 E tcp server shutdown(8123 --5 )  10.0.0.2",
                    "silent_connection_ended")

    def test_brings_what_stands_within_it(self):
        line = "epoll_thread_tcp_recv_entry catch_err : recv_server_init errno:12\n"
        self.expect(line, "event_thread_ended", "exchange_ended_thread")
        self.assertEqual(explain(line)[0]["errno"], "12 ENOMEM: Cannot allocate memory")
        self.expect("zolt-center: the relay could not start: epoll_create 에러", "relay_not_started",
                    "epoll_create_failed")
        self.assertEqual(explain("connect err:111")[0]["errno"], "111 ECONNREFUSED: Connection refused")

    def test_takes_the_closest_message(self):
        kept = "port 7000 is taken over TCP: by a closed connection that the kernel keeps for 31 more seconds"
        self.expect(kept, "port_kept")
        self.expect("port 7000 is taken over TCP: by pid 31 (python3)", "port_taken")
        self.expect("recv server init 에러", "recv_server_init_failed")
        self.expect("recv server 에러", "recv_server_failed")

    def test_may_be_given_as_several_words(self):
        self.assertEqual(explain("exit", "code", "4"), explain("exit code 4"))
        self.assertEqual(explain("exit", "code", "4")[0]["code"], "exit-4")

    def test_that_nobody_knows_is_told_so(self):
        for text, hint in (("silen", 'did you mean "silent"?'), ("the quick brown fox", "--all"), ("clien", "--all"),
                           ("a client", "--all"), ("\x1b[31m", '"\\x1B[31m"'), ("", "--all")):
            result = support.call("explain", text)
            self.assertEqual((result.returncode, result.stdout), (2, b""), text)
            self.assertIn(hint, result.stderr.decode())

    def test_printed_by_a_real_run_is_known(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
            holder.bind(("", 0))
            port = holder.getsockname()[1]
            runs = [(["run", "--listen", port], "port_taken"), (["run", "--listen", "x"], "no_port"),
                    (["send", "--udp", "--to", f"127.0.0.1:{port}"], "same_machine"),
                    (["run", "--listen", port, "--config", "/nowhere"], "configuration_unreadable"),
                    (["lisen"], "wrong_usage"), (["run"], "wrong_usage"), ([], "wrong_usage"),
                    (["listen"], "wrong_usage"), (["run", "--bogus"], "wrong_usage")]
            for arguments, code in runs:
                line = support.call(*arguments).stderr.decode()
                self.assertEqual(explain(line)[0]["code"], code, line)


class Language(unittest.TestCase):
    def text_with(self, *options, **environment):
        kept = {name: value for name, value in os.environ.items() if not name.startswith(("LC_", "LANG"))}
        return support.call("explain", *options, "silent", env={**kept, **environment}).stdout.decode()

    def test_is_that_of_the_environment(self):
        english, korean = self.text_with("--lang", "en"), self.text_with("--lang", "ko")
        self.assertTrue(HANGUL.search(korean) and not HANGUL.search(english))
        self.assertEqual(self.text_with(), english)
        self.assertEqual(self.text_with(LANG="ko_KR.UTF-8"), korean)
        self.assertEqual(self.text_with(LANG="ko_KR.UTF-8", LC_ALL="C"), english)
        self.assertEqual(self.text_with(LANG="en_US.UTF-8", LC_MESSAGES="ko_KR.UTF-8"), korean)

    def test_may_be_chosen(self):
        both = self.text_with("--lang", "both", LANG="ko_KR.UTF-8")
        self.assertEqual(both, self.text_with("--lang", "en") + self.text_with("--lang", "ko"))
        self.assertIn("  meaning: ", both)
        self.assertIn("  의미: ", both)
        self.assertEqual(support.call("explain", "--lang", "fr", "silent").returncode, 2)


if __name__ == "__main__":
    support.main()
