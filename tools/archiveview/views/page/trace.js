// The trace of system calls.

const share = (part, whole) => (whole ? percent((100 * part) / whole) : "");
const entriesOf = (map, each) => Object.entries(map).map(([name, value]) => each(name, value));

function callTable(process) {
    const rows = entriesOf(process.by_call, (name, counts) => ({name, ...counts}));
    rows.sort((a, b) => b.calls - a.calls);
    return new Table({
        label: "Calls", rows,
        columns: [
            {title: "Call", value: (row) => row.name},
            {title: "Calls", value: (row) => row.calls, number: true},
            {title: "Errors", value: (row) => row.errors, number: true, show: (row) => (row.errors ? count(row.errors) : "")},
            {title: "Time", value: (row) => row.seconds, show: (row) => seconds(row.seconds), number: true},
        ],
    });
}

function errnoTable(process) {
    const rows = entriesOf(process.by_errno, (name, times) => ({name, times})).sort((a, b) => b.times - a.times);
    return new Table({
        label: "Errors", rows,
        columns: [{title: "Error", value: (row) => row.name}, {title: "Times", value: (row) => row.times, number: true}],
    });
}

function traceDetail(process) {
    const facts = factList([
        ["Process", processLink(process.pid, process.name)],
        ["Waits in", process.waits_in_line && code(process.waits_in_line)],
        ["For", seconds(process.waits_seconds)],
        ["Slowest call", process.slowest_line && code(process.slowest_line)],
        ["Took", seconds(process.slowest_seconds)],
        ["Waited", process.waits_throughout ? "since the trace began" : null],
        ["Descriptors", count(process.open_descriptors)],
        ["Ended", process.ended ? "during the trace" : null],
        ["Signals", process.signals.length ? code(process.signals.slice(0, 50).join("\n")) : null],
    ]);
    return make("div", {}, facts, make("div", {className: "grid"}, callTable(process).element, errnoTable(process).element));
}

const traceColumns = {
    pid: {title: "PID", value: (row) => row.pid, show: (row) => String(row.pid), number: true},
    process: {title: "Process", value: (row) => row.name ?? row.pid, show: (row) => processLink(row.pid, row.name)},
};

function tracedTable(processes) {
    return new Table({
        label: "By process", rows: processes, key: (row) => row.pid, detail: traceDetail,
        columns: [
            traceColumns.pid,
            {title: "Name", value: (row) => row.name},
            {title: "Calls", value: (row) => row.calls, number: true},
            {title: "Errors", value: (row) => row.errors, number: true, show: (row) => (row.errors ? count(row.errors) : "")},
            {title: "Share", value: (row) => row.errors / (row.calls || 1), number: true,
             show: (row) => (row.errors ? share(row.errors, row.calls) : "")},
            {title: "Waits in", value: (row) => row.waits_in},
            {title: "For", value: (row) => row.waits_seconds, show: (row) => seconds(row.waits_seconds), number: true},
            {title: "Polls with", value: (row) => row.polling_call},
            {title: "Rate", value: (row) => row.polling_per_second, number: true,
             show: (row) => (row.polling_call ? rate(row.polling_per_second) : "")},
            {title: "Slowest call", value: (row) => row.slowest_seconds, show: (row) => seconds(row.slowest_seconds), number: true},
        ],
    });
}

// Failures of all processes, by errno.
function failureTable(processes) {
    const rows = processes.flatMap((process) => entriesOf(process.by_errno, (error, times) =>
        ({error, times, pid: process.pid, name: process.name})));
    rows.sort((a, b) => b.times - a.times);
    return new Table({
        label: "Failures", rows, empty: "No call failed.",
        columns: [
            {title: "Error", value: (row) => row.error},
            {title: "Times", value: (row) => row.times, number: true},
            traceColumns.process,
        ],
    });
}

function waitingTable(processes) {
    const rows = processes.filter((process) => process.waits_in);
    rows.sort((a, b) => (b.waits_seconds ?? 0) - (a.waits_seconds ?? 0));
    return new Table({
        label: "Calls that never returned", rows, empty: "All calls returned.",
        columns: [
            traceColumns.process,
            {title: "Waits in", value: (row) => row.waits_in},
            {title: "For", value: (row) => row.waits_seconds, show: (row) => seconds(row.waits_seconds), number: true},
            {title: "Call", value: (row) => row.waits_in_line, show: (row) => code(row.waits_in_line ?? ""), wide: true},
        ],
    });
}

function transferTable(processes) {
    const rows = processes.flatMap((process) => process.descriptors.map((used) =>
        ({...used, pid: process.pid, name: process.name})));
    rows.sort((a, b) => b.read_bytes + b.written_bytes - a.read_bytes - a.written_bytes);
    return new Table({
        label: "Reads and writes by descriptor", rows, empty: "No call read or wrote.",
        columns: [
            traceColumns.process,
            {title: "Number", value: (row) => row.number, number: true},
            {title: "Descriptor", value: (row) => row.text, wide: true},
            {title: "Reads", value: (row) => row.reads, number: true},
            {title: "Read", value: (row) => row.read_bytes, show: (row) => size(row.read_bytes), number: true},
            {title: "Writes", value: (row) => row.writes, number: true},
            {title: "Written", value: (row) => row.written_bytes, show: (row) => size(row.written_bytes), number: true},
        ],
    });
}

function buildTrace({trace}) {
    const {processes} = trace;
    const tables = {
        processes: tracedTable(processes), failures: failureTable(processes), waiting: waitingTable(processes),
        transfers: transferTable(processes),
    };
    const facts = factList([
        ["Time", seconds(trace.seconds)],
        ["Size", size(trace.bytes)],
        ["Calls", count(trace.calls)],
        ["Errors", `${count(trace.errors)}${trace.calls ? ` (${share(trace.errors, trace.calls)})` : ""}`],
        ["Times of calls", trace.timed ? "yes" : "not recorded"],
        ["Lines left out", trace.lines_left_out ? count(trace.lines_left_out) : null],
        ["End", trace.full ? make("span", {className: "warn"}, "its size was reached, so later calls are missing") : null],
    ]);
    return {nodes: [facts, ...Object.values(tables).map((table) => table.element)], tables};
}
