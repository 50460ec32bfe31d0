// Charts over time. The drawing is uPlot's; here are stacking, colours of the scheme, the readout and its
// links.
import {colour} from "./category.js";
import {h, replace} from "./dom.js";
import {clock} from "./format.js";

const HEIGHT = 190;
const WHOLE = [0, 1, 2, 3, 4, 5, 6].flatMap(
    (power) => [1, 2, 5].map((n) => n * 10 ** power));  // steps of an axis of counts

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
    const canvas = h("div", {class: options.onPick ? "plot pick" : "plot", role: "img"});
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
        h("section", {class: "panel chart"}, h("header", {}, h("h2", {}, options.title), when),
          h("div", {class: "legends"}, entries.map((entry) => entry.node)), canvas);
    let plot = null;
    let last = null;

    function readout(index) {
        if (!last) return;
        const at = index ?? last.times.length - 1;
        replace(when, index === null || index === undefined ? "" : clock(last.times[at]));
        for (const {series, value, node: link} of entries) {
            const figure = index === null || index === undefined ? last.summary?.[series.key] :
                                                                   last.values[series.key][at];
            value.textContent = figure === undefined || figure === null ? "" : options.format(figure);
            if (series.href) link.href = series.href();
        }
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
                                 {stroke: paint, width: 2, points: {show: false}, spanGaps: false};
    }

    function build(data) {
        const width = Math.max(200, canvas.clientWidth);
        return new uPlot(
            {
                width,
                height: HEIGHT,
                legend: {show: false},
                padding: [8, 20, 0, 0],
                cursor:
                    {y: false, points: {show: !options.stacked}, drag: {x: true, y: false, setScale: false}},
                select: {show: true, left: 0, top: 0, width: 0, height: 0},
                scales: {y: {range: (u, low, high) => [0, high > 0 ? high * 1.08 : 1]}},
                axes: [
                    axis({space: 64, size: 24, values: (u, splits) => splits.map((t) => moment(t, u))}),
                    axis({
                        size: 62,
                        space: 36,
                        ...(options.whole && {incrs: WHOLE}),
                        values: (u, splits) => splits.map((v) => options.format(v))
                    })
                ],
                series: [{}, ...drawn.map(seriesOf)],
                hooks: {setCursor: [(u) => readout(u.cursor.idx)], setSelect: [picked]},
            },
            data, canvas);
    }

    function picked(u) {
        if (u.select.width < 4) return;
        const [from, till] =
            [u.select.left, u.select.left + u.select.width].map((x) => u.posToVal(x, "x") * 1000);
        u.setSelect({left: 0, top: 0, width: 0, height: 0}, false);
        options.onPick?.(Math.floor(from), Math.ceil(till));
    }

    // A click takes the step under it; a drag takes what it spans.
    canvas.addEventListener("click", () => {
        const at = plot?.cursor.idx;
        if (at !== null && at !== undefined) options.onPick?.(last.times[at], last.times[at] + last.step);
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
            canvas.setAttribute("aria-label", options.label(data));
            readout(plot?.cursor.idx);
        },
        close() {
            resized.disconnect();
            document.removeEventListener("schemechange", redraw);
            plot?.destroy();
            plot = null;
        },
    };
}
