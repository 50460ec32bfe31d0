// Who is connected, what came, what was lost.
import {get} from "../api.js";
import {timeChart} from "../chart.js";
import {h, patch} from "../dom.js";
import {ago, bytes, clock, count, rate} from "../format.js";
import {pickTime, span, to} from "../router.js";
import {rowLink, table} from "../table.js";

function fact(title, value, bad) {
    return h("div", {}, h("dt", {}, title), h("dd", {class: bad && "bad"}, value));
}

// The zone of this machine, in which every time on the page is told.
function zone() {
    const name = Intl.DateTimeFormat().resolvedOptions().timeZone;
    const ahead = -new Date().getTimezoneOffset();
    const part = (n) => String(Math.floor(n)).padStart(2, "0");
    const [hours, minutes] = [part(Math.abs(ahead) / 60), part(Math.abs(ahead) % 60)];
    return name === "UTC" ? name : `${name}, UTC${ahead < 0 ? "−" : "+"}${hours}:${minutes}`;
}

function storeOf(store) {
    if (!store)
        return [h(
            "p", {class: "empty"},
            "Nothing is stored: start vxcollector with --db FILE to see more than this view.")];
    return [
        h("dl", {class: "facts"}, fact("Kind", store.kind),
          fact("Transactions written", h("a", {href: to("transactions")}, count(store.written))),
          fact("Waiting", bytes(store.queued)), fact("Dropped", count(store.dropped), store.dropped > 0),
          fact("In no sum", count(store.lostSums), store.lostSums > 0), fact("Size", bytes(store.bytes)),
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

const STEP = 10000;       // ms, of the intervals that the store keeps
const MOST_STEPS = 360;   // of a chart
const MOST_ROWS = 10000;  // in an answer, which has one for each step and instance
const LOSSES = {
    dropped: "Found no room in the store",
    incomplete: "End or beginning missing",
    unreadable: "Unreadable lines"
};

// How wide the steps of a time are: as many as a chart and an answer have room for.
function stepOf(time, instances) {
    const most = Math.min(MOST_STEPS, Math.max(10, Math.floor(MOST_ROWS / Math.max(1, instances))));
    return Math.ceil((time.to - time.from) / most / STEP) * STEP;
}

// Figures of all instances by step; steps in which nothing came are zeros. The last one has only begun: it
// shows once it has lasted long enough to have a rate.
function bySteps(links, step, from, till) {
    const times = [];
    for (let at = from; at <= till - (step > STEP ? step / 3 : step); at += step) times.push(at);
    const keys = ["records", "monitorRecords", ...Object.keys(LOSSES)];
    const sums = Object.fromEntries(keys.map((key) => [key, times.map(() => 0)]));
    for (const row of links) {
        const at = (row.at - from) / step;
        if (at in times)
            for (const key of keys) sums[key][at] += row[key];
    }
    return {times, widths: times.map((at) => Math.min(step, till - at)), sums};
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
        onPick: pickTime,
        label: ({summary}) =>
            "Losses over time: " + Object.keys(LOSSES).map((k) => `${LOSSES[k]} ${summary[k]}`).join(", "),
        series: Object.keys(LOSSES).map(
            (key, i) => ({key, name: LOSSES[key], colour: ["error", "verySlow", "none"][i]})),
    });
    function update({links, step}, {from, to}) {
        const {times, widths, sums} = bySteps(links, step, from, to);
        const total = (key) => sums[key].reduce((a, b) => a + b, 0);
        const perSecond = (key) => sums[key].map((n, i) => (n * 1000) / widths[i]);
        const lasted = widths.reduce((a, b) => a + b, 0) / 1000;
        const flows = ["records", "monitorRecords"];
        flow.update({
            times,
            step,
            values: Object.fromEntries(flows.map((key) => [key, perSecond(key)])),
            summary: Object.fromEntries(flows.map((key) => [key, lasted ? total(key) / lasted : 0]))
        });
        lost.update({
            times,
            step,
            values: sums,
            summary: Object.fromEntries(Object.keys(LOSSES).map((key) => [key, total(key)]))
        });
    }
    const close = () => [flow, lost].forEach((chart) => chart.close());
    return {node: h("div", {class: "pair"}, flow.node, lost.node), update, close};
}

const RUNS = [
    {
        title: "Ended",
        cell: (r) => rowLink(to("monitors", {from: r.at - 900000, to: r.at + 60000}), clock(r.at)),
        sort: (r) => r.at
    },
    {title: "Instance", class: "wide", cell: (r) => r.instance, sort: (r) => r.instance},
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
            key: (i) => i.key,
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
    const cut = h("p", {class: "bad", hidden: true}, "Only a part of this time shows: choose a shorter one.");
    const runs = table(RUNS, {
        label: "Ended runs",
        key: (r) => `${r.at} ${r.instance}`,
        sorted: 0,
        empty: "No run ended in this time."
    });
    const ended =
        h("section", {class: "panel"}, h("h2", {}, "Ended runs, monitors compared with records"), runs.node);
    const node =
        h("div", {class: "view"}, h("h1", {}, "Link"),
          h("section", {class: "panel"}, h("h2", {}, "Instances"), list.node), cut, charts.node,
          h("div", {class: "pair"}, h("section", {class: "panel"}, h("h2", {}, "What came"), totals),
            h("section", {class: "panel"}, h("h2", {}, "Store"), store)),
          ended);

    async function load(signal) {
        const s = context.status ?? await get("/api/status", {}, signal);
        now = s.now;
        list.update(s.instances);
        patch(
            totals, fact("Collector", `version ${s.version}, up since ${clock(s.started)}`),
            fact("Times are those of", zone()), fact("Connections", count(s.connections)),
            fact("Records", h("a", {href: to("transactions")}, count(s.records))),
            fact("Monitor records", h("a", {href: to("monitors")}, count(s.monitorRecords))),
            fact("Transactions", h("a", {href: to("transactions")}, count(s.transactions))),
            fact("Received", bytes(s.bytes)), fact("Unreadable lines", count(s.unreadable), s.unreadable > 0),
            fact("Refused connections", count(s.refusedConnections), s.refusedConnections > 0),
            fact("Runs compared with their monitors", h("a", {href: to("monitors")}, count(s.comparedRuns))));
        patch(store, storeOf(s.store));
        charts.node.hidden = ended.hidden = !s.store;
        if (!s.store) return;
        const time = span();
        const step = stepOf(time, s.instances.length);
        const from = Math.ceil(time.from / step) * step;
        const answer = await get("/api/links", {from, to: time.to, step}, signal);
        charts.update(answer, {from, to: time.to});
        cut.hidden = answer.complete;
        runs.update(answer.comparisons);
    }
    return {node, load, refresh: "always", close: charts.close};
}
