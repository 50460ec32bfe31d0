// What has to be said of the figures of an answer: that they are not all, and which time they are of when
// that is not quite the one that was asked for.
import {h} from "./dom.js";
import {clock} from "./format.js";
import {setCounted} from "./router.js";

/**
 * @returns { node, update(time as of span(), answer) }; update() goes before links to what was counted are
 *     made.
 */
export function note() {
    const node = h("p", {class: "note", hidden: true});
    function update(time, {from, to, complete}) {
        setCounted(time, {from, to});
        const other = from && !time.live && (from !== time.from || to !== time.to);
        const texts = [
            other && `Counted from ${clock(from)} until ${clock(to)}, in whole intervals.`,
            complete === false && "A limit was met: this is not all. A shorter time shows more."
        ];
        const text = texts.filter(Boolean).join(" ");
        if (node.textContent !== text) node.textContent = text;
        node.hidden = !text;
    }
    return {node, update};
}
