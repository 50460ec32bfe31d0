// The records that a row of the monitors was told by, as they came.
import {get} from "../api.js";
import {folded, h} from "../dom.js";
import {clock, count} from "../format.js";
import {route, span, to} from "../router.js";
import {table} from "../table.js";

const COLUMNS = [
    {title: "At", class: "when", cell: (r) => clock(r.at, true), sort: (r) => r.at},
    {title: "Instance", cell: (r) => r.instance, sort: (r) => r.instance},
    {title: "Count", num: true, cell: (r) => count(r.count), sort: (r) => r.count},
    {title: "Record", class: "wide", cell: (r) => h("code", {}, r.line)},
];

export function reports() {
    const {params} = route();
    const name = params.get("name") ?? "";
    const kind = params.get("kind") ?? "bt";
    const said = h("p", {class: "note"});
    const list = table(COLUMNS, {
        label: "Records of the monitor",
        key: (r) => `${r.at} ${r.instance} ${r.place}`,
        empty: h("b", {}, "No monitor of that name reported in this time.")
    });
    const node =
        h("div", {class: "view"}, h("h1", {}, "What the monitor told of ", folded(name)),
          h("p", {class: "lead"}, h("a", {href: to("monitors", {kind})}, "All monitors")),
          h("section", {class: "panel"}, said, list.node));

    async function load(signal) {
        const time = span();
        const answer = await get("/api/reports", {name, kind, from: time.from, to: time.to}, signal);
        // Several records of an instance come at the same time.
        list.update(answer.reports.map((r, place) => ({...r, place})));
        const all = answer.reports.reduce((sum, r) => sum + r.count, 0);
        said.textContent = `${count(answer.reports.length)} records, ${count(all)} counted` +
            (answer.complete ? "." : "; there are more.");
    }
    return {node, load};
}
