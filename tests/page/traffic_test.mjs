// The page of the built vxcollector while records arrive: figures move, a click leads from a sum to one
// transaction, an edited rule names what comes next. Usage: node traffic_test.mjs FOLDER_OF_PROGRAMS
// FOLDER_OF_NODE_MODULES
import assert from "node:assert/strict";
import {after, before, test} from "node:test";

import {openBrowser} from "./browser.mjs";
import {logLine, startPrograms} from "./programs.mjs";

const [bin, modules] = process.argv.slice(2);
const RULES = "7|Shop|2|1|/shop|0\n7|Cart|3|0|/shop/cart|0\n7|Payment|4|1|/api/pay|0\n";
const SCRIPT = "/shop/<script>window.evil=1</script>";

let programs, browser, page;

before(async () => {
    programs = await startPrograms(bin, RULES);
    browser = await openBrowser(modules);
    page = browser.page();
});
after(async () => {
    await browser?.close();
    await programs?.end();
});

const many = (n, line) => Array.from({length: n}, () => logLine(line));
const row = (name) => page.locator(
    "table.data tbody tr", {has: page.locator("a.row-link", {hasText: new RegExp(`^${name}$`)})});
// The figure of a BT's row under a column's title comes to be what is wanted.
const figure = (name, title, wanted) =>
    row(name).locator(`td[data-label="${title}"]`, {hasText: new RegExp(`^${wanted}$`)}).waitFor();

test("the overview appears and follows the traffic without a reload", async () => {
    await page.goto(programs.url);
    await page.locator("text=No transaction ended in this time.").waitFor();
    programs.log(
        [...many(7, {url: "/shop/cart?id=7"}), ...many(5, {url: "/shop/hats"}), logLine({url: SCRIPT})]);
    await figure("Cart", "Count", 7);
    await figure("Shop", "Count", 6);
    programs.log([
        ...many(3, {url: "/shop/cart"}),
        ...many(2, {url: "/api/pay/card", status: 503, upstream: "127.0.0.1:7"})
    ]);
    await figure("Cart", "Count", 10);
    await figure("Payment", "Errors", "2 \\(100 %\\)");
    await page.locator(".live a", {hasText: "1 instance"}).waitFor();
});

test("a sum leads to the transaction, and that to its calls", async () => {
    await row("Payment").locator('td[data-label="Errors"] a').click();
    const rows = page.locator("table.data tbody tr");
    await page.locator("td.url", {hasText: "/api/pay/card"}).first().waitFor();
    assert.equal(await rows.count(), 2);
    await rows.first().click();
    const tree = page.locator("table.tree tbody");
    await tree.locator(".item-callout", {hasText: "127.0.0.1"}).waitFor();
    assert.match(await tree.locator("tr.item-method").nth(2).textContent(), /nginx\.GET/);
    assert.match(await tree.locator(".item-exception").textContent(), /nginx\.ServiceUnavailable/);
    assert.match(await page.locator(".headers").first().textContent(), /shop\.example/);
    await page.locator("summary", {hasText: "records that this was read from"}).click();
    assert.match(await page.locator("pre.records").textContent(), /^2,\d+/m);

    await tree.locator(".item-callout a").click();
    await page.locator(".chip", {hasText: "Back-end"}).waitFor();
    await page.goto(programs.url + "#/transactions?url=" + encodeURIComponent("<script>"));
    await page.locator("td.url", {hasText: SCRIPT}).waitFor();
    assert.equal(await page.evaluate(() => window.evil), undefined);
});

test("exceptions and back-ends tell the same traffic", async () => {
    await page.goto(`${programs.url}#/exceptions`);
    const card = page.locator("article", {hasText: "nginx.ServiceUnavailable"});
    await card.locator("a", {hasText: "2 times"}).waitFor();
    await page.goto(`${programs.url}#/backends`);
    await page.locator(".map .node.backend", {hasText: "2 errors"}).waitFor();
});

test("an edited rule names what comes next", async () => {
    await page.goto(`${programs.url}#/rules`);
    await page.fill("input[name=url]", "/shop/cart");
    await page.locator("text=Which rule names it?").click();
    await page.locator(".rule-lines .names code", {hasText: "7|Cart|3|0|/shop/cart|0"}).waitFor();
    await page.locator(".editor").fill(RULES.replace("7|Cart|3|", "7|Basket|8|"));
    await page.getByRole("button", {name: "Preview"}).click();
    await page.locator(".moves li", {hasText: /^10 from Cart to Basket/}).waitFor();
    await page.locator("text=Save and send").click();
    await page.locator("text=Saved and sent").waitFor();
    await page.goto(`${programs.url}#/overview`);
    // The rules are sent within a second; requests that come before that keep the old name.
    for (let turn = 0; turn < 200 && (await row("Basket").count()) === 0; turn++) {
        programs.log([logLine({url: "/shop/cart"})]);
        await page.waitForTimeout(500);
    }
    await row("Basket").waitFor();
    assert.deepEqual(browser.faults, []);
});
