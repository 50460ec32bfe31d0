// Who is connected, what came, what was lost.
import {get} from "../api.js";
import {timeChart} from "../chart.js";
import {h, replace} from "../dom.js";
import {ago, bytes, clock, count, rate} from "../format.js";
import {pickTime, span, to} from "../router.js";
import {rowLink, table} from "../table.js";

function fact(title, value, bad) {
    return h("div", {}, h("dt", {}, title), h("dd", {class: bad && "bad"}, value));
}

function storeOf(store) {
    if (!store)
        return [h(
            "p", {class: "empty"},
            "Nothing is stored: start vxcollector with --db FILE to see more than this view.")];
    return [
        h("dl", {class: "facts"}, fact("Kind", store.kind),
          fact("Transactions written", count(store.written)), fact("Waiting", count(store.queued)),
          fact("Dropped", count(store.dropped), store.dropped > 0), fact("Size", bytes(store.bytes)),
          fact("Oldest", clock(store.oldest))),
        store.fault && h("p", {class: "bad"}, store.fault)
    ];
}

function connections(instance, now) {
    if (instance.connections.length === 0) return "none";
    return h(
        "ul", {class: "links"},
        instance.connections.map(
            (c) =>
                h("li", {title: `since ${clock(c.since)}, last heard ${ago(c.lastHeard, now)}`},
                  h("b", {}, c.kind), ` ${c.peer}, ${bytes(c.bytes)}`)));
}

const STEP = 10000;  // ms, of the intervals that the store keeps
const LOSSES = {
    dropped: "Found no room in the store",
    incomplete: "End or beginning missing",
    unreadable: "Unreadable lines"
};

// Figures of all instances by interval; intervals in which nothing came are zeros.
function byInterval(links, from, till) {
    const times = [];
    for (let at = Math.ceil(from / STEP) * STEP; at < till - STEP; at += STEP) times.push(at);
    const place = new Map(times.map((at, i) => [at, i]));
    const keys = ["records", "monitorRecords", ...Object.keys(LOSSES)];
    const sums = Object.fromEntries(keys.map((key) => [key, times.map(() => 0)]));
    for (const row of links)
        if (place.has(row.at))
            for (const key of keys) sums[key][place.get(row.at)] += row[key];
    return {times, sums};
}

function flowCharts() {
    const flow = timeChart({
        title: "Records",
        format: rate,
        onPick: pickTime,
        label: ({summary}) => `Records over time: ${rate(summary.records)}`,
        series: [
            {key: "records", name: "Records", colour: "accent"},
            {key: "monitorRecords", name: "Of monitors", colour: "callout"}
        ],
    });
    const lost = timeChart({
        title: "Losses",
        format: count,
        stacked: true,
        whole: true,
        label: ({summary}) =>
            "Losses over time: " + Object.keys(LOSSES).map((k) => `${LOSSES[k]} ${summary[k]}`).join(", "),
        series: Object.keys(LOSSES).map(
            (key, i) => ({key, name: LOSSES[key], colour: ["error", "verySlow", "none"][i]})),
    });
    function update({links}, time) {
        const {times, sums} = byInterval(links, time.from, time.to);
        const total = (key) => sums[key].reduce((a, b) => a + b, 0);
        const perSecond = (key) => sums[key].map((n) => n / (STEP / 1000));
        flow.update({
            times,
            step: STEP,
            values: {records: perSecond("records"), monitorRecords: perSecond("monitorRecords")},
            summary: {
                records: total("records") / time.seconds,
                monitorRecords: total("monitorRecords") / time.seconds
            }
        });
        lost.update({
            times,
            step: STEP,
            values: sums,
            summary: Object.fromEntries(Object.keys(LOSSES).map((key) => [key, total(key)]))
        });
    }
    const close = () => [flow, lost].forEach((chart) => chart.close());
    return {node: h("div", {class: "pair"}, flow.node, lost.node), update, close};
}

const RUNS = [
    {title: "Ended", cell: (r) => clock(r.at), sort: (r) => r.at},
    {title: "Instance", cell: (r) => r.instance, sort: (r) => r.instance},
    {title: "Agree", num: true, cell: (r) => count(r.agreed)},
    {title: "Partly recorded", num: true, cell: (r) => count(r.partial)},
    {
        title: "Differ",
        num: true,
        cell: (r) => h("span", {class: r.differing > 0 ? "bad" : "zero"}, count(r.differing))
    },
];

export function link(context) {
    const totals = h("dl", {class: "facts"});
    const store = h("div");
    let now = Date.now();
    const list = table(
        [
            {
                title: "Instance",
                cell: (i) => rowLink(to("transactions", {instance: i.key}), i.name),
                sort: (i) => i.name
            },
            {
                title: "State",
                cell: (i) =>
                    h("span", {class: `verdict ${i.connected ? "agrees" : "away"}`},
                      i.connected ? (i.started ? "Running" : "Connected") : "Gone")
            },
            {title: "Agent", cell: (i) => i.agent || "–"},
            {
                title: "Last heartbeat",
                num: true,
                cell: (i) => ago(i.lastHeartbeat, now),
                sort: (i) => i.lastHeartbeat
            },
            {title: "Last heard", num: true, cell: (i) => ago(i.lastHeard, now), sort: (i) => i.lastHeard},
            {title: "Connections", class: "wide", cell: (i) => connections(i, now)},
        ],
        {
            label: "Instances",
            key: (i) => i.number,
            sorted: 0,
            descending: false,
            always: true,
            empty: [
                h("b", {}, "No service has connected yet."),
                h("p", {},
                  "Put this collector's address into the service's config/vxsettings.conf (vxcHost=..., ",
                  "VXC_COMM_PROTOCOL=TCP:port), or run scripts/demo.")
            ],
        });
    const charts = flowCharts();
    const runs = table(RUNS, {
        label: "Ended runs",
        key: (r) => `${r.at} ${r.instance}`,
        sorted: 0,
        empty: "No run ended in this time."
    });
    const node = h(
        "div", {class: "view"}, h("h1", {}, "Link"),
        h("section", {class: "panel"}, h("h2", {}, "Instances"), list.node), charts.node,
        h("div", {class: "pair"}, h("section", {class: "panel"}, h("h2", {}, "What came"), totals),
          h("section", {class: "panel"}, h("h2", {}, "Store"), store)),
        h("section", {class: "panel"}, h("h2", {}, "Ended runs, monitors compared with records"), runs.node));

    async function load(signal) {
        const s = context.status ?? await get("/api/status", {}, signal);
        now = s.now;
        list.update(s.instances);
        replace(
            totals, fact("Collector", `version ${s.version}, up since ${clock(s.started)}`),
            fact("Connections", count(s.connections)), fact("Records", count(s.records)),
            fact("Monitor records", count(s.monitorRecords)),
            fact("Transactions", h("a", {href: to("transactions")}, count(s.transactions))),
            fact("Received", bytes(s.bytes)), fact("Unreadable lines", count(s.unreadable), s.unreadable > 0),
            fact("Refused connections", count(s.refusedConnections), s.refusedConnections > 0),
            fact("Runs compared with their monitors", h("a", {href: to("monitors")}, count(s.comparedRuns))));
        replace(store, storeOf(s.store));
        if (!s.store) return;
        const time = span();
        const answer = await get("/api/links", {from: Math.floor(time.from), to: time.to}, signal);
        charts.update(answer, time);
        runs.update(answer.comparisons);
    }
    return {node, load, refresh: "always", close: charts.close};
}
