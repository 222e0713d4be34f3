"""A Center whose answers a test writes: the page's files and the API, over HTTP on a port of the kernel's choice."""

import copy
import http.server
import json
import mimetypes
import threading
import time
from pathlib import Path

PAGE = Path(__file__).resolve().parents[2] / "Reference_Center/page"
HEADERS = {"Content-Security-Policy": "default-src 'self'", "X-Content-Type-Options": "nosniff", "Cache-Control": "no-store"}


def traffic(packets=0, size=0):
    return {"packets": packets, "bytes": size}


def rates(packets_in=0.0, packets_out=0.0, bytes_in=0.0, bytes_out=0.0):
    return {"packets_in_per_s": packets_in, "packets_out_per_s": packets_out, "bytes_in_per_s": bytes_in,
            "bytes_out_per_s": bytes_out}


def latency(count=0, p50=0, p90=0, p99=0, most=0):
    return {"count": count, "p50": p50, "p90": p90, "p99": p99, "max": most}


def peer(address, over="accepted", state="established", **more):
    return {"address": address, "over": over, "state": state, "since_s": 12.5, "in": traffic(1000, 640000),
            "out": traffic(900, 57600), "rates": rates(), "queue": traffic(), "latency_us": latency(), "silent_s": 0.4, **more}


def closed(address, reason, over="accepted", detail="", **more):
    return {"address": address, "over": over, "reason": reason, "detail": detail, "closed_unix_ms": round(time.time() * 1000),
            "lasted_s": 61.5, "times": 1, "in": traffic(7, 4480), "out": traffic(5, 320), **more}


def status():
    """Figures that differ from each other, so that one in another's place is noticed."""
    return {
        "version": "1.0.0", "pid": 4711, "started_unix_ms": 1_700_000_000_000, "uptime_s": 7384.2, "ready": True, "healthy": True,
        "problems": [], "addresses": ["10.0.0.1"], "ports": [7000],
        "rates": rates(1234.5, 987.0, 2_345_678.0, 45_600.0),
        "totals": {"tcp_in": traffic(1_234_567, 987_654_321), "tcp_out": traffic(1_034_561, 88_123_456),
                   "udp_in": traffic(4321, 1_432_100), "udp_out": traffic(1235, 99_900)},
        "inbox": {"packets": 3, "bytes": 1536, "taken": 1_238_888, "busy": 17, "refused": 2, "busy_time_s": 0.7},
        "queue": {"packets": 42, "bytes": 65_536, "max_bytes": 8_000_000},
        "outcomes": {"handed_over": 1_035_796, "written": 1_035_700, "returned": 31, "dropped": 14, "failed": 9, "queued": 42,
                     "not_connected": 6, "refused_by_limit": 5, "balances": True},
        "latency_us": latency(4096, 85, 240, 1830, 12_500),
        "threads": [{"name": name, "running": True} for name in ("udp_recv", "udp_send", "tcp_init", "tcp_recv", "tcp_send")],
        "listeners": [{"port": 7000, "backlog": 1, "backlog_limit": 5, "knocks": 8}],
        "lost_lines": 11, "folded_lines": 13}


def config():
    return {"file": "../Config/zolt.ini", "keys": [
        {"key": "AUTO_DISCONNECT", "value": "YES", "default": "YES", "origin": "zolt.ini:12", "effect": "silent peers are cut"},
        {"key": "BACK_LOG", "value": "5", "default": "5", "origin": "default", "effect": "connections that wait"}]}


class Handler(http.server.BaseHTTPRequestHandler):
    def log_message(self, *_):
        pass

    def do_GET(self):
        path = self.path.split("?")[0]
        if path.startswith("/api/v1/"):
            body = self.server.answer(path.removeprefix("/api/v1/"))
            kind = "application/json"
        else:
            name = "index.html" if path == "/" else path.removeprefix("/assets/")
            file = next((file for file in (PAGE / name, PAGE / "vendor" / name) if "/" not in name and file.is_file()), None)
            body = file.read_bytes() if file is not None else None
            kind = mimetypes.guess_type(name)[0] or "text/plain"
        self.send_response(200 if body is not None else 404)
        for header in HEADERS.items():
            self.send_header(*header)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body or b"")))
        self.end_headers()
        self.wfile.write(body or b"")


class FakeCenter(http.server.ThreadingHTTPServer):
    """Answers with what status, peers, closed and config are at that time; a test changes them under the lock."""

    daemon_threads = True

    def __init__(self, port=0):
        super().__init__(("127.0.0.1", port), Handler)
        self.lock = threading.Lock()
        self.answers = {"status": status(), "peers": {"peers": []}, "closed": {"closed": []}, "config": config()}
        self.asked = dict.fromkeys(self.answers, 0)
        self.thread = threading.Thread(target=self.serve_forever, args=(0.02,), daemon=True)
        self.thread.start()
        self.address = f"http://127.0.0.1:{self.server_port}/"

    def handle_error(self, *_):
        """The browser leaves whenever it likes."""

    def answer(self, name):
        with self.lock:
            if name not in self.answers:
                return None
            self.asked[name] += 1
            return json.dumps(self.answers[name]).encode()

    def change(self, **parts):
        with self.lock:
            for name, value in parts.items():
                self.answers[name] = copy.deepcopy(value)

    @property
    def peers(self):
        return self.answers["peers"]["peers"]

    def show_peers(self, peers):
        self.change(peers={"peers": peers})

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        self.shutdown()
        self.thread.join()
        self.server_close()
