// One transaction: what is known of it, its call tree with a time line, exceptions, headers and records.
import {get} from "../api.js";
import {badge} from "../category.js";
import {brief, folded, h, replace} from "../dom.js";
import {clock, count, ms} from "../format.js";
import {route, to} from "../router.js";
import {callTree} from "../tree.js";

function fact(title, ...value) {
    return h("div", {}, h("dt", {}, title), h("dd", {}, value));
}

const other = (id) => h("a", {href: to(["transaction", id])}, id);

function facts(t) {
    const around = {from: t.start - 60000, to: t.start + 60000};
    return h(
        "dl", {class: "facts"},
        fact(
            "Business transaction", h("a", {href: to("transactions", {bt: t.bt}), title: t.bt}, brief(t.bt))),
        fact(
            "Started",
            h("a", {href: to("transactions", around), title: "What else ran within a minute"},
              clock(t.start, true))),
        fact("Duration", ms(t.durationMs)), fact("CPU, as the agent gave it", count(t.cpu)),
        fact("Status", h("a", {href: to("transactions", {status: t.status})}, t.status)),
        fact("Instance", t.instance),
        Number(t.session) !== 0 &&
            fact("Session", h("a", {href: to("transactions", {session: t.session})}, t.session)),
        t.caller && fact("Called by transaction", other(t.caller)),
        t.callees.length > 0 && fact("Goes on in", t.callees.map((id) => [other(id), " "])),
        t.traceId && fact("Trace", t.traceId), t.callerSpan && fact("Caller's span", t.callerSpan),
        t.correlation && fact("Correlation", t.correlation), fact("Number", t.number));
}

// Where the time went: self times and callouts added up by name.
function shares(t) {
    const sums = new Map();
    for (const item of t.items) {
        const took = item.kind === "method" ? item.selfMs : item.kind === "callout" ? item.durationMs : 0;
        if (took > 0) sums.set(item.name, {kind: item.kind, took: (sums.get(item.name)?.took ?? 0) + took});
    }
    const top = [...sums].sort((a, b) => b[1].took - a[1].took).slice(0, 6);
    if (top.length < 2) return null;
    const most = top[0][1].took;
    return h(
        "section", {class: "panel"}, h("h2", {}, "Where the time went"),
        h("ul", {class: "shares"},
          top.map(
              ([name, {kind, took}]) =>
                  h("li", {}, h("span", {class: "name", title: name}, brief(name)),
                    h("span", {class: "figure"}, ms(took)),
                    h("i", {class: `bar ${kind}`, style: {width: `${(took / most) * 100}%`}})))));
}

export function stackOf(lines) {
    return h("pre", {class: "stack", tabindex: "0", "aria-label": "Stack"}, lines.join("\n"));
}

function exceptionPanel(e, i) {
    // Some agents' names of methods begin with the class.
    const named = e.throwingMethod.startsWith(`${e.throwingClass}.`);
    const where = [!named && e.throwingClass, e.throwingMethod].filter(Boolean).join(".");
    return h(
        "article", {class: "exception", id: `exception-${i}`},
        h("h3", {}, h("a", {href: to("transactions", {exception: e.class}), title: e.class}, brief(e.class))),
        e.message && h("p", {}, folded(e.message)),
        h("p", {class: "note"}, where && `thrown by ${where}`, e.cause && `, caused by ${e.cause}`),
        e.stack.length > 0 &&
            h("details", {open: i === 0}, h("summary", {}, `Stack, ${e.stack.length} lines`),
              stackOf(e.stack)));
}

function headers(title, rows) {
    if (rows.length === 0) return null;
    return h(
        "section", {class: "panel"}, h("h2", {}, title),
        h("dl", {class: "headers"}, rows.map((r) => [h("dt", {}, r.name), h("dd", {}, folded(r.value))])));
}

function page(t) {
    const {length} = t.thrown;
    return [
        h("p", {class: "crumb"}, h("a", {href: to("transactions")}, "Transactions"), " / ",
          h("a", {href: to("transactions", {bt: t.bt})}, brief(t.bt))),
        h("h1", {class: "request"}, folded(t.url || t.bt), " ", badge(t.category)),
        !t.complete &&
            h("p", {class: "bad"}, "Not all of this transaction's records came: what shows is incomplete."),
        facts(t),
        h("section", {class: "panel"}, h("h2", {}, "Call tree"), callTree(t)),
        h("div", {class: "pair"}, shares(t),
          length > 0 &&
              h("section", {class: "panel"}, h("h2", {}, length === 1 ? "Exception" : `${length} exceptions`),
                t.thrown.map(exceptionPanel))),
        h("div", {class: "pair"}, headers("Request headers", t.requestHeaders),
          headers("Response headers", t.responseHeaders)),
        headers("Arguments", t.arguments.map((a) => ({name: `${a.method}, ${a.name}`, value: a.value}))),
        t.records.length > 0 &&
            h("details", {class: "panel"},
              h("summary", {},
                t.records.length === 1 ? "The record that this was read from" :
                                         `The ${t.records.length} records that this was read from`),
              h("pre", {class: "records", tabindex: "0"}, t.records.join("\n"))),
    ];
}

const gone = (oldest) => "What is too old, or finds no room any more, is given up" +
    (oldest ? `; the oldest that is kept ended at ${clock(oldest)}.` : ".");

export function transaction(context) {
    const node = h("div", {class: "view"}, h("p", {class: "empty"}, "Looking it up …"));
    let shown = "";

    async function load(signal) {
        let answer;
        try {
            answer = await get(`/api/transactions/${encodeURIComponent(route().path[1] ?? "")}`, {}, signal);
        } catch (error) {
            if (error.status === 404)
                replace(
                    node, h("h1", {}, "Transaction"),
                    h("div", {class: "empty"}, h("b", {}, "This transaction is not in the store."),
                      h("p", {}, gone(context.status?.store?.oldest)),
                      h("a", {href: to("transactions")}, "All transactions")));
            if (error.status !== 404) throw error;
            return;
        }
        const text = JSON.stringify(answer);
        if (text !== shown) replace(node, page(answer));
        shown = text;
    }
    return {node, load, refresh: "never"};
}
