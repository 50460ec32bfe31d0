// Exceptions by class, each with where it came from last.
import {get} from "../api.js";
import {h, replace} from "../dom.js";
import {clock, count} from "../format.js";
import {note} from "../note.js";
import {span, to} from "../router.js";
import {REST} from "../table.js";

import {stackOf} from "./transaction.js";

const MOST_BTS = 8;  // named on a card

function card(e) {
    const last = `last ${clock(e.lastAt)}`;
    const times = e.count === 1 ? "once" : `${count(e.count)} times`;
    if (e.class === REST)
        return h(
            "article", {class: "panel exception"},
            h("header", {}, h("h2", {}, REST), h("span", {class: "figure"}, times)));
    return h(
        "article", {class: "panel exception"},
        h("header", {}, h("h2", {class: "text", title: e.class}, e.class),
          h("a", {class: "figure", href: to("transactions", {exception: e.class})}, times),
          Number(e.lastTransaction) > 0 ?
              h("a", {class: "note", href: to(["transaction", e.lastTransaction])}, last) :
              h("span", {class: "note"}, last)),
        e.lastText && h("p", {class: "message text", title: e.lastText}, e.lastText),
        e.bts.length > 0 &&
            h("p", {class: "note"}, "In ",
              e.bts.slice(0, MOST_BTS)
                  .map(
                      (b, i) =>
                          [i > 0 && ", ",
                           h("a", {href: to("transactions", {exception: e.class, bt: b.bt})},
                             h("span", {class: "own short", title: b.bt}, b.bt), ` ${count(b.count)}`)]),
              e.bts.length > MOST_BTS && " and others"),
        e.lastStack.length > 0 &&
            h("details", {}, h("summary", {}, `Last stack, ${e.lastStack.length} lines`),
              stackOf(e.lastStack)));
}

const focusable = (node) => [...node.querySelectorAll("a, summary, pre")];

export function exceptions() {
    const list = h("div", {class: "cards"});
    const said = note();
    const cards = new Map();  // class -> card: an open stack stays open, and what has the focus keeps it
    const empty =
        h("div", {class: "empty"}, h("b", {}, "No exception in this time."),
          h("p", {}, "They are recorded while the keyword instrExceptions asks for it (docs/records.md)."));
    const node = h("div", {class: "view"}, h("h1", {}, "Exceptions"), list, said.node);

    function cardOf(e) {
        const old = cards.get(e.class);
        const text = location.hash + JSON.stringify(e);
        if (old?.text === text) return old.node;
        const fresh = card(e);
        const details = fresh.querySelector("details");
        if (details && old?.node.querySelector("details")?.open) details.open = true;
        cards.set(e.class, {
            node: fresh, text
        });
        return fresh;
    }

    async function load(signal) {
        const time = span();
        const data = await get("/api/exceptions", {from: time.from, to: time.to}, signal);
        said.update(time, data);
        const focused = document.activeElement;
        const name = [...cards].find(([, shown]) => shown.node.contains(focused))?.[0];
        const place = name === undefined ? -1 : focusable(cards.get(name).node).indexOf(focused);
        const nodes = data.exceptions.map(cardOf);
        const there = new Set(data.exceptions.map((e) => e.class));
        for (const old of cards.keys())
            if (!there.has(old)) cards.delete(old);
        const same = nodes.length === list.children.length && nodes.every((n, i) => list.children[i] === n);
        if (same && nodes.length > 0) return;
        replace(list, nodes.length ? nodes : empty);
        focusable(cards.get(name)?.node ?? list)[place]?.focus({preventScroll: true});
    }
    return {node, load};
}
