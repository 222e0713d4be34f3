"""What the tests of the admin endpoint share: a Center with one, and asking it."""

import contextlib
import http.client
import json
import re

import center_support as support

SAMPLE = re.compile(r'(?P<name>[a-z_]+)(?:\{(?P<labels>[^{}]*)\})? (?P<value>[0-9.e+-]+)')
LABEL = re.compile(r'([a-z_]+)="((?:[^"\\\n]|\\[\\"n])*)"')


class Center(contextlib.AbstractContextManager):
    """zolt-center run with an admin endpoint at a port of the kernel's choice."""

    def __init__(self, *options, admin="127.0.0.1:0", **more):
        self.program, self.port = support.start_on_port(
            lambda port: ["run", "--listen", port, "--json", "--admin", admin, *options], "stdout", '"ready"', **more)
        self.ready = json.loads(self.program.text["stdout"].decode().splitlines()[0])
        self.admin = self.ready["admin"]

    def __exit__(self, *_):
        self.program.__exit__()

    def ask(self, path, method="GET", headers=None):
        return ask(self.admin, path, method, headers)

    def json(self, name):
        status, _, body = self.ask(f"/api/v1/{name}")
        assert status == 200, (name, status, body)
        return json.loads(body)

    def metrics(self):
        return Metrics(self.ask("/metrics")[2].decode())

    def wait_until(self, name, is_so):
        """Asks again and again until the answer is as wanted; the answer."""
        return support.wait_until(lambda: self.json(name), is_so)


def ask(admin, path, method="GET", headers=None):
    """Status, headers in lower case, body."""
    connection = http.client.HTTPConnection(admin, timeout=support.DEADLINE)
    with contextlib.closing(connection):
        connection.request(method, path, headers=headers or {})
        answer = connection.getresponse()
        return answer.status, {name.lower(): value for name, value in answer.getheaders()}, answer.read()


class Metrics:
    """The text format, read strictly: a name's HELP, TYPE and samples stand together, each series once."""

    def __init__(self, text):
        self.help, self.type, self.samples = {}, {}, {}
        assert text.endswith("\n"), text[-50:]
        current = None
        for line in text.splitlines():
            if line.startswith("# HELP "):
                current, self.help[current] = self.new_name(line[7:], self.help)
            elif line.startswith("# TYPE "):
                name, self.type[name] = self.new_name(line[7:], self.type)
                assert name == current and self.type[name] in ("counter", "gauge"), line
            else:
                self.add_sample(line, current)

    @staticmethod
    def new_name(rest, known):
        name, text = rest.split(" ", 1)
        assert name not in known and text, rest
        return name, text

    def add_sample(self, line, current):
        found = SAMPLE.fullmatch(line)
        assert found and found["name"] == current, line
        labels = LABEL.findall(found["labels"] or "")
        assert ",".join(f'{name}="{value}"' for name, value in labels) == (found["labels"] or ""), line
        key = (current, *sorted(labels))
        assert key not in self.samples, line
        self.samples[key] = float(found["value"])

    def value(self, name, **labels):
        return self.samples[(name, *sorted(labels.items()))]

    def labels(self, name):
        """The label names of each series of a metric."""
        return {tuple(label for label, _ in key[1:]) for key in self.samples if key[0] == name}
