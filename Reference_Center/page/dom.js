// Making elements, and changing them only where something is different.

const svg_names = "http://www.w3.org/2000/svg";

function put(made, parent, attributes) {
    for (const [key, value] of Object.entries(attributes)) {
        made.setAttribute(key, value);
    }
    parent.append(made);
    return made;
}

export function element(name, parent, attributes = {}, text = "") {
    const made = put(document.createElement(name), parent, attributes);
    made.textContent = text;
    return made;
}

export function svg(name, parent, attributes = {}) {
    return put(document.createElementNS(svg_names, name), parent, attributes);
}

export function set(target, key, value) {
    const text = String(value);
    if (target.getAttribute(key) !== text) {
        target.setAttribute(key, text);
    }
}

export function set_text(target, text) {
    if (target.textContent !== text) {
        target.textContent = text;
    }
}

/// Makes a holder's content anew with make(what) when the content differs from the last time.
export function remake(holder, content, make) {
    const text = JSON.stringify(content);
    if (holder.made_of !== text) {
        holder.made_of = text;
        holder.replaceChildren();
        content.forEach((what) => make(holder, what));
    }
}

export function by_id(id) {
    return document.getElementById(id);
}
