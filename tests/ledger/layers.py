#!/usr/bin/env python3
"""Checks every include of the tree against layers.txt. Usage: layers.py ROOT"""

import re
import sys
from fnmatch import fnmatchcase
from pathlib import Path

import tree

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*(?:"(?P<quoted>[^"]+)"|<(?P<angled>[^>]+)>)', re.MULTILINE)
TABLE = "tests/ledger/layers.txt"
ENGINE_HEADER = "Center/INet_Relay/EPoll/epoll.hpp"
ENGINE_NAME = re.compile(r"\bEPoll\b")


def rows(root):
    """The table as (pattern, what it may include)."""
    lines = (line.strip() for line in tree.read(root, TABLE).splitlines())
    return [(pattern.strip(), allowed.split())
            for pattern, _, allowed in (line.partition(" : ") for line in lines if line and not line.startswith("#"))]


def own_header(path):
    return Path(path).with_suffix(".hpp").as_posix()


def allows_quoted(allowed, path, name):
    return any(name == own_header(path) if item == "OWN" else fnmatchcase(name, item) for item in allowed)


def allows_angled(allowed, name):
    items = [item[1:-1] for item in allowed if item.startswith("<")]
    if not items:
        return True
    return any("." not in name and "/" not in name if item == "std" else fnmatchcase(name, item) for item in items)


def resolves(root, path, name):
    """A quoted name starts at the root, or at the folder that takes the place of Host/."""
    starts = [Path(root)] + ([Path(root) / "tests/second_host"] if path.parts[:2] == ("tests", "second_host") else [])
    return any((start / name).is_file() for start in starts)


def engine_names(path, text, allowed):
    """Whoever may not include the engine's headers may not write down its names instead."""
    if path.parts[0] == "Center" or allows_quoted(allowed, path, ENGINE_HEADER):
        return
    for match in ENGINE_NAME.finditer(text):
        yield f"{path}:{tree.line_of(text, match.start())}: may not name what is the engine's"


def check_file(root, path, allowed):
    text = tree.without_comments(tree.read(root, path), keep_strings=True)
    for match in INCLUDE.finditer(text):
        where = f"{path}:{tree.line_of(text, match.start('quoted') if match['quoted'] else match.start('angled'))}"
        if match["quoted"]:
            if not resolves(root, path, match["quoted"]):
                yield f"{where}: {match['quoted']} is not written from the root of the tree"
            elif not allows_quoted(allowed, path, match["quoted"]):
                yield f"{where}: may not include {match['quoted']}"
        elif not allows_angled(allowed, match["angled"]):
            yield f"{where}: may not include <{match['angled']}>"


def findings(root):
    table = rows(root)
    for path in tree.cpp_files(root):
        allowed = next((allowed for pattern, allowed in table if fnmatchcase(path.as_posix(), pattern)), None)
        if allowed is None:
            yield f"{path}: no row of {TABLE} speaks of this file"
        else:
            yield from check_file(root, path, allowed)
            yield from engine_names(path, tree.without_comments(tree.read(root, path)), allowed)


if __name__ == "__main__":
    tree.report("layers", list(findings(sys.argv[1])))
