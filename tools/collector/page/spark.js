// A small line of figures inside a row.
import {svg} from "./dom.js";

const WIDTH = 120;
const HEIGHT = 24;

function path(values, top) {
    if (values.length === 1) values = [values[0], values[0]];  // a line: nobody sees a point
    const step = WIDTH / Math.max(1, values.length - 1);
    const y = (v) => (HEIGHT - 2 - (top > 0 ? (v / top) * (HEIGHT - 4) : 0)).toFixed(1);
    return values.map((v, i) => `${i ? "L" : "M"}${(i * step).toFixed(1)} ${y(v)}`).join("");
}

export function spark(values) {
    const top = Math.max(0, ...values);
    const line = path(values, top);
    return svg(
        "svg", {
            class: "spark",
            viewBox: `0 0 ${WIDTH} ${HEIGHT}`,
            width: WIDTH,
            height: HEIGHT,
            "aria-hidden": "true",
            preserveAspectRatio: "none"
        },
        svg("path", {class: "area", d: line && `${line}L${WIDTH} ${HEIGHT}L0 ${HEIGHT}Z`}),
        svg("path", {class: "stroke", d: line}));
}
