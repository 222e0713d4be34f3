"""Real Centers that talk over the loopback of a network of their own, with a capture of it.

Usage, as root of a fresh network namespace: record_centers.py PROGRAM FOLDER. Leaves capture.pcap and said.json there.
"""

import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
from pathlib import Path

import dissection  # noqa: F401 pylint: disable=unused-import # finds center_support
import center_support as support

PORT, DATAGRAM_PORT = 7000, 7001
LINES = [f"line {number}\n".encode() for number in range(20)]
FILE = bytes(number * 7 & 255 for number in range(300000))
CALLS = 5
# A heartbeat, which has no data, behind a TCP header with the port in the place of the sender's or the receiver's.
BEAT = re.escape(support.make_packet(kind=support.HEARTBEAT)[:9])
BEATS = [re.compile(ends + b".{28}" + BEAT, re.DOTALL)
         for ends in (re.escape(struct.pack(">H", PORT)) + b"..", b".." + re.escape(struct.pack(">H", PORT)))]


class Recording:
    """What passes the loopback goes into a file, until everything sent before the end is in there."""

    def __init__(self, path):
        self.path = path
        self.process = subprocess.Popen(["dumpcap", "-q", "-i", "lo", "-P", "-w", path], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        for line in self.process.stderr:
            if line.startswith("File:"):
                return
        raise RuntimeError("dumpcap does not record")

    def wait_for_beats(self):
        """From and to the Center that serves."""
        support.wait_until(self.path.read_bytes, lambda seen: all(beat.search(seen) for beat in BEATS))

    def end(self):
        mark, deadline = os.urandom(16), time.monotonic() + support.DEADLINE
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            while mark not in self.path.read_bytes():
                if time.monotonic() > deadline:
                    raise RuntimeError("the recording does not go on")
                sender.sendto(mark, ("127.0.0.1", 9))
                threading.Event().wait(0.02)
        self.process.send_signal(signal.SIGINT)
        self.process.communicate(timeout=support.DEADLINE)


def run(*arguments, **options):
    result = support.call(*arguments, **options)
    if result.returncode != 0:
        raise RuntimeError(f"{arguments} ended with {result.returncode}: {result.stderr.decode()}")


def talk(recording):
    """Peers come to one Center one after the other; what it says in the end."""
    with support.Running("run", "--listen", PORT, "--echo", "--json") as center:
        center.wait_for("stdout", "ready")
        here = f"127.0.0.1:{PORT}"
        run("send", "--to", here, "--lines", *support.WAITING, input=b"".join(LINES))
        run("send", "--to", here, *support.WAITING, input=FILE)
        run("ping", "--to", here, "--count", CALLS, *support.CALLING)
        with support.Running("run", "--connect", here) as peer:
            peer.wait_for("stderr", " connected ")
            recording.wait_for_beats()
            peer.signal(signal.SIGTERM)
            peer.finish()
        run("send", "--udp", "--to", f"127.0.0.9:{DATAGRAM_PORT}", "--lines", input=b"".join(LINES))
        center.signal(signal.SIGTERM)
        code, out, err = center.finish()
    if code != 0:
        raise RuntimeError(err)
    return json.loads(out.splitlines()[-1])


def main():
    support.PROGRAM, folder = sys.argv[1], Path(sys.argv[2])
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    recording = Recording(folder / "capture.pcap")
    said = talk(recording)
    recording.end()
    (folder / "said.json").write_text(json.dumps(said), encoding="utf-8")


if __name__ == "__main__":
    main()
