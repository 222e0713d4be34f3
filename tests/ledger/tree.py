"""What the house checks share: the tree's files, C++ without comments, and one way to report."""

import re
import sys
from pathlib import Path

SOURCE_FOLDERS = ("Center", "Host", "Reference_Host", "Reference_Center", "tests", "bench", "examples")
CPP_SUFFIXES = {".hpp", ".cpp"}

# A comment, a string or a character; the longest one that starts at a place wins by standing first.
_TOKEN = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"(?P<raw>[^(]*)\(.*?\)(?P=raw)"|"(?:\\.|[^"\\\n])*"|(?<!\w)\'(?:\\.|[^\'\\\n])+\'', re.DOTALL)


def cpp_files(root):
    """All C++ files of the tree as paths relative to its root, sorted."""
    root = Path(root)
    found = (path for folder in SOURCE_FOLDERS for path in (root / folder).rglob("*"))
    return sorted(path.relative_to(root) for path in found if path.suffix in CPP_SUFFIXES)


def read(root, path):
    return (Path(root) / path).read_text(encoding="utf-8")


def _blank(text):
    return re.sub(r"[^\n]", " ", text)


def without_comments(text, keep_strings=False):
    """The text with comments, and strings if asked, replaced by spaces, so that lines and columns stay."""

    def replace(match):
        token = match.group()
        if token.startswith("/"):
            return _blank(token)
        return token if keep_strings else token[0] + _blank(token[1:-1]) + token[-1]

    return _TOKEN.sub(replace, text)


def line_of(text, position):
    return text.count("\n", 0, position) + 1


def report(check, findings):
    """Prints the findings, one a line, and ends the program: 0 without any, else 1."""
    for finding in findings:
        print(finding)
    print(f"{check}: {len(findings)} finding(s)")
    sys.exit(1 if findings else 0)
