// Asks the Center twice a second and shows what it answers.

import {chart} from "./charts.js";
import {by_id, element, remake, set_text} from "./dom.js";
import {drawing} from "./drawing.js";
import * as format from "./format.js";
import {peer_list, state_text} from "./peers.js";
import {table} from "./table.js";

const period_ms = 500;
const hidden_period_ms = 2000;
const patience_ms = 1500;
const closed_period_ms = 2000;
const notice_ms = 8000;
const most_chips = 12;
const states = ["gone", "lost", "connecting", "established"]; ///< what is worth a look first
const opened_by = {outgoing: "this node", accepted: "the peer"};
const harmless = ["peer_closed", "deleted", "shutdown"];

const peers = new peer_list();
const bound = [...document.querySelectorAll("[data-key]")].map((target) =>
    ({target, path: target.dataset.key.split(".").slice(1), as: format[target.dataset.as ?? "text"]}));

const per_second = (as) => (value) => `${as(value)}/s`;

function column(key, title, read, as, more = {}) {
    return {key, title, value: read, text: (row) => as(read(row)), number: as !== format.text, ...more};
}

const busiest = {first: "descending"};

const peer_table = new table(by_id("peers"), {
    id: "peers", title: "Peers", key: (peer) => peer.key, class_of: (peer) => peer.shown, counts: (peer) => peer.shown !== "gone",
    sort: {key: "state", order: "ascending"}, empty: "No peer is connected, and none is to be.",
    columns: [
        column("address", "Peer", (peer) => peer.address, format.text),
        {key: "state", title: "State", value: (peer) => states.indexOf(peer.shown), text: state_text},
        column("over", "Opened by", (peer) => opened_by[peer.over], format.text),
        column("since_s", "For", (peer) => peer.since_s, format.duration),
        column("packets_in", "Packets in", (peer) => peer.rates.packets_in_per_s, per_second(format.short), busiest),
        column("packets_out", "Packets out", (peer) => peer.rates.packets_out_per_s, per_second(format.short), busiest),
        column("bytes_in", "Bytes in", (peer) => peer.rates.bytes_in_per_s, per_second(format.bytes), busiest),
        column("bytes_out", "Bytes out", (peer) => peer.rates.bytes_out_per_s, per_second(format.bytes), busiest),
        column("queue_packets", "Queued", (peer) => peer.queue.packets, format.count, busiest),
        column("queue_bytes", "Bytes queued", (peer) => peer.queue.bytes, format.bytes, busiest),
        column("p99", "Latency p99", (peer) => peer.latency_us.p99, format.micros, busiest),
        column("silent_s", "Silent", (peer) => peer.silent_s, format.duration, busiest),
    ],
});

const closed_table = new table(by_id("closed"), {
    id: "closed", title: "Closed connections", key: (one) => one.key,
    class_of: (one) => harmless.includes(one.reason) ? "" : "failed",
    sort: {key: "closed_unix_ms", order: "descending"}, empty: "None since the start.",
    columns: [
        column("closed_unix_ms", "Closed", (one) => one.closed_unix_ms, format.moment, busiest),
        column("address", "Peer", (one) => one.address, format.text),
        column("reason", "Reason", (one) => one.reason, format.reason, {number: false}),
        column("detail", "Detail", (one) => one.detail, format.text),
        column("times", "Times", (one) => one.times, format.count, busiest),
        column("over", "Opened by", (one) => opened_by[one.over], format.text),
        column("lasted_s", "Lasted", (one) => one.lasted_s, format.duration, busiest),
        column("packets_in", "Packets in", (one) => one.in.packets, format.count, busiest),
        column("packets_out", "Packets out", (one) => one.out.packets, format.count, busiest),
        column("bytes_in", "Bytes in", (one) => one.in.bytes, format.bytes, busiest),
        column("bytes_out", "Bytes out", (one) => one.out.bytes, format.bytes, busiest),
    ],
});

const config_table = new table(by_id("config_table"), {
    id: "config", title: "Keys", key: (one) => one.key, sort: {key: "key", order: "ascending"}, filter: false,
    empty: "The Center names none.",
    columns: [
        column("key", "Key", (one) => one.key, format.text),
        column("value", "Value", (one) => one.value, format.text),
        column("default", "Default", (one) => one.default, format.text),
        column("origin", "From", (one) => one.origin, format.text),
        column("effect", "Effect", (one) => one.effect, format.text),
    ],
});

const picture = new drawing(by_id("drawing"), (address) => {
    peer_table.set_filter(address);
    by_id("peers").scrollIntoView({block: "nearest"});
});

function flow_chart(what, as) {
    return new chart(by_id(`${what}_plot`), ["in", "out"], as, {figures: [by_id(`${what}_in`), by_id(`${what}_out`)]});
}

function small_chart(what, as) {
    return new chart(by_id(`${what}_plot`), ["other"], as, {small: true});
}

const charts = {
    packets: flow_chart("packets", format.short),
    bytes: flow_chart("bytes", format.bytes),
    queue: small_chart("queue", format.bytes),
    latency: small_chart("latency", format.micros),
    inbox: small_chart("inbox", format.count),
};

function add_to_charts(status) {
    const now = Date.now() / 1000;
    const rates = status?.rates;
    charts.packets.add(now, [rates?.packets_in_per_s ?? null, rates?.packets_out_per_s ?? null]);
    charts.bytes.add(now, [rates?.bytes_in_per_s ?? null, rates?.bytes_out_per_s ?? null]);
    charts.queue.add(now, [status?.queue.bytes ?? null]);
    charts.latency.add(now, [status?.latency_us.p99 || null]);
    charts.inbox.add(now, [status?.inbox.packets ?? null]);
}

/// Where this node is to be found, short.
function endpoint_of(status) {
    const address = status.addresses[0] ?? "";
    if (status.ports.length === 0) {
        return address;
    }
    return address === "" ? `port ${status.ports[0]}` : `${address}:${status.ports[0]}`;
}

function show_health(status) {
    const [state, word] = status === null ? ["bad", "no answer"]
        : !status.healthy ? ["bad", "not healthy"]
        : !status.ready ? ["warn", "not ready"]
        : status.problems.length > 0 ? ["warn", "ready, with problems"] : ["good", "ready"];
    const pill = by_id("health");
    pill.dataset.state = state;
    set_text(pill, word);
    const name = `Center ${by_id("endpoint").textContent}`.trim();
    document.title = state === "good" ? name : `(${word}) ${name}`;
}

function show_balance(outcomes) {
    const ended = ["written", "returned", "dropped", "failed", "queued"].reduce((sum, key) => sum + outcomes[key], 0);
    const badge = by_id("balance");
    badge.dataset.state = outcomes.balances ? "good" : "bad";
    set_text(badge, outcomes.balances ? "balances" : `off by ${format.count(Math.abs(outcomes.handed_over - ended))}`);
}

/// From 1 microsecond to 10 seconds, each tenfold as much longer.
function show_latency_bars(latency) {
    ["p50", "p90", "p99", "max"].forEach((key, index) => {
        const part = Math.log10(Math.max(1, latency[key] ?? 1)) / 7;
        by_id("latency").querySelectorAll(".bar i")[index].style.width = `${Math.min(100, Math.round(part * 100))}%`;
    });
}

function show_listeners(listeners) {
    remake(by_id("listeners"), listeners, (holder, one) => {
        const item = element("li", holder, {"data-port": one.port});
        element("b", item, {class: "port"}, String(one.port));
        const meter = element("meter", item, {min: 0, max: Math.max(1, one.backlog_limit), value: one.backlog,
                                              high: Math.max(1, one.backlog_limit * 0.7), optimum: 0});
        meter.setAttribute("aria-label", `Backlog of port ${one.port}`);
        element("span", item, {class: "backlog"}, `${format.count(one.backlog)} of ${format.count(one.backlog_limit)} waiting`);
        element("span", item, {class: "knocks"}, `knocks ${format.count(one.knocks)}`);
    });
    by_id("no_listeners").hidden = listeners.length > 0;
}

function show_threads(threads) {
    remake(by_id("threads"), threads, (holder, one) => {
        const item = element("li", holder, {"data-state": one.running ? "good" : "bad"});
        element("span", item, {}, one.name);
        element("span", item, {class: "muted"}, one.running ? "running" : "ended");
    });
}

function show_problems(problems) {
    remake(by_id("problems").querySelector("ul"), problems, (holder, one) => element("li", holder, {}, one));
    by_id("problems").hidden = problems.length === 0;
}

function show_status(status) {
    for (const {target, path, as} of bound) {
        set_text(target, as(path.reduce((value, key) => value?.[key], status)));
    }
    const endpoint = by_id("endpoint");
    set_text(endpoint, endpoint_of(status));
    endpoint.title = `addresses ${status.addresses.join(", ") || "none"}; ports ${status.ports.join(", ") || "none"}`;
    show_health(status);
    show_balance(status.outcomes);
    show_latency_bars(status.latency_us);
    show_listeners(status.listeners);
    show_threads(status.threads);
    show_problems(status.problems);
}

function show_counts(shown) {
    const parts = states.toReversed().map((state) => [shown.filter((peer) => peer.shown === state).length, state])
        .filter(([amount]) => amount > 0).map(([amount, state]) => `${format.count(amount)} ${state}`);
    set_text(by_id("counts"), parts.join(", ") || "no peers");
}

/// Names what a dot among many cannot name.
function show_troubled(shown, draws_each) {
    const troubled = draws_each ? [] : shown.filter((peer) => peer.shown !== "established")
        .sort((left, right) => states.indexOf(left.shown) - states.indexOf(right.shown));
    const chips = troubled.slice(0, most_chips).map((peer) => ({state: peer.shown, text: peer.address}));
    if (troubled.length > chips.length) {
        chips.push({state: "more", text: `and ${format.count(troubled.length - chips.length)} more`});
    }
    remake(by_id("troubled"), chips, (holder, chip) => element("li", holder, {"data-state": chip.state}, chip.text));
    by_id("troubled").hidden = chips.length === 0;
}

function show_peers() {
    const shown = peers.shown(performance.now());
    show_counts(shown);
    show_troubled(shown, picture.draw(shown, by_id("endpoint").textContent));
    peer_table.show(shown);
}

function show_closed(closed) {
    const seen = new Map();
    closed_table.show(closed.map((one) => {
        const name = `${one.closed_unix_ms} ${one.over} ${one.address}`;
        seen.set(name, (seen.get(name) ?? 0) + 1);
        return {...one, key: `${name} ${seen.get(name)}`};
    }));
    peers.explain(closed);
}

async function ask(what) {
    const answer = await fetch(`api/v1/${what}`, {cache: "no-store", signal: AbortSignal.timeout(patience_ms)});
    if (!answer.ok) {
        throw new Error(`${what}: ${answer.status}`);
    }
    return answer.json();
}

let started; ///< of the Center that answered last
let answered; ///< when that was; undefined before its first answer
let is_absent = false;
let closed_due = 0;
let notice_timer;

function tell(text) {
    const notice = by_id("notice");
    notice.textContent = text;
    notice.hidden = false;
    clearTimeout(notice_timer);
    notice_timer = setTimeout(() => { notice.hidden = true; }, notice_ms);
}

function is_there(status) {
    const is_new = started !== undefined && started !== status.started_unix_ms;
    if (is_new) {
        tell(`The Center was started anew at ${format.moment(status.started_unix_ms)}.`);
    } else if (is_absent) {
        tell("The Center answers again.");
    }
    if ((is_new || is_absent) && by_id("config").open) {
        show_config();
    }
    started = status.started_unix_ms;
    answered = Date.now();
    is_absent = false;
    by_id("absent").hidden = true;
    delete document.body.dataset.absent;
}

function is_not_there() {
    if (!is_absent) {
        is_absent = true;
        by_id("absent").textContent = answered === undefined ? "The Center does not answer. Trying again twice a second."
            : `No answer from the Center since ${format.at_time(answered)}. What is shown is from then. Trying again twice a second.`;
        by_id("absent").hidden = false;
        document.body.dataset.absent = "";
        show_health(null);
    }
    add_to_charts(null);
}

/// The answers of one look, or nothing when one of them did not come.
async function gather() {
    try {
        const [status, named] = await Promise.all([ask("status"), ask("peers")]);
        const now = performance.now();
        const changed = peers.take(named.peers, status.started_unix_ms, now);
        const closed = changed || now >= closed_due ? (await ask("closed")).closed : undefined;
        closed_due = closed === undefined ? closed_due : now + closed_period_ms;
        return {status, closed};
    } catch {
        return undefined;
    }
}

function show({status, closed}) {
    is_there(status);
    if (closed !== undefined) {
        show_closed(closed);
    }
    show_status(status);
    add_to_charts(status);
    show_peers();
}

async function show_config() {
    const config = await ask("config").catch(() => ({file: "", keys: []}));
    set_text(by_id("config_file"), config.file ? `read from ${config.file}` : "no file was read");
    config_table.show(config.keys);
}

let next_look;
let is_looking = false;

async function keep_looking() {
    if (is_looking) {
        return;
    }
    is_looking = true;
    clearTimeout(next_look);
    const began = performance.now();
    const answers = await gather();
    const period = document.hidden ? hidden_period_ms : period_ms;
    next_look = setTimeout(keep_looking, Math.max(50, began + period - performance.now()));
    is_looking = false;
    answers === undefined ? is_not_there() : show(answers);
}

by_id("config").addEventListener("toggle", () => by_id("config").open && show_config());
document.addEventListener("visibilitychange", () => !document.hidden && keep_looking());
keep_looking();
