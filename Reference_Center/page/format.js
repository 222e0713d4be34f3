// How figures are written. Each takes a number, or nothing for one that is not known.

const nothing = "–";
const space = "\u00a0";
const grouped = new Intl.NumberFormat("en-US", {maximumFractionDigits: 0});
const clock_time = new Intl.DateTimeFormat("en-GB", {hour: "2-digit", minute: "2-digit", second: "2-digit"});
const minute_time = new Intl.DateTimeFormat("en-GB", {hour: "2-digit", minute: "2-digit"});
const day_time = new Intl.DateTimeFormat("en-GB", {day: "numeric", month: "short", hour: "2-digit", minute: "2-digit"});

const known = (value) => typeof value === "number" && Number.isFinite(value);

/// The value in the largest unit that leaves it at 1 or more; units go up by a thousand. Three digits: 7.3, 48, 999, 1.25 k
function in_units(value, units) {
    let scaled = value;
    let index = 0;
    while (index + 1 < units.length && scaled >= 999.5) {
        scaled /= 1000;
        ++index;
    }
    const digits = index > 0 ? scaled.toPrecision(3) : scaled.toFixed(scaled < 9.95 ? 1 : 0);
    return {digits: String(Number(digits)), unit: units[index]};
}

function with_unit({digits, unit}) {
    return unit === "" ? digits : digits + space + unit;
}

export function count(value) {
    return known(value) ? grouped.format(value) : nothing;
}

export function short(value) {
    return known(value) ? with_unit(in_units(value, ["", "k", "M", "G"])) : nothing;
}

export function bytes(value) {
    return known(value) ? with_unit(in_units(value, ["B", "kB", "MB", "GB", "TB", "PB"])) : nothing;
}

/// Nothing takes no time at all: 0 is the figure of no packets.
export function micros(value) {
    return known(value) && value > 0 ? with_unit(in_units(value, ["µs", "ms", "s"])) : nothing;
}

export function limit(value) {
    return known(value) ? bytes(value) : "none";
}

export function duration(value) {
    if (!known(value)) {
        return nothing;
    }
    if (value < 9.95) {
        return value.toFixed(1) + space + "s";
    }
    const seconds = Math.round(value);
    const parts = [[86400, "d"], [3600, "h"], [60, "min"], [1, "s"]];
    const first = parts.findIndex(([size]) => seconds >= size);
    return parts.slice(first, first + 2)
        .map(([size, unit], index) => [Math.floor((index ? seconds % parts[first][0] : seconds) / size), unit])
        .filter(([amount], index) => index === 0 || amount > 0)
        .map(([amount, unit]) => amount + space + unit)
        .join(space);
}

export function minute(unix_ms) {
    return minute_time.format(unix_ms);
}

export function at_time(unix_ms) {
    return clock_time.format(unix_ms);
}

/// The time alone when it is today's.
export function moment(unix_ms) {
    const today = new Date().toDateString() === new Date(unix_ms).toDateString();
    return (today ? clock_time : day_time).format(unix_ms);
}

export function text(value) {
    return value === null || value === undefined ? nothing : String(value);
}

/// A word of the API as words of a sentence: peer_closed, connect_timeout
export function reason(value) {
    return text(value).replaceAll("_", " ");
}
