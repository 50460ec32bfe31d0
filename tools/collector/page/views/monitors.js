// What the service's monitors told, beside what the single records add up to.
import { get } from "../api.js";
import { h, replace } from "../dom.js";
import { count, ms } from "../format.js";
import { changed, route, span, to } from "../router.js";
import { spark } from "../spark.js";
import { rowLink, table } from "../table.js";

const KINDS = { bt: "Business transactions", backend: "Back-ends", method: "Methods", exception: "Exceptions" };
const FILTER = { bt: "bt", backend: "backend", exception: "exception" };

const kindNow = () => (KINDS[route().params.get("kind")] ? route().params.get("kind") : "bt");

// Reports come behind what they count: by as much as a reporting interval.
const SETTLING = 7;  // steps of 10 s

function verdict(row) {
    if (row.monitor.count === row.singles.count) return { word: "agrees", text: "Agrees" };
    const settled = row.steps.slice(0, -SETTLING);
    const even = settled.reduce((sum, i) => sum + i.monitor - i.singles, 0) === 0;
    return even && span().live ? { word: "settling", text: "Settling" } : { word: "differs", text: "Differs" };
}

function singles(row) {
    const filter = FILTER[kindNow()];
    const text = count(row.singles.count);
    return filter ? rowLink(to("transactions", { [filter]: row.name }), text) : text;
}

function columns() {
    return [
        { title: "Name", cell: (r) => r.name, sort: (r) => r.name },
        { title: "Monitor", num: true, cell: (r) => count(r.monitor.count), sort: (r) => r.monitor.count },
        { title: "Single records", num: true, cell: singles, sort: (r) => r.singles.count },
        { title: "Average, monitor", num: true, cell: (r) => ms(r.monitor.averageMs) },
        { title: "Average, records", num: true, cell: (r) => ms(r.singles.averageMs) },
        { title: "Errors", num: true, hint: "Monitor / single records",
          cell: (r) => `${count(r.monitor.error)} / ${count(r.singles.error)}` },
        { title: "Verdict", sort: (r) => verdict(r).word,
          cell: (r) => h("span", { class: `verdict ${verdict(r).word}` }, verdict(r).text) },
        { title: "Per interval", class: "trend", cell: (r) => spark(r.steps.map((i) => i.monitor)) },
    ];
}

export function monitors() {
    const tabs = h("nav", { class: "tabs", "aria-label": "Kind of monitor" });
    const said = h("p", { class: "note" });
    const list = table(columns(), {
        label: "Monitors beside sums", key: (r) => r.name, sorted: 1, always: true,
        empty: [h("b", {}, "No monitor reported in this time."),
                h("p", {}, "Monitors report at the end of each reporting interval, a minute unless keywords say otherwise.")],
    });
    const node = h("div", { class: "view" }, h("h1", {}, "Monitors against sums"),
                   h("p", { class: "lead" }, "The service counts everything twice: in its monitors, and as single records. ",
                     "Over the same time both must come to the same figures."), tabs,
                   h("section", { class: "panel" }, said, list.node));

    function drawTabs() {
        replace(tabs, Object.entries(KINDS).map(([kind, title]) =>
            h("a", { href: changed({ kind }), "aria-current": kind === kindNow() && "page" }, title)));
    }
    drawTabs();

    async function load(signal) {
        const time = span();
        const { rows } = await get("/api/monitors", { from: time.from, to: time.to, kind: kindNow() }, signal);
        list.update(rows);
        const words = rows.map((r) => verdict(r).word);
        const of = (word) => words.filter((w) => w === word).length;
        said.textContent = rows.length === 0 ? "" : `${of("agrees")} of ${rows.length} agree` +
            (of("settling") ? `, ${of("settling")} wait for the last interval` : "") +
            (of("differs") ? `, ${of("differs")} differ` : "") + ".";
    }
    return { node, load, route: drawTabs };
}
