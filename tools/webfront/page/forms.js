// Forms.
import {find, findAll, make} from "./dom.js";
import {Job, running} from "./job.js";
import {KINDS} from "./kinds.js";
import {address, parameters} from "./request.js";
import {openSink} from "./sinks.js";

// A browser opens six connections to one machine; one of them stays free for the lists.
const RUNNING_LIMIT = 5;

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

export function prepareForm(form) {
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
export function ask(kind, pid) {
    const form = find(`form[data-kind=${kind}]`);
    form.elements.pid.value = pid;
    form.dispatchEvent(new Event("input"));
    form.requestSubmit();
}

// The sources of a resource trace: ticking one writes its word.
export function prepareSources() {
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
