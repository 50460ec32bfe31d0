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

const BTS = ["Shop", "Cart", "Orders", "Payment", "Reports", "Others", EVIL];
const BUCKETS = 60;

const wave = (i, n, size) => Math.round(size * (1 + Math.sin((i + n * 3) / 7) + ((i * 7 + n * 5) % 5) / 5));

function overview(from, to) {
    const step = (to - from) / BUCKETS;
    const at = Array.from({ length: BUCKETS }, (_, i) => from + i * step);
    const seconds = (to - from) / 1000;
    const bts = BTS.map((bt, n) => {
        const spark = at.map((_, i) => wave(i, n, 60 - n * 8));
        const count = spark.reduce((a, b) => a + b, 0);
        const [slow, verySlow, error] = [Math.floor(count / 40), Math.floor(count / 90), n % 3 ? Math.floor(count / 30) : 0];
        return { name: bt, discarded: 0, count, perSecond: count / seconds, averageMs: 8.25 * (n + 1), p95Ms: 61 * (n + 1), minMs: 1, maxMs: 900 * (n + 1),
                 normal: count - slow - verySlow - error, slow, verySlow, error, spark };
    });
    const sum = (key) => bts.reduce((total, b) => total + b[key], 0);
    const part = (n) => at.map((_, i) => Math.round(wave(i, n, 200) / n));
    return { from, to, step, complete: true,
             all: { count: sum("count"), perSecond: sum("count") / seconds, averageMs: 21.4, p95Ms: 180, minMs: 0, maxMs: 6300,
                    normal: sum("normal"), slow: sum("slow"), verySlow: sum("verySlow"), error: sum("error") },
             rows: bts, series: { at, normal: part(1), slow: part(9), verySlow: part(20), error: part(14),
                            averageMs: at.map((_, i) => (i % 13 === 5 ? null : 10 + wave(i, 2, 4))) } };
}

function row(i, now) {
    const category = ["normal", "normal", "normal", "slow", "error", "verySlow"][i % 6];
    return { id: String(1000 - i), number: `46116860184273${88000 - i}`, instance: "Web/host1/shop", bt: BTS[i % BTS.length],
             url: i === 3 ? `/shop/${EVIL}` : i === 4 ? "/shop/" + "very-long-segment/".repeat(14) : `/shop/cart?id=${i}`,
             status: category === "error" ? 500 : 200, category, start: now - i * 1700, end: now - i * 1700, durationMs: (i * 37) % 2100,
             session: "0", callouts: i % 3, exceptions: category === "error" ? 1 : 0 };
}

function transaction(id, now) {
    const method = (depth, parent, name, atMs, durationMs, selfMs, more) =>
        ({ kind: "method", depth, parent, name, atMs, durationMs, selfMs, cpu: 2, open: false, url: "", ...more });
    const items = [
        method(0, -1, "Shop.handle(Request)", 0, 812, 90, { url: "/shop/cart" }),
        method(1, 0, "Cart.load(long)", 12, 210, 30),
        { kind: "callout", depth: 2, parent: 1, name: "MYSQL_shop", type: "DB", query: "select * from cart where id = ?", status: 0, failed: false, atMs: 20, durationMs: 180 },
        method(1, 0, "Price.all()", 230, 512, 100),
        { kind: "callout", depth: 2, parent: 3, name: "HTTP_pay.example", type: "HTTP", query: "-", status: 503, failed: true, atMs: 300, durationMs: 412.125 },
        { kind: "exception", depth: 2, parent: 3, name: "PaymentRefused", seq: 3, atMs: 712 },
        method(1, 0, `Log.write(${EVIL})`, 760, 52, 52, { open: true }),
    ];
    return { ...row(4, now), id, url: `/shop/cart?id=7&note=${EVIL}`, durationMs: 812, cpu: 14, session: "4611686018427387904", endReason: 0,
             page: 0, correlation: "", traceId: "", callerSpan: "", caller: "996", callees: ["815", "816"], complete: id !== "1", items,
             thrown: [{ class: "PaymentRefused", message: EVIL, cause: "Timeout", throwingClass: "Pay", throwingMethod: "buy", at: now, seq: 3,
                        stack: ["at Pay.buy(Pay.cs:81)", "at Price.all(Price.cs:14)", `at ${EVIL}`] }],
             requestHeaders: [{ name: "Host", value: "shop.example" }, { name: "X-Note", value: EVIL }], arguments: [],
             responseHeaders: [{ name: "Content-Type", value: "text/html" }], records: ["2,4611686018427387904,373", "4,4611686018427387904,500,13"] };
}

function status(now) {
    const link = (kind) => ({ kind, peer: "127.0.0.1:50312", since: now - 60000, lastHeard: now - 300, bytes: 10432 });
    return { now, started: now - 600000, version: "1.0.0", testRun: 1, serial: now, records: Math.floor(now / 10) % 1e6, monitorRecords: 520, bytes: 9876543,
             transactions: 40100, unreadable: 0, comparedRuns: 2, connections: 3, refusedConnections: 0,
             instances: [{ number: 1, key: "8124", name: "Web/host1/shop", tier: "Web", server: "host1", app: "shop", agent: "nginx", connected: true, started: true,
                           lastHeard: now - 300, lastHeartbeat: now - 4000, connections: ["control", "data", "auto-sensor"].map(link) },
                         { number: 2, key: "22", name: EVIL, tier: "T", server: "s", app: "a", agent: "", connected: false, started: false,
                           lastHeard: now - 9e6, lastHeartbeat: null, connections: [] }],
             store: { kind: "sqlite", queued: 0, written: 40100, dropped: 12, bytes: 10485760, oldest: now - 7200000, fault: "" },
             rules: { editable: true } };
}

function backends() {
    const call = (from, toKind, to, calls, errors) =>
        ({ from: `${from}/host1/shop`, fromKey: from, toKind, to: toKind === "backend" ? to : `${to}/host1/shop`, toKey: to, calls, errors, averageMs: 8.5 });
    const backend = (name, type, calls, errors) => ({ backend: name, type, calls, errors, averageMs: 8.1, maxMs: 300.5, p95Ms: 20, perSecond: 0.13 });
    return { backends: [backend("HTTP_pay.example", "HTTP", 120, 2), backend("MYSQL_shop", "DB", 4000, 0), backend(EVIL, "custom", 3, 0)],
             edges: [call("Front", "instance", "Web", 400, 0), call("Web", "backend", "HTTP_pay.example", 120, 2),
                     call("Web", "backend", "MYSQL_shop", 4000, 0), call("Web", "instance", "Front", 2, 0), call("Front", "backend", EVIL, 3, 0)],
             complete: true };
}

const exceptions = (now) => ({ complete: true, exceptions: ["PaymentRefused", EVIL].map((name, i) => ({
    class: name, count: 4 - i * 3, lastAt: now - 5000, lastText: "Pay.buy: card 4711 refused", lastStack: ["at Pay.buy", `at ${EVIL}`],
    lastTransaction: "996", bts: [{ bt: "Cart", count: 3 }, { bt: EVIL, count: 1 }] })) });

function monitors(kind, now) {
    const figures = (count) => ({ count, averageMs: 10.1, minMs: 1, maxMs: 900, normal: count - 3, slow: 0, verySlow: 0, error: 3 });
    const steps = (monitor, singles) => Array.from({ length: 12 }, (_, i) => ({ at: now - (12 - i) * 10000, monitor: monitor(i), singles: singles(i) }));
    const rows = [["Cart", 600, 600, steps(() => 50, () => 50)], ["Shop", 900, 890, steps((i) => 75, (i) => (i > 9 ? 70 : 75))],
                  [EVIL, 50, 20, steps((i) => (i ? 1 : 39), (i) => (i ? 1 : 9))]];
    return { kind, from: now - 120000, to: now, step: 10000, complete: true,
             rows: rows.map(([name, m, s, all]) => ({ name, monitor: figures(m), singles: figures(s), steps: all })) };
}

function links(from, to) {
    const first = Math.ceil(from / 10000) * 10000;
    const rows = Array.from({ length: Math.floor((to - first) / 10000) }, (_, i) => (
        { at: first + i * 10000, instance: "Web/host1/shop", records: wave(i, 1, 4000), monitorRecords: i % 6 ? 0 : 30, bytes: 90000,
          unreadable: 0, dropped: i % 17 === 3 ? 4 : 0, incomplete: i % 23 === 9 ? 2 : 0, connects: 0, disconnects: 0 }));
    return { links: rows, comparisons: [{ at: to - 60000, instance: "Web/host1/shop", agreed: 12, partial: 1, differing: 0 }], complete: true };
}

const RULES = "# shops\n7|Cart|2|0|/shop/cart|0\n7|Shop|3|1|/shop|0\n7|bad\n";
const lines = RULES.trimEnd().split("\n").map((text, i) => ({
    number: i + 1, kind: i ? "pattern rule" : "comment", text, meaning: "URLs that are or begin so", fault: i === 3 ? "has fewer than 6 fields" : null }));
const rules = { editable: true, present: true, name: "BTRuleConfig", text: RULES, digest: "1", deciding: "patterns", decidingWords: "Pattern rules decide.", fault: null, lines,
                warnings: [{ line: 2, text: "line 3 goes before it" }] };
const tried = { bt: "Cart", btId: 2, excluded: false, deciding: "patterns", line: 2, why: "Line 2 names it: it is exact.",
                lines: lines.map((line, i) => ({ ...line, outcome: ["mute", "names", "outdone", "mute"][i],
                                                 reason: ["", "the URL is /shop/cart", "the URL begins with /shop, but line 2 is exact", "a fault"][i] })) };
const preview = { deciding: "patterns", lines, warnings: rules.warnings, looked: 1000, moved: 12,
                  moves: [{ from: "Others", to: EVIL, count: 12, examples: [{ id: "812", url: "/shop/cart?id=7" }] }],
                  notes: ["The method of a request is not recorded."],
                  counts: [{ bt: "Cart", before: 40, after: 52 }] };

/** What is asked and answered: "METHOD path" -> (params, body, rest of the path) -> JSON, or { fault: status, error }. */
export function answers() {
    return {
        "GET /api/status": () => status(Date.now()),
        "GET /api/overview": (p) => overview(Number(p.get("from")), Number(p.get("to"))),
        "GET /api/transactions": (p) => {
            const first = p.get("before") ? 100 : 0;
            return { rows: Array.from({ length: 100 }, (_, i) => row(first + i, Date.now())), next: first ? null : "1:901" };
        },
        "GET /api/transactions/": (p, body, id) => (id === "0" ? { fault: 404, error: "no such transaction" } : transaction(id, Date.now())),
        "GET /api/backends": backends,
        "GET /api/links": (p) => links(Number(p.get("from")), Number(p.get("to"))),
        "GET /api/exceptions": () => exceptions(Date.now()),
        "GET /api/monitors": (p) => monitors(p.get("kind"), Date.now()),
        "GET /api/rules": () => rules,
        "POST /api/rules/try": () => tried,
        "POST /api/rules/preview": () => preview,
        "POST /api/rules": (p, body) => {
            rules.text = body.text;
            return { saved: true, digest: "2" };
        },
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
        request.on("end", () => {
            const head = { "Content-Security-Policy": POLICY, "Cache-Control": "no-store" };
            const inList = url.pathname.match(/^(\/api\/transactions\/)(.+)$/);
            const answer = table[`${request.method} ${inList ? inList[1] : url.pathname}`];
            if (answer) {
                const json = answer(url.searchParams, body && JSON.parse(body), inList?.[2]);
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
