// One request, and its card in the page.
import {button, find, findAll, make} from "./dom.js";
import {KINDS} from "./kinds.js";
import {duration, size} from "./numbers.js";
import {address, refusal} from "./request.js";

const TICK_MS = 250;
const RATE_WINDOW_MS = 3000;  // the rate shown is the average over this time

export const running = new Set();  // jobs

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
            this.#finish(this.#stopped ? "Cancelled." : this.#explain(error), this.#stopped ? "" : "bad");
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
        this.place = response.headers.get("Content-Location");
        this.state.textContent = this.kind.silent ?? "Receiving …";
        const view = this.kind.view && new this.kind.view(this);
        const error = await this.#receive(response, sink, view);
        const verdict = await view?.end();
        if (this.#stopped && !this.kind.endless) {
            await sink.drop();
            this.#finish("Cancelled. The data received so far was discarded.");
            return;
        }
        await this.#conclude(sink, error, verdict);
    }

    // Returns null at the end of the answer, or the error that ended it early.
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

    async #conclude(sink, error, verdict) {
        const kept = this.received > 0 ? await sink.keep(this) : await sink.drop();
        const bad = (error && !this.#stopped) || this.received === 0 || verdict?.bad;
        const parts = [this.#ending(error), kept, this.received > 0 && !error ? verdict?.text : ""];
        this.#finish(parts.filter(Boolean).join(" "), bad ? "bad" : "good");
    }

    #ending(error) {
        if (this.#stopped) {
            return "Stopped.";
        }
        if (error) {
            return `The download broke off: ${error.message}.`;
        }
        return this.received > 0 ? this.kind.ended
            : "The daemon sent nothing: there was nothing to send, or making it failed.";
    }

    // fetch reports every failure of the connection as a TypeError; others come from the sink.
    #explain(error) {
        if (error.name !== "TypeError") {
            return `It could not be saved: ${error.message}.`;
        }
        return this.kind.unanswered ?? "No answer: the web front or the daemon has exited, or cannot be reached.";
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

    // Updates the figures. With `over`, it is the last time, and the rate is the average of the whole download.
    tick(over = false) {
        const now = performance.now();
        this.#marks.push([now, this.received]);
        while (this.#marks.length > 2 && now - this.#marks[0][0] > RATE_WINDOW_MS) {
            this.#marks.shift();
        }
        const [then, before] = over ? [this.#began, 0] : this.#marks[0];
        const rate = now > then ? (this.received - before) / (now - then) * 1000 : 0;
        const parts = [duration(now - this.#began)];
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
            event.preventDefault();  // leaving the page ends running downloads, so the browser asks
        }
    });
}
