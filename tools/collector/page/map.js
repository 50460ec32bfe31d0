// A map of calls: instances on the left, further to the right whom they call, back-ends last.
import {h, replace, svg} from "./dom.js";
import {count, ms} from "./format.js";
import {to} from "./router.js";

const BOX = {
    width: 176,
    height: 38
};
const GAP = {
    x: 168,
    y: 20
};
const MOST_EDGES = 150;  // the most frequent; more than that is no picture

// Of the ends of a call. Instances have keys, back-ends their names.
const fromOf = (edge) => `instance:${edge.fromKey}`;
const toOf = (edge) => (edge.toKind === "backend" ? `backend:${edge.to}` : `instance:${edge.toKey}`);

// The calls that lead onwards: of those that would close a circle, the rarer ones point back.
function onward(edges) {
    const next = new Map();
    const reaches = (from, wanted) =>
        from === wanted || (next.get(from) ?? []).some((id) => reaches(id, wanted));
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
    columns.forEach((ids, x) => ids.forEach((id, i) => {
        const free = height - ids.length * (BOX.height + GAP.y);
        spots.set(id, {x: 8 + x * (BOX.width + GAP.x), y: free / 2 + GAP.y / 2 + i * (BOX.height + GAP.y)});
    }));
    return {spots, width: columns.length * (BOX.width + GAP.x) - GAP.x + 16, height};
}

function short(name) {
    return name.length > 24 ? name.slice(0, 11) + "…" + name.slice(-12) : name;
}

function box(id, name, {x, y}) {
    const kind = id.slice(0, id.indexOf(":"));
    const filter = {[kind]: id.slice(id.indexOf(":") + 1)};
    return svg(
        "a", {href: to("transactions", filter), class: `node ${kind}`}, svg("title", {}, name),
        svg("rect", {x, y, width: BOX.width, height: BOX.height, rx: kind === "backend" ? 4 : 19}),
        svg("text", {x: x + BOX.width / 2, y: y + BOX.height / 2, "dominant-baseline": "central"},
            short(name)));
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

function arrow(edge, spots) {
    const failing = edge.errors > 0;
    const text = `${edge.from} calls ${edge.to}: ${count(edge.calls)} calls, ${ms(edge.averageMs)}, ${
        count(edge.errors)} errors`;
    const {d, words} = course(spots.get(fromOf(edge)), spots.get(toOf(edge)));
    return svg(
        "g", {class: failing ? "edge failing" : "edge"}, svg("title", {}, text), svg("path", {
            d,
            "stroke-width": Math.min(6, 1 + Math.log10(edge.calls + 1)).toFixed(1),
            "marker-end": failing ? "url(#tip-failing)" : "url(#tip)"
        }),
        svg("text", words, `${count(edge.calls)}× ${ms(edge.averageMs)}`));
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
    return svg(
        "svg", {
            class: "map",
            width,
            height,
            viewBox: `0 0 ${width} ${height}`,
            role: "group",
            "aria-label": `${spots.size} instances and back-ends, ${count(calls)} calls between them`
        },
        svg("defs", {}, tip("tip"), tip("tip-failing")), edges.map((e) => arrow(e, spots)),
        [...spots].map(([id, spot]) => box(id, names.get(id), spot)));
}

export function callMap() {
    const node = h("div", {class: "map-frame"});
    let shown = "";
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
                [...node.querySelectorAll("a")].find((a) => a.getAttribute("href") === focused)?.focus();
        },
    };
}
