// What changed between the two looks.

const UNITS = {
    percent: percent,
    per_second: rate,
    bytes_per_second: (number) => `${size(number)}/s`,
    kb: (number) => signed(number, memory),
    bytes: (number) => signed(number, size),
    value: (number) => signed(number, count),
};
const unitOf = (row) => Object.keys(UNITS).find((unit) => unit in row);
const GROUP_TITLES = {
    cpu: "Processors", interrupts: "Interrupts", softirqs: "Soft interrupts", vmstat: "Virtual memory", memory: "Memory",
    slab: "Kernel memory by cache", disks: "Disks", interfaces: "Interfaces", protocols: "Protocol counters",
    settings: "Settings",
};

function changeColumns(rows) {
    if (rows[0].group === "settings") {
        return [
            {title: "Setting", value: (row) => row.name, wide: true},
            {title: "First look", value: (row) => row.first_text, wide: true},
            {title: "Second look", value: (row) => row.second_text, wide: true},
        ];
    }
    const format = (row, number) => ({kb: memory, bytes: size, bytes_per_second: size}[unitOf(row)] ?? count)(number);
    return [
        {title: "Name", value: (row) => row.name, wide: true},
        {title: "Change", value: (row) => Math.abs(row[unitOf(row)] ?? 0), number: true,
         show: (row) => UNITS[unitOf(row)](row[unitOf(row)] ?? 0)},
        {title: "First look", value: (row) => row.first, number: true, show: (row) => format(row, row.first)},
        {title: "Second look", value: (row) => row.second, number: true, show: (row) => format(row, row.second)},
    ];
}

function mountTable(looks) {
    const last = looks[1].present ? looks[1] : looks[0];
    return new Table({
        label: "Mounts", rows: last.mounts, key: (row) => row.folder,
        columns: [
            {title: "Folder", value: (row) => row.folder, wide: true},
            {title: "Device", value: (row) => row.device, wide: true},
            {title: "Type", value: (row) => row.type},
            {title: "Options", value: (row) => row.options, wide: true},
        ],
    });
}

function buildChanges({changes, looks}) {
    const tables = {};
    for (const group of new Set(changes.map((row) => row.group))) {
        const rows = changes.filter((row) => row.group === group);
        tables[group] = new Table({label: GROUP_TITLES[group] ?? group, rows, columns: changeColumns(rows),
                                   key: (row) => row.name});
    }
    if (changes.length === 0) {
        const both = looks.every((look) => look.present);
        tables.none = new Table({label: "Changes", rows: [], columns: [],
                                 empty: both ? "Nothing changed." : "The archive has one look only, so nothing can be compared."});
    }
    tables.mounts = mountTable(looks);
    const grid = make("div", {className: "grid"}, ...Object.values(tables).map((table) => table.element));
    return {nodes: [grid], tables};
}
