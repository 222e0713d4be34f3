"""Chromium without a window, driven by the WebDriver protocol with nothing but the standard library."""

import atexit
import base64
import contextlib
import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import urllib.error
import urllib.request

DEADLINE = 120
NO_PROXY = urllib.request.build_opener(urllib.request.ProxyHandler({}))
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"
# Nothing that leaves this machine, nothing that starts later; neither a sandbox, which root and containers cannot have and
# pages of our own do not need, nor shared memory.
FLAGS = ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--disable-background-networking",
         "--disable-sync", "--disable-component-update", "--disable-default-apps", "--disable-extensions", "--no-first-run",
         "--hide-scrollbars", "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1", "--window-size=1280,900")


def wait_for(what, condition, deadline=DEADLINE):
    """Asks again and again until the condition gives something; that."""
    end = time.monotonic() + deadline
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() > end:
            raise AssertionError(f"not within {deadline} s: {what}")
        threading.Event().wait(0.02)


class Pace:
    """How long the page takes to show something new, measured on a figure just before it matters: within the time that is
    promised, or within three times what this machine takes for a figure when it is too busy for the promise."""

    def __init__(self, promise, show_figure):
        began = time.monotonic()
        show_figure()
        self.longest = max(promise, 3 * (time.monotonic() - began))
        self.began = time.monotonic()

    def is_kept(self):
        return time.monotonic() - self.began < self.longest


def is_here():
    return shutil.which("chromium") is not None and shutil.which("chromedriver") is not None


class Browser:
    """One browser with one page. Its processes and its profile go when it does."""

    def __init__(self):
        self.profile = tempfile.mkdtemp(prefix="page_test_")
        self.driver = subprocess.Popen(["chromedriver", "--port=0"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                       stderr=subprocess.DEVNULL, text=True, start_new_session=True,
                                       env={**os.environ, "HOME": self.profile, "TMPDIR": self.profile})
        self.session = None
        # A test that is ended from outside ends its browser too.
        atexit.register(self.close)
        signal.signal(signal.SIGTERM, self.leave)
        try:
            self.base = f"http://127.0.0.1:{self.read_port()}"
            self.session = self.call("POST", "/session", {"capabilities": {"alwaysMatch": self.capabilities()}})["sessionId"]
        except BaseException:
            self.close()
            raise

    def read_port(self):
        for line in self.driver.stdout:
            if (found := re.search(r"successfully on port (\d+)", line)) is not None:
                return int(found[1])
        raise AssertionError("the driver ended before it had a port")

    def capabilities(self):
        flags = [*FLAGS, f"--user-data-dir={self.profile}/profile"]
        return {"browserName": "chrome", "goog:loggingPrefs": {"browser": "ALL"},
                "goog:chromeOptions": {"args": flags, "binary": shutil.which("chromium")}}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def leave(self, number, _):
        """Unittest would take an exception for a failed test and go on."""
        self.close()
        signal.signal(number, signal.SIG_DFL)
        os.kill(os.getpid(), number)

    def close(self):
        atexit.unregister(self.close)
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.driver.pid, signal.SIGKILL)
        self.driver.wait()
        self.driver.stdout.close()
        wait_for("the profile is removed", self.remove_profile)

    def remove_profile(self):
        """The browser's last process may write while it is killed."""
        shutil.rmtree(self.profile, ignore_errors=True)
        return not os.path.exists(self.profile)

    def call(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.base + path, data, {"Content-Type": "application/json"}, method=method)
        try:
            with NO_PROXY.open(request, timeout=DEADLINE) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise AssertionError(json.load(error)["value"]["message"]) from error

    def do(self, method, path, body=None):
        return self.call(method, f"/session/{self.session}/{path}", body)

    def open(self, address):
        self.do("POST", "url", {"url": address})

    def run(self, script, *arguments):
        """The value of a JavaScript function's body."""
        return self.do("POST", "execute/sync", {"script": script, "args": arguments})

    def devtools(self, command, **parameters):
        return self.do("POST", "goog/cdp/execute", {"cmd": command, "params": parameters})

    def resize(self, width, height, scale=1):
        self.devtools("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=scale, mobile=width < 500)

    def prefer_colours(self, scheme):
        self.devtools("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])

    def find(self, selector):
        return self.do("POST", "element", {"using": "css selector", "value": selector})[ELEMENT]

    def click(self, selector):
        self.do("POST", f"element/{self.find(selector)}/click", {})

    def type(self, selector, text):
        self.do("POST", f"element/{self.find(selector)}/value", {"text": text})

    def press(self, key):
        self.do("POST", "actions", {"actions": [{"type": "key", "id": "keys", "actions": [
            {"type": "keyDown", "value": key}, {"type": "keyUp", "value": key}]}]})

    def text(self, selector):
        """What stands there, shown or not."""
        return self.run("return document.querySelector(arguments[0])?.textContent", selector)

    def messages(self):
        """What the browser's console was told since the last call: (level, text)."""
        return [(entry["level"], entry["message"]) for entry in self.do("POST", "se/log", {"type": "browser"})]

    def picture(self, file, whole=False):
        options = {"captureBeyondViewport": True} if whole else {}
        if whole:
            size = self.run("return [document.documentElement.clientWidth, document.documentElement.scrollHeight]")
            options["clip"] = {"x": 0, "y": 0, "width": size[0], "height": size[1], "scale": 1}
        data = self.devtools("Page.captureScreenshot", format="png", **options)["data"]
        with open(file, "wb") as out:
            out.write(base64.b64decode(data))
