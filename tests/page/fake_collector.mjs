// A collector that answers the page's questions with what a test says: for cases that real traffic does not
// bring.
// clang-format off
import { existsSync, readFileSync } from "node:fs";
import { createServer } from "node:http";
import { extname, join } from "node:path";

const TYPES = { ".html": "text/html", ".js": "text/javascript", ".css": "text/css", ".svg": "image/svg+xml" };
// As vxcollector sends it: what the page does must pass.
const POLICY = "default-src 'self'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'; object-src 'none'";

export const EVIL = "<script>window.evil = 1</script><img src=x onerror=\"window.evil = 2\">&amp;'\"";
const SHOP = "Web/host1/shop";
const FIGURES = { count: 600, perSecond: 0.67, averageMs: 8.25, p95Ms: 61, minMs: 1, maxMs: 900, normal: 580, slow: 9, verySlow: 6, error: 5 };
const BUCKETS = 60;
const buckets = (of) => Array.from({ length: BUCKETS }, (_, i) => of(i));

const overview = (from, to, step = (to - from) / BUCKETS) => ({
    from, to, step, complete: true, all: FIGURES,
    rows: ["Shop", "Cart", EVIL].map((name, n) => ({ name, ...FIGURES, spark: buckets((i) => i % (n + 5)) })),
    series: { at: buckets((i) => from + i * step), normal: buckets((i) => 90 + i), slow: buckets((i) => i % 3), verySlow: buckets((i) => i % 2),
              error: buckets((i) => i % 7), averageMs: buckets((i) => (i % 13 === 5 ? null : 10 + (i % 4))) } });

const row = (i, now) => ({
    id: String(1000 - i), number: `4611686018427388${100 - i}`, instance: SHOP, bt: ["Cart", EVIL][i % 2],
    url: ["/shop/cart", `/shop/${EVIL}`, "/shop/" + "very-long-segment/".repeat(14)][i % 3], status: i % 4 ? 200 : 500,
    category: ["error", "normal", "slow", "verySlow"][i % 4], start: now - i * 1700, end: now - i * 1700, durationMs: (i * 37) % 2100,
    session: "0", callouts: i % 3, exceptions: i % 4 ? 0 : 1 });

export const method = (depth, parent, name, atMs, durationMs, open = false) =>
    ({ kind: "method", depth, parent, name, atMs, durationMs, selfMs: durationMs / 2, cpu: 2, open, url: "" });
const call = { kind: "callout", query: "select * from cart where id = ?", status: 503, failed: true, durationMs: 80.125 };

export const transaction = (id, now, items) => ({
    ...row(4, now), id, url: `/shop/cart?note=${EVIL}`, durationMs: 812, cpu: 14, session: "4611686018427387904", endReason: 0, page: 0,
    correlation: "", traceId: "", callerSpan: "", caller: "996", callees: ["815", "816"], complete: id !== "1",
    items: items ?? [
        method(0, -1, "Shop.handle(Request)", 0, 812), method(1, 0, "Cart.load(long)", 12, 210),
        { ...call, depth: 2, parent: 1, name: "MYSQL_shop", type: "DB", atMs: 20 },
        method(1, 0, "Price.all()", 230, 512), { ...call, depth: 2, parent: 3, name: EVIL, type: "HTTP", atMs: 300 },
        { kind: "exception", depth: 2, parent: 3, name: "PaymentRefused", seq: 3, atMs: 712 }, method(1, 0, `Log.write(${EVIL})`, 760, 52, true)],
    thrown: [{ class: "PaymentRefused", message: EVIL, cause: "Timeout", throwingClass: "Pay", throwingMethod: "buy", at: now, seq: 3, stack: ["at Pay.buy", `at ${EVIL}`] }],
    requestHeaders: [{ name: "X-Note", value: EVIL }], arguments: [], responseHeaders: [], records: ["2,4611686018427387904,373", "4,4611686018427387904,500,13"] });

const status = (now) => ({
    now, started: 1760000000000, version: "1.0.0", testRun: 1, serial: now, records: Math.floor(now / 10) % 1e6, monitorRecords: 520, bytes: 9876543,
    transactions: 40100, unreadable: 0, comparedRuns: 2, connections: 3, refusedConnections: 0, token: false,
    instances: [SHOP, EVIL].map((name, i) => ({
        number: i + 1, key: String(8124 + i), name, tier: "Web", server: "host1", app: "shop", agent: "nginx", connected: i === 0, started: i === 0,
        lastHeard: now - 300, lastHeartbeat: i ? null : now - 4000,
        connections: i ? [] : ["control", "data"].map((kind) => ({ kind, peer: "127.0.0.1:50312", since: now - 60000, lastHeard: now - 300, bytes: 10432 })) })),
    store: { kind: "sqlite", queued: 0, written: 40100, dropped: 12, bytes: 10485760, oldest: now - 7200000, fault: "" }, rules: { editable: true } });

const edge = (from, toKind, to) => ({ from: `${from}/host1`, fromKey: from, toKind, to, toKey: to, calls: 120, errors: 2, averageMs: 8.5 });
const backends = {
    complete: true, edges: [edge("Front", "instance", "Web"), edge("Web", "instance", "Front"), edge("Web", "backend", EVIL)],
    backends: [{ backend: EVIL, type: "HTTP", calls: 120, errors: 2, averageMs: 8.1, maxMs: 300.5, p95Ms: 20, perSecond: 0.13 }] };

const exceptions = (now) => ({ complete: true, exceptions: ["PaymentRefused", EVIL].map((name) => ({
    class: name, count: 4, lastAt: now - 5000, lastText: "Pay.buy: card 4711 refused", lastStack: [`at ${EVIL}`], lastTransaction: "996", bts: [{ bt: EVIL, count: 4 }] })) });

const monitors = (kind, now) => ({
    kind, from: now - 120000, to: now, step: 10000, complete: true,
    rows: [["Cart", FIGURES, FIGURES], [EVIL, FIGURES, { ...FIGURES, count: 20 }]].map(([name, monitor, singles]) => (
        { name, monitor, singles, steps: buckets((i) => ({ at: now - (BUCKETS - i) * 10000, monitor: 10, singles: 10 })) })) });

const links = (from, to, step) => ({
    step, complete: true, comparisons: [{ at: to - 60000, instance: EVIL, agreed: 12, partial: 1, differing: 0 }],
    links: Array.from({ length: Math.floor((to - from) / step) }, (_, i) => (
        { at: from + i * step, instance: SHOP, records: 4000 + i, monitorRecords: 30, unreadable: 0, dropped: i % 17 === 3 ? 4 : 0, incomplete: 0 })) });

const RULES = "# shops\n7|Cart|2|0|/shop/cart|0\n7|Shop|3|1|/shop|0\n7|bad\n";
const lines = RULES.trimEnd().split("\n").map((text, i) => ({
    number: i + 1, kind: i ? "pattern rule" : "comment", text, meaning: "URLs that are or begin so", fault: i === 3 ? "has fewer than 6 fields" : null,
    outcome: ["mute", "names", "outdone", "mute"][i], reason: "the URL is /shop/cart" }));

/** What is asked and answered: "METHOD path" -> (params, body, rest of the path) -> JSON or a promise of it, or { fault: status, error }. */
export function answers() {
    let text = RULES;
    return {
        "GET /api/status": () => status(Date.now()),
        "GET /api/overview": (p) => overview(Number(p.get("from")), Number(p.get("to"))),
        "GET /api/transactions": (p) => {
            const first = p.get("before") ? 100 : 0;
            return { rows: Array.from({ length: 100 }, (_, i) => row(first + i, Date.now())), next: first ? null : "1:901" };
        },
        "GET /api/transactions/": (p, body, id) => (id === "0" ? { fault: 404, error: "no such transaction" } : transaction(id, Date.now())),
        "GET /api/backends": () => backends,
        "GET /api/links": (p) => links(...["from", "to", "step"].map((key) => Number(p.get(key)))),
        "GET /api/exceptions": () => exceptions(Date.now()),
        "GET /api/monitors": (p) => monitors(p.get("kind"), Date.now()),
        "GET /api/reports": () => ({ complete: true, reports: [{ at: Date.now(), instance: EVIL, count: 1, line: EVIL }] }),
        "GET /api/rules": () => ({ editable: true, present: true, name: "BTRuleConfig", text, digest: "1", deciding: "patterns",
                                   decidingWords: "Pattern rules decide.", fault: null, lines, warnings: [] }),
        "POST /api/rules/try": () => ({ bt: "Cart", btId: 2, excluded: false, deciding: "patterns", line: 2, why: "Line 2 names it: it is exact.", lines }),
        "POST /api/rules/preview": () => ({
            deciding: "patterns", lines, warnings: [{ line: 2, text: "line 3 goes before it" }], looked: 1000, moved: 12, notes: ["Methods are not recorded."],
            moves: [{ from: "Others", to: EVIL, count: 12, examples: [{ id: "812", url: "/shop/cart?id=7" }] }] }),
        "POST /api/rules": (p, body) => ({ saved: Boolean(text = body.text), digest: "2" }),
    };
}

function file(path, pageDir, uplotDir) {
    const known = { "/": join(pageDir, "index.html"), "/uplot.js": join(uplotDir, "uPlot.iife.min.js"), "/uplot.css": join(uplotDir, "uPlot.min.css") };
    return known[path] ?? join(pageDir, path);
}

/** Serves the page's files and `table` on a free port: { server, url, asked: the addresses in their order, away: answers nobody }. */
export async function fakeCollector(pageDir, modules, table) {
    const asked = [];
    const server = createServer((request, reply) => {
        const url = new URL(request.url, "http://x");
        asked.push(`${request.method} ${request.url}`);
        let body = "";
        request.on("data", (chunk) => (body += chunk));
        request.on("end", async () => {
            const head = { "Content-Security-Policy": POLICY, "Cache-Control": "no-store" };
            const inList = url.pathname.match(/^(\/api\/transactions\/)(.+)$/);
            const answer = table[`${request.method} ${inList ? inList[1] : url.pathname}`];
            if (answer) {
                const json = await answer(url.searchParams, body && JSON.parse(body), inList?.[2]);
                reply.writeHead(json.fault ?? 200, { ...head, "Content-Type": "application/json" });
                return reply.end(JSON.stringify(json));
            }
            const path = file(url.pathname, pageDir, join(modules, "node_modules/uplot/dist"));
            const there = !url.pathname.includes("..") && existsSync(path) && TYPES[extname(path)];
            reply.writeHead(there ? 200 : 404, { ...head, "Content-Type": there || "text/plain" });
            reply.end(there ? readFileSync(path) : "not there");
        });
    });
    await new Promise((done) => server.listen(0, "127.0.0.1", done));
    const fake = { server, asked, away: false, url: `http://127.0.0.1:${server.address().port}/` };
    server.on("connection", (socket) => fake.away && socket.destroy());
    return fake;
}
