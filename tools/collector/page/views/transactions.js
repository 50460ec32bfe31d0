// The list of transactions, latest first, with filters that stand in the address.
import {get} from "../api.js";
import {badge, CATEGORIES} from "../category.js";
import {focusIn, h, patch, replace} from "../dom.js";
import {clock, count, ms} from "../format.js";
import {changed, route, span, to} from "../router.js";
import {nameText, rowLink, table} from "../table.js";

const PAGE = 100;
const MOST = 2000;  // rows kept on the page
const TYPED = ["bt", "url", "status", "min", "max", "session"];
const GIVEN = {
    instance: "Instance",
    caller: "Called by",
    backend: "Back-end",
    failed: "Call failed",
    callMin: "Call took at least, ms",
    exception: "Exception",
    number: "Number"
};  // filters that only links set

function filters(params) {
    const all = [...TYPED, ...Object.keys(GIVEN), "category"];
    return Object.fromEntries(all.map((key) => [key, params.get(key) ?? ""]));
}

// Replaces the address without a step in the browser's history: typing is one change to a reader.
const set = (params) => location.replace(changed(params));

// On narrow screens the rare ones show when asked for.
const labelled = (title, input, rare) =>
    h("label", {class: rare ? "field rare" : "field"}, h("span", {}, title), input);

function field(key, title, {rare, ...props}) {
    let pause = 0;
    const oninput = (event) => {
        clearTimeout(pause);
        if (!event.target.reportValidity()) return;
        pause = setTimeout(() => set({[key]: event.target.value.trim()}), 300);
    };
    const input = h("input", {name: key, type: "search", autocomplete: "off", oninput, ...props});
    return {key, input, rare, node: labelled(title, input, rare), stop: () => clearTimeout(pause)};
}

const LEAST_TIME = 946684800000;  // 2000: while a year is being typed, it is none yet

// A time of this machine's, as its input has it; empty: NaN.
const local = (t) => new Date(t - new Date(t).getTimezoneOffset() * 60000).toISOString().slice(0, 19);

// Beginning and end of the time shown, for who wants another than the last minutes.
function timeFields() {
    const input = (name) => h("input", {name, type: "datetime-local", step: 1, onchange: take});
    const from = input("from");
    const till = input("to");
    const active = () => [from, till].includes(document.activeElement);

    function clear() {
        for (const input of [from, till]) input.setCustomValidity("");
    }
    function take({target}) {
        const [first, last] = [Date.parse(from.value), Date.parse(till.value)];
        const now = span();
        const wanted = {from: first || Math.floor(now.from), to: last || Math.floor(now.to)};
        clear();
        if (!first && !last) return set({from: null, to: null});
        if (Math.min(wanted.from, wanted.to) < LEAST_TIME) return;
        if (wanted.from < wanted.to) return set(wanted);
        target.setCustomValidity("It ends before it begins.");
        target.reportValidity();
    }
    function show() {
        const now = span();
        if (active()) return;
        clear();
        from.value = now.live ? "" : local(now.from);
        till.value = now.live ? "" : local(now.to);
    }
    return {node: h("div", {class: "times rare"}, labelled("From", from), labelled("Until", till)), show};
}

const NUMBER = {
    inputmode: "numeric",
    pattern: "\\s*\\d{0,9}\\s*",
    title: "A whole number"
};

function form(context) {
    // An instance stands in the address by its key: a reader knows it by its name.
    const titleOf = (key, value) => (["instance", "caller"].includes(key) &&
                                     context.status?.instances.find((i) => i.key === value)?.name) ||
        value;
    const names = h("datalist", {id: "bt-names"});
    const fields = [
        field("bt", "Business transaction", {list: "bt-names", placeholder: "any"}),
        field("url", "URL has", {placeholder: "/cart", size: 16}),
        field("status", "Status", {rare: true, placeholder: "500", size: 5, ...NUMBER}),
        field("min", "At least, ms", {rare: true, size: 6, ...NUMBER}),
        field("max", "At most, ms", {rare: true, size: 6, ...NUMBER}),
        field("session", "Session", {rare: true, size: 12, inputmode: "numeric"}),
    ];
    const category =
        h("select", {name: "category", onchange: (event) => set({category: event.target.value})},
          h("option", {value: ""}, "any"), CATEGORIES.map((c) => h("option", {value: c.key}, c.name)),
          h("option", {value: "abnormal"}, "all but normal"));
    fields.push({key: "category", input: category, node: labelled("Category", category)});
    const times = timeFields();
    const chips = h("div", {class: "chips"});
    const more = h("button", {type: "button", class: "button more", onclick: showAll}, "More filters");
    const node =
        h("form", {class: "filters", role: "search", onsubmit: (event) => event.preventDefault()},
          fields.map((f) => f.node), times.node, more, chips, names);

    // Puts into the form what the address says, but for a field that is being typed into.
    function show() {
        const now = filters(route().params);
        for (const {key, input} of fields)
            if (document.activeElement !== input) input.value = now[key];
        times.show();
        if (fields.some((f) => f.rare && now[f.key])) node.classList.add("all");
        const given = Object.keys(GIVEN).filter((key) => now[key]);
        const none = Object.fromEntries(Object.keys(now).map((key) => [key, null]));
        patch(
            chips,
            given.map(
                (key) =>
                    h("a", {class: "chip", title: "Take this filter away", href: changed({[key]: null})},
                      `${GIVEN[key]}: ${titleOf(key, now[key])} ×`)),
            Object.values(now).some(Boolean) &&
                h("a", {class: "clear", href: changed(none)}, "Clear all filters"));
    }
    function showAll() {
        node.classList.add("all");
        fields.find((f) => f.rare).input.focus();  // the button is gone
    }
    const close = () => fields.forEach((f) => f.stop?.());
    return {node, names, show, close};
}

function columns() {
    return [
        {
            title: "Start",
            class: "when",
            cell: (r) => rowLink(to(["transaction", r.id]), clock(r.start, true))
        },
        {title: "Transaction", class: "name", cell: (r) => h("a", {href: changed({bt: r.bt})}, r.bt)},
        {title: "Request", class: "url", cell: (r) => nameText(r.url)},
        {title: "Status", num: true, cell: (r) => String(r.status)},
        {title: "Category", cell: (r) => badge(r.category)},
        {title: "Duration", num: true, cell: (r) => ms(r.durationMs)},
        {title: "Callouts", num: true, cell: (r) => count(r.callouts)},
        {
            title: "Exceptions",
            num: true,
            cell: (r) => h("span", {class: r.exceptions ? "bad" : "zero"}, count(r.exceptions))
        },
    ];
}

export function transactions(context) {
    const search = form(context);
    const list = table(columns(), {
        label: "Transactions",
        key: (r) => r.id,
        whole: true,
        empty: [
            h("b", {}, "No transaction in this time passes the filters."),
            h("p", {}, "Take a filter away, or look at a longer time (above).")
        ],
    });
    const said = h("p", {class: "note"});
    let spoken = false;
    const more = h("button", {type: "button", class: "button", hidden: true, onclick: older}, "Show older");
    const node =
        h("div", {class: "view"}, h("h1", {}, "Transactions"), search.node,
          h("section", {class: "panel"}, list.node, h("div", {class: "under"}, more, said)));
    let rows = [];
    let next = null;
    let named = false;
    let complete = true;
    let asking = false;  // for older ones
    search.show();

    function ask(extra, signal) {
        const time = span();
        return get(
            "/api/transactions",
            {...filters(route().params), from: time.from, to: time.to, limit: PAGE, ...extra}, signal);
    }

    // Spoken once for each address, not with every row that comes.
    function say(text) {
        if (said.textContent === text) return;
        said.setAttribute("aria-live", spoken ? "off" : "polite");
        said.textContent = text;
        spoken = true;
    }

    function draw() {
        list.update(rows);
        more.hidden = !next || rows.length >= MOST;
        const cut = complete ? "" : " Not all was looked through: a shorter time shows more.";
        if (rows.length === 0) return say(cut.trim());
        if (rows.length >= MOST)
            return say(`The latest ${count(MOST)}. Narrow the time or the filters to see others.`);
        const others = next ? "; there are more." : complete ? ", and no more." : ".";
        say(`${count(rows.length)} shown, the latest first${others}${cut}`);
    }

    // What was shown stays below what is new: only a change of the address begins anew.
    function merge(fresh) {
        const seen = new Set(fresh.map((r) => r.id));
        const from = span().from;
        return [...fresh, ...rows.filter((r) => !seen.has(r.id) && r.end >= from)].slice(0, MOST);
    }

    // Rows that somebody is about to take must not run away.
    function held() {
        const pointed = matchMedia("(hover: hover)").matches && list.node.matches(":hover");
        return rows.length > 0 && (pointed || list.node.contains(document.activeElement));
    }

    async function load(signal) {
        search.show();  // the names of instances may have come
        if (held()) {
            say("Held while the pointer or the focus is in the list.");
            return;
        }
        const answer = await ask({}, signal);
        const first = rows.length === 0;
        // A page full of rows that were not there leaves a gap to those shown: begin anew then.
        const gap = !first && answer.rows.length === PAGE &&
            !answer.rows.some((r) => rows.some((old) => old.id === r.id));
        if (first || gap) next = answer.next;
        if (first || gap || complete) complete = answer.complete !== false;
        rows = gap ? answer.rows : merge(answer.rows);
        draw();
        if (!named) {
            const time = span();
            const sums =
                await get("/api/overview", {from: time.from, to: time.to, step: time.to - time.from}, signal);
            named = true;
            replace(search.names, sums.rows.map((r) => h("option", {value: r.name})));
        }
    }

    async function older() {
        const before = next;
        const address = location.hash;
        const outdated = () => location.hash !== address || next !== before;  // the list has begun anew
        if (asking) return;
        asking = true;  // the button stays enabled: a disabled one loses the focus
        more.setAttribute("aria-busy", "true");
        try {
            const answer = await ask({before});
            if (outdated()) return;
            complete &&= answer.complete !== false;
            next = answer.next;
            const shown = rows.length;
            const pressed = document.activeElement === more;
            rows = [...rows, ...answer.rows].slice(0, MOST);
            draw();
            if (pressed && more.hidden) focusIn(list.rowAt(shown) ?? list.rowAt(shown - 1));
        } catch (error) {
            if (!outdated()) say(error.message);
        } finally {
            asking = false;
            more.removeAttribute("aria-busy");
        }
    }

    function changedRoute() {
        rows = [];
        next = null;
        spoken = false;
        search.show();
    }
    return {node, load, route: changedRoute, close: search.close};
}
