// A map of calls: instances on the left, further to the right whom they call, back-ends last.
import {h, replace, svg} from "./dom.js";
import {count, ms} from "./format.js";
import {to} from "./router.js";

const BOX = {
    width: 208,
    height: 42
};
const GAP = {
    x: 168,
    y: 18
};
const MOST_EDGES = 150;  // the most frequent; more than that is no picture
const MOST_WORDS = 8;    // with more calls, only those of the node that is looked at have their words
const FAILING = 0.01;    // share of errors from which on a call is drawn as a failing one

// Of the ends of a call. Instances have keys, back-ends their names.
const fromOf = (edge) => `instance:${edge.fromKey}`;
const toOf = (edge) => (edge.toKind === "backend" ? `backend:${edge.to}` : `instance:${edge.toKey}`);

// The calls that lead onwards: of those that would close a circle, the rarer ones point back.
function onward(edges) {
    const next = new Map();
    const reaches = (from, wanted, seen = new Set()) => {
        if (from === wanted) return true;
        if (seen.has(from)) return false;
        seen.add(from);
        return (next.get(from) ?? []).some((id) => reaches(id, wanted, seen));
    };
    return edges.filter((e) => {
        const [a, b] = [fromOf(e), toOf(e)];
        if (reaches(b, a)) return false;
        next.set(a, [...(next.get(a) ?? []), b]);
        return true;
    });
}

// The columns: a node stands right of everybody who calls it, back-ends in the last one.
function layers(edges) {
    const level = new Map();
    for (const e of edges)
        for (const id of [fromOf(e), toOf(e)]) level.set(id, 0);
    const forward = onward(edges);
    for (let moved = true; moved;) {
        moved = false;
        for (const e of forward) {
            const least = level.get(fromOf(e)) + 1;
            if (level.get(toOf(e)) >= least) continue;
            level.set(toOf(e), least);
            moved = true;
        }
    }
    const last = Math.max(1, ...level.values());
    for (const id of level.keys())
        if (id.startsWith("backend:")) level.set(id, last);
    return level;
}

function place(edges) {
    const columns = [];
    for (const [id, level] of layers(edges)) (columns[level] ??= []).push(id);
    const tallest = Math.max(...columns.filter(Boolean).map((c) => c.length));
    const height = tallest * (BOX.height + GAP.y) + 2 * GAP.y;
    const spots = new Map();
    // By name: what is busier changes all the time, and places should not.
    columns.forEach((ids, x) => ids.sort().forEach((id, i) => {
        const free = height - ids.length * (BOX.height + GAP.y);
        spots.set(id, {x: 8 + x * (BOX.width + GAP.x), y: free / 2 + GAP.y / 2 + i * (BOX.height + GAP.y)});
    }));
    return {spots, width: columns.length * (BOX.width + GAP.x) - GAP.x + 16, height};
}

function short(name) {
    return name.length > 24 ? name.slice(0, 11) + "…" + name.slice(-12) : name;
}

// What comes in at each node: { calls, errors, ms of all together }.
function totals(edges) {
    const all = new Map();
    for (const e of edges) {
        const sum = all.get(toOf(e)) ?? {calls: 0, errors: 0, took: 0};
        all.set(toOf(e), {
            calls: sum.calls + e.calls,
            errors: sum.errors + e.errors,
            took: sum.took + e.calls * e.averageMs
        });
    }
    return all;
}

function box(id, name, {x, y}, total) {
    const kind = id.slice(0, id.indexOf(":"));
    const filter = {[kind]: id.slice(id.indexOf(":") + 1)};
    const line = (dy, props, text) => svg(
        "text", {x: x + BOX.width / 2, y: y + BOX.height / 2 + dy, "dominant-baseline": "central", ...props},
        text);
    const rx = kind === "backend" ? 4 : BOX.height / 2;
    const words = total &&
        `${count(total.calls)} × ${ms(total.took / total.calls)}` +
            (total.errors ? `, ${count(total.errors)} errors` : "");
    return svg(
        "a", {href: to("transactions", filter), class: `node ${kind}`, "data-node": id},
        svg("title", {}, name), svg("rect", {x, y, width: BOX.width, height: BOX.height, rx}),
        line(total ? -8 : 0, {}, short(name)), total && line(9, {class: "total"}, words));
}

// A curve to the right, or, for a call that leads back, below both; and where its words stand.
function course(a, b) {
    const half = {x: BOX.width / 2, y: BOX.height / 2};
    if (b.x <= a.x) {
        const low = Math.max(a.y, b.y) + BOX.height + 26;
        const [from, till] = [a.x + half.x, b.x + half.x];
        return {
            d: `M${from} ${a.y + BOX.height}C${from} ${low} ${till} ${low} ${till} ${b.y + BOX.height + 7}`,
            words: {x: (from + till) / 2, y: low - 4}
        };
    }
    const [from, till] = [{x: a.x + BOX.width, y: a.y + half.y}, {x: b.x - 7, y: b.y + half.y}];
    const bend = Math.max(40, (till.x - from.x) / 2);
    const near = 0.62;  // nearer to the end, where fewer calls meet
    const along = (p0, p1, p2, p3, t) =>
        p0 * (1 - t) ** 3 + 3 * p1 * t * (1 - t) ** 2 + 3 * p2 * t * t * (1 - t) + p3 * t ** 3;
    return {
        d: `M${from.x} ${from.y}C${from.x + bend} ${from.y} ${till.x - bend} ${till.y} ${till.x} ${till.y}`,
        words: {
            x: along(from.x, from.x + bend, till.x - bend, till.x, near),
            y: along(from.y, from.y, till.y, till.y, near) - 5
        }
    };
}

function arrow(edge, spots, most) {
    const failing = edge.errors / edge.calls >= FAILING;
    const text = `${edge.from} calls ${edge.to}: ${count(edge.calls)} calls, ${ms(edge.averageMs)}, ${
        count(edge.errors)} errors`;
    const {d, words} = course(spots.get(fromOf(edge)), spots.get(toOf(edge)));
    return svg(
        "g", {class: failing ? "edge failing" : "edge", "data-from": fromOf(edge), "data-to": toOf(edge)},
        svg("title", {}, text), svg("path", {
            d,
            "stroke-width": (1 + 4 * Math.sqrt(edge.calls / most)).toFixed(1),
            "marker-end": failing ? "url(#tip-failing)" : "url(#tip)"
        }),
        svg("text", words, `${count(edge.calls)} × ${ms(edge.averageMs)}`));
}

function tip(id) {
    return svg(
        "marker", {
            id,
            viewBox: "0 0 8 8",
            refX: 2,
            refY: 4,
            markerWidth: 9,
            markerHeight: 9,
            orient: "auto",
            markerUnits: "userSpaceOnUse"
        },
        svg("path", {d: "M0 0L8 4L0 8Z"}));
}

function draw(edges) {
    const {spots, width, height} = place(edges);
    const names = new Map(edges.flatMap((e) => [[fromOf(e), e.from], [toOf(e), e.to]]));
    const calls = edges.reduce((sum, e) => sum + e.calls, 0);
    const incoming = totals(edges);
    const most = Math.max(...edges.map((e) => e.calls));
    return svg(
        "svg", {
            class: edges.length > MOST_WORDS ? "map crowded" : "map",
            width,
            height,
            viewBox: `0 0 ${width} ${height}`,
            role: "group",
            "aria-label": `${spots.size} instances and back-ends, ${count(calls)} calls between them`
        },
        svg("defs", {}, tip("tip"), tip("tip-failing")), edges.map((e) => arrow(e, spots, most)),
        [...spots].map(([id, spot]) => box(id, names.get(id), spot, incoming.get(id))));
}

export function callMap() {
    const node = h("div", {class: "map-frame"});
    let shown = "";
    let near = null;  // the node under the pointer, or with the focus: its calls stand out
    function mark() {
        node.firstElementChild?.classList.toggle("marked", near !== null);
        for (const edge of node.querySelectorAll(".edge"))
            edge.classList.toggle(
                "near", near !== null && [edge.dataset.from, edge.dataset.to].includes(near));
    }
    function look(event) {
        near = event.target.closest("[data-node]")?.dataset.node ?? null;
        mark();
    }
    for (const kind of ["pointerover", "focusin"]) node.addEventListener(kind, look);
    for (const kind of ["pointerleave", "focusout"])
        node.addEventListener(kind, () => {
            near = null;
            mark();
        });
    return {
        node,
        update(all) {
            const edges = [...all].sort((a, b) => b.calls - a.calls).slice(0, MOST_EDGES);
            const text = JSON.stringify(edges);
            if (text === shown) return;
            shown = text;
            const focused =
                node.contains(document.activeElement) ? document.activeElement.getAttribute("href") : null;
            replace(
                node,
                edges.length ? draw(edges) : h("p", {class: "empty"}, "Nobody called anybody in this time."));
            if (focused !== null)
                [...node.querySelectorAll("a")].find((a) => a.getAttribute("href") === focused)?.focus({
                    preventScroll: true
                });
            mark();
        },
    };
}
