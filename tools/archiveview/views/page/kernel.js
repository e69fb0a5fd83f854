// The kernel's reports.

const LEVELS = ["emergency", "alert", "critical", "error", "warning", "notice", "info", "debug"];
const WARNING = 4;

const levelCell = ({level}) => (unknown(level) ? "" : level <= WARNING
    ? make("span", {className: level < WARNING ? "bad" : "warn"}, LEVELS[level]) : quiet(LEVELS[level] ?? level));
const lineColumns = [
    {title: "Time", value: (row) => row.seconds, number: true,
     show: (row) => (unknown(row.seconds) ? "" : row.seconds.toFixed(6))},
    {title: "Level", value: (row) => row.level, show: levelCell},
    {title: "Text", value: (row) => row.text, show: (row) => code(row.text ?? "")},
];

function oopsTable(kernel) {
    return new Table({
        label: "Oops records", rows: kernel.oops, key: (row) => row.number, empty: kernel.oops_remark ?? "There are none.",
        detail: (row) => make("pre", {className: "text"}, row.lines.map((line) => line.text ?? "").join("\n")),
        columns: [
            {title: "Record", value: (row) => row.number, number: true},
            {title: "What", value: (row) => row.headline, words: true,
             show: (row) => (row.panic ? `panic: ${row.headline}` : row.headline)},
            {title: "Where", value: (row) => row.place, show: (row) => code(row.place ?? ""), wide: true},
            {title: "Process", value: (row) => row.process, show: (row) => [row.process, row.pid].filter(Boolean).join(" ")},
            {title: "Lines", value: (row) => row.lines.length, number: true},
        ],
    });
}

function logTable(kernel) {
    const isWarning = (line) => !unknown(line.level) && line.level <= WARNING;
    const rows = [...kernel.log.filter(isWarning), ...kernel.log.filter((line) => !isWarning(line))];
    return new Table({label: "Log", rows, columns: lineColumns, note: "warnings first, then the rest in order",
                      empty: "The archive has no kernel log."});
}

function moduleTable(kernel) {
    const rows = kernel.modules.map((line) => {
        const [name, bytes, users, by] = line.split(/\s+/);
        return {name, bytes: Number(bytes) || null, users: Number(users) || 0, by: by === "-" ? null : by};
    });
    return new Table({
        label: "Modules", rows, empty: "No module is loaded, or the archive does not tell.",
        columns: [
            {title: "Module", value: (row) => row.name, wide: true},
            {title: "Size", value: (row) => row.bytes, show: (row) => size(row.bytes), number: true},
            {title: "Users", value: (row) => row.users, number: true},
            {title: "Used by", value: (row) => row.by, wide: true},
        ],
    });
}

function buildKernel({kernel}) {
    const tables = {oops: oopsTable(kernel), log: logTable(kernel), modules: moduleTable(kernel)};
    const taints = kernel.tainted ? make("span", {className: "warn"}, kernel.taints.join(", ") || String(kernel.tainted)) : "no";
    const facts = factList([["Tainted", taints]]);
    return {nodes: [facts, ...Object.values(tables).map((table) => table.element)], tables};
}
