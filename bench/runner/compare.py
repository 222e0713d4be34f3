"""What changed between two runs."""

import statistics

import goals
import report


def middle(values):
    """The quarter above and below the median."""
    values = list(values)
    if len(values) < 2:
        return min(values), max(values)
    low, _, high = statistics.quantiles(values, n=4, method="inclusive")
    return low, high


def is_apart(before, after):
    """Whether the middle halves do not overlap."""
    (low, high), (new_low, new_high) = middle(before), middle(after)
    return new_low > high or new_high < low


def against_limit(measured, which, figure):
    """Each round's ratio to the skeleton, or the plain values where the skeleton has none."""
    own = measured.rounds(which, goals.JUDGED, figure)
    limit = measured.rounds(which, goals.LIMIT, figure)
    ratios = [value / limit[number] for number, value in own.items() if limit.get(number)]
    return ratios or list(own.values()), bool(ratios)


def rows(before, after, titles):
    for which, title in titles.items():
        if which.subject not in report.SUBJECTS:
            continue
        figure = report.SUBJECTS[which.subject][1]
        (old, old_ratio), (new, new_ratio) = (against_limit(run, which, figure) for run in (before, after))
        if not old or not new or old_ratio != new_ratio:
            continue
        show = report.ratio_text if new_ratio else lambda value, figure=figure: report.amount(figure, value)
        was, now = statistics.median(old), statistics.median(new)
        change = f"{100 * (now / was - 1):+.1f} %" if was else ""
        yield [title, f"`{figure}`{', ratio to the skeleton' if new_ratio else ''}", show(was), show(now), change,
               "yes" if is_apart(old, new) else "no"]


def section(before, after, titles, name):
    yield f"## Compared with {name}"
    yield ""
    yield "The relay before and now. A change is beyond the noise when the middle halves of the rounds do not overlap."
    yield ""
    yield from report.table(["case", "figure", "before", "now", "change", "beyond the noise"],
                            list(rows(before, after, titles)))
