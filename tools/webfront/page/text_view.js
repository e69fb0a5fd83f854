// Shows text in the page: all lines, or only the last ones of a live trace.
import {button, make} from "./dom.js";
import {size} from "./numbers.js";
import {saveBlob} from "./sinks.js";

const KEPT_LIMIT = 32 << 20;  // characters kept for saving; the oldest are dropped
const SHOWN_LIMIT = 1000;     // lines of a live trace

export class TextView {
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
                                     placeholder: "show only lines with …", oninput: () => this.draw(true)});
        this.filter.setAttribute("aria-label", "Show only lines that contain this text");
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
        while (this.#keptLength > KEPT_LIMIT && this.#kept.length > 1) {
            const oldest = this.#kept.shift().length;
            this.#keptLength -= oldest;
            this.#dropped += oldest;
        }
        const lines = text.split("\n");
        this.#lines.push(this.#lines.pop() + lines[0], ...lines.slice(1));
        this.#lineCount += lines.length - 1;
        if (this.#lines.length > 20 * SHOWN_LIMIT) {
            this.#lines.splice(0, this.#lines.length - 10 * SHOWN_LIMIT);
        }
        this.#stale = true;
    }

    end() {
        this.pauseButton.hidden = true;
        this.#pausedAt = -1;
        this.draw(true);
    }

    pause() {
        const paused = this.#pausedAt < 0;
        this.#pausedAt = paused ? this.#lineCount : -1;
        this.pauseButton.textContent = paused ? "Resume" : "Pause";
        this.pauseButton.setAttribute("aria-label", this.pauseButton.textContent);
        this.pauseButton.setAttribute("aria-pressed", String(paused));
        this.draw(!paused);
    }

    save() {
        saveBlob(new Blob(this.#kept, {type: "text/plain"}), this.job.fileName);
    }

    draw(always = false) {
        if (this.#pausedAt >= 0) {
            const since = this.#lineCount - this.#pausedAt;
            this.#note.textContent = `Paused. Lines received since then, and kept: ${since}.`;
        } else if (this.#stale || always) {
            const atEnd = this.#screen.scrollTop + this.#screen.clientHeight >= this.#screen.scrollHeight - 30;
            const wanted = this.filter.value.toLowerCase();
            const matching = wanted ? this.#lines.filter((line) => line.toLowerCase().includes(wanted)) : this.#lines;
            const shown = matching.slice(this.job.kind.live ? -SHOWN_LIMIT : 0);
            this.#screen.textContent = shown.join("\n");
            this.#screen.scrollTop = this.job.kind.live && atEnd ? this.#screen.scrollHeight : this.#screen.scrollTop;
            this.#note.textContent = this.#summary(shown.filter(Boolean).length);
            this.#stale = false;
        }
    }

    #summary(shown) {
        const dropped = this.#dropped
            ? ` The first ${size(this.#dropped)} are no longer kept.` : "";
        return `Lines: ${this.#lineCount} received, ${shown} shown.${dropped}`;
    }
}
