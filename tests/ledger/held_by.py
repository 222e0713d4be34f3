#!/usr/bin/env python3
"""Checks that each entry of docs/decisions.md and each row of docs/known-limits.md says what holds it, and that what it
names is there.

Usage: held_by.py ROOT. A name is a test ("suite.test"), a test as ctest lists it, or a path from the root.
"""

import ast
import re
import sys
from pathlib import Path

import tree

DECISIONS = "docs/decisions.md"
ENTRY = re.compile(r"^(?P<number>\d+)\. (?P<text>.*?)(?=^\d+\. |^#|\Z)", re.MULTILINE | re.DOTALL)
HELD_BY = re.compile(r"^ +Held by: (?P<what>.*)\Z", re.MULTILINE | re.DOTALL)
REASON = re.compile(r"nothing; \w+(?: \S+){2}")
NAME = re.compile(r"`([^`]+)`")

LIMITS = "docs/known-limits.md"
COLUMN = "held by"
RULE = re.compile(r"[|: -]+")

GTEST = re.compile(r"^TEST(?:_[FP])?\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.MULTILINE)
CTEST = re.compile(r"add_test\(NAME (\w+)\.(\$\{)?(\w+)(?![\w$])")
CMAKE_FUNCTION = re.compile(r"^function\((\w+) (\w+)[^)]*\)(.*?)^endfunction", re.MULTILINE | re.DOTALL)


def gtests(root):
    for path in tree.cpp_files(root):
        if path.parts[0] == "tests":
            yield from (".".join(names) for names in GTEST.findall(tree.read(root, path)))


def unittests(root):
    for path in (Path(root) / "tests").rglob("*_test.py"):
        for top in ast.parse(path.read_text(encoding="utf-8"), path).body:
            if isinstance(top, ast.ClassDef):
                yield from (f"{top.name}.{step.name}" for step in top.body
                            if isinstance(step, ast.FunctionDef) and step.name.startswith("test_"))


def ctests(root):
    """Tests under their own name, and those whose name is the first argument of a function that adds them."""
    for path in (Path(root) / "tests").rglob("*"):
        if path.name != "CMakeLists.txt" and path.suffix != ".cmake":
            continue
        text = path.read_text(encoding="utf-8")
        yield from (f"{prefix}.{name}" for prefix, is_variable, name in CTEST.findall(text) if not is_variable)
        for function, argument, body in CMAKE_FUNCTION.findall(text):
            prefixes = [prefix for prefix, is_variable, name in CTEST.findall(body) if is_variable and name == argument]
            calls = re.findall(rf"^ *{function}\((\w+)", text, re.MULTILINE)
            yield from (f"{prefix}.{name}" for prefix in prefixes for name in calls)


def decisions(text):
    """Each entry's number, what it says holds it (None when it does not say), and that a reason may stand for a test."""
    for entry in ENTRY.finditer(text):
        held_by = HELD_BY.search(entry["text"].rstrip())
        yield entry["number"], held_by and held_by["what"], True


def limits(text):
    """The same of each row of a table with the column; only a test can hold the figure that a row gives."""
    rows = [[cell.strip() for cell in line.strip().strip("|").split("|")] for line in text.splitlines()
            if line.startswith("|") and not RULE.fullmatch(line)]
    head = rows[0] if rows else []
    if COLUMN not in head:
        yield "its table", None, False
    for row in rows[1:]:
        yield row[0], dict(zip(head, row)).get(COLUMN), False


def complaints(root, what, may_be_a_reason, known):
    """What is wrong with one entry or row."""
    if what is None:
        yield "does not say what holds it"
        return
    names = NAME.findall(what)
    if not names and not (may_be_a_reason and REASON.match(what)):
        yield 'names neither a test nor, after "nothing; ", a reason' if may_be_a_reason else "names no test"
    for name in names:
        is_path = "/" in name and (Path(root) / name).exists()
        if name not in known and not is_path:
            yield f"{name}: there is no such test"


def findings(root):
    known = {*gtests(root), *unittests(root), *ctests(root)}
    for page, claims in ((DECISIONS, decisions), (LIMITS, limits)):
        for where, what, may_be_a_reason in claims(tree.read(root, page)):
            yield from (f"{page}: {where}: {complaint}"
                        for complaint in complaints(root, what, may_be_a_reason, known))


if __name__ == "__main__":
    tree.report("held by", list(findings(sys.argv[1])))
