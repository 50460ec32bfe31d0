// The frame around the views: which one shows, when it asks again, and what is said while the collector is
// gone.
import {get} from "./api.js";
import {h, patch, replace} from "./dom.js";
import {clock, rate, spanText} from "./format.js";
import {changed, route, setNow, span, SPANS, to} from "./router.js";
import {backends} from "./views/backends.js";
import {exceptions} from "./views/exceptions.js";
import {link} from "./views/link.js";
import {monitors} from "./views/monitors.js";
import {overview} from "./views/overview.js";
import {reports} from "./views/reports.js";
import {rules} from "./views/rules.js";
import {transaction} from "./views/transaction.js";
import {transactions} from "./views/transactions.js";

const POLL_MS = 2000;
const BACK_MS = 15000;       // for which it is said that the collector answers again
const MOST_TOOK_MS = 15000;  // an answer that took longer lay in a machine that slept
const SETTLED_MS = 120000;   // nothing comes for a time that is longer ago

// A view: make(context) -> { node, load(signal) } with, where needed, route() that takes a change of the
// address without a new view, refresh: "always" (also when nothing was stored) or "never", and close().
const VIEWS = {
    overview: {title: "Overview", make: overview},
    transactions: {title: "Transactions", make: transactions},
    backends: {title: "Back-ends", make: backends},
    exceptions: {title: "Exceptions", make: exceptions},
    monitors: {title: "Monitors", make: monitors},
    link: {title: "Link", make: link},
    rules: {title: "Rules", make: rules},
    transaction: {title: "Transaction", make: transaction, within: "transactions"},
    reports: {title: "Records of a monitor", make: reports, within: "monitors"},
};

const byId = (id) => document.getElementById(id);
const main = byId("main");
const context = {
    status: null
};
let shown = null;      // { name, path, view, serial, busy: questions under way, asked, took, error, loading:
                       // AbortController }
let previous = null;   // the status before: rates are differences
let away = false;      // the collector did not answer
let restarted = null;  // the last status of the collector before this one, until that was told
let backTimer = 0;

// What no view is called shows the overview.
function viewName() {
    const [name] = route().path;
    return Object.hasOwn(VIEWS, name) ? name : "overview";
}

function drawNav() {
    const name = VIEWS[viewName()].within ?? viewName();
    patch(
        byId("nav"),
        Object.entries(VIEWS)
            .filter(([, view]) => !view.within)
            .map(([key,
                   view]) => h("a", {href: to(key), "aria-current": key === name && "page"}, view.title)));
    // The frame's other links keep the time that is looked at, too.
    document.querySelector(".brand").href = to("overview");
    byId("live").querySelector("a")?.setAttribute("href", to("link"));
}

function drawSpan() {
    const now = span();
    const select = byId("span");
    const options = SPANS.map((s) => h("option", {value: s}, `Last ${spanText(s)}`));
    if (!now.live)
        options.unshift(h("option", {value: "fixed"}, `${clock(now.from)}, ${spanText(now.seconds)}`));
    replace(select, options);
    select.value = now.live ? String(now.seconds) : "fixed";
}

function drawScheme() {
    const dark = document.documentElement.dataset.scheme === "dark";
    const text = dark ? "Use the light scheme" : "Use the dark scheme";
    const button = replace(byId("scheme"), dark ? "☀" : "☾");
    button.setAttribute("aria-label", text);
    button.title = text;
}

function drawLive(status) {
    const connected = status.instances.filter((i) => i.connected).length;
    const seconds = previous ? (status.now - previous.now) / 1000 : 0;
    const records = seconds > 0 && status.started === previous.started ?
        `, ${rate(Math.max(0, status.records - previous.records) / seconds, "records/s")}` :
        "";
    const text = connected === 1 ? "1 instance" : `${connected} instances`;
    const live = byId("live");
    live.className = connected ? "live on" : "live";
    // Only what is news is announced: the figure changes at every poll.
    if (live.dataset.text !== text) {
        live.dataset.text = text;
        replace(live, h("a", {}, text), h("span", {class: "records", "aria-hidden": "true"}));
    }
    live.querySelector(".records").textContent = records;
    live.querySelector("a").href = to("link");
}

// For a while, what has become of a collector that was away, or is another one than before.
function tellBack() {
    const line = byId("back");
    const texts = [
        away && "The collector answers again.",
        restarted && `${away ? "It" : "The collector"} was started anew at ${clock(context.status.started)}.`,
        restarted?.version && restarted.version !== context.status.version &&
            "This page is that of its former version: load it again."
    ];
    line.textContent = texts.filter(Boolean).join(" ");
    line.hidden = false;
    clearTimeout(backTimer);
    backTimer = setTimeout(() => (line.hidden = true), BACK_MS);
    restarted = null;
}

// What stands between the reader and fresh figures, or nothing.
function tell(error) {
    // The address goes along: behind the login, the page goes on there.
    if (error?.status === 401) return location.assign("/login" + location.hash);
    const line = byId("gone");
    if (!error && (away || restarted)) tellBack();
    away = error?.status === 0 || (away && Boolean(error));
    const text = error?.status === 0 ?
        "The collector does not answer. What shows here is what it said last; the page goes on trying." :
        error?.message ?? "";
    if (line.textContent !== text) line.textContent = text;  // an alert is spoken whenever it is written
    line.hidden = !error;
    if (error?.status === 0) {
        byId("live").className = "live off";
        byId("live").dataset.text = "gone";
        replace(byId("live"), "no connection");
    }
}

// Asks the view again. A fault stays with it until it has its answer.
async function reload() {
    const mine = shown;
    const {signal} = mine.loading;
    const serial = context.status?.serial;
    mine.busy++;
    mine.asked = performance.now();  // no clock that somebody sets
    try {
        await mine.view.load(signal);
        mine.serial = serial;
        mine.error = null;
    } catch (error) {
        if (error.status !== undefined)
            mine.error = error;
        else if (!signal.aborted)
            throw error;
    } finally {
        mine.busy--;
        mine.took = Math.min(performance.now() - mine.asked, MOST_TOOK_MS);
    }
}

// Whether the view has to ask again: never so often that the collector answers this page most of the time.
function due() {
    if (!shown || shown.busy || performance.now() - shown.asked < 4 * shown.took) return false;
    if (shown.error) return true;
    if (shown.view.refresh === "never") return false;
    const time = span();
    if (!time.live && time.to < context.status.now - SETTLED_MS) return false;
    if (shown.view.refresh === "always" || shown.serial !== context.status.serial) return true;
    return performance.now() - shown.asked > 5 * POLL_MS;  // the span moves on although nothing came
}

async function askStatus() {
    const status = await get("/api/status");
    setNow(status.now);
    previous = context.status;
    if (previous && previous.started !== status.started) restarted = previous;
    context.status = status;
    byId("logout").hidden = !status.token;
    drawLive(status);
}

async function poll() {
    let error = null;
    try {
        await askStatus();
        if (due()) await reload();
    } catch (fault) {
        if (fault.status === undefined) throw fault;
        error = fault;
    }
    tell(error ?? shown.error);
}

function open(name, path) {
    shown?.loading.abort();
    shown?.view.close?.();
    const view = VIEWS[name].make(context);
    shown = {
        name,
        path,
        view,
        serial: null,
        busy: 0,
        asked: 0,
        took: 0,
        error: null,
        loading: new AbortController()
    };
    replace(main, view.node);
    scrollTo(0, 0);
}

async function navigate(event) {
    const {path} = route();
    const name = viewName();
    const same = shown?.name === name && shown.path === path.join("/");
    document.title = `${VIEWS[name].title} · VXProxy collector`;
    if (same && shown.view.route) {
        shown.view.route();
        shown.loading.abort();
        shown.loading = new AbortController();
    } else {
        open(name, path.join("/"));
        if (event) main.focus({preventScroll: true});
    }
    drawNav();
    drawSpan();
    await reload();
    tell(shown.error);
}

let turning = false;
let next = 0;  // timer

// Turns follow each other; while nobody looks there are none.
async function turn() {
    clearTimeout(next);
    if (turning || document.hidden) return;
    turning = true;
    await poll().catch((error) => console.error(error));
    turning = false;
    next = setTimeout(turn, POLL_MS);
}

byId("span").addEventListener("change", (event) => {
    if (event.target.value !== "fixed")
        location.hash = changed({span: event.target.value, from: null, to: null});
});
byId("scheme").addEventListener("click", () => window.turnScheme());
document.addEventListener("schemechange", drawScheme);
document.addEventListener("visibilitychange", turn);
document.querySelector(".skip").addEventListener("click", (event) => {
    event.preventDefault();
    main.focus();
});
addEventListener("hashchange", navigate);
drawScheme();
drawNav();
drawSpan();
await askStatus().catch(tell);  // whose clock the first view goes by
navigate();
turn();
