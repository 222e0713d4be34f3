// Time series of the last minutes. They live in the page: a page that is opened anew begins anew.

import * as format from "./format.js";

const kept_seconds = 300;
const colours = {in: "--in", out: "--out", other: "--other"};

/// What a custom property comes to under the colours in use; the canvas needs it as a plain colour.
function colour(name) {
    const probe = document.createElement("i");
    probe.hidden = true;
    probe.style.color = `var(${name})`;
    document.body.append(probe);
    const resolved = getComputedStyle(probe).color;
    probe.remove();
    return resolved;
}

function translucent(resolved) {
    return resolved.replace(/^rgb\((.*)\)$/, "rgba($1, 0.12)");
}

function axes(as, paint, small) {
    if (small) {
        return [{show: false}, {show: false}];
    }
    const font = "11px " + getComputedStyle(document.body).fontFamily;
    const common = {font, stroke: () => paint.muted, ticks: {show: false}};
    return [
        {...common, size: 26, space: 40, incrs: [60, 120, 300], grid: {show: false},
         values: (_, splits) => splits.map((at) => format.minute(at * 1000))},
        {...common, size: 54, space: 34, grid: {stroke: () => paint.line, width: 1},
         values: (_, splits) => splits.map(as)},
    ];
}

export class chart {
    /// Lines are names of colours; figures[i], where given, are the elements that show the value under the pointer.
    constructor(holder, lines, as, {small = false, figures = []} = {}) {
        this.data = [[], ...lines.map(() => [])];
        this.figures = figures;
        this.as = as;
        this.holder = holder;
        this.lines = lines;
        this.paint = {};
        this.choose_colours();
        const series = lines.map((line, index) => ({
            stroke: () => this.paint[line], width: 1.75, points: {show: false}, spanGaps: false,
            fill: index === 0 ? () => translucent(this.paint[line]) : undefined,
        }));
        this.plot = new uPlot({
            ...this.size(), padding: small ? [4, 0, 2, 0] : [8, 18, 0, 0], legend: {show: false},
            series: [{}, ...series], axes: axes(as, this.paint, small),
            scales: {x: {time: true, range: () => this.span()}, y: {range: (_, __, most) => [0, Math.max(1, most * 1.1)]}},
            cursor: {show: !small, y: false, drag: {x: false, y: false}, points: {size: 6}},
            hooks: {setCursor: [(plot) => this.point_at(plot.cursor.idx)]},
        }, this.data, holder);
        new ResizeObserver(() => this.plot.setSize(this.size())).observe(holder);
        document.addEventListener("theme", () => {
            this.choose_colours();
            this.plot.redraw(false);
        });
    }

    size() {
        return {width: Math.max(80, this.holder.clientWidth), height: this.holder.clientHeight};
    }

    span() {
        const last = this.data[0].at(-1) ?? Date.now() / 1000;
        return [last - kept_seconds, last];
    }

    choose_colours() {
        for (const line of this.lines) {
            this.paint[line] = colour(colours[line]);
        }
        this.paint.muted = colour("--muted");
        this.paint.line = colour("--rule");
    }

    /// True while the pointer is on the plot and its figures are shown in place of the newest.
    get is_pointed_at() {
        return this.figures.length > 0 && this.pointed !== undefined;
    }

    point_at(index) {
        this.pointed = typeof index === "number" ? index : undefined;
        if (this.pointed !== undefined) {
            this.figures.forEach((figure, line) => {
                figure.textContent = this.as(this.data[line + 1][this.pointed]);
            });
        }
    }

    /// Values: one for each line; null where nothing is known leaves a gap.
    add(at_seconds, values) {
        [at_seconds, ...values].forEach((value, index) => this.data[index].push(value));
        const first = this.data[0].findIndex((at) => at >= at_seconds - kept_seconds);
        if (first > 0) {
            this.data.forEach((column) => column.splice(0, first));
        }
        this.plot.setData(this.data);
    }
}
