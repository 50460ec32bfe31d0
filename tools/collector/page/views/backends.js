// What the transactions call, and who calls whom.
import {get} from "../api.js";
import {h} from "../dom.js";
import {count, ms, percent, rate} from "../format.js";
import {callMap} from "../map.js";
import {note} from "../note.js";
import {span, to} from "../router.js";
import {REST, rowLink, table} from "../table.js";

function errors(row, params) {
    if (row.errors === 0) return h("span", {class: "zero"}, "0");
    const text = `${count(row.errors)} (${percent(row.errors / row.calls)})`;
    return params && row.backend !== REST ? h("a", {class: "bad", href: to("transactions", params)}, text) :
                                            h("span", {class: "bad"}, text);
}

const over = (row, key) => row.backend === REST ?
    ms(row[key]) :
    h("a", {href: to("transactions", {backend: row.backend, callMin: Math.floor(row[key])})}, ms(row[key]));

// The transactions behind an edge: those that called the back-end, or those that the caller has called.
const behind = (e) =>
    e.toKind === "backend" ? {backend: e.to, instance: e.fromKey} : {instance: e.toKey, caller: e.fromKey};

const ROWS = [
    {
        title: "Back-end",
        cell: (r) => r.backend === REST ? REST : rowLink(to("transactions", {backend: r.backend}), r.backend),
        sort: (r) => r.backend
    },
    {title: "Kind", cell: (r) => r.type},
    {title: "Rate", num: true, cell: (r) => rate(r.perSecond), sort: (r) => r.perSecond},
    {title: "Calls", num: true, cell: (r) => count(r.calls), sort: (r) => r.calls},
    {title: "Average", num: true, cell: (r) => ms(r.averageMs), sort: (r) => r.averageMs},
    {title: "95th pct", num: true, cell: (r) => over(r, "p95Ms"), sort: (r) => r.p95Ms},
    {title: "Max", num: true, cell: (r) => over(r, "maxMs"), sort: (r) => r.maxMs},
    {
        title: "Errors",
        num: true,
        sort: (r) => r.errors,
        cell: (r) => errors(r, {backend: r.backend, failed: 1})
    },
];

const EDGES = [
    {
        title: "From",
        class: "name",
        cell: (e) => h("a", {href: to("transactions", {instance: e.fromKey})}, e.from),
        sort: (e) => e.from
    },
    {
        title: "To",
        class: "name",
        cell: (e) => rowLink(to("transactions", behind(e)), e.to),
        sort: (e) => e.to
    },
    {title: "Calls", num: true, cell: (e) => count(e.calls), sort: (e) => e.calls},
    {title: "Average", num: true, cell: (e) => ms(e.averageMs), sort: (e) => e.averageMs},
    {
        title: "Errors",
        num: true,
        sort: (e) => e.errors,
        cell: (e) =>
            errors(e, {...behind(e), ...(e.toKind === "backend" ? {failed: 1} : {category: "error"})})
    },
];

export function backends() {
    const map = callMap();
    const said = note();
    const list = table(ROWS, {
        label: "Back-ends",
        key: (r) => r.backend,
        sorted: 3,
        empty: [
            h("b", {}, "No call to a back-end in this time."),
            h("p", {},
              "Calls are those methods that the file VXEntryPointsFile names as callouts (docs/operations.md).")
        ],
    });
    const edges =
        table(EDGES, {label: "Who calls whom", key: (e) => `${e.fromKey}>${e.toKind}>${e.to}`, sorted: 2});
    const node =
        h("div", {class: "view"}, h("h1", {}, "Back-ends"),
          h("section", {class: "panel"}, h("h2", {}, "Who calls whom"), map.node,
            h("details", {}, h("summary", {}, "As a table"), edges.node)),
          h("section", {class: "panel"}, h("h2", {}, "Back-ends"), list.node, said.node));

    async function load(signal) {
        const time = span();
        const data = await get("/api/backends", {from: time.from, to: time.to}, signal);
        said.update(time, data);
        map.update(data.edges);
        edges.update(data.edges);
        list.update(data.backends);
    }
    return {node, load};
}
