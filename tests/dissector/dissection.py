"""What the tests of the dissector share: tshark with the script on a capture, and what it showed as packets again."""

import json
import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SCRIPT = ROOT / "packaging/wireshark/zolt.lua"
STRICT = Path(__file__).with_name("strict.lua")
DEADLINE = 120
SKIPPED = 77
# tshark says these on standard error whatever the script does.
HARMLESS = ("Running as user ",)

sys.path.insert(0, str(ROOT / "tests/wire"))
import hand_peer  # noqa: E402 pylint: disable=wrong-import-position


def main():
    """Entry of each test file. Ends with 77 when every test was skipped."""
    result = unittest.main(module="__main__", exit=False).result
    if result.wasSuccessful() and result.testsRun == len(result.skipped):
        sys.exit(SKIPPED)
    sys.exit(0 if result.wasSuccessful() else 1)


def run_tshark(*arguments):
    """Its output. Nobody's preferences and no other plugins are in the way; an error of the script fails the test."""
    with tempfile.TemporaryDirectory() as empty:
        environment = dict(os.environ, HOME=empty, XDG_CONFIG_HOME=empty, WIRESHARK_CONFIG_DIR=empty,
                           WIRESHARK_PLUGIN_DIR=empty, LC_ALL="C.UTF-8", TZ="UTC")
        scripts = [word for script in (STRICT, SCRIPT) for word in ("-X", f"lua_script:{script}")]
        result = subprocess.run(["tshark", *map(str, arguments), *scripts], env=environment, stdin=subprocess.DEVNULL,
                                capture_output=True, text=True, timeout=DEADLINE, check=False)
    complaints = [line for line in result.stderr.splitlines() if line and not line.startswith(HARMLESS)]
    if result.returncode != 0 or complaints:
        raise AssertionError(f"tshark ended with {result.returncode} and said {complaints}")
    return result.stdout


def read_capture(path, *options):
    """What tshark says about a capture."""
    output = run_tshark("-n", "-r", path, *options)
    for word in ("Lua Error", "Exception occurred", "Dissector bug"):
        if word in output:
            place = output.index(word)
            raise AssertionError(f"the script failed: {output[place:place + 300]}")
    return output


def flatten(tree):
    """All names and values of one item of tshark's JSON, with those of the items below it."""
    for name, value in tree.items():
        for one in value if isinstance(value, list) else [value]:
            if isinstance(one, dict):
                yield name, ""
                yield from flatten(one)
            else:
                yield name, one


class Piece:
    """One block, packet or run of unknown bytes, as tshark showed it."""

    def __init__(self, tree):
        self.values = dict(flatten(tree))

    def __getitem__(self, name):
        return self.values[f"zolt.{name}"]

    def number(self, name):
        return int(self[name], 0)

    def bytes(self, name):
        return bytes.fromhex(self.values.get(f"zolt.{name}", "").replace(":", ""))

    def has(self, name):
        return f"zolt.{name}" in self.values

    @property
    def what(self):
        names = {"magic": "packet", "block.sender_port": "block", "continuation": "unknown"}
        return next((what for name, what in names.items() if self.has(name)), "beginning")

    def end(self, side):
        return self[f"{side}_ip"], self.number(f"{side}_port"), self.number(f"{side}_id")

    def packet(self):
        """The packet that its fields tell of."""
        fields = ("data_size", "detail", "flags", "error", "code", "sequence", "creation_clock", "timeout", "elapsed",
                  "version", "header_size")
        return hand_peer.Packet(kind=self.number("kind"), data=self.bytes("data"), source=self.end("source"),
                                destination=self.end("destination"), magic=self.number("magic").to_bytes(4, "big"),
                                **{name: self.number(name) for name in fields})

    def shown_bytes(self):
        """The bytes that it was made from, put together from what is shown."""
        if self.what == "block":
            return hand_peer.opening_block(self.number("block.sender_port"), self.number("block.receiver_port"))[:4] + \
                self.bytes("block.rest")
        return self.packet().pack() if self.what == "packet" else self.bytes("continuation")


def dissect(capture, *options, longest=0xFFFF):
    """For each packet of the capture the pieces that tshark shows in it."""
    with tempfile.NamedTemporaryFile(suffix=".pcap") as file:
        capture.write(file.name, longest)
        return dissect_file(file.name, *options)


class Frame(list):
    """The pieces in one packet of the capture, with the fields of its TCP or UDP header where those were asked for."""

    def __init__(self, layers):
        shown = layers.get("zolt", [])
        super().__init__(Piece(tree) for tree in (shown if isinstance(shown, list) else [shown]))
        self.transport = dict(flatten(layers.get("tcp") or layers.get("udp") or {}))

    def ports(self):
        protocol = "tcp" if "tcp.srcport" in self.transport else "udp"
        return tuple(int(self.transport[f"{protocol}.{side}port"]) for side in ("src", "dst"))


def dissect_file(path, *options, layers="zolt"):
    output = read_capture(path, "-T", "json", "--no-duplicate-keys", "-J", layers, *options)
    return [Frame(frame["_source"]["layers"]) for frame in json.loads(output)]


def list_lines(capture, *options):
    """For each packet of the capture its line in the list, from the protocol on."""
    with tempfile.NamedTemporaryFile(suffix=".pcap") as file:
        capture.write(file.name)
        rows = read_capture(file.name, "-T", "tabs", *options).splitlines()
    return [" ".join(row.split("\t")[5:]) for row in rows]
