// What the page can do with script: downloads that show how they get on and can be stopped, the list of processes,
// a system-call trace to watch. Everything else the page does without.

// A browser opens six connections to one machine; one of them stays free for the lists.
const RUNNING_LIMIT = 5;
const LIST_EVERY_MS = 5000;
const LIST_PATIENCE_MS = 15000;
const TICK_MS = 250;
const RATE_OVER_MS = 3000;
const BLOB_PIECE = 4 << 20;        // bytes that are collected before the browser may put them elsewhere
const TRACE_KEPT = 32 << 20;       // characters of a trace that are kept for saving
const TRACE_SHOWN = 1000;          // lines
const TAR_BLOCK = 512;

const find = (selector, root = document) => root.querySelector(selector);
const findAll = (selector, root = document) => [...root.querySelectorAll(selector)];

function make(name, properties = {}, ...children) {
    const element = Object.assign(document.createElement(name), properties);
    element.append(...children);
    return element;
}

function button(text, action, label = text) {
    const made = make("button", {type: "button", onclick: action}, text);
    made.setAttribute("aria-label", label);
    return made;
}

// Numbers for people.

function size(bytes) {
    const units = ["bytes", "kB", "MB", "GB", "TB"];
    let unit = 0;
    for (; bytes >= 1000 && unit < units.length - 1; unit++) {
        bytes /= 1000;
    }
    return `${unit === 0 || bytes >= 100 ? Math.round(bytes) : bytes.toFixed(1)} ${units[unit]}`;
}

function span(ms) {
    const seconds = Math.floor(ms / 1000);
    const two = (number) => String(number).padStart(2, "0");
    const hours = Math.floor(seconds / 3600);
    return `${hours ? `${hours}:` : ""}${two(Math.floor(seconds / 60) % 60)}:${two(seconds % 60)}`;
}

const clock = () => new Date().toLocaleTimeString();

// An archive as it streams.

// Tells the members of a tar stream from pieces of any size.
class TarFollower {
    #header = new Uint8Array(TAR_BLOCK);
    #filled = 0;
    #skip = 0;
    #ended = false;
    failed = false;
    members = 0;

    constructor(onMember) {
        this.onMember = onMember;
    }

    feed(bytes) {
        while (bytes.length > 0 && !this.failed && !this.#ended) {
            const skipped = Math.min(this.#skip, bytes.length);
            this.#skip -= skipped;
            bytes = bytes.subarray(skipped);
            const taken = bytes.subarray(0, TAR_BLOCK - this.#filled);
            this.#header.set(taken, this.#filled);
            this.#filled += taken.length;
            bytes = bytes.subarray(taken.length);
            if (this.#filled === TAR_BLOCK) {
                this.#filled = 0;
                this.#readHeader();
            }
        }
    }

    // Whether the stream may end here: behind a member or behind the empty blocks that end an archive.
    get whole() {
        return !this.failed && this.members > 0 && this.#filled === 0 && this.#skip === 0;
    }

    #readHeader() {
        if (this.#header.every((byte) => byte === 0)) {
            this.#ended = true;
            return;
        }
        const text = new TextDecoder();
        const name = text.decode(this.#header.subarray(0, 100)).split("\0", 1)[0];
        const length = parseInt(text.decode(this.#header.subarray(124, 136)), 8);
        if (text.decode(this.#header.subarray(257, 262)) !== "ustar" || !(length >= 0)) {
            this.failed = true;
            return;
        }
        this.members++;
        this.#skip = Math.ceil(length / TAR_BLOCK) * TAR_BLOCK;
        this.onMember(name);
    }
}

// The order in which the daemon puts an archive together; a member belongs to the first phase, from the present
// one on, whose names it has.
const PHASES = [
    ["Status and configuration", /^(dbg-monitor\.txt|media\.conf)$/],
    ["First look at /proc", /^proc/],
    ["System calls, 5 seconds", /^strace\.log$/],
    ["Network traffic, 5 seconds", /^netdump\.cap$/],
    ["Server report, log, kernel memory", /^(serverreport\.txt|oopslog|kcore)$/],
    ["Second look at /proc", /^proc/],
    ["Core dumps", /\/(core|fdmap)$/],
];

class ArchiveView {
    #phase = 0;
    #items = PHASES.map(([title]) => make("li", {}, title));
    #member = make("p", {className: "member"});
    #tar = new TarFollower((name) => this.#begin(name));

    constructor(job) {
        job.card.append(make("ol", {className: "phases"}, ...this.#items), this.#member);
        this.#mark();
        if (job.path.endsWith(".tgz")) {
            job.card.append(make("p", {className: "hint"},
                "Compressed bytes come in large pieces: this is what has arrived; the machine is further on."));
            this.#unpack();
        }
    }

    async feed(bytes) {
        if (this.writer) {
            await this.writer.write(bytes).catch(() => {});
        } else {
            this.#tar.feed(bytes);
        }
    }

    // What is to be said of the archive at its end.
    async end() {
        await this.writer?.close().catch(() => {});
        await this.unpacked;
        this.#member.textContent = "";
        if (!this.#tar.whole) {
            return "But it is not whole: it ends in the middle.";
        }
        this.#items.forEach((item) => item.removeAttribute("aria-current"));
        this.#items.forEach((item) => item.classList.add("done"));
        return `It is whole: ${this.#tar.members} members.`;
    }

    #unpack() {
        const stream = new DecompressionStream("gzip");
        this.writer = stream.writable.getWriter();
        const read = async () => {
            for (const reader = stream.readable.getReader();;) {
                const {value, done} = await reader.read();
                if (done) {
                    return;
                }
                this.#tar.feed(value);
            }
        };
        this.unpacked = read().catch(() => {
            this.#tar.failed = true;
        });
    }

    #begin(name) {
        name = name.slice(name.indexOf("/") + 1);
        const found = PHASES.findIndex(([, names], index) => index >= this.#phase && names.test(name));
        this.#phase = found < 0 ? this.#phase : found;
        this.#member.textContent = name;
        this.#mark();
    }

    #mark() {
        this.#items.forEach((item, index) => {
            item.classList.toggle("done", index < this.#phase);
            item.toggleAttribute("aria-current", false);
        });
        this.#items[this.#phase].setAttribute("aria-current", "step");
    }
}

// Text in the page: the output of ps whole, the last lines of a trace.
class TextView {
    #decoder = new TextDecoder();
    #kept = [];
    #keptLength = 0;
    #dropped = 0;
    #lines = [""];
    #lineCount = 0;
    #pausedAt = -1;
    #stale = false;
    #screen = make("pre", {tabIndex: 0});
    #note = make("p", {className: "quiet"});

    constructor(job) {
        this.job = job;
        this.#screen.className = job.kind.live ? "screen live" : "screen";
        this.#screen.setAttribute("role", "region");
        this.#screen.setAttribute("aria-label", `Text of ${job.title}`);
        this.filter = make("input", {type: "search", autocomplete: "off", spellcheck: false,
                                     placeholder: "only lines with …", oninput: () => this.draw(true)});
        this.filter.setAttribute("aria-label", "Only lines with these words");
        this.pauseButton = button("Pause", () => this.pause());
        this.pauseButton.setAttribute("aria-pressed", "false");
        const bar = make("div", {className: "row"}, this.filter);
        if (job.kind.live) {
            bar.prepend(this.pauseButton);
        }
        bar.append(button("Save", () => this.save(), `Save the text of ${job.title}`));
        job.card.append(bar, this.#screen, this.#note);
        job.everyTick = () => this.draw();
    }

    feed(bytes) {
        const text = this.#decoder.decode(bytes, {stream: true});
        this.#kept.push(text);
        this.#keptLength += text.length;
        while (this.#keptLength > TRACE_KEPT && this.#kept.length > 1) {
            const oldest = this.#kept.shift().length;
            this.#keptLength -= oldest;
            this.#dropped += oldest;
        }
        const lines = text.split("\n");
        this.#lines.push(this.#lines.pop() + lines[0], ...lines.slice(1));
        this.#lineCount += lines.length - 1;
        if (this.#lines.length > 20 * TRACE_SHOWN) {
            this.#lines.splice(0, this.#lines.length - 10 * TRACE_SHOWN);
        }
        this.#stale = true;
    }

    end() {
        this.pauseButton.hidden = true;
        this.#pausedAt = -1;
        this.draw(true);
        return "";
    }

    pause() {
        const paused = this.#pausedAt < 0;
        this.#pausedAt = paused ? this.#lineCount : -1;
        this.pauseButton.textContent = paused ? "Go on" : "Pause";
        this.pauseButton.setAttribute("aria-label", this.pauseButton.textContent);
        this.pauseButton.setAttribute("aria-pressed", String(paused));
        this.draw(!paused);
    }

    save() {
        offer(new Blob(this.#kept, {type: "text/plain"}), this.job.fileName);
    }

    draw(always = false) {
        if (this.#pausedAt >= 0) {
            const since = this.#lineCount - this.#pausedAt;
            this.#note.textContent = `Paused. Lines that have come since, and are kept: ${since}.`;
        } else if (this.#stale || always) {
            const atEnd = this.#screen.scrollTop + this.#screen.clientHeight >= this.#screen.scrollHeight - 30;
            const words = this.filter.value.toLowerCase();
            const fitting = words ? this.#lines.filter((line) => line.toLowerCase().includes(words)) : this.#lines;
            const shown = fitting.slice(this.job.kind.live ? -TRACE_SHOWN : 0);
            this.#screen.textContent = shown.join("\n");
            this.#screen.scrollTop = this.job.kind.live && atEnd ? this.#screen.scrollHeight : this.#screen.scrollTop;
            this.#note.textContent = this.#tell(shown.filter(Boolean).length);
            this.#stale = false;
        }
    }

    #tell(shown) {
        const dropped = this.#dropped
            ? ` The first ${size(this.#dropped)} are no longer kept.` : "";
        return `Lines: ${this.#lineCount} have come, ${shown} are shown.${dropped}`;
    }
}

// Where the bytes of a download go.

class FileSink {
    static async open(handle) {
        return Object.assign(new FileSink(), {handle, stream: await handle.createWritable()});
    }
    write(bytes) {
        return this.stream.write(bytes);
    }
    async keep(job) {
        await this.stream.close();
        const other = this.handle.name === job.fileName ? "" : ` The daemon calls it ${job.fileName}.`;
        return `It is in ${this.handle.name}.${other}`;
    }
    drop() {
        return this.stream.abort();
    }
}

class BlobSink {
    #parts = [];
    #loose = 0;

    write(bytes) {
        this.#parts.push(bytes);
        this.#loose += bytes.length;
        if (this.#loose > BLOB_PIECE) {
            this.#parts = [new Blob(this.#parts)];
            this.#loose = 0;
        }
    }
    keep(job) {
        const link = offer(new Blob(this.#parts, {type: "application/octet-stream"}), job.fileName);
        link.textContent = `Save ${job.fileName} again`;
        job.actions.append(link);
        this.#parts = [];
        return `It was handed to the browser as ${job.fileName}.`;
    }
    drop() {
        this.#parts = [];
    }
}

// The text stays in its view.
const viewSink = {write() {}, keep: () => "", drop() {}};

// Has the browser save a blob; returns the link that did.
function offer(blob, fileName) {
    const link = make("a", {href: URL.createObjectURL(blob), download: fileName});
    link.click();
    return link;
}

const canPick = () => typeof window.showSaveFilePicker === "function";

// The sink for a download; null when its user has chosen no file after all.
async function openSink(kind, fileName) {
    if (kind.view === TextView) {
        return viewSink;
    }
    if (!canPick() || !find("#straight").checked) {
        return new BlobSink();
    }
    try {
        return await FileSink.open(await window.showSaveFilePicker({suggestedName: fileName}));
    } catch (error) {
        if (error.name === "AbortError") {
            return null;
        }
        return new BlobSink();
    }
}

// The kinds of request.
//
//   title     what it is called, from its parameters
//   view      shows what comes
//   endless   goes on until it is stopped, and is then kept
//   asking    what is said until an answer comes
//   refused   why a request of this kind is answered 400
//   nothing   why the connection may end without an answer
//   expected  its size in bytes, when that is known

// The processes that a request names; with their names as well, where the list knows them.
function whose(query) {
    const nameOf = (word) => list.processes.find((one) => String(one.pid) === word)?.name;
    const words = (query.get("pid") ?? "").split(",").map((word) => word.trim()).filter(Boolean);
    return words.map((word) => (nameOf(word) ? `${word} (${nameOf(word)})` : word)).join(", ") || "all processes";
}

const CORE_WAIT = "Waiting for a process to crash. The browser that waits next takes the place.";

const KINDS = {
    archive: {
        title: (query, path) => path.slice(1),
        view: ArchiveView,
    },
    ps: {
        title: () => "Output of ps",
        view: TextView,
    },
    strace: {
        title: (query) => `Trace of ${whose(query)}`,
        view: TextView,
        live: true,
        endless: true,
        empty: "Nothing has come yet: the processes make no system call, or another browser's trace is under way.",
        refused: (query) => `None of “${query.get("pid") ?? "all"}” is a process that runs`,
    },
    coredump: {
        title: (query) => `Core dump of ${whose(query)}`,
        asking: "Asking the daemon, which dumps one process after the other …",
        refused: (query) => `No process has the pid or the name “${query.get("pid")}”`,
    },
    pcapdump: {
        title: (query) => `Capture on ${query.get("interface") ?? "any"}`,
        expected: (query) => Number(query.get("totalsize") ?? 5120000),
    },
    rtrace: {
        title: (query) => `Samples of ${query.get("trace") ?? "fast"}`,
        endless: true,
    },
    listen: {
        title: () => "Next crash",
        asking: CORE_WAIT,
        nothing: "The wait has ended without a dump: another browser has taken the place, or the daemon has ended.",
    },
    pop: {
        title: () => "Stored dump",
        asking: "Waiting for the daemon to look into its folder of dumps …",
        nothing: "No dump is stored on the machine.",
    },
    waitcore: {
        title: () => "Next core",
        asking: CORE_WAIT,
        nothing: "The wait has ended without a dump: none is stored, another browser has taken the place, or the " +
            "daemon has ended.",
    },
};

// What an answer that is none of the wanted says.
async function refusal(job, response) {
    const text = await response.text().catch(() => "");
    if (response.headers.get("Content-Type") === "text/plain; charset=utf-8") {
        return `${text.trim()} (${response.status})`;  // the web front's own sentence
    }
    const said = {
        400: job.kind.refused?.(job.query) ?? "The daemon can't make sense of this request",
        500: "The daemon could not do it: it lacks memory or a thread, or has no use for these parameters",
        503: "The machine is making an archive already, and makes one at a time; try again when that is through",
    };
    return `${said[response.status] ?? "The daemon answered something unexpected"} (${response.status}).`;
}

const running = new Set();

// One request with its card in the page.
class Job {
    received = 0;
    everyTick = null;
    #began = performance.now();
    #marks = [];
    #abort = new AbortController();
    #stopped = false;

    constructor(form, query) {
        this.kind = KINDS[form.dataset.kind];
        this.path = form.getAttribute("action");
        this.query = query;
        this.target = address(this.path, query);
        this.title = this.kind.title(query, this.path);
        this.fileName = form.dataset.save;
        this.#build(find(".jobs", form.closest("section")));
    }

    #build(place) {
        const heading = make("h3", {tabIndex: -1}, this.title);
        this.state = make("p", {className: "state"}, this.kind.asking ?? "Asking the daemon …");
        this.state.setAttribute("role", "status");
        this.numbers = make("span", {className: "numbers"}, "0:00");
        this.bar = make("progress");
        this.bar.setAttribute("aria-label", `Progress of ${this.title}`);
        this.stopButton = button(this.kind.endless ? "Stop" : "Cancel", () => this.stop(),
                                 `${this.kind.endless ? "Stop" : "Cancel"}: ${this.title}`);
        this.actions = make("div", {className: "row"}, this.stopButton);
        this.card = make("article", {className: "job"}, heading, this.state,
                         make("div", {className: "row"}, this.bar, this.numbers), this.actions);
        place.prepend(this.card);
        this.focus = () => {
            heading.focus({preventScroll: true});
            this.card.scrollIntoView();
        };
    }

    stop() {
        this.#stopped = true;
        this.#abort.abort();
    }

    async run(sink) {
        running.add(this);
        try {
            await this.#transfer(sink);
        } catch (error) {
            await Promise.resolve(sink.drop()).catch(() => {});
            this.#finish(this.#stopped ? "Cancelled." : this.#describe(error), this.#stopped ? "" : "bad");
        } finally {
            running.delete(this);
        }
    }

    async #transfer(sink) {
        const response = await fetch(this.target, {signal: this.#abort.signal, cache: "no-store", redirect: "error"});
        if (!response.ok) {
            await sink.drop();
            this.#finish(await refusal(this, response), "bad");
            return;
        }
        const given = /filename="([^"]+)"/.exec(response.headers.get("Content-Disposition") ?? "");
        this.fileName = given?.[1] ?? this.fileName;
        this.state.textContent = this.kind.empty ?? "Receiving …";
        const view = this.kind.view && new this.kind.view(this);
        const broken = await this.#receive(response, sink, view);
        const remark = await view?.end();
        if (this.#stopped && !this.kind.endless) {
            await sink.drop();
            this.#finish("Cancelled; what had come is dropped.");
            return;
        }
        await this.#conclude(sink, broken, remark);
    }

    // Returns the error that ended it early, if any.
    async #receive(response, sink, view) {
        const reader = response.body.getReader();
        try {
            for (;;) {
                const {value, done} = await reader.read();
                if (done) {
                    return null;
                }
                if (this.received === 0) {
                    this.state.textContent = "Receiving …";
                }
                this.received += value.length;
                await sink.write(value);
                await view?.feed(value);
            }
        } catch (error) {
            this.#abort.abort();
            return error;
        }
    }

    async #conclude(sink, broken, remark = "") {
        const kept = this.received > 0 ? await sink.keep(this) : await sink.drop();
        let said = this.kind.view === TextView ? "It has ended." : "Done.";
        if (this.#stopped) {
            said = "Stopped.";
        } else if (broken) {
            said = `It broke off: ${broken.message}.`;
        } else if (this.received === 0) {
            said = "The daemon sent nothing: there was nothing to send, or it could not make it.";
        }
        const bad = (broken && !this.#stopped) || this.received === 0 || remark.startsWith("But");
        const parts = [said, kept, this.received > 0 && !broken ? remark : ""];
        this.#finish(parts.filter(Boolean).join(" "), bad ? "bad" : "good");
    }

    #describe(error) {
        if (error.name !== "TypeError") {
            return `It could not be kept: ${error.message}.`;
        }
        return this.kind.nothing ?? "There was no answer: the web front or the daemon has ended, or can't be reached.";
    }

    #finish(sentence, mood = "") {
        this.tick(true);
        this.state.textContent = sentence;
        this.card.classList.add("over", ...(mood ? [mood] : []));
        this.bar.hidden = true;
        const hadFocus = document.activeElement === this.stopButton;
        this.stopButton.replaceWith(button("Remove", () => this.#remove(), `Remove: ${this.title}`));
        if (hadFocus) {
            this.focus();
        }
    }

    #remove() {
        findAll("a[download]", this.card).forEach((link) => URL.revokeObjectURL(link.href));
        const section = this.card.closest("section");
        this.card.remove();
        find("button", section).focus();
    }

    // `over`: the last time, with the rate of the whole.
    tick(over = false) {
        const now = performance.now();
        this.#marks.push([now, this.received]);
        while (this.#marks.length > 2 && now - this.#marks[0][0] > RATE_OVER_MS) {
            this.#marks.shift();
        }
        const [then, before] = over ? [this.#began, 0] : this.#marks[0];
        const rate = now > then ? (this.received - before) / (now - then) * 1000 : 0;
        const parts = [span(now - this.#began)];
        if (this.received > 0) {
            parts.unshift(size(this.received));
            parts.push(`${size(rate)}/s`);
            const expected = this.kind.expected?.(this.query);
            if (expected) {
                this.bar.max = expected;
                this.bar.value = Math.min(this.received, expected);
            }
        }
        this.numbers.textContent = parts.join(" · ");
        this.everyTick?.();
    }
}

setInterval(() => running.forEach((job) => job.tick()), TICK_MS);

addEventListener("beforeunload", (event) => {
    if (running.size > 0) {
        event.preventDefault();  // leaving ends what runs, so the browser asks
    }
});

// Forms.

// The parameters that a form has been given; empty ones are left out, but for the names that stand alone.
function parameters(form, without) {
    const query = new Map();
    for (const [name, value] of new FormData(form)) {
        if (name !== without && (value.trim() !== "" || name === "listen" || name === "pop")) {
            query.set(name, value.trim());
        }
    }
    return query;
}

function address(path, query) {
    const word = (text) => encodeURIComponent(text).replaceAll("%2C", ",");
    const pairs = [...query].map(([name, value]) => (value === "" ? name : `${name}=${word(value)}`));
    return pairs.length > 0 ? `${path}?${pairs.join("&")}` : path;
}

function tell(sentence) {
    find("#news").textContent = sentence;
    find("#news").hidden = sentence === "";
}

async function start(form, {without = "", focus = false} = {}) {
    if (running.size >= RUNNING_LIMIT) {
        tell(`${RUNNING_LIMIT} requests are under way, which is as many as a browser lets run. Stop one first.`);
        return;
    }
    const sink = await openSink(KINDS[form.dataset.kind], form.dataset.save);
    if (!sink) {
        tell("No file was chosen, so nothing was asked of the daemon.");
        return;
    }
    tell("");
    const job = new Job(form, parameters(form, without));
    const ended = job.run(sink);
    if (focus) {
        job.focus();
    }
    await ended;
}

function prepareForm(form) {
    form.addEventListener("submit", (event) => {
        event.preventDefault();
        start(form, {focus: event.submitter === null});
    });
    for (const other of findAll("[data-without]", form)) {
        other.addEventListener("click", () => start(form, {without: other.dataset.without}));
    }
    const link = find("[data-link]", form);
    const show = () => {
        link.parentElement.hidden = form.matches(":invalid");
        link.href = address(form.getAttribute("action"), parameters(form));
        link.textContent = link.getAttribute("href");
    };
    if (link) {
        form.addEventListener("input", show);
        show();
    }
}

// Asks for a process's core or trace from the list.
function ask(kind, pid) {
    const form = find(`form[data-kind=${kind}]`);
    form.elements.pid.value = pid;
    form.dispatchEvent(new Event("input"));
    form.requestSubmit();
}

// The sources of a resource trace: ticking one writes its word.
function prepareSources() {
    const input = find("form[data-kind=rtrace]").elements.trace;
    const words = [...new Set(findAll("#sources-hint code").map((code) => code.textContent))];
    const chosen = () => input.value.split(",").map((word) => word.trim()).filter(Boolean);
    const boxes = words.map((word) => {
        const box = make("input", {type: "checkbox", onchange: () => {
            const rest = chosen().filter((one) => one !== word);
            input.value = (box.checked ? [...rest, word] : rest).join(",");
            input.dispatchEvent(new Event("input", {bubbles: true}));
        }});
        find("#sources").append(make("label", {className: "check"}, box, ` ${word}`));
        return [word, box];
    });
    const read = () => boxes.forEach(([word, box]) => {
        box.checked = chosen().includes(word);
    });
    input.addEventListener("input", read);
    read();
}

// The list of processes.

const STATES = {
    R: "running", S: "sleeping", D: "waiting for a device", Z: "ended", T: "stopped", t: "being traced",
    I: "idle", X: "ended",
};

const list = {
    processes: [],
    rows: new Map(),
    ticked: new Set(),
    key: "pid",
    down: false,
    asked: false,
    filter: find("#filter"),
    kernel: find("#kernel"),
    follow: find("#follow"),
    body: find("#table tbody"),
};

async function getJson(path) {
    const response = await fetch(path, {signal: AbortSignal.timeout(LIST_PATIENCE_MS), cache: "no-store"});
    if (!response.ok) {
        throw new Error((await response.text()).trim());
    }
    return response.json();
}

async function refresh() {
    if (list.asked) {
        return;
    }
    list.asked = true;
    try {
        list.processes = (await getJson("/webfront/processes")).processes;
        list.time = clock();
        drawList();
        drawNames();
    } catch (error) {
        find("#count").textContent = list.time
            ? `The web front does not answer; this is the list of ${list.time}.`
            : `The list of processes can't be had: ${error.message}`;
    }
    list.asked = false;
}

function drawNames() {
    const names = [...new Set(list.processes.filter((one) => !one.kernel).map((one) => one.name))].sort();
    const held = findAll("#names option").map((option) => option.value);
    if (names.join("\n") !== held.join("\n")) {
        find("#names").replaceChildren(...names.map((name) => make("option", {value: name})));
    }
}

function wantedProcesses() {
    const words = list.filter.value.trim().toLowerCase();
    const fits = (one) => (list.kernel.checked || !one.kernel) &&
        `${one.pid} ${one.name} ${one.command}`.toLowerCase().includes(words);
    const order = (a, b) => (typeof a === "number" ? a - b : a.localeCompare(b));
    const sorted = list.processes.filter(fits).sort((a, b) => order(a[list.key], b[list.key]) || a.pid - b.pid);
    return list.down ? sorted.reverse() : sorted;
}

function drawList() {
    const wanted = wantedProcesses();
    const alive = new Set(list.processes.map((one) => one.pid));
    for (const pid of list.rows.keys()) {
        if (!alive.has(pid)) {
            list.rows.get(pid).remove();
            list.rows.delete(pid);
            list.ticked.delete(pid);
        }
    }
    const rows = wanted.map((one) => {
        const row = list.rows.get(one.pid) ?? makeRow(one.pid);
        fillRow(row, one);
        return row;
    });
    const shown = new Set(rows);
    [...list.body.rows].filter((row) => !shown.has(row)).forEach((row) => row.remove());
    // Rows that stand right are left alone, so that the focus stays where it is.
    rows.forEach((row, index) => {
        if (list.body.rows[index] !== row) {
            list.body.insertBefore(row, list.body.rows[index] ?? null);
        }
    });
    const time = list.time ?? "never";
    find("#count").textContent = `${rows.length} of ${list.processes.length} processes, as of ${time}.`;
}

function makeRow(pid) {
    const box = make("input", {type: "checkbox", onchange: () => {
        list.ticked[box.checked ? "add" : "delete"](pid);
        const form = find("form[data-kind=strace]");
        form.elements.pid.value = [...list.ticked].join(",");
        form.dispatchEvent(new Event("input"));
    }});
    const row = make("tr", {}, make("td", {className: "pick"}, box), make("td", {className: "number"}),
                     make("th", {scope: "row"}), make("td", {className: "command"}), make("td", {className: "is"}),
                     make("td", {className: "number"}),
                     make("td", {className: "asks"}, button("Core", () => ask("coredump", pid)),
                          button("Trace", () => ask("strace", pid))));
    list.rows.set(pid, row);
    return row;
}

// Changes only what is another than before: the list is drawn every few seconds.
function put(element, text) {
    if (element.textContent !== text) {
        element.textContent = text;
    }
}

function fillRow(row, one) {
    const [pick, pid, name, command, state, memory, asks] = row.cells;
    const [core, trace] = asks.children;
    put(pid, String(one.pid));
    put(name, one.name);
    put(command, one.command || (one.kernel ? "kernel thread" : ""));
    put(state, STATES[one.state] ?? one.state);
    put(memory, one.kernel ? "" : size(one.memory_kb * 1024));
    command.title = one.command;
    pick.firstChild.setAttribute("aria-label", `${one.name}, ${one.pid}, in the trace`);
    core.setAttribute("aria-label", `Core dump of ${one.name}, ${one.pid}`);
    trace.setAttribute("aria-label", `Trace of ${one.name}, ${one.pid}`);
    core.disabled = trace.disabled = pick.firstChild.disabled = one.kernel || one.state === "Z";
}

function sortBy(key) {
    list.down = list.key === key ? !list.down : key === "memory_kb";
    list.key = key;
    for (const other of findAll("[data-sort]")) {
        other.parentElement.removeAttribute("aria-sort");
    }
    find(`[data-sort=${key}]`).parentElement.setAttribute("aria-sort", list.down ? "descending" : "ascending");
    drawList();
}

function prepareList() {
    list.filter.addEventListener("input", drawList);
    list.kernel.addEventListener("change", drawList);
    find("#refresh").addEventListener("click", refresh);
    findAll("[data-sort]").forEach((head) => head.addEventListener("click", () => sortBy(head.dataset.sort)));
    setInterval(() => {
        if (list.follow.checked && document.visibilityState === "visible") {
            refresh();
        }
    }, LIST_EVERY_MS);
    refresh();
}

async function fillInterfaces() {
    const {interfaces} = await getJson("/webfront/interfaces");
    find("#interfaces").replaceChildren(...["any", ...interfaces].map((value) => make("option", {value})));
}

function explainSaving() {
    find("[data-picker]").hidden = !canPick();
    find("#saving-how").textContent = canPick()
        ? "With the tick below they ask for a file first and write into it as the bytes come, so that nothing " +
          "piles up here; the file is complete when the download is. Without it, the browser collects the bytes, " +
          "in memory and in its own files, and saves them at the end."
        : "The browser collects the bytes, in memory and in its own files, and saves them at the end; this one " +
          "lets no page write into a file. For something very large, links are better.";
}

findAll("[data-scripted]").forEach((element) => {
    element.hidden = false;
});
find("#machine").textContent = `What the debug daemon behind ${location.host} can tell.`;
explainSaving();
findAll("form").forEach(prepareForm);
prepareSources();
prepareList();
fillInterfaces().catch(() => {});  // the field takes any name anyway
