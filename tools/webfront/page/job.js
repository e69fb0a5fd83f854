// One request with its card in the page.
import {button, find, findAll, make} from "./dom.js";
import {KINDS} from "./kinds.js";
import {size, span} from "./numbers.js";
import {address, refusal} from "./request.js";
import {TextView} from "./text_view.js";

const TICK_MS = 250;
const RATE_OVER_MS = 3000;

export const running = new Set();

export class Job {
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

export function watchJobs() {
    setInterval(() => running.forEach((job) => job.tick()), TICK_MS);
    addEventListener("beforeunload", (event) => {
        if (running.size > 0) {
            event.preventDefault();  // leaving ends what runs, so the browser asks
        }
    });
}
