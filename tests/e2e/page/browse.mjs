// Uses the page as a user would, in a real browser.
//
//   node browse.mjs MODULES BROWSER
//
// MODULES is the folder that contains node_modules. Each line of the input is JSON and starts a scenario: its name as
// "scenario", the front's "url", "patience" in seconds, and the scenario's own parameters. The answer is a line of JSON:
// the result of the scenario as "found", or the reason why it "failed"; the "errors" that the browser logged; and the
// "foreign" requests, to other hosts than the front.
import {readFileSync} from "node:fs";
import {createRequire} from "node:module";
import {createInterface} from "node:readline";

const [modules, program] = process.argv.slice(2);
const require = createRequire(`${modules}/package.json`);
const {chromium} = require("playwright-core");
const axe = readFileSync(require.resolve("axe-core/axe.min.js"), "utf8");
const FLAGS = [
    "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
    "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage",
];
const NO_PICKER = () => {
    delete window.showSaveFilePicker;
};
// A picker that returns a file in the page's own storage without a dialog.
const OWN_PICKER = () => {
    window.showSaveFilePicker = async ({suggestedName}) => {
        const folder = await navigator.storage.getDirectory();
        return folder.getFileHandle(suggestedName, {create: true});
    };
};
const CLOSING_PICKER = () => {
    window.showSaveFilePicker = () => Promise.reject(new DOMException("closed", "AbortError"));
};

let given = {};
let errors = [];
let foreign = [];

async function newPage(browser, {init = NO_PICKER, ...how} = {}) {
    const context = await browser.newContext({
        acceptDownloads: true, reducedMotion: "reduce", viewport: {width: 1200, height: 900}, ...how,
    });
    context.setDefaultTimeout(given.patience * 1000);
    await context.addInitScript(init);
    const page = await context.newPage();
    page.on("console", (message) => {
        if (message.type() === "error" || message.type() === "warning") {
            errors.push(`${message.text()} ${message.location().url}`);
        }
    });
    page.on("pageerror", (error) => errors.push(String(error)));
    context.on("request", (request) => {
        if (!/^(data|blob):/.test(request.url()) && new URL(request.url()).origin !== new URL(given.url).origin) {
            foreign.push(request.url());
        }
    });
    await page.goto(given.url);
    if (how.javaScriptEnabled !== false) {
        await page.waitForSelector("#table tbody tr");
    }
    return page;
}

const form = (page, kind) => page.locator(`form[data-kind=${kind}]`);
const newestJob = (page, kind) => page.locator("section", {has: form(page, kind)}).locator(".job").first();
const stateOf = (page, kind) => newestJob(page, kind).locator(".state").innerText();
const stopButton = (page, kind) => newestJob(page, kind).getByRole("button", {name: /^(Stop|Cancel)/});

async function fill(page, kind, fields) {
    for (const [name, value] of Object.entries(fields)) {
        await form(page, kind).locator(`[name=${name}]`).fill(value);
    }
}

// Fills in the form, submits it and waits for the end of its request. Returns the state that the page shows.
async function ask(page, kind, fields = {}, button = null) {
    const before = await page.locator(".job").count();
    await fill(page, kind, fields);
    await (button ? form(page, kind).getByRole("button", {name: button}) : form(page, kind).locator("button").first())
        .click();
    await page.waitForFunction((count) => document.querySelectorAll(".job").length > count, before);
    await newestJob(page, kind).and(page.locator(".over")).waitFor();
    return stateOf(page, kind);
}

async function readDownload(download) {
    return {name: download.suggestedFilename(), bytes: readFileSync(await download.path()).toString("base64")};
}

const scenarios = {
    // Sends each given request. Returns what the page shows for each, and the name of the saved file.
    async forms(browser) {
        const page = await newPage(browser);
        const shown = [];
        let name = "";
        page.on("download", (download) => {
            name = download.suggestedFilename();
        });
        for (const {kind, fields, button} of given.requests) {
            name = "";
            const state = await ask(page, kind, fields, button);
            const classes = await newestJob(page, kind).getAttribute("class");
            shown.push({kind, state, classes, text: await newestJob(page, kind).innerText(), name});
        }
        return shown;
    },

    async without_script(browser) {
        const page = await newPage(browser, {javaScriptEnabled: false});
        const names = [];
        const save = async (click) => {
            const [download] = await Promise.all([page.waitForEvent("download"), click()]);
            names.push(download.suggestedFilename());
            await download.path();
        };
        for (const {kind, fields} of given.requests) {
            await fill(page, kind, fields ?? {});
            await save(() => form(page, kind).locator("button").first().click());
        }
        const links = await page.locator("main a:visible:not([href^='#'], [href='/report.html'])").all();
        const targets = await Promise.all(links.map((link) => link.getAttribute("href")));
        for (const link of links) {
            await save(() => link.click());
        }
        const hidden = await page.locator("#filter, #sources, [data-link], [data-without]").filter({visible: true}).count();
        const note = await page.locator("noscript").innerText();
        await form(page, "report").locator("button").click();
        return {names, targets, hidden, note, report: await page.getByText(/^\d+ bytes$/).innerText()};
    },

    // Downloads straight into a file. Returns the checksum of its content.
    async into_a_file(browser) {
        const page = await newPage(browser, {init: OWN_PICKER});
        let downloads = 0;
        page.on("download", () => downloads++);
        const state = await ask(page, "coredump", {pid: "7"});
        const sum = await page.evaluate(async () => {
            const folder = await navigator.storage.getDirectory();
            const file = await (await folder.getFileHandle("core")).getFile();
            const hash = await crypto.subtle.digest("SHA-256", await file.arrayBuffer());
            return [...new Uint8Array(hash)].map((byte) => byte.toString(16).padStart(2, "0")).join("");
        });
        return {state, sum, downloads, numbers: await newestJob(page, "coredump").locator(".numbers").innerText()};
    },

    async no_file_chosen(browser) {
        const page = await newPage(browser, {init: CLOSING_PICKER});
        await form(page, "coredump").locator("[name=pid]").fill("7");
        await form(page, "coredump").getByRole("button").click();
        await page.locator("#news:visible").waitFor();
        return {news: await page.locator("#news").innerText(), jobs: await page.locator(".job").count()};
    },

    async cancel(browser) {
        const page = await newPage(browser);
        await fill(page, "coredump", {pid: "7"});
        await form(page, "coredump").getByRole("button").click();
        await page.waitForFunction(() => /^\d.* · \d\d:\d\d · /.test(document.querySelector(".job .numbers")?.innerText));
        await stopButton(page, "coredump").click();
        await newestJob(page, "coredump").and(page.locator(".over")).waitFor();
        return stateOf(page, "coredump");
    },

    async wait_for_a_crash(browser) {
        const page = await newPage(browser);
        await form(page, "listen").getByRole("button").click();
        await newestJob(page, "listen").waitFor();
        const asked = await stateOf(page, "listen");
        const [download] = await Promise.all([
            page.waitForEvent("download"), page.evaluate(() => fetch("/crash-now").then((answer) => answer.text())),
        ]);
        return {asked, saved: await readDownload(download)};
    },

    // Sorts and filters the list of processes, and starts requests from it.
    async list(browser) {
        const page = await newPage(browser);
        const column = (name) => page.locator(`#table tbody tr:visible ${name}`).allInnerTexts();
        const found = {names: await column("th"), sorted: {}};
        for (const key of ["name", "pid", "memory_kb"]) {
            await page.locator(`[data-sort=${key}]`).click();
            const pids = (await column("td.number:nth-child(2)")).map(Number);
            found.sorted[key] = {pids, direction: await page.locator(`th:has([data-sort=${key}])`).getAttribute("aria-sort")};
        }
        await page.locator("#filter").fill("caller");
        found.filtered = await column("th");
        found.pid = (await column("td.number:nth-child(2)"))[0];
        await page.locator("#table tbody input").check();
        found.ticked = await form(page, "strace").locator("[name=pid]").inputValue();
        found.link = await form(page, "strace").locator("[data-link]").innerText();
        await page.getByRole("button", {name: /^Core dump of caller/}).click();
        await newestJob(page, "coredump").and(page.locator(".over")).waitFor();
        found.core = await stateOf(page, "coredump");
        found.focus = await page.evaluate(() => document.activeElement.textContent);
        found.interfaces = await page.locator("#interfaces option").evaluateAll((all) => all.map((one) => one.value));
        found.offered = await page.locator("#names option").evaluateAll((all) => all.map((one) => one.value));
        return found;
    },

    // Reaches each control and sends a request with the keyboard only.
    async keyboard(browser) {
        const page = await newPage(browser);
        const reachable = await page.evaluate(() => [...document.querySelectorAll("a, button, input:not([type=hidden])")]
            .filter((element) => element.checkVisibility() && !element.disabled).length);
        const seen = new Set();
        for (let i = 0; i < 3 * reachable; i++) {
            await page.keyboard.press("Tab");
            const number = await page.evaluate(() => {
                window.numbers ??= new Map();
                const one = document.activeElement;
                if (one.matches("a, button, input")) {
                    window.numbers.set(one, window.numbers.get(one) ?? window.numbers.size);
                    return window.numbers.get(one);
                }
                return null;
            });
            if (seen.has(number) && number === 0) {
                break;
            }
            if (number !== null) {
                seen.add(number);
            }
        }
        await page.getByRole("button", {name: "Show the output of ps"}).focus();
        await page.keyboard.press("Enter");
        await newestJob(page, "ps").and(page.locator(".over")).waitFor();
        const nameless = await page.evaluate(() => [...document.querySelectorAll("button, input:not([type=hidden]), a")]
            .filter((one) => !(one.textContent.trim() || one.getAttribute("aria-label") || one.labels?.length))
            .map((one) => one.outerHTML));
        return {reachable, reached: seen.size, nameless};
    },

    // Measures widths and contrasts in each given look, with all kinds of content in the page.
    async looks(browser) {
        const found = {};
        for (const [name, how] of Object.entries(given.looks)) {
            const page = await newPage(browser, how);
            await ask(page, "ps");
            await ask(page, "coredump", {pid: "x".repeat(200)});
            found[name] = await page.evaluate(measure);
            if (given.pictures) {
                await page.screenshot({path: `${given.pictures}/${name}.png`, fullPage: true});
            }
        }
        return found;
    },

    // Makes a report and opens it. Returns what both pages show.
    async report(browser) {
        const page = await newPage(browser);
        await page.getByRole("button", {name: "Make a report"}).focus();
        await page.keyboard.press("Enter");
        const job = newestJob(page, "report");
        const asked = await job.locator(".state").innerText();
        const waits = await job.locator("progress:indeterminate").count();
        await page.request.get(`${given.url}go-on`);
        await job.and(page.locator(".over")).waitFor();
        const [report] = await Promise.all([page.context().waitForEvent("page"),
                                            job.getByRole("link", {name: "Open the report"}).click()]);
        await report.locator("#done").waitFor();
        const [download] = await Promise.all([page.waitForEvent("download"),
                                              job.getByRole("link", {name: "Save report.html"}).click()]);
        return {asked, waits, state: await stateOf(page, "report"), text: await report.locator("body").innerText(),
                reached: await report.evaluate((url) => fetch(url).then(() => true, () => false), `${given.url}debug.tgz`),
                origin: await report.evaluate(() => origin), address: report.url(), saved: await readDownload(download)};
    },

    async cancel_report(browser) {
        const page = await newPage(browser);
        await page.getByRole("button", {name: "Make a report"}).click();
        await newestJob(page, "report").locator("progress").waitFor();
        await page.request.get(`${given.url}has-begun`);
        await stopButton(page, "report").click();
        await newestJob(page, "report").and(page.locator(".over")).waitFor();
        return stateOf(page, "report");
    },

    // What axe finds in the page, in each given look, with a running request and all kinds of ended ones.
    async axe(browser) {
        const found = {};
        for (const [name, how] of Object.entries(given.looks)) {
            const page = await newPage(browser, how);
            await ask(page, "ps");
            await ask(page, "coredump", {pid: "7"});
            await ask(page, "report");
            await page.getByRole("button", {name: "Wait for the next crash"}).click();
            await newestJob(page, "listen").locator("progress").waitFor();
            await page.evaluate(axe);
            const {violations} = await page.evaluate(() => window.axe.run());
            found[name] = violations.map((one) => `${one.id}: ${one.nodes.map((node) => node.html).join(" ")}`);
        }
        return found;
    },

    // Downloads an archive of a real daemon, and sends a second request meanwhile.
    async archive(browser) {
        const page = await newPage(browser);
        await page.getByRole("button", {name: "Download debug.tar"}).click();
        await newestJob(page, "archive").locator(".phases").waitFor();
        const busy = page.locator("#archive .job", {hasText: "debug.tgz"}).locator(".state");
        await page.getByRole("button", {name: "Download debug.tgz"}).click();
        await page.locator("#archive .job.over.bad").waitFor();
        const refused = await busy.innerText();
        await page.locator("#archive .job.bad").getByRole("button", {name: "Remove"}).click();
        const phases = new Set();
        const [download] = await Promise.all([page.waitForEvent("download"), (async () => {
            while (await page.locator("#archive .job:not(.over)").count()) {
                phases.add(await page.evaluate(() => document.querySelector(".phases [aria-current]")?.textContent));
                await page.waitForTimeout(100);
            }
        })()]);
        await download.saveAs(given.save);
        return {refused, phases: [...phases].filter(Boolean), state: await stateOf(page, "archive"),
                name: download.suggestedFilename()};
    },

    // Starts a trace from the list, and pauses, filters, stops and saves it.
    async trace(browser) {
        const page = await newPage(browser);
        await page.locator("#filter").fill("caller");
        await page.getByRole("button", {name: /^Trace of caller/}).click();
        const job = newestJob(page, "strace");
        const lines = async () => Number(/^Lines: (\d+)/.exec(await job.locator("p.quiet").innerText())?.[1] ?? 0);
        const until = async (condition) => {
            while (!await condition()) {
                await page.waitForTimeout(50);
            }
        };
        await until(async () => await lines() > 20);
        await job.getByRole("button", {name: "Pause"}).click();
        const paused = await job.locator("pre").innerText();
        await until(async () => Number(/: (\d+)\.$/.exec(await job.locator("p.quiet").innerText())?.[1] ?? 0) > 5);
        const still = await job.locator("pre").innerText();
        await job.getByRole("button", {name: "Resume"}).click();
        await until(async () => await job.locator("pre").innerText() !== paused);
        await job.getByRole("searchbox").fill("READ(");
        const filtered = (await job.locator("pre").innerText()).split("\n");
        await stopButton(page, "strace").click();
        await job.and(page.locator(".over")).waitFor();
        const [download] = await Promise.all([page.waitForEvent("download"),
                                              job.getByRole("button", {name: /^Save/}).click()]);
        return {paused, still: still === paused, filtered, state: await stateOf(page, "strace"),
                saved: await readDownload(download)};
    },
};

// Runs in the page.
function measure() {
    const number = (part) => {
        const value = part / 255;
        return value <= 0.04045 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4;
    };
    const light = (color) => {
        const [red, green, blue] = color.match(/[\d.]+/g).map(Number);
        return 0.2126 * number(red) + 0.7152 * number(green) + 0.0722 * number(blue);
    };
    const ground = (element) => {
        for (; element; element = element.parentElement) {
            const color = getComputedStyle(element).backgroundColor;
            if (color !== "rgba(0, 0, 0, 0)") {
                return color;
            }
        }
        return "rgb(255, 255, 255)";
    };
    const pale = [];
    for (const element of document.querySelectorAll("main *, header *")) {
        const own = [...element.childNodes].some((node) => node.nodeType === Node.TEXT_NODE && node.data.trim());
        if (own && element.checkVisibility() && !element.disabled) {
            const pair = [light(getComputedStyle(element).color), light(ground(element))].sort();
            const contrast = (pair[1] + 0.05) / (pair[0] + 0.05);
            if (contrast < 4.5) {
                pale.push(`${element.tagName} ${element.textContent.slice(0, 40)} ${contrast}`);
            }
        }
    }
    const wide = [...document.querySelectorAll("body *")].filter((element) => !element.closest("pre, .unseen, .skip") &&
        element.getBoundingClientRect().right > innerWidth + 0.5).map((element) => element.outerHTML.slice(0, 100));
    return {width: document.documentElement.scrollWidth, window: innerWidth, wide, pale,
            ground: light(getComputedStyle(document.body).backgroundColor)};
}

const browser = await chromium.launch({executablePath: program, args: FLAGS});
for await (const line of createInterface({input: process.stdin})) {
    given = JSON.parse(line);
    errors = [];
    foreign = [];
    const answer = {errors, foreign};
    try {
        answer.found = await scenarios[given.scenario](browser);
    } catch (error) {
        answer.failed = error.stack;
    }
    await Promise.all(browser.contexts().map((context) => context.close()));
    console.log(JSON.stringify(answer));
}
await browser.close();
