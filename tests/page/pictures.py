#!/usr/bin/env python3
"""Takes the pictures of the live page: Centers in network namespaces of their own with traffic between them, a peer that is
killed, and one that refuses. Usage: pictures.py PROGRAM FOLDER [SECONDS]. Needs what the tests of the folder hosts need."""

import re
import signal
import subprocess
import sys
import threading
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "hosts"))
import lab  # noqa: E402
from browser import Browser, wait_for  # noqa: E402

LARGEST = 250_000
PORT = 7000
# Pause between two packets in seconds, bytes of a packet: hosts that call the Center in the middle, hosts whose data comes
# back as an echo, and hosts that are called by the Center.
CALLERS = [(0.004, 1400), (0.02, 64), (0.1, 8000)]
SENDERS = [(0.003, 1200), (0.01, 16000), (0.25, 100)]
CALLED = [(0.006, 900), (0.05, 4000)]


class Story:
    """The Center in the middle on the first host, the others around it; the last host answers nobody."""

    def __init__(self, program):
        self.program = program
        self.switch = lab.Switch(1 + len(CALLERS) + len(SENDERS) + len(CALLED) + 1)
        self.hosts = self.switch.hosts
        self.running = []
        self.is_over = threading.Event()
        self.address = None

    def start(self, host, *arguments, **options):
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, **options}
        process = subprocess.Popen(host.inside(self.program, *map(str, arguments)), cwd="/", stderr=subprocess.DEVNULL, **options)
        self.running.append(process)
        return process

    def begin(self):
        """The programs that call the Center in the middle, once all have been started."""
        called = self.hosts[len(CALLERS) + len(SENDERS) + 1:]
        for host, (pause, size) in zip(called, CALLED):
            self.call(host, "--port", PORT, pause, size)
        destinations = [argument for host in called for argument in ("--connect", f"{host.ip}:{PORT}")]
        center = self.start(self.hosts[0], "run", "--listen", PORT, "--echo", *destinations, "--admin", "127.0.0.1:0",
                            stdout=subprocess.PIPE, text=True)
        self.address = re.search(r"http://[\d.:]+/", center.stdout.readline())[0]
        middle = f"{self.hosts[0].ip}:{PORT}"
        for host, (pause, size) in zip(self.hosts[1 + len(CALLERS):], SENDERS):
            sender = self.start(host, "send", "--to", middle, "--lines", "--size", 65536, "--wait", 60, stdin=subprocess.PIPE)
            threading.Thread(target=self.feed, args=(sender.stdin, pause, size), daemon=True).start()
        return [self.call(host, "--to", middle, pause, size) for host, (pause, size) in zip(self.hosts[1:], CALLERS)]

    def call(self, host, how, where, pause, size):
        return self.start(host, "ping", how, where, "--count", 10**6, "--interval", pause, "--size", size, "--wait", 60)

    def feed(self, pipe, pause, size):
        line = b"x" * (size - 1) + b"\n"
        while not self.is_over.wait(pause):
            pipe.write(line)
            pipe.flush()

    def end(self):
        self.is_over.set()
        for process in self.running:
            process.kill()
            process.wait()


def take(browser, file, width, height, scheme):
    browser.resize(width, height)
    browser.prefer_colours(scheme)
    wait_for("the colours are used", lambda: browser.run(
        "return matchMedia(`(prefers-color-scheme: ${arguments[0]})`).matches && innerWidth === arguments[1]", scheme, width))
    browser.run("scrollTo(0, 0)")
    threading.Event().wait(1)  # what moves has come to rest
    browser.picture(file)
    if file.stat().st_size > LARGEST:
        sys.exit(f"{file} has {file.stat().st_size} bytes, at most {LARGEST}")


def main():
    lab.isolate()
    program, folder = (Path(argument).resolve() for argument in sys.argv[1:3])
    seconds = float(sys.argv[3]) if len(sys.argv) > 3 else 270
    folder.mkdir(parents=True, exist_ok=True)
    story = Story(program)
    callers = story.begin()
    with lab.entered(story.hosts[0].name), Browser() as browser:
        browser.resize(1280, 940)
        browser.open(story.address)
        # The charts fill while one caller pauses now and then.
        for turn in range(round(seconds / 5)):
            callers[0].send_signal(signal.SIGSTOP if turn % 4 == 1 else signal.SIGCONT)
            story.is_over.wait(5)
        callers[0].send_signal(signal.SIGCONT)
        callers[1].kill()
        wait_for("the killed one is red", lambda: browser.run("return document.querySelector('.drawing .gone')"))
        take(browser, folder / "page-light.png", 1280, 940, "light")
        take(browser, folder / "page-dark.png", 1280, 940, "dark")
        take(browser, folder / "page-phone.png", 360, 780, "light")
    story.end()


if __name__ == "__main__":
    main()
