// The page against a collector of the test's own: hostile texts, a collector that goes away, filters, keys,
// rules. Usage: node odd_test.mjs PAGE_DIR FOLDER_OF_NODE_MODULES
import assert from "node:assert/strict";
import {after, before, beforeEach, test} from "node:test";

import {openBrowser, tooWide} from "./browser.mjs";
import {answers, EVIL, fakeCollector, method, transaction} from "./fake_collector.mjs";

const [pageDir, modules] = process.argv.slice(2);
let browser, page, fake, table;

before(async () => {
    browser = await openBrowser(modules);
    page = browser.page();
});
beforeEach(async () => {
    fake?.server.closeAllConnections();
    fake?.server.close();
    table = answers();
    fake = await fakeCollector(pageDir, modules, table);
    browser.faults.length = 0;
    await page.setViewportSize({width: 1280, height: 900});
});
after(async () => {
    await browser.close();
    fake.server.closeAllConnections();
    fake.server.close();
});

const show = (view) => page.goto(fake.url + "#/" + view).then(() => page.reload());
// Waits until an address that holds a text has been asked for; returns it.
async function askedFor(text) {
    for (let turn = 0; turn < 600; turn++) {
        const found = fake.asked.findLast((address) => address.includes(text));
        if (found) return found;
        await page.waitForTimeout(100);
    }
    assert.fail(`nobody asked for ${text}`);
}

test("every view shows hostile texts as texts, in both widths and schemes", async () => {
    const told = {
        overview: "table td",
        transactions: "td.url",
        "transaction/812": "h1",
        backends: ".map",
        exceptions: "article h2",
        monitors: "table td",
        "reports?name=x": "td code",
        link: "table td",
        rules: ".editor"
    };
    for (const [width, colorScheme] of [[1280, "light"], [400, "dark"]]) {
        await page.setViewportSize({width, height: 900});
        await page.emulateMedia({colorScheme});
        for (const [view, wanted] of Object.entries(told)) {
            await show(view);
            await page.locator(wanted).first().waitFor();
            assert.equal(await tooWide(page), false, `${view} at ${width}`);
            if (view !== "rules") assert.ok((await page.locator("main").textContent()).includes(EVIL), view);
            assert.equal(await page.evaluate(() => document.documentElement.dataset.scheme), colorScheme);
        }
    }
    assert.equal(await page.evaluate(() => window.evil), undefined);
    assert.deepEqual(browser.faults, []);
});

test("a collector that goes away or cannot answer is told, and is taken up again", async () => {
    await show("overview");
    await page.locator("text=Cart").waitFor();
    const overview = table["GET /api/overview"];
    const status = table["GET /api/status"];
    const restart = () => {
        fake.away = true;
        fake.server.closeAllConnections();
        table["GET /api/status"] = () => ({...status(), started: 1760000009000});
    };
    const faults = [
        ["does not answer", restart],
        [
            "The store is full.",
            () => (table["GET /api/overview"] = () => ({fault: 503, error: "The store is full."}))
        ],
        ["answered 429", () => (table["GET /api/overview"] = () => ({fault: 429}))]
    ];
    for (const [told, begin] of faults) {
        begin();
        await page.locator("#gone", {hasText: told}).waitFor();
        assert.ok(await page.locator("text=Cart").isVisible(), "what was shown stays");
        fake.away = false;
        table["GET /api/overview"] = overview;
        await page.locator("#gone").waitFor({state: "hidden"});
        if (begin === restart)
            assert.match(
                await page.locator("#back").textContent(), /answers again\. It was started anew at 2025/);
    }
});

test("a chart is read and its steps are opened by keys", async () => {
    await show("overview?from=1760000000000&to=1760000600000");
    const plot = page.locator(".plot").nth(1);
    await page.locator(".plot canvas").nth(1).waitFor();
    await plot.focus();
    const pressed = async (key) => {
        await plot.press(key);
        return page.locator(".chart [role=status]").nth(1).textContent();
    };
    assert.match(await pressed("ArrowLeft"), /: Average 13 ms$/, "the last step");
    assert.match(await pressed("ArrowLeft"), /: Average 12 ms$/);
    assert.match(await pressed("Home"), /: Average 10 ms$/);
    for (let step = 0; step < 5; step++) await plot.press("ArrowRight");
    assert.match(await pressed("Shift"), /: Average none$/, "a step in which nothing ended");
    assert.match(await page.locator(".chart .when").nth(1).textContent(), /:\d\d$/);
    await plot.press("Enter");
    await page.waitForURL(/transactions\?from=1760000050000&to=1760000060000$/);
    assert.match(await page.inputValue("input[name=from]"), /^2025-10-09T/);
});

test("figures move while the focus stays", async () => {
    let count = 5;
    const overview = table["GET /api/overview"];
    table["GET /api/overview"] = (p) => {
        const data = overview(p);
        data.rows[1].count = count;
        return data;
    };
    await show("overview");
    const link = page.locator("a.row-link", {hasText: "Cart"});
    await link.focus();
    count = 987654;
    await page.locator("td", {hasText: "987,654"}).waitFor();
    assert.equal(await page.evaluate(() => document.activeElement.textContent), "Cart");
    await page.keyboard.press("Enter");
    await page.locator("h1", {hasText: "Transactions"}).waitFor();
    assert.match(page.url(), /bt=Cart/);
    // A drag on the chart asks for the transactions of all steps under it, a click for those of one.
    await show("overview?from=1760000000000&to=1760000600000");
    await page.locator(".plot canvas").first().waitFor();
    const {x, y, width} = await page.locator(".plot .u-over").first().boundingBox();
    await page.mouse.move(x + 100, y + 50);
    await page.mouse.down();
    await page.mouse.move(x + 300, y + 60, {steps: 4});
    await page.mouse.up();
    await page.waitForURL(/transactions/);
    const time = new URLSearchParams(page.url().split("?")[1]);
    assert.ok(time.get("to") - time.get("from") > 120000, page.url());
    await page.goBack();
    await page.locator(".plot canvas").first().waitFor();
    await page.mouse.click(x + width * 30.8 / 60, y + 50);  // in the right half of a step
    await page.waitForURL(/transactions\?from=1760000300000&to=1760000310000$/);
});

test("filters stand in the address, older rows come below", async () => {
    await show("transactions?bt=Cart&instance=8124");
    await page.locator("td.url").first().waitFor();
    await page.locator("a.row-link").first().focus();
    await page.locator(".under .note", {hasText: "Held while"}).waitFor();
    assert.match(await askedFor("/api/transactions?"), /bt=Cart&.*instance=8124/);
    await page.locator(".chip", {hasText: "Web/host1/shop"}).waitFor();
    await page.fill("input[name=url]", "/x?a=1&b");
    await askedFor("url=%2Fx%3Fa%3D1%26b");
    await page.selectOption("select[name=category]", "error");
    await askedFor("category=error");
    await page.locator("text=Show older").click();
    await askedFor("before=1%3A901");
    await page.locator(".under .note", {hasText: "200 shown"}).waitFor();
    // Older rows of filters that are gone by then come too late.
    const listed = table["GET /api/transactions"];
    let late;
    const held = (p) => new Promise((done) => (late = () => done(listed(p))));
    table["GET /api/transactions"] = (p) => (p.get("before") ? held(p) : listed(p));
    await page.reload();
    await page.locator("text=Show older").click();
    await page.fill("input[name=url]", "/y");
    await askedFor("url=%2Fy");
    await page.locator(".under .note", {hasText: "100 shown"}).waitFor();
    while (!late) await page.waitForTimeout(50);
    late();
    await page.locator(".under button:not([aria-busy])").waitFor();
    assert.match(await page.locator(".under .note").textContent(), /^100 shown/);
    table["GET /api/transactions"] = listed;
    await page.locator(".clear").click();
    await page.waitForFunction(() => !location.hash.includes("category"));
    assert.equal(await page.inputValue("input[name=url]"), "");
    table["GET /api/transactions"] = () => ({rows: [], next: null});
    await page.fill("input[name=bt]", "nobody");
    await page.locator("text=No transaction in this time passes the filters.").waitFor();
    await show("transactions?from=1e17&to=2e17");  // no time: the last minutes
    await page.locator("text=No transaction in this time passes the filters.").waitFor();
});

test("figures and lists go by the time that was counted", async () => {
    const overview = table["GET /api/overview"];
    table["GET /api/overview"] = (p) => {
        const time = new URLSearchParams({from: 1760000000000, to: 1760000060000});
        const data = overview(time);
        data.all = {...data.all, count: 600, perSecond: 10};
        data.rows.push({...data.rows[0], name: "(more)"});
        return {...data, complete: false};
    };
    await show("overview?from=1760000003000&to=1760000033000");
    await page.locator("a.tile", {hasText: "10.0 /s"}).first().waitFor();
    const cart = page.locator("a.row-link", {hasText: "Cart"});
    assert.match(await cart.getAttribute("href"), /from=1760000000000&to=1760000060000/);
    await page.locator(".note", {hasText: /Counted from .* A limit was met/}).waitFor();
    assert.equal(await page.locator("tr", {hasText: "(more)"}).locator("a").count(), 0);
    table["GET /api/exceptions"] = () => ({
        complete: false,
        exceptions: [{
            class: "(more)",
            count: 9,
            lastAt: 0,
            lastText: "",
            lastStack: [],
            lastTransaction: null,
            bts: []
        }]
    });
    await show("exceptions");
    await page.locator("article", {hasText: "9 times"}).waitFor();
    assert.equal(await page.locator("article a").count(), 0);
    await page.locator(".note", {hasText: "A limit was met"}).waitFor();
});

test("a tree opens and closes by key, a long one bit by bit; what is not there is said", async () => {
    await show("transaction/812");
    const rows = page.locator("table.tree tbody tr");
    await rows.first().waitFor();
    assert.equal(await rows.count(), 7);
    await page.locator("button.knob").nth(2).focus();
    await page.keyboard.press("Enter");
    assert.equal(await rows.count(), 5, "the two below Price.all() are away");
    assert.equal(await page.evaluate(() => document.activeElement.getAttribute("aria-expanded")), "false");
    const items = Array.from({length: 2300}, (_, i) => method(i ? 1 : 0, i - 1, `m${i}`, i, 1));
    table["GET /api/transactions/"] = (p, body, id) => transaction(id, Date.now(), items);
    await show("transaction/813");
    await page.locator("text=Show 1,900 more").click();
    assert.equal(await rows.count(), 2300);
    const focused = await page.evaluate(() => document.activeElement.closest("tr")?.rowIndex);
    assert.equal(focused, 401, "the button is gone, the focus goes on in the first row that came");
    await page.locator("button.knob").first().click();
    assert.equal(await rows.count(), 1, "all are below the first");
    table["GET /api/transactions/"] = answers()["GET /api/transactions/"];
    await show("transaction/0");
    await page.locator("text=This transaction is not in the store.").waitFor();
    table["GET /api/status"] = () => ({fault: 401, error: "no token"});
    await page.waitForURL(/\/login#\/transaction\/0$/);
});

test("a rule is looked at before it is saved", async () => {
    await show("rules");
    await page.fill("input[name=url]", "/shop/cart");
    await page.fill("textarea[name=headers]", "Shop: eu\nX: a: b");
    let body;
    const watch = (key, real = table[key]) => (table[key] = (p, given) => ((body = given), real(p, given)));
    watch("POST /api/rules/try");
    await page.locator("text=Which rule names it?").click();
    await page.locator(".rule-lines .names", {hasText: "Names it"}).waitFor();
    assert.deepEqual(body, {url: "/shop/cart", method: "GET", query: "", headers: {Shop: "eu", X: "a: b"}});

    const save = page.locator("text=Save and send");
    assert.ok(await save.isDisabled());
    await page.locator(".editor").fill("7|Basket|2|0|/shop/cart|0\n");
    assert.ok(await save.isDisabled(), "not before the preview");
    await page.locator("nav a", {hasText: "Link"}).click();
    await page.locator("nav a", {hasText: "Rules"}).click();
    await page.locator("text=Edited. Preview it first").waitFor();
    // An edit outlives a page that was left, and a view that closes before it has its rules.
    const read = table["GET /api/rules"];
    let answer;
    table["GET /api/rules"] = () => new Promise((done) => (answer = () => done(read())));
    await page.reload();
    await page.locator(".editor[readonly]").waitFor();
    await page.locator("nav a", {hasText: "Link"}).click();
    answer?.();
    table["GET /api/rules"] = read;
    await page.locator("nav a", {hasText: "Rules"}).click();
    await page.locator("text=Edited. Preview it first").waitFor();
    await page.getByRole("button", {name: "Preview"}).click();
    await page.locator("text=would move").waitFor();
    assert.ok((await page.locator(".moves").textContent()).includes(EVIL));
    const real = table["POST /api/rules"];
    table["POST /api/rules"] = () => ({fault: 409, error: "The file has changed."});
    await save.click();
    await page.locator("[role=alert]", {hasText: "Somebody changed the rules"}).waitFor();
    watch("POST /api/rules", real);
    await save.click();
    await page.locator("text=Saved and sent").waitFor();
    assert.deepEqual(body, {text: "7|Basket|2|0|/shop/cart|0\n", digest: "1"});
    assert.ok(await save.isDisabled());
});

test("the frame is reached by key, the scheme is kept", async () => {
    await page.emulateMedia({colorScheme: "light"});
    await show("overview");
    await page.keyboard.press("Tab");
    assert.equal(await page.evaluate(() => document.activeElement.className), "skip");
    await page.locator("#scheme").click();
    await page.reload();
    assert.equal(await page.evaluate(() => document.documentElement.dataset.scheme), "dark");
    await page.selectOption("#span", "3600");
    await page.waitForURL(/span=3600/);
    await page.locator("nav a", {hasText: "Exceptions"}).click();
    await page.locator("summary").first().click();
    await page.locator("pre.stack").first().waitFor();
    assert.match(page.url(), /exceptions\?span=3600/);
    assert.deepEqual(browser.faults, []);
});
