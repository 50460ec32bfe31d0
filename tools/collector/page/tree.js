// The call tree of a transaction with its time line. Items come in the order of their begin; what stands
// behind an item with a greater depth belongs to it.
import {brief, focusIn, folded, h} from "./dom.js";
import {count, ms} from "./format.js";
import {to} from "./router.js";

const FIRST = 400;  // rows shown before a reader asks for more
const MORE = 2000;  // rows that each asking adds

// For each item the place behind its last descendant.
function ends(items) {
    const end = new Array(items.length).fill(items.length);
    const open = [];
    items.forEach((item, i) => {
        while (open.length && items[open.at(-1)].depth >= item.depth) end[open.pop()] = i;
        open.push(i);
    });
    return end;
}

function title(item) {
    if (item.kind === "callout")
        return [
            h("span", {class: "kind"}, item.type), " ",
            h("a",
              {href: to("transactions", {backend: item.name}), title: `Transactions that call ${item.name}`},
              brief(item.name)),
            Boolean(item.status) && h("span", {class: item.failed ? "bad" : "note"}, ` ${item.status}`),
            item.query && item.query !== "-" && h("code", {class: "query"}, folded(item.query))
        ];
    if (item.kind === "exception")
        return [
            h("span", {class: "kind bad"}, "!"), " ",
            h("a", {href: to("transactions", {exception: item.name}), class: "bad", title: item.name},
              brief(item.name))
        ];
    return [
        h("span", {class: "name"}, folded(item.name)), item.url && h("span", {class: "note"}, " " + item.url)
    ];
}

function bar(item, total) {
    const left = Math.min(100, (item.atMs / total) * 100);
    const width = Math.min(100 - left, ((item.durationMs ?? Math.max(0, total - item.atMs)) / total) * 100);
    const kind = item.kind === "callout" && item.failed ? "failed" : item.kind;
    const open = item.open ? " open" : "";
    return h(
        "i",
        {class: `span-bar ${kind}${open}`, style: {left: `min(${left}%, 100% - 3px)`, width: `${width}%`}});
}

function ruler(total) {
    return h(
        "div", {class: "ruler", "aria-hidden": "true"},
        [0, 0.25, 0.5, 0.75].map(
            (part) =>
                h("span", {style: {left: `${part * 100}%`}},
                  ms(total < 20 ? part * total : Math.round(part * total)))));
}

export function callTree(t) {
    const {items} = t;
    if (items.length === 0)
        return h("p", {class: "empty"}, "No calls were recorded: the transaction was not captured in full.");
    const end = ends(items);
    const total = items.reduce(
        (most, i) => Math.max(most, i.atMs + (i.durationMs ?? 0)), Math.max(1, t.durationMs ?? 0));
    const closed = new Set();
    const body = h("tbody");
    const more = h("button", {type: "button", class: "button", onclick: showMore});
    const rest = h("p", {class: "note"}, more, ` of ${count(items.length)} calls`);
    const made = new Map();  // place of an item -> its row
    let limit = FIRST;

    // Opens or closes what is below an item.
    function knobOf(item, i) {
        const mark = () => {
            knob.setAttribute("aria-expanded", String(!closed.has(i)));
            knob.setAttribute("aria-label", `${closed.has(i) ? "Open" : "Close"} ${item.name}`);
        };
        const turn = () => {
            if (!closed.delete(i)) closed.add(i);
            mark();
            draw();
            knob.focus();
        };
        const knob = h("button", {type: "button", class: "knob", onclick: turn});
        mark();
        return knob;
    }

    function row(item, i) {
        const knob = end[i] > i + 1 ? knobOf(item, i) : h("span", {class: "knob"});
        const when = `at ${ms(item.atMs)}${item.open ? ", its end did not come" : ""}`;
        return h(
            "tr", {class: `item-${item.kind}`},
            h("td", {class: "call", style: {"--depth": Math.min(item.depth, 24)}}, knob,
              h("span", {class: "unseen"}, `Level ${item.depth + 1}: `), title(item)),
            h("td", {class: "num"}, item.kind === "method" ? ms(item.selfMs) : ""),
            h("td", {class: "num"},
              item.kind === "exception" ? "" : [ms(item.durationMs), item.open && " …"]),
            h("td", {class: "line", title: when, "aria-label": when}, bar(item, total)));
    }

    function rowAt(i) {
        if (!made.has(i)) made.set(i, row(items[i], i));
        return made.get(i);
    }

    // Touches only rows that come or go: thousands that were moved would be styled and laid out again.
    function lay(rows) {
        const wanted = new Set(rows);
        for (const tr of [...body.children])
            if (!wanted.has(tr)) tr.remove();
        let at = body.firstElementChild;
        for (const tr of rows)
            if (tr === at)
                at = at.nextElementSibling;
            else
                body.insertBefore(tr, at);
    }

    function draw() {
        const rows = [];
        let i = 0;
        for (; i < items.length && rows.length < limit; i = closed.has(i) ? end[i] : i + 1)
            rows.push(rowAt(i));
        lay(rows);
        const left = items.length - i;
        rest.hidden = left === 0;
        more.textContent = `Show ${count(Math.min(MORE, left))} more`;
    }

    function showMore() {
        const first = body.children.length;
        limit += MORE;
        draw();
        if (rest.hidden) focusIn(body.children[first]);  // the button is gone
    }
    draw();
    return h(
        "div", {class: "tree-frame"},
        h("table", {class: "tree", "aria-label": "Calls in the order of their begin"},
          h("thead", {},
            h("tr", {}, h("th", {scope: "col"}, "Call"), h("th", {scope: "col", class: "num"}, "Self"),
              h("th", {scope: "col", class: "num"}, "Total"),
              h("th", {scope: "col", class: "line"}, ruler(total)))),
          body),
        rest);
}
