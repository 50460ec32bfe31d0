// All business transactions at a glance.
import {get} from "../api.js";
import {CATEGORIES} from "../category.js";
import {timeChart} from "../chart.js";
import {h, patch} from "../dom.js";
import {count, ms, percent, rate} from "../format.js";
import {note} from "../note.js";
import {collectorNow, pickTime, span, to} from "../router.js";
import {spark} from "../spark.js";
import {REST, rowLink, table} from "../table.js";

function tile(title, value, note, href) {
    return h(
        "a", {class: "tile", href}, h("span", {class: "tile-title"}, title), h("b", {}, value),
        h("span", {class: "note"}, note));
}

function tiles(all) {
    const abnormal = all.slow + all.verySlow + all.error;
    return [
        tile("Throughput", rate(all.perSecond), `${count(all.count)} transactions`, to("transactions")),
        tile("Average", ms(all.averageMs), `from ${ms(all.minMs)} to ${ms(all.maxMs)}`, to("transactions")),
        tile(
            "95th percentile", ms(all.p95Ms), "one in twenty took longer",
            to("transactions", {min: Math.floor(all.p95Ms ?? 0)})),
        tile(
            "Slow or failed", percent(all.count ? abnormal / all.count : 0),
            `${count(abnormal)} transactions`, to("transactions", {category: "abnormal"})),
        tile(
            "Errors", percent(all.count ? all.error / all.count : 0), `${count(all.error)} transactions`,
            to("transactions", {category: "error"})),
    ];
}

function figure(row, params, text) {
    return row.name === REST ? text : h("a", {href: to("transactions", {bt: row.name, ...params})}, text);
}

function part(row, category) {
    const n = row[category];
    if (n === 0) return h("span", {class: "zero"}, "0");
    const text = category === "error" ? `${count(n)} (${percent(n / row.count)})` : count(n);
    return h("span", {class: category === "error" && "bad"}, figure(row, {category}, text));
}

function columns() {
    const over = (key) => (r) => figure(r, {min: Math.floor(r[key] ?? 0)}, ms(r[key]));
    return [
        {
            title: "Business transaction",
            sort: (r) => r.name,
            cell: (r) => r.name === REST ? r.name : rowLink(to("transactions", {bt: r.name}), r.name)
        },
        {title: "Rate", num: true, cell: (r) => rate(r.perSecond), sort: (r) => r.perSecond},
        {title: "Count", num: true, cell: (r) => count(r.count), sort: (r) => r.count},
        {title: "Average", num: true, cell: (r) => ms(r.averageMs), sort: (r) => r.averageMs},
        {
            title: "95th pct",
            num: true,
            hint: "Nineteen of twenty were at least as quick",
            cell: over("p95Ms"),
            sort: (r) => r.p95Ms
        },
        {title: "Max", num: true, cell: over("maxMs"), sort: (r) => r.maxMs},
        {title: "Slow", num: true, cell: (r) => part(r, "slow"), sort: (r) => r.slow},
        {title: "Very slow", num: true, cell: (r) => part(r, "verySlow"), sort: (r) => r.verySlow},
        {title: "Errors", num: true, cell: (r) => part(r, "error"), sort: (r) => r.error},
        {title: "Over time", class: "trend", cell: (r) => spark(r.ended)},
    ];
}

function rateChart() {
    const series = CATEGORIES.map(
        (c) =>
            ({key: c.key, name: c.name, colour: c.key, href: () => to("transactions", {category: c.key})}));
    return timeChart({
        title: "Transactions by category",
        stacked: true,
        series,
        format: rate,
        onPick: pickTime,
        label: ({summary}) => "Transactions a second over time, by category: " +
            CATEGORIES.map((c) => `${c.name} ${rate(summary[c.key])}`).join(", "),
    });
}

function durationChart() {
    return timeChart({
        title: "Average duration",
        format: ms,
        onPick: pickTime,
        series: [{key: "averageMs", name: "Average", colour: "accent", href: () => to("transactions")}],
        label: ({summary}) => `Average duration over time: ${ms(summary.averageMs)} in all`,
    });
}

export function overview() {
    const top = h("div", {class: "tiles"});
    const rates = rateChart();
    const durations = durationChart();
    const said = note();
    const list = table(columns(), {
        label: "Business transactions",
        key: (r) => r.name,
        sorted: 2,
        empty: [
            h("b", {}, "No transaction ended in this time."),
            h("p", {}, "Look at a longer time (above), see under ", h("a", {href: "#/link"}, "Link"),
              " whether a service is connected, or run scripts/demo, which brings traffic of its own.")
        ],
    });
    const node =
        h("div", {class: "view"}, h("h1", {class: "unseen"}, "Overview"), top,
          h("div", {class: "pair"}, rates.node, durations.node),
          h("section", {class: "panel"}, h("h2", {}, "Business transactions"), list.node, said.node));

    // `to`: up to when there is something to count.
    function draw({series, step, all, ...data}, to) {
        // The last bucket has only begun: its rate is that of its part, and of too small a part it is none.
        const widths = series.at.map((at) => Math.min(step, to - at));
        const shown = widths.length > 1 && widths.at(-1) < step / 3 ? widths.length - 1 : widths.length;
        const times = series.at.slice(0, shown);
        const perSecond = (counts) => times.map((_, i) => (counts[i] * 1000) / widths[i]);
        const each = (figureOf) => Object.fromEntries(CATEGORIES.map((c) => [c.key, figureOf(c.key)]));
        rates.update({
            times,
            step,
            values: each((key) => perSecond(series[key])),
            summary: each((key) => (all[key] * 1000) / (to - data.from))
        });
        durations.update({
            times,
            step,
            values: {averageMs: series.averageMs.slice(0, shown)},
            summary: {averageMs: all.averageMs}
        });
    }

    async function load(signal) {
        const time = span();
        const data = await get("/api/overview", {from: time.from, to: time.to}, signal);
        said.update(time, data);
        // What is counted goes on to the end of an interval, and none of it is in the future.
        const until = Math.min(data.to, Math.max(data.from + 1, time.live ? time.to : collectorNow()));
        const rated = (row) => ({...row, perSecond: (row.count * 1000) / (until - data.from)});
        patch(top, tiles(rated(data.all)));
        draw(data, until);
        // The last bucket has only begun: in a line without a scale it would be a fall.
        const ended = data.series.at.filter((at) => at + data.step <= until).length;
        list.update(data.rows.map((row) => ({...rated(row), ended: row.spark.slice(0, ended)})));
    }
    function close() {
        rates.close();
        durations.close();
    }
    return {node, load, close};
}
