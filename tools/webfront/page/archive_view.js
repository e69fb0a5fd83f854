// Shows how far an archive has got, and says at the end whether it is complete.
import {make} from "./dom.js";
import {TarReader} from "./tar.js";

// The phases of an archive, in order. A member belongs to the first phase whose pattern matches its name, searched from
// the current phase on.
const PHASES = [
    ["Status and configuration", /^(dbg-monitor\.txt|media\.conf|system\.txt|dmesg\.txt)$/],
    ["First snapshot of /proc", /^proc/],
    ["System calls, 5 seconds", /^strace\.log$/],
    ["Network traffic, 5 seconds", /^netdump\.cap$/],
    ["Server report, log, kernel memory", /^(serverreport\.txt|oopslog|kcore)$/],
    ["Second snapshot of /proc", /^proc/],
    ["Core dumps", /^[^/]*\.\d+\/(core|fdmap)$/],
];
const LAST_OF_FULL = "manifest.txt";

export class ArchiveView {
    #phase = 0;
    #last = "";
    #items = PHASES.map(([title]) => make("li", {}, title));
    #member = make("p", {className: "member"});
    #isFull;
    #tar = new TarReader((name) => this.#begin(name));

    constructor(job) {
        this.#isFull = job.query.has("full");
        job.card.append(make("ol", {className: "phases"}, ...this.#items), this.#member);
        this.#mark();
        if (job.path.endsWith(".tgz")) {
            if (!this.#isFull) {
                job.card.append(make("p", {className: "hint"},
                    "Compressed data arrives in large pieces. The list shows what has arrived; the machine is " +
                    "ahead of it."));
            }
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

    // The verdict on the archive; see kinds.js.
    async end() {
        await this.writer?.close().catch(() => {});
        await this.unpacked;
        this.#member.textContent = "";
        if (!this.#tar.complete || (this.#isFull && this.#last !== LAST_OF_FULL)) {
            return {bad: true, text: "But the archive is cut off or damaged."};
        }
        this.#items.forEach((item) => item.removeAttribute("aria-current"));
        this.#items.forEach((item) => item.classList.add("done"));
        return {bad: false, text: `The archive is complete: ${this.#tar.members} members.`};
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
        this.#last = name;
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
