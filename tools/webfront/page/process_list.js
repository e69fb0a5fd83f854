// The list of processes.
import {button, find, findAll, make, put} from "./dom.js";
import {ask} from "./forms.js";
import {latest, listProcesses} from "./listings.js";
import {size} from "./numbers.js";

const LIST_EVERY_MS = 5000;

const STATES = {
    R: "running", S: "sleeping", D: "waiting for a device", Z: "ended", T: "stopped", t: "being traced",
    I: "idle", X: "ended",
};

const list = {
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

async function refresh() {
    if (list.asked) {
        return;
    }
    list.asked = true;
    try {
        await listProcesses();
        drawList();
        drawNames();
    } catch (error) {
        find("#count").textContent = latest.time
            ? `The web front does not answer; this is the list of ${latest.time}.`
            : `The list of processes can't be had: ${error.message}`;
    }
    list.asked = false;
}

function drawNames() {
    const names = [...new Set(latest.processes.filter((one) => !one.kernel).map((one) => one.name))].sort();
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
    const sorted = latest.processes.filter(fits).sort((a, b) => order(a[list.key], b[list.key]) || a.pid - b.pid);
    return list.down ? sorted.reverse() : sorted;
}

function drawList() {
    const wanted = wantedProcesses();
    const alive = new Set(latest.processes.map((one) => one.pid));
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
    const time = latest.time || "never";
    find("#count").textContent = `${rows.length} of ${latest.processes.length} processes, as of ${time}.`;
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

export function prepareList() {
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
