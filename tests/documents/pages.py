"""Reading the documents: their fenced blocks, their links, their tables."""

import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FENCE = re.compile(r"^```(?P<language>\S*)[^\n]*\n(?P<text>.*?)^```$", re.MULTILINE | re.DOTALL)
LINK = re.compile(r"\[[^\]]*\]\((?P<target>[^)\s]+)\)")
NAMED_FILE = re.compile(r"`(?P<path>[\w-][\w.-]*/[\w./-]+\.(?:md|hpp|cpp|py|ini|cmake|service|conf|csv|lua))`")
HEADING = re.compile(r"^#+ (?P<title>.*)$", re.MULTILINE)


class Block:
    """A fenced block: its language, its text, and the line of the page it begins in."""

    def __init__(self, page, match, text):
        self.language, self.text = match["language"], match["text"]
        self.where = f"{page}:{text.count(chr(10), 0, match.start()) + 1}"


def read(page):
    return (ROOT / page).read_text(encoding="utf-8")


def all_pages():
    """Every document of the tree, as paths relative to its root."""
    found = [*ROOT.glob("*.md"), *ROOT.glob("docs/**/*.md"), *ROOT.glob("bench/*.md"), *ROOT.glob("packaging/**/*.md")]
    return sorted(path.relative_to(ROOT) for path in found)


def blocks(page):
    text = read(page)
    return [Block(page, match, text) for match in FENCE.finditer(text)]


def prose(page):
    """The page without its fenced blocks."""
    return FENCE.sub("", read(page))


def anchors(page):
    """What a link to a heading of the page may say behind the #."""
    titles = (re.sub(r"[^\w\s-]", "", match["title"].lower()) for match in HEADING.finditer(prose(page)))
    return {title.strip().replace(" ", "-") for title in titles}


def table(page, head):
    """The rows of the table with these column names, as lists of cells."""
    lines = read(page).splitlines()
    row = "| " + " | ".join(head) + " |"
    if row not in lines:
        raise AssertionError(f"{page} has no table with the head {row}")
    start = lines.index(row) + 2
    rows = []
    for line in lines[start:]:
        if not line.startswith("|"):
            break
        rows.append([cell.strip() for cell in line.strip("|").split("|")])
    return rows
