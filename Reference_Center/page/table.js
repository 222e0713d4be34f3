// A table that is sorted by its headings, filtered by a text, and changed in place.

import {element, set_text} from "./dom.js";
import * as format from "./format.js";

const page_size = 100;

function compare(left, right) {
    if (typeof left === "number" && typeof right === "number") {
        return left - right;
    }
    return String(left ?? "").localeCompare(String(right ?? ""), "en", {numeric: true});
}

export class table {
    /// Columns: {key, title, value(row) to sort by, text(row), number, first: "descending" when that is asked for first}.
    /// A row's key names it; class_of(row) is what the style sheet knows it by; counts(row) whether the heading counts it.
    constructor(holder, {id, title, columns, key, class_of = () => "", counts = () => true, sort, empty, filter = true}) {
        Object.assign(this, {columns, key, class_of, counts, empty, all: [], rows: new Map(), shown: page_size});
        this.sort = {...sort};
        this.make_head(holder, id, title, filter);
        const frame = element("div", holder, {class: "frame"});
        this.table = element("table", frame, {id: `${id}_table`, class: "list"});
        this.table.setAttribute("aria-labelledby", `${id}_title`);
        this.make_headings(element("tr", element("thead", this.table)));
        this.body = element("tbody", this.table);
        this.nobody = element("p", holder, {class: "muted none"});
        this.more = element("button", holder, {type: "button", class: "more"});
        this.more.addEventListener("click", () => {
            this.shown += page_size;
            this.draw();
        });
    }

    make_head(holder, id, title, filter) {
        const head = element("div", holder, {class: "head"});
        const heading = element("h2", head, {id: `${id}_title`}, title + " ");
        this.amount = element("span", heading, {class: "amount"});
        const tools = element("div", head, {class: "tools"});
        const sorter = element("label", tools, {class: "sorter"}, "Sort by ");
        this.sorter = element("select", sorter);
        for (const column of this.columns) {
            element("option", this.sorter, {value: column.key}, column.title);
        }
        this.sorter.addEventListener("change", () => this.sort_by(this.column(this.sorter.value)));
        if (filter) {
            this.filter = element("input", tools, {type: "search", placeholder: "Filter", autocomplete: "off", spellcheck: "false",
                                                   "aria-label": `Filter: ${title}`});
            this.filter.addEventListener("input", () => this.draw());
        }
    }

    make_headings(row) {
        for (const column of this.columns) {
            column.heading = element("th", row, {scope: "col", class: column.number ? "number" : ""});
            const button = element("button", column.heading, {type: "button"}, column.title);
            button.addEventListener("click", () => this.sort_by(column));
        }
    }

    column(key) {
        return this.columns.find((column) => column.key === key);
    }

    /// The same column once more turns the order round.
    sort_by(column) {
        const first = column.first ?? "ascending";
        const other = first === "ascending" ? "descending" : "ascending";
        this.sort = {key: column.key, order: this.sort.key === column.key && this.sort.order === first ? other : first};
        this.draw();
    }

    set_filter(text) {
        this.filter.value = text;
        this.draw();
    }

    show(rows) {
        this.all = rows;
        this.draw();
    }

    draw() {
        const wanted = (this.filter?.value ?? "").trim().toLowerCase();
        const passing = wanted === "" ? [...this.all] : this.all.filter((row) =>
            this.columns.some((column) => !column.number && column.text(row).toLowerCase().includes(wanted)));
        this.order(passing);
        const drawn = passing.slice(0, this.shown);
        this.draw_rows(drawn);
        const [all, some] = [this.all, passing].map((rows) => format.count(rows.filter(this.counts).length));
        set_text(this.amount, wanted === "" ? all : `${some} of ${all}`);
        set_text(this.nobody, this.all.length === 0 ? this.empty : "Nothing passes the filter.");
        this.nobody.hidden = passing.length > 0;
        this.table.hidden = passing.length === 0;
        this.more.hidden = drawn.length === passing.length;
        set_text(this.more, `Show more: ${format.count(passing.length - drawn.length)} are left`);
    }

    order(rows) {
        const column = this.column(this.sort.key);
        const turn = this.sort.order === "descending" ? -1 : 1;
        const tie = this.columns[0];
        rows.sort((left, right) => turn * compare(column.value(left), column.value(right)) ||
            compare(tie.value(left), tie.value(right)));
        for (const other of this.columns) {
            other.heading.setAttribute("aria-sort", other === column ? this.sort.order : "none");
        }
        this.sorter.value = column.key;
    }

    draw_rows(drawn) {
        const present = new Set(drawn.map(this.key));
        for (const [key, row] of this.rows) {
            if (!present.has(key)) {
                row.remove();
                this.rows.delete(key);
            }
        }
        let after = null;
        for (const data of drawn) {
            const row = this.rows.get(this.key(data)) ?? this.new_row(data);
            this.fill(row, data);
            const next = after === null ? this.body.firstElementChild : after.nextElementSibling;
            if (next !== row) {
                this.body.insertBefore(row, next);
            }
            after = row;
        }
    }

    new_row(data) {
        const row = element("tr", this.body, {"data-row": this.key(data)});
        this.columns.forEach((column, index) => {
            element(index === 0 ? "th" : "td", row, {"data-column": column.key, "data-title": column.title,
                                                     class: column.number ? "number" : "", ...(index === 0 && {scope: "row"})});
        });
        this.rows.set(this.key(data), row);
        return row;
    }

    fill(row, data) {
        row.className = this.class_of(data);
        this.columns.forEach((column, index) => set_text(row.children[index], column.text(data)));
    }
}
