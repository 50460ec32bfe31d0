// Charts over time. The drawing is uPlot's; here are stacking, colours of the scheme, the readout and its
// links, and the keys: arrows go from step to step, Enter opens the transactions of one.
import {colour} from "./category.js";
import {h, replace} from "./dom.js";
import {clock} from "./format.js";

const HEIGHT = 190;
const WHOLE = [0, 1, 2, 3, 4, 5, 6].flatMap(
    (power) => [1, 2, 5].map((n) => n * 10 ** power));  // steps of an axis of counts

// Seconds between the words of a time axis, which tell hours and minutes.
const MOMENTS = [
    1, 2, 5, 10, 15, 30, 60, 120, 180, 240, 360, 720, 1440, 2880, 10080, 43200, 129600, 525600
].map((minutes) => minutes * 60);

let charts = 0;  // made so far, for ids

/**
 * @param options {
 *   title, whole: figures are counts, label(data) -> text for who cannot see it, format(value) -> text,
 *   series: [{ key, name, colour: custom property, href() }], stacked, onPick(fromMs, toMs)
 * }
 * @returns { node, update({ times: ms[], step: ms, values: { key: number[] }, summary: { key: number } }),
 *     close() }
 */
export function timeChart(options) {
    const drawn =
        options.stacked ? [...options.series].reverse() : options.series;  // tallest first, the rest over it
    const keysId = `chart-keys-${++charts}`;
    const canvas = h("div", {
        class: "plot",
        role: "application",  // takes the arrows
        "aria-roledescription": "chart",
        "aria-describedby": keysId,
        tabindex: 0,
        onkeydown: keyed,
        onblur: leave,
        onpointermove: () => (chosen = null)
    });
    const keys = h("span", {class: "keys", id: keysId}, "← → go from step to step, Enter opens one");
    const spoken = h("span", {class: "unseen", role: "status", "aria-live": "polite"});
    const when = h("span", {class: "when"});
    const entries = options.series.map((series) => {
        const value = h("b");
        const swatch = h("i", {class: "swatch", style: {background: `var(--${series.colour})`}});
        return {
            series,
            value,
            node: h("a", {class: "legend", href: series.href?.()}, swatch, series.name, value)
        };
    });
    const node =
        h("section", {class: "panel chart"}, h("header", {}, h("h2", {}, options.title), keys, when),
          h("div", {class: "legends"}, entries.map((entry) => entry.node)), canvas, spoken);
    let plot = null;
    let last = null;
    let chosen = null;  // ms: the step that keys have come to; it stays when others come behind it

    const text = (figure) => (figure === undefined || figure === null ? "" : options.format(figure));

    // The step that a time in seconds lies in.
    function stepAt(seconds) {
        const at = Math.floor((seconds * 1000 - last.times[0]) / last.step);
        return Math.min(Math.max(at, 0), last.times.length - 1);
    }

    // The step under the pointer or come to by keys; null: none.
    function looked() {
        if (!plot || !last?.times.length || !(plot.cursor.left >= 0)) return null;
        return stepAt(plot.posToVal(plot.cursor.left, "x"));
    }

    function readout() {
        if (!last) return;
        const at = looked();
        replace(
            when, at === null ? "\u00a0" : clock(last.times[at]));  // empty, it would be of another height
        for (const {series, value, node: link} of entries) {
            value.textContent = text(at === null ? last.summary?.[series.key] : last.values[series.key][at]);
            if (series.href) link.href = series.href();
        }
    }

    function pointAt(time) {
        const middle = (time + last.step / 2) / 1000;
        plot.setCursor(time === null ? {left: -10, top: -10} : {left: plot.valToPos(middle, "x"), top: 0});
    }

    function leave() {
        if (chosen === null) return;
        chosen = null;
        if (plot) pointAt(null);
    }

    function go(at) {
        chosen = last.times[at];
        pointAt(chosen);
        const figures =
            options.series.map(({key, name}) => `${name} ${text(last.values[key][at]) || "none"}`);
        spoken.textContent = `${clock(chosen)}: ${figures.join(", ")}`;
    }

    function open(at) {
        options.onPick(last.times[at], last.times[at] + last.step);
    }

    function keyed(event) {
        if (!plot || !last?.times.length || event.ctrlKey || event.altKey || event.metaKey) return;
        const end = last.times.length - 1;
        const at = chosen === null ? null : stepAt(chosen / 1000);
        const places = {
            ArrowLeft: at === null ? end : Math.max(0, at - 1),
            ArrowRight: at === null ? 0 : Math.min(end, at + 1),
            Home: 0,
            End: end
        };
        if (event.key === "Escape") return leave();
        if (event.key === "Enter" && at !== null) return open(at);
        if (!Object.hasOwn(places, event.key)) return;
        event.preventDefault();
        go(places[event.key]);
    }

    function columns({times, values}) {
        const seconds = times.map((t) => t / 1000);
        if (!options.stacked) return [seconds, ...drawn.map((s) => values[s.key])];
        const sums = times.map(() => 0);
        const stacked = options.series.map((s) => times.map((_, i) => (sums[i] += values[s.key][i] ?? 0)));
        return [seconds, ...stacked.reverse()];
    }

    function axis(extra) {
        const line = colour("line");
        return {
            stroke: colour("muted"),
            font: "11px system-ui, sans-serif",
            grid: {stroke: line, width: 1},
            ticks: {show: false},
            ...extra
        };
    }

    // Hours and minutes, or days where the chart spans many.
    function moment(seconds, u) {
        const wide = u.scales.x.max - u.scales.x.min > 2 * 86400;
        const at = new Date(seconds * 1000);
        const two = (n) => String(n).padStart(2, "0");
        return wide ? `${two(at.getMonth() + 1)}-${two(at.getDate())}` :
                      `${two(at.getHours())}:${two(at.getMinutes())}`;
    }

    function seriesOf(series) {
        const paint = colour(series.colour);
        const bars = uPlot.paths.bars({size: [0.86, 40], align: 1});
        return options.stacked ? {stroke: paint, fill: paint, width: 0, points: {show: false}, paths: bars} :
                                 {
                                     stroke: paint,
                                     width: 2,
                                     points: {show: true, filter: alone, size: 5, fill: paint},
                                     spanGaps: false
                                 };
    }

    // A figure between steps without one is no line: it shows as a point.
    function alone(u, seriesIdx) {
        const values = u.data[seriesIdx];
        return values.flatMap(
            (v, i) => (v != null && values[i - 1] == null && values[i + 1] == null ? i : []));
    }

    // As wide as the longest of the axis' words.
    function room(u, words) {
        return Math.max(62, 14 + 6.5 * Math.max(0, ...(words ?? []).map((word) => word.length)));
    }

    function build(data) {
        const width = Math.max(200, canvas.clientWidth);
        return new uPlot(
            {
                width,
                height: HEIGHT,
                legend: {show: false},
                padding: [8, 20, 0, 0],
                cursor: {
                    y: false,
                    points: {show: !options.stacked},
                    dataIdx: (u, series, nearest, seconds) => stepAt(seconds),
                    drag: {x: true, y: false, setScale: false}
                },
                select: {show: true, left: 0, top: 0, width: 0, height: 0},
                scales: {
                    x: {range: () => [last.times[0] / 1000, (last.times.at(-1) + last.step) / 1000]},
                    y: {range: (u, low, high) => [0, high > 0 ? high * 1.08 : 1]}
                },
                axes: [
                    axis({
                        space: 64,
                        size: 24,
                        incrs: MOMENTS,
                        values: (u, splits) => splits.map((t) => moment(t, u))
                    }),
                    axis({
                        size: room,
                        space: 36,
                        ...(options.whole && {incrs: WHOLE}),
                        values: (u, splits) => splits.map((v) => options.format(v))
                    })
                ],
                series: [{}, ...drawn.map(seriesOf)],
                hooks: {setCursor: [readout], setSelect: [picked]},
            },
            data, canvas);
    }

    function picked(u) {
        if (u.select.width < 4) return;
        const [from, till] =
            [u.select.left, u.select.left + u.select.width].map((x) => u.posToVal(x, "x") * 1000);
        u.setSelect({left: 0, top: 0, width: 0, height: 0}, false);
        options.onPick(Math.floor(from), Math.ceil(till));
    }

    // A click takes the step under it; a drag takes what it spans.
    canvas.addEventListener("click", () => {
        const at = looked();
        if (at !== null) open(at);
    });

    function redraw() {
        plot?.destroy();
        plot = last && last.times.length ? build(columns(last)) : null;
    }

    const resized =
        new ResizeObserver(() => plot?.setSize({width: Math.max(200, canvas.clientWidth), height: HEIGHT}));
    resized.observe(canvas);
    document.addEventListener("schemechange", redraw);

    return {
        node,
        update(data) {
            const fresh = !plot || plot.data[0].length !== data.times.length;
            last = data;
            if (fresh)
                redraw();
            else
                plot.setData(columns(data));
            if (document.activeElement !== canvas) canvas.setAttribute("aria-label", options.label(data));
            if (chosen !== null && plot) pointAt((chosen = last.times[stepAt(chosen / 1000)]));
            readout();
        },
        close() {
            resized.disconnect();
            document.removeEventListener("schemechange", redraw);
            plot?.destroy();
            plot = null;
        },
    };
}
