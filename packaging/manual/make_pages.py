#!/usr/bin/env python3
"""Writes the manual pages: those of the commands and of zolt.ini from what the program tells about itself, that of the
messages from the table that it explains them by, that of the operations from the relay's public header. What nothing else
knows stands in parts/, one file a page.

Usage: make_pages.py PROGRAM SOURCE FOLDER
"""

import json
import re
import subprocess
import sys
from pathlib import Path

PARTS = Path(__file__).resolve().parent / "parts"


# --- roff -------------------------------------------------------------------------------------------------------


def escape(text, *, is_literal=False):
    """Text as roff shows it; literal: every dash stays one that can be copied into a shell."""
    text = text.replace("\\", "\\e").replace("'", "\\(aq").replace("`", "\\(ga").replace("^", "\\(ha").replace("~", "\\(ti")
    if is_literal:
        return text.replace("-", "\\-")
    # An option inside a sentence.
    return re.sub(r"(?<![\w-])(-{1,2})(?=\w)", lambda dashes: "\\-" * len(dashes[1]), text)


def bold(text):
    return f"\\fB{escape(text, is_literal=True)}\\fR"


def italic(text):
    return f"\\fI{escape(text, is_literal=True)}\\fR"


def paragraphs(text):
    """Prose as paragraphs, indented lines as they stand."""
    for block in re.split(r"\n\s*\n", text.strip("\n")):
        for is_example, lines in group(block.splitlines()):
            if is_example:
                yield from (".PP", ".RS 4", ".nf", *(escape(line.strip(), is_literal=True) for line in lines), ".fi", ".RE")
            else:
                yield from (".PP", escape(" ".join(line.strip() for line in lines)))


def group(lines):
    """Runs of lines that are indented, or are not."""
    runs = []
    for line in lines:
        is_example = line.startswith("  ")
        if not runs or runs[-1][0] != is_example:
            runs.append((is_example, []))
        runs[-1][1].append(line)
    return runs


def tagged(tag, text):
    yield from (".TP", tag, escape(text))


class Page:
    def __init__(self, name, section, version, summary):
        self.file = f"{name.replace(' ', '-')}.{section}"
        title = name.replace(" ", "-").upper()
        self.lines = [f'.TH "{escape(title, is_literal=True)}" {section} "" "INet_Relay {version}" "INet_Relay"', ".SH NAME",
                      f"{escape(name.replace(' ', '-'), is_literal=True)} \\- {escape(summary)}"]

    def section(self, title, *lines):
        self.lines += [f'.SH "{title}"', *lines]

    def finish(self, folder, see_also):
        part = PARTS / f"{self.file}.roff"
        if part.exists():
            self.lines += part.read_text(encoding="utf-8").splitlines()
        others = (other.rpartition(".") for other in see_also if other != self.file)
        self.section("SEE ALSO", ",\n".join(f"\\%{bold(name)}({number})" for name, _, number in others))
        Path(folder, self.file).write_text("\n".join(self.lines) + "\n", encoding="utf-8")


# --- commands ---------------------------------------------------------------------------------------------------


def is_positional(option):
    return not option["names"]


def synopsis(command):
    words = [bold(command["path"])]
    if command["commands"]:
        return " ".join([*words, italic("COMMAND"), "..."])
    words.append("[\\fIOPTION\\fR]...")
    for option in filter(is_positional, command["options"]):
        words.append(italic(option["value"]) if option["required"] else f"[{italic(option['value'])}]")
    return " ".join(words)


def option_lines(options):
    for option in options:
        names = ", ".join(bold(name) for name in option["names"])
        tag = " ".join(filter(None, (names, italic(option["value"]) if option["value"] else "")))
        notes = "".join((". Must be given" if option["required"] and option["names"] else "",
                         f". Default: {option['default']}" if option["default"] else ""))
        yield from tagged(tag, f"{option['help']}{notes}.")


def describe(command):
    yield from paragraphs(f"{command['help']}.")
    yield from paragraphs(command["footer"]) if command["footer"] else ()


def command_page(command, version):
    page = Page(command["path"], 1, version, command["help"][0].lower() + command["help"][1:])
    page.section("SYNOPSIS", *(line for each in command["commands"] or [command] for line in (synopsis(each), ".br")))
    page.section("DESCRIPTION", *describe(command))
    page.section("OPTIONS", *option_lines(command["options"]))
    for below in command["commands"]:
        page.section(below["path"].partition(" ")[2].upper(), *describe(below), *option_lines(below["options"]))
    page.section("EXIT STATUS", "As for", ".BR zolt\\-center (1).")
    return page


def program_page(program, version):
    codes, _, rest = program["footer"].partition(".\n")
    page = Page(program["path"], 1, version, "a Center on the relay, and the tools around it")
    page.section("SYNOPSIS", synopsis(program))
    page.section("DESCRIPTION", *paragraphs(program["help"]), *paragraphs(rest))
    page.section("COMMANDS", *(line for command in program["commands"] for line in tagged(
        bold(command["path"].partition(" ")[2]), f"{command['help']}.")))
    page.section("OPTIONS", *option_lines(program["options"]))
    found = re.findall(r"(\d+) ([^,]+)", " ".join(codes.split()))
    page.section("EXIT STATUS", *(line for code, meaning in found for line in tagged(bold(code), f"{meaning}.")))
    return page


# --- configuration ----------------------------------------------------------------------------------------------


def key_lines(key):
    yield from tagged(f"{bold(key['name'])} = {italic(key['default'])}", f"{key['kind'].capitalize()}. Effect: {key['effect']}.")
    if key["effect_off"] and key["effect_off"] != key["effect"]:
        yield from (".IP", escape(f"Off: {key['effect_off']}."))


def configuration_page(keys, version):
    page = Page("zolt.ini", 5, version, "configuration of the relay")
    page.section("KEYS", "In the section", "\\fB[ZOLT]\\fR, each with its default.",
                 *(line for key in keys for line in key_lines(key)))
    return page


# --- messages ---------------------------------------------------------------------------------------------------


def read_messages(table):
    """(code, texts, sentences by name) of each entry, below the titles of the groups; the table tells how it is written."""
    groups = []
    for line in table.splitlines():
        kind, _, text = line.partition(": ")
        if line.startswith("== "):
            groups.append((line[3:].split(" | ")[1], []))
        elif line.startswith("["):
            groups[-1][1].append((line.strip("[]"), [], {}))
        elif kind in ("text", "exact"):
            groups[-1][1][-1][1].append(text)
        elif kind in ("meaning", "cause", "next"):
            groups[-1][1][-1][2][kind] = text
    return groups


def message_lines(code, texts, sentences):
    yield from tagged(bold(code), sentences["meaning"])
    yield from (f".br\n{italic(text)}" for text in texts)
    yield from (f".br\n{kind.capitalize()}: {escape(sentences[kind])}" for kind in ("cause", "next"))


def messages_page(groups, version):
    page = Page("zolt-messages", 7, version, "what the relay and zolt-center print, and their codes")
    page.section("DESCRIPTION", *paragraphs(
        "Each code with the texts that it stands for, as printed; what stands in braces is filled in. "
        "\"zolt-center explain\" tells the same of one line, in Korean too."))
    for title, entries in groups:
        page.section(title.upper(), *(line for entry in entries for line in message_lines(*entry)))
    return page


# --- operations -------------------------------------------------------------------------------------------------


def operations(header):
    """(declarations, contract) of each contract in the header, the engine's own names left out."""
    text = re.sub(r"^namespace EPoll \{.*?^\} // namespace EPoll\n", "", header, flags=re.DOTALL | re.MULTILINE)
    for match in re.finditer(r"((?:^///.*\n)+)((?:^(?!///|$|\}).*\n)+)", text, re.MULTILINE):
        contract = " ".join(line[3:].strip() for line in match[1].splitlines())
        declared = re.sub(r"\s*\{.*", ";", re.sub(r" HOST_\w+", "", match[2]), flags=re.DOTALL)
        yield [" ".join(each.split()) + ";" for each in declared.split(";") if each.strip()], contract


def operations_page(header, version):
    page = Page("inet_relay", 3, version, "operations of the relay")
    page.section("SYNOPSIS", ".nf", "\\fB#include <Center/INet_Relay/EPoll/inet_relay_epoll.hpp>\\fR",
                 "\\fBnamespace Zolt::Center::INet_Relay\\fR", ".fi")
    intro = [line[2:].strip() for line in header.partition("#ifndef")[0].splitlines()]
    page.section("DESCRIPTION", *paragraphs("\n".join(intro)))
    lines = []
    for declarations, contract in operations(header):
        lines += [".PP", ".nf", *(bold(declaration) for declaration in declarations), ".fi", ".RS 4", escape(contract), ".RE"]
    page.section("OPERATIONS", *lines)
    return page


def main(program, source, folder):
    header, table = (Path(source, name).read_text(encoding="utf-8") for name in (
        "Center/INet_Relay/EPoll/inet_relay_epoll.hpp", "Reference_Center/messages.txt"))
    told = json.loads(subprocess.run((program, "manual"), check=True, capture_output=True, text=True).stdout)
    version = told["version"]
    pages = [program_page(told["program"], version), *(command_page(each, version) for each in told["program"]["commands"]),
             configuration_page(told["keys"], version), messages_page(read_messages(table), version),
             operations_page(header, version)]
    Path(folder).mkdir(parents=True, exist_ok=True)
    commands = [page.file for page in pages if page.file.startswith("zolt-center-")]
    common = [page.file for page in pages if page.file not in commands]
    for page in pages:
        page.finish(folder, [*commands, *common] if page.file == "zolt-center.1" else common)


if __name__ == "__main__":
    main(*sys.argv[1:])
