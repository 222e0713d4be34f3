"""Writes what a run measured as one page."""

import datetime

import goals
import sampling
from results import REPEATED

# Beside the figure whose ratio to the skeleton has a column of its own.
RATIO_SHOWN = ("tick_near_ns", "tick_far_ns")

# For each subject its title, and what its table shows: the figure that the ratio is of, and others.
SUBJECTS = {
    "roundtrip": ("Round trips", "p50_ns", ("p90_ns", "p99_ns", "p99_9_ns")),
    "oneway": ("Streams, one way", "rate", ("ns_per_packet",)),
    "fanout": ("Broadcasts", "ns_per_packet", ("caller_ns_per_packet",)),
    "setup": ("Setting connections up", "rate", ("p50_ns",)),
    "udp": ("Datagrams", "ns_per_packet", ("rate", "p50_ns", "lost_ratio")),
    "idle": ("Connections at rest", "p50_ns", ("tick_near_ns", "tick_far_ns", "wakeups_near_per_second",
                                              "wakeups_far_per_second")),
    "memory": ("Memory", "heap_near_bytes_per_connection",
               ("heap_far_bytes_per_connection", "growth_near_bytes", "growth_far_bytes")),
}

TIMES = ((1e9, "s"), (1e6, "ms"), (1e3, "us"))


def significant(value):
    """Three digits; more than that no figure here is worth."""
    if value == 0:
        return "0"
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def amount(figure, value):
    """A figure's value with the unit that its name ends with."""
    if figure.endswith("_ns") or "ns_per_" in figure:
        scale, unit = next((pair for pair in TIMES if abs(value) >= pair[0]), (1, "ns"))
        return f"{significant(value / scale)} {unit}"
    if "bytes" in figure:
        return f"{significant(value)} B"
    if figure == "rate" or figure.endswith("per_second"):
        return f"{significant(value)} /s"
    return significant(value)


def with_spread(found, show):
    if found is None:
        return ""
    median, least, most = map(show, found[:3])
    return median if least == most else f"{median} ({least} .. {most})"


def ratio_text(value):
    return f"{value:.3f}"


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return [f"| {' | '.join(str(cell).replace('|', '/') for cell in line)} |" for line in lines] + [""]


class Verdict:
    """One bar of one row, against what was measured."""

    def __init__(self, measured, row, bar):
        self.row, self.bar = row, bar
        other_case, other = bar.other(row.case)
        errors = (measured.error(row.case, goals.JUDGED), other and measured.error(other_case, other))
        self.found = bar.spread(measured, row.case)
        self.own = measured.spread(row.case, goals.JUDGED, bar.figure)
        self.beside = bar.ratio_beside(measured, row.case)
        if any(errors):
            self.text = "failed"
        elif self.found is None:
            self.text = "not measured"
        else:
            self.text = "met" if self.is_met() else "**not met**"

    def is_met(self):
        return self.bar.is_met(self.found.median)

    def of_bar(self):
        """What is compared with the bar, with its spread."""
        is_ratio = self.bar.against and self.bar.compare is goals.ratio
        compared = with_spread(self.found, ratio_text if is_ratio else lambda value: amount(self.bar.figure, value))
        return f"{compared}; {with_spread(self.beside, ratio_text)} of {self.bar.beside}" if self.beside else compared

    def bar_text(self):
        bar = self.bar
        if bar.against and bar.compare is goals.ratio:
            return bar.text()
        return bar.text().replace(f"{bar.bar:,g}", amount(bar.figure, bar.bar), 1)

    def cells(self):
        own = "" if self.own is None else amount(self.bar.figure, self.own.median)
        return [self.row.title, f"`{self.bar.figure}`", own, self.bar_text(), self.of_bar(),
                self.found.rounds if self.found else 0, self.text]


def verdicts(measured, rows):
    return [Verdict(measured, row, bar) for row in rows for bar in row.bars]


def goals_section(measured, rows):
    judged = verdicts(measured, rows)
    met = sum(verdict.text == "met" for verdict in judged)
    yield "## Goals"
    yield ""
    yield f"{met} of {len(judged)} met. A ratio is the median of single rounds' ratios, with the least and the most."
    yield ""
    yield from table(["case", "figure", "relay", "bar", "measured against the bar", "rounds", "verdict"],
                     [verdict.cells() for verdict in judged])
    yield "Counts do not vary from run to run; tests hold them:"
    yield ""
    yield from table(["what", "goal"], goals.COUNTED)


def missed(measured, rows):
    """Pairs of a row and its goals that were not met."""
    judged = [(row, [one for one in verdicts(measured, [row]) if one.found and not one.is_met()]) for row in rows]
    return [(row, goals_missed) for row, goals_missed in judged if goals_missed]


def profile_lines(profiles):
    yield from table(["contender", "processor time a packet, both ends", *sampling.NAMES],
                     [[one.contender, "" if one.ns_per_packet is None else amount("_ns", one.ns_per_packet),
                       *(f"{100 * one.shares[name]:.0f} %" for name in sampling.NAMES)] for one in profiles])
    for one in profiles:
        if one.contender == goals.JUDGED:
            named = ", ".join(f"`{name}` {100 * share:.1f} %" for share, name in one.top)
            yield from (f"Most of it outside the kernel: {named}.", "")


def missed_section(measured, rows, profiles):
    """Profiles: by case, a list of them, or the reason why there is none."""
    found = missed(measured, rows)
    if not found:
        return
    yield "## Goals not met: where the time goes"
    yield ""
    yield ("Samples of the processor's time during one more run of each, set-up included; of connections at rest only those "
           "of the thread that ticks.")
    yield ""
    for subject in dict.fromkeys(row.case.subject for row, _ in found):
        title = SUBJECTS[subject][0] if subject in SUBJECTS else "Single costs"
        yield from (f"### {title}", "")
        yield from (goals.TRIED[subject], "") if subject in goals.TRIED else ()
        for row, judged in found:
            if row.case.subject == subject:
                yield from missed_row(row, judged, profiles.get(row.case, "No profile was taken."))


def missed_row(row, judged, taken):
    bars = "; ".join(f"`{verdict.bar.figure}` {verdict.of_bar()}, bar {verdict.bar_text()}" for verdict in judged)
    yield f"**{row.title}**: {bars}."
    yield ""
    yield from (taken, "") if isinstance(taken, str) else profile_lines(taken)


def contender_cells(measured, row, contender, main, others):
    error = measured.error(row.case, contender)
    if error:
        return [row.title, contender, f"failed: {error}", "", "", *("" for _ in others)]
    found = measured.spread(row.case, contender, main)
    against = measured.ratio((row.case, contender, main), (row.case, goals.LIMIT, main))
    cells = [row.title, contender, with_spread(found, lambda value: amount(main, value)),
             with_spread(against, ratio_text), found.rounds if found else ""]
    return cells + [other_cell(measured, row.case, contender, figure) for figure in others]


def other_cell(measured, which, contender, figure):
    found = measured.spread(which, contender, figure)
    if found is None:
        return ""
    median = amount(figure, found.median)
    is_compared = figure in RATIO_SHOWN and contender != goals.LIMIT
    against = is_compared and measured.ratio((which, contender, figure), (which, goals.LIMIT, figure))
    return f"{median}, ratio {ratio_text(against.median)}" if against else median


def subject_section(measured, rows, subject):
    title, main, others = SUBJECTS[subject]
    lines = [contender_cells(measured, row, contender, main, others) for row in rows if row.case.subject == subject
             for contender in measured.contenders(row.case)]
    if not lines:
        return
    yield f"## {title}"
    yield ""
    yield from (goals.ABOUT[subject], "") if subject in goals.ABOUT else ()
    yield from table(["case", "contender", f"`{main}`", "ratio to the skeleton", "rounds",
                      *(f"`{figure}`" for figure in others)], lines)


def micro_section(measured):
    which = goals.MICRO.case
    error = measured.error(which, goals.JUDGED)
    figures = dict.fromkeys(name for sample in measured.samples if sample.case == which for name in sample.figures)
    if not figures and not error:
        return
    yield "## Single costs"
    yield ""
    if error:
        yield from (f"failed: {error}", "")
    yield from table(["what", "processor time", "rounds"],
                     [[f"`{name}`", with_spread(found, lambda value: amount("_ns", value)), found.rounds]
                      for name in figures for found in [measured.spread(which, goals.JUDGED, name)]])


def notes_section(suite):
    notes = [f"- {name} was not built: its package is not installed here." for name in sorted(suite.not_built)]
    titles = {row.case: row.title for row in suite.rows}
    notes += [f"- {titles[which]}: {contender} has no part: {why}"
              for (which, contender), why in suite.left_out.items()]
    if notes:
        yield from ("## Who is missing", "", *notes, "")


def heading(run, suite):
    yield "# Benchmarks"
    yield ""
    if run.interrupted:
        yield "**Interrupted: this run was stopped before its end; what follows is what it had measured by then.**"
        yield ""
    yield (f"Written by `{run.command}`, which measured each figure below. Compare ratios; absolute figures are this "
           "machine's.")
    if suite.rounds < goals.ENOUGH_ROUNDS:
        yield (f"At most {suite.rounds} rounds: that tells a ratio no better than within several percent, so verdicts "
               "here are hints. The full run decides.")
    if run.left_out:
        yield f"Left out, because they take long: {'; '.join(run.left_out)}."
    yield ""
    discarded = sum(sample.state == REPEATED for sample in suite.results.samples)
    for name, text in (
            ("date", f"{run.began:%Y-%m-%d %H:%M} UTC, {run.minutes():.0f} minutes"),
            ("machine", run.machine),
            ("load average", f"{run.loads[0]} before, {run.loads[1]} after"),
            ("commit", run.commit),
            ("network", run.network),
            ("rounds", f"{suite.rounds}, contenders taking turns in each"),
            ("other load", f"{suite.disturbed} rounds were disturbed, {suite.repeated} of them repeated "
                           f"({discarded} measurements discarded); {suite.stays_disturbed} disturbed ones count")):
        yield f"- {name}: {text}"
    yield ""


def pictures_section(pictures):
    for name, title in pictures:
        yield f"![{title}](pictures/{name})"
        yield ""


def page(run, suite, pictures, comparison=(), profiles=None):
    measured, rows = suite.results, suite.rows
    lines = [*heading(run, suite), *goals_section(measured, rows), *comparison, *pictures_section(pictures),
             *missed_section(measured, rows, profiles or {})]
    for subject in SUBJECTS:
        lines += subject_section(measured, rows, subject)
    lines += [*micro_section(measured), *notes_section(suite)]
    return "\n".join(lines).rstrip() + "\n"


def now():
    return datetime.datetime.now(datetime.timezone.utc)
