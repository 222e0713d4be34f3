#!/usr/bin/env python3
"""Checks which of the relay's functions mention what callers.txt is about. Usage: callers.py ROOT"""

import re
import sys
from collections import Counter
from pathlib import Path

import house_rules
import tree

TABLE = "tests/ledger/callers.txt"
ATTRIBUTE = re.compile(r"\[\[.*?\]\]")
FUNCTION_NAME = re.compile(r"([~\w]+)\s*\(")


def rows(root):
    """The table as (name, how often each place may mention it)."""
    lines = (line.strip() for line in tree.read(root, TABLE).splitlines())
    return [(name.strip(), Counter(places.split()))
            for name, _, places in (line.partition(" : ") for line in lines if line and not line.startswith("#"))]


def named_functions(text):
    """Each function's (name, where its head begins, where its body begins, where it ends)."""
    for start, end in house_rules.functions(text):
        body = text.index("{", start)
        name = FUNCTION_NAME.search(ATTRIBUTE.sub("", text[start:body]))
        yield (name[1], start, body, end) if name else ("outside", start, start, end)  # a lambda among initialisers


def place_of(functions, position):
    """The function whose body a position is in; None for a function's head, which only declares."""
    for name, start, body, end in functions:
        if start <= position < end:
            return name if position >= body else None
    return "outside"


def relay_texts(root):
    """Each of the relay's files with its functions and its text without comments and strings."""
    for path in sorted((Path(root) / house_rules.RELAY).glob("*.[ch]pp")):
        text = tree.without_comments(path.read_text(encoding="utf-8"))
        yield path.name, list(named_functions(text)), text


def mentions(files, name):
    pattern = re.compile(rf"(?<!\w){re.escape(name)}(?!\w)")
    places = ((file, place_of(functions, match.start()))
              for file, functions, text in files for match in pattern.finditer(text))
    return Counter(f"{file}:{place}" for file, place in places if place is not None)


def findings(root):
    files = list(relay_texts(root))
    for name, expected in rows(root):
        found = mentions(files, name)
        for place in sorted(found.keys() | expected.keys()):
            if found[place] != expected[place]:
                yield f"{name}: {found[place]} mention(s) in {place}, {TABLE} has {expected[place]}"


if __name__ == "__main__":
    tree.report("callers", list(findings(sys.argv[1])))
