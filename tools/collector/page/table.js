// Tables that are kept up to date in place: a row that has not changed is not touched, so that focus,
// selection and scroll positions stay. On narrow screens each row becomes a card (style.css), labelled by the
// column's title.
import {focusIn, h, patch} from "./dom.js";

const MOST =
    100;  // rows shown before a reader asks for all: hundreds that change every two seconds hold a page up

/**
 * @param columns [{ title, cell(row) -> text or nodes without listeners, num: right-aligned figure, sort(row)
 *     -> key, hint }]
 * @param options { label, key(row) -> identity, empty: text or node, sorted: index, descending, whole: shows
 *     all }
 * @returns { node, update(rows), rowAt(place) -> element }
 */
export function table(columns, options) {
    let rows = [];
    let order = {by: options.sorted ?? -1, down: options.descending ?? true};
    const known = new Map();  // key -> { tr, text of the row it shows }
    const body = h("tbody");
    const heads = columns.map((column, i) => head(column, i));
    const empty = h("div", {class: "empty", hidden: true}, options.empty ?? "Nothing here yet.");
    const inner =
        h("table", {class: "data", "aria-label": options.label}, h("thead", {}, h("tr", {}, heads)), body);
    const rest = h("button", {type: "button", class: "button rest", hidden: true, onclick: showAll});
    const node = h("div", {class: "table"}, inner, rest, empty);
    let most = options.whole ? Infinity : MOST;

    function showAll() {
        const first = Math.min(most, rows.length - 1);
        most = Infinity;
        update(rows);
        focusIn(body.children[first]);  // the button is gone
    }

    function head(column, i) {
        const props = {scope: "col", class: column.num && "num", title: column.hint};
        if (!column.sort) return h("th", props, column.title);
        const turn = () => {
            order = {by: i, down: order.by === i ? !order.down : Boolean(column.num)};
            update(rows);
        };
        return h("th", props, h("button", {type: "button", class: "sort", onclick: turn}, column.title));
    }

    const links = (tr) => [...tr.querySelectorAll("a, button")];

    // The first cell is what the row is about.
    function cells(row) {
        return columns.map(
            (column, i) =>
                h(i ? "td" : "th", {
                    scope: i === 0 && "row",
                    class: [column.num && "num", column.class].filter(Boolean).join(" ") || undefined,
                    "data-label": column.title
                },
                  column.cell(row)));
    }

    function show(row) {
        const key = String(options.key(row));
        const text = location.hash + JSON.stringify(row);  // cells have links, which go from here
        let entry = known.get(key);
        if (!entry) known.set(key, (entry = {tr: h("tr"), text: null}));
        if (entry.text !== text || options.always) {
            patch(entry.tr, cells(row));
            entry.text = text;
        }
        return [key, entry.tr];
    }

    function arranged() {
        const sort = columns[order.by]?.sort;
        if (!sort) return rows;
        const sign = order.down ? -1 : 1;
        const compare = (a, b) => (typeof a === "string" ? a.localeCompare(b) : (a ?? -1) - (b ?? -1));
        return [...rows].sort((a, b) => sign * compare(sort(a), sort(b)));
    }

    // The row that has the focus, and which of its links: a row that is moved loses it.
    function focusNow() {
        const tr = body.contains(document.activeElement) && document.activeElement.closest("tr");
        return tr ? {tr, place: links(tr).indexOf(document.activeElement)} : null;
    }

    function update(wanted) {
        const focus = focusNow();
        rows = wanted;
        heads.forEach((th, i) => {
            if (i === order.by)
                th.setAttribute("aria-sort", order.down ? "descending" : "ascending");
            else
                th.removeAttribute("aria-sort");
        });
        const shown = arranged().slice(0, most).map(show);
        const alive = new Set(shown.map(([key]) => key));
        for (const [key, entry] of known)
            if (!alive.has(key)) {
                entry.tr.remove();
                known.delete(key);
            }
        shown.forEach(([, tr], i) => {
            if (body.children[i] !== tr) body.insertBefore(tr, body.children[i] ?? null);
        });
        if (focus && !focus.tr.contains(document.activeElement))
            links(focus.tr)[focus.place]?.focus({preventScroll: true});
        rest.hidden = rows.length <= most;
        rest.textContent = `Show all ${rows.length}`;
        empty.hidden = rows.length > 0;
        inner.hidden = rows.length === 0;
    }
    return {node, update, rowAt: (place) => body.children[place]};
}

/** The name of the row of all that are not listed: there is nothing to filter by. */
export const REST = "(more)";

/** The link of a row: it takes clicks anywhere in the row that no other link takes. */
export function rowLink(href, ...children) {
    const title = children.length === 1 && longTitle(children[0]);
    return h("a", {class: "row-link", href, title}, children);
}

/** A name in a cell, of which a table shows a few lines at most. */
export function nameText(name) {
    return h("span", {class: "text", title: longTitle(name)}, name);
}

// What is cut where it is shown is told in full by its title.
const longTitle = (text) => typeof text === "string" && text.length > 60 && text;
