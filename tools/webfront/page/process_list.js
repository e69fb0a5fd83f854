// The list of processes, which can be filtered and sorted, and which starts cores and traces.
import {button, find, findAll, make, setText} from "./dom.js";
import {fillPid, requestFor} from "./forms.js";
import {latest, listProcesses} from "./listings.js";
import {size} from "./numbers.js";

const LIST_EVERY_MS = 5000;

// The names of states, by their letters in /proc/PID/stat.
const STATES = {
    R: "running", S: "sleeping", D: "uninterruptible", Z: "zombie", T: "stopped", t: "being traced",
    I: "idle", X: "dead",
};

const list = {
    rows: new Map(),    // by pid, shown or not
    ticked: new Set(),  // pids
    key: "pid",
    descending: false,
    refreshing: false,
    filter: find("#filter"),
    kernel: find("#kernel"),
    follow: find("#follow"),
    body: find("#table tbody"),
};

async function refresh() {
    if (list.refreshing) {
        return;
    }
    list.refreshing = true;
    try {
        await listProcesses();
        drawList();
        drawNames();
    } catch (error) {
        find("#count").textContent = latest.time
            ? `The web front does not answer. This list is from ${latest.time}.`
            : `The process list could not be read: ${error.message}`;
    }
    list.refreshing = false;
}

// Updates the names that the fields for processes suggest.
function drawNames() {
    const names = [...new Set(latest.processes.filter((one) => !one.kernel).map((one) => one.name))].sort();
    const offered = findAll("#names option").map((option) => option.value);
    if (names.join("\n") !== offered.join("\n")) {
        find("#names").replaceChildren(...names.map((name) => make("option", {value: name})));
    }
}

function wantedProcesses() {
    const text = list.filter.value.trim().toLowerCase();
    const matches = (one) => (list.kernel.checked || !one.kernel) &&
        `${one.pid} ${one.name} ${one.command}`.toLowerCase().includes(text);
    const order = (a, b) => (typeof a === "number" ? a - b : a.localeCompare(b));
    const sorted = latest.processes.filter(matches).sort((a, b) => order(a[list.key], b[list.key]) || a.pid - b.pid);
    return list.descending ? sorted.reverse() : sorted;
}

function dropRowsOfEndedProcesses() {
    const alive = new Set(latest.processes.map((one) => one.pid));
    for (const pid of list.rows.keys()) {
        if (!alive.has(pid)) {
            list.rows.get(pid).remove();
            list.rows.delete(pid);
            list.ticked.delete(pid);
        }
    }
}

function drawList() {
    dropRowsOfEndedProcesses();
    const rows = wantedProcesses().map((one) => {
        const row = list.rows.get(one.pid) ?? makeRow(one.pid);
        fillRow(row, one);
        return row;
    });
    const shown = new Set(rows);
    [...list.body.rows].filter((row) => !shown.has(row)).forEach((row) => row.remove());
    // Rows already in place are not moved: moving one takes the focus from its buttons.
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
        fillPid("strace", [...list.ticked].join(","));
    }});
    const row = make("tr", {}, make("td", {className: "pick"}, box), make("td", {className: "number"}),
                     make("th", {scope: "row"}), make("td", {className: "command"}), make("td", {className: "is"}),
                     make("td", {className: "number"}),
                     make("td", {className: "asks"}, button("Core", () => requestFor("coredump", pid)),
                          button("Trace", () => requestFor("strace", pid))));
    list.rows.set(pid, row);
    return row;
}

function fillRow(row, one) {
    const [pick, pid, name, command, state, memory, asks] = row.cells;
    const [core, trace] = asks.children;
    setText(pid, String(one.pid));
    setText(name, one.name);
    setText(command, one.command || (one.kernel ? "kernel thread" : ""));
    setText(state, STATES[one.state] ?? one.state);
    setText(memory, one.kernel ? "" : size(one.memory_kb * 1024));
    command.title = one.command;
    pick.firstChild.setAttribute("aria-label", `Include ${one.name}, ${one.pid}, in the trace`);
    core.setAttribute("aria-label", `Core dump of ${one.name}, ${one.pid}`);
    trace.setAttribute("aria-label", `Trace of ${one.name}, ${one.pid}`);
    core.disabled = trace.disabled = pick.firstChild.disabled = one.kernel || one.state === "Z";
}

function sortBy(key) {
    list.descending = list.key === key ? !list.descending : key === "memory_kb";
    list.key = key;
    for (const other of findAll("[data-sort]")) {
        other.parentElement.removeAttribute("aria-sort");
    }
    find(`[data-sort=${key}]`).parentElement.setAttribute("aria-sort", list.descending ? "descending" : "ascending");
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
