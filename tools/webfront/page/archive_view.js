// The progress of an archive.
import {make} from "./dom.js";
import {TarFollower} from "./tar.js";

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

export class ArchiveView {
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
