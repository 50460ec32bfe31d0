// A headless Chromium for tests of the page: its own profile, every console error kept.
import {existsSync, mkdtempSync, rmSync} from "node:fs";
import {createRequire} from "node:module";
import {tmpdir} from "node:os";
import {join, resolve} from "node:path";

const FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync"
];
const PATIENCE_MS = 60000;  // a loaded machine, not a slow page

/** Exit code 77, which ctest takes for "skipped", where the machine has no browser. */
export function chromiumPath() {
    const path = ["/usr/bin/chromium", "/usr/bin/chromium-browser"].find((p) => existsSync(p));
    if (!path) {
        console.error("no chromium on this machine (scripts/bootstrap installs it)");
        process.exit(77);
    }
    return path;
}

/**
 * { context, faults: what the console complained of, page(), close() }; `modules` is the folder of
 * node_modules.
 */
export async function openBrowser(modules) {
    const {chromium} = createRequire(resolve(modules, "x.js"))("playwright-core");
    const profile = mkdtempSync(join(tmpdir(), "vxpage."));
    const context = await chromium.launchPersistentContext(profile, {
        executablePath: chromiumPath(),
        args: FLAGS,
        headless: true,
        timeout: 2 * PATIENCE_MS,
        viewport: {width: 1280, height: 900},
    });
    context.setDefaultTimeout(PATIENCE_MS);
    const faults = [];
    const watch = (page) => {
        page.on("console", (message) => {
            if (["error", "warning"].includes(message.type())) faults.push(message.text());
        });
        page.on("pageerror", (error) => faults.push(String(error)));
    };
    context.on("page", watch);
    context.pages().forEach(watch);
    return {
        context,
        faults,
        page: () => context.pages()[0],
        async close() {
            await context.close();
            rmSync(profile, {recursive: true, force: true});
        },
    };
}

/** Whether the page is wider than its window: what does not fit has to scroll in itself. */
export const tooWide = (page) =>
    page.evaluate(() => document.documentElement.scrollWidth > document.documentElement.clientWidth);
