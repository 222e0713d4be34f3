"""Draws the four pictures from what was measured.

Usage: pictures.py FILE.csv FOLDER. The same figures give the same bytes.
"""

import sys
from pathlib import Path

import goals
import results

try:
    import matplotlib
    matplotlib.use("svg")
    from matplotlib import pyplot
except ImportError:
    matplotlib = None

COLORS = {"raw": "#7f7f7f", "skeleton": "#222222", "relay": "#0b62c4", "zmq": "#c4540b", "nng": "#3a8f3a"}
MARKS = {"raw": "x", "skeleton": "s", "relay": "o", "zmq": "^", "nng": "v"}
STYLE = {"svg.hashsalt": "bench", "svg.fonttype": "path", "font.size": 10, "axes.grid": True, "grid.color": "#dddddd",
         "axes.spines.top": False, "axes.spines.right": False, "axes.axisbelow": True, "figure.facecolor": "white",
         "axes.facecolor": "white", "legend.frameon": False}


def curve(axes, contender, points):
    """A line through the medians; where rounds differ a bar shows the least and the most."""
    places = [place for place, _ in points]
    medians = [found.median for _, found in points]
    errors = [[found.median - found.least for _, found in points], [found.most - found.median for _, found in points]]
    axes.errorbar(places, medians, errors, label=contender, color=COLORS[contender], marker=MARKS[contender],
                  linewidth=2 if contender == goals.JUDGED else 1.2, elinewidth=1, capsize=2, markersize=5)


def ordered(contenders):
    return [name for name in COLORS if name in contenders]


def curves(axes, measured, cases, place, figure, convert=lambda found: found):
    """One curve for each contender over the cases, at the places that place gives."""
    for contender in ordered(measured.contenders()):
        found = [(place(which), measured.spread(which, contender, figure)) for which in cases]
        points = sorted((where, convert(spread)) for where, spread in found if spread is not None)
        if points:
            curve(axes, contender, points)


def fit_medians(set_limits, medians, least):
    """An axis from zero to a little beyond the medians; the spread of a disturbed round may be cut."""
    set_limits(0, max([least, *(1.3 * median for median in medians)]))


def finish(axes, title, across, up):
    axes.set_title(title, loc="left", fontsize=11)
    axes.set_xlabel(across)
    axes.set_ylabel(up)
    if axes.get_legend_handles_labels()[0]:
        axes.legend(fontsize=9)


def number(name):
    return lambda which: int(which.value(name))


def throughput(measured, figure):
    """Packets a second by size, for one and for several connections."""
    for axes, connections in zip(figure.subplots(1, 2, sharey=True), ("1", "16")):
        cases = [which for which in measured.cases("oneway") if which.value("connections") == connections]
        curves(axes, measured, cases, number("size"), "rate")
        axes.set_xscale("log", base=2)
        axes.set_yscale("log")
        sizes = sorted({int(which.value("size")) for which in cases})
        axes.set_xticks(sizes, [goals.SIZE_NAMES.get(str(size), str(size)) for size in sizes])
        axes.minorticks_off()
        finish(axes, f"one way, two cores, {connections} connection{'s' * (connections != '1')}", "data in a packet",
               "packets a second")


PERCENTILES = (("p50_ns", "50 %"), ("p90_ns", "90 %"), ("p99_ns", "99 %"), ("p99_9_ns", "99.9 %"))


def latency(measured, figure):
    """How round trips are distributed, header only and with data."""
    for axes, size in zip(figure.subplots(1, 2, sharey=True), ("0", "64")):
        cases = [which for which in measured.cases("roundtrip")
                 if which.value("size") == size and which.value("answer") is None]
        for contender in ordered(measured.contenders()):
            found = [measured.spread(which, contender, name) for which in cases for name, _ in PERCENTILES]
            points = [(place, in_microseconds(spread)) for place, spread in enumerate(found) if spread]
            if points:
                curve(axes, contender, points)
        axes.set_yscale("log")
        axes.set_xticks(range(len(PERCENTILES)), [text for _, text in PERCENTILES])
        finish(axes, f"round trip on one core, {goals.SIZE_NAMES[size]}", "share of the round trips", "at most, us")


def in_microseconds(found):
    return results.Spread(found.median / 1e3, found.least / 1e3, found.most / 1e3, found.rounds)


def connections(measured, figure):
    """What a packet costs beside resting connections, and what a recipient of a broadcast costs."""
    left, right = figure.subplots(1, 2)
    header_only = [which for which in measured.cases("fanout") if which.value("size") == "0"]
    for axes, cases, name in ((left, measured.cases("idle"), "p50_ns"), (right, header_only, "ns_per_packet")):
        curves(axes, measured, cases, number("connections"), name, in_microseconds)
        axes.set_xscale("log")
        found = [measured.spread(which, contender, name) for which in cases for contender in measured.contenders()]
        fit_medians(axes.set_ylim, [in_microseconds(spread).median for spread in found if spread], 1)
    finish(left, "round trip beside resting connections", "connections", "p50, us")
    finish(right, "broadcast, header only", "recipients", "per recipient, us")


def ratios(measured, figure):
    """The relay's ratio to the skeleton in each case with such a bar, and the bar."""
    axes = figure.subplots()
    drawn = [(row, bar, bar.spread(measured, row.case)) for row in goals.ROWS for bar in row.bars
             if bar.against == goals.LIMIT and bar.compare is goals.ratio]
    drawn = [one for one in reversed(drawn) if one[2] is not None]
    for place, (_, bar, found) in enumerate(drawn):
        color = COLORS[goals.JUDGED] if bar.is_met(found.median) else "#c01c28"
        axes.errorbar([found.median], [place], xerr=[[found.median - found.least], [found.most - found.median]],
                      color=color, marker="o", markersize=5, capsize=2, linewidth=1)
        axes.plot([bar.bar], [place], marker="<" if bar.is_most else ">", color="#222222", markersize=6)
    axes.axvline(1, color=COLORS[goals.LIMIT], linewidth=1)
    axes.set_yticks(range(len(drawn)), [f"{row.title}: {bar.figure}" for row, bar, _ in drawn], fontsize=8)
    figure.set_size_inches(9, 1 + 0.26 * len(drawn))
    fit_medians(axes.set_xlim, [found.median for _, _, found in drawn], 1.3)
    finish(axes, "the relay's ratio to the skeleton",
           "median, least and most; a triangle is the bar\nand points to where it is met; red: not met", "")


PICTURES = (("bench_throughput.svg", "Throughput by size", throughput),
            ("bench_latency.svg", "Latency distribution", latency),
            ("bench_connections.svg", "Cost by number of connections", connections),
            ("bench_ratio.svg", "Ratio to the skeleton", ratios))


def draw(measured, folder):
    """Writes the pictures; returns the name and the title of each. Empty without the library that draws."""
    if matplotlib is None:
        return []
    folder.mkdir(parents=True, exist_ok=True)
    with matplotlib.rc_context(STYLE):
        for name, _, fill in PICTURES:
            figure = pyplot.figure(figsize=(9, 4), layout="constrained")
            fill(measured, figure)
            figure.savefig(folder / name, metadata={"Date": None, "Creator": None})
            pyplot.close(figure)
    return [(name, title) for name, title, _ in PICTURES]


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8", newline="") as source:
        sys.exit(0 if draw(results.read_csv(source), Path(sys.argv[2])) else "python3-matplotlib is not installed")
