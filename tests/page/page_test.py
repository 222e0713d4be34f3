#!/usr/bin/env python3
"""The live page in a browser, in front of a Center whose answers are written here."""

import re
import sys
import threading
import time
import unittest

import fake_center
from browser import Browser, Pace, is_here, wait_for
from fake_center import FakeCenter, closed, latency, peer, rates, traffic

RED_WITHIN = 2
NARROW_SPACE = "\u00a0"
ENTER = "\ue007"

browser = None


def setUpModule():
    global browser
    if not is_here():
        raise unittest.SkipTest("no chromium and chromedriver here")
    browser = Browser()
    unittest.addModuleCleanup(browser.close)


def with_unit(value, units):
    """As the page is to write it: three digits, and the unit that leaves the value at 1 or more."""
    power = 0
    while value >= 999.5 and power + 1 < len(units):
        value /= 1000
        power += 1
    digits = f"{value:.3g}" if power else f"{value:.1f}".removesuffix(".0") if value < 9.95 else f"{value:.0f}"
    return (digits + NARROW_SPACE + units[power]) if units[power] else digits


def duration(seconds):
    if seconds < 9.95:
        return f"{seconds:.1f}{NARROW_SPACE}s"
    whole = round(seconds)
    sizes = [(86400, "d"), (3600, "h"), (60, "min"), (1, "s")]
    first = next(index for index, (size, _) in enumerate(sizes) if whole >= size)
    parts = [(whole // sizes[first][0], sizes[first][1])]
    if first < 3:
        parts.append((whole % sizes[first][0] // sizes[first + 1][0], sizes[first + 1][1]))
    return NARROW_SPACE.join(f"{amount}{NARROW_SPACE}{unit}" for amount, unit in parts if amount or unit == parts[0][1])


FORMATS = {
    None: str,
    "count": lambda value: f"{value:,}",
    "short": lambda value: with_unit(value, ["", "k", "M", "G"]),
    "bytes": lambda value: with_unit(value, ["B", "kB", "MB", "GB"]),
    "micros": lambda value: with_unit(value, ["µs", "ms", "s"]),
    "limit": lambda value: "none" if value is None else FORMATS["bytes"](value),
    "duration": duration,
}


def leaves(value, path):
    """The paths of all figures in an object of objects."""
    if not isinstance(value, dict):
        return {path}
    return set().union(*(leaves(part, f"{path}.{key}") for key, part in value.items()))


def cells(row):
    """The texts of a table's row by the names of its columns; nothing while it is not there."""
    return browser.run("const row = document.querySelector(`[data-row='${arguments[0]}']`);"
                       "return row && Object.fromEntries([...row.children].map((one) => [one.dataset.column, one.textContent]))",
                       row)


def column(name, table="peers"):
    return browser.run("return [...document.querySelectorAll(`#${arguments[0]} tbody [data-column=${arguments[1]}]`)]"
                       ".map((one) => one.textContent)", table, name)


def node(address):
    """How a peer is drawn: the names of its state, its colour, and how much of it is left; nothing when it is not drawn."""
    return browser.run("""
        const drawn = document.querySelector(`.drawing [data-peer='${arguments[0]}']`);
        const shape = drawn?.matches("circle") ? drawn : drawn?.querySelector("circle, rect");
        return drawn && {names: [...drawn.classList], fill: getComputedStyle(shape).fill, shape: shape.tagName,
                         opacity: Number(getComputedStyle(drawn).opacity)}""", address)


def let_pass(seconds):
    """For the page that much more time has passed."""
    browser.run("const now = performance.now.bind(performance); performance.now = () => now() + arguments[0] * 1000", seconds)


def look_now():
    """The page asks the Center at once, as it does when it comes into sight."""
    browser.run("document.dispatchEvent(new Event('visibilitychange'))")


def channels(colour):
    return [float(part) for part in re.findall(r"[\d.]+", colour)][:3]


def is_red(colour):
    red, green, blue = channels(colour)
    return red > 150 and red - green > 80 and red - blue > 80


def overflow():
    """How many pixels the page is wider than the window, and what sticks out."""
    return browser.run("""
        const width = document.documentElement.clientWidth;
        const wide = [...document.body.querySelectorAll("*")].filter((one) =>
            one.getBoundingClientRect().right > width + 0.5 && !one.closest(".frame, .skip, .unseen, thead"));
        return [document.documentElement.scrollWidth - width, wide.map((one) => one.outerHTML.slice(0, 80)).slice(0, 5)]""")


class Page(unittest.TestCase):
    """One page for each test; whatever its console says is a failure."""

    allowed = None

    def setUp(self):
        self.center = self.enterContext(FakeCenter())
        browser.resize(1280, 900)
        browser.prefer_colours("light")
        browser.messages()

    def tearDown(self):
        messages = [text for _, text in browser.messages() if self.allowed is None or not re.search(self.allowed, text)]
        browser.open("about:blank")
        self.assertEqual(messages, [])

    def show_figure(self):
        """A new figure, and waits until the page shows it."""
        status = fake_center.status()
        status["inbox"]["taken"] = self.center.answers["status"]["inbox"]["taken"] + 1
        self.center.change(status=status)
        wait_for("the new figure", lambda: browser.text("[data-key='status.inbox.taken']") == f"{status['inbox']['taken']:,}")

    def open(self):
        browser.open(self.center.address)
        wait_for("the page shows the Center's figures", lambda: browser.text("[data-key='status.pid']") == "4711")


class Figures(Page):
    def test_each_figure_of_the_status_is_shown_as_the_api_has_it(self):
        self.open()
        shown = browser.run("return [...document.querySelectorAll('[data-key]')]"
                            ".map((one) => [one.dataset.key, one.dataset.as ?? null, one.textContent])")
        for path, kind, text in shown:
            value = self.center.answers
            for key in path.split("."):
                value = value[key]
            self.assertEqual(text, FORMATS[kind](value), path)
        self.assertEqual(browser.text("#endpoint"), "10.0.0.1:7000")
        # These have texts of their own, which the other tests look at.
        elsewhere = {f"status.{name}" for name in ("started_unix_ms", "ready", "healthy", "problems", "addresses", "ports",
                                                   "threads", "listeners", "outcomes.balances")}
        self.assertEqual(leaves(fake_center.status(), "status") - {path for path, _, _ in shown}, elsewhere)

    def test_figures_follow(self):
        self.open()
        status = fake_center.status()
        status["inbox"]["taken"] = 9_999_999
        status["queue"]["max_bytes"] = None
        status["latency_us"] = latency()
        self.center.change(status=status)
        wait_for("the new figure", lambda: browser.text("[data-key='status.inbox.taken']") == "9,999,999")
        self.assertEqual(browser.text("[data-key='status.queue.max_bytes']"), "none")
        self.assertEqual(browser.text("[data-key='status.latency_us.p99']"), "–")

    def test_are_asked_for_four_times_within_the_time_for_red(self):
        self.open()
        browser.run("""
            const start = setTimeout;
            window.pauses = [];
            window.setTimeout = (what, pause, ...more) => {
                window.pauses.push(pause);
                return start(what, pause, ...more);
            };""")
        wait_for("two more looks", lambda: browser.run("return window.pauses.length") >= 2)
        self.assertLessEqual(max(browser.run("return window.pauses")), RED_WITHIN * 1000 / 4)

    def test_trouble_is_told(self):
        self.open()
        self.assertEqual((browser.text("#health"), browser.text("#balance")), ("ready", "balances"))
        self.assertTrue(browser.run("return document.querySelector('#problems').hidden"))
        status = fake_center.status()
        status.update(healthy=False, problems=["tcp_send ended", "<b>7001</b> is held"],
                      listeners=[{"port": 7000, "backlog": 5, "backlog_limit": 5, "knocks": 21}])
        status["threads"][4]["running"] = False
        status["outcomes"].update(written=1_035_697, balances=False)
        self.center.change(status=status)
        look_now()
        wait_for("the pill says so", lambda: browser.text("#health") == "not healthy")
        self.assertEqual(browser.run("return [...document.querySelectorAll('#problems li')].map((one) => one.textContent)"),
                         ["tcp_send ended", "<b>7001</b> is held"])
        self.assertFalse(browser.run("return document.querySelector('#problems').hidden"))
        self.assertEqual(browser.text("#balance"), "off by 3")
        self.assertEqual(browser.text("#threads [data-state=bad]"), "tcp_sendended")
        self.assertEqual(browser.text("[data-port='7000'] .backlog"), "5 of 5 waiting")
        self.assertEqual(browser.text("[data-port='7000'] .knocks"), "knocks 21")
        self.assertTrue(browser.run("return document.title").startswith("(not healthy) "))

    def test_the_tables_have_the_api_s_figures(self):
        reasons = ["peer_closed", "reset", "silent", "deleted", "refused", "connect_timeout", "init_failed", "send_failed", "shutdown"]
        self.center.show_peers([peer("10.0.0.2:7000", "outgoing", since_s=75.2, silent_s=1.25,
                                     rates=rates(12, 3456, 789.4, 1_234_567), queue=traffic(5, 4321),
                                     latency_us=latency(10, 50, 60, 4700, 9000))])
        self.center.change(closed={"closed": [closed(f"10.0.0.{number}:7000", reason, detail=f"detail {number}", times=number + 1)
                                              for number, reason in enumerate(reasons)]})
        self.open()
        space = NARROW_SPACE
        self.assertEqual(wait_for("the peer's row", lambda: cells("outgoing 10.0.0.2:7000")), {
            "address": "10.0.0.2:7000", "state": "established", "over": "this node", "since_s": f"1{space}min{space}15{space}s",
            "packets_in": "12/s", "packets_out": f"3.46{space}k/s", "bytes_in": f"789{space}B/s",
            "bytes_out": f"1.23{space}MB/s", "queue_packets": "5", "queue_bytes": f"4.32{space}kB", "p99": f"4.7{space}ms",
            "silent_s": f"1.3{space}s"})
        self.assertEqual(sorted(column("reason", "closed")), sorted(reason.replace("_", " ") for reason in reasons))
        one = self.center.answers["closed"]["closed"][3]
        self.assertEqual(cells(f"{one['closed_unix_ms']} accepted 10.0.0.3:7000 1"), {
            "closed_unix_ms": time.strftime("%H:%M:%S", time.localtime(one["closed_unix_ms"] // 1000)),
            "address": "10.0.0.3:7000", "reason": "deleted", "detail": "detail 3", "times": "4", "over": "the peer",
            "lasted_s": f"1{space}min{space}2{space}s", "packets_in": "7", "packets_out": "5", "bytes_in": f"4.48{space}kB",
            "bytes_out": f"320{space}B"})
        self.assertEqual(self.center.asked["config"], 0)
        browser.click("#config summary")
        self.assertEqual(wait_for("the keys", lambda: cells("AUTO_DISCONNECT")), {
            "key": "AUTO_DISCONNECT", "value": "YES", "default": "YES", "origin": "zolt.ini:12",
            "effect": "silent peers are cut"})

    def test_the_charts_are_drawn(self):
        self.open()
        browser.run("const now = Date.now, start = now(); Date.now = () => start + (now() - start) * 60")
        lines = [["packets", "in"], ["packets", "out"], ["bytes", "in"], ["bytes", "out"], ["queue", "other"],
                 ["latency", "other"], ["inbox", "other"]]
        wait_for("each line is painted in its colour", lambda: browser.run("""
            return arguments[0].every(([name, line]) => {
                const canvas = document.querySelector(`#${name}_plot canvas`);
                const probe = document.body.appendChild(document.createElement("i"));
                probe.style.color = `var(--${line})`;
                const colour = getComputedStyle(probe).color.match(/[0-9]+/g).map(Number);
                probe.remove();
                const copy = new OffscreenCanvas(canvas.width, canvas.height).getContext("2d");
                copy.drawImage(canvas, 0, 0);
                const points = copy.getImageData(0, 0, canvas.width, canvas.height).data;
                for (let at = 0; at < points.length; at += 4) {
                    if (points[at + 3] > 200 && colour.every((value, index) => Math.abs(points[at + index] - value) < 24)) {
                        return true;
                    }
                }
                return false;
            })""", lines))


class Peers(Page):
    def test_a_killed_peer_is_red_within_two_seconds_and_goes_to_the_closed_ones(self):
        stays = [peer(f"10.0.0.{number}:40000") for number in range(3, 8)]
        self.center.show_peers([peer("10.0.0.2:40000"), *stays])
        self.open()
        self.assertFalse(is_red(wait_for("the peer is drawn", lambda: node("10.0.0.2:40000"))["fill"]))
        pace = Pace(RED_WITHIN, self.show_figure)
        self.center.change(closed={"closed": [closed("10.0.0.2:40000", "reset")]}, peers={"peers": stays})
        drawn = wait_for("the peer is red", lambda: (found := node("10.0.0.2:40000")) and is_red(found["fill"]) and found)
        self.assertTrue(pace.is_kept(), pace.longest)
        self.assertIn("gone", drawn["names"])
        self.assertEqual(drawn["opacity"], 1)
        self.assertEqual(cells("accepted 10.0.0.2:40000")["state"], "gone: reset")
        self.assertEqual(browser.text("#peers .amount"), "5")
        self.assertEqual(column("reason", "closed"), ["reset"])
        self.assertFalse(is_red(node("10.0.0.3:40000")["fill"]))

    def test_a_peer_that_went_fades_and_one_that_came_back_does_not(self):
        self.center.show_peers([peer("10.0.0.2:40000"), peer("10.0.0.3:40000")])
        self.open()
        wait_for("both are drawn", lambda: node("10.0.0.2:40000") and node("10.0.0.3:40000"))
        self.center.show_peers([])
        look_now()
        wait_for("both are red", lambda: "gone" in node("10.0.0.2:40000")["names"])
        self.center.show_peers([peer("10.0.0.3:40000")])
        look_now()
        wait_for("one is back", lambda: "established" in node("10.0.0.3:40000")["names"])
        let_pass(6.5)
        look_now()
        wait_for("the other one fades", lambda: "fades" in node("10.0.0.2:40000")["names"])
        let_pass(2)
        look_now()
        wait_for("the other one is no longer there", lambda: node("10.0.0.2:40000") is None)
        self.assertIn("established", node("10.0.0.3:40000")["names"])
        self.assertEqual(column("address"), ["10.0.0.3:40000"])

    def test_states_differ_in_colour_and_in_shape(self):
        self.center.show_peers([peer("10.0.0.2:7000", "outgoing"), peer("10.0.0.3:7000", "outgoing", "connecting"),
                                peer("10.0.0.4:7000", "outgoing", "lost"), peer("10.0.0.5:40000")])
        self.open()
        wait_for("all are drawn", lambda: node("10.0.0.5:40000"))
        lines = browser.run("return [...document.querySelectorAll('.drawing .link')].map((one) => {"
                            "const style = getComputedStyle(one.querySelector('.lane'));"
                            "return [style.stroke, style.strokeDasharray]})")
        self.assertEqual(len({colour for colour, _ in lines[:3]}), 3)
        self.assertEqual(len({dashes for _, dashes in lines[:3]}), 3)
        self.assertEqual([node(f"10.0.0.{number}:{port}")["shape"] for number, port in ((2, 7000), (5, 40000))],
                         ["rect", "circle"])
        self.assertEqual(browser.text("#counts"), "2 established, 1 connecting, 1 lost")

    def test_a_link_is_as_wide_as_its_rate_each_way(self):
        self.center.show_peers([peer("10.0.0.2:40000", rates=rates(bytes_in=50_000_000, bytes_out=100))])
        self.open()
        wait_for("the peer is drawn", lambda: node("10.0.0.2:40000"))
        leaving, arriving = browser.run("return [...document.querySelectorAll('.drawing .lane')]"
                                        ".map((one) => Number(one.getAttribute('stroke-width')))")
        self.assertGreater(arriving, leaving + 3)

    def test_many_peers_are_drawn_as_clouds(self):
        for amount in (1, 10, 200, 1000):
            many = [peer(f"10.0.{number // 250}.{number % 250}:7000", "outgoing" if number % 4 == 0 else "accepted")
                    for number in range(amount)]
            self.center.show_peers(many)
            self.open()
            wait_for(f"{amount} are drawn", lambda: browser.run(
                "return document.querySelectorAll('.drawing [data-peer]').length") == amount)
            clouds = browser.run("return [...document.querySelectorAll('.cloud .name')].map((one) => one.textContent)")
            self.assertEqual(clouds, [] if amount < 50 else [f"{amount // 4} opened by this node",
                                                             f"{amount - amount // 4} opened by peers"])
            self.assertEqual(browser.text("#peers .amount"), f"{amount:,}")
            self.assertEqual(overflow(), [0, []])
        pace = Pace(RED_WITHIN, self.show_figure)
        self.center.show_peers(many[:500] + many[501:])
        wait_for("one of a thousand is red", lambda: is_red(node(many[500]["address"])["fill"]))
        self.assertTrue(pace.is_kept(), pace.longest)
        self.assertEqual(browser.text("#troubled"), many[500]["address"])
        self.assertEqual(column("address")[0], many[500]["address"])

    def test_the_table_is_sorted_and_filtered(self):
        self.center.show_peers([peer(f"10.0.0.{number}:40000", rates=rates(packets_in=rate))
                                for number, rate in ((10, 5), (9, 70), (2, 6))] +
                               [peer("10.0.0.11:7000", "outgoing", "lost")])
        self.open()
        wait_for("the rows are there", lambda: len(column("address")) == 4)
        self.assertEqual(column("address"), [f"10.0.0.{end}" for end in ("11:7000", "2:40000", "9:40000", "10:40000")])
        browser.click("#peers th:nth-child(5) button")
        self.assertEqual(column("packets_in"), ["70/s", "6/s", "5/s", "0/s"])
        self.assertEqual(browser.run("return document.querySelector('#peers th:nth-child(5)').ariaSort"), "descending")
        browser.type("#peers input", "lost")
        self.assertEqual(column("address"), ["10.0.0.11:7000"])
        self.assertEqual(browser.text("#peers .amount"), "1 of 4")
        browser.type("#peers input", "s")
        self.assertEqual(column("address"), [])
        self.assertEqual(browser.text("#peers .none"), "Nothing passes the filter.")

    def test_a_click_on_a_peer_finds_its_row(self):
        self.center.show_peers([peer("10.0.0.2:40000"), peer("10.0.0.3:40000")])
        self.open()
        wait_for("both are drawn", lambda: node("10.0.0.3:40000"))
        browser.click("[data-peer='10.0.0.3:40000'] circle")
        self.assertEqual(column("address"), ["10.0.0.3:40000"])


class Looks(Page):
    def ground(self):
        return sum(channels(browser.run("return getComputedStyle(document.body).backgroundColor"))) / 3

    def test_light_and_dark(self):
        self.open()
        self.assertGreater(self.ground(), 200)
        browser.prefer_colours("dark")
        self.assertLess(self.ground(), 60)
        browser.run("document.querySelector('.themes input[value=light]').click()")
        self.assertGreater(self.ground(), 200)
        self.open()
        self.assertGreater(self.ground(), 200)
        self.assertTrue(browser.run("return document.querySelector('.themes input[value=light]').checked"))
        browser.run("document.querySelector('.themes input[value=dark]').click()")
        browser.prefer_colours("light")
        self.assertLess(self.ground(), 60)
        browser.run("document.querySelector('.themes input[value=auto]').click()")
        self.assertGreater(self.ground(), 200)

    def test_texts_can_be_read_on_their_ground(self):
        self.center.show_peers([peer("10.0.0.2:7000", "outgoing", "lost"), peer("10.0.0.3:7000", "outgoing", "connecting")])
        self.center.change(closed={"closed": [closed("10.0.0.9:7000", "reset")]})
        for scheme in ("light", "dark"):
            browser.prefer_colours(scheme)
            self.open()
            wait_for("a row is there", lambda: cells("outgoing 10.0.0.2:7000"))
            pairs = browser.run("""
                const ground = (one) => { for (; one; one = one.parentElement) {
                    const colour = getComputedStyle(one).backgroundColor;
                    if (!/, 0\\)$/.test(colour)) return colour; } };
                return [...document.querySelectorAll("body *")].filter((one) => one.offsetParent &&
                    [...one.childNodes].some((part) => part.nodeType === 3 && part.data.trim()))
                    .map((one) => [one.outerHTML.slice(0, 60), getComputedStyle(one).color, ground(one)])""")
            self.assertGreater(len(pairs), 100)
            for what, ink, ground in pairs:
                self.assertGreaterEqual(contrast(channels(ink), channels(ground)), 4.5, (scheme, what))

    def test_nothing_sticks_out_on_a_phone(self):
        long_ones = [peer(f"255.255.255.{number}:65535", "outgoing", "connecting" if number % 2 else "established",
                          rates=rates(99999, 99999, 99.9e6, 99.9e6)) for number in range(100, 112)]
        status = fake_center.status()
        status.update(addresses=["255.255.255.255"], ports=[65535],
                      problems=["a problem whose text is long enough to need more than the one line that a phone has"])
        self.center.change(status=status, peers={"peers": long_ones},
                           closed={"closed": [closed(one["address"], "connect_timeout", "outgoing", "Connection timed out",
                                                     lasted_s=9e5) for one in long_ones]})
        browser.resize(360, 740)
        self.open()
        browser.click("#config summary")
        wait_for("the keys", lambda: cells("AUTO_DISCONNECT"))
        wait_for("the peers", lambda: len(column("address")) == len(long_ones))
        self.assertEqual(overflow(), [0, []])
        self.assertEqual(browser.run("return document.querySelectorAll('.drawing .node .name').length"), len(long_ones))

    def test_the_keyboard_reaches_what_the_pointer_does(self):
        self.center.show_peers([peer("10.0.0.2:40000"), peer("10.0.0.3:40000")])
        self.open()
        wait_for("a row is there", lambda: cells("accepted 10.0.0.2:40000"))
        reached = []
        for _ in range(60):
            browser.press("\ue004")
            reached.append(browser.run("const one = document.activeElement;"
                                       "return one.closest('section, header, details, footer')?.id + ' ' + one.tagName"))
            if reached[-1] == "config SUMMARY":
                break
        self.assertEqual(reached[0], "undefined A")
        self.assertIn("peers INPUT", reached)
        self.assertEqual(reached.count("peers BUTTON"), 12)
        browser.run("document.querySelector('#peers th button').focus()")
        browser.press(ENTER)
        self.assertEqual(browser.run("return document.querySelector('#peers th').ariaSort"), "ascending")
        browser.press(ENTER)
        self.assertEqual(column("address"), ["10.0.0.3:40000", "10.0.0.2:40000"])

    def test_everything_has_a_name(self):
        self.center.show_peers([peer("10.0.0.2:40000")])
        self.open()
        browser.click("#config summary")
        wait_for("the keys", lambda: cells("AUTO_DISCONNECT"))
        tree = browser.devtools("Accessibility.getFullAXTree")["nodes"]
        roles = {}
        for one in tree:
            if not one.get("ignored"):
                roles.setdefault(one["role"]["value"], []).append(one.get("name", {}).get("value", "").strip())
        for role in ("button", "searchbox", "radio", "region", "link", "meter", "table", "image", "columnheader"):
            self.assertTrue(roles.get(role), role)
            self.assertNotIn("", roles[role], role)


def contrast(ink, ground):
    """Of two colours, from 1 to 21, as the guidelines for accessible content define it."""
    def light(colour):
        parts = [value / 255 for value in colour]
        parts = [value / 12.92 if value <= 0.04045 else ((value + 0.055) / 1.055) ** 2.4 for value in parts]
        return 0.2126 * parts[0] + 0.7152 * parts[1] + 0.0722 * parts[2]

    lights = sorted((light(ink), light(ground)))
    return (lights[1] + 0.05) / (lights[0] + 0.05)


class Absence(Page):
    """The browser itself notes each question that was not answered; the page notes nothing."""

    allowed = r"Failed to load resource"

    def hidden(self, selector):
        return browser.run("return document.querySelector(arguments[0]).hidden", selector)

    def test_a_center_that_is_gone_and_comes_back(self):
        self.center.show_peers([peer("10.0.0.2:40000")])
        self.open()
        wait_for("the peer", lambda: node("10.0.0.2:40000"))
        port = self.center.server_port
        browser.run("scrollTo(0, document.body.scrollHeight)")
        pace = Pace(RED_WITHIN, self.show_figure)
        self.center.stop()
        wait_for("the page says so", lambda: not self.hidden("#absent"))
        self.assertTrue(pace.is_kept(), pace.longest)
        self.assertRegex(browser.text("#absent"), r"^No answer from the Center since \d\d:\d\d:\d\d\. ")
        self.assertEqual(browser.text("#health"), "no answer")
        self.assertTrue(browser.run("const place = document.querySelector('#absent').getBoundingClientRect();"
                                    "return place.top >= 0 && place.bottom <= innerHeight"))
        self.center = self.enterContext(FakeCenter(port))
        wait_for("the page is back", lambda: self.hidden("#absent"))
        self.assertEqual((browser.text("#health"), browser.text("#notice")), ("ready", "The Center answers again."))
        wait_for("the peer of old is red", lambda: "gone" in node("10.0.0.2:40000")["names"])

    def test_a_center_that_was_started_anew(self):
        self.center.show_peers([peer("10.0.0.2:40000")])
        self.open()
        wait_for("the peer", lambda: node("10.0.0.2:40000"))
        self.center.change(status={**fake_center.status(), "started_unix_ms": 1_700_000_100_000}, peers={"peers": []})
        look_now()
        wait_for("the page says so", lambda: not self.hidden("#notice"))
        self.assertRegex(browser.text("#notice"), r"^The Center was started anew at ")
        self.assertIsNone(node("10.0.0.2:40000"))

    def test_a_center_that_is_stuck(self):
        self.open()
        with self.center.lock:
            wait_for("the page says so", lambda: not self.hidden("#absent"))
        wait_for("the page is back", lambda: self.hidden("#absent"))

    def test_a_center_that_was_never_there(self):
        self.center.change(status={})
        broken = threading.Event()
        self.center.answer = lambda name: broken.set()
        browser.open(self.center.address)
        wait_for("the page says so", lambda: not self.hidden("#absent"))
        self.assertTrue(broken.is_set())
        self.assertEqual(browser.text("#absent"), "The Center does not answer. Trying again twice a second.")


if __name__ == "__main__":
    result = unittest.main(exit=False).result
    sys.exit(0 if result.wasSuccessful() and result.testsRun > 0 else 77 if result.testsRun == 0 else 1)
