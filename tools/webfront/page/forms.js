// Makes the forms start their requests in the page.
import {find, findAll, make} from "./dom.js";
import {Job, running} from "./job.js";
import {KINDS} from "./kinds.js";
import {address, parameters} from "./request.js";
import {openSink} from "./sinks.js";

// A browser opens at most six connections to a host. One stays free for the lists.
const RUNNING_LIMIT = 5;

function announce(sentence) {
    find("#news").textContent = sentence;
    find("#news").hidden = sentence === "";
}

async function start(form, {without = "", focus = false} = {}) {
    if (running.size >= RUNNING_LIMIT) {
        announce(`${RUNNING_LIMIT} requests are running, the most that this page allows. Stop one first.`);
        return;
    }
    const sink = await openSink(KINDS[form.dataset.kind], form.dataset.save);
    if (!sink) {
        announce("No file was chosen, so no request was sent.");
        return;
    }
    announce("");
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

// Returns the form.
export function fillPid(kind, pid) {
    const form = find(`form[data-kind=${kind}]`);
    form.elements.pid.value = pid;
    form.dispatchEvent(new Event("input"));  // updates its link
    return form;
}

// Requests the core or the trace of one process, through its form.
export function requestFor(kind, pid) {
    fillPid(kind, pid).requestSubmit();
}

// Makes a box for each source of a resource trace. A change of a box changes the field, and vice versa.
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
