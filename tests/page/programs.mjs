// The built programs on loopback, as a test wants them: collector with page and store, service, agent on a
// log.
import assert from "node:assert/strict";
import {spawn} from "node:child_process";
import {appendFileSync, mkdirSync, mkdtempSync, rmSync, writeFileSync} from "node:fs";
import {createServer} from "node:net";
import {hostname, tmpdir} from "node:os";
import {join} from "node:path";
import {setTimeout} from "node:timers/promises";

const PATIENCE_MS = 60000;

// Below the ports that the system hands out by itself, and aside from those of other tests: nobody takes it
// before the service does.
function freePort() {
    return new Promise((done) => {
        const port = 11000 + Math.floor(Math.random() * 1000);
        const server = createServer();
        server.on("error", () => done(freePort()));
        server.listen(port, "127.0.0.1", () => server.close(() => done(port)));
    });
}

/** { saw(regexp) -> match in what it printed, once it is there; end() }. */
function start(path, args, env = {}) {
    const child = spawn(path, args, {env: {...process.env, ...env}, stdio: ["pipe", "pipe", "pipe"]});
    let said = "";
    let ended = null;
    for (const stream of [child.stdout, child.stderr]) stream.on("data", (chunk) => (said += chunk));
    const over = new Promise((done) => child.on("exit", (code, signal) => done((ended = signal ?? code))));
    async function saw(wanted) {
        for (const late = Date.now() + PATIENCE_MS;; await setTimeout(50)) {
            const match = said.match(wanted);
            if (match) return match;
            assert.ok(
                ended === null && Date.now() < late, `${path} did not say ${wanted} (${ended}):\n${said}`);
        }
    }
    return {
        saw,
        async end() {
            child.kill("SIGTERM");
            await over;
            assert.equal(ended, 0, `${path} ended so:\n${said}`);
        }
    };
}

/** One line of the log, as nginx writes it. */
export function logLine({url, method = "GET", status = 200, seconds = "0.012", upstream = ""}) {
    const at = new Date();
    const month = at.toLocaleString("en-US", {month: "short", timeZone: "UTC"});
    const [day, time] = at.toISOString().split(/[T.]/);
    const [year, , date] = day.split("-");
    const asked = upstream ?
        `upstream_addr="${upstream}" upstream_status="${status}" upstream_response_time="0.008" ` :
        "";
    return `127.0.0.1 - - [${date}/${month}/${year}:${time} +0000] "${method} ${url} HTTP/1.1" ${
               status} 12 "-" "test/1" ` +
        `${asked}http_host="shop.example" sent_http_content_type="text/html" ${seconds}\n`;
}

/** { url of the page, log(lines), end() }; the run has started. */
export async function startPrograms(bin, rules, entryPoints = "nginx|nginx.upstream()|HTTP_CALLOUT|2\n") {
    const work = mkdtempSync(join(tmpdir(), "vxpage."));
    const proxyPort = await freePort();
    const running = [];
    const path = (...parts) => join(work, ...parts);
    mkdirSync(path("files"));
    mkdirSync(path("proxy/config"), {recursive: true});
    writeFileSync(path("files/VXEntryPointsFile"), entryPoints);
    writeFileSync(path("files/BTRuleConfig"), rules);
    writeFileSync(path("keywords"), [
        "zorEpochDiff=1388534400", "bciInstrSessionPct=100", "instrExceptions=1%201%200%20100%201",
        "enableExceptionInSeqBlob=1", "captureHTTPReqFullFp=3%200%200%200",
        "captureHTTPRespFullFp=3%200%200%200", ""
    ].join("\n"));
    writeFileSync(path("access.log"), "");

    const collector = start(join(bin, "vxcollector"), [
        "--listen", "0", "--host", "127.0.0.1", "--http", "0", "--db", path("store.db"), "--files",
        path("files"), "--keywords", path("keywords"), "--port-file", path("port")
    ]);
    running.push(collector);
    const url = (await collector.saw(/http:\/\/127\.0\.0\.1:\d+\//))[0];
    const port = (await collector.saw(/listening on 127\.0\.0\.1:(\d+)/))[1];
    writeFileSync(path("proxy/config/proxysetting.conf"), `proxyPort=${proxyPort}\n`);
    writeFileSync(
        path("proxy/config/vxsettings.conf"),
        `vxcHost=127.0.0.1\nvxcPort=${port}\nVXC_COMM_PROTOCOL=TCP:${port}\n`);
    const service = start(join(bin, "VXProxyService"), [], {VXHOME: work});
    running.push(service);
    await service.saw(/listening/);
    running.push(start(join(bin, "vxagent"), [
        "access-log", "--file", path("access.log"), "--follow", "--proxy", `127.0.0.1:${proxyPort}`, "--tier",
        "Web", "--server", hostname(), "--app", "shop", "--agent", "nginx"
    ]));
    await collector.saw(/action=start_instrumentation;status=starting;result=Ok/);
    return {
        url,
        log: (lines) => appendFileSync(path("access.log"), lines.join("")),
        async end() {
            for (const program of running.reverse()) await program.end();
            rmSync(work, {recursive: true, force: true});
        },
    };
}
