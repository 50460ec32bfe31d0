// Makes the pictures of docs/img from a running demo: node screenshots.mjs URL FOLDER_OF_NODE_MODULES OUT
import {join} from "node:path";

import {openBrowser} from "./browser.mjs";

const [url, modules, out] = process.argv.slice(2);
const browser = await openBrowser(modules);
const page = browser.page();

async function shoot(
    name, view, {width = 1280, height = 860, scheme = "light", fullPage = false, wait, prepare}) {
    await page.emulateMedia({colorScheme: scheme});
    await page.setViewportSize({width, height});
    await page.goto(`${url}#/${view}`);
    await page.reload();
    await page.locator(wait).first().waitFor();
    await prepare?.();
    await page.evaluate(() => scrollTo(0, 0));
    await page.waitForTimeout(2500);  // the next poll brings the rates of the frame
    await page.screenshot({path: join(out, `${name}.png`), fullPage});
}

const failed = await (await fetch(`${url}api/transactions?bt=Stock&category=error`)).json();
const slowest = failed.rows.sort((a, b) => b.durationMs - a.durationMs)[0].id;
await shoot("overview", "overview?span=300", {wait: ".plot canvas", height: 830});
await shoot(
    "overview-narrow", "overview?span=300", {wait: ".plot canvas", width: 400, height: 860, scheme: "dark"});
await shoot("transaction", `transaction/${slowest}?span=300`, {wait: "table.tree tr", scheme: "dark"});
await shoot("backends", "backends?span=300", {wait: ".map", height: 560});
await shoot("rules", "rules", {
    wait: ".rule-lines li",
    fullPage: true,
    height: 900,
    async prepare() {
        await page.fill("input[name=url]", "/shop/cart");
        await page.locator("text=Which rule names it?").click();
        const text = await page.inputValue(".editor");
        await page.fill(".editor", text.replace("/stock|0", "/shop/m|0"));
        await page.getByRole("button", {name: "Preview"}).click();
        await page.locator(".moves li").first().waitFor();
    }
});
await browser.close();
