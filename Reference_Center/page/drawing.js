// The drawing of the nodes and links: this node, its peers around it, and both ways of each link as wide as their rate.
// As many peers as have room are drawn each; more become one cloud of dots for each way of opening a connection.

import {set, set_text, svg} from "./dom.js";
import * as format from "./format.js";
import {state_text} from "./peers.js";

const narrow_width = 560;
const row_height = {two_lines: 36, one_line: 19};
const most_rows = {wide: 24, narrow: 16};
const wide_gap = {x: 62, y: 36};
const half_link = 3.2; ///< each way of a link lies that far beside its middle

const ways = [
    {over: "outgoing", title: "opened by this node"},
    {over: "accepted", title: "opened by peers"},
];

/// From a hair at rest to 7 pixels at 100 MB each second, each tenfold as much wider; less where links lie close.
function width_of(bytes_per_s, most) {
    return Math.min(1, 0.17 + Math.log10(1 + bytes_per_s / 10) * 0.119) * most;
}

function round(value) {
    return Math.round(value * 10) / 10;
}

/// One way of a link: a line beside the link's middle, with an arrow's head at its end.
function draw_lane(lane, tip, from, to, width) {
    const length = Math.hypot(to.x - from.x, to.y - from.y) || 1;
    const along = {x: (to.x - from.x) / length, y: (to.y - from.y) / length};
    const point = (distance, off) =>
        `${round(from.x + along.x * distance - along.y * off)} ${round(from.y + along.y * distance + along.x * off)}`;
    const head = 6 + width;
    const spread = width / 2 + 2.4;
    set(lane, "d", `M${point(0, half_link)}L${point(length - head, half_link)}`);
    set(lane, "stroke-width", round(width));
    set(tip, "d", `M${point(length, half_link)}L${point(length - head, half_link + spread)}` +
        `L${point(length - head, half_link - spread)}Z`);
}

/// A link without traffic is one line.
function draw_plain(lane, from, to) {
    set(lane, "d", `M${round(from.x)} ${round(from.y)}L${round(to.x)} ${round(to.y)}`);
    set(lane, "stroke-width", 1.8);
}

class link {
    constructor(parent) {
        this.group = svg("g", parent);
        this.lanes = [0, 1].map(() => svg("path", this.group, {class: "lane"}));
        this.tips = [0, 1].map(() => svg("path", this.group, {class: "tip"}));
    }

    /// From beside the hub, which is wider than high, to that far before the end.
    draw(hub, end, gap, state, rates) {
        set(this.group, "class", `link ${state}`);
        const length = Math.hypot(end.x - hub.x, end.y - hub.y) || 1;
        const along = {x: (end.x - hub.x) / length, y: (end.y - hub.y) / length};
        const at = (distance) => ({x: hub.x + along.x * distance, y: hub.y + along.y * distance});
        const near = at(1 / Math.hypot(along.x / hub.gap.x, along.y / hub.gap.y));
        const far = at(length - gap);
        if (state === "established") {
            const most = end.widest ?? 7;
            draw_lane(this.lanes[0], this.tips[0], near, far, width_of(rates.bytes_out_per_s, most));
            draw_lane(this.lanes[1], this.tips[1], far, near, width_of(rates.bytes_in_per_s, most));
        } else {
            draw_plain(this.lanes[0], near, far);
            [this.lanes[1], ...this.tips].forEach((part) => set(part, "d", ""));
        }
    }
}

function rates_text(rates) {
    return `${format.bytes(rates.bytes_in_per_s)}/s in, ${format.bytes(rates.bytes_out_per_s)}/s out`;
}

function peer_line(peer) {
    return peer.shown === "established" ? rates_text(peer.rates) : state_text(peer);
}

/// One peer with its link, address and what it does.
class peer_figure {
    constructor(layers, peer, on_choice) {
        this.link = new link(layers.links);
        this.group = svg("g", layers.nodes);
        this.group.dataset.peer = peer.address;
        this.group.addEventListener("click", () => on_choice(peer.address));
        const square = {x: -7, y: -7, width: 14, height: 14, rx: 3};
        this.shape = peer.over === "outgoing" ? svg("rect", this.group, square)
            : svg("circle", this.group, {r: 7});
        this.cross = svg("path", this.group, {class: "cross", d: "M-3 -3L3 3M3 -3L-3 3"});
        this.name = svg("text", this.group, {class: "name"});
        this.line = svg("text", this.group, {class: "line"});
        this.title = svg("title", this.group);
        set_text(this.name, peer.address);
    }

    draw(peer, hub, place) {
        set(this.group, "class", `node ${peer.shown}${peer.fades ? " fades" : ""}`);
        set(this.group, "transform", `translate(${round(place.x)} ${round(place.y)})`);
        this.link.draw(hub, place, 12, peer.shown + (peer.fades ? " fades" : ""), peer.rates);
        const x = place.right ? 14 : -14;
        for (const text of [this.name, this.line]) {
            set(text, "x", x);
            set(text, "text-anchor", place.right ? "start" : "end");
        }
        const two_lines = place.two_lines;
        set(this.name, "y", two_lines ? -2 : 4);
        set(this.line, "y", 12);
        set_text(this.line, two_lines ? peer_line(peer) : "");
        set_text(this.title, `${peer.address}, ${peer_line(peer)}`);
    }

    remove() {
        this.link.group.remove();
        this.group.remove();
    }
}

/// All peers of one way, a dot each. A peer keeps its place for as long as it is there.
class cloud_figure {
    constructor(layers, title, on_choice) {
        this.link = new link(layers.links);
        this.group = svg("g", layers.nodes, {class: "cloud"});
        this.rim = svg("circle", this.group, {class: "rim"});
        this.dots_group = svg("g", this.group);
        this.name = svg("text", this.group, {class: "name", "text-anchor": "middle"});
        this.line = svg("text", this.group, {class: "line", "text-anchor": "middle"});
        this.title = title;
        this.dots = new Map();
        this.places = [];
        this.on_choice = on_choice;
    }

    draw(peers, hub, area) {
        this.keep(peers);
        const step = Math.min(13, area.radius / Math.sqrt(this.places.length + 1));
        for (const peer of peers) {
            this.draw_dot(this.dots.get(peer.key), peer, step);
        }
        const radius = Math.max(step * Math.sqrt(this.places.length + 1) + step / 2, 26);
        set(this.group, "transform", `translate(${round(area.x)} ${round(area.y)})`);
        set(this.rim, "r", round(radius));
        set(this.name, "y", round(area.named_above ? -radius - 24 : radius + 18));
        set(this.line, "y", round(area.named_above ? -radius - 9 : radius + 33));
        const rates = sum_of_rates(peers);
        set_text(this.name, `${format.count(peers.filter((peer) => peer.shown !== "gone").length)} ${this.title}`);
        set_text(this.line, rates_text(rates));
        const state = peers.some((peer) => peer.shown === "established") ? "established" : peers[0].shown;
        this.link.draw(hub, area, radius + 4, state, rates);
    }

    /// Dots for those who are new, none for those who left; the lowest free place first.
    keep(peers) {
        const present = new Set(peers.map((peer) => peer.key));
        for (const [key, dot] of this.dots) {
            if (!present.has(key)) {
                dot.shape.remove();
                this.dots.delete(key);
                this.places[dot.place] = undefined;
            }
        }
        while (this.places.length > 0 && this.places.at(-1) === undefined) {
            this.places.pop();
        }
        let free = 0;
        for (const peer of peers.filter((one) => !this.dots.has(one.key))) {
            while (this.places[free] !== undefined) {
                ++free;
            }
            this.places[free] = peer.key;
            this.dots.set(peer.key, this.new_dot(peer, free));
        }
    }

    new_dot(peer, place) {
        const shape = svg("circle", this.dots_group);
        shape.dataset.peer = peer.address;
        shape.addEventListener("click", () => this.on_choice(peer.address));
        return {shape, place, title: svg("title", shape)};
    }

    /// The places turn by the golden angle, so that the dots lie evenly however many there are.
    draw_dot(dot, peer, step) {
        const distance = step * Math.sqrt(dot.place + 0.4);
        const angle = dot.place * 2.399963;
        set(dot.shape, "cx", round(distance * Math.cos(angle)));
        set(dot.shape, "cy", round(distance * Math.sin(angle)));
        set(dot.shape, "r", round(Math.max(1.5, step * (peer.shown === "established" ? 0.58 : 0.68))));
        set(dot.shape, "class", `node ${peer.shown}${peer.fades ? " fades" : ""}`);
        set_text(dot.title, `${peer.address}, ${peer_line(peer)}`);
    }

    remove() {
        this.link.group.remove();
        this.group.remove();
    }
}

function sum_of_rates(peers) {
    const sum = {bytes_in_per_s: 0, bytes_out_per_s: 0};
    for (const peer of peers.filter((one) => one.shown === "established")) {
        sum.bytes_in_per_s += peer.rates.bytes_in_per_s;
        sum.bytes_out_per_s += peer.rates.bytes_out_per_s;
    }
    return sum;
}

/// Places of up to twice most_rows peers: a column at each side of this node, bent around it; one column where it is narrow.
function row_places(amount, width, height, narrow) {
    const columns = narrow || amount === 1 ? 1 : 2;
    const right_ones = Math.ceil(amount / columns);
    const hub = narrow ? {x: 30, y: height / 2, gap: {x: 20, y: 20}} : {x: width / 2, y: height / 2, gap: wide_gap};
    const label_room = narrow ? 200 : 190;
    const places = [];
    for (let index = 0; index < amount; ++index) {
        const right = index < right_ones;
        const rows = right ? right_ones : amount - right_ones;
        const row = right ? index : index - right_ones;
        const share = (row + 0.5) / rows * 2 - 1; // from -1 at the top to 1 at the bottom
        const room = height / rows;
        const reach = narrow ? Math.min(110, width - label_room - hub.x) : Math.min(width / 2 - label_room, height * 0.72);
        const bend = narrow ? 1 : Math.sqrt(1 - 0.7 * share * share);
        places.push({x: hub.x + (right ? 1 : -1) * reach * bend, y: hub.y + share * height / 2, right,
                     widest: Math.min(7, room / 4), two_lines: room >= row_height.two_lines - 4});
    }
    return {hub, places};
}

function rows_height(amount, narrow) {
    if (narrow) {
        return Math.max(120, amount * row_height.two_lines);
    }
    return Math.max(440, Math.ceil(amount / 2) * row_height.one_line);
}

/// Where this node and the clouds are. Each cloud's name stands where its link does not.
function cloud_places(amount, width, narrow) {
    if (amount === 1) {
        const radius = Math.min(width * (narrow ? 0.45 : 0.3), narrow ? 130 : 190);
        return narrow ? {hub: {x: width / 2, y: 30, gap: wide_gap}, areas: [{x: width / 2, y: 120 + radius, radius}],
                         height: 165 + 2 * radius}
            : {hub: {x: width * 0.2, y: 222, gap: wide_gap}, areas: [{x: width * 0.66, y: 222, radius}], height: 480};
    }
    if (narrow) {
        const radius = Math.min(width / 2 - 12, 100);
        const hub = {x: width / 2, y: 2 * radius + 130, gap: wide_gap};
        return {hub, areas: [{x: hub.x, y: hub.y - 90 - radius, radius, named_above: true},
                             {x: hub.x, y: hub.y + 90 + radius, radius}], height: 4 * radius + 265};
    }
    const radius = Math.min(width * 0.22, 168);
    return {hub: {x: width / 2, y: 36, gap: wide_gap}, height: 480,
            areas: [{x: width * 0.76, y: 260, radius}, {x: width * 0.24, y: 260, radius}]};
}

export class drawing {
    /// On_choice(address) is called when somebody clicks on a peer.
    constructor(holder, on_choice) {
        this.on_choice = on_choice;
        this.root = svg("svg", holder, {role: "img"});
        this.layers = {links: svg("g", this.root), nodes: svg("g", this.root)};
        this.hub = svg("g", this.root, {class: "hub"});
        this.hub_shape = svg("rect", this.hub, {rx: 12});
        this.hub_name = svg("text", this.hub, {class: "name", "text-anchor": "middle", y: -3});
        this.hub_line = svg("text", this.hub, {class: "line", "text-anchor": "middle", y: 13});
        this.figures = new Map();
        this.last = {peers: [], endpoint: ""};
        new ResizeObserver(() => this.draw(this.last.peers, this.last.endpoint)).observe(holder);
        this.holder = holder;
    }

    /// True when each peer is drawn with its name.
    draw(peers, endpoint) {
        this.last = {peers, endpoint};
        const width = this.holder.clientWidth;
        if (width === 0) {
            return true;
        }
        const narrow = width < narrow_width;
        set(this.root, "aria-label", `This node with ${peers.length} peers; the table of peers has the same`);
        const draws_each = peers.length <= (narrow ? most_rows.narrow : 2 * most_rows.wide);
        this.keep(draws_each ? new Map(peers.map((peer) => [peer.key, peer])) : this.clouds_of(peers), draws_each);
        const {hub, height} = draws_each ? this.draw_rows(peers, width, narrow) : this.draw_clouds(peers, width, narrow);
        set(this.root, "viewBox", `0 0 ${width} ${Math.round(height)}`);
        set(this.root, "height", Math.round(height));
        this.draw_hub(hub, endpoint);
        return draws_each;
    }

    clouds_of(peers) {
        return new Map(ways.filter((way) => peers.some((peer) => peer.over === way.over)).map((way) => [way.over, way]));
    }

    keep(wanted, draws_each) {
        for (const [key, figure] of this.figures) {
            if (!wanted.has(key)) {
                figure.remove();
                this.figures.delete(key);
            }
        }
        for (const [key, what] of wanted) {
            if (!this.figures.has(key)) {
                this.figures.set(key, draws_each ? new peer_figure(this.layers, what, this.on_choice)
                    : new cloud_figure(this.layers, what.title, this.on_choice));
            }
        }
    }

    draw_rows(peers, width, narrow) {
        const height = rows_height(peers.length, narrow);
        const {hub, places} = row_places(peers.length, width, height, narrow);
        peers.forEach((peer, index) => this.figures.get(peer.key).draw(peer, hub, places[index]));
        return {hub: {...hub, narrow}, height};
    }

    draw_clouds(peers, width, narrow) {
        const used = ways.filter((way) => this.figures.has(way.over));
        const {hub, areas, height} = cloud_places(used.length, width, narrow);
        used.forEach((way, index) =>
            this.figures.get(way.over).draw(peers.filter((peer) => peer.over === way.over), hub, areas[index]));
        return {hub, height};
    }

    /// With its address in it where there is room; else a plain mark.
    draw_hub(hub, endpoint) {
        const size = hub.narrow ? {width: 28, height: 28} : {width: 104, height: 48};
        set(this.hub, "transform", `translate(${round(hub.x)} ${round(hub.y)})`);
        for (const [key, value] of Object.entries({...size, x: -size.width / 2, y: -size.height / 2})) {
            set(this.hub_shape, key, value);
        }
        set_text(this.hub_name, hub.narrow ? "" : "this node");
        set_text(this.hub_line, hub.narrow ? "" : endpoint);
    }
}
