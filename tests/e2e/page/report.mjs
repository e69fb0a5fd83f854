// Looks at a page of archiveview in a real browser.
//
//   node report.mjs MODULES BROWSER FILE PLACE WORDS PATIENCE
//
// Prints JSON: for each look at the page its width, the row that PLACE leads to, the order of a sorted column and the
// violations that axe finds; where the links of the findings lead to; what a search for WORDS finds; what is there
// without a script and in print; all messages of the console and all requests. PATIENCE is in seconds.
import {readFileSync} from "node:fs";
import {createRequire} from "node:module";

const [modules, program, file, place, words, patience] = process.argv.slice(2);
const require = createRequire(`${modules}/package.json`);
const {chromium} = require("playwright-core");
const axe = readFileSync(require.resolve("axe-core/axe.min.js"), "utf8");
const timeout = Number(patience) * 1000;
const browser = await chromium.launch({executablePath: program, timeout, args: ["--no-sandbox", "--disable-gpu",
    "--no-first-run", "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--disable-dev-shm-usage"]});
const found = {errors: [], requests: [], looks: [], links: []};

async function open(hash, {javaScriptEnabled = true, width = 1440, colorScheme = "light"} = {}) {
    const context = await browser.newContext({viewport: {width, height: 900}, colorScheme, javaScriptEnabled,
                                              reducedMotion: "reduce"});
    context.setDefaultTimeout(timeout);
    context.on("request", (request) => found.requests.push(request.url()));
    const page = await context.newPage();
    page.on("console", (message) => found.errors.push(message.text()));
    page.on("pageerror", (error) => found.errors.push(String(error)));
    await page.goto(`file://${file}${hash}`);
    if (javaScriptEnabled) {
        await page.waitForSelector("html[data-ready]", {state: "attached"});
    }
    return page;
}

async function sortByKeyboard(page) {
    const head = page.locator("#section-processes thead th").first();
    const pids = () => page.evaluate(() => [...document.querySelectorAll("#section-processes tbody tr:not(.detail)")]
        .map((row) => Number(row.firstElementChild.textContent.replace(/\D/g, ""))));
    await head.locator("button").focus();
    const orders = {};
    for (const key of ["Enter", "Space"]) {
        await page.keyboard.press(key);
        orders[await head.getAttribute("aria-sort")] = await pids();
    }
    return orders;
}

async function look(width, colorScheme) {
    const page = await open(`#${place}`, {width, colorScheme});

    await page.locator(".target").waitFor();
    const target = await page.locator(".target").innerText();
    await page.evaluate(() => document.querySelectorAll("details").forEach((one) => { one.open = true; }));
    await page.locator("#section-texts table").waitFor();
    const orders = await sortByKeyboard(page);
    await page.evaluate(axe);
    const {violations} = await page.evaluate(() => window.axe.run());
    const {scroll, ground} = await page.evaluate(() => ({scroll: document.documentElement.scrollWidth,
                                                         ground: getComputedStyle(document.body).backgroundColor}));
    found.looks.push({width, colorScheme, scroll, target, orders, ground,
                      violations: violations.map((one) => `${one.id}: ${one.nodes[0].html}`)});
    await page.context().close();
}

async function followLinks() {
    const page = await open("");
    found.title = [await page.title(), await page.locator("h1").innerText()];
    for (const link of await page.locator("#findings a[href^='#']").all()) {
        await link.click();
        const place = await link.getAttribute("href");
        await page.waitForFunction(() => document.querySelector(".target:focus") || !document.getElementById("news").hidden);
        found.links.push({place, row: await page.locator(".target").first().innerText(),
                          news: await page.locator("#news").textContent(),
                          visible: await page.locator(".target").first().isVisible()});
    }
    return page;
}

async function searchAndPrint(page) {
    await page.locator("#search").fill(words);
    await page.waitForFunction(() => document.getElementById("found").textContent !== "");
    found.search = {said: await page.locator("#found").innerText(),
                    open: await page.locator("details.section[open]").evaluateAll((all) => all.map((one) => one.id)),
                    rows: await page.locator("#section-processes tbody tr:not(.detail)").count()};
    await page.locator("#search").fill("");
    await page.waitForFunction(() => document.getElementById("found").textContent === "");
    await page.evaluate(() => addEventListener("beforeprint", () => {
        document.body.dataset.printed = document.querySelectorAll("main > details:not([open])").length;
    }));
    const pdf = await page.pdf();
    await page.emulateMedia({media: "print"});
    found.print = {bytes: pdf.length, closed: await page.locator("body").getAttribute("data-printed"),
                   search: await page.locator("#search").isVisible(),
                   findings: await page.locator("#findings").isVisible()};
}

for (const width of [390, 820, 1440]) {
    await look(width, "light");
    await look(width, "dark");
}
await searchAndPrint(await followLinks());
const plain = await open("", {javaScriptEnabled: false});
found.plain = await plain.locator("main").innerText();
found.controls = await plain.locator("#search").isVisible();
await browser.close();
console.log(JSON.stringify(found));
