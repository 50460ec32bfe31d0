// What the service's monitors told, beside what the single records add up to.
import {get} from "../api.js";
import {h, patch} from "../dom.js";
import {count, ms} from "../format.js";
import {note} from "../note.js";
import {changed, route, span, to} from "../router.js";
import {spark} from "../spark.js";
import {nameText, rowLink, table} from "../table.js";

const KINDS = {
    bt: "Business transactions",
    backend: "Back-ends",
    method: "Methods",
    exception: "Exceptions"
};
const FILTER = {
    bt: "bt",
    backend: "backend",
    exception: "exception"
};

const ALL = "(all)";  // the row that sums up the others

const kindNow = () => (KINDS[route().params.get("kind")] ? route().params.get("kind") : "bt");

// A report comes behind what it counts, by as much as a reporting interval: near both ends of the time shown,
// one side has what the other does not have yet, or no more. No greater difference than that is no
// contradiction.
const LAG_MS = 70000;

function verdict(row) {
    const over = row.monitor.count - row.singles.count;
    if (over === 0) return {word: "agrees", text: "Agrees"};
    const step = row.steps.length > 1 ? row.steps[1].at - row.steps[0].at : LAG_MS;
    const edge = Math.ceil(LAG_MS / step);
    const sum = (steps, side) => steps.reduce((total, one) => total + one[side], 0);
    const before = sum(row.steps.slice(0, edge), "monitor");
    const behind = sum(row.steps.slice(-edge), "singles");
    return over <= before && -over <= behind ? {word: "edges", text: "Agrees within edges"} :
                                               {word: "differs", text: "Differs"};
}

function singles(row) {
    // Calls of a method stand in the transactions of the time: they cannot be listed by it.
    const filter = FILTER[kindNow()];
    const params = filter && row.name !== ALL ? {[filter]: row.name} : {};
    return rowLink(to("transactions", params), count(row.singles.count));
}

function columns() {
    return [
        {title: "Name", cell: (r) => nameText(r.name), sort: (r) => r.name},
        {
            title: "Monitor",
            num: true,
            sort: (r) => r.monitor.count,
            cell: (r) =>
                h("a", {href: to("reports", {kind: kindNow(), name: r.name})}, count(r.monitor.count))
        },
        {title: "Single records", num: true, cell: singles, sort: (r) => r.singles.count},
        {title: "Average, monitor", num: true, cell: (r) => ms(r.monitor.averageMs)},
        {title: "Average, records", num: true, cell: (r) => ms(r.singles.averageMs)},
        {
            title: "Errors",
            num: true,
            hint: "Monitor / single records",
            cell: (r) => `${count(r.monitor.error)} / ${count(r.singles.error)}`
        },
        {
            title: "Verdict",
            hint: "Within edges: the difference is no greater than what lies near the ends of the time shown",
            sort: (r) => verdict(r).word,
            cell: (r) => h("span", {class: `verdict ${verdict(r).word}`}, verdict(r).text)
        },
        {title: "Per interval", class: "trend", cell: (r) => spark(r.steps.map((i) => i.monitor))},
    ];
}

export function monitors() {
    const tabs = h("nav", {class: "tabs", "aria-label": "Kind of monitor"});
    const said = h("p", {class: "note"});
    const limits = note();
    const list = table(columns(), {
        label: "Monitors beside sums",
        key: (r) => r.name,
        sorted: 1,
        empty: [
            h("b", {}, "No monitor reported in this time."),
            h("p", {},
              "Monitors report at the end of each reporting interval, a minute unless keywords say otherwise.")
        ],
    });
    const node =
        h("div", {class: "view"}, h("h1", {}, "Monitors against sums"),
          h("p", {class: "lead"},
            "The service counts everything twice: in its monitors, and as single records. ",
            "Over the same time both must come to the same figures."),
          tabs, h("section", {class: "panel"}, said, list.node, limits.node));

    function drawTabs() {
        patch(
            tabs,
            Object.entries(KINDS).map(
                ([kind, title]) =>
                    h("a", {href: changed({kind}), "aria-current": kind === kindNow() && "page"}, title)));
    }
    drawTabs();

    async function load(signal) {
        const time = span();
        const data = await get("/api/monitors", {from: time.from, to: time.to, kind: kindNow()}, signal);
        const {rows} = data;
        limits.update(time, data);
        list.update(rows);
        const words = rows.map((r) => verdict(r).word);
        const of = (word) => words.filter((w) => w === word).length;
        const parts = [
            `${of("agrees")} of ${rows.length} agree`,
            of("edges") && `${of("edges")} within the edges of the time shown`, `${of("differs")} differ`
        ];
        said.textContent = rows.length === 0 ? "" : parts.filter(Boolean).join(", ") + ".";
    }
    return {node, load, route: drawTabs};
}
